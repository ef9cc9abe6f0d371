// Queues in sort order, and the per-owner revision queues of a map.
//
// State: none beyond the records. Every pointer that a queue holds to an entry holds one pin on it;
// a pin taken under one reason may later stand for another pointer, the count stays right. The
// queue's mutex guards everything here; the map lock guards the list of queues.
#include <cstdio>
#include <cstring>

#include "nb_jni.h"
#include "nb_map_private.h"
#include "overflow.h"

namespace nimbra {

namespace {

int64_t sortKey(const LuQueueEntry* entry, uint8_t kind) {
  if (kind == kRevisionQueue) return static_cast<const LuOffHeapValue*>(entry)->revisionNumber;
  return static_cast<const LuOffHeapEvictionData*>(entry)->metadata;
}

struct Neighbours {
  LuQueueEntry* previous = nullptr;
  LuQueueEntry* next = nullptr;
};

// Equal keys keep arrival order: a new entry goes behind them. Revisions usually arrive in order,
// so they are looked for from the newest end.
Neighbours findNeighbours(const LuOffHeapQueue* queue, const LuQueueEntry* entry, uint8_t kind) {
  const int64_t key = sortKey(entry, kind);
  Neighbours found;
  if (kind == kRevisionQueue) {
    LuQueueEntry* node = queue->last;
    while (node != nullptr && sortKey(node, kind) > key) {
      found.next = node;
      node = node->prev;
    }
    found.previous = node;
  } else {
    LuQueueEntry* node = queue->first;
    while (node != nullptr && sortKey(node, kind) <= key) {
      found.previous = node;
      node = node->next;
    }
    found.next = node;
  }
  return found;
}

void traceNeighbours(JNIEnv* env, const Neighbours& found, const LuQueueEntry* entry,
                     uint8_t kind) {
  if (!logInfo.debug) return;
  if (kind == kRevisionQueue) {
    debug(env, "appendToQueue",
          "RevisionNumber search result: my revisionNum=%d. node->next=%p node->prev=%p",
          static_cast<int>(sortKey(entry, kind)), static_cast<void*>(found.next),
          static_cast<void*>(found.previous));
  } else {
    debug(env, "appendToQueue",
          "Metadata search result: my metadata=%d. node->next=%p node->prev=%p",
          static_cast<int>(sortKey(entry, kind)), static_cast<void*>(found.next),
          static_cast<void*>(found.previous));
  }
  if (found.next != nullptr) {
    debug(env, "appendToQueue", "  Next metadata: %d", static_cast<int>(sortKey(found.next, kind)));
  }
  if (found.previous != nullptr) {
    debug(env, "appendToQueue", "  Prev metadata: %d",
          static_cast<int>(sortKey(found.previous, kind)));
  }
}

constexpr char kAppend[] = "appendToQueue";

void becomeLast(JNIEnv* env, LuOffHeapQueue* queue, LuQueueEntry* entry) {
  entry->next = nullptr;
  queue->last = entry;
  pin(env, entry, REVISION_QUEUE_LAST_PIN);
  NB_DEBUG_AS(env, kAppend, "%p is now queue->last", static_cast<void*>(entry));
}

// The former last keeps its last pin, which from now on stands for the entry's prev pointer.
void linkBehind(JNIEnv* env, LuOffHeapQueue* queue, LuQueueEntry* entry, LuQueueEntry* previous,
                LuQueueEntry* next) {
  previous->next = entry;
  pin(env, entry, REVISION_QUEUE_NEXT_PIN);
  entry->prev = previous;
  NB_DEBUG_AS(env, kAppend, "%p has new prev->%p", static_cast<void*>(entry),
              static_cast<void*>(previous));
  if (next == nullptr) {
    becomeLast(env, queue, entry);
    return;
  }
  entry->next = next;
  next->prev = entry;
  pin(env, entry, REVISION_QUEUE_PREV_PIN);
  NB_DEBUG_AS(env, kAppend, "%p has new next->%p", static_cast<void*>(entry),
              static_cast<void*>(next));
}

void linkFirst(JNIEnv* env, LuOffHeapQueue* queue, LuQueueEntry* entry, LuQueueEntry* next,
               uint8_t kind) {
  queue->first = entry;
  pin(env, entry, REVISION_QUEUE_FIRST_PIN);
  NB_DEBUG_AS(env, kAppend, "%p is now queue->first", static_cast<void*>(entry));
  entry->prev = nullptr;
  if (next == nullptr) {
    becomeLast(env, queue, entry);
    return;
  }
  entry->next = next;
  pin(env, next, REVISION_QUEUE_NEXT_PIN);
  next->prev = entry;
  pin(env, entry, REVISION_QUEUE_PREV_PIN);
  unpinLuQueueEntry(env, next, kind, REVISION_QUEUE_FIRST_PIN);
  NB_DEBUG_AS(env, kAppend, "%p has new next->%p", static_cast<void*>(entry),
              static_cast<void*>(next));
}

}  // namespace

bool appendToQueue(JNIEnv* env, LuOffHeapQueue* queue, LuQueueEntry* entry, uint8_t kind) {
  NB_ENTRY(env, "queue=%p, new entry=%p of type %s", static_cast<void*>(queue),
           static_cast<void*>(entry), kind == kRevisionQueue ? "LuValue" : "EvictionData");
  if (entry == nullptr) return false;
  NB_REQUIRES_HELD(&queue->mutex);
  pin(env, entry, NATIVE_TRANSIENT_GET_PIN);
  Neighbours found;
  if (kind == kRevisionQueue || kind == kEvictionQueue) {
    found = findNeighbours(queue, entry, kind);
    traceNeighbours(env, found, entry, kind);
  }
  if (found.previous != nullptr) {
    linkBehind(env, queue, entry, found.previous, found.next);
  } else {
    linkFirst(env, queue, entry, found.next, kind);
  }
  // Java reads the count of an eviction queue without the mutex.
  __atomic_store_n(&queue->count, queue->count + 1, __ATOMIC_RELAXED);
  if (queue->count > queue->maxCount) queue->maxCount = queue->count;
  unpinLuQueueEntry(env, entry, kind, NATIVE_TRANSIENT_GET_PIN);
  NB_EXIT(env,
          "queue=%p, new entry=%p, entry->prev=%p, entry->next=%p, queue->first=%p, "
          "queue->last=%p",
          static_cast<void*>(queue), static_cast<void*>(entry), static_cast<void*>(entry->prev),
          static_cast<void*>(entry->next), static_cast<void*>(queue->first),
          static_cast<void*>(queue->last));
  return true;
}

bool appendToQueue(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue, LuOffHeapValue* entry) {
  return appendToQueue(env, queue, entry, kRevisionQueue);
}

bool appendToQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue, LuOffHeapEvictionData* entry) {
  return appendToQueue(env, queue, entry, kEvictionQueue);
}

namespace {

// Counts the unpins that freed a record.
class Unpinner {
 public:
  Unpinner(JNIEnv* env, uint8_t kind) : env_(env), kind_(kind) {}
  void operator()(LuQueueEntry* entry, uint32_t reason) {
    if (unpinLuQueueEntry(env_, entry, kind_, reason) == 0) freed_++;
  }
  int freed() const { return freed_; }

 private:
  JNIEnv* env_;
  uint8_t kind_;
  int freed_ = 0;
};

void traceRemoved(JNIEnv* env, const LuOffHeapQueue* queue, const LuQueueEntry* entry,
                  bool removed) {
  NB_EXIT_AS(env, "removeFromQueue", "Queue=%p, first=%p, last=%p. Entry=%p, Did remove? %d.",
             static_cast<const void*>(queue), static_cast<void*>(queue->first),
             static_cast<void*>(queue->last), static_cast<const void*>(entry), removed);
}

}  // namespace

bool removeFromQueue(JNIEnv* env, LuOffHeapQueue* queue, LuQueueEntry* entry, uint8_t kind) {
  NB_ENTRY(env,
           "Queue=%p, queue->first=%p, queue->last=%p. Entry to Remove: entry=%p, "
           "entry->next=%p, entry->prev=%p.",
           static_cast<void*>(queue), static_cast<void*>(queue->first),
           static_cast<void*>(queue->last), static_cast<void*>(entry),
           entry == nullptr ? nullptr : static_cast<void*>(entry->next),
           entry == nullptr ? nullptr : static_cast<void*>(entry->prev));
  if (entry == nullptr) {
    traceRemoved(env, queue, entry, false);
    return false;
  }
  NB_REQUIRES_HELD(&queue->mutex);
  Unpinner release(env, kind);
  LuQueueEntry* previous = entry->prev;
  LuQueueEntry* next = entry->next;
  bool removed = false;
  if (previous != nullptr) {
    NB_DEBUG(env, "Entry had a previous");
    previous->next = next;
    release(entry, REVISION_QUEUE_NEXT_PIN);
    if (next == nullptr) {
      NB_DEBUG(env, "Entry was the last in the queue. Assigning last pin to previous entry.");
      queue->last = previous;
      pin(env, previous, REVISION_QUEUE_LAST_PIN);
      entry->prev = nullptr;
      release(entry, REVISION_QUEUE_LAST_PIN);
      release(previous, REVISION_QUEUE_PREV_PIN);
    }
    removed = true;
  }
  if (next != nullptr) {
    NB_DEBUG(env, "Entry had a next");
    next->prev = previous;
    release(entry, REVISION_QUEUE_PREV_PIN);
    if (previous == nullptr) {
      NB_DEBUG(env, "Entry was the first in the queue. Assigning first pin to next entry.");
      queue->first = next;
      pin(env, next, REVISION_QUEUE_FIRST_PIN);
      entry->next = nullptr;
      release(entry, REVISION_QUEUE_FIRST_PIN);
      release(next, REVISION_QUEUE_NEXT_PIN);
    }
    removed = true;
  }
  if (queue->first == entry && queue->last == entry) {
    NB_DEBUG(env, "Entry was the last in the queue, first and last point to it.");
    release(entry, REVISION_QUEUE_FIRST_PIN);
    release(entry, REVISION_QUEUE_LAST_PIN);
    queue->first = nullptr;
    queue->last = nullptr;
    removed = true;
  }
  traceRemoved(env, queue, entry, removed);
  if (release.freed() > 0) NB_DEBUG(env, "Remove freed %d LuValues.", release.freed());
  if (removed) {
    __atomic_store_n(&queue->count, queue->count - 1, __ATOMIC_RELAXED);
    return true;
  }
  char message[128];
  std::snprintf(message, sizeof message, "Node=%p not found in queue.", static_cast<void*>(entry));
  throw_exception(env, __func__, message);
  return false;
}

bool removeFromQueue(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue, LuOffHeapValue* entry) {
  return removeFromQueue(env, queue, entry, kRevisionQueue);
}

LuOffHeapRevisionOrderQueue* getQueue(JNIEnv* env, LuOffHeapMap* map, uint16_t owner) {
  NB_REQUIRES_HELD(&map->lock);
  if (owner < map->numQueues) return map->revisionQueue[owner];
  const uint32_t slots = static_cast<uint32_t>(owner) + 1;
  auto** list = static_cast<LuOffHeapRevisionOrderQueue**>(
      malloc_nb(env, slots * sizeof(LuOffHeapRevisionOrderQueue*), "LuOffHeapQueue List"));
  if (list == nullptr) return nullptr;
  uint32_t made = 0;
  for (; made < map->numQueues; made++) {
    list[made] = map->revisionQueue[made];
    if (list[made] != nullptr) {
      NB_DEBUG(env, "updRevQ: saving queue[%d]=%p", static_cast<int>(made),
               static_cast<void*>(list[made]));
    }
  }
  for (; made < slots; made++) {
    list[made] = static_cast<LuOffHeapRevisionOrderQueue*>(allocateQueue(env, kRevisionQueue));
    if (list[made] == nullptr) break;
    NB_DEBUG(env, "updRevQ: allocated new queue[%d]=%p", static_cast<int>(made),
             static_cast<void*>(list[made]));
  }
  // Queues made before memory ran out stay in the list: every slot below numQueues holds a queue.
  const uint64_t oldSize = usableSizeOf(map->revisionQueue);
  const uint64_t newSize = usableSizeOf(list);
  free_nb(env, map->revisionQueue, oldSize);
  addMetadata(newSize - oldSize);
  map->revisionQueue = list;
  map->numQueues = made;
  return owner < made ? list[owner] : nullptr;
}

void add_bookmark(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue, LuOffHeapValue* value,
                  uint32_t index) {
  NB_REQUIRES_HELD(&queue->mutex);
  if (index >= queue->numBookmarks) {
    const uint64_t bytes = (static_cast<uint64_t>(index) + 1) * sizeof(LuOffHeapValue*);
    // Bookmarks are made whatever the limits say: a query must be able to run in a full store.
    auto** bookmarks = static_cast<LuOffHeapValue**>(malloc_nb(env, bytes, 1, "Bookmarks"));
    if (bookmarks == nullptr) return;
    std::memset(bookmarks, 0, bytes);
    uint64_t oldSize = 0;
    if (queue->numBookmarks != 0) {
      std::memcpy(bookmarks, queue->bookmarks, queue->numBookmarks * sizeof(LuOffHeapValue*));
      oldSize = usableSizeOf(queue->bookmarks);
      free_nb(env, queue->bookmarks, oldSize);
    }
    queue->bookmarks = bookmarks;
    queue->numBookmarks = index + 1;
    addMetadata(usableSizeOf(bookmarks) - oldSize);
  }
  queue->bookmarks[index] = value;
}

void replace_bookmark(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue, LuOffHeapValue* value,
                      LuOffHeapValue* replacement) {
  NB_REQUIRES_HELD(&queue->mutex);
  for (uint32_t i = 0; i < queue->numBookmarks; i++) {
    if (queue->bookmarks[i] != value) continue;
    queue->bookmarks[i] = replacement;
    NB_DEBUG(env, "Replaced bookmark=%p for new=%p in queue=%p", static_cast<void*>(value),
             static_cast<void*>(replacement), static_cast<void*>(queue));
  }
}

namespace {

constexpr char kUpdate[] = "updateRevisionQueue";

ProfileSlot urqnp;
constexpr const char* kUpdateLabels[] = {"growGetQue", "lockQue1", "repBkmk",  "remOld",
                                         "swpQueLck",  "addNew",   "unlckQue2"};

LuOffHeapValue* predecessor(const LuOffHeapValue* value) {
  return static_cast<LuOffHeapValue*>(value->prev);
}

constexpr char kQueueRemoveMessage[] =
    "Failed to remove an entry from the internal queue in Nimbra library. "
    "Queue=Entry Revision Queue";

bool lockQueueOrRaise(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue, const char* tag) {
  if (queue != nullptr && lockQueue(queue) == 0) return true;
  NB_ERROR_GENERIC(env, kLockErrorKey, kQueueLockText, tag);
  throw_exception(env, kUpdate, kQueueLockMessage);
  return false;
}

// REQUIRES: the old queue. Takes the replaced value out of it, bookmarks first.
bool removeReplaced(JNIEnv* env, LuOffHeapRevisionOrderQueue* oldQueue, LuOffHeapValue* replaced,
                    LuOffHeapValue* value, const ProfiledRun& run) {
  replace_bookmark(env, oldQueue, replaced, predecessor(replaced));
  run.point(2);
  if (removeFromQueue(env, oldQueue, replaced)) return true;
  NB_ERROR_GENERIC(env, kGenericErrorKey,
                   "error removing old luValue. oldQueue=%p, newLuValue=%p, overriddenLuValue=%p",
                   static_cast<void*>(oldQueue), static_cast<void*>(value),
                   static_cast<void*>(replaced));
  unlockQueue(oldQueue);
  throw_exception(env, kUpdate, kQueueRemoveMessage);
  return false;
}

// REQUIRES: the new queue. Puts the replaced value back where it was; leaves no queue locked.
void restoreReplaced(JNIEnv* env, LuOffHeapRevisionOrderQueue* oldQueue,
                     LuOffHeapRevisionOrderQueue* newQueue, LuOffHeapValue* replaced) {
  if (replaced == nullptr || oldQueue == nullptr) {
    unlockQueue(newQueue);
    return;
  }
  if (oldQueue != newQueue) {
    unlockQueue(newQueue);
    lockQueue(oldQueue);
  }
  appendToQueue(env, oldQueue, replaced);
  unlockQueue(oldQueue);
}

}  // namespace

bool updateRevisionQueue(JNIEnv* env, LuOffHeapMap* map, LuOffHeapValue* replaced,
                         LuOffHeapValue* value, int64_t revisionNumber, bool /*flag*/) {
  if (map == nullptr || value == nullptr) return false;
  const ProfiledRun run(urqnp, 100, "updateRevQueue", kUpdateLabels);
  NB_DEBUG(env,
           "update the revision queues. luMap=%p numQueues=%d newLuValue=%p, "
           "overriddenLuValue=%p",
           static_cast<void*>(map), static_cast<int>(map->numQueues), static_cast<void*>(value),
           static_cast<void*>(replaced));
  LuOffHeapRevisionOrderQueue* oldQueue =
      replaced == nullptr ? nullptr : getQueue(env, map, replaced->revisionOwner);
  LuOffHeapRevisionOrderQueue* newQueue = getQueue(env, map, value->revisionOwner);
  run.point(0);
  if (oldQueue != nullptr ? !lockQueueOrRaise(env, oldQueue, "lum[3]")
                          : !lockQueueOrRaise(env, newQueue, "lum[4]")) {
    return false;
  }
  run.point(1);
  NB_DEBUG(env,
           "remove the previous value. oldQueue=%p newQueue=%p newLuValue=%p, "
           "overriddenLuValue=%p",
           static_cast<void*>(oldQueue), static_cast<void*>(newQueue), static_cast<void*>(value),
           static_cast<void*>(replaced));
  if (replaced == nullptr || oldQueue == nullptr) {
    run.point(2);
  } else if (!removeReplaced(env, oldQueue, replaced, value, run)) {
    return false;
  }
  run.point(3);
  if (oldQueue != nullptr && oldQueue != newQueue) {
    unlockQueue(oldQueue);
    if (!lockQueueOrRaise(env, newQueue, "lum[5]")) return false;
  }
  run.point(4);
  // The one change of a revision without the bucket set, under which the face's natives read it.
  if (revisionNumber != -1) {
    __atomic_store_n(&value->revisionNumber, revisionNumber, __ATOMIC_RELAXED);
  }
  if (!appendToQueue(env, newQueue, value)) {
    NB_ERROR_GENERIC(env, kGenericErrorKey, "appendToQueue returned false lum[20]");
    restoreReplaced(env, oldQueue, newQueue, replaced);
    throw_exception(env, kUpdate, kQueueRemoveMessage);  // the text speaks of removal; it is kept
    return false;
  }
  run.point(5);
  NB_DEBUG(env, "unlocking newQueue=%p", static_cast<void*>(newQueue));
  unlockQueue(newQueue);
  run.point(6);
  return true;
}

bool updateRevisionQueue(JNIEnv* env, LuOffHeapMap* map, LuOffHeapValue* replaced,
                         LuOffHeapValue* value) {
  return updateRevisionQueue(env, map, replaced, value, -1, false);
}

bool removeFromRevisionQueue(JNIEnv* env, LuOffHeapMap* map, LuOffHeapValue* value) {
  if (map == nullptr || value == nullptr) return false;
  if (rdlock(env, map) != 0) return false;
  if (value->revisionOwner >= map->numQueues) {
    unlock(env, map);
    return false;
  }
  // Queues live as long as the map, so the pointer outlives the lock.
  LuOffHeapRevisionOrderQueue* queue = map->revisionQueue[value->revisionOwner];
  if (unlock(env, map) != 0) return false;
  if (lockQueue(queue) != 0) return false;
  replace_bookmark(env, queue, value, predecessor(value));
  const bool removed = removeFromQueue(env, queue, value);
  unlockQueue(queue);
  return removed;
}

namespace {

constexpr char kClear[] = "clearQueues";
constexpr char kClearTag[] = "Clear";

void clearRevisionQueue(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue) {
  if (logInfo.entryExit) {
    entry(env, kClear, "clearRevisionOrderQueue enter.  queue=%p", static_cast<void*>(queue));
  } else {
    NB_EVENT_AS(env, kClear, "clearRevisionOrderQueue enter.  queue=%p", static_cast<void*>(queue));
  }
  NB_DEBUG_AS(env, kClear, "queue->last=%p", static_cast<void*>(queue->last));
  NB_DEBUG_AS(env, kClear, "Before Dump of all LuValues, there are %d entries. LogInfo=%p",
              static_cast<int>(queue->count), static_cast<void*>(&logInfo));
  if (lockQueue(queue) != 0) return;
  while (queue->last != nullptr) {
    auto* value = static_cast<LuOffHeapValue*>(queue->last);
    const bool nodeLocked =
        _isDiskOverflowEnabled && overflow_metadata_lock(env, kClearTag, nodeOf(value));
    if (nodeLocked) overflow_metadata_splice_out(env, nodeOf(value), true);
    NB_DEBUG_AS(env, kClear, "Dumping LuValue %p", static_cast<void*>(value));
    if (nodeLocked) overflow_metadata_unlock(env, kClearTag, nodeOf(value));
    removeFromQueue(env, queue, value);
  }
  for (uint32_t i = 0; i < queue->numBookmarks; i++) queue->bookmarks[i] = nullptr;
  unlockQueue(queue);
}

}  // namespace

void spliceOutNodes(JNIEnv* env, LuOffHeapMap* map) {
  if (rdlock(env, map) != 0) return;
  for (uint32_t i = 0; i < map->numQueues; i++) {
    LuOffHeapRevisionOrderQueue* queue = map->revisionQueue[i];
    if (lockQueue(queue) != 0) continue;
    for (LuQueueEntry* entry = queue->first; entry != nullptr; entry = entry->next) {
      overflow_metadata_splice_out(env, nodeOf(static_cast<LuOffHeapValue*>(entry)), false);
    }
    unlockQueue(queue);
  }
  unlock(env, map);
}

bool clearQueues(JNIEnv* env, LuOffHeapMap* map) {
  // Nodes leave their lists only without an exception; one of the table's clear has to wait.
  const ExceptionAside aside(env);
  if (map == nullptr || rdlock(env, map) != 0) return false;
  for (uint32_t i = 0; i < map->numQueues; i++) clearRevisionQueue(env, map->revisionQueue[i]);
  void* list = static_cast<void*>(map->revisionQueue);
  if (unlock(env, map) != 0) return false;
  if (logInfo.entryExit) {
    exit(env, kClear, "clearRevisionOrderQueue exit.  queue=%p", list);
  } else {
    NB_EVENT_AS(env, kClear, "clearRevisionOrderQueue exit.  queue=%p", list);
  }
  return true;
}

}  // namespace nimbra
