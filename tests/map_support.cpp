// The fixture, the invariant checks and the trace scripts of the entry map's tests.

#include "map_support.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ostream>

#include "map_natives.h"

#if defined(__SANITIZE_THREAD__)
// A failed unlock leaves its lock held, and what the operation locks next is then out of order. The
// tests that make unlocks fail run the operations under this name; no other report is silenced.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() { return "deadlock:underFailingLock\n"; }
#endif

namespace nimbra::test {

// ---- Failing locks -----------------------------------------------------------------------

namespace {

const char* nameOf(LockRank rank) {
  switch (rank) {
    case LockRank::map: return "map";
    case LockRank::bucketSet: return "bucketSet";
    case LockRank::queue: return "queue";
    case LockRank::anchor: return "anchor";
    case LockRank::node: return "node";
    case LockRank::sweepState: return "sweepState";
    case LockRank::pinChain: return "pinChain";
    case LockRank::pinRecord: return "pinRecord";
    case LockRank::profileRegistry: return "profileRegistry";
    case LockRank::profile: return "profile";
  }
  return "?";
}

const char* nameOf(LockOp operation) {
  switch (operation) {
    case LockOp::init: return "init";
    case LockOp::lock: return "lock";
    case LockOp::tryLock: return "tryLock";
    case LockOp::readLock: return "readLock";
    case LockOp::writeLock: return "writeLock";
    case LockOp::unlock: return "unlock";
    case LockOp::attributesInit: return "attributesInit";
    case LockOp::attributesType: return "attributesType";
    case LockOp::attributesDestroy: return "attributesDestroy";
    case LockOp::conditionInit: return "conditionInit";
    case LockOp::conditionDestroy: return "conditionDestroy";
    case LockOp::wait: return "wait";
    case LockOp::signal: return "signal";
    case LockOp::destroy: return "destroy";
    case LockOp::yield: return "yield";
  }
  return "?";
}

}  // namespace

FailNthLock::FailNthLock(int nth, int code)
    : nth_(nth), code_(code), handler_(lockViolationHandler) {
  EXPECT_EQ(faults::failLock, nullptr) << "one guard at a time";
  active_ = this;
  faults::failLock = &FailNthLock::hook;
  lockViolationHandler = &FailNthLock::violation;
}

FailNthLock::~FailNthLock() {
  faults::failLock = nullptr;
  active_ = nullptr;
  lockViolationHandler = handler_;
}

int FailNthLock::hook(LockRank rank, const void* lock, LockOp operation) {
  FailNthLock& guard = *active_;
  if (++guard.seen_ != guard.nth_) return 0;
  guard.fired_ = true;
  guard.rank_ = rank;
  guard.operation_ = operation;
  guard.lock_ = const_cast<void*>(lock);
  return guard.code_;
}

void FailNthLock::violation(const LockViolation& found) {
  const FailNthLock& guard = *active_;
  if (guard.fired_ && guard.operation_ == LockOp::unlock) return;
  ADD_FAILURE() << "a lock of rank " << nameOf(found.taking) << " is taken while one of rank "
                << nameOf(found.held) << " is held";
}

std::string FailNthLock::site() const {
  return std::string(nameOf(rank_)) + " " + nameOf(operation_);
}

void FailNthLock::release() {
  if (!fired_ || operation_ != LockOp::unlock || !holdsLock(lock_)) return;
  if (rank_ == LockRank::map) {
    EXPECT_EQ(rwlockUnlock(static_cast<pthread_rwlock_t*>(lock_), rank_), 0);
  } else {
    EXPECT_EQ(mutexUnlock(static_cast<pthread_mutex_t*>(lock_), rank_), 0);
  }
}

FailThisLock::FailThisLock(const void* lock, LockOp operation, int code)
    : lock_(lock), operation_(operation), code_(code) {
  EXPECT_EQ(faults::failLock, nullptr) << "one guard at a time";
  active_ = this;
  faults::failLock = &FailThisLock::hook;
}

FailThisLock::~FailThisLock() {
  faults::failLock = nullptr;
  active_ = nullptr;
}

int FailThisLock::hook(LockRank /*rank*/, const void* lock, LockOp operation) {
  FailThisLock& guard = *active_;
  if (lock != guard.lock_ || operation != guard.operation_) return 0;
  ++guard.fired_;
  return guard.code_;
}

bool isFree(pthread_mutex_t* mutex) {
  if (holdsLock(mutex) || pthread_mutex_trylock(mutex) != 0) return false;
  pthread_mutex_unlock(mutex);
  return true;
}

bool isFree(pthread_rwlock_t* lock) {
  if (holdsLock(lock) || pthread_rwlock_trywrlock(lock) != 0) return false;
  pthread_rwlock_unlock(lock);
  return true;
}

// ---- Traces ------------------------------------------------------------------------------

namespace {

std::string format(const char* text, va_list arguments) {
  char area[1024];
  std::vsnprintf(area, sizeof area, text, arguments);
  return area;
}

// Where the address or "(nil)" that starts at `at` ends; `at` itself when there is none.
std::size_t endOfAddress(const std::string& text, std::size_t at) {
  if (text.compare(at, 5, "(nil)") == 0) return at + 5;
  if (text.compare(at, 2, "0x") != 0) return at;
  const std::size_t end = text.find_first_not_of("0123456789abcdef", at + 2);
  return end == std::string::npos ? text.size() : end;
}

// Replaces the address behind each `field`= by "@".
void hideField(std::string& line, std::string_view field) {
  const std::string label = std::string(field) + "=";
  for (std::size_t at = 0; (at = line.find(label, at)) != std::string::npos; at += label.size()) {
    if (at > 0 && std::string_view(" ,:").find(line[at - 1]) == std::string_view::npos) continue;
    const std::size_t begin = at + label.size();
    const std::size_t end = endOfAddress(line, begin);
    if (end != begin) line.replace(begin, end - begin, "@");
  }
}

// The table's functions trace addresses of their caller's variables, which no test can know.
std::string withoutCallersVariables(const std::string& line) {
  static constexpr const char* kTableFunctions[] = {
      "hashtable_insertAndPin", "hashtable_getAndPin",        "hashtable_removeAndPin",
      "hashtable_update",       "getMapEntry_bucketPointers", "search_memcmp"};
  std::string result = line;
  for (const char* function : kTableFunctions) {
    if (line.find(std::string("|JNI:") + function + ":") == std::string::npos) continue;
    for (const char* field : {"map", "key", "vpKey", "keyObj", "searchEntry", "bucket"}) {
      hideField(result, field);
    }
    // A removal is given its search record; an insert its new entry, which stays visible.
    if (line.find("hashtable_removeAndPin:start search.") != std::string::npos) {
      hideField(result, "entry");
    }
  }
  return result;
}

}  // namespace

void Script::add(const char* level, const char* function, const char* text, va_list arguments) {
  std::string line = std::string(level) + "|";
  if (function != nullptr) line += std::string("JNI:") + function + ":";
  lines_.push_back(withoutCallersVariables(line + format(text, arguments)));
}

#define NB_TEST_SCRIPT_LEVEL(level)                                 \
  void Script::level(const char* function, const char* text, ...) { \
    va_list arguments;                                              \
    va_start(arguments, text);                                      \
    add(#level, function, text, arguments);                         \
    va_end(arguments);                                              \
  }
NB_TEST_SCRIPT_LEVEL(debug)
NB_TEST_SCRIPT_LEVEL(event)
NB_TEST_SCRIPT_LEVEL(entry)
NB_TEST_SCRIPT_LEVEL(exit)
#undef NB_TEST_SCRIPT_LEVEL

void Script::warning(const char* text, ...) {
  va_list arguments;
  va_start(arguments, text);
  add("warning", nullptr, text, arguments);
  va_end(arguments);
}

void Script::errorGeneric(const char* key, const char* text, ...) {
  va_list arguments;
  va_start(arguments, text);
  add((std::string("errorGeneric|") + key).c_str(), nullptr, text, arguments);
  va_end(arguments);
}

void Script::allocates(const char* label) { lines_.push_back(std::string("allocates ") + label); }

void Script::frees(const void* block) { lines_.push_back("frees " + printed(block)); }

void Script::pins(const void* object, uint32_t reason, int64_t after) {
  debug("pin", "enter pin: header=%p, reason=%s", object, getReason(reason));
  debug("pin", "exit pin: header=%p, pins=%d", object, static_cast<int>(after));
}

void Script::unpins(const void* object, uint32_t reason, int64_t after) {
  debug("unpin", "enter unpin: header=%p, reason=%s", object, getReason(reason));
  debug("unpin", "exit unpin: header=%p, pins=%d", object, static_cast<int>(after));
}

void Script::releasesBuffer(const void* buffer, uint32_t reason, int64_t after) {
  debug("unpinToFree", ">entry");
  unpins(buffer, reason, after);
  event("unpinToFree", "p=%p pins=%d reason=%s", buffer, static_cast<int>(after),
        getReason(reason));
  if (after == 0) frees(buffer);
  debug("unpinToFree", "<exit currentRefCount=%d", static_cast<int>(after));
}

void Script::releasesValue(const void* value, uint32_t reason, int64_t after) {
  entry("unpinLuOffHeapMapValue", "luValue=%p", value);
  unpins(value, reason, after);
  exit("unpinLuOffHeapMapValue", "luValue=%p remaining pins=%d", value, static_cast<int>(after));
}

void Script::findsEmptyBucket(const void* key, int32_t hash) {
  debug("getMapEntry_bucketPointers", "map=@, key=@, hashCode=%d", hash);
  entry("search_memcmp", " map=@, key=@, currentKeyFormat=%d,hashCode=%d", OBJECT_TYPE_VALUEHEADER,
        hash);
  debug("search_memcmp", "no entries in bucket. map=@, key=%p, hashCode=%d", key, hash);
}

void Script::walksChain(const void* set, const void* key, int32_t hash, int64_t keySize,
                        const std::vector<Chained>& chain, const void* found) {
  debug("getMapEntry_bucketPointers", "map=@, key=%p, hashCode=%d", key, hash);
  entry("search_memcmp", " map=@, key=@, currentKeyFormat=%d,hashCode=%d", OBJECT_TYPE_VALUEHEADER,
        hash);
  debug("search_memcmp", "bucketSet=%p bucket=@ firstEntry=%p", set, chain.front().entry);
  for (const Chained& link : chain) {
    if (link.hash != hash) {
      debug("search_memcmp", "skipped entry=%p. entry->hashcode=%d != hashcode=%d", link.entry,
            link.hash, hash);
      continue;
    }
    debug("keycmp", "raw. sizes: %d , %d", static_cast<int>(keySize),
          static_cast<int>(link.keySize));
    debug("keycmp", "memcmp result: %d", 0);
  }
  exit("search_memcmp", "entry=%p", found);
}

std::vector<std::string> traceOf(const ScriptedJni& jni) {
  const std::string allocated = "debug|JNI:malloc_nb:jemalloc=";
  const std::string freed = "debug|JNI:free_nb:free=";
  const std::string type = " type=";
  std::vector<std::string> result;
  for (const std::string& line : jni.lines()) {
    if (line.find("|JNI:pin backtrace:") != std::string::npos ||
        line.find("|JNI:unpin backtrace:") != std::string::npos ||
        line.find("|JNI:malloc_nb:allocating ") != std::string::npos ||
        line.find("|JNI:free_nb:jemalloc ") != std::string::npos ||
        line.find("|JNI:allocateByteBufferData:") != std::string::npos) {
      continue;
    }
    if (line.starts_with(allocated)) {
      result.push_back("allocates " + line.substr(line.rfind(type) + type.size()));
    } else if (line.starts_with(freed)) {
      result.push_back("frees " +
                       line.substr(freed.size(), line.find(' ', freed.size()) - freed.size()));
    } else {
      result.push_back(withoutCallersVariables(line));
    }
  }
  return result;
}

void Script::expectIn(const ScriptedJni& jni) const {
  const std::vector<std::string> seen = traceOf(jni);
  const std::size_t common = std::min(seen.size(), lines_.size());
  std::size_t at = 0;
  while (at < common && seen[at] == lines_[at]) ++at;
  if (at == seen.size() && at == lines_.size()) return;
  std::string report;
  for (std::size_t i = at < 3 ? 0 : at - 3; i < at; ++i) report += "    " + seen[i] + "\n";
  for (std::size_t i = at; i < std::min(at + 4, lines_.size()); ++i) {
    report += "  - " + lines_[i] + "\n";
  }
  for (std::size_t i = at; i < std::min(at + 4, seen.size()); ++i) {
    report += "  + " + seen[i] + "\n";
  }
  ADD_FAILURE() << "the trace leaves the expected sequence at record " << at << " (expected "
                << lines_.size() << " records, got " << seen.size() << "):\n"
                << report;
}

// ---- Invariants --------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& out, const Row& row) {
  return out << row.value << " (owner " << row.owner << ", revision " << row.revision << ")";
}

Books Books::now() {
  return {lockRead(&allocatingOffHeapBlocks), lockRead(&allocatingInternalMetadataSize)};
}

std::ostream& operator<<(std::ostream& out, const Books& books) {
  return out << books.blocks << " blocks, " << books.metadata << " bytes of bookkeeping";
}

std::string bytesOf(const ByteBufferHeader* buffer) {
  return {reinterpret_cast<const char*>(bufferData(buffer)), buffer->dataSize};
}

std::vector<LuOffHeapValue*> valuesOf(const LuOffHeapQueue* queue) {
  std::vector<LuOffHeapValue*> result;
  for (LuQueueEntry* at = queue->first; at != nullptr; at = at->next) {
    result.push_back(static_cast<LuOffHeapValue*>(at));
    if (at == queue->last || result.size() > queue->count) break;
  }
  return result;
}

std::vector<int64_t> revisionsOf(const LuOffHeapQueue* queue) {
  std::vector<int64_t> result;
  for (const LuOffHeapValue* value : valuesOf(queue)) result.push_back(value->revisionNumber);
  return result;
}

std::vector<LuOffHeapValue*> entriesOf(LuOffHeapMap* map) {
  std::vector<LuOffHeapValue*> result;
  for (uint32_t i = 0; i < map->map->numBucketSets; ++i) {
    BucketSet* set = getBucketSetByIndex(map->map, i);
    for (uint32_t bucket = 0; bucket < set->bucketCount; ++bucket) {
      for (auto* at = static_cast<LuOffHeapValue*>(set->buckets[bucket]); at != nullptr;
           at = at->hashNext) {
        result.push_back(at);
      }
    }
  }
  return result;
}

LuOffHeapValue* find(LuOffHeapMap* map, std::string_view key) {
  for (LuOffHeapValue* entry : entriesOf(map)) {
    if (entry->key != nullptr && bytesOf(entry->key) == key) return entry;
  }
  return nullptr;
}

Rows contentsOf(LuOffHeapMap* map) {
  Rows rows;
  for (const LuOffHeapValue* entry : entriesOf(map)) {
    rows[bytesOf(entry->key)] =
        Row{bytesOf(entry->value), entry->revisionOwner, entry->revisionNumber};
  }
  return rows;
}

void checkQueue(const LuOffHeapQueue* queue, int owner) {
  SCOPED_TRACE("queue of owner " + std::to_string(owner));
  uint32_t count = 0;
  const LuQueueEntry* before = nullptr;
  for (const LuQueueEntry* at = queue->first; at != nullptr; at = at->next) {
    ASSERT_EQ(at->prev, before);
    const auto* value = static_cast<const LuOffHeapValue*>(at);
    EXPECT_EQ(value->revisionOwner, owner);
    if (before != nullptr) {
      EXPECT_LE(static_cast<const LuOffHeapValue*>(before)->revisionNumber, value->revisionNumber);
    }
    before = at;
    ASSERT_LE(++count, queue->count);
  }
  EXPECT_EQ(queue->last, before);
  EXPECT_EQ(queue->count, count);
  EXPECT_GE(queue->maxCount, queue->count);
}

void checkMap(JNIEnv* env, LuOffHeapMap* map,
              const std::map<const LuOffHeapValue*, int>& extraPins) {
  EXPECT_EQ(heldLockCount(), 0);
  EXPECT_TRUE(isFree(&map->lock));

  std::set<const LuOffHeapValue*> queued;
  for (uint32_t i = 0; i < map->numQueues; ++i) {
    ASSERT_NE(map->revisionQueue[i], nullptr) << "slot " << i;
    EXPECT_TRUE(isFree(&map->revisionQueue[i]->mutex)) << "queue " << i;
    checkQueue(map->revisionQueue[i], static_cast<int>(i));
    for (const LuOffHeapValue* value : valuesOf(map->revisionQueue[i])) {
      EXPECT_TRUE(queued.insert(value).second) << "an entry is in two queues";
    }
  }

  std::set<const LuOffHeapValue*> chained;
  int64_t bytes = 0;
  for (uint32_t i = 0; i < map->map->numBucketSets; ++i) {
    BucketSet* set = getBucketSetByIndex(map->map, i);
    EXPECT_TRUE(isFree(&set->mutex)) << "bucket set " << i;
  }
  for (LuOffHeapValue* entry : entriesOf(map)) {
    EXPECT_TRUE(chained.insert(entry).second) << "an entry is in two chains";
    bytes += static_cast<int64_t>(getSize_LuValue(env, entry));
    const auto extra = extraPins.find(entry);
    // One for the chain, two for the places in the queue.
    EXPECT_EQ(entry->pins, 3 + (extra == extraPins.end() ? 0 : extra->second))
        << "pins of " << bytesOf(entry->key);
    EXPECT_EQ(entry->valueLength,
              entry->value == nullptr ? 0 : sizeofByteBufferHeader(entry->value));
    EXPECT_EQ((entry->flags & HAS_VALUE) != 0, entry->value != nullptr);
  }
  EXPECT_EQ(chained, queued);
  EXPECT_EQ(hashtable_size(env, map->map), static_cast<int64_t>(chained.size()));
  EXPECT_EQ(hashtable_bytesUsed(env, map->map), bytes);
}

// ---- Fixture -----------------------------------------------------------------------------

void MapTest::SetUp() {
  LibraryTest::SetUp();
  caller = jni.newMapObject();
  map = makeMap();
  ASSERT_NE(map, nullptr);
}

void MapTest::TearDown() {
  if (map != nullptr) deleteMap(map);
  LibraryTest::TearDown();
}

LuOffHeapMap* MapTest::makeMap(jint concurrency, float loadFactor) {
  return natives::asMap(
      natives::allocateLuOffHeapMap(env, caller, 0, concurrency, loadFactor, 7, 9));
}

void MapTest::clearMap(LuOffHeapMap* doomed) {
  hashtable_clear(env, doomed->map);
  EXPECT_TRUE(clearQueues(env, doomed));
}

void MapTest::deleteMap(LuOffHeapMap* doomed) {
  clearMap(doomed);
  EXPECT_TRUE(natives::deleteLuOffHeapMap(env, caller, natives::handle(doomed)));
}

ByteBufferHeader* MapTest::buffer(std::string_view bytes, uint8_t type) {
  ByteBufferHeader* header = allocateByteBufferData(env, bytes.size(), "DirectByteBuffer");
  if (header == nullptr) {
    ADD_FAILURE() << "no memory for a test buffer";
    return nullptr;
  }
  header->deserializedType = type;
  std::copy(bytes.begin(), bytes.end(), bufferData(header));
  pin(env, header, ALLOCATION_PIN);
  return header;
}

void MapTest::drop(ByteBufferHeader* held) { unpinToFree(env, held, ALLOCATION_PIN); }

jobject MapTest::javaBuffer(ByteBufferHeader* held) {
  return jni.newDirectBuffer(bufferData(held), static_cast<jlong>(held->dataSize));
}

LuOffHeapValue* MapTest::insertPinned(std::string_view key, std::string_view value, uint16_t owner,
                                      int64_t revision) {
  ByteBufferHeader* keyBuffer = buffer(key);
  ByteBufferHeader* valueBuffer = buffer(value);
  const jobject javaKey = javaBuffer(keyBuffer);
  LuOffHeapValue* inserted =
      insertAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, keyBuffer,
                   hashFn(keyBuffer), false, valueBuffer, owner, revision);
  drop(keyBuffer);
  drop(valueBuffer);
  return inserted;
}

LuOffHeapValue* MapTest::updatePinned(std::string_view key, std::string_view value, uint16_t owner,
                                      int64_t revision) {
  ByteBufferHeader* keyBuffer = buffer(key);
  ByteBufferHeader* valueBuffer = buffer(value);
  const jobject javaKey = javaBuffer(keyBuffer);
  LuOffHeapValue* snapshot =
      updateAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, keyBuffer,
                   hashFn(keyBuffer), false, valueBuffer, owner, revision);
  drop(keyBuffer);
  drop(valueBuffer);
  return snapshot;
}

LuOffHeapValue* MapTest::removePinned(std::string_view key) {
  ByteBufferHeader* keyBuffer = buffer(key);
  LuOffHeapValue* removed = removeAndGetAndPinLuOffHeapMap(env, caller, map, javaBuffer(keyBuffer),
                                                           keyBuffer, hashFn(keyBuffer), false);
  drop(keyBuffer);
  return removed;
}

LuOffHeapValue* MapTest::insert(std::string_view key, std::string_view value, uint16_t owner,
                                int64_t revision) {
  LuOffHeapValue* inserted = insertPinned(key, value, owner, revision);
  if (inserted != nullptr) unpinValue(inserted, JNI_INSERTED_PIN);
  return inserted;
}

bool MapTest::update(std::string_view key, std::string_view value, uint16_t owner,
                     int64_t revision) {
  LuOffHeapValue* snapshot = updatePinned(key, value, owner, revision);
  if (snapshot != nullptr) unpinValue(snapshot);
  return snapshot != nullptr;
}

bool MapTest::remove(std::string_view key) {
  LuOffHeapValue* removed = removePinned(key);
  if (removed != nullptr) unpinValue(removed, JNI_REMOVED_PIN);
  return removed != nullptr;
}

LuOffHeapValue* MapTest::record(const char* key, const char* value, uint16_t owner,
                                int64_t revision) {
  ByteBufferHeader* keyBuffer = key == nullptr ? nullptr : buffer(key);
  ByteBufferHeader* valueBuffer = value == nullptr ? nullptr : buffer(value);
  LuOffHeapValue* made =
      allocateLuOffHeapMapValue(env, keyBuffer, keyBuffer == nullptr ? 0 : hashFn(keyBuffer), false,
                                valueBuffer, owner, revision);
  if (keyBuffer != nullptr) drop(keyBuffer);
  if (valueBuffer != nullptr) drop(valueBuffer);
  return made;
}

uint32_t MapTest::unpinValue(LuOffHeapValue* value, uint32_t reason) {
  return unpinLuOffHeapMapValue(env, value, reason);
}

BucketSet* MapTest::setOf(std::string_view key) {
  return getBucketSet(map->map, static_cast<uint32_t>(hashOf(key)));
}

int32_t MapTest::hashOf(std::string_view key) {
  uint32_t hash = 0;
  for (const char unit : key) {
    hash = 31 * hash + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(unit)));
  }
  return static_cast<int32_t>(hash);
}

}  // namespace nimbra::test
