// The exported entry points of the map and its values under short names, and the conversions
// between records and the handles that Java holds.

#pragma once

#include <jni.h>

#include <cstdint>

#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl.h"
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

// ---- OffHeapManager ----------------------------------------------------------------------

inline constexpr auto& unpinLuOffHeapValue_native =
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinLuOffHeapValue_1native;
inline constexpr auto& getOriginalLuValue =
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getOriginalLuValue;

}  // namespace nimbra::test::natives
