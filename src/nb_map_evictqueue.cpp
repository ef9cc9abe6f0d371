// Eviction queues: LRU by position, LFU and TTL by sort key.
//
// State: none beyond the records. Every operation takes the queue's mutex itself, unless it says
// that it requires it; a mutex that cannot be had ends the operation without a record.
#include "nb_map_private.h"

namespace nimbra {

namespace {

constexpr char kAppend[] = "appendIntoEvictionQueue";
constexpr char kInsertText[] =
    "Failed to insert an entry from the internal queue in Nimbra library. Queue=%s";

}  // namespace

bool appendIntoEvictionQueue2(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                              LuOffHeapEvictionData* record) {
  NB_REQUIRES_HELD(&queue->mutex);
  NB_ENTRY_AS(env, kAppend, "queue=%p, evictData=%p", static_cast<void*>(queue),
              static_cast<void*>(record));
  if (record->next != nullptr || record->prev != nullptr) {
    NB_DEBUG_AS(env, kAppend, "value is in a eviction queue. evictData=%p",
                static_cast<void*>(record));
    return false;
  }
  LuQueueEntry* last = queue->last;
  record->prev = last;
  if (last != nullptr) {
    last->next = record;
    pin(env, last, EVICTION_QUEUE_PREV_PIN);
    pin(env, static_cast<Pinnable*>(record), EVICTION_QUEUE_NEXT_PIN);
    unpinLuQueueEntry(env, last, kEvictionQueue, EVICTION_QUEUE_LAST_PIN);
  }
  queue->last = record;
  pin(env, static_cast<Pinnable*>(record), EVICTION_QUEUE_LAST_PIN);
  if (queue->first == nullptr) {
    queue->first = record;
    pin(env, static_cast<Pinnable*>(record), EVICTION_QUEUE_FIRST_PIN);
  }
  // Deliberate: the high-water mark stays. The contract with Java says so.
  // Pinned by LruQueue.AppendLeavesTheHighWaterMark.
  __atomic_store_n(&queue->count, queue->count + 1, __ATOMIC_RELAXED);
  NB_EXIT_AS(env, kAppend, "queue=%p, evictData=%p, return=%d", static_cast<void*>(queue),
             static_cast<void*>(record), 1);
  return true;
}

int32_t insertLRUEvictionQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                               LuOffHeapEvictionData* record) {
  constexpr char kName[] = "insertLRU";
  NB_ENTRY_AS(env, kName, "queue=%p, evictData=%p", static_cast<void*>(queue),
              static_cast<void*>(record));
  if (queue == nullptr) return 0;
  if (lockQueue(queue) != 0) return -1;
  int32_t count = -1;
  if (appendIntoEvictionQueue2(env, queue, record)) {
    count = static_cast<int32_t>(queue->count);
  } else {
    NB_DEBUG_AS(env, kName, kInsertText, "LRU_Eviction_Queue");
    NB_ERROR_GENERIC(env, kGenericErrorKey,
                     "Failure appending to LRU_Eviction_Queue. queue=%p, evictData=%p",
                     static_cast<void*>(queue), static_cast<void*>(record));
  }
  unlockQueue(queue);
  NB_EXIT_AS(env, kName, "queue=%p, evictData=%p, return=%d", static_cast<void*>(queue),
             static_cast<void*>(record), count);
  return count;
}

namespace {

// The ordered insert of LFU and TTL with its traces; the count behind it, or -1.
int32_t insertOrdered(JNIEnv* env, LuOffHeapEvictionDataQueue* queue, LuOffHeapEvictionData* record,
                      int64_t metadata, const char* function, const char* queueName) {
  if (lockQueue(queue) != 0) return -1;
  record->metadata = metadata;
  int32_t count = -1;
  if (appendToQueue(env, queue, record)) {
    count = static_cast<int32_t>(queue->count);
  } else {
    NB_ERROR_GENERIC(env, kGenericErrorKey, kInsertText, queueName);
  }
  unlockQueue(queue);
  NB_EXIT_AS(env, function, "queue=%p, evictData=%p, return=%d", static_cast<void*>(queue),
             static_cast<void*>(record), count);
  return count;
}

// REQUIRES: the queue. The results of removal and insert are ignored: a record that was in no queue
// is in this one afterwards.
void moveOrdered(JNIEnv* env, LuOffHeapEvictionDataQueue* queue, LuOffHeapEvictionData* record,
                 int64_t metadata) {
  record->metadata = metadata;
  pin(env, static_cast<Pinnable*>(record), NATIVE_TRANSIENT_GET_PIN);
  removeFromQueue(env, queue, record, kEvictionQueue);
  appendToQueue(env, queue, record);
  unpinLuOffHeapEvictionData(env, record, NATIVE_TRANSIENT_GET_PIN);
}

}  // namespace

int32_t insertLFUEvictionQueueAndPin(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                                     LuOffHeapEvictionData* record) {
  NB_ENTRY(env, "queue=%p, evictData=%p", static_cast<void*>(queue), static_cast<void*>(record));
  return insertOrdered(env, queue, record, 0, __func__, "LFU Eviction Queue lum[21]");
}

int32_t insertTTLEvictionQueueAndPin(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                                     LuOffHeapEvictionData* record, int64_t time) {
  NB_ENTRY(env, "queue=%p, evictData=%p", static_cast<void*>(queue), static_cast<void*>(record));
  if (queue == nullptr) return 0;
  return insertOrdered(env, queue, record, time, __func__, "TTL Eviction Queue lum[22]");
}

bool updateLFUEvictionQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                            LuOffHeapEvictionData* record) {
  NB_ENTRY(env, "queue=%p, evictData=%p", static_cast<void*>(queue), static_cast<void*>(record));
  if (queue == nullptr || lockQueue(queue) != 0) return false;
  moveOrdered(env, queue, record, record->metadata + 1);
  unlockQueue(queue);
  NB_EXIT(env, "queue=%p, evictData=%p", static_cast<void*>(queue), static_cast<void*>(record));
  return true;
}

bool updateTTLEvictionQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                            LuOffHeapEvictionData* record, int64_t time) {
  NB_ENTRY(env, "queue=%p, evictData=%p", static_cast<void*>(queue), static_cast<void*>(record));
  if (queue == nullptr || lockQueue(queue) != 0) return false;
  moveOrdered(env, queue, record, time);
  unlockQueue(queue);
  NB_EXIT(env, "queue=%p, evictData=%p", static_cast<void*>(queue), static_cast<void*>(record));
  return true;
}

bool updateLRUEvictionQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                            LuOffHeapEvictionData* record) {
  NB_ENTRY(env, "queue=%p, evictData=%p", static_cast<void*>(queue), static_cast<void*>(record));
  if (queue == nullptr || lockQueue(queue) != 0) return false;
  // Deliberate: on both failures the transient pin stays, so that the record lives on for the
  // evictor. The contract with Java says so. Pinned by LruQueue.FailedUpdateKeepsTheTransientPin.
  pin(env, static_cast<Pinnable*>(record), NATIVE_TRANSIENT_GET_PIN);
  if (!removeFromQueue(env, queue, record, kEvictionQueue)) {
    NB_DEBUG(env, "Failure removing from queue. queue=%p, evictData=%p", static_cast<void*>(queue),
             static_cast<void*>(record));
    unlockQueue(queue);
    return false;
  }
  record->next = nullptr;
  record->prev = nullptr;
  if (!appendIntoEvictionQueue2(env, queue, record)) {
    NB_DEBUG(env, kInsertText, "LRU Eviction Queue");
    NB_ERROR_GENERIC(env, kGenericErrorKey,
                     "Failure appending entry to LRU Eviction Queue. queue=%p, evictData=%p",
                     static_cast<void*>(queue), static_cast<void*>(record));
    unlockQueue(queue);
    return false;
  }
  unpinLuOffHeapEvictionData(env, record, NATIVE_TRANSIENT_GET_PIN);
  unlockQueue(queue);
  NB_EXIT(env, "queue=%p, evictData=%p", static_cast<void*>(queue), static_cast<void*>(record));
  return true;
}

bool clearEvictionQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue) {
  NB_ENTRY(env, "queue=%p, evictData=%p", static_cast<void*>(queue), static_cast<void*>(nullptr));
  if (queue == nullptr || lockQueue(queue) != 0) return false;
  while (queue->last != nullptr) removeFromQueue(env, queue, queue->last, kEvictionQueue);
  unlockQueue(queue);
  NB_EXIT(env, "queue=%p", static_cast<void*>(queue));
  return true;
}

int32_t removeFromEvictionQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                                LuOffHeapEvictionData* record) {
  constexpr char kName[] = "LuOffHeapEvictionQueue_remove";
  NB_ENTRY_AS(env, kName, "queue=%p, evictData=%p", static_cast<void*>(queue),
              static_cast<void*>(record));
  if (lockQueue(queue) != 0) return -1;
  const bool removed = removeFromQueue(env, queue, record, kEvictionQueue);
  const auto count = static_cast<int32_t>(queue->count);
  unlockQueue(queue);
  if (removed) {
    NB_EXIT_AS(env, kName, "queue=%p, evictData=%p, size=%d", static_cast<void*>(queue),
               static_cast<void*>(record), count);
  }
  return count;
}

int64_t getMinimumEvictionTime(JNIEnv* env, LuOffHeapEvictionDataQueue* queue) {
  constexpr char kName[] = "getMinimumTime";
  NB_ENTRY_AS(env, kName, "queue=%p", static_cast<void*>(queue));
  if (queue == nullptr || lockQueue(queue) != 0) return 0;
  const auto* first = static_cast<const LuOffHeapEvictionData*>(queue->first);
  const int64_t minimum = first == nullptr ? INT64_MAX : first->metadata;
  unlockQueue(queue);
  NB_EXIT_AS(env, kName, "queue=%p, minimumTime=%lu", static_cast<void*>(queue),
             static_cast<unsigned long>(minimum));
  return minimum;
}

}  // namespace nimbra
