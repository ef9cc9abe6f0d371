// LuOffHeapMapImpl's natives: the map object, insert, update and remove by every form of key, typed
// gets and containment.
//
// Keys and values that arrive as arrays or strings are copied into buffers of ours, which hold an
// ALLOCATION_PIN for the length of the call. Handles are trusted, as the contract has it.
#include <cstdint>

#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl.h"
#include "nb_jni.h"
#include "nb_logging.h"
#include "nb_map_buffers.h"
#include "overflow.h"

using namespace nimbra;

namespace {

uint16_t ownerOf(jshort owner) { return static_cast<uint16_t>(owner); }

}  // namespace

// ---- The map object ------------------------------------------------------------------------

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_allocateLuOffHeapMap(
    JNIEnv* env, jobject, jint /*ignored*/, jint concurrency, jfloat loadFactor, jint mapId,
    jint mapSetId) {
  const NativeScope scope(env);
  MapHeader* header =
      initializeMap(env, 1, static_cast<uint32_t>(concurrency), loadFactor, false, mapId, mapSetId,
                    getNext_LuValue, getKey_LuValue, getValue_LuValue, getHash_LuValue,
                    unpinLuOffHeapMapValue, setNext_LuValue, getSize_LuValue, setValue_LuValue,
                    deserialize, compare, allocateDirectFromPhantom);
  // Deliberate: a failure from here on leaves the table as it is. The contract with Java says so.
  // Pinned by MapCreation.LaterFailuresLeaveTheTable.
  LuOffHeapMap* map = allocateLuOffHeapMap(env, header);
  if (map == nullptr) return 0;
  map->revisionQueue = static_cast<LuOffHeapRevisionOrderQueue**>(
      malloc_nb(env, sizeof(LuOffHeapRevisionOrderQueue*), "LuOffHeapQueue List"));
  if (map->revisionQueue == nullptr) {
    freeLuOffHeapMap(env, map);
    return 0;
  }
  addMetadata(usableSizeOf(map->revisionQueue));
  map->numQueues = 1;
  auto* queue = static_cast<LuOffHeapRevisionOrderQueue*>(allocateQueue(env, kRevisionQueue));
  if (queue == nullptr) {
    freeLuOffHeapMap(env, map);
    return 0;
  }
  map->revisionQueue[0] = queue;
  queue->bookmarks = nullptr;
  queue->numBookmarks = 0;
  NB_DEBUG(env, "luMap=%p, luMap->map=%p, luMap->revisionQueue=%p", static_cast<void*>(map),
           static_cast<void*>(map->map), static_cast<void*>(map->revisionQueue));
  return toHandle(map);
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_deleteLuOffHeapMap(
    JNIEnv* env, jobject, jlong handle) {
  const NativeScope scope(env);
  auto* map = fromHandle<LuOffHeapMap>(handle);
  NB_DEBUG(env, "luMap=%p", static_cast<void*>(map));
  if (map == nullptr) return JNI_FALSE;
  if (_isDiskOverflowEnabled) spliceOutNodes(env, map);
  hashtable_destroy(env, map->map);
  if (wrlock(env, map) != 0) return JNI_FALSE;
  for (uint32_t i = 0; i < map->numQueues; i++) {
    freeQueue(env, map->revisionQueue[i], kRevisionQueue);
  }
  if (unlock(env, map) != 0) return JNI_FALSE;
  freeLuOffHeapMap(env, map);
  return JNI_TRUE;
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_maxSize(JNIEnv* env, jobject,
                                                                        jlong handle) {
  const NativeScope scope(env);
  auto* map = fromHandle<LuOffHeapMap>(handle);
  const bool locked = rdlock(env, map) == 0;
  jlong sum = 0;
  for (uint32_t i = 0; i < map->numQueues; i++) {
    const bool queueLocked = lockQueue(map->revisionQueue[i]) == 0;
    sum += map->revisionQueue[i]->maxCount;
    if (queueLocked) unlockQueue(map->revisionQueue[i]);
  }
  if (locked) unlock(env, map);
  return sum;
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_size(JNIEnv* env, jobject,
                                                                     jlong handle) {
  const NativeScope scope(env);
  return hashtable_size(env, fromHandle<LuOffHeapMap>(handle)->map);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getCurrentBytesUsed(JNIEnv* env,
                                                                                    jobject,
                                                                                    jlong handle) {
  const NativeScope scope(env);
  return hashtable_bytesUsed(env, fromHandle<LuOffHeapMap>(handle)->map);
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_clear(JNIEnv* env, jobject,
                                                                         jlong handle) {
  const NativeScope scope(env);
  auto* map = fromHandle<LuOffHeapMap>(handle);
  hashtable_clear(env, map->map);
  return clearQueues(env, map) ? JNI_TRUE : JNI_FALSE;
}

// ---- Insert --------------------------------------------------------------------------------

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPin(
    JNIEnv* env, jobject self, jlong map, jobject key, jobject value, jshort revisionOwner,
    jlong revisionNumber) {
  const NativeScope scope(env);
  ByteBufferHeader* keyHeader = headerOfBuffer(env, key);
  return toHandle(insertAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key,
                               OBJECT_TYPE_JBYTE_BUFFER, keyHeader, hashFn(keyHeader), false,
                               headerOfBuffer(env, value), ownerOf(revisionOwner), revisionNumber));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithHashCode(
    JNIEnv* env, jobject self, jlong map, jobject key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return toHandle(insertAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key,
                               OBJECT_TYPE_JBYTE_BUFFER, headerOfBuffer(env, key), hashCode, true,
                               headerOfBuffer(env, value), ownerOf(revisionOwner), revisionNumber));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithHashCodeAndBA(
    JNIEnv* env, jobject self, jlong map, jbyteArray key, jint keyLength, jbyte keyType,
    jint hashCode, jbyteArray value, jint valueLength, jbyte valueType, jshort revisionOwner,
    jlong revisionNumber) {
  const NativeScope scope(env);
  const ArrayBuffer keyBuffer(env, key, keyLength, keyType, "Key Data");
  if (!keyBuffer.ok) return 0;
  const ArrayBuffer valueBuffer(env, value, valueLength, valueType, "Value Data");
  if (!valueBuffer.ok) return 0;
  return toHandle(insertAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key,
                               OBJECT_TYPE_JBYTE_ARRAY, keyBuffer.get(), hashCode, true,
                               valueBuffer.get(), ownerOf(revisionOwner), revisionNumber));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithHashCodeAndString(
    JNIEnv* env, jobject self, jlong map, jstring key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  const StringBuffer keyBuffer(env, key);
  if (!keyBuffer.ok) return 0;
  const ArrayBuffer valueBuffer(env, value, valueLength, valueType, "Value Data");
  if (!valueBuffer.ok) return 0;
  return toHandle(insertAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key, OBJECT_TYPE_JSTRING,
                               keyBuffer.get(), hashCode, true, valueBuffer.get(),
                               ownerOf(revisionOwner), revisionNumber));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithHashCodeAndStringBB(
    JNIEnv* env, jobject self, jlong map, jstring key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  const StringBuffer keyBuffer(env, key);
  if (!keyBuffer.ok) return 0;
  return toHandle(insertAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key, OBJECT_TYPE_JSTRING,
                               keyBuffer.get(), hashCode, true, headerOfBuffer(env, value),
                               ownerOf(revisionOwner), revisionNumber));
}

// ---- Update --------------------------------------------------------------------------------

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPin(
    JNIEnv* env, jobject self, jlong map, jobject key, jobject value, jshort revisionOwner,
    jlong revisionNumber) {
  const NativeScope scope(env);
  ByteBufferHeader* keyHeader = headerOfBuffer(env, key);
  return toHandle(updateAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key,
                               OBJECT_TYPE_JBYTE_BUFFER, keyHeader, hashFn(keyHeader), false,
                               headerOfBuffer(env, value), ownerOf(revisionOwner), revisionNumber));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithHashCode(
    JNIEnv* env, jobject self, jlong map, jobject key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return toHandle(updateAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key,
                               OBJECT_TYPE_JBYTE_BUFFER, headerOfBuffer(env, key), hashCode, true,
                               headerOfBuffer(env, value), ownerOf(revisionOwner), revisionNumber));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithHashCodeBA(
    JNIEnv* env, jobject self, jlong map, jbyteArray key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return toHandle(updateAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key,
                               OBJECT_TYPE_JBYTE_ARRAY, nullptr, hashCode, true,
                               headerOfBuffer(env, value), ownerOf(revisionOwner), revisionNumber));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithHashCodeBABA(
    JNIEnv* env, jobject self, jlong map, jbyteArray key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  const ArrayBuffer valueBuffer(env, value, valueLength, valueType, "Value Data");
  if (!valueBuffer.ok) return 0;
  return toHandle(updateAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key,
                               OBJECT_TYPE_JBYTE_ARRAY, nullptr, hashCode, true, valueBuffer.get(),
                               ownerOf(revisionOwner), revisionNumber));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithHashCodeStringBB(
    JNIEnv* env, jobject self, jlong map, jstring key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return toHandle(updateAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key, OBJECT_TYPE_JSTRING,
                               nullptr, hashCode, true, headerOfBuffer(env, value),
                               ownerOf(revisionOwner), revisionNumber));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithHashCodeStringBA(
    JNIEnv* env, jobject self, jlong map, jstring key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  const ArrayBuffer valueBuffer(env, value, valueLength, valueType, "Value Data");
  if (!valueBuffer.ok) return 0;
  return toHandle(updateAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key, OBJECT_TYPE_JSTRING,
                               nullptr, hashCode, true, valueBuffer.get(), ownerOf(revisionOwner),
                               revisionNumber));
}

// ---- Remove --------------------------------------------------------------------------------

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_removeAndGetAndPin(JNIEnv* env,
                                                                                   jobject self,
                                                                                   jlong map,
                                                                                   jobject key) {
  const NativeScope scope(env);
  ByteBufferHeader* keyHeader = headerOfBuffer(env, key);
  return toHandle(removeAndGetAndPinLuOffHeapMap(env, self, fromHandle<LuOffHeapMap>(map), key,
                                                 keyHeader, hashFn(keyHeader), false));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_removeAndGetAndPinWithHashCode(
    JNIEnv* env, jobject self, jlong map, jobject key, jint hashCode) {
  const NativeScope scope(env);
  return toHandle(removeAndGetAndPinLuOffHeapMap(env, self, fromHandle<LuOffHeapMap>(map), key,
                                                 headerOfBuffer(env, key), hashCode, true));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_removeAndGetAndPinWithHashCodeBA(
    JNIEnv* env, jobject self, jlong map, jbyteArray key, jint hashCode) {
  const NativeScope scope(env);
  return toHandle(removeAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key,
                               OBJECT_TYPE_JBYTE_ARRAY, nullptr, hashCode, true));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_removeAndGetAndPinWithHashCodeString(
    JNIEnv* env, jobject self, jlong map, jstring key, jint hashCode) {
  const NativeScope scope(env);
  return toHandle(removeAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key, OBJECT_TYPE_JSTRING,
                               nullptr, hashCode, true));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_removeAndGetAndPinWithHashCodeNumber(
    JNIEnv* env, jobject self, jlong map, jint hashCode, jdouble key) {
  const NativeScope scope(env);
  return toHandle(removeAndPin(env, self, fromHandle<LuOffHeapMap>(map), &key, OBJECT_TYPE_JDOUBLE,
                               nullptr, hashCode, true));
}

// ---- Typed get -----------------------------------------------------------------------------

namespace {

struct GetRequest {
  jobject self;
  LuOffHeapMap* map;
  const void* key;
  uint8_t format;
  ByteBufferHeader* keyBuffer;  // null unless the key is one
  jint hashCode;
  bool touch;
  jlong revisionNumber;
  uint32_t reason;
  jlongArray attributes;  // null when the native takes none
};

// REQUIRES: the value's bucket set. False, with a Java exception, when the array is too short.
bool fillAttributes(JNIEnv* env, jlongArray attributes, const LuOffHeapValue* value) {
  const bool inMemory = (value->flags & HAS_VALUE) != 0;
  const jlong words[4] = {
      toHandle(bufferData(value->key)),
      static_cast<jlong>(value->key->dataSize),
      inMemory ? toHandle(bufferData(value->value)) : 0,
      inMemory ? static_cast<jlong>(value->value->dataSize) : 0,
  };
  env->SetLongArrayRegion(attributes, 0, 4, words);
  return !env->ExceptionCheck();
}

// The found value, pinned with the request's reason, or null. `reportLock` logs a bucket set that
// could not be had.
template <typename ReportLock>
LuOffHeapValue* getValuePinned(JNIEnv* env, const GetRequest& request, ReportLock reportLock) {
  LuOffHeapMap* map = request.map;
  if (request.touch && wrlock(env, map) != 0) return nullptr;
  BucketSet* set = getBucketSet(map->map, static_cast<uint32_t>(request.hashCode));
  if (lockBucketSet(set) != 0) {
    if (request.touch) unlock(env, map);
    reportLock();
    return nullptr;
  }
  LuOffHeapValue search = {};
  search.key = request.keyBuffer;
  search.hashCode = request.hashCode;
  auto* value = static_cast<LuOffHeapValue*>(hashtable_getAndPin(
      env, request.self, map->map, request.key, request.format, &search, false, request.reason));
  if (value != nullptr && request.attributes != nullptr &&
      !fillAttributes(env, request.attributes, value)) {
    unpinLuOffHeapMapValue(env, value, request.reason);  // Java would never see the address
    value = nullptr;
  }
  unlockBucketSet(set);
  if (value != nullptr && _isDiskOverflowEnabled) invoke_get_occurred(env, value);
  if (!request.touch) return value;
  if (value != nullptr) {
    updateRevisionQueue(env, map, value, value, request.revisionNumber, false);
  }
  // Deliberate: when the map lock cannot be released the value keeps its pin and Java learns
  // nothing of it. The contract with Java says so. Pinned by TypedGet.FailedMapUnlockKeepsThePin.
  return unlock(env, map) == 0 ? value : nullptr;
}

}  // namespace

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getLuValue_1ByteArray(
    JNIEnv* env, jobject self, jlong map, jlongArray attributes, jbyteArray key, jint hashCode,
    jlong /*unused*/, jboolean touch, jlong revisionNumber) {
  const NativeScope scope(env);
  return toHandle(getValuePinned(
      env,
      {self, fromHandle<LuOffHeapMap>(map), &key, OBJECT_TYPE_JBYTE_ARRAY, nullptr, hashCode,
       touch == JNI_TRUE, revisionNumber, JNI_GET_PIN, attributes},
      [env] { NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, "BucketSet lum[12]"); }));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getLuValue_1String(
    JNIEnv* env, jobject self, jlong map, jlongArray attributes, jstring key, jint /*unused*/,
    jint hashCode, jlong /*unused2*/, jboolean touch, jlong revisionNumber) {
  const NativeScope scope(env);
  return toHandle(getValuePinned(
      env,
      {self, fromHandle<LuOffHeapMap>(map), &key, OBJECT_TYPE_JSTRING, nullptr, hashCode,
       touch == JNI_TRUE, revisionNumber, NATIVE_TRANSIENT_GET_PIN, attributes},
      [env] { NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, "BucketSet lum[13]"); }));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getLuValue_1Number(
    JNIEnv* env, jobject self, jlong map, jint hashCode, jint /*unused*/, jboolean touch,
    jlong revisionNumber, jdouble key) {
  const NativeScope scope(env);
  return toHandle(getValuePinned(
      env,
      {self, fromHandle<LuOffHeapMap>(map), &key, OBJECT_TYPE_JDOUBLE, nullptr, hashCode,
       touch == JNI_TRUE, revisionNumber, NATIVE_TRANSIENT_GET_PIN, nullptr},
      [env] { NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, "BucketSet lum[14]"); }));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getLuValue_1ByteBuffer(
    JNIEnv* env, jobject self, jlong map, jobject key, jint hashCode, jint /*unused*/,
    jboolean touch, jlong revisionNumber) {
  const NativeScope scope(env);
  ByteBufferHeader* keyHeader = headerOfBuffer(env, key);
  const char* function = __func__;
  return toHandle(
      getValuePinned(env,
                     {self, fromHandle<LuOffHeapMap>(map), &key, OBJECT_TYPE_JBYTE_BUFFER,
                      keyHeader, hashCode == -1 ? hashFn(keyHeader) : hashCode, touch == JNI_TRUE,
                      revisionNumber, NATIVE_TRANSIENT_GET_PIN, nullptr},
                     [env, function] {
                       NB_DEBUG_AS(env, function, kAcquireLockText, "BucketSet");
                       NB_TRACE_AS(error, error, env, function, "%s", kLockErrorKey);
                     }));
}

// ---- Containment ---------------------------------------------------------------------------

namespace {

jboolean contains(JNIEnv* env, jobject self, jlong map, const void* key, uint8_t format,
                  ByteBufferHeader* keyBuffer, jint hashCode) {
  LuOffHeapValue search = {};
  search.key = keyBuffer;
  search.hashCode = hashCode;
  return hashtable_containsKey(env, self, fromHandle<LuOffHeapMap>(map)->map, key, format,
                               &search) != 0
             ? JNI_TRUE
             : JNI_FALSE;
}

}  // namespace

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_containsKey(JNIEnv* env,
                                                                               jobject self,
                                                                               jlong map,
                                                                               jobject key) {
  const NativeScope scope(env);
  ByteBufferHeader* keyHeader = headerOfBuffer(env, key);
  return contains(env, self, map, &key, OBJECT_TYPE_JBYTE_BUFFER, keyHeader, hashFn(keyHeader));
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_containsKeyWithHashCode(
    JNIEnv* env, jobject self, jlong map, jobject key, jint hashCode) {
  const NativeScope scope(env);
  return contains(env, self, map, &key, OBJECT_TYPE_JBYTE_BUFFER, headerOfBuffer(env, key),
                  hashCode);
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_containsKeyWithHashCodeBA(
    JNIEnv* env, jobject self, jlong map, jbyteArray key, jint hashCode) {
  const NativeScope scope(env);
  return contains(env, self, map, &key, OBJECT_TYPE_JBYTE_ARRAY, nullptr, hashCode);
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_containsKeyWithHashCodeString(
    JNIEnv* env, jobject self, jlong map, jstring key, jint hashCode) {
  const NativeScope scope(env);
  return contains(env, self, map, &key, OBJECT_TYPE_JSTRING, nullptr, hashCode);
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_containsKeyWithHashCodeNumber(
    JNIEnv* env, jobject self, jlong map, jint hashCode, jdouble key) {
  const NativeScope scope(env);
  return contains(env, self, map, &key, OBJECT_TYPE_JDOUBLE, nullptr, hashCode);
}
