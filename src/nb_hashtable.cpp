// Structure of the table: creation, sizing, index rules, default entries, release.
//
// State: the remembered size of a default entry. Each bucket set's mutex guards its own fields; no
// function here holds two of them.
#include "nb_hashtable.h"

#include <algorithm>

#include "nb_alloc.h"
#include "nb_logging.h"
#include "nb_stamp.h"

namespace nimbra {

namespace {

constexpr char kCreateTag[] = "BucketSet [om1]";
constexpr char kSizeTag[] = "BucketSet [om7]";

// The size of the first default entry ever measured; reported when there is no entry to measure.
Relaxed<uint64_t> defaultEntrySize;

uint32_t powerOfTwoAtLeast(uint32_t wanted) {
  uint32_t power = 1;
  while (power < wanted && power < MAX_BUCKET_SIZE) power *= 2;
  return power;
}

uint32_t log2Of(uint32_t power) { return static_cast<uint32_t>(__builtin_ctz(power)); }

// The smallest power of two whose product with the number of sets reaches the capacity. The product
// is taken in 32 bits; a capacity that no such product reaches ends at the largest bucket count.
uint32_t bucketsPerSet(uint32_t initCapacity, uint32_t numBucketSets) {
  uint32_t buckets = 1;
  while (buckets * numBucketSets < initCapacity) {
    const uint32_t doubled = buckets * 2;
    if (doubled * numBucketSets == 0) break;  // the product has wrapped: no larger one follows
    buckets = doubled;
  }
  return buckets;
}

// Gives every set its empty bucket array.
// Deliberate: on a refused allocation the arrays of earlier sets stay allocated. The contract with
// Java says so. Pinned by TableCreation.SurvivesEachRefusedAllocation.
bool fillBucketSets(JNIEnv* env, MapHeader* header, uint32_t bucketCount) {
  const uint32_t threshold = std::max(thresholdOf(bucketCount, header->loadFactor), 1U);
  for (uint32_t i = 0; i < header->numBucketSets; i++) {
    BucketSet* set = getBucketSetByIndex(header, i);
    set->bucketCount = bucketCount;
    set->bucketMask = bucketCount - 1;
    set->buckets = allocateBuckets(env, static_cast<int32_t>(bucketCount));
    if (set->buckets == nullptr) return false;
    for (uint32_t b = 0; b < bucketCount; b++) set->buckets[b] = nullptr;
    set->threshold = threshold;
    set->size = 0;
  }
  return true;
}

bool initMutexes(JNIEnv* env, MapHeader* header) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  // A table made while debug tracing is on reports a relock by the same thread instead of nesting.
  pthread_mutexattr_settype(&attributes,
                            logInfo.debug ? PTHREAD_MUTEX_ERRORCHECK : PTHREAD_MUTEX_RECURSIVE);
  uint32_t made = 0;
  while (made < header->numBucketSets) {
    BucketSet* set = getBucketSetByIndex(header, made);
    if (mutexInit(&set->mutex, &attributes, LockRank::bucketSet) != 0) break;
    NB_DEBUG_AS(env, "initializeMap", "bucketSet mutex initialized. bucketSet->mutex=%p",
                static_cast<void*>(&set->mutex));
    made++;
  }
  pthread_mutexattr_destroy(&attributes);
  if (made == header->numBucketSets) return true;
  NB_ERROR_GENERIC(env, kLockErrorKey, kInitLockText, kCreateTag);
  for (uint32_t i = made; i-- > 0;) pthread_mutex_destroy(&getBucketSetByIndex(header, i)->mutex);
  return false;
}

void freeAllBuckets(JNIEnv* env, MapHeader* header) {
  for (uint32_t i = header->numBucketSets; i-- > 0;) {
    BucketSet* set = getBucketSetByIndex(header, i);
    freeBuckets(env, set->buckets, static_cast<int32_t>(set->bucketCount));
  }
}

}  // namespace

uint32_t thresholdOf(uint32_t bucketCount, float loadFactor) {
  const float product = static_cast<float>(bucketCount) * loadFactor;
  if (!(product > 0)) return 0;  // also for a load factor that is no number
  return product < 4294967296.0F ? static_cast<uint32_t>(product) : UINT32_MAX;
}

BucketSet* getBucketSetByIndex(MapHeader* header, uint32_t index) {
  return reinterpret_cast<BucketSet*>(header + 1) + index;
}

BucketSet* getBucketSet(MapHeader* header, uint32_t hash) {
  // With one set the shift is 32: it is taken modulo 32, and the mask of 0 selects set 0.
  const uint32_t index = (hashFn32(hash) >> (header->bucketSetShift & 31)) & header->bucketSetMask;
  return getBucketSetByIndex(header, index);
}

Bucket* getBucketInBucketSet(BucketSet* set, uint32_t hash) {
  return &set->buckets[hashFn32(hash) & set->bucketMask];
}

void prefetchBucket(MapHeader* header, uint32_t hash) {
  BucketSet* set = getBucketSet(header, hash);
  prefetch(__atomic_load_n(&set->buckets, __ATOMIC_RELAXED) +
           (hashFn32(hash) & __atomic_load_n(&set->bucketMask, __ATOMIC_RELAXED)));
}

Pinnable* getFirstEntryByHashCode(MapHeader* header, uint32_t hash, BucketSet** set,
                                  Bucket** bucket) {
  *set = getBucketSet(header, hash);
  *bucket = getBucketInBucketSet(*set, hash);
  return **bucket;
}

SetStamp setStamps[kSetStamps];

int lockBucketSet(BucketSet* set) {
  const int code = lockBucketSetToRead(set);
  if (code == 0) beginChanges(set);
  return code;
}

int trylockBucketSet(BucketSet* set) {
  const int code = mutexTryLock(&set->mutex, LockRank::bucketSet);
  if (code == 0) beginChanges(set);
  return code;
}

int unlockBucketSet(BucketSet* set) {
  endChanges(set);
  const int code = unlockReadBucketSet(set);
  if (code != 0) beginChanges(set);  // still held, or never was
  return code;
}

int lockBucketSetToRead(BucketSet* set) { return mutexLock(&set->mutex, LockRank::bucketSet); }
int unlockReadBucketSet(BucketSet* set) { return mutexUnlock(&set->mutex, LockRank::bucketSet); }

MapHeader* initializeMap(JNIEnv* env, uint32_t initCapacity, uint32_t concurrency, float loadFactor,
                         bool /*flag*/, int32_t map_id, int32_t map_set_id,
                         GetNextFn getNextCallback, GetBufferFn getKeyCallback,
                         GetBufferFn getValueCallback, GetHashFn getHashCallback,
                         UnpinEntryFn unpinEntryCallback, SetNextFn setNextCallback,
                         SizeofEntryFn sizeofEntryCallback, SetValueFn setValueCallback,
                         DeserializeFn deserializeCallback, CompareFn compareCallback,
                         AllocatePhantomFn phantomCallback) {
  NB_EVENT(env, "new offheap map.initCapacity=%d, concurrency=%d", static_cast<int>(initCapacity),
           static_cast<int>(concurrency));
  const uint32_t numBucketSets = powerOfTwoAtLeast(concurrency);
  const uint32_t bucketCount = bucketsPerSet(initCapacity, numBucketSets);
  MapHeader* header = allocateMapHeader(env, 1, static_cast<int32_t>(numBucketSets));
  if (header == nullptr) return nullptr;
  header->initCapacity = initCapacity;
  header->bucketSetMask = numBucketSets - 1;
  header->bucketSetShift = 32 - log2Of(numBucketSets);
  header->bytesUsed = 0;
  header->loadFactor = loadFactor;
  header->getNext = getNextCallback != nullptr ? getNextCallback : getNext;
  header->getKey = getKeyCallback != nullptr ? getKeyCallback : getKey;
  header->getValue = getValueCallback != nullptr ? getValueCallback : getValue;
  header->getHash = getHashCallback != nullptr ? getHashCallback : getHash;
  header->unpinEntry = unpinEntryCallback != nullptr ? unpinEntryCallback : unpinEntry;
  header->setNext = setNextCallback != nullptr ? setNextCallback : setNext;
  header->sizeofEntry = sizeofEntryCallback != nullptr ? sizeofEntryCallback : sizeofDefaultEntry;
  header->setValue = setValueCallback != nullptr ? setValueCallback : setValue;
  header->deserialize = deserializeCallback;
  header->compare = compareCallback;
  header->allocateDirectFromPhantom = phantomCallback;
  if (phantomCallback == nullptr || compareCallback == nullptr || deserializeCallback == nullptr) {
    // Deliberate: the header stays allocated. The contract with Java says so.
    // Pinned by TableCreation.MissingCallbacksLeaveTheHeader.
    throw_exception(env, "initializeMap", "User failed to provide any key comparison routines.");
    return nullptr;
  }
  if (!fillBucketSets(env, header, bucketCount)) {
    freeMapHeader(env, header, 1, static_cast<int32_t>(numBucketSets));
    return nullptr;
  }
  if (!initMutexes(env, header)) {
    freeAllBuckets(env, header);
    freeMapHeader(env, header, 1, static_cast<int32_t>(numBucketSets));
    return nullptr;
  }
  header->map_id = map_id;
  header->map_set_id = map_set_id;
  NB_DEBUG(env, "an offheap map is successfully initialized. offheapMap=%p, numBucketSets=%d",
           static_cast<void*>(header), static_cast<int>(numBucketSets));
  NB_DEBUG(env, "NOF map_id=%d, map_set_id=%d", map_id, map_set_id);
  return header;
}

MapHeader* allocateMapHeader(JNIEnv* env, int32_t count, int32_t numBucketSets) {
  const uint64_t size = (static_cast<uint64_t>(static_cast<uint32_t>(numBucketSets)) + 2) *
                        sizeof(BucketSet) * static_cast<uint32_t>(count);
  auto* header = static_cast<MapHeader*>(malloc_nb(env, size, "MapHeader"));
  if (header == nullptr) return nullptr;
  header->numBucketSets = static_cast<uint32_t>(numBucketSets);
  addMetadata(sizeofMapHeader(header, count, numBucketSets));
  return header;
}

Bucket* allocateBuckets(JNIEnv* env, int32_t count) {
  const uint64_t size = static_cast<uint64_t>(static_cast<uint32_t>(count)) * sizeof(Bucket);
  auto* buckets = static_cast<Bucket*>(malloc_nb(env, size, "Bucket[]"));
  if (buckets != nullptr) addMetadata(sizeofBuckets(buckets, count));
  return buckets;
}

DefaultEntry* allocateMapEntry(JNIEnv* env) {
  NB_DEBUG(env, "start sub-allocation.");
  auto* entry = static_cast<DefaultEntry*>(malloc_nb(env, sizeof(DefaultEntry), "MapEntry"));
  if (entry == nullptr) return nullptr;
  entry->pins = 0;
  pin(env, static_cast<Pinnable*>(entry), ALLOCATION_PIN);
  NB_DEBUG(env, "sub-allocation complete. MapEntry=%p", static_cast<void*>(entry));
  return entry;
}

uint64_t sizeofMapHeader(const MapHeader* header, int32_t /*count*/, int32_t /*numBucketSets*/) {
  return alignSize(static_cast<const void*>(header));
}

uint64_t sizeofBuckets(const Bucket* buckets, int32_t /*count*/) {
  return alignSize(static_cast<const void*>(buckets));
}

uint64_t sizeofDefaultEntry(JNIEnv* /*env*/, Pinnable* entry) {
  if (entry == nullptr) return defaultEntrySize;
  const uint64_t size = alignSize(static_cast<const void*>(entry));
  if (defaultEntrySize == 0) defaultEntrySize = size;
  return size;
}

uint64_t entrySize(const ByteBufferHeader* key, DefaultEntry* entry,
                   const ByteBufferHeader* value) {
  return sizeofByteBufferHeader(key) + sizeofDefaultEntry(nullptr, entry) +
         sizeofByteBufferHeader(value);
}

Pinnable* getNext(JNIEnv* /*env*/, Pinnable* entry) {
  return static_cast<DefaultEntry*>(entry)->next;
}
ByteBufferHeader* getKey(JNIEnv* /*env*/, Pinnable* entry) {
  return static_cast<DefaultEntry*>(entry)->key;
}
ByteBufferHeader* getValue(JNIEnv* /*env*/, Pinnable* entry) {
  return static_cast<DefaultEntry*>(entry)->value;
}
uint32_t getHash(JNIEnv* /*env*/, Pinnable* entry) {
  return static_cast<DefaultEntry*>(entry)->hash;
}
Pinnable* setNext(JNIEnv* /*env*/, Pinnable* entry, Pinnable* next) {
  static_cast<DefaultEntry*>(entry)->next = static_cast<DefaultEntry*>(next);
  return entry;
}
Pinnable* setValue(JNIEnv* /*env*/, Pinnable* entry, ByteBufferHeader* value) {
  static_cast<DefaultEntry*>(entry)->value = value;
  return entry;
}

uint32_t unpinEntry(JNIEnv* env, Pinnable* entry, uint32_t reason) {
  NB_DEBUG(env, ">entry");
  const auto pins = static_cast<uint32_t>(unpin(env, entry, reason));
  NB_EVENT(env, "p=%p pins=%d reason=%s", static_cast<void*>(entry), static_cast<int>(pins),
           getReason(reason));
  if (pins == 0) {
    auto* record = static_cast<DefaultEntry*>(entry);
    NB_DEBUG(env, "unpin Entry key=%p", static_cast<void*>(record->key));
    unpinToFree(env, record->key, MAPENTRY_KEY_PIN);
    NB_DEBUG(env, "unpin MapEntry valueBB=%p", static_cast<void*>(record->value));
    // A count of zero means that the value was freed; the text says otherwise, and is kept.
    if (unpinToFree(env, record->value, MAPENTRY_VALUE_PIN) == 0) {
      NB_INFO(env, "Freed a MapEntry's value BB, but not sure if we freed all constituent parts.");
    }
    freeDefaultEntry(env, record);
  }
  NB_DEBUG(env, "<exit currentRefCount=%d", static_cast<int>(pins));
  return pins;
}

int64_t hashtable_size(JNIEnv* env, MapHeader* header) {
  NB_DEBUG(env, "start to get a map entry. map=%p", static_cast<void*>(header));
  uint32_t size = 0;
  for (uint32_t i = 0; i < header->numBucketSets; i++) {
    BucketSet* set = getBucketSetByIndex(header, i);
    if (lockBucketSet(set) != 0) {
      NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, kSizeTag);
      return -1;
    }
    size += set->size;
    unlockBucketSet(set);
  }
  NB_DEBUG(env, "size=%d", static_cast<int>(size));
  return static_cast<int32_t>(size);
}

int64_t hashtable_bytesUsed(JNIEnv* /*env*/, MapHeader* header) {
  return lockRead(&header->bytesUsed);
}

void offheap_map_sizes(JNIEnv* env) { NB_DEBUG(env, "MapHeader=%zu", sizeof(MapHeader)); }

void freeBuckets(JNIEnv* env, Bucket* buckets, int32_t count) {
  const uint64_t size = sizeofBuckets(buckets, count);
  subtractMetadata(size);
  free_nb(env, buckets, size);
}

void freeMapHeader(JNIEnv* env, MapHeader* header, int32_t count, int32_t numBucketSets) {
  const uint64_t size = sizeofMapHeader(header, count, numBucketSets);
  subtractMetadata(size);
  free_nb(env, header, size);
}

void freeDefaultEntry(JNIEnv* env, DefaultEntry* entry) {
  free_nb(env, entry, sizeof(DefaultEntry));
}

void freeBucketSets(JNIEnv* env, MapHeader* header) {
  for (uint32_t i = 0; i < header->numBucketSets; i++) {
    BucketSet* set = getBucketSetByIndex(header, i);
    beginChanges(set);  // also where the mutex cannot be had
    const int code = lockBucketSetToRead(set);
    freeBuckets(env, set->buckets, static_cast<int32_t>(set->bucketCount));
    if (code == 0) unlockReadBucketSet(set);
    endChanges(set);
  }
}

void hashtable_destroy(JNIEnv* env, MapHeader* header) {
  hashtable_clear(env, header);
  freeBucketSets(env, header);
  freeMapHeader(env, header, 1, static_cast<int32_t>(header->numBucketSets));
}

}  // namespace nimbra
