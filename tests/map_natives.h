// The exported entry points of the map, its values and eviction under short names, and the
// conversions between records and the handles that Java holds.

#pragma once

#include <jni.h>

#include <cstdint>

#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapLFUEvictionQueue.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapLRUEvictionQueue.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapTTLEvictionQueue.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapVoskaEvictionQueue.h"
#include "nb_map.h"

namespace nimbra::test::natives {

inline jlong handle(const void* record) {
  return static_cast<jlong>(reinterpret_cast<intptr_t>(record));
}
inline LuOffHeapMap* asMap(jlong handle) {
  return reinterpret_cast<LuOffHeapMap*>(static_cast<intptr_t>(handle));
}
inline LuOffHeapValue* asValue(jlong handle) {
  return reinterpret_cast<LuOffHeapValue*>(static_cast<intptr_t>(handle));
}
inline LuOffHeapEvictionData* asEvictionData(jlong handle) {
  return reinterpret_cast<LuOffHeapEvictionData*>(static_cast<intptr_t>(handle));
}
inline LuOffHeapEvictionDataQueue* asEvictionQueue(jlong handle) {
  return reinterpret_cast<LuOffHeapEvictionDataQueue*>(static_cast<intptr_t>(handle));
}

// ---- LuOffHeapMapImpl --------------------------------------------------------------------

inline constexpr auto& allocateLuOffHeapMap =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_allocateLuOffHeapMap;
inline constexpr auto& deleteLuOffHeapMap =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_deleteLuOffHeapMap;
inline constexpr auto& maxSize = Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_maxSize;
inline constexpr auto& insertAndGetNewAndPin =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPin;
inline constexpr auto& insertAndGetNewAndPinWithHashCode =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithHashCode;
inline constexpr auto& insertAndGetNewAndPinWithHashCodeAndBA =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithHashCodeAndBA;
inline constexpr auto& insertAndGetNewAndPinWithHashCodeAndString =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithHashCodeAndString;
inline constexpr auto& insertAndGetNewAndPinWithHashCodeAndStringBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithHashCodeAndStringBB;
inline constexpr auto& updateAndGetNewAndPin =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPin;
inline constexpr auto& updateAndGetNewAndPinWithHashCode =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithHashCode;
inline constexpr auto& updateAndGetNewAndPinWithHashCodeBA =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithHashCodeBA;
inline constexpr auto& updateAndGetNewAndPinWithHashCodeBABA =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithHashCodeBABA;
inline constexpr auto& updateAndGetNewAndPinWithHashCodeStringBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithHashCodeStringBB;
inline constexpr auto& updateAndGetNewAndPinWithHashCodeStringBA =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithHashCodeStringBA;
inline constexpr auto& removeAndGetAndPin =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_removeAndGetAndPin;
inline constexpr auto& removeAndGetAndPinWithHashCode =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_removeAndGetAndPinWithHashCode;
inline constexpr auto& removeAndGetAndPinWithHashCodeBA =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_removeAndGetAndPinWithHashCodeBA;
inline constexpr auto& removeAndGetAndPinWithHashCodeString =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_removeAndGetAndPinWithHashCodeString;
inline constexpr auto& removeAndGetAndPinWithHashCodeNumber =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_removeAndGetAndPinWithHashCodeNumber;
inline constexpr auto& getLuValue_ByteArray =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getLuValue_1ByteArray;
inline constexpr auto& getLuValue_String =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getLuValue_1String;
inline constexpr auto& getLuValue_Number =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getLuValue_1Number;
inline constexpr auto& getLuValue_ByteBuffer =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getLuValue_1ByteBuffer;
inline constexpr auto& containsKey =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_containsKey;
inline constexpr auto& containsKeyWithHashCode =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_containsKeyWithHashCode;
inline constexpr auto& containsKeyWithHashCodeBA =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_containsKeyWithHashCodeBA;
inline constexpr auto& containsKeyWithHashCodeString =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_containsKeyWithHashCodeString;
inline constexpr auto& containsKeyWithHashCodeNumber =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_containsKeyWithHashCodeNumber;
inline constexpr auto& size = Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_size;
inline constexpr auto& getCurrentBytesUsed =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getCurrentBytesUsed;
inline constexpr auto& clear = Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_clear;
inline constexpr auto& insertAndGetNewAndPinWithByte =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithByte;
inline constexpr auto& insertAndGetNewAndPinWithByteBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithByteBB;
inline constexpr auto& insertAndGetNewAndPinWithShort =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithShort;
inline constexpr auto& insertAndGetNewAndPinWithShortBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithShortBB;
inline constexpr auto& insertAndGetNewAndPinWithInt =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithInt;
inline constexpr auto& insertAndGetNewAndPinWithIntBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithIntBB;
inline constexpr auto& insertAndGetNewAndPinWithLong =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithLong;
inline constexpr auto& insertAndGetNewAndPinWithLongBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithLongBB;
inline constexpr auto& insertAndGetNewAndPinWithFloat =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithFloat;
inline constexpr auto& insertAndGetNewAndPinWithFloatBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithFloatBB;
inline constexpr auto& insertAndGetNewAndPinWithDouble =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithDouble;
inline constexpr auto& insertAndGetNewAndPinWithDoubleBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithDoubleBB;
inline constexpr auto& insertAndGetNewAndPinWithBoolean =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithBoolean;
inline constexpr auto& insertAndGetNewAndPinWithBooleanBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithBooleanBB;
inline constexpr auto& updateAndGetNewAndPinWithByte =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithByte;
inline constexpr auto& updateAndGetNewAndPinWithByteBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithByteBB;
inline constexpr auto& updateAndGetNewAndPinWithShort =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithShort;
inline constexpr auto& updateAndGetNewAndPinWithShortBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithShortBB;
inline constexpr auto& updateAndGetNewAndPinWithInt =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithInt;
inline constexpr auto& updateAndGetNewAndPinWithIntBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithIntBB;
inline constexpr auto& updateAndGetNewAndPinWithLong =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithLong;
inline constexpr auto& updateAndGetNewAndPinWithLongBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithLongBB;
inline constexpr auto& updateAndGetNewAndPinWithFloat =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithFloat;
inline constexpr auto& updateAndGetNewAndPinWithFloatBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithFloatBB;
inline constexpr auto& updateAndGetNewAndPinWithDouble =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithDouble;
inline constexpr auto& updateAndGetNewAndPinWithDoubleBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithDoubleBB;
inline constexpr auto& updateAndGetNewAndPinWithBoolean =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithBoolean;
inline constexpr auto& updateAndGetNewAndPinWithBooleanBB =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithBooleanBB;
inline constexpr auto& lockMapAndQueues =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_lockMapAndQueues;
inline constexpr auto& unlockMapAndQueues =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_unlockMapAndQueues;
inline constexpr auto& getChars =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getChars;
inline constexpr auto& getFullCharBytesFromString =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getFullCharBytesFromString;
inline constexpr auto& queryRevisionAndPinWithBounds =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_queryRevisionAndPinWithBounds;
inline constexpr auto& getAndPinFirstInQueue =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getAndPinFirstInQueue;
inline constexpr auto& getAndPinNextInQueue =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getAndPinNextInQueue;
inline constexpr auto& getAndPinNextKeyWithAttributes =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getAndPinNextKeyWithAttributes;

// These three carry C++ names, so that Java cannot bind them.
jlong allocateLuOffHeapMapValue(JNIEnv*, jobject self, jobject key, jobject value, jshort owner, jlong revision) __asm__(
    "_Z83Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_"
    "allocateLuOffHeapMapValueP7JNIEnv_P8_jobjectS2_S2_sl");
jlong allocateLuOffHeapMapValueWithHashCode(JNIEnv*, jobject self, jobject key, jint hashCode, jobject value, jshort owner, jlong revision) __asm__(
    "_Z95Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_"
    "allocateLuOffHeapMapValueWithHashCodeP7JNIEnv_P8_jobjectS2_iS2_sl");
jint getKeyLength(JNIEnv*, jobject self, jlong value) __asm__(
    "_Z75Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_"
    "getKeyLengthP7JNIEnv_P8_jobjectl");

// ---- LuOffHeapMapValueImpl ---------------------------------------------------------------

inline constexpr auto& getKeyHashCode =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getKeyHashCode;
inline constexpr auto& isValueInMemory =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_isValueInMemory;
inline constexpr auto& getRevisionOwner =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getRevisionOwner;
inline constexpr auto& getRevisionNumber =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getRevisionNumber;
inline constexpr auto& getReferenceCount =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getReferenceCount;
inline constexpr auto& getKeyInfo =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getKeyInfo;
inline constexpr auto& getKeyType =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getKeyType;
inline constexpr auto& getValueInfo =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getValueInfo;
inline constexpr auto& staticGetValueInfo =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_staticGetValueInfo;
inline constexpr auto& getValueType =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getValueType;
inline constexpr auto& markClientDirty =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_markClientDirty;
inline constexpr auto& unmarkClientDirty =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_unmarkClientDirty;
inline constexpr auto& isClientDirty =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_isClientDirty;
inline constexpr auto& getSize =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getSize;

// ---- OffHeapManager ----------------------------------------------------------------------

inline constexpr auto& unpinLuOffHeapValue_native =
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinLuOffHeapValue_1native;
inline constexpr auto& getOriginalLuValue =
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getOriginalLuValue;
inline constexpr auto& getSize_LuValue =
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSize_1LuValue;
inline constexpr auto& getSize_PerEntryMetadata =
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSize_1PerEntryMetadata;
inline constexpr auto& setEvictionData_native =
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_setEvictionData_1native;
inline constexpr auto& getEvictionData_native =
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getEvictionData_1native;
inline constexpr auto& pinLuEvictionData_native =
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_pinLuEvictionData_1native;
inline constexpr auto& unpinLuEvictionData_native =
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinLuEvictionData_1native;

// ---- LuOffHeapEvictionDataImpl -----------------------------------------------------------

inline constexpr auto& allocateAndPinEvictionData =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_allocateAndPinEvictionData;
inline constexpr auto& getEvictionKey =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_getEvictionKey;
inline constexpr auto& setMetadata =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_setMetadata;
inline constexpr auto& getMetadata =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_getMetadata;
inline constexpr auto& setExpiration =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_setExpiration;
inline constexpr auto& getExpiration =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_getExpiration;
inline constexpr auto& setTimeout =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_setTimeout;
inline constexpr auto& getTimeout =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_getTimeout;
inline constexpr auto& getEvictionReferenceCount =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_getReferenceCount;

// ---- Eviction queues ---------------------------------------------------------------------

inline constexpr auto& allocateEvictionQueue =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue_allocateQueue;
inline constexpr auto& clearEvictionQueue =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue_clearQueue;
inline constexpr auto& freeEvictionQueue =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue_freeQueue;
inline constexpr auto& removeFromEvictionQueue =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue_remove;
inline constexpr auto& getEvictionList =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue_getEvictionList;
inline constexpr auto& getQueueCount =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue_getQueueCount;
inline constexpr auto& insertLRU =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapLRUEvictionQueue_insertLRU;
inline constexpr auto& updateLRU =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapLRUEvictionQueue_updateLRU;
inline constexpr auto& insertLFU =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapLFUEvictionQueue_insertLFU;
inline constexpr auto& updateLFU =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapLFUEvictionQueue_updateLFU;
inline constexpr auto& insertTTL =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapTTLEvictionQueue_insertTTL;
inline constexpr auto& updateTTL =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapTTLEvictionQueue_updateTTL;
inline constexpr auto& getTTLEvictionList =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapTTLEvictionQueue_getTTLEvictionList;
inline constexpr auto& getMinimumTime =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapTTLEvictionQueue_getMinimumTime;
inline constexpr auto& getVoskaEvictionList =
    Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapVoskaEvictionQueue_getEvictionList;

}  // namespace nimbra::test::natives
