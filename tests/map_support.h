// What the tests of the entry map share: a fixture with one map, buffers and entries in one
// line each, a check of every invariant of a quiet map, expected trace sequences, and guards that
// make an arbitrary lock operation fail.

#pragma once

#include <gtest/gtest.h>
#include <jni.h>

#include <cstdarg>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "nb.h"
#include "nb_alloc.h"
#include "nb_hashtable.h"
#include "nb_lock.h"
#include "nb_logging.h"
#include "nb_map.h"
#include "scripted_jni.h"
#include "test_support.h"

namespace nimbra::test {

inline constexpr jint kAllLevels = kDebugLevel | kEventLevel | kEntryLevel | kDetailLevel |
                                   kInfoLevel | kWarningLevel | kErrorLevel | kFatalLevel;

// ---- Failing locks -----------------------------------------------------------------------

// Makes the nth lock operation of any rank and kind fail; the first is 1. A failed unlock leaves
// its lock held: `release` gives it back. Lock-order violations that follow from such a lock are
// ignored, all others are failures.
class FailNthLock {
 public:
  explicit FailNthLock(int nth, int code = EINVAL);
  ~FailNthLock();
  FailNthLock(const FailNthLock&) = delete;
  FailNthLock& operator=(const FailNthLock&) = delete;

  bool fired() const { return fired_; }
  LockRank rank() const { return rank_; }
  LockOp operation() const { return operation_; }
  // "map writeLock", "queue unlock", ...
  std::string site() const;
  // Lets the lock of a failed unlock go.
  void release();

 private:
  static int hook(LockRank rank, const void* lock, LockOp operation);
  static void violation(const LockViolation& found);
  static inline FailNthLock* active_ = nullptr;

  const int nth_;
  const int code_;
  int seen_ = 0;
  bool fired_ = false;
  LockRank rank_ = LockRank::map;
  LockOp operation_ = LockOp::init;
  void* lock_ = nullptr;
  void (*const handler_)(const LockViolation&);
};

// Runs an operation that meets a failing lock; the thread sanitizer knows the name.
template <typename Operation>
__attribute__((noinline)) auto underFailingLock(Operation&& operation) {
  auto answer = operation();
  // Keeps the frame: a tail call would hide the name.
  asm volatile("" ::: "memory");
  return answer;
}

// Makes every `operation` on one lock fail until the guard goes.
class FailThisLock {
 public:
  FailThisLock(const void* lock, LockOp operation, int code = EINVAL);
  ~FailThisLock();
  FailThisLock(const FailThisLock&) = delete;
  FailThisLock& operator=(const FailThisLock&) = delete;

  int fired() const { return fired_; }

 private:
  static int hook(LockRank rank, const void* lock, LockOp operation);
  static inline FailThisLock* active_ = nullptr;

  const void* const lock_;
  const LockOp operation_;
  const int code_;
  int fired_ = 0;
};

// Locks that nobody may find busy: takes and releases each, without waiting.
bool isFree(pthread_mutex_t* mutex);
bool isFree(pthread_rwlock_t* lock);

// ---- Traces ------------------------------------------------------------------------------

// An expected sequence of trace records, written in the order in which the operation has to send
// them. Block addresses and pin counts are exact. What belongs to the layers below is reduced to
// its gist: an allocation or a release is one line, backtraces are left out, and the table's own
// records do not show the addresses of the caller's variables.
class Script {
 public:
  void debug(const char* function, const char* format, ...) __attribute__((format(printf, 3, 4)));
  void event(const char* function, const char* format, ...) __attribute__((format(printf, 3, 4)));
  void entry(const char* function, const char* format, ...) __attribute__((format(printf, 3, 4)));
  void exit(const char* function, const char* format, ...) __attribute__((format(printf, 3, 4)));
  void warning(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void errorGeneric(const char* key, const char* format, ...) __attribute__((format(printf, 3, 4)));

  void allocates(const char* label);
  void frees(const void* block);
  void pins(const void* object, uint32_t reason, int64_t after);
  void unpins(const void* object, uint32_t reason, int64_t after);
  // unpinToFree of a buffer; a count of 0 frees it.
  void releasesBuffer(const void* buffer, uint32_t reason, int64_t after);
  // unpinLuOffHeapMapValue that leaves `after` pins, which are more than none.
  void releasesValue(const void* value, uint32_t reason, int64_t after);

  // The table's search for a key buffer in an empty bucket.
  void findsEmptyBucket(const void* key, int32_t hash);
  // The table's search for a key buffer among the chain of these hashes; the last compares equal
  // when `found` is not null.
  struct Chained {
    const void* entry;
    int32_t hash;
    int64_t keySize;
  };
  void walksChain(const void* set, const void* key, int32_t hash, int64_t keySize,
                  const std::vector<Chained>& chain, const void* found);

  const std::vector<std::string>& lines() const { return lines_; }
  // Compares with what reached the logger.
  void expectIn(const ScriptedJni& jni) const;

 private:
  void add(const char* level, const char* function, const char* format, va_list arguments);
  std::vector<std::string> lines_;
};

// The recorded trace in the same form.
std::vector<std::string> traceOf(const ScriptedJni& jni);

// ---- Fixture -----------------------------------------------------------------------------

// What a map holds, as Java could see it.
struct Row {
  std::string value;
  uint16_t owner;
  int64_t revision;

  bool operator==(const Row&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Row& row);
using Rows = std::map<std::string, Row>;

// The library's counters at one moment.
struct Books {
  int64_t blocks;
  int64_t metadata;

  static Books now();
  bool operator==(const Books&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Books& books);

std::string bytesOf(const ByteBufferHeader* buffer);
// The revisions of a queue from first to last.
std::vector<int64_t> revisionsOf(const LuOffHeapQueue* queue);
std::vector<LuOffHeapValue*> valuesOf(const LuOffHeapQueue* queue);
std::vector<LuOffHeapValue*> entriesOf(LuOffHeapMap* map);
LuOffHeapValue* find(LuOffHeapMap* map, std::string_view key);
Rows contentsOf(LuOffHeapMap* map);
// Links, order, counts and owner of one queue.
void checkQueue(const LuOffHeapQueue* queue, int owner);
// Every invariant of a map that no operation is inside of: each entry in exactly one chain and its
// owner's queue, three pins plus `extra` ones of its own, byte and entry figures, every lock free.
void checkMap(JNIEnv* env, LuOffHeapMap* map,
              const std::map<const LuOffHeapValue*, int>& extraPins = {});

class MapTest : public LibraryTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A map of one bucket set unless told otherwise. The fixture deletes `map`.
  LuOffHeapMap* makeMap(jint concurrency = 1, float loadFactor = 0.75F);
  // Empties and deletes.
  void deleteMap(LuOffHeapMap* doomed);
  void clearMap(LuOffHeapMap* doomed);

  // A buffer with one ALLOCATION_PIN of the test; `drop` releases it.
  ByteBufferHeader* buffer(std::string_view bytes, uint8_t type = DESERIALIZED_TYPE_BINARY);
  void drop(ByteBufferHeader* held);
  // A Java direct buffer over it.
  jobject javaBuffer(ByteBufferHeader* held);

  // The operations with a key buffer, as the natives call them. The buffers' creation pins are
  // dropped before return.
  LuOffHeapValue* insertPinned(std::string_view key, std::string_view value, uint16_t owner = 0,
                               int64_t revision = 1);
  LuOffHeapValue* updatePinned(std::string_view key, std::string_view value, uint16_t owner = 0,
                               int64_t revision = 1);
  LuOffHeapValue* removePinned(std::string_view key);
  // The same without anything left for the caller; false when the operation answered null. The
  // first answers the record, which only the map holds then.
  LuOffHeapValue* insert(std::string_view key, std::string_view value, uint16_t owner = 0,
                         int64_t revision = 1);
  bool update(std::string_view key, std::string_view value, uint16_t owner = 0,
              int64_t revision = 1);
  bool remove(std::string_view key);
  // A record outside any map; null texts mean no buffer. One ALLOCATION_PIN.
  LuOffHeapValue* record(const char* key, const char* value, uint16_t owner = 0,
                         int64_t revision = 1);
  uint32_t unpinValue(LuOffHeapValue* value, uint32_t reason = ALLOCATION_PIN);

  BucketSet* setOf(std::string_view key);
  static int32_t hashOf(std::string_view key);

  jobject caller = nullptr;     // the Java map object
  LuOffHeapMap* map = nullptr;  // the map of the helpers above
};

}  // namespace nimbra::test
