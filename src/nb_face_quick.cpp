// State: none.
#include "nb_face_quick.h"

namespace nimbra::face {

namespace {

// The map lock for reading for one scope, which keeps the list of queues as it is, and the queue of
// the face's owner; null when the lock could not be had.
class MapHold {
 public:
  explicit MapHold(LuOffHeapMap* map) : map_(map), held_(rdlock(nullptr, map) == 0) {}
  ~MapHold() {
    if (held_) unlock(nullptr, map_);
  }
  MapHold(const MapHold&) = delete;
  MapHold& operator=(const MapHold&) = delete;
  LuOffHeapRevisionOrderQueue* queue() const {
    return held_ ? map_->revisionQueue[kOwner] : nullptr;
  }

 private:
  LuOffHeapMap* map_;
  bool held_;
};

// A mutex for one scope; false when it could not be had.
template <typename T, int (*Lock)(T*), int (*Unlock)(T*)>
class Hold {
 public:
  explicit Hold(T* owner) : owner_(owner), held_(Lock(owner) == 0) {}
  ~Hold() {
    if (held_) Unlock(owner_);
  }
  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;
  explicit operator bool() const { return held_; }

 private:
  T* owner_;
  bool held_;
};
using SetHold = Hold<BucketSet, lockBucketSet, unlockBucketSet>;
using QueueHold = Hold<LuOffHeapRevisionOrderQueue, lockQueue, unlockQueue>;

int64_t revisionAt(const LuQueueEntry* entry) {
  return static_cast<const LuOffHeapValue*>(entry)->revisionNumber;
}

// REQUIRES: the queue, as for all below. An entry of the table that is in no queue is on its way in
// or out, by a thread that has let the bucket set go.
bool isIn(const LuOffHeapRevisionOrderQueue* queue, const LuOffHeapValue* entry) {
  return entry->revisionOwner == kOwner &&
         (entry->prev != nullptr || entry->next != nullptr || queue->first == entry);
}

// Whether the entry belongs at the newest end with that revision.
bool belongsLast(const LuOffHeapRevisionOrderQueue* queue, const LuOffHeapValue* entry,
                 int64_t revision) {
  const LuQueueEntry* before = queue->last == entry ? entry->prev : queue->last;
  return before == nullptr || revisionAt(before) <= revision;
}

// Two pins of the entry stand for the links to it, before and after; the neighbours' counts do not
// change either.
void linkLast(LuOffHeapRevisionOrderQueue* queue, LuOffHeapValue* entry) {
  entry->prev = queue->last;
  entry->next = nullptr;
  (queue->last == nullptr ? queue->first : queue->last->next) = entry;
  queue->last = entry;
}

// Java reads counts without the mutex.
void setCount(LuOffHeapRevisionOrderQueue* queue, uint32_t count) {
  __atomic_store_n(&queue->count, count, __ATOMIC_RELAXED);
}

// Leaves the own links of an entry from the middle, as every removal does.
void unlink(LuOffHeapRevisionOrderQueue* queue, LuOffHeapValue* entry) {
  LuQueueEntry* prev = entry->prev;
  LuQueueEntry* next = entry->next;
  (prev == nullptr ? queue->first : prev->next) = next;
  (next == nullptr ? queue->last : next->prev) = prev;
  if (prev == nullptr) entry->next = nullptr;
  if (next == nullptr) entry->prev = nullptr;
}

LuOffHeapValue* predecessorOf(const LuOffHeapValue* entry) {
  return static_cast<LuOffHeapValue*>(entry->prev);
}

// A new record, with the pins of chain and queue.
void enter(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue, LuOffHeapValue* record) {
  record->pins = 1;
  if (!belongsLast(queue, record, record->revisionNumber)) {
    appendToQueue(env, queue, record);
    return;
  }
  record->pins += 2;
  linkLast(queue, record);
  setCount(queue, queue->count + 1);
  if (queue->count > queue->maxCount) queue->maxCount = queue->count;
}

// Gives an entry of the queue another revision and the place that goes with it.
void move(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue, LuOffHeapValue* entry,
          int64_t revision) {
  const bool last = belongsLast(queue, entry, revision);
  // Also of an entry that stays where it is: with its new revision it lies behind the resume point,
  // and a query whose bookmark were beyond its start would begin at the head.
  replace_bookmark(env, queue, entry, predecessorOf(entry));
  if (!last || queue->last != entry) {
    if (last) {
      unlink(queue, entry);
      linkLast(queue, entry);
    } else {
      removeFromQueue(env, queue, entry);
      entry->prev = nullptr;
      entry->next = nullptr;
    }
  }
  __atomic_store_n(&entry->revisionNumber, revision, __ATOMIC_RELAXED);
  if (!last) appendToQueue(env, queue, entry);
}

}  // namespace

LuOffHeapValue* findQuickly(BucketSet* set, const SearchKey& key, LuOffHeapValue** predecessor) {
  const ByteBufferHeader* wanted = key.buffer();
  LuOffHeapValue* before = nullptr;
  auto* value =
      static_cast<LuOffHeapValue*>(*getBucketInBucketSet(set, static_cast<uint32_t>(key.hash())));
  for (; value != nullptr; before = value, value = value->hashNext) {
    if (value->hashCode != key.hash()) continue;
    prefetch(value->value);
    const ByteBufferHeader* stored = value->key;
    if (stored->dataSize == wanted->dataSize &&
        std::memcmp(bufferData(stored), bufferData(wanted), stored->dataSize) == 0) {
      break;
    }
  }
  if (predecessor != nullptr) *predecessor = before;
  return value;
}

namespace {

// What a replacement has taken out of its entry.
struct Taken {
  ByteBufferHeader* buffer = nullptr;  // with the entry's pin
  uint64_t length = 0;                 // its usable bytes
};

// REQUIRES: map lock and bucket set. False: nothing was done.
bool replaceHeld(JNIEnv* env, LuOffHeapMap* map, LuOffHeapRevisionOrderQueue* queue,
                 LuOffHeapValue* entry, BufferCopy& value, jlong revision, Taken* taken) {
  prefetchNeighbours(entry);
  overflow_metadata* node = _isDiskOverflowEnabled ? nodeOf(entry) : nullptr;
  if (node != nullptr && isFlagSet(on_disk, node)) return false;
  const QueueHold holdsQueue(queue);
  if (!holdsQueue || entry->value == nullptr || !isIn(queue, entry) ||
      (node != nullptr && !tryBriefly(node))) {
    return false;
  }
  move(env, queue, entry, revision);
  *taken = {entry->value, entry->valueLength};
  entry->valueLength = sizeofByteBufferHeader(value.get());
  entry->value = value.passOn();
  if (node != nullptr) {
    setFlag(in_memory | recently_used, node);
    endBriefly(node);
  }
  if (entry->valueLength != taken->length) {
    lockIncrement(&map->map->bytesUsed, static_cast<int64_t>(entry->valueLength - taken->length));
  }
  return true;
}

}  // namespace

Quick replaceQuickly(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, BufferCopy& value,
                     jlong revision, uint64_t* released, const EntryHook* hook) {
  Taken taken;
  {
    const MapHold holdsMap(map);
    LuOffHeapRevisionOrderQueue* queue = holdsMap.queue();
    if (queue == nullptr) return Quick::ordinary;
    BucketSet* set = key.setIn(map);
    const SetHold holdsSet(set);
    if (!holdsSet) return Quick::ordinary;
    LuOffHeapValue* entry = findQuickly(set, key);
    if (entry == nullptr) return Quick::none;
    if (!replaceHeld(env, map, queue, entry, value, revision, &taken)) return Quick::ordinary;
    if (released != nullptr) *released = taken.length;
    if (hook != nullptr) hook->run(hook->context, env, entry);
  }
  unpinToFree(env, taken.buffer, LUOFFHEAPMAPVALUE_VALUE_PIN);
  return Quick::done;
}

WriteOutcome update(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, BufferCopy& value,
                    jlong revision, uint64_t* released, const EntryHook* hook) {
  if (isQuiet() && key.buffer() != nullptr) {
    switch (replaceQuickly(env, map, key, value, revision, released, hook)) {
      case Quick::done: return WriteOutcome::done;
      case Quick::none: return WriteOutcome::none;
      default: break;
    }
  }
  return updateInPlace(env, nullptr, map, key.object(), OBJECT_TYPE_JBYTE_ARRAY, key.buffer(),
                       key.hash(), value.get(), kOwner, revision, released, hook);
}

namespace {

// Frees a record that nobody has seen; its buffers stay the caller's.
Quick dropRecord(JNIEnv* env, LuOffHeapValue* record, Quick outcome) {
  if (_isDiskOverflowEnabled) overflow_metadata_uninit_metadata(env, nodeOf(record));
  freeLuOffHeapValue(env, nullptr, record);
  return outcome;
}

// A record with a node that is ready to be linked; null when memory or a lock was refused.
LuOffHeapValue* newRecord(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key,
                          const BufferCopy& keyBuffer, const BufferCopy& value, jlong revision) {
  LuOffHeapValue* record =
      newLuOffHeapValue(env, keyBuffer.get(), key.hash(), true, value.get(), kOwner, revision);
  if (record == nullptr || !_isDiskOverflowEnabled) return record;
  if (prepareUnseenNode(env, nodeOf(record), map->map)) return record;
  freeLuOffHeapValue(env, nullptr, record);
  return nullptr;
}

// REQUIRES: map lock, bucket set, no entry with that key. False: nothing was done.
bool insertHeld(JNIEnv* env, LuOffHeapMap* map, LuOffHeapRevisionOrderQueue* queue, BucketSet* set,
                LuOffHeapValue* record, BufferCopy& keyBuffer, BufferCopy& value) {
  {
    const QueueHold holdsQueue(queue);
    if (!holdsQueue) return false;
    enter(env, queue, record);
  }
  const auto hash = static_cast<uint32_t>(record->hashCode);
  Bucket* bucket = getBucketInBucketSet(set, hash);
  record->hashNext = static_cast<LuOffHeapValue*>(*bucket);
  *bucket = record;
  set->size++;
  rehashMapEntriesIfNecessary(env, map->map, set, record->hashCode);
  lockIncrement(&map->map->bytesUsed, static_cast<int64_t>(getSize_LuValue(env, record)));
  keyBuffer.passOn();
  value.passOn();
  if (_isDiskOverflowEnabled) linkUnseenNode(nodeOf(record));
  return true;
}

}  // namespace

Quick insertQuickly(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, BufferCopy& keyBuffer,
                    BufferCopy& value, jlong revision) {
  LuOffHeapValue* record = newRecord(env, map, key, keyBuffer, value, revision);
  if (record == nullptr) return Quick::failed;
  const MapHold holdsMap(map);
  LuOffHeapRevisionOrderQueue* queue = holdsMap.queue();
  if (queue == nullptr) return dropRecord(env, record, Quick::ordinary);
  BucketSet* set = key.setIn(map);
  const SetHold holdsSet(set);
  if (!holdsSet) return dropRecord(env, record, Quick::ordinary);
  if (findQuickly(set, key) != nullptr) return dropRecord(env, record, Quick::none);
  if (insertHeld(env, map, queue, set, record, keyBuffer, value)) return Quick::done;
  return dropRecord(env, record, Quick::ordinary);
}

Quick putQuickly(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, const JavaBytes& keyBytes,
                 BufferCopy& value, jlong revision, bool* inserted) {
  Taken taken;
  {
    const MapHold holdsMap(map);
    LuOffHeapRevisionOrderQueue* queue = holdsMap.queue();
    if (queue == nullptr) return Quick::ordinary;
    BucketSet* set = key.setIn(map);
    const SetHold holdsSet(set);
    if (!holdsSet) return Quick::ordinary;
    LuOffHeapValue* entry = findQuickly(set, key);
    *inserted = entry == nullptr;
    if (entry == nullptr) {
      BufferCopy keyBuffer(env, keyBytes, "Key Data");
      if (keyBuffer.get() == nullptr) return Quick::failed;
      LuOffHeapValue* record = newRecord(env, map, key, keyBuffer, value, revision);
      if (record == nullptr) return Quick::failed;
      if (insertHeld(env, map, queue, set, record, keyBuffer, value)) return Quick::done;
      return dropRecord(env, record, Quick::ordinary);
    }
    if (!replaceHeld(env, map, queue, entry, value, revision, &taken)) return Quick::ordinary;
  }
  unpinToFree(env, taken.buffer, LUOFFHEAPMAPVALUE_VALUE_PIN);
  return Quick::done;
}

Quick removeQuickly(LuOffHeapMap* map, const SearchKey& key, LuOffHeapValue** removed) {
  LuOffHeapValue* entry = nullptr;
  {
    const MapHold holdsMap(map);
    LuOffHeapRevisionOrderQueue* queue = holdsMap.queue();
    if (queue == nullptr) return Quick::ordinary;
    BucketSet* set = key.setIn(map);
    const SetHold holdsSet(set);
    if (!holdsSet) return Quick::ordinary;
    LuOffHeapValue* before = nullptr;
    entry = findQuickly(set, key, &before);
    if (entry == nullptr) return Quick::none;
    prefetchNeighbours(entry);
    {
      const QueueHold holdsQueue(queue);
      if (!holdsQueue || !isIn(queue, entry)) return Quick::ordinary;
      replace_bookmark(nullptr, queue, entry, predecessorOf(entry));
      unlink(queue, entry);
      setCount(queue, queue->count - 1);
    }
    if (before == nullptr) {
      *getBucketInBucketSet(set, static_cast<uint32_t>(key.hash())) = entry->hashNext;
    } else {
      before->hashNext = entry->hashNext;
    }
    set->size--;
    lockDecrement(&map->map->bytesUsed, static_cast<int64_t>(getSize_LuValue(nullptr, entry)));
  }
  lockDecrement(&entry->pins, 2);
  *removed = entry;
  return Quick::done;
}

}  // namespace nimbra::face
