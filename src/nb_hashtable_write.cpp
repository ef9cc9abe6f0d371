// Changes of the chains: insert, update, remove, growth, clear.
//
// State: none. Each operation works inside one bucket set, with its mutex held. Entries are never
// freed here: they leave pinned for the caller, whose last unpin frees them.
#include <cstdio>
#include <iterator>

#include "nb_alloc.h"
#include "nb_hashtable.h"
#include "nb_jni.h"
#include "nb_logging.h"
#include "nb_prof.h"

namespace nimbra {

namespace {

constexpr char kUpdateTag[] = "BucketSet [om3]";
constexpr char kInsertTag[] = "BucketSet [om4]";
constexpr char kRemoveTag[] = "BucketSet [om5]";
constexpr char kClearTag[] = "BucketSet [om6]";

int32_t asInt(uint32_t value) { return static_cast<int32_t>(value); }

// Releases the set at the end of an operation that took it.
class SetUnlocker {
 public:
  SetUnlocker(BucketSet* set, bool locked) : set_(locked ? set : nullptr) {}
  ~SetUnlocker() { now(); }
  SetUnlocker(const SetUnlocker&) = delete;
  SetUnlocker& operator=(const SetUnlocker&) = delete;
  void now() {
    if (set_ != nullptr) unlockBucketSet(set_);
    set_ = nullptr;
  }

 private:
  BucketSet* set_;
};

// Takes the set for an update; a failure is logged and raised.
bool lockForUpdate(JNIEnv* env, BucketSet* set, const char* function) {
  if (lockBucketSet(set) == 0) return true;
  NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, kUpdateTag);
  char message[128];
  std::snprintf(message, sizeof message, kAcquireLockText, "BucketSet");
  throw_exception(env, function, message);
  return false;
}

// Swaps the entry's value and its pin, and accounts for the difference in size.
// REQUIRES: the entry's bucket set.
void replaceValue(JNIEnv* env, MapHeader* header, Pinnable* entry, ByteBufferHeader* value) {
  lockDecrement(&header->bytesUsed, static_cast<int64_t>(header->sizeofEntry(env, entry)));
  header->setValue(env, entry, value);
  pin(env, value, MAPENTRY_VALUE_PIN);
  lockIncrement(&header->bytesUsed, static_cast<int64_t>(header->sizeofEntry(env, entry)));
}

enum class Duplicate { none, found, undecided };

// Looks for an equal key of a new entry. Undecided: the search could not be made.
Duplicate findDuplicate(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                        int32_t keyType, ByteBufferHeader* keyBuffer, uint32_t hash) {
  Pinnable* found = nullptr;
  switch (keyType) {
    case OBJECT_TYPE_JBYTE_BUFFER:
    case OBJECT_TYPE_JSTRING:
    case OBJECT_TYPE_JBYTE:
    case OBJECT_TYPE_JSHORT:
    case OBJECT_TYPE_JINT:
    case OBJECT_TYPE_JLONG:
    case OBJECT_TYPE_JFLOAT:
    case OBJECT_TYPE_JDOUBLE:
      found = _getMapEntry(env, map, header, key, static_cast<uint8_t>(keyType), keyBuffer,
                           asInt(hash));
      break;
    case OBJECT_TYPE_JBYTE_ARRAY:
      if (keyBuffer->deserializedType == DESERIALIZED_TYPE_OTHER) {
        const jsize length = env->GetArrayLength(*static_cast<const jbyteArray*>(key));
        const LocalRef<jobject> buffer(env, newByteBuffer(env, keyBuffer, length));
        if (!buffer) return Duplicate::undecided;
        jobject reference = buffer.get();
        found = _getMapEntry(env, map, header, &reference, OBJECT_TYPE_JBYTE_BUFFER, keyBuffer,
                             asInt(hash));
      } else {
        BucketSet* set = nullptr;
        Bucket* bucket = nullptr;
        found = search_memcmp(env, header, keyBuffer, OBJECT_TYPE_VALUEHEADER, hash, &set, &bucket);
      }
      break;
    default:
      // No search is defined for such a key: it counts as new.
      NB_DEBUG_AS(env, "hashtable_insertAndPin", "unknown keyType passed into method");
      break;
  }
  return found != nullptr ? Duplicate::found : Duplicate::none;
}

// REQUIRES: the set. Makes the entry the first of its bucket.
Bucket* linkFirst(JNIEnv* env, MapHeader* header, BucketSet* set, Pinnable* entry, uint32_t hash) {
  set->size++;
  Bucket* bucket = getBucketInBucketSet(set, hash);
  Pinnable* displaced = *bucket;
  *bucket = entry;
  pin(env, entry, BUCKET_FIRST_PIN);
  header->setNext(env, entry, displaced);
  // Deliberate: the displaced entry's chain pin is relabelled under debug tracing only; the count
  // does not change. The contract with Java says so. Pinned by TableInsert.RelabelsOnlyUnderDebug.
  if (logInfo.debug && displaced != nullptr) {
    pin(env, displaced, BUCKET_NEXT_PIN);
    header->unpinEntry(env, displaced, BUCKET_FIRST_PIN);
  }
  return bucket;
}

// REQUIRES: the set. Takes the entry out of its chain and drops its chain pin; its own next stays.
void unlinkEntry(JNIEnv* env, MapHeader* header, Bucket* bucket, Pinnable* entry) {
  Pinnable* next = header->getNext(env, entry);
  if (*bucket == entry) {
    *bucket = next;
    header->unpinEntry(env, entry, BUCKET_FIRST_PIN);
    if (logInfo.debug && next != nullptr) {  // the mirror of the relabelling on insert
      pin(env, next, BUCKET_FIRST_PIN);
      header->unpinEntry(env, next, BUCKET_NEXT_PIN);
    }
    return;
  }
  Pinnable* predecessor = *bucket;
  while (header->getNext(env, predecessor) != entry) {
    predecessor = header->getNext(env, predecessor);
  }
  header->setNext(env, predecessor, next);
  header->unpinEntry(env, entry, BUCKET_NEXT_PIN);
}

// REQUIRES: the set. Takes the entry out of chain, count and figure, pinned JNI_REMOVED_PIN.
void takeOut(JNIEnv* env, MapHeader* header, BucketSet* set, Bucket* bucket, Pinnable* entry) {
  pin(env, entry, JNI_REMOVED_PIN);
  set->size--;
  unlinkEntry(env, header, bucket, entry);
  lockDecrement(&header->bytesUsed, static_cast<int64_t>(header->sizeofEntry(env, entry)));
}

}  // namespace

Pinnable* hashtable_insertAndPin(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                                 int32_t keyType, Pinnable* entry, int32_t* inserted, bool lock) {
  const uint32_t hash = header->getHash(env, entry);
  ByteBufferHeader* keyBuffer = header->getKey(env, entry);
  BucketSet* set = getBucketSet(header, hash);
  NB_DEBUG(env, "hashed %d to BucketSet=%p. map=%p, keyObj=%p", asInt(hash),
           static_cast<void*>(set), static_cast<void*>(header), key);
  if (lock && lockBucketSet(set) != 0) {
    NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, kInsertTag);
    return nullptr;
  }
  NB_REQUIRES_HELD(&set->mutex);
  SetUnlocker unlocker(set, lock);
  NB_DEBUG(env,
           "start search. map=%p keyObj=%p entry=%p entry->key=%p entry->value=%p entry->hash=%p",
           static_cast<void*>(header), key, static_cast<void*>(entry),
           static_cast<void*>(keyBuffer), static_cast<void*>(header->getValue(env, entry)),
           reinterpret_cast<void*>(static_cast<uintptr_t>(hash)));
  const Duplicate duplicate = findDuplicate(env, map, header, key, keyType, keyBuffer, hash);
  if (duplicate != Duplicate::none) {
    if (duplicate == Duplicate::found) {
      NB_DEBUG(env, "entry already exist in this bucket. map=%p, key=%p, hashCode=%d",
               static_cast<void*>(header), static_cast<void*>(keyBuffer), asInt(hash));
    }
    *inserted = 0;
    return nullptr;
  }
  Bucket* bucket = linkFirst(env, header, set, entry, hash);
  rehashMapEntriesIfNecessary(env, header, set, asInt(hash));
  const uint64_t bytes = header->sizeofEntry(env, entry);
  lockIncrement(&header->bytesUsed, static_cast<int64_t>(bytes));
  NB_DEBUG(env, "incremented bucketSize entrySize(entry)=%ld", static_cast<long>(bytes));
  const uint32_t size = set->size;
  unlocker.now();
  NB_DEBUG(env, "inserted. map=%p, key=%p, hashCode=%d, bucket=%p, bucketSet size=%d, entry=%p",
           static_cast<void*>(header), static_cast<void*>(keyBuffer), asInt(hash),
           static_cast<void*>(bucket), asInt(size), static_cast<void*>(entry));
  *inserted = 1;
  pin(env, entry, JNI_INSERTED_PIN);  // the chain pin kept it alive since the unlock
  return entry;
}

Pinnable* hashtable_update(JNIEnv* env, jobject /*map*/, MapHeader* header, Pinnable* entry,
                           ByteBufferHeader* value, bool lock) {
  if (entry == nullptr) {
    if (logInfo.debug) exit(env, __func__, "requested update for NULL entry");
    return nullptr;
  }
  BucketSet* set = getBucketSet(header, header->getHash(env, entry));
  if (lock && !lockForUpdate(env, set, __func__)) return nullptr;
  NB_REQUIRES_HELD(&set->mutex);
  const SetUnlocker unlocker(set, lock);
  ByteBufferHeader* old = header->getValue(env, entry);
  if (logInfo.debug) {
    nimbra::entry(env, __func__, "map=%p updateEntry=%p oldValue=%p", static_cast<void*>(header),
                  static_cast<void*>(entry), static_cast<void*>(old));
  }
  // Deliberate: the old value is not freed here, even when this was its last pin. The contract with
  // Java says so. Pinned by TableUpdate.OldValueIsNotFreed.
  if (old != nullptr) unpin(env, old, MAPENTRY_VALUE_PIN);
  replaceValue(env, header, entry, value);
  if (logInfo.debug) {
    exit(env, __func__, "map=%p updatedEntry=%p newValue=%p", static_cast<void*>(header),
         static_cast<void*>(entry), static_cast<void*>(value));
  }
  return entry;
}

Pinnable* hashtable_updateAndPin(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                                 uint8_t format, Pinnable* updateEntry, ByteBufferHeader** previous,
                                 bool lock) {
  BucketSet* set = getBucketSet(header, header->getHash(env, updateEntry));
  if (lock && !lockForUpdate(env, set, __func__)) return nullptr;
  NB_REQUIRES_HELD(&set->mutex);
  const SetUnlocker unlocker(set, lock);
  ByteBufferHeader* value = header->getValue(env, updateEntry);
  NB_DEBUG(env, "start update map=%p, vpKey=%p, updatedValue=%p searchEntry=%p",
           static_cast<void*>(header), key, static_cast<void*>(value),
           static_cast<void*>(updateEntry));
  Pinnable* found =
      hashtable_getAndPin(env, map, header, key, format, updateEntry, false, JNI_UPDATED_PIN);
  if (found == nullptr) {
    NB_DEBUG(env, "no entry for the specified key. entry=%p, new_value=%p",
             static_cast<void*>(updateEntry), static_cast<void*>(value));
    return nullptr;
  }
  ByteBufferHeader* old = header->getValue(env, found);
  if (previous != nullptr) {
    *previous = old;
  } else if (old != nullptr) {
    unpin(env, old, MAPENTRY_VALUE_PIN);
  }
  replaceValue(env, header, found, value);
  NB_DEBUG(env, "updated entry=%p, prev_value=%p, new_value=%p", static_cast<void*>(found),
           static_cast<void*>(old), static_cast<void*>(value));
  return found;
}

Pinnable* hashtable_removeAndPin(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                                 uint8_t format, Pinnable* searchEntry, bool lock) {
  const uint32_t hash = header->getHash(env, searchEntry);
  ByteBufferHeader* keyBuffer = header->getKey(env, searchEntry);
  NB_DEBUG(env, "start search. map=%p, vpKey=%p entry=%p entry->key=%p entry->hash=%u",
           static_cast<void*>(header), key, static_cast<void*>(searchEntry),
           static_cast<void*>(keyBuffer), hash);
  BucketSet* set = getBucketSet(header, hash);
  NB_DEBUG(env, "specified the BucketSet. map=%p, key=%p, hashCode=%d, bucket=%p",
           static_cast<void*>(header), static_cast<void*>(keyBuffer), asInt(hash),
           static_cast<void*>(set));
  if (lock && lockBucketSet(set) != 0) {
    NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, kRemoveTag);
    return nullptr;
  }
  NB_REQUIRES_HELD(&set->mutex);
  SetUnlocker unlocker(set, lock);
  Bucket* bucket = nullptr;
  Pinnable* found = getMapEntry_bucketPointers(env, map, header, key, format, keyBuffer,
                                               asInt(hash), &set, &bucket);
  if (found == nullptr) {
    NB_DEBUG(env, "no entry in this bucket. map=%p, key=%p, hashCode=%d",
             static_cast<void*>(header), static_cast<void*>(keyBuffer), asInt(hash));
    return nullptr;
  }
  takeOut(env, header, set, bucket, found);
  const uint32_t size = set->size;
  unlocker.now();
  NB_DEBUG(env,
           "removed an entry. map=%p, key=%p, hashCode=%d, bucket=%p, bucketSet size=%d, entry=%p",
           static_cast<void*>(header), static_cast<void*>(keyBuffer), asInt(hash),
           static_cast<void*>(bucket), asInt(size), static_cast<void*>(found));
  return found;
}

void hashtable_removeEntryAndPin(JNIEnv* env, MapHeader* header, Pinnable* entry) {
  const uint32_t hash = header->getHash(env, entry);
  BucketSet* set = getBucketSet(header, hash);
  NB_REQUIRES_HELD(&set->mutex);
  takeOut(env, header, set, getBucketInBucketSet(set, hash), entry);
}

namespace {

constexpr uint32_t kRehashAhead = 8;  // buckets whose first entries are on their way into the cache

// An entry's hash and link stand within two lines, wherever its record type has them. There may be
// no entry, and the second line may lie behind a short one: nothing is read, so both do no harm.
void prefetchEntry(const Pinnable* entry) {
  prefetch(entry);
  prefetch(reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(entry) + 64));
}

}  // namespace

void rehashMapEntriesIfNecessary(JNIEnv* env, MapHeader* header, BucketSet* set, int32_t /*hash*/) {
  NB_REQUIRES_HELD(&set->mutex);
  if (set->size < set->threshold) return;
  NB_DEBUG(env, "start rehash. bucketSet=%p, threshold=%d", static_cast<void*>(set),
           asInt(set->threshold));
  const uint32_t oldCount = set->bucketCount;
  const uint32_t oldThreshold = set->threshold;
  const uint32_t newCount = 2 * oldCount;  // wraps to 0 behind the largest count
  const uint32_t newMask = newCount - 1;
  if (newCount == 0 || newCount > MAX_BUCKET_SIZE) return;
  // The bucket bits of the mixed hash may not reach the bits that select the set.
  if (((header->bucketSetMask << (header->bucketSetShift & 31)) & newMask) != 0) return;
  Bucket* newBuckets = allocateBuckets(env, asInt(newCount));
  if (newBuckets == nullptr) {
    // The table stays correct, only slower, and the insert succeeds without an exception.
    if (env->ExceptionCheck()) env->ExceptionClear();
    return;
  }
  for (uint32_t i = 0; i < newCount; i++) newBuckets[i] = nullptr;
  Bucket* oldBuckets = set->buckets;
  __atomic_store_n(&set->buckets, newBuckets, __ATOMIC_RELAXED);  // prefetchBucket may read it
  set->bucketCount = newCount;
  __atomic_store_n(&set->bucketMask, newMask, __ATOMIC_RELAXED);
  for (uint32_t i = 0; i < oldCount; i++) {
    if (i + kRehashAhead < oldCount) prefetchEntry(oldBuckets[i + kRehashAhead]);
    for (Pinnable* entry = oldBuckets[i]; entry != nullptr;) {
      Pinnable* next = header->getNext(env, entry);
      Bucket* bucket = getBucketInBucketSet(set, header->getHash(env, entry));
      header->setNext(env, entry, *bucket);
      *bucket = entry;
      entry = next;
    }
  }
  freeBuckets(env, oldBuckets, asInt(oldCount));
  set->threshold = thresholdOf(newCount, header->loadFactor);
  NB_DEBUG(env, "finish rehash. bucketSet=%p, bucketCount=%d, oldThreshold=%d, newThreshold=%d",
           static_cast<void*>(set), asInt(newCount), asInt(oldThreshold), asInt(set->threshold));
}

namespace {

ProfileSlot clearProfile;
constexpr int32_t kClearPositions = 500;
constexpr char kClearProfile[] = "clearEntry";
constexpr const char* kClearLabels[] = {"computeSizeClearIndex", "nofComplete", "unpinMapEntry"};

// REQUIRES: the set. Returns the bytes that its entries were accounted with.
uint64_t clearSet(JNIEnv* env, MapHeader* header, BucketSet* set) {
  uint64_t bytes = 0;
  for (uint32_t i = 0; i < set->bucketCount; i++) {
    Bucket* bucket = &set->buckets[i];
    while (*bucket != nullptr) {
      const ProfiledRun run(clearProfile, kClearPositions, kClearProfile, kClearLabels);
      Pinnable* entry = *bucket;
      bytes += header->sizeofEntry(env, entry);
      run.point(0);
      run.point(1);
      Pinnable* next = header->getNext(env, entry);
      header->unpinEntry(env, entry, BUCKET_FIRST_PIN);
      *bucket = next;
      run.point(2);
    }
  }
  set->size = 0;
  return bytes;
}

}  // namespace

void hashtable_clear(JNIEnv* env, MapHeader* header) {
  if (logInfo.entryExit) {
    entry(env, __func__, "clearAllEntries starting to clear all entries for map=%p",
          static_cast<void*>(header));
  } else {
    NB_EVENT(env, "clearAllEntries starting to clear all entries for map=%p",
             static_cast<void*>(header));
  }
  // The profile is there also when there is nothing to time.
  if (logInfo.profiling) {
    profileIn(clearProfile, kClearPositions, kClearProfile, kClearLabels, std::size(kClearLabels));
  }
  uint64_t bytes = 0;
  for (uint32_t i = 0; i < header->numBucketSets; i++) {
    BucketSet* set = getBucketSetByIndex(header, i);
    if (lockBucketSet(set) != 0) {
      NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, kClearTag);
      throw_exception(env, __func__, "Clear all entries failed to lock an internal BucketSet.");
      continue;
    }
    bytes += clearSet(env, header, set);
    NB_DEBUG(env, "bucket is cleared. map=%p, bucket=%p", static_cast<void*>(header),
             static_cast<void*>(set));
    unlockBucketSet(set);
  }
  lockDecrement(&header->bytesUsed, static_cast<int64_t>(bytes));
  if (logInfo.entryExit) {
    exit(env, __func__, "clearAllEntries finished clearing all entries for map=%p",
         static_cast<void*>(header));
  } else {
    NB_EVENT(env, "clearAllEntries finished clearing all entries for map=%p",
             static_cast<void*>(header));
  }
}

}  // namespace nimbra
