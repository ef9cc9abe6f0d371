// The entry map: value records reached through a table, in revision order per owner.
//
// A map joins one table with one revision queue per owner. Its entries are LuOffHeapValue records,
// held by pins from their chain, their queue and Java. Lock order: map lock, bucket set, queue.
#pragma once

#include <jni.h>
#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "nb.h"
#include "nb_hashtable.h"
#include "nof_locks.h"

namespace nimbra {

class ProfiledRun;

// ---- Records -------------------------------------------------------------------------------

// Common head of queued records. The links are guarded by the queue that holds the record.
struct LuQueueEntry : Pinnable {
  LuQueueEntry* prev;  // toward first
  LuQueueEntry* next;  // toward last
};
static_assert(sizeof(LuQueueEntry) == 24);

// Which record follows the head.
enum QueueKind : uint8_t {
  kRevisionQueue = 0,  // LuOffHeapValue, sorted by revisionNumber
  kEvictionQueue = 1,  // LuOffHeapEvictionData, sorted by metadata
};

struct LuOffHeapEvictionData : LuQueueEntry {
  ByteBufferHeader* key;  // one LUOFFHEAPEVICTIONDATA_KEY_PIN
  int64_t expiration;     // Java's unit; not initialised
  int64_t metadata;       // sort key
  int32_t timeout;        // Java's unit; not initialised
  bool keyHeaderCounted;  // the key's size was added to the internal-metadata figure
};
static_assert(sizeof(LuOffHeapEvictionData) == 56);

//   0      8      16     24    32      40         48               56             64
//   | pins | prev | next | key | value | hashNext | revisionNumber | evictionData | ttlEvictionData
//   72            80         84              86      88
//   | valueLength | hashCode | revisionOwner | flags | (overflow node, 144 bytes) |
struct LuOffHeapValue : LuQueueEntry {
  ByteBufferHeader* key;     // one LUOFFHEAPMAPVALUE_KEY_PIN; may be null; immutable
  ByteBufferHeader* value;   // one pin; changes under the bucket set and the entry's queue
  LuOffHeapValue* hashNext;  // chain link, guarded by the bucket set
  int64_t revisionNumber;    // guarded by the queue
  LuOffHeapEvictionData* evictionData;     // one LUOFFHEAPMAPVALUE_EVICTION_PIN; null when none
  LuOffHeapEvictionData* ttlEvictionData;  // likewise
  uint64_t valueLength;  // usable bytes of the value buffer, kept while it is on disk
  int32_t hashCode;      // immutable
  uint16_t revisionOwner;
  uint16_t flags;
};
struct LuOffHeapOverflowValue : LuOffHeapValue {
  overflow_metadata metadata;
};
static_assert(sizeof(LuOffHeapValue) == 88);
#if defined(__x86_64__)
static_assert(sizeof(LuOffHeapOverflowValue) == 232);
#endif

// Bits of LuOffHeapValue::flags.
inline constexpr uint16_t clientDirty = 1;
inline constexpr uint16_t hashCodeGiven = 2;
inline constexpr uint16_t HAS_VALUE = 4;

// Guarded by `mutex`, with the links of the queued records.
struct LuOffHeapQueue {
  pthread_mutex_t mutex;
  LuQueueEntry* first;  // lowest sort key
  LuQueueEntry* last;   // highest sort key
  uint32_t count;
  uint32_t maxCount;  // highest count ever reached
};
struct LuOffHeapRevisionOrderQueue : LuOffHeapQueue {
  LuOffHeapValue** bookmarks;  // resume points of revision queries; they hold no pin
  uint32_t numBookmarks;
};
struct LuOffHeapEvictionDataQueue : LuOffHeapQueue {};

// The map lock guards revisionQueue and numQueues. Slots are only ever added, and queues freed only
// with the map, so a queue pointer once read stays valid.
struct LuOffHeapMap {
  pthread_rwlock_t lock;
  MapHeader* map;
  LuOffHeapRevisionOrderQueue** revisionQueue;  // indexed by owner
  uint32_t numQueues;
};

// ---- Map object and locks ------------------------------------------------------------------

LuOffHeapMap* allocateLuOffHeapMap(JNIEnv* env, MapHeader* header);
// Frees record and queue list, neither the queues nor the table.
void freeLuOffHeapMap(JNIEnv* env, LuOffHeapMap* map);
// 0, or an error code: 1 for a null map, else the code of the lock call. With an environment a
// failure also raises an exception.
int rdlock(JNIEnv* env, LuOffHeapMap* map);
int wrlock(JNIEnv* env, LuOffHeapMap* map);
int unlock(JNIEnv* env, LuOffHeapMap* map);

LuOffHeapQueue* allocateQueue(JNIEnv* env, uint8_t kind);
// Entries still in the queue are not unpinned.
void freeQueue(JNIEnv* env, LuOffHeapQueue* queue, uint8_t kind);
int lockQueue(LuOffHeapQueue* queue);
int lockQueue(LuOffHeapRevisionOrderQueue* queue);
int lockQueue(LuOffHeapEvictionDataQueue* queue);
int unlockQueue(LuOffHeapQueue* queue);
int unlockQueue(LuOffHeapRevisionOrderQueue* queue);
int unlockQueue(LuOffHeapEvictionDataQueue* queue);
// The map lock (exclusive: for writing) and every revision queue in ascending order; all or none.
int lockMapAndQueues(LuOffHeapMap* map, bool exclusive);
int unlockMapAndQueues(LuOffHeapMap* map);

// ---- Value records -------------------------------------------------------------------------

Pinnable* getNext_LuValue(JNIEnv* env, Pinnable* entry);
Pinnable* setNext_LuValue(JNIEnv* env, Pinnable* entry, Pinnable* next);
ByteBufferHeader* getKey_LuValue(JNIEnv* env, Pinnable* entry);
ByteBufferHeader* getValue_LuValue(JNIEnv* env, Pinnable* entry);
Pinnable* setValue_LuValue(JNIEnv* env, Pinnable* entry, ByteBufferHeader* value);
uint32_t getHash_LuValue(JNIEnv* env, Pinnable* entry);
// Bytes accounted for the entry; the value counts while it is on disk, too.
uint64_t getSize_LuValue(JNIEnv* env, Pinnable* entry);
// Drops one pin; the last one releases key, eviction records and value and frees the record.
// Returns the pins left.
uint32_t unpinLuOffHeapMapValue(JNIEnv* env, Pinnable* entry, uint32_t reason);

// Usable bytes of record, key buffer and value buffer in memory; 0 for null.
uint64_t sizeofLuOffHeapMapValue(JNIEnv* env, const LuOffHeapValue* value);
// A record without a pin of its own or on its buffers; null when memory is refused.
LuOffHeapValue* newLuOffHeapValue(JNIEnv* env, ByteBufferHeader* key, int32_t hashCode,
                                  bool hashCodeGiven, ByteBufferHeader* value,
                                  uint16_t revisionOwner, int64_t revisionNumber);
// A record with one ALLOCATION_PIN that pins both buffers; null when memory is refused.
LuOffHeapValue* allocateLuOffHeapMapValue(JNIEnv* env, ByteBufferHeader* key, int32_t hashCode,
                                          bool hashCodeGiven, ByteBufferHeader* value,
                                          uint16_t revisionOwner, int64_t revisionNumber);
void freeLuOffHeapValue(JNIEnv* env, LuOffHeapMap* map, LuOffHeapValue* value);
// Drops one pin of a queued record of either kind; 4294967295 for another kind.
uint32_t unpinLuQueueEntry(JNIEnv* env, LuQueueEntry* entry, uint8_t kind, uint32_t reason);
// Writes the record sizes at debug level.
void luoffheap_map_sizes(JNIEnv* env);

overflow_metadata* allocateOverflowMetadata(JNIEnv* env, uint32_t count);
uint64_t sizeofOverflowMetadata(const overflow_metadata* block, uint32_t count);
void freeOverflowMetadata(JNIEnv* env, overflow_metadata* block, uint32_t count);

// ---- Eviction records ----------------------------------------------------------------------

// A record with one ALLOCATION_PIN that pins the key; null when memory is refused. `countKeyHeader`
// adds the key's size to the internal-metadata figure for as long as the record lives.
LuOffHeapEvictionData* allocateEvictionData(JNIEnv* env, ByteBufferHeader* key,
                                            bool countKeyHeader);
void freeEvictionData(JNIEnv* env, LuOffHeapEvictionData* record, uint64_t extraSize);
// Drops one pin; the last one releases key and record. Returns the pins left.
uint32_t unpinLuOffHeapEvictionData(JNIEnv* env, LuOffHeapEvictionData* record, uint32_t reason);
// Puts a record (or none) into one of the value's two slots, which hold one pin each. 0 when the
// slot already held it, else 1. Callers serialise changes to the slots of one value.
int32_t setEvictionDataToLuOffHeapValue(JNIEnv* env, LuOffHeapValue* value,
                                        LuOffHeapEvictionData* record, bool forTTL);

// ---- Eviction queues -----------------------------------------------------------------------
// Each takes the queue's mutex, but for the first. An LRU insert or move costs the same at any
// length; the ordered ones walk from the lowest sort key past every record that is not greater.

// Appends at the tail. REQUIRES: the queue. False when the record has a neighbour already; one that
// is alone in its queue passes that test.
bool appendIntoEvictionQueue2(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                              LuOffHeapEvictionData* record);
// The number of records behind the insert; -1 on failure, 0 for a null queue (LRU and TTL).
int32_t insertLRUEvictionQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                               LuOffHeapEvictionData* record);
int32_t insertLFUEvictionQueueAndPin(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                                     LuOffHeapEvictionData* record);
int32_t insertTTLEvictionQueueAndPin(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                                     LuOffHeapEvictionData* record, int64_t time);
// Moves a record: to the tail, up by one access, to another time. A failed LRU move leaves a
// NATIVE_TRANSIENT_GET_PIN on the record.
bool updateLRUEvictionQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                            LuOffHeapEvictionData* record);
bool updateLFUEvictionQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                            LuOffHeapEvictionData* record);
bool updateTTLEvictionQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                            LuOffHeapEvictionData* record, int64_t time);
bool clearEvictionQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue);
// The number of records left, also when the record was not in the queue (then with an exception);
// -1 when the queue could not be locked.
int32_t removeFromEvictionQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue,
                                LuOffHeapEvictionData* record);
// The lowest sort key; the greatest number for an empty queue, 0 for none.
int64_t getMinimumEvictionTime(JNIEnv* env, LuOffHeapEvictionDataQueue* queue);

// ---- Revision queues -----------------------------------------------------------------------
// REQUIRES for the queue operations: the queue's mutex.

bool appendToQueue(JNIEnv* env, LuOffHeapQueue* queue, LuQueueEntry* entry, uint8_t kind);
bool appendToQueue(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue, LuOffHeapValue* entry);
bool appendToQueue(JNIEnv* env, LuOffHeapEvictionDataQueue* queue, LuOffHeapEvictionData* entry);
bool removeFromQueue(JNIEnv* env, LuOffHeapQueue* queue, LuQueueEntry* entry, uint8_t kind);
bool removeFromQueue(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue, LuOffHeapValue* entry);
void add_bookmark(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue, LuOffHeapValue* value,
                  uint32_t index);
void replace_bookmark(JNIEnv* env, LuOffHeapRevisionOrderQueue* queue, LuOffHeapValue* value,
                      LuOffHeapValue* replacement);

// The owner's queue; grows the list. REQUIRES: the map lock for writing.
LuOffHeapRevisionOrderQueue* getQueue(JNIEnv* env, LuOffHeapMap* map, uint16_t owner);
// Moves an entry's place from `replaced` (may be null) to `value`. A revision of -1 keeps the
// value's own. The flag is accepted and ignored. REQUIRES: the map lock for writing.
bool updateRevisionQueue(JNIEnv* env, LuOffHeapMap* map, LuOffHeapValue* replaced,
                         LuOffHeapValue* value, int64_t revisionNumber, bool flag);
bool updateRevisionQueue(JNIEnv* env, LuOffHeapMap* map, LuOffHeapValue* replaced,
                         LuOffHeapValue* value);
// Takes the map lock for reading, then the queue.
bool removeFromRevisionQueue(JNIEnv* env, LuOffHeapMap* map, LuOffHeapValue* value);
bool clearQueues(JNIEnv* env, LuOffHeapMap* map);
// Takes the nodes of all queued values out of the overflow lists: the table that they point to is
// about to go. REQUIRES: disk overflow.
void spliceOutNodes(JNIEnv* env, LuOffHeapMap* map);

// ---- Revision queries and walks ------------------------------------------------------------

// Writes the entries of each owner whose revision lies above starts[owner] and at or below
// ends[owner]: their number, then nine words each (docs of the Java native). Value and buffers stay
// pinned for Java. Resumes at the bookmark when that is not beyond the start, so that the cost is
// in proportion to what changed; a negative index means none. `result` must have room for all.
// False, with word 0 at 0, when a lock fails on the way; pins already taken stay.
bool queryRevision(JNIEnv* env, LuOffHeapMap* map, int64_t* result, int32_t bookmark,
                   const int64_t* starts, const int64_t* ends, int32_t numOwners,
                   const ProfiledRun& run);
// The first value of all queues, or the one behind `value` (null: the first), pinned; null at the
// end. `lock` takes the map lock for reading and each queue in turn; without it the caller's pins
// and the absence of writers have to suffice.
LuOffHeapValue* getAndPinFirstInRevisionQueue(JNIEnv* env, LuOffHeapMap* map, uint32_t reason,
                                              bool lock);
LuOffHeapValue* getAndPinNextInRevisionQueue(JNIEnv* env, LuOffHeapMap* map,
                                             const LuOffHeapValue* value, uint32_t reason,
                                             bool lock);

// ---- Insert, update, remove ----------------------------------------------------------------

// Why an operation answered null. `none` means that the key stood in the way of an insert, or was
// missing for an update or a removal; `failed` that memory or a lock was refused.
enum class WriteOutcome { done, none, failed };

// Runs on the entry that has just been linked or given its value, in the same hold of its bucket
// set. It may take queues, and must not touch the table.
struct EntryHook {
  void (*run)(void* context, JNIEnv* env, LuOffHeapValue* entry);
  void* context;
};

// `caller` is the Java map object. `key` is the address of the caller's key (a Java reference or a
// number) in `keyFormat`; the key buffer may be null for update and remove.

// The new value, pinned JNI_INSERTED_PIN for Java, or null.
LuOffHeapValue* insertAndPin(JNIEnv* env, jobject caller, LuOffHeapMap* map, const void* key,
                             uint8_t keyFormat, ByteBufferHeader* keyBuffer, int32_t hashCode,
                             bool hashCodeGiven, ByteBufferHeader* value, uint16_t revisionOwner,
                             int64_t revisionNumber, WriteOutcome* outcome = nullptr,
                             const EntryHook* hook = nullptr);
// A snapshot of the entry's previous state, with its ALLOCATION_PIN for Java, or null. With disk
// overflow the snapshot's hashNext is the entry, whose node stays locked for the caller's thread.
LuOffHeapValue* updateAndPin(JNIEnv* env, jobject caller, LuOffHeapMap* map, const void* key,
                             uint8_t keyFormat, ByteBufferHeader* keyBuffer, int32_t hashCode,
                             bool hashCodeGiven, ByteBufferHeader* value, uint16_t revisionOwner,
                             int64_t revisionNumber, WriteOutcome* outcome = nullptr,
                             const EntryHook* hook = nullptr);
// The same for callers that do not want the previous state: no record is made for it, and nothing
// stays pinned or locked. With `released`, the usable bytes of the old value buffer are stored.
WriteOutcome updateInPlace(JNIEnv* env, jobject caller, LuOffHeapMap* map, const void* key,
                           uint8_t keyFormat, ByteBufferHeader* keyBuffer, int32_t hashCode,
                           ByteBufferHeader* value, uint16_t revisionOwner, int64_t revisionNumber,
                           uint64_t* released = nullptr, const EntryHook* hook = nullptr);
// The removed value, pinned JNI_REMOVED_PIN for Java, or null.
LuOffHeapValue* removeAndPin(JNIEnv* env, jobject caller, LuOffHeapMap* map, const void* key,
                             uint8_t keyFormat, ByteBufferHeader* keyBuffer, int32_t hashCode,
                             bool hashCodeGiven, WriteOutcome* outcome = nullptr);
LuOffHeapValue* removeAndGetAndPinLuOffHeapMap(JNIEnv* env, jobject caller, LuOffHeapMap* map,
                                               jobject key, ByteBufferHeader* keyBuffer,
                                               int32_t hashCode, bool hashCodeGiven);
// Copies the first `length` bytes of an array into the buffer's data area. False, with a Java
// exception pending, when the array is shorter.
bool copyBAToBB(JNIEnv* env, ByteBufferHeader* target, jbyteArray source, int32_t length);

}  // namespace nimbra
