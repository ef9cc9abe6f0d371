// The write operations of a map: insert, update, remove, and how each undoes what it began.
//
// State: none. Insert holds the map lock from before the bucket set to behind the queue; update
// lets it go after the queue move and keeps the bucket set; remove takes no map lock and touches
// the queue after the bucket set is free.
#include "nb_jni.h"
#include "nb_map_private.h"
#include "overflow.h"

namespace nimbra {

namespace {

constexpr char kUpdateMapTag[] = "LuMap upd[0]";
constexpr char kUpdateSetTag[] = "BucketSet lum[6]";
constexpr char kInsertSetTag[] = "BucketSet lum[7]";
constexpr char kRemoveSetTag[] = "BucketSet lum[8]";

void report(WriteOutcome* outcome, WriteOutcome what) {
  if (outcome != nullptr) *outcome = what;
}

ProfileSlot inp;
ProfileSlot unp;
ProfileSlot rnp;
constexpr int32_t kPositions = 1000;
constexpr const char* kInsertLabels[] = {"allcLuV", "initOvf", "lockBS",  "ht_in",   "lockOvf",
                                         "linkOvf", "ulckOvf", "updRevQ", "unpnLuV", "ulckBS"};
constexpr const char* kUpdateLabels[] = {"lockLuMp", "lockBS",  "getNewQ",  "ht_get",
                                         "getOldQ",  "unlLuMp", "allocCpy", "unpinUnlock"};
constexpr const char* kRemoveLabels[] = {
    "getAndLockBS", "removeMapEntry",     "unpinME", "lockDec", "deletingNativeJava",
    "unlockMeta",   "removeFromRevQueue", "unlockBS"};

// A record on the stack that carries a key buffer and a hash to a search.
LuOffHeapValue searchRecord(ByteBufferHeader* keyBuffer, int32_t hashCode, bool isHashCodeGiven) {
  LuOffHeapValue record = {};
  record.key = keyBuffer;
  record.hashCode = hashCode;
  if (isHashCodeGiven) record.flags = hashCodeGiven;
  return record;
}

BucketSet* setOf(LuOffHeapMap* map, int32_t hashCode) {
  return getBucketSet(map->map, static_cast<uint32_t>(hashCode));
}

// ---- Insert --------------------------------------------------------------------------------

constexpr char kInsertLink[] = "insert link";

// Prepares the new value's node; on failure the value is freed.
bool prepareNode(JNIEnv* env, LuOffHeapMap* map, LuOffHeapValue* value) {
  NB_DEBUG_AS(env, "insertAndPin", "KLOR filling in offheap_metadata struct");
  if (initialize_overflow_metadata(env, nodeOf(value), map->map)) return true;
  unpinLuOffHeapMapValue(env, value, JNI_ROLLBACK_PIN);
  throw_exception(env, "insertAndPin", "failed initialization of Nimbra overflow metadata");
  return false;
}

// REQUIRES: the map lock for writing. Takes the new value out of the table again, lets the map lock
// go and frees the value.
void rollBackInsert(JNIEnv* env, LuOffHeapMap* map, LuOffHeapValue* value) {
  BucketSet* set = setOf(map, value->hashCode);
  const bool locked = lockBucketSet(set) == 0;
  unpinLuOffHeapMapValue(env, value, JNI_INSERTED_PIN);
  if (locked) {
    hashtable_removeEntryAndPin(env, map->map, value);
    unpinLuOffHeapMapValue(env, value, JNI_REMOVED_PIN);
    unlockBucketSet(set);
  }
  unlock(env, map);
  unpinLuOffHeapMapValue(env, value, JNI_ROLLBACK_PIN);
}

// REQUIRES: the map lock for writing. Links the new value into its chain, pinned JNI_INSERTED_PIN.
WriteOutcome insertIntoTable(JNIEnv* env, jobject caller, LuOffHeapMap* map, const void* key,
                             uint8_t keyFormat, LuOffHeapValue* value, const EntryHook* hook,
                             const ProfiledRun& run) {
  BucketSet* set = setOf(map, value->hashCode);
  if (lockBucketSet(set) != 0) {
    unlock(env, map);
    unpinLuOffHeapMapValue(env, value, JNI_ROLLBACK_PIN);
    NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, kInsertSetTag);
    return WriteOutcome::failed;
  }
  run.point(2);
  NB_DEBUG_AS(env, "insertAndPin",
              "insert the new LuOffHeapMap. key=%p, hashCode=%d, value=%p, newLuValue=%p "
              "revOwner=%d, revNum=%d",
              static_cast<void*>(value->key), value->hashCode, static_cast<void*>(value->value),
              static_cast<void*>(value), value->revisionOwner,
              static_cast<int>(value->revisionNumber));
  int32_t inserted = -1;
  const Pinnable* entry =
      hashtable_insertAndPin(env, caller, map->map, key, keyFormat, value, &inserted, false);
  if (entry != nullptr && hook != nullptr) hook->run(hook->context, env, value);
  unlockBucketSet(set);
  run.point(3);
  if (entry != nullptr) return WriteOutcome::done;
  unlock(env, map);
  ByteBufferHeader* keyBuffer = value->key;
  const int32_t hashCode = value->hashCode;
  ByteBufferHeader* buffer = value->value;
  unpinLuOffHeapMapValue(env, value, JNI_ROLLBACK_PIN);
  NB_DEBUG_AS(env, "insertAndPin",
              "fail inserting LuOffHeapMap. Start free the allocated LuOffHeapMapValue. key=%p, "
              "hashCode=%d, value=%p, LuOffHeapMapValue=%p",
              static_cast<void*>(keyBuffer), hashCode, static_cast<void*>(buffer),
              static_cast<void*>(value));
  return env->ExceptionCheck() ? WriteOutcome::failed : WriteOutcome::none;
}

// REQUIRES: the map lock for writing. Hands the new entry's node over to the sweep. Rolls the
// insert back on failure.
bool linkNode(JNIEnv* env, LuOffHeapMap* map, LuOffHeapValue* value, const ProfiledRun& run) {
  overflow_metadata* node = nodeOf(value);
  NB_DEBUG_AS(env, "insertAndPin", "KLOR linking metadata to header");
  if (!overflow_metadata_lock(env, kInsertLink, node)) {
    rollBackInsert(env, map, value);
    return false;
  }
  run.point(4);
  if (!overflow_metadata_link_to_header(env, node, true)) {
    overflow_metadata_unlock(env, "insert rollback", node);
    rollBackInsert(env, map, value);
    throw_exception(env, "insertAndPin", "failed to link to header");
    return false;
  }
  run.point(5);
  clearFlag(is_invalid, node);
  if (!overflow_metadata_unlock(env, kInsertLink, node)) {
    rollBackInsert(env, map, value);
    return false;
  }
  run.point(6);
  return true;
}

}  // namespace

LuOffHeapValue* insertAndPin(JNIEnv* env, jobject caller, LuOffHeapMap* map, const void* key,
                             uint8_t keyFormat, ByteBufferHeader* keyBuffer, int32_t hashCode,
                             bool isHashCodeGiven, ByteBufferHeader* value, uint16_t revisionOwner,
                             int64_t revisionNumber, WriteOutcome* outcome, const EntryHook* hook) {
  constexpr char kEnter[] =
      "luMap=%p key=%p hashCode=%d value=%p revisionOwner=%d revisionNumber=%lu withHashCode=%s";
  if (logInfo.entryExit) {
    entry(env, __func__, kEnter, static_cast<void*>(map), static_cast<void*>(keyBuffer), hashCode,
          static_cast<void*>(value), revisionOwner, static_cast<unsigned long>(revisionNumber),
          isHashCodeGiven ? "true" : "false");
  } else {
    NB_EVENT(env, kEnter, static_cast<void*>(map), static_cast<void*>(keyBuffer), hashCode,
             static_cast<void*>(value), revisionOwner, static_cast<unsigned long>(revisionNumber),
             isHashCodeGiven ? "true" : "false");
  }
  report(outcome, WriteOutcome::failed);
  const ProfiledRun run(inp, kPositions, "insertAndPin", kInsertLabels);
  LuOffHeapValue* created = allocateLuOffHeapMapValue(env, keyBuffer, hashCode, isHashCodeGiven,
                                                      value, revisionOwner, revisionNumber);
  if (created == nullptr) {
    NB_DEBUG(env, "fail allocating a LuOffHeapValue. key=%p, hashCode=%d, value=%p",
             static_cast<void*>(keyBuffer), hashCode, static_cast<void*>(value));
    return nullptr;
  }
  run.point(0);
  if (_isDiskOverflowEnabled && !prepareNode(env, map, created)) return nullptr;
  run.point(1);
  // Deliberate: a map lock that cannot be had leaves the new value allocated. The contract with
  // Java says so. Pinned by InsertRollback.MapLockFailureLeavesTheValue.
  if (wrlock(env, map) != 0) return nullptr;

  const WriteOutcome linked = insertIntoTable(env, caller, map, key, keyFormat, created, hook, run);
  if (linked != WriteOutcome::done) {
    report(outcome, linked);
    return nullptr;
  }
  if (!_isDiskOverflowEnabled) {
    for (int32_t point = 4; point <= 6; point++) run.point(point);
  } else if (!linkNode(env, map, created, run)) {
    return nullptr;
  }
  NB_DEBUG(env, "insert the revision queue. key=%p, hashCode=%d, value=%p, newLuValue=%p",
           static_cast<void*>(keyBuffer), hashCode, static_cast<void*>(value),
           static_cast<void*>(created));
  NB_DEBUG(env, "insert the new value. key=%p, hashCode=%d, value=%p, newLuValue=%p",
           static_cast<void*>(keyBuffer), hashCode, static_cast<void*>(value),
           static_cast<void*>(created));
  if (!updateRevisionQueue(env, map, nullptr, created)) {
    NB_ERROR_GENERIC(env, kGenericErrorKey,
                     "error to insert the previous value. key=%p, hashCode=%d, value=%p, "
                     "newLuValue=%p",
                     static_cast<void*>(keyBuffer), hashCode, static_cast<void*>(value),
                     static_cast<void*>(created));
    if (_isDiskOverflowEnabled) {
      const ExceptionAside aside(env);
      overflow_metadata_splice_out(env, nodeOf(created), false);
    }
    rollBackInsert(env, map, created);
    return nullptr;
  }
  run.point(7);
  if (unlock(env, map) != 0) return nullptr;
  NB_DEBUG(env, "return new value. newLuValue=%p", static_cast<void*>(created));
  unpinLuOffHeapMapValue(env, created, ALLOCATION_PIN);
  run.point(8);
  run.point(9);
  report(outcome, WriteOutcome::done);
  return created;
}

// ---- Update --------------------------------------------------------------------------------

namespace {

constexpr char kUpdate[] = "updateAndPin";

// What an update without a snapshot has taken out of the entry.
struct Replaced {
  ByteBufferHeader* buffer;  // with one LUOFFHEAPMAPVALUE_VALUE_PIN
  uint64_t length;           // its usable bytes
};

struct Update {
  LuOffHeapMap* map;
  BucketSet* set;
  LuOffHeapValue* existing;  // pinned JNI_UPDATED_PIN
  LuOffHeapValue* snapshot;  // its ALLOCATION_PIN; null when the update needs none
  Replaced* replaced;        // what stands in for it then
};

// Drops both records and the bucket set. REQUIRES: the bucket set.
void dropUpdate(JNIEnv* env, const Update& update) {
  if (update.snapshot != nullptr) unpinLuOffHeapMapValue(env, update.snapshot, JNI_ROLLBACK_PIN);
  unpinLuOffHeapMapValue(env, update.existing, JNI_ROLLBACK_PIN);
  unlockBucketSet(update.set);
}

// The same with the map lock held.
void giveUpUpdate(JNIEnv* env, const Update& update) {
  dropUpdate(env, update);
  unlock(env, update.map);
}

void reportQueueLock(JNIEnv* env) {
  NB_ERROR_GENERIC(env, kLockErrorKey, "%s", kQueueLockMessage);
  throw_exception(env, kUpdate, kQueueLockMessage);
}

// Takes the entry out of its old queue and gives it to the new owner. Gives up on failure.
bool leaveOldQueue(JNIEnv* env, const Update& update, LuOffHeapRevisionOrderQueue* oldQueue,
                   uint16_t newOwner) {
  LuOffHeapValue* existing = update.existing;
  if (lockQueue(oldQueue) != 0) {
    giveUpUpdate(env, update);
    reportQueueLock(env);
    return false;
  }
  replace_bookmark(env, oldQueue, existing, static_cast<LuOffHeapValue*>(existing->prev));
  if (env->ExceptionCheck()) {
    unlockQueue(oldQueue);
    giveUpUpdate(env, update);
    return false;
  }
  // An entry that is in no queue is tolerated: the append below puts it back in order.
  if (!removeFromQueue(env, oldQueue, existing) && env->ExceptionCheck()) env->ExceptionClear();
  // A removal from the middle leaves the links. If the append below fails, the next write of this
  // key must find an entry that is in no queue, not one with strangers for neighbours.
  existing->prev = nullptr;
  existing->next = nullptr;
  existing->revisionOwner = newOwner;
  if (unlockQueue(oldQueue) != 0) {
    giveUpUpdate(env, update);
    throw_exception(env, kUpdate, "Unlock queue during update's removal from queue failed.");
    return false;
  }
  return true;
}

// Puts the entry into its new queue at its new revision. Gives up on failure.
bool enterNewQueue(JNIEnv* env, const Update& update, LuOffHeapRevisionOrderQueue* newQueue,
                   int64_t revisionNumber) {
  if (lockQueue(newQueue) != 0) {
    giveUpUpdate(env, update);
    reportQueueLock(env);
    return false;
  }
  update.existing->revisionNumber = revisionNumber;
  if (!appendToQueue(env, newQueue, update.existing)) {
    unlockQueue(newQueue);
    giveUpUpdate(env, update);
    return false;
  }
  if (unlockQueue(newQueue) != 0) {
    removeFromQueue(env, newQueue, update.existing);
    unlockQueue(newQueue);
    giveUpUpdate(env, update);
    throw_exception(env, kUpdate, "Unlocking queue during update's appending to queue failed.");
    return false;
  }
  return true;
}

// Lets the map lock go; on failure the entry leaves the new queue again.
bool releaseMap(JNIEnv* env, const Update& update, LuOffHeapRevisionOrderQueue* newQueue) {
  if (unlock(nullptr, update.map) == 0) return true;
  if (lockQueue(newQueue) == 0) {
    removeFromQueue(env, newQueue, update.existing);
    unlockQueue(newQueue);
  }
  giveUpUpdate(env, update);
  throw_exception(env, kUpdate, "Unlocking map during update's appending to queue failed.");
  return false;
}

// REQUIRES: the bucket set, and what keeps a walk over the queue away from the buffers. Moves the
// old buffer to the snapshot, or to the caller who wants none.
void moveValueOut(JNIEnv* env, const Update& update) {
  LuOffHeapValue* existing = update.existing;
  LuOffHeapValue* snapshot = update.snapshot;
  // The pin that the table drops in the swap; the one from the buffer's insertion goes with it.
  if (existing->value != nullptr) pin(env, existing->value, MAPENTRY_VALUE_PIN);
  if (snapshot == nullptr) {
    *update.replaced = {existing->value, existing->valueLength};
    return;
  }
  snapshot->value = existing->value;
  snapshot->valueLength = existing->valueLength;
  if (snapshot->value != nullptr) {
    snapshot->flags = static_cast<uint16_t>(snapshot->flags | HAS_VALUE);
  } else {
    snapshot->flags = static_cast<uint16_t>(snapshot->flags & ~HAS_VALUE);
  }
}

// Gives the entry the new buffer under the mutex of the queue that holds it: a walk over that queue
// pins either the old buffer or the new one, and never one that has just been freed. REQUIRES: the
// bucket set.
bool swapValue(JNIEnv* env, jobject caller, const Update& update,
               LuOffHeapRevisionOrderQueue* queue, ByteBufferHeader* value) {
  LuOffHeapValue* existing = update.existing;
  if (lockQueue(queue) != 0) return false;
  moveValueOut(env, update);
  const bool swapped =
      hashtable_update(env, caller, update.map->map, existing, value, false) != nullptr;
  if (swapped) {
    existing->valueLength = sizeofByteBufferHeader(value);
    existing->flags = static_cast<uint16_t>(existing->flags | HAS_VALUE);
  }
  unlockQueue(queue);
  return swapped;
}

// REQUIRES: the existing entry's node. Gives the snapshot a node of its own, and with it the copy
// on disk, so that its release frees that copy.
bool moveNodeToSnapshot(JNIEnv* env, const Update& update) {
  LuOffHeapValue* existing = update.existing;
  LuOffHeapValue* snapshot = update.snapshot;
  overflow_metadata* from = nodeOf(existing);
  overflow_metadata* to = nodeOf(snapshot);
  if (!initialize_overflow_metadata(env, to, update.map->map)) return false;
  snapshot->hashNext = existing;
  // No other thread knows the snapshot yet.
  clearFlag(is_invalid, to);
  setFlag(kSnapshot, to);
  if (isFlagSet(on_disk, from)) {
    to->chunkPtrOffset = from->chunkPtrOffset;
    to->chunkSize = from->chunkSize;
    to->nextChunkPtrOffset = from->nextChunkPtrOffset;
    from->chunkPtrOffset = 0;
    from->chunkSize = 0;
    from->nextChunkPtrOffset = 0;
    setFlag(on_disk, to);
    clearFlag(on_disk, from);
    NB_DEBUG_AS(env, kUpdate,
                "copied an evicted entry. copiedEntry->flags=%p copiedEntry->metadata->flags=%hx "
                "existingMetadata=%p existingMeta->flags=%hx",
                reinterpret_cast<void*>(uintptr_t{snapshot->flags}), to->flags,
                static_cast<void*>(from), from->flags);
  }
  return true;
}

// The same with disk overflow: the entry's node keeps walks away, and stays locked for Java.
bool swapValueUnderNode(JNIEnv* env, jobject caller, const Update& update,
                        ByteBufferHeader* value) {
  LuOffHeapValue* existing = update.existing;
  overflow_metadata* node = nodeOf(existing);
  if (!overflow_metadata_lock(env, "Update", node)) {
    NB_DEBUG_AS(env, kUpdate, "Failed to lock luValue=%p metadata=%p", static_cast<void*>(existing),
                static_cast<void*>(node));
    return false;
  }
  const bool hadValue = (existing->flags & HAS_VALUE) != 0;
  moveValueOut(env, update);
  if ((update.snapshot != nullptr && !moveNodeToSnapshot(env, update)) ||
      hashtable_update(env, caller, update.map->map, existing, value, false) == nullptr) {
    overflow_metadata_unlock(env, "rollbackup update", node);
    return false;
  }
  const uint64_t length = sizeofByteBufferHeader(value);
  // The table measures an entry on disk by its old length before and after the swap.
  if (!hadValue) {
    lockIncrement(&update.map->map->bytesUsed,
                  static_cast<int64_t>(length - existing->valueLength));
  }
  existing->valueLength = length;
  existing->flags = static_cast<uint16_t>(existing->flags | HAS_VALUE);
  setFlag(in_memory | recently_used, node);
  return true;
}

// Both forms of an update. With `replaced`, no snapshot is made where none is needed.
LuOffHeapValue* updateEntry(JNIEnv* env, jobject caller, LuOffHeapMap* map, const void* key,
                            uint8_t keyFormat, ByteBufferHeader* keyBuffer, int32_t hashCode,
                            bool isHashCodeGiven, ByteBufferHeader* value, uint16_t revisionOwner,
                            int64_t revisionNumber, WriteOutcome* outcome, const EntryHook* hook,
                            Replaced* replaced) {
  constexpr char kEnter[] =
      "luMap=%p key=%p hashCode=%d value=%p revisionOwner=%d revisionNumber=%lu withHashCode=%s";
  if (logInfo.entryExit) {
    entry(env, kUpdate, kEnter, static_cast<void*>(map), static_cast<void*>(keyBuffer), hashCode,
          static_cast<void*>(value), revisionOwner, static_cast<unsigned long>(revisionNumber),
          isHashCodeGiven ? "true" : "false");
  } else {
    NB_DEBUG_AS(env, kUpdate, kEnter, static_cast<void*>(map), static_cast<void*>(keyBuffer),
                hashCode, static_cast<void*>(value), revisionOwner,
                static_cast<unsigned long>(revisionNumber), isHashCodeGiven ? "true" : "false");
  }
  report(outcome, WriteOutcome::failed);
  const ProfiledRun run(unp, kPositions, "updateAndGetNewAndPin", kUpdateLabels);
  if (wrlock(env, map) != 0) {
    NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, kUpdateMapTag);
    return nullptr;
  }
  run.point(0);
  BucketSet* set = setOf(map, hashCode);
  if (lockBucketSet(set) != 0) {
    NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, kUpdateSetTag);
    unlock(env, map);
    return nullptr;
  }
  run.point(1);
  LuOffHeapRevisionOrderQueue* newQueue = getQueue(env, map, revisionOwner);
  if (newQueue == nullptr) {
    unlockBucketSet(set);
    unlock(env, map);
    return nullptr;
  }
  run.point(2);
  LuOffHeapValue search = searchRecord(keyBuffer, hashCode, isHashCodeGiven);
  auto* existing = static_cast<LuOffHeapValue*>(
      hashtable_getAndPin(env, caller, map->map, key, keyFormat, &search, false, JNI_UPDATED_PIN));
  if (existing == nullptr) {
    NB_DEBUG_AS(env, kUpdate,
                "no entry for the specified key. searchEntry->key=%p searchEntry->hashCode=%lu",
                static_cast<void*>(keyBuffer), static_cast<unsigned long>(hashCode));
    unlockBucketSet(set);
    unlock(env, map);
    report(outcome, WriteOutcome::none);
    return nullptr;
  }
  run.point(3);
  prefetchNeighbours(existing);
  LuOffHeapRevisionOrderQueue* oldQueue = existing->revisionOwner == revisionOwner
                                              ? newQueue
                                              : getQueue(env, map, existing->revisionOwner);
  run.point(4);
  // A copy on disk is given up through a snapshot. Whether there is one cannot change meanwhile:
  // that takes the bucket set.
  const bool onDisk = _isDiskOverflowEnabled && isFlagSet(on_disk, nodeOf(existing));
  LuOffHeapValue* snapshot = nullptr;
  if (replaced == nullptr || onDisk) {
    snapshot = allocateLuOffHeapMapValue(env, existing->key, existing->hashCode, true, nullptr,
                                         existing->revisionOwner, existing->revisionNumber);
    if (snapshot == nullptr) {
      unpinLuOffHeapMapValue(env, existing, JNI_ROLLBACK_PIN);
      unlockBucketSet(set);
      unlock(env, map);
      return nullptr;
    }
  }
  const Update update{map, set, existing, snapshot, replaced};
  if (!leaveOldQueue(env, update, oldQueue, revisionOwner) ||
      !enterNewQueue(env, update, newQueue, revisionNumber) || !releaseMap(env, update, newQueue)) {
    return nullptr;
  }
  run.point(5);
  if (!(_isDiskOverflowEnabled ? swapValueUnderNode(env, caller, update, value)
                               : swapValue(env, caller, update, newQueue, value))) {
    NB_DEBUG_AS(env, kUpdate, "hashtable update failed.");
    dropUpdate(env, update);
    return nullptr;
  }
  run.point(6);
  if (hook != nullptr) hook->run(hook->context, env, existing);
  unpinLuOffHeapMapValue(env, existing, JNI_UPDATED_PIN);
  unlockBucketSet(set);
  run.point(7);
  if (_isDiskOverflowEnabled) {
    NB_DEBUG_AS(env, kUpdate,
                "update completed. luValue=%p luValue->flags=%hx metadata=%p metadata->flags=%hx",
                static_cast<void*>(existing), existing->flags, static_cast<void*>(nodeOf(existing)),
                nodeOf(existing)->flags);
  }
  NB_EXIT_AS(env, kUpdate, "updated LuValue=%p for key=%p", static_cast<void*>(existing),
             static_cast<void*>(keyBuffer));
  if (_isDiskOverflowEnabled && snapshot == nullptr) {
    overflow_metadata_unlock(env, "Update", nodeOf(existing));
  }
  report(outcome, WriteOutcome::done);
  return snapshot;
}

}  // namespace

LuOffHeapValue* updateAndPin(JNIEnv* env, jobject caller, LuOffHeapMap* map, const void* key,
                             uint8_t keyFormat, ByteBufferHeader* keyBuffer, int32_t hashCode,
                             bool isHashCodeGiven, ByteBufferHeader* value, uint16_t revisionOwner,
                             int64_t revisionNumber, WriteOutcome* outcome, const EntryHook* hook) {
  return updateEntry(env, caller, map, key, keyFormat, keyBuffer, hashCode, isHashCodeGiven, value,
                     revisionOwner, revisionNumber, outcome, hook, nullptr);
}

WriteOutcome updateInPlace(JNIEnv* env, jobject caller, LuOffHeapMap* map, const void* key,
                           uint8_t keyFormat, ByteBufferHeader* keyBuffer, int32_t hashCode,
                           ByteBufferHeader* value, uint16_t revisionOwner, int64_t revisionNumber,
                           uint64_t* released, const EntryHook* hook) {
  WriteOutcome outcome;
  Replaced replaced = {};
  LuOffHeapValue* snapshot =
      updateEntry(env, caller, map, key, keyFormat, keyBuffer, hashCode, true, value, revisionOwner,
                  revisionNumber, &outcome, hook, &replaced);
  if (outcome != WriteOutcome::done) return outcome;
  if (snapshot != nullptr) {
    replaced.length = snapshot->valueLength;
    overflow_metadata_unlock(env, "Update", nodeOf(snapshot->hashNext));
    unpinLuOffHeapMapValue(env, snapshot, ALLOCATION_PIN);
  } else {
    unpinToFree(env, replaced.buffer, LUOFFHEAPMAPVALUE_VALUE_PIN);
  }
  if (released != nullptr) *released = replaced.length;
  return outcome;
}

// ---- Remove --------------------------------------------------------------------------------

LuOffHeapValue* removeAndPin(JNIEnv* env, jobject caller, LuOffHeapMap* map, const void* key,
                             uint8_t keyFormat, ByteBufferHeader* keyBuffer, int32_t hashCode,
                             bool isHashCodeGiven, WriteOutcome* outcome) {
  NB_DEBUG(env, "entry. LuMap=%p MapHeader=%p key=%p hashCode=%d", static_cast<void*>(map),
           static_cast<void*>(map->map), static_cast<void*>(keyBuffer), hashCode);
  report(outcome, WriteOutcome::failed);
  const ProfiledRun run(rnp, kPositions, "removeAndPin", kRemoveLabels);
  BucketSet* set = setOf(map, hashCode);
  NB_DEBUG(env, "lock BucketSet. LuMap=%p MapHeader=%p key=%p hashCode=%d bucketSet=%p",
           static_cast<void*>(map), static_cast<void*>(map->map), static_cast<void*>(keyBuffer),
           hashCode, static_cast<void*>(set));
  if (lockBucketSet(set) != 0) {
    NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, kRemoveSetTag);
    return nullptr;
  }
  run.point(0);
  LuOffHeapValue search = searchRecord(keyBuffer, hashCode, isHashCodeGiven);
  auto* removed = static_cast<LuOffHeapValue*>(
      hashtable_removeAndPin(env, caller, map->map, key, keyFormat, &search, false));
  if (removed == nullptr) {
    NB_DEBUG(env, "no map entry. map=%p, key=%p, hashCode=%d", static_cast<void*>(map),
             static_cast<void*>(keyBuffer), hashCode);
    unlockBucketSet(set);
    report(outcome, WriteOutcome::none);
    return nullptr;
  }
  for (int32_t point = 1; point <= 3; point++) run.point(point);
  NB_DEBUG(env, "remove from the revision queue. key=%p, hashCode=%d, removedEntry=%p",
           static_cast<void*>(keyBuffer), hashCode, static_cast<void*>(removed));
  unlockBucketSet(set);
  run.point(4);
  run.point(5);
  if (!removeFromRevisionQueue(env, map, removed)) {
    unpinLuOffHeapMapValue(env, removed, JNI_ROLLBACK_PIN);
    NB_ERROR_GENERIC(env, kLockErrorKey,
                     "error to get lock for the queue. Now, LuOffHeapMap becomes inconsistent. "
                     "key=%p, hashCode=%d, removedEntry=%p ",
                     static_cast<void*>(keyBuffer), hashCode, static_cast<void*>(removed));
    return nullptr;
  }
  run.point(6);
  if (_isDiskOverflowEnabled) overflow_metadata_splice_out(env, nodeOf(removed), false);
  run.point(7);
  report(outcome, WriteOutcome::done);
  return removed;
}

LuOffHeapValue* removeAndGetAndPinLuOffHeapMap(JNIEnv* env, jobject caller, LuOffHeapMap* map,
                                               jobject key, ByteBufferHeader* keyBuffer,
                                               int32_t hashCode, bool isHashCodeGiven) {
  return removeAndPin(env, caller, map, &key, OBJECT_TYPE_JBYTE_BUFFER, keyBuffer, hashCode,
                      isHashCodeGiven);
}

bool copyBAToBB(JNIEnv* env, ByteBufferHeader* target, jbyteArray source, int32_t length) {
  env->GetByteArrayRegion(source, 0, length, reinterpret_cast<jbyte*>(bufferData(target)));
  return !env->ExceptionCheck();
}

}  // namespace nimbra
