// Revision queries and the walks over a map's revision queues.
//
// State: none beyond the records. A query holds the map lock for reading and one queue at a time.
// The walks hold what their caller asks for; without locks they rely on the caller's pins and on
// nobody changing the queues meanwhile.
#include "nb_map_private.h"
#include "overflow.h"

namespace nimbra {

ProfileSlot qnp;

namespace {

constexpr char kQuery[] = "queryRevisionAndPinWithBounds";
constexpr uint32_t kTransportPin = JAVA_TRANSPORT_PIN | JNI_CONVERT_FROM_JAVA_PIN;

LuOffHeapValue* nextValue(const LuOffHeapValue* value) {
  return static_cast<LuOffHeapValue*>(value->next);
}

// REQUIRES: the map lock for writing. Makes the bookmark exist in every queue.
void growBookmarks(JNIEnv* env, LuOffHeapMap* map, uint32_t index) {
  for (uint32_t i = 0; i < map->numQueues; i++) {
    LuOffHeapRevisionOrderQueue* queue = map->revisionQueue[i];
    if (lockQueue(queue) != 0) continue;
    if (index >= queue->numBookmarks) add_bookmark(env, queue, nullptr, index);
    unlockQueue(queue);
  }
}

// REQUIRES: the value's queue. Pins the value and its buffers for Java and writes its words. With
// disk overflow the value's node stays locked for Java; false when it could not be locked.
bool reportEntry(JNIEnv* env, LuOffHeapValue* value, int64_t* words) {
  pin(env, static_cast<Pinnable*>(value), JNI_QUERYREVISION_PIN);
  pin(env, value->key, kTransportPin);
  words[0] = static_cast<int64_t>(reinterpret_cast<uintptr_t>(value));
  words[1] = static_cast<int64_t>(reinterpret_cast<uintptr_t>(bufferData(value->key)));
  words[2] = static_cast<int64_t>(value->key->dataSize);
  words[3] = 0;
  words[4] = 0;
  words[8] = 0;
  if (_isDiskOverflowEnabled && !overflow_metadata_lock(env, "QueryRevision", nodeOf(value))) {
    catch_exception(env, kQuery, false);
    return false;
  }
  if ((value->flags & HAS_VALUE) != 0) {
    pin(env, value->value, kTransportPin);
    words[3] = static_cast<int64_t>(reinterpret_cast<uintptr_t>(bufferData(value->value)));
    words[4] = static_cast<int64_t>(value->value->dataSize);
    words[8] = value->value->deserializedType;
  }
  words[5] = value->revisionOwner;
  words[6] = value->revisionNumber;
  words[7] = value->key->deserializedType;
  return true;
}

// REQUIRES: the queue. Reports what lies above `start` and at or below `end`; returns the number of
// entries, -1 when a node could not be locked. Begins at the bookmark when that is not beyond the
// start, and moves it.
int64_t queryQueue(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue, uint32_t bookmark,
                   int64_t start, int64_t end, int64_t* words) {
  LuOffHeapValue* marked = bookmark < queue->numBookmarks ? queue->bookmarks[bookmark] : nullptr;
  auto* value = marked != nullptr && marked->revisionNumber <= start
                    ? marked
                    : static_cast<LuOffHeapValue*>(queue->first);
  int64_t found = 0;
  for (; value != nullptr && value->revisionNumber <= end; value = nextValue(value)) {
    if (value->revisionNumber <= start) continue;
    if (!reportEntry(env, value, words + found * kQueryWords)) return -1;
    found++;
  }
  if (bookmark < queue->numBookmarks) {
    queue->bookmarks[bookmark] =
        static_cast<LuOffHeapValue*>(value != nullptr ? value->prev : queue->last);
  }
  return found;
}

}  // namespace

bool queryRevision(JNIEnv* env, LuOffHeapMap* map, int64_t* result, int32_t bookmark,
                   const int64_t* starts, const int64_t* ends, int32_t numOwners,
                   const ProfiledRun& run) {
  const auto index = static_cast<uint32_t>(bookmark);
  if (wrlock(env, map) != 0) return false;
  run.point(1);
  if (bookmark >= 0) growBookmarks(env, map, index);
  run.point(2);
  if (unlock(env, map) != 0) return false;
  run.point(3);
  if (rdlock(env, map) != 0) return false;
  run.point(4);
  int64_t* words = result + 1;
  int64_t found = 0;
  for (uint32_t owner = 0; owner < static_cast<uint32_t>(numOwners) && owner < map->numQueues;
       owner++) {
    if (starts[owner] >= ends[owner] || ends[owner] < 1) continue;
    LuOffHeapRevisionOrderQueue* queue = map->revisionQueue[owner];
    if (lockQueue(queue) != 0) {
      unlock(env, map);
      return false;
    }
    const int64_t more =
        queryQueue(env, queue, index, starts[owner], ends[owner], words + found * kQueryWords);
    found += more;
    if (unlockQueue(queue) != 0 || more < 0) {
      unlock(env, map);
      return false;
    }
  }
  run.point(5);
  result[0] = found;
  run.point(6);
  unlock(env, map);
  NB_DEBUG_AS(env, kQuery, "found %ld entries for luMap=%p", static_cast<long>(found),
              static_cast<void*>(map));
  return true;
}

namespace {

// Pins what a queue's pointer shows. With `lock`, under the queue's mutex: a removal takes the map
// lock only to find the queue, so the mutex alone keeps the value from being freed before it is
// pinned.
LuOffHeapValue* pinShown(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue,
                         LuQueueEntry* const* pointer, uint32_t reason, bool lock) {
  const bool locked = lock && lockQueue(queue) == 0;
  auto* value = static_cast<LuOffHeapValue*>(*pointer);
  if (value != nullptr) pin(env, static_cast<Pinnable*>(value), reason);
  if (locked) unlockQueue(queue);
  return value;
}

LuOffHeapValue* pinNextInQueues(JNIEnv* env, LuOffHeapMap* map, const LuOffHeapValue* value,
                                uint32_t reason, bool lock) {
  uint32_t owner = 0;
  if (value != nullptr) {
    owner = value->revisionOwner;
    if (LuOffHeapValue* next =
            pinShown(env, map->revisionQueue[owner], &value->next, reason, lock)) {
      return next;
    }
    owner++;
  }
  for (; owner < map->numQueues; owner++) {
    LuOffHeapRevisionOrderQueue* queue = map->revisionQueue[owner];
    if (LuOffHeapValue* first = pinShown(env, queue, &queue->first, reason, lock)) return first;
  }
  return nullptr;
}

}  // namespace

LuOffHeapValue* getAndPinNextInRevisionQueue(JNIEnv* env, LuOffHeapMap* map,
                                             const LuOffHeapValue* value, uint32_t reason,
                                             bool lock) {
  if (lock && rdlock(env, map) != 0) return nullptr;
  LuOffHeapValue* next = pinNextInQueues(env, map, value, reason, lock);
  // A map lock that cannot be released leaves the pin; Java learns nothing of the value.
  if (lock && unlock(env, map) != 0) return nullptr;
  return next;
}

LuOffHeapValue* getAndPinFirstInRevisionQueue(JNIEnv* env, LuOffHeapMap* map, uint32_t reason,
                                              bool lock) {
  return getAndPinNextInRevisionQueue(env, map, nullptr, reason, lock);
}

}  // namespace nimbra
