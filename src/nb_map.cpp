// The map object, its locks, and the allocation of queues.
//
// State: none beyond the records. The lock wrappers are the only places that take a map lock or a
// queue mutex.
#include "nb_map.h"

#include <cstdio>

#include "nb_lock.h"
#include "nb_map_private.h"

namespace nimbra {

namespace {

constexpr char kQueueInitTag[] = "Queue [lum1]";
constexpr char kMapInitTag[] = "LuMap [lum2]";

// Passes a lock call's result on, raising it first when there is an environment.
int checkedLock(JNIEnv* env, int code, const char* function, const char* text) {
  if (code != 0 && env != nullptr) throw_exception_with_code(env, function, text, code);
  return code;
}

uint64_t queueRecordSize(uint8_t kind) {
  return kind == kRevisionQueue ? sizeof(LuOffHeapRevisionOrderQueue)
                                : sizeof(LuOffHeapEvictionDataQueue);
}

}  // namespace

LuOffHeapMap* allocateLuOffHeapMap(JNIEnv* env, MapHeader* header) {
  NB_DEBUG(env, "starting sub-allocation. Backing MapHeader=%p", static_cast<void*>(header));
  if (header == nullptr || header->numBucketSets == 0) {
    throw_exception(env, __func__,
                    "Cannot instantiate new LuOffHeapMap object. Invalid backing hashtable.");
    return nullptr;
  }
  auto* map = static_cast<LuOffHeapMap*>(malloc_nb(env, sizeof(LuOffHeapMap), "LuOffHeapMap"));
  if (map == nullptr) return nullptr;
  map->map = header;
  if (rwlockInit(&map->lock, LockRank::map) != 0) {
    NB_ERROR_GENERIC(env, kLockErrorKey, kInitLockText, kMapInitTag);
    free_nb(env, map, sizeof(LuOffHeapMap));
    return nullptr;
  }
  map->revisionQueue = nullptr;
  map->numQueues = 0;
  addMetadata(usableSizeOf(map));
  NB_DEBUG(env, "sub-allocation was finished. allocated=%p", static_cast<void*>(map));
  return map;
}

void freeLuOffHeapMap(JNIEnv* env, LuOffHeapMap* map) {
  NB_DEBUG(env, "Requesting free=%p", static_cast<void*>(map));
  const bool locked = wrlock(env, map) == 0;
  uint64_t freed = usableSizeOf(map);
  if (map->revisionQueue != nullptr) {
    const uint64_t listSize = usableSizeOf(map->revisionQueue);
    freed += listSize;
    free_nb(env, map->revisionQueue, listSize);
  }
  if (locked) unlock(env, map);
  pthread_rwlock_destroy(&map->lock);
  free_nb(env, map, sizeof(LuOffHeapMap));
  subtractMetadata(freed);
  NB_DEBUG(env, "Completed free=%p", static_cast<void*>(map));
}

int rdlock(JNIEnv* env, LuOffHeapMap* map) {
  if (map == nullptr) return 1;
  return checkedLock(env, rwlockRead(&map->lock, LockRank::map), __func__,
                     "rdlock failure for luMap");
}

int wrlock(JNIEnv* env, LuOffHeapMap* map) {
  if (map == nullptr) return 1;
  return checkedLock(env, rwlockWrite(&map->lock, LockRank::map), __func__,
                     "wrlock failure for luMap");
}

int unlock(JNIEnv* env, LuOffHeapMap* map) {
  if (map == nullptr) return 1;
  return checkedLock(env, rwlockUnlock(&map->lock, LockRank::map), __func__,
                     "unlock failure for luMap");
}

LuOffHeapQueue* allocateQueue(JNIEnv* env, uint8_t kind) {
  if (kind != kRevisionQueue && kind != kEvictionQueue) return nullptr;
  const uint64_t size = queueRecordSize(kind);
  auto* queue = static_cast<LuOffHeapQueue*>(malloc_nb(env, size, "LuOffHeapQueue"));
  if (queue == nullptr) return nullptr;
  if (mutexInit(&queue->mutex, nullptr, LockRank::queue) != 0) {
    NB_ERROR_GENERIC(env, kLockErrorKey, kInitLockText, kQueueInitTag);
    free_nb(env, queue, size);
    return nullptr;
  }
  queue->first = nullptr;
  queue->last = nullptr;
  queue->count = 0;
  queue->maxCount = 0;
  if (kind == kRevisionQueue) {
    auto* revisionQueue = static_cast<LuOffHeapRevisionOrderQueue*>(queue);
    revisionQueue->bookmarks = nullptr;
    revisionQueue->numBookmarks = 0;
  }
  addMetadata(usableSizeOf(queue));
  NB_DEBUG(env, "sub-allocation has finished. queue=%p", static_cast<void*>(queue));
  return queue;
}

void freeQueue(JNIEnv* env, LuOffHeapQueue* queue, uint8_t kind) {
  NB_ENTRY(env, "queue=%p", static_cast<void*>(queue));
  lockQueue(queue);
  // Deliberate: a queue of no known kind stays locked. The contract with Java says so.
  // Pinned by QueueAllocation.FreeingAnUnknownKindLeavesTheQueueLocked.
  if (kind != kRevisionQueue && kind != kEvictionQueue) return;
  uint64_t freed = usableSizeOf(queue);
  if (kind == kRevisionQueue) {
    auto* revisionQueue = static_cast<LuOffHeapRevisionOrderQueue*>(queue);
    if (revisionQueue->numBookmarks != 0) {
      const uint64_t bookmarkSize = usableSizeOf(revisionQueue->bookmarks);
      freed += bookmarkSize;
      free_nb(env, revisionQueue->bookmarks, bookmarkSize);
    }
  }
  subtractMetadata(freed);
  unlockQueue(queue);
  pthread_mutex_destroy(&queue->mutex);
  free_nb(env, queue, queueRecordSize(kind));
  NB_DEBUG(env, "freeQueue is freed. %p", static_cast<void*>(queue));
  NB_EXIT(env, "queue=%p", static_cast<void*>(queue));
}

int lockQueue(LuOffHeapQueue* queue) {
  const int code = mutexLock(&queue->mutex, LockRank::queue);
  if (code != 0 && logInfo.debug) std::printf("pthread lock error: %d", code);
  return code;
}

int unlockQueue(LuOffHeapQueue* queue) {
  const int code = mutexUnlock(&queue->mutex, LockRank::queue);
  if (code != 0 && logInfo.debug) std::printf("pthread unlock error: %d", code);
  return code;
}

int lockQueue(LuOffHeapRevisionOrderQueue* queue) {
  return lockQueue(static_cast<LuOffHeapQueue*>(queue));
}
int lockQueue(LuOffHeapEvictionDataQueue* queue) {
  return lockQueue(static_cast<LuOffHeapQueue*>(queue));
}
int unlockQueue(LuOffHeapRevisionOrderQueue* queue) {
  return unlockQueue(static_cast<LuOffHeapQueue*>(queue));
}
int unlockQueue(LuOffHeapEvictionDataQueue* queue) {
  return unlockQueue(static_cast<LuOffHeapQueue*>(queue));
}

int lockMapAndQueues(LuOffHeapMap* map, bool exclusive) {
  if (const int code = exclusive ? wrlock(nullptr, map) : rdlock(nullptr, map)) return code;
  for (uint32_t i = 0; i < map->numQueues; i++) {
    const int code = lockQueueAscending(map->revisionQueue[i]);
    if (code == 0) continue;
    for (uint32_t held = 0; held < i; held++) unlockQueue(map->revisionQueue[held]);
    unlock(nullptr, map);
    return code;
  }
  return 0;
}

int unlockMapAndQueues(LuOffHeapMap* map) {
  for (uint32_t i = 0; i < map->numQueues; i++) unlockQueue(map->revisionQueue[i]);
  return unlock(nullptr, map);
}

}  // namespace nimbra
