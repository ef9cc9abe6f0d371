// The lock-striped chained hashtable.
//
// A table is a MapHeader with its bucket sets behind it in one block. Each set has its own mutex,
// bucket array and entry count, and grows on its own. The table reaches entries only through the
// callbacks in the header, so one table serves DefaultEntry and the map's value records alike.
#pragma once

#include <jni.h>
#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "nb.h"
#include "nb_atomic.h"
#include "nb_hash.h"
#include "nb_lock.h"

namespace nimbra {

// ---- Key formats ---------------------------------------------------------------------------

// What the search key argument of a lookup is.
inline constexpr uint8_t OBJECT_TYPE_VALUEHEADER = 11;  // ByteBufferHeader
inline constexpr uint8_t OBJECT_TYPE_JBYTE = 12;
inline constexpr uint8_t OBJECT_TYPE_JBOOLEAN = 13;  // no comparison is defined
inline constexpr uint8_t OBJECT_TYPE_JCHAR = 14;     // no comparison is defined
inline constexpr uint8_t OBJECT_TYPE_JSHORT = 15;
inline constexpr uint8_t OBJECT_TYPE_JINT = 16;
inline constexpr uint8_t OBJECT_TYPE_JLONG = 17;
inline constexpr uint8_t OBJECT_TYPE_JFLOAT = 18;
inline constexpr uint8_t OBJECT_TYPE_JDOUBLE = 19;
inline constexpr uint8_t OBJECT_TYPE_JSTRING = 20;
inline constexpr uint8_t OBJECT_TYPE_JBYTE_ARRAY = 30;
inline constexpr uint8_t OBJECT_TYPE_JBYTE_BUFFER = 40;  // direct ByteBuffer, serialized key
inline constexpr uint8_t OBJECT_TYPE_OTHER = 100;

// How the bytes of a stored key were produced. Number codes equal those above on purpose.
inline constexpr uint8_t DESERIALIZED_TYPE_BINARY = 0;
inline constexpr uint8_t DESERIALIZED_TYPE_JBYTE = 12;
inline constexpr uint8_t DESERIALIZED_TYPE_JBOOLEAN = 13;
inline constexpr uint8_t DESERIALIZED_TYPE_JCHAR = 14;
inline constexpr uint8_t DESERIALIZED_TYPE_JSHORT = 15;
inline constexpr uint8_t DESERIALIZED_TYPE_JINT = 16;
inline constexpr uint8_t DESERIALIZED_TYPE_JLONG = 17;
inline constexpr uint8_t DESERIALIZED_TYPE_JFLOAT = 18;
inline constexpr uint8_t DESERIALIZED_TYPE_JDOUBLE = 19;
inline constexpr uint8_t DESERIALIZED_TYPE_JSTRING = 20;  // UTF-16 units, high byte first
inline constexpr uint8_t DESERIALIZED_TYPE_OTHER = 100;   // only Java can compare it

// Relative tolerance of float and double keys.
inline constexpr double EPSILON = 1e-14;

// Java's side of key comparison; filled at start-up, before any table is used.
extern Relaxed<jclass> luMapClassRef;
extern Relaxed<jmethodID> compareMethod;
extern Relaxed<jmethodID> deserializeMethod;
extern Relaxed<jmethodID> allocateDirectFromPhantomMethod;

// 0 means equal; callers use only zero or not. The stored key comes second.
int32_t keycmp(JNIEnv* env, const ByteBufferHeader* search, const ByteBufferHeader* stored);
int32_t keycmp(JNIEnv* env, jbyteArray search, const ByteBufferHeader* stored);
int32_t keycmp(JNIEnv* env, double search, const ByteBufferHeader* stored);
int32_t keycmp(JNIEnv* env, jstring search, const ByteBufferHeader* stored);
// h = 31 h + byte over signed bytes, from 0, wrapping at 32 bits.
int32_t hashFn(const ByteBufferHeader* key);

// Calls into Java; null or false, without a call, while the method ID is null.
jobject deserialize(JNIEnv* env, jobject map, jobject buffer);
jboolean compare(JNIEnv* env, jobject map, jobject key, jobject buffer);
jobject allocateDirectFromPhantom(JNIEnv* env, jobject map, void* address, uint64_t length);

// ---- Records -------------------------------------------------------------------------------

// A bucket is the head of a singly linked chain; null when empty. An entry is any record that
// begins with Pinnable and that the header's callbacks understand.
using Bucket = Pinnable*;

using GetNextFn = Pinnable* (*)(JNIEnv*, Pinnable* entry);
using GetBufferFn = ByteBufferHeader* (*)(JNIEnv*, Pinnable* entry);
using GetHashFn = uint32_t (*)(JNIEnv*, Pinnable* entry);
using UnpinEntryFn = uint32_t (*)(JNIEnv*, Pinnable* entry, uint32_t reason);
using SetNextFn = Pinnable* (*)(JNIEnv*, Pinnable* entry, Pinnable* next);  // result unused
using SizeofEntryFn = uint64_t (*)(JNIEnv*, Pinnable* entry);
using SetValueFn = Pinnable* (*)(JNIEnv*, Pinnable* entry, ByteBufferHeader* value);  // unused
using DeserializeFn = jobject (*)(JNIEnv*, jobject map, jobject buffer);
using CompareFn = jboolean (*)(JNIEnv*, jobject map, jobject key, jobject buffer);
using AllocatePhantomFn = jobject (*)(JNIEnv*, jobject map, void* address, uint64_t length);

// Guarded by `mutex`: every other field, and every chain of the set.
struct BucketSet {
  pthread_mutex_t mutex;
  Bucket* buckets;
  uint32_t size;         // entries in the set
  uint32_t bucketCount;  // a power of two
  uint32_t bucketMask;   // bucketCount - 1
  uint32_t threshold;    // entry count at which the set grows
};

// All fields but bytesUsed are immutable once the table is made.
struct MapHeader {
  int64_t bytesUsed;  // atomic: the sum of the entries' sizes
  GetNextFn getNext;
  SetNextFn setNext;
  GetBufferFn getKey;
  GetBufferFn getValue;
  SetValueFn setValue;
  SizeofEntryFn sizeofEntry;
  GetHashFn getHash;
  UnpinEntryFn unpinEntry;
  DeserializeFn deserialize;
  CompareFn compare;
  AllocatePhantomFn allocateDirectFromPhantom;
  float loadFactor;
  uint32_t initCapacity;
  uint32_t numBucketSets;   // a power of two
  uint32_t bucketSetMask;   // numBucketSets - 1
  uint32_t bucketSetShift;  // 32 - log2(numBucketSets)
  int32_t map_id;
  int32_t map_set_id;
};
// The bucket sets follow directly: set i lies at header + 128 + 64 i.
static_assert(sizeof(MapHeader) == 128);
#if defined(__x86_64__)
static_assert(sizeof(BucketSet) == 64);
#endif

struct DefaultEntry : Pinnable {
  DefaultEntry* next;  // guarded by the bucket set
  ByteBufferHeader* key;
  ByteBufferHeader* value;
  uint32_t hash;
};
static_assert(sizeof(DefaultEntry) == 40);

// The largest bucket count that a set may reach.
inline constexpr uint32_t MAX_BUCKET_SIZE = 0x80000000U;

// ---- Structure -----------------------------------------------------------------------------

// A table, or null. Null callbacks 1 to 8 take the defaults below; the last three are required. The
// flag is accepted and ignored.
MapHeader* initializeMap(JNIEnv* env, uint32_t initCapacity, uint32_t concurrency, float loadFactor,
                         bool flag, int32_t map_id, int32_t map_set_id, GetNextFn getNext,
                         GetBufferFn getKey, GetBufferFn getValue, GetHashFn getHash,
                         UnpinEntryFn unpinEntry, SetNextFn setNext, SizeofEntryFn sizeofEntry,
                         SetValueFn setValue, DeserializeFn deserialize, CompareFn compare,
                         AllocatePhantomFn allocateDirectFromPhantom);

MapHeader* allocateMapHeader(JNIEnv* env, int32_t count, int32_t numBucketSets);
Bucket* allocateBuckets(JNIEnv* env, int32_t count);  // not cleared
DefaultEntry* allocateMapEntry(JNIEnv* env);          // one ALLOCATION_PIN
void freeMapHeader(JNIEnv* env, MapHeader* header, int32_t count, int32_t numBucketSets);
void freeBuckets(JNIEnv* env, Bucket* buckets, int32_t count);
void freeDefaultEntry(JNIEnv* env, DefaultEntry* entry);
void freeBucketSets(JNIEnv* env, MapHeader* header);
void hashtable_destroy(JNIEnv* env, MapHeader* header);

// Usable bytes of the block; the counts are unused.
uint64_t sizeofMapHeader(const MapHeader* header, int32_t count, int32_t numBucketSets);
uint64_t sizeofBuckets(const Bucket* buckets, int32_t count);
// For a null entry, the size of the first entry ever measured (0 before).
uint64_t sizeofDefaultEntry(JNIEnv* env, Pinnable* entry);
uint64_t entrySize(const ByteBufferHeader* key, DefaultEntry* entry, const ByteBufferHeader* value);

// Default callbacks.
Pinnable* getNext(JNIEnv* env, Pinnable* entry);
ByteBufferHeader* getKey(JNIEnv* env, Pinnable* entry);
ByteBufferHeader* getValue(JNIEnv* env, Pinnable* entry);
uint32_t getHash(JNIEnv* env, Pinnable* entry);
Pinnable* setNext(JNIEnv* env, Pinnable* entry, Pinnable* next);
Pinnable* setValue(JNIEnv* env, Pinnable* entry, ByteBufferHeader* value);
uint32_t unpinEntry(JNIEnv* env, Pinnable* entry, uint32_t reason);

// The product, truncated toward zero and kept within 32 bits.
uint32_t thresholdOf(uint32_t bucketCount, float loadFactor);
BucketSet* getBucketSetByIndex(MapHeader* header, uint32_t index);
BucketSet* getBucketSet(MapHeader* header, uint32_t hash);
// REQUIRES: set->mutex held, as for every function that reads a bucket.
Bucket* getBucketInBucketSet(BucketSet* set, uint32_t hash);
// Asks for the cache line of the hash's bucket, without a lock: what is read may be out of date.
void prefetchBucket(MapHeader* header, uint32_t hash);
Pinnable* getFirstEntryByHashCode(MapHeader* header, uint32_t hash, BucketSet** set,
                                  Bucket** bucket);
// Results of the mutex call, 0 on success. What is taken to be changed is stamped meanwhile.
int lockBucketSet(BucketSet* set);
int trylockBucketSet(BucketSet* set);
int unlockBucketSet(BucketSet* set);
// For who changes neither the set nor what hangs in it; leaves the stamp alone.
int lockBucketSetToRead(BucketSet* set);
int unlockReadBucketSet(BucketSet* set);

// Entries in all sets, not a snapshot; -1 when a set cannot be locked.
int64_t hashtable_size(JNIEnv* env, MapHeader* header);
int64_t hashtable_bytesUsed(JNIEnv* env, MapHeader* header);
void offheap_map_sizes(JNIEnv* env);

// ---- Lookup --------------------------------------------------------------------------------
// `key` (vpKey) is the address of the caller's key in its own format; the search entry carries key
// buffer and hash. REQUIRES for all but the last two: the mutex of the set that the hash selects.

Pinnable* search_memcmp(JNIEnv* env, MapHeader* header, const void* key, uint8_t format,
                        uint32_t hash, BucketSet** set, Bucket** bucket);
Pinnable* search_deserializer(JNIEnv* env, jobject map, MapHeader* header, jobject searchBuffer,
                              ByteBufferHeader* searchKey, uint32_t hash, BucketSet** set,
                              Bucket** bucket);
Pinnable* getMapEntry_bucketPointers(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                                     uint8_t format, ByteBufferHeader* keyBuffer, int32_t hash,
                                     BucketSet** set, Bucket** bucket);
Pinnable* _getMapEntry(JNIEnv* env, jobject map, MapHeader* header, const void* key, uint8_t format,
                       ByteBufferHeader* keyBuffer, int32_t hash);
// The entry, pinned with `reason` for the caller, or null. `lock`: takes and releases the set.
Pinnable* hashtable_getAndPin(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                              uint8_t format, Pinnable* searchEntry, bool lock, uint32_t reason);
// 1 or 0; leaves every pin as it was.
int32_t hashtable_containsKey(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                              uint8_t format, Pinnable* searchEntry);

// ---- Writes --------------------------------------------------------------------------------
// `lock` true: the operation takes and releases the set; false: REQUIRES it held, leaves it held.

// The entry, pinned JNI_INSERTED_PIN, or null. *inserted is 1, or 0 when an equal key was present.
// `key` is the address of the Java key reference, or of the number.
Pinnable* hashtable_insertAndPin(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                                 int32_t keyType, Pinnable* entry, int32_t* inserted, bool lock);
// Gives an entry of the table another value; no pin for the caller.
Pinnable* hashtable_update(JNIEnv* env, jobject map, MapHeader* header, Pinnable* entry,
                           ByteBufferHeader* value, bool lock);
// The table's entry, pinned JNI_UPDATED_PIN, or null. With `previous` the old value's pin passes to
// the caller.
Pinnable* hashtable_updateAndPin(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                                 uint8_t format, Pinnable* updateEntry, ByteBufferHeader** previous,
                                 bool lock);
// The unlinked entry, pinned JNI_REMOVED_PIN, or null.
Pinnable* hashtable_removeAndPin(JNIEnv* env, jobject map, MapHeader* header, const void* key,
                                 uint8_t format, Pinnable* searchEntry, bool lock);
// Unlinks this very entry, whatever else has its key, and pins it JNI_REMOVED_PIN. REQUIRES: the
// entry's set, and the entry in it.
void hashtable_removeEntryAndPin(JNIEnv* env, MapHeader* header, Pinnable* entry);
// REQUIRES: the set's mutex. Doubles the set once when its size has reached the threshold.
void rehashMapEntriesIfNecessary(JNIEnv* env, MapHeader* header, BucketSet* set, int32_t hash);
// Empties the table, one set at a time.
void hashtable_clear(JNIEnv* env, MapHeader* header);

}  // namespace nimbra
