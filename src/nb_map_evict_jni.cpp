// The natives over eviction records and eviction queues.
//
// Handles are trusted; only what says so tests for null. Lists are handed over as addresses, each
// pinned for Java while the queue's mutex is held.
#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapLFUEvictionQueue.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapLRUEvictionQueue.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapTTLEvictionQueue.h"
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapVoskaEvictionQueue.h"
#include "nb_jni.h"
#include "nb_logging.h"
#include "nb_map_private.h"

using namespace nimbra;

namespace {

LuOffHeapEvictionData* recordOf(jlong handle) { return fromHandle<LuOffHeapEvictionData>(handle); }

LuOffHeapEvictionDataQueue* queueOf(jlong handle) {
  return fromHandle<LuOffHeapEvictionDataQueue>(handle);
}

LuOffHeapEvictionData* nextRecord(const LuOffHeapEvictionData* record) {
  return static_cast<LuOffHeapEvictionData*>(record->next);
}

// Scratch memory for the addresses of one list.
class AddressList {
 public:
  AddressList(JNIEnv* env, uint64_t count)
      : env_(env),
        words_(static_cast<jlong*>(
            malloc_nb(env, count * sizeof(jlong), "Addresses for Eviction List"))),
        bytes_(count * sizeof(jlong)) {}
  ~AddressList() {
    if (words_ != nullptr) free_nb(env_, words_, bytes_);
  }
  AddressList(const AddressList&) = delete;
  AddressList& operator=(const AddressList&) = delete;
  jlong* words() const { return words_; }

 private:
  JNIEnv* env_;
  jlong* words_;
  uint64_t bytes_;
};

}  // namespace

// ---- Records -------------------------------------------------------------------------------

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_allocateAndPinEvictionData(
    JNIEnv* env, jobject, jlong, jobject key, jboolean countKeyHeader) {
  const NativeScope scope(env);
  return toHandle(allocateEvictionData(env, headerOfBuffer(env, key), countKeyHeader != JNI_FALSE));
}

jobject Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_getEvictionKey(
    JNIEnv* env, jobject, jlong, jlong record) {
  const NativeScope scope(env);
  ByteBufferHeader* key = recordOf(record)->key;
  return newByteBuffer(env, key, static_cast<int32_t>(key->dataSize));
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_setMetadata(
    JNIEnv*, jobject, jlong, jlong record, jlong metadata) {
  recordOf(record)->metadata = metadata;
  return JNI_TRUE;
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_getMetadata(JNIEnv*,
                                                                                     jobject, jlong,
                                                                                     jlong record) {
  return recordOf(record)->metadata;
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_setExpiration(
    JNIEnv*, jobject, jlong, jlong record, jlong expiration) {
  recordOf(record)->expiration = expiration;
  return JNI_TRUE;
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_getExpiration(
    JNIEnv*, jobject, jlong, jlong record) {
  return recordOf(record)->expiration;
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_setTimeout(
    JNIEnv*, jobject, jlong record, jint timeout) {
  if (record == 0) return JNI_FALSE;
  recordOf(record)->timeout = timeout;
  return JNI_TRUE;
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_getTimeout(JNIEnv*, jobject,
                                                                                   jlong record) {
  return recordOf(record)->timeout;
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionDataImpl_getReferenceCount(
    JNIEnv*, jobject, jlong record) {
  return lockRead(&recordOf(record)->pins);
}

jboolean Java_com_velt_rz_corvane_io_offheap_OffHeapManager_setEvictionData_1native(
    JNIEnv* env, jobject, jlong value, jlong record, jboolean forTTL) {
  const NativeScope scope(env);
  return setEvictionDataToLuOffHeapValue(env, fromHandle<LuOffHeapValue>(value), recordOf(record),
                                         forTTL != JNI_FALSE) != 0
             ? JNI_TRUE
             : JNI_FALSE;
}

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getEvictionData_1native(JNIEnv* env,
                                                                                 jobject,
                                                                                 jlong handle,
                                                                                 jboolean forTTL) {
  const NativeScope scope(env);
  const auto* value = fromHandle<LuOffHeapValue>(handle);
  if (value == nullptr) return 0;
  LuOffHeapEvictionData* record =
      forTTL != JNI_FALSE ? value->ttlEvictionData : value->evictionData;
  if (record == nullptr) return 0;
  pin(env, static_cast<Pinnable*>(record), JNI_GET_PIN);
  return toHandle(record);
}

jint Java_com_velt_rz_corvane_io_offheap_OffHeapManager_pinLuEvictionData_1native(JNIEnv* env,
                                                                                  jobject,
                                                                                  jlong record,
                                                                                  jint reason) {
  const NativeScope scope(env);
  return pin(env, static_cast<Pinnable*>(recordOf(record)), javaReason(reason));
}

jint Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinLuEvictionData_1native(JNIEnv* env,
                                                                                    jobject,
                                                                                    jlong record,
                                                                                    jint reason) {
  const NativeScope scope(env);
  return static_cast<jint>(unpinLuOffHeapEvictionData(env, recordOf(record), javaReason(reason)));
}

// ---- Queues --------------------------------------------------------------------------------

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue_allocateQueue(JNIEnv* env,
                                                                                    jobject) {
  const NativeScope scope(env);
  return toHandle(allocateQueue(env, kEvictionQueue));
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue_clearQueue(JNIEnv* env,
                                                                                    jobject,
                                                                                    jlong queue) {
  const NativeScope scope(env);
  return clearEvictionQueue(env, queueOf(queue)) ? JNI_TRUE : JNI_FALSE;
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue_freeQueue(JNIEnv* env,
                                                                                   jobject,
                                                                                   jlong queue) {
  const NativeScope scope(env);
  if (!clearEvictionQueue(env, queueOf(queue))) return JNI_FALSE;
  freeQueue(env, queueOf(queue), kEvictionQueue);
  return JNI_TRUE;
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue_remove(JNIEnv* env, jobject,
                                                                            jlong queue,
                                                                            jlong record) {
  const NativeScope scope(env);
  return removeFromEvictionQueue(env, queueOf(queue), recordOf(record));
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue_getQueueCount(JNIEnv*, jobject,
                                                                                   jlong queue) {
  return static_cast<jint>(__atomic_load_n(&queueOf(queue)->count, __ATOMIC_RELAXED));
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapEvictionQueue_getEvictionList(
    JNIEnv* env, jobject, jlong handle, jlongArray out) {
  const NativeScope scope(env);
  LuOffHeapEvictionDataQueue* queue = queueOf(handle);
  const jsize length = env->GetArrayLength(out);
  const AddressList list(env, static_cast<uint64_t>(length));
  if (list.words() == nullptr) return JNI_FALSE;
  if (lockQueue(queue) != 0) return JNI_FALSE;
  auto* record = static_cast<LuOffHeapEvictionData*>(queue->first);
  jsize filled = 0;
  for (; filled < length; filled++) {
    list.words()[filled] = toHandle(record);
    if (record == nullptr) break;
    pin(env, static_cast<Pinnable*>(record), JNI_EVICTLIST_PIN);
    record = nextRecord(record);
  }
  unlockQueue(queue);
  // Behind the first 0 nothing carries a meaning; it is cleared so that nothing stale is copied.
  for (; filled < length; filled++) list.words()[filled] = 0;
  env->SetLongArrayRegion(out, 0, length, list.words());
  return JNI_TRUE;
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapLRUEvictionQueue_insertLRU(JNIEnv* env,
                                                                                  jobject,
                                                                                  jlong queue,
                                                                                  jlong record) {
  const NativeScope scope(env);
  return insertLRUEvictionQueue(env, queueOf(queue), recordOf(record));
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapLRUEvictionQueue_updateLRU(
    JNIEnv* env, jobject, jlong queue, jlong record) {
  const NativeScope scope(env);
  return updateLRUEvictionQueue(env, queueOf(queue), recordOf(record)) ? JNI_TRUE : JNI_FALSE;
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapLFUEvictionQueue_insertLFU(JNIEnv* env,
                                                                                  jobject,
                                                                                  jlong queue,
                                                                                  jlong record) {
  const NativeScope scope(env);
  return insertLFUEvictionQueueAndPin(env, queueOf(queue), recordOf(record));
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapLFUEvictionQueue_updateLFU(
    JNIEnv* env, jobject, jlong queue, jlong record) {
  const NativeScope scope(env);
  return updateLFUEvictionQueue(env, queueOf(queue), recordOf(record)) ? JNI_TRUE : JNI_FALSE;
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapTTLEvictionQueue_insertTTL(
    JNIEnv* env, jobject, jlong queue, jlong record, jlong time) {
  const NativeScope scope(env);
  return insertTTLEvictionQueueAndPin(env, queueOf(queue), recordOf(record), time);
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapTTLEvictionQueue_updateTTL(
    JNIEnv* env, jobject, jlong queue, jlong record, jlong time) {
  const NativeScope scope(env);
  return updateTTLEvictionQueue(env, queueOf(queue), recordOf(record), time) ? JNI_TRUE : JNI_FALSE;
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapTTLEvictionQueue_getMinimumTime(
    JNIEnv* env, jobject, jlong queue) {
  const NativeScope scope(env);
  return getMinimumEvictionTime(env, queueOf(queue));
}

namespace {

// REQUIRES: the queue. A new array with the addresses of `count` records that `isDue` picks from
// `first` on, each pinned with `reason`; null, and no pin, when memory for it cannot be had.
template <typename IsDue>
jlongArray pinDueRecords(JNIEnv* env, LuOffHeapEvictionData* first, jsize count, uint32_t reason,
                         IsDue isDue) {
  const jlongArray array = env->NewLongArray(count);
  if (array == nullptr || count == 0) return array;
  const AddressList list(env, static_cast<uint64_t>(count));
  if (list.words() == nullptr) {
    env->DeleteLocalRef(array);
    return nullptr;
  }
  jsize filled = 0;
  for (auto* record = first; record != nullptr && filled < count; record = nextRecord(record)) {
    if (!isDue(record)) continue;
    pin(env, static_cast<Pinnable*>(record), reason);
    list.words()[filled++] = toHandle(record);
  }
  // Java may put an expiration off between the count and this walk.
  while (filled < count) list.words()[filled++] = 0;
  env->SetLongArrayRegion(array, 0, count, list.words());
  return array;
}

}  // namespace

jlongArray Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapTTLEvictionQueue_getTTLEvictionList(
    JNIEnv* env, jobject, jlong handle, jlong currentTime) {
  const NativeScope scope(env);
  LuOffHeapEvictionDataQueue* queue = queueOf(handle);
  NB_ENTRY(env, "queue=%p, currentTime=%lu", static_cast<void*>(queue),
           static_cast<unsigned long>(currentTime));
  if (queue == nullptr || lockQueue(queue) != 0) return nullptr;
  auto* first = static_cast<LuOffHeapEvictionData*>(queue->first);
  jsize count = 0;
  for (auto* record = first; record != nullptr && record->metadata < currentTime;
       record = nextRecord(record)) {
    count++;
  }
  // The reason is not that of the other lists; Java drops it with the same.
  const jlongArray array = pinDueRecords(env, first, count, JNI_GET_PIN,
                                         [](const LuOffHeapEvictionData*) { return true; });
  if (unlockQueue(queue) != 0) {
    if (array != nullptr) env->DeleteLocalRef(array);
    return nullptr;
  }
  NB_EXIT(env, "queue=%p, currentTime=%lu, count=%lu", static_cast<void*>(queue),
          static_cast<unsigned long>(currentTime), static_cast<unsigned long>(count));
  return array;
}

jlongArray Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapVoskaEvictionQueue_getEvictionList(
    JNIEnv* env, jobject, jlong handle, jlong currentTime) {
  const NativeScope scope(env);
  LuOffHeapEvictionDataQueue* queue = queueOf(handle);
  if (queue == nullptr) return nullptr;
  NB_ENTRY(env, "queue=%p, currentTime=%lu", static_cast<void*>(queue),
           static_cast<unsigned long>(currentTime));
  if (lockQueue(queue) != 0) return nullptr;
  const auto isDue = [currentTime](const LuOffHeapEvictionData* record) {
    return record->metadata < currentTime || record->expiration < currentTime;
  };
  auto* first = static_cast<LuOffHeapEvictionData*>(queue->first);
  jsize count = 0;
  for (auto* record = first; record != nullptr; record = nextRecord(record)) {
    if (isDue(record)) count++;
  }
  const jlongArray array = pinDueRecords(env, first, count, JNI_EVICTLIST_PIN, isDue);
  unlockQueue(queue);
  NB_EXIT(env, "queue=%p, currentTime=%lu, count=%lu", static_cast<void*>(queue),
          static_cast<unsigned long>(currentTime), static_cast<unsigned long>(count));
  return array;
}
