// The natives of bounded maps: limits, eviction by use, expiration, and revision queries.
//
// An entry of a bounded map carries an eviction record for each policy, and its record stands in
// the partition's queue exactly while the entry stands in the table: both change under the entry's
// bucket set, the queue's mutex inside it. So whoever finds an entry may move its records, and
// whoever finds a record at the head of a queue checks under the bucket set that the entry still
// carries it.
//
// Of a record's Java fields two are ours: `timeout` holds the key's hash, `expiration` whether the
// record is queued. `metadata` is the access count (LFU) or the deadline (TTL).
#include <algorithm>

#include "com_velt_rz_corvane_nimbra_BoundedNatives.h"
#include "nb_face.h"
#include "nb_logging.h"

using namespace nimbra;
using namespace nimbra::face;

namespace {

// Limits and live figures of one map, over all its partitions. The figures are raised before memory
// or entries come to life, and only within the limits, so that no reader ever sees them above.
struct Bound {
  int64_t maximumBytes;
  int64_t maximumEntries;
  int64_t recordBytes;  // usable bytes of a value record
  int64_t bytes;        // atomic
  int64_t entries;      // atomic
};

bool raiseWithin(int64_t* figure, int64_t amount, int64_t maximum) {
  for (int64_t seen = lockRead(figure);;) {
    if (amount > maximum - seen) return false;
    const int64_t found = lockCompareExchange(figure, seen, seen + amount);
    if (found == seen) return true;
    seen = found;
  }
}

void release(Bound* bound, int64_t bytes, int64_t entries) {
  lockDecrement(&bound->bytes, bytes);
  lockDecrement(&bound->entries, entries);
}

bool reserve(Bound* bound, int64_t bytes, int64_t entries) {
  if (!raiseWithin(&bound->bytes, bytes, bound->maximumBytes)) return false;
  if (raiseWithin(&bound->entries, entries, bound->maximumEntries)) return true;
  lockDecrement(&bound->bytes, bytes);
  return false;
}

enum Policy : jint { kNone = 0, kLru = 1, kLfu = 2 };
enum Mode : jint { kPut = 0, kPutIfAbsent = 1, kReplace = 2 };
constexpr jint kNoRoom = -2;
constexpr jlong kKeepDeadline = INT64_MIN;
constexpr int64_t kIdle = 0;
constexpr int64_t kQueued = 1;

// One partition with its queues; a queue is null where the map has no such policy.
struct Partition {
  LuOffHeapMap* map;
  LuOffHeapEvictionDataQueue* queue;
  Policy policy;
  LuOffHeapEvictionDataQueue* ttl;

  Partition(jlong map, jlong queue, jint policy, jlong ttl)
      : map(fromHandle<LuOffHeapMap>(map)),
        queue(fromHandle<LuOffHeapEvictionDataQueue>(queue)),
        policy(static_cast<Policy>(policy)),
        ttl(fromHandle<LuOffHeapEvictionDataQueue>(ttl)) {}
};

// ---- Records of an entry. REQUIRES for all: the entry's bucket set. --------------------------

bool isExpired(const LuOffHeapValue* value, jlong now) {
  return value->ttlEvictionData != nullptr && value->ttlEvictionData->metadata <= now;
}

// REQUIRES: the queue. At the tail when the deadline allows it, as it does while all entries live
// equally long; otherwise in order.
void enterTtl(JNIEnv* env, LuOffHeapEvictionDataQueue* ttl, LuOffHeapEvictionData* record,
              jlong deadline) {
  record->metadata = deadline;
  record->prev = nullptr;
  record->next = nullptr;
  const auto* last = static_cast<const LuOffHeapEvictionData*>(ttl->last);
  if (last == nullptr || last->metadata <= deadline) {
    appendIntoEvictionQueue2(env, ttl, record);
  } else {
    appendToQueue(env, ttl, record);
  }
}

void moveDeadline(JNIEnv* env, LuOffHeapEvictionDataQueue* ttl, LuOffHeapEvictionData* record,
                  jlong deadline) {
  if (lockQueue(ttl) != 0) return;
  pin(env, static_cast<Pinnable*>(record), NATIVE_TRANSIENT_GET_PIN);
  removeFromQueue(env, ttl, record, kEvictionQueue);
  enterTtl(env, ttl, record, deadline);
  unpinLuOffHeapEvictionData(env, record, NATIVE_TRANSIENT_GET_PIN);
  unlockQueue(ttl);
}

void touch(JNIEnv* env, const Partition& partition, LuOffHeapValue* value, jlong newDeadline) {
  LuOffHeapEvictionData* used = value->evictionData;
  if (used != nullptr && used->expiration == kQueued) {
    if (partition.policy == kLru) {
      updateLRUEvictionQueue(env, partition.queue, used);
    } else if (partition.policy == kLfu) {
      updateLFUEvictionQueue(env, partition.queue, used);
    }
  }
  LuOffHeapEvictionData* timed = value->ttlEvictionData;
  if (timed != nullptr && timed->expiration == kQueued && newDeadline != kKeepDeadline) {
    moveDeadline(env, partition.ttl, timed, newDeadline);
  }
}

void detachFrom(JNIEnv* env, LuOffHeapEvictionDataQueue* queue, LuOffHeapEvictionData* record) {
  if (record == nullptr || record->expiration != kQueued) return;
  if (removeFromEvictionQueue(env, queue, record) >= 0) record->expiration = kIdle;
}

// The records that a new entry will carry, with their ALLOCATION_PINs for this scope.
class NewRecords {
 public:
  NewRecords(JNIEnv* env, const Partition& partition, ByteBufferHeader* key, jint hash)
      : env_(env), partition_(partition) {
    if (partition.policy != kNone) used_ = make(key, hash);
    if (partition.ttl != nullptr) timed_ = make(key, hash);
    ok = (used_ != nullptr || partition.policy == kNone) &&
         (timed_ != nullptr || partition.ttl == nullptr);
  }
  ~NewRecords() {
    for (LuOffHeapEvictionData* record : {used_, timed_}) {
      if (record != nullptr) unpinLuOffHeapEvictionData(env_, record, ALLOCATION_PIN);
    }
  }
  NewRecords(const NewRecords&) = delete;
  NewRecords& operator=(const NewRecords&) = delete;

  // REQUIRES: the bucket set of `value`, which has just been linked into the table.
  void attachTo(LuOffHeapValue* value, jlong deadline) {
    if (used_ != nullptr) {
      setEvictionDataToLuOffHeapValue(env_, value, used_, false);
      const int32_t count = partition_.policy == kLru
                                ? insertLRUEvictionQueue(env_, partition_.queue, used_)
                                : insertLFUEvictionQueueAndPin(env_, partition_.queue, used_);
      if (count > 0) used_->expiration = kQueued;
    }
    if (timed_ != nullptr && lockQueue(partition_.ttl) == 0) {
      setEvictionDataToLuOffHeapValue(env_, value, timed_, true);
      enterTtl(env_, partition_.ttl, timed_, deadline);
      timed_->expiration = kQueued;
      unlockQueue(partition_.ttl);
    }
  }

  // REQUIRES: the bucket set of an entry that was taken out of the table again.
  void detach() {
    detachFrom(env_, partition_.queue, used_);
    detachFrom(env_, partition_.ttl, timed_);
  }

  bool ok = false;

 private:
  LuOffHeapEvictionData* make(ByteBufferHeader* key, jint hash) {
    LuOffHeapEvictionData* record = allocateEvictionData(env_, key, false);
    if (record == nullptr) return nullptr;
    record->timeout = hash;
    record->expiration = kIdle;
    return record;
  }

  JNIEnv* env_;
  const Partition& partition_;
  LuOffHeapEvictionData* used_ = nullptr;
  LuOffHeapEvictionData* timed_ = nullptr;
};

// ---- Removal -------------------------------------------------------------------------------

// REQUIRES: the bucket set, which is released. Takes the entry out of table and queues and its
// share out of the bound. The result holds JNI_REMOVED_PIN; null when the removal failed. With
// `found`, what the entry had is pinned: whoever holds its record may bring its value back from
// disk even later.
LuOffHeapValue* takeOut(JNIEnv* env, const Partition& partition, Bound* bound, BucketSet* set,
                        LuOffHeapValue* value, Found* found = nullptr) {
  LuOffHeapValue search = {};
  search.key = value->key;
  search.hashCode = value->hashCode;
  auto* removed = static_cast<LuOffHeapValue*>(hashtable_removeAndPin(
      env, nullptr, partition.map->map, nullptr, OBJECT_TYPE_VALUEHEADER, &search, false));
  if (removed != nullptr) {
    detachFrom(env, partition.queue, removed->evictionData);
    detachFrom(env, partition.ttl, removed->ttlEvictionData);
    release(bound, static_cast<int64_t>(getSize_LuValue(env, removed)), 1);
    if (found != nullptr) *found = pinFound(env, removed);
  }
  unlockBucketSet(set);
  if (removed == nullptr) return nullptr;
  if (removeFromRevisionQueue(env, partition.map, removed)) {
    if (_isDiskOverflowEnabled) overflow_metadata_splice_out(env, nodeOf(removed), false);
    forgetUntold(env, removed);
    return removed;
  }
  if (found != nullptr) letGo(env, *found);
  unpinLuOffHeapMapValue(env, removed, JNI_REMOVED_PIN);
  return nullptr;
}

// Removes the key's entry if `mayGo` says so under the bucket set.
template <typename MayGo>
WriteOutcome removeIf(JNIEnv* env, const Partition& partition, Bound* bound, const SearchKey& key,
                      MayGo mayGo, const char* function) {
  BucketSet* set = key.setIn(partition.map);
  if (!lockOrRaise(env, set, function)) return WriteOutcome::failed;
  LuOffHeapValue* value = key.findIn(env, partition.map);
  if (value == nullptr || !mayGo(value)) {
    unlockBucketSet(set);
    return WriteOutcome::none;
  }
  LuOffHeapValue* removed = takeOut(env, partition, bound, set, value);
  if (removed == nullptr) return WriteOutcome::failed;
  unpinLuOffHeapMapValue(env, removed, JNI_REMOVED_PIN);
  return WriteOutcome::done;
}

// ---- Write ---------------------------------------------------------------------------------

// One write: the bound is raised first, so that memory never comes to life above it.
struct Write {
  JNIEnv* env;
  const Partition& partition;
  Bound* bound;
  const SearchKey& key;
  BufferCopy& value;
  jlong revision;
  jlong deadline;

  // done, none (the key vanished), failed; *room is false when the bound has none.
  WriteOutcome replace(bool* room) {
    const auto bytes = static_cast<int64_t>(sizeofByteBufferHeader(value.get()));
    *room = reserve(bound, bytes, 0);
    if (!*room) return WriteOutcome::failed;
    uint64_t old = 0;
    // In the same hold as the swap: the new value never stands there with the old deadline.
    const EntryHook hook = {[](void* self, JNIEnv* hookEnv, LuOffHeapValue* entry) {
                              const auto* write = static_cast<Write*>(self);
                              touch(hookEnv, write->partition, entry, write->deadline);
                            },
                            this};
    const WriteOutcome outcome = update(env, partition.map, key, value, revision, &old, &hook);
    release(bound, outcome == WriteOutcome::done ? static_cast<int64_t>(old) : bytes, 0);
    return outcome;
  }

  // done, none (the key has come), failed; *room as above.
  WriteOutcome insert(jbyteArray keyArray, bool* room) {
    *room = true;
    const BufferCopy keyBuffer(env, keyArray, "Key Data");
    if (keyBuffer.get() == nullptr) return WriteOutcome::failed;
    const int64_t bytes = static_cast<int64_t>(sizeofByteBufferHeader(keyBuffer.get())) +
                          static_cast<int64_t>(sizeofByteBufferHeader(value.get())) +
                          bound->recordBytes;
    *room = reserve(bound, bytes, 1);
    if (!*room) return WriteOutcome::failed;
    NewRecords records(env, partition, keyBuffer.get(), key.hash());
    WriteOutcome outcome = WriteOutcome::failed;
    LuOffHeapValue* created = nullptr;
    if (records.ok) {
      Attachment attachment{records, deadline};
      const EntryHook hook = {[](void* self, JNIEnv*, LuOffHeapValue* entry) {
                                const auto* attach = static_cast<Attachment*>(self);
                                attach->records.attachTo(entry, attach->deadline);
                              },
                              &attachment};
      created = insertAndPin(env, nullptr, partition.map, key.object(), OBJECT_TYPE_JBYTE_ARRAY,
                             keyBuffer.get(), key.hash(), true, value.get(), kOwner, revision,
                             &outcome, &hook);
    }
    if (created == nullptr) {
      release(bound, bytes, 1);
      BucketSet* set = key.setIn(partition.map);
      if (outcome == WriteOutcome::failed && lockBucketSet(set) == 0) {
        records.detach();
        unlockBucketSet(set);
      }
      return outcome;
    }
    lockIncrement(&bound->bytes, static_cast<int64_t>(usableSizeOf(created)) - bound->recordBytes);
    unpinLuOffHeapMapValue(env, created, JNI_INSERTED_PIN);
    return WriteOutcome::done;
  }

 private:
  struct Attachment {
    NewRecords& records;
    jlong deadline;
  };
};

enum class Presence { absent, live, expired, unknown };

// A key that Java refused to show has not been looked for.
Presence absentOrUnknown(JNIEnv* env) {
  return env->ExceptionCheck() ? Presence::unknown : Presence::absent;
}

Presence probe(JNIEnv* env, const Partition& partition, const SearchKey& key, jlong now,
               const char* function) {
  BucketSet* set = key.setIn(partition.map);
  if (!lockOrRaise(env, set, function)) return Presence::unknown;
  const LuOffHeapValue* value = key.findIn(env, partition.map);
  const Presence presence = value == nullptr        ? absentOrUnknown(env)
                            : isExpired(value, now) ? Presence::expired
                                                    : Presence::live;
  unlockBucketSet(set);
  return presence;
}

// Pins the key's value and marks the entry as used; nothing when absent or expired.
Found pinAndTouch(JNIEnv* env, const Partition& partition, const SearchKey& key, jlong now,
                  jlong newDeadline, const char* function) {
  Found found;
  BucketSet* set = key.setIn(partition.map);
  if (!lockOrRaise(env, set, function)) return found;
  LuOffHeapValue* value = key.findIn(env, partition.map);
  if (value != nullptr && !isExpired(value, now)) {
    found = pinFound(env, value);
    markUsed(value);
    touch(env, partition, value, newDeadline);
  }
  unlockBucketSet(set);
  return found;
}

}  // namespace

// ---- Bounds --------------------------------------------------------------------------------

jlong Java_com_velt_rz_corvane_nimbra_BoundedNatives_allocateBound(JNIEnv* env, jclass,
                                                                   jlong maximumBytes,
                                                                   jlong maximumEntries) {
  const NativeScope scope(env);
  void* probeRecord = malloc_nb(env, valueRecordSize(), "LuOffHeapMapValue");
  if (probeRecord == nullptr) return 0;
  const auto recordBytes = static_cast<int64_t>(usableSizeOf(probeRecord));
  free_nb(env, probeRecord, valueRecordSize());
  auto* bound = static_cast<Bound*>(malloc_nb(env, sizeof(Bound), "Bound"));
  if (bound == nullptr) return 0;
  *bound = {maximumBytes > 0 ? maximumBytes : INT64_MAX,
            maximumEntries > 0 ? maximumEntries : INT64_MAX, recordBytes, 0, 0};
  addMetadata(usableSizeOf(bound));
  return toHandle(bound);
}

void Java_com_velt_rz_corvane_nimbra_BoundedNatives_freeBound(JNIEnv* env, jclass, jlong handle) {
  const NativeScope scope(env);
  auto* bound = fromHandle<Bound>(handle);
  subtractMetadata(usableSizeOf(bound));
  free_nb(env, bound, sizeof(Bound));
}

jlong Java_com_velt_rz_corvane_nimbra_BoundedNatives_bytes(JNIEnv*, jclass, jlong bound) {
  return lockRead(&fromHandle<Bound>(bound)->bytes);
}

jlong Java_com_velt_rz_corvane_nimbra_BoundedNatives_entries(JNIEnv*, jclass, jlong bound) {
  return lockRead(&fromHandle<Bound>(bound)->entries);
}

// ---- Entries -------------------------------------------------------------------------------

jint Java_com_velt_rz_corvane_nimbra_BoundedNatives_put(JNIEnv* env, jclass, jlong map,
                                                        jlong boundHandle, jlong queue, jint policy,
                                                        jlong ttl, jbyteArray keyArray, jint hash,
                                                        jbyteArray valueArray, jlong revision,
                                                        jlong now, jlong deadline, jint mode) {
  const NativeScope scope(env);
  const Partition partition(map, queue, policy, ttl);
  auto* bound = fromHandle<Bound>(boundHandle);
  const SearchKey key(env, keyArray, hash);
  BufferCopy value(env, valueArray, "Value Data");
  if (value.get() == nullptr) return kFailed;
  Write write{env, partition, bound, key, value, revision, deadline};
  // Each step is atomic; a key that comes or goes between them sends us round again.
  for (;;) {
    Presence presence = probe(env, partition, key, now, __func__);
    if (presence == Presence::unknown) return kFailed;
    if (presence == Presence::expired) {
      const auto stillExpired = [now](const LuOffHeapValue* entry) {
        return isExpired(entry, now);
      };
      if (removeIf(env, partition, bound, key, stillExpired, __func__) == WriteOutcome::failed) {
        return kFailed;
      }
      continue;
    }
    const bool live = presence == Presence::live;
    if (live && mode == kPutIfAbsent) return 0;
    if (!live && mode == kReplace) return 0;
    bool room = true;
    const WriteOutcome outcome = live ? write.replace(&room) : write.insert(keyArray, &room);
    if (!room) return kNoRoom;
    if (outcome == WriteOutcome::failed) return kFailed;
    if (outcome == WriteOutcome::done) return live && mode == kPut ? 0 : 1;
    if (env->ExceptionCheck()) return kFailed;  // the search itself could not be made
  }
}

jbyteArray Java_com_velt_rz_corvane_nimbra_BoundedNatives_get(JNIEnv* env, jclass, jlong map,
                                                              jlong queue, jint policy, jlong ttl,
                                                              jbyteArray keyArray, jint hash,
                                                              jlong now, jlong newDeadline,
                                                              jlongArray onDisk) {
  const NativeScope scope(env);
  const SearchKey key(env, keyArray, hash);
  return copyFound(
      env, pinAndTouch(env, Partition(map, queue, policy, ttl), key, now, newDeadline, __func__),
      onDisk);
}

jlong Java_com_velt_rz_corvane_nimbra_BoundedNatives_pin(JNIEnv* env, jclass, jlong map,
                                                         jlong queue, jint policy, jlong ttl,
                                                         jbyteArray keyArray, jint hash, jlong now,
                                                         jlong newDeadline, jlongArray out) {
  const NativeScope scope(env);
  const SearchKey key(env, keyArray, hash);
  return handOverPinned(
      env, pinAndTouch(env, Partition(map, queue, policy, ttl), key, now, newDeadline, __func__),
      out);
}

jboolean Java_com_velt_rz_corvane_nimbra_BoundedNatives_containsKey(JNIEnv* env, jclass, jlong map,
                                                                    jbyteArray keyArray, jint hash,
                                                                    jlong now) {
  const NativeScope scope(env);
  const SearchKey key(env, keyArray, hash);
  return probe(env, Partition(map, 0, kNone, 0), key, now, __func__) == Presence::live ? JNI_TRUE
                                                                                       : JNI_FALSE;
}

jint Java_com_velt_rz_corvane_nimbra_BoundedNatives_remove(JNIEnv* env, jclass, jlong map,
                                                           jlong bound, jlong queue, jlong ttl,
                                                           jbyteArray keyArray, jint hash,
                                                           jlong now) {
  const NativeScope scope(env);
  const SearchKey key(env, keyArray, hash);
  bool expired = false;
  const WriteOutcome outcome = removeIf(
      env, Partition(map, queue, kNone, ttl), fromHandle<Bound>(bound), key,
      [&expired, now](const LuOffHeapValue* entry) {
        expired = isExpired(entry, now);
        return true;
      },
      __func__);
  if (outcome == WriteOutcome::failed) return kFailed;
  return outcome == WriteOutcome::done && !expired ? 1 : 0;
}

namespace {

// REQUIRES: nobody else inside the map.
int64_t countEntries(MapHeader* table) {
  int64_t entries = 0;
  for (uint32_t i = 0; i < table->numBucketSets; i++)
    entries += getBucketSetByIndex(table, i)->size;
  return entries;
}

// Takes every record out of a queue (none: true) and says so in the record.
bool drain(JNIEnv* env, LuOffHeapEvictionDataQueue* queue) {
  if (queue == nullptr) return true;
  if (lockQueue(queue) != 0) return false;
  while (queue->last != nullptr) {
    static_cast<LuOffHeapEvictionData*>(queue->last)->expiration = kIdle;
    removeFromQueue(env, queue, queue->last, kEvictionQueue);
  }
  unlockQueue(queue);
  return true;
}

}  // namespace

jboolean Java_com_velt_rz_corvane_nimbra_BoundedNatives_clear(JNIEnv* env, jclass, jlong map,
                                                              jlong boundHandle, jlong queue,
                                                              jlong ttl) {
  const NativeScope scope(env);
  const Partition partition(map, queue, kNone, ttl);
  MapHeader* table = partition.map->map;
  const int64_t bytes = hashtable_bytesUsed(env, table);
  const int64_t entries = countEntries(table);
  if (!drain(env, partition.queue) || !drain(env, partition.ttl)) return JNI_FALSE;
  hashtable_clear(env, table);
  const bool unlinked = !env->ExceptionCheck() && clearQueues(env, partition.map);
  const int64_t left = countEntries(table);
  release(fromHandle<Bound>(boundHandle), bytes - hashtable_bytesUsed(env, table), entries - left);
  const bool empty = left == 0 && partition.map->revisionQueue[kOwner]->count == 0;
  return unlinked && empty ? JNI_TRUE : JNI_FALSE;
}

// ---- Eviction ------------------------------------------------------------------------------

namespace {

// The record at the head of the queue, pinned JNI_EVICTLIST_PIN; null when there is none that may
// go.
LuOffHeapEvictionData* pinHead(JNIEnv* env, LuOffHeapEvictionDataQueue* queue, bool byDeadline,
                               jlong now) {
  if (queue == nullptr || lockQueue(queue) != 0) return nullptr;
  auto* record = static_cast<LuOffHeapEvictionData*>(queue->first);
  if (record != nullptr && byDeadline && record->metadata > now) record = nullptr;
  if (record != nullptr) pin(env, static_cast<Pinnable*>(record), JNI_EVICTLIST_PIN);
  unlockQueue(queue);
  return record;
}

// Takes the record's entry out, if it still carries the record and, by deadline, has not been given
// another one meanwhile. The result holds JNI_REMOVED_PIN, and `found` a pin on what it had.
LuOffHeapValue* takeOutByRecord(JNIEnv* env, const Partition& partition, Bound* bound,
                                LuOffHeapEvictionData* record, bool byDeadline, jlong now,
                                Found* found) {
  BucketSet* set = getBucketSet(partition.map->map, static_cast<uint32_t>(record->timeout));
  if (lockBucketSet(set) != 0) return nullptr;
  auto* value = static_cast<LuOffHeapValue*>(_getMapEntry(env, nullptr, partition.map->map, nullptr,
                                                          OBJECT_TYPE_VALUEHEADER, record->key,
                                                          record->timeout));
  const bool carried =
      value != nullptr && (byDeadline ? value->ttlEvictionData : value->evictionData) == record;
  if (carried && (!byDeadline || isExpired(value, now))) {
    return takeOut(env, partition, bound, set, value, found);
  }
  // A record that a refused lock has left behind would stand at the head for ever.
  if (!carried) detachFrom(env, byDeadline ? partition.ttl : partition.queue, record);
  unlockBucketSet(set);
  return nullptr;
}

}  // namespace

jint Java_com_velt_rz_corvane_nimbra_BoundedNatives_evict(JNIEnv* env, jclass, jlong map,
                                                          jlong boundHandle, jlong queue, jlong ttl,
                                                          jint count, jboolean byDeadline,
                                                          jlong now, jlongArray out) {
  const NativeScope scope(env);
  const Partition partition(map, queue, kNone, ttl);
  auto* bound = fromHandle<Bound>(boundHandle);
  const bool timed = byDeadline == JNI_TRUE;
  const jint wanted = std::min(count, env->GetArrayLength(out) / kScanWords);
  jint evicted = 0;
  // A head that another thread takes first costs an attempt; the attempts are bounded, too.
  for (int64_t attempt = 0; attempt < int64_t{2} * wanted && evicted < wanted; attempt++) {
    LuOffHeapEvictionData* record =
        pinHead(env, timed ? partition.ttl : partition.queue, timed, now);
    if (record == nullptr) break;
    Found found;
    LuOffHeapValue* removed = takeOutByRecord(env, partition, bound, record, timed, now, &found);
    if (removed != nullptr) {
      handOverForWalk(env, removed, found, out, evicted++);
      unpinLuOffHeapMapValue(env, removed, JNI_REMOVED_PIN);
    }
    unpinLuOffHeapEvictionData(env, record, JNI_EVICTLIST_PIN);
    if (env->ExceptionCheck()) {
      // Java must learn of what was evicted already; the failure shows again in the next step.
      if (evicted > 0) env->ExceptionClear();
      break;
    }
  }
  return evicted;
}

// ---- Changes -------------------------------------------------------------------------------

namespace {

// With disk overflow, buffers alone stay pinned for Java: a record must not outlive its map, and a
// node must not stay locked while Java's callers run. A value on disk is looked up by its key
// later.
void letRecordsGo(JNIEnv* env, const int64_t* words) {
  for (int64_t i = 0; i < words[0]; i++) {
    auto* value = fromHandle<LuOffHeapValue>(words[1 + i * kQueryWords]);
    overflow_metadata_unlock(env, "QueryRevision", nodeOf(value));
    unpinLuOffHeapMapValue(env, value, JNI_QUERYREVISION_PIN);
  }
}

}  // namespace

void Java_com_velt_rz_corvane_nimbra_BoundedNatives_query(JNIEnv* env, jclass, jlong map,
                                                          jobject result, jint bookmark,
                                                          jlong start, jlong end) {
  const NativeScope scope(env);
  auto* words = static_cast<int64_t*>(env->GetDirectBufferAddress(result));
  words[0] = 0;
  const ProfiledRun run(qnp, kQueryPositions, kQueryProfile, kQueryLabels);
  const int64_t starts[] = {start};
  const int64_t ends[] = {end};
  run.point(0);
  if (!queryRevision(env, fromHandle<LuOffHeapMap>(map), words, bookmark, starts, ends, 1, run)) {
    throw_exception(env, __func__, "A revision query failed to lock the map or its queue.");
  }
  run.point(7);
  if (_isDiskOverflowEnabled) letRecordsGo(env, words);
}

void Java_com_velt_rz_corvane_nimbra_BoundedNatives_releaseQueried(JNIEnv* env, jclass,
                                                                   jlong valueRecord, jlong keyData,
                                                                   jlong valueData) {
  const NativeScope scope(env);
  constexpr uint32_t kTransport = JAVA_TRANSPORT_PIN | JNI_CONVERT_FROM_JAVA_PIN;
  unpinToFree(env, headerOfData(fromHandle<void>(keyData)), kTransport);
  if (valueData != 0) unpinToFree(env, headerOfData(fromHandle<void>(valueData)), kTransport);
  if (_isDiskOverflowEnabled) return;
  unpinLuOffHeapMapValue(env, fromHandle<LuOffHeapValue>(valueRecord), JNI_QUERYREVISION_PIN);
}
