// The library's stress on maps that give entries up: one that Java keeps with the contract's
// eviction queues, and the face's bounded maps.

#pragma once

#include <array>
#include <mutex>
#include <optional>
#include <utility>

#include "library_actors.h"

namespace nimbra::test::stress {

// ---- A cache of the contract's eviction queues
// ---------------------------------------------------

inline constexpr uint32_t kCachedKeys = 8;

// As Java does, whoever puts, removes or evicts a key holds the key's mutex, because the links of
// an eviction record do not tell whether it is queued; and nobody adds or takes an entry while the
// map is cleared. Reads, touches, updates, queries and lists hold neither.
struct CachedMap : Shared {
  bool byFrequency = false;  // by least frequent use, else by least recent
  LuOffHeapEvictionDataQueue* used = nullptr;
  LuOffHeapEvictionDataQueue* timed = nullptr;
  std::array<std::mutex, kCachedKeys> keys;
};

class CacheActor : public ContractActor {
 public:
  CacheActor(Thread& thread, CachedMap& cache, Totals& totals, uint32_t index)
      : ContractActor(thread, cache, totals, index, kCachedKeys), cache_(cache) {}

  void step() {
    const uint32_t key = thread_.below(kCachedKeys);
    switch (thread_.below(16)) {
      case 0:
      case 1:
      case 2: put(key); break;
      case 3:
      case 4: update(key); break;
      case 5: drop(key); break;
      case 6:
      case 7: get(key, thread_.chance(2)); break;
      case 8:
      case 9: access(key); break;
      case 10: evictFirst(); break;
      case 11: expire(); break;
      case 12: query(keyAt); break;
      case 13: list(); break;
      case 14: figures(); break;
      default:
        if (thread_.chance(40)) clear();
        break;
    }
  }

 private:
  static uint32_t keyAt(jlong data, jlong /*length*/) {
    return numberOf(headerOfData(reinterpret_cast<void*>(data)));
  }
  static uint32_t numberOf(const ByteBufferHeader* key) {
    uint32_t number = 0;
    std::memcpy(&number, bufferData(key), sizeof number);
    return number;
  }
  static jint hashOf(uint32_t key) { return static_cast<jint>((key % 3) * 0x01010101); }
  jlong map() { return cache_.handle(); }
  jlong queue(bool timed) { return natives::handle(timed ? cache_.timed : cache_.used); }
  jlong time() { return 10 + static_cast<jlong>(thread_.below(60)); }
  void unpinEviction(LuOffHeapEvictionData* record, uint32_t reason) {
    natives::unpinLuEvictionData_native(env(), thread_.managerObject, natives::handle(record),
                                        static_cast<jint>(reason));
  }

  void put(uint32_t key) {
    const auto open = cache_.gate.enter();
    const std::lock_guard<std::mutex> mine(cache_.keys[key]);
    const jlong revision = cache_.next();
    const std::string text = valueOf(key, static_cast<uint64_t>(revision));
    LuOffHeapValue* made = natives::asValue(natives::insertAndGetNewAndPinWithInt(
        env(), self(), map(), static_cast<jint>(key), hashOf(key), thread_.array(text),
        static_cast<jint>(text.size()), DESERIALIZED_TYPE_BINARY, owner(), revision));
    if (made == nullptr) return;
    ++totals_.inserted;
    ++cache_.present;
    for (const bool timed : {false, true}) enqueue(made, timed);
    thread_.unpinRecord(made, JNI_INSERTED_PIN);
  }
  void enqueue(LuOffHeapValue* made, bool timed) {
    const jobject key = thread_.jni().newDirectBuffer(bufferData(made->key), 4);
    const jlong record = natives::allocateAndPinEvictionData(env(), self(), 0, key, JNI_TRUE);
    if (thread_.refused() || record == 0) return;  // an entry that nothing evicts
    natives::setExpiration(env(), self(), 0, record, 50);
    natives::setTimeout(env(), self(), record, 5);
    natives::setEvictionData_native(env(), thread_.managerObject, natives::handle(made), record,
                                    static_cast<jboolean>(timed));
    const jint queued = timed ? natives::insertTTL(env(), self(), queue(true), record, time())
                        : cache_.byFrequency
                            ? natives::insertLFU(env(), self(), queue(false), record)
                            : natives::insertLRU(env(), self(), queue(false), record);
    EXPECT_GT(queued, 0);
    unpinEviction(natives::asEvictionData(record), ALLOCATION_PIN);
  }

  void update(uint32_t key) {
    const jlong revision = cache_.next();
    const std::string text = valueOf(key, static_cast<uint64_t>(revision));
    LuOffHeapValue* snapshot = natives::asValue(natives::updateAndGetNewAndPinWithLong(
        env(), self(), map(), key, hashOf(key), thread_.array(text), static_cast<jint>(text.size()),
        DESERIALIZED_TYPE_BINARY, owner(), revision));
    if (snapshot != nullptr) dropSnapshot(snapshot, key);
  }

  // REQUIRES: the gate and the key's mutex. Takes the entry out of map and queues.
  bool take(uint32_t key) {
    LuOffHeapValue* removed = natives::asValue(natives::removeAndGetAndPinWithHashCodeNumber(
        env(), self(), map(), hashOf(key), static_cast<jdouble>(key)));
    if (removed == nullptr) return false;
    for (const bool timed : {false, true}) {
      LuOffHeapEvictionData* record = evictionOf(removed, timed);
      if (record == nullptr) continue;
      natives::removeFromEvictionQueue(env(), self(), queue(timed), natives::handle(record));
      unpinEviction(record, JNI_GET_PIN);
    }
    dropRemoved(removed, key);
    return true;
  }
  // Pinned JNI_GET_PIN.
  LuOffHeapEvictionData* evictionOf(LuOffHeapValue* entry, bool timed) {
    return natives::asEvictionData(natives::getEvictionData_native(
        env(), thread_.managerObject, natives::handle(entry), static_cast<jboolean>(timed)));
  }
  void drop(uint32_t key) {
    const auto open = cache_.gate.enter();
    const std::lock_guard<std::mutex> mine(cache_.keys[key]);
    take(key);
  }

  LuOffHeapValue* find(uint32_t key, bool touch) {
    const jlong revision = touch ? cache_.next() : 0;
    return natives::asValue(natives::getLuValue_Number(
        env(), self(), map(), hashOf(key), 0, static_cast<jboolean>(touch), revision, key));
  }
  void get(uint32_t key, bool touch) {
    LuOffHeapValue* found = find(key, touch);
    if (found == nullptr) return;
    ++totals_.found;
    EXPECT_EQ(numberOf(found->key), key);
    checkValue(thread_.read(cache_.map, found), key);
    thread_.unpinRecord(found, NATIVE_TRANSIENT_GET_PIN);
  }
  // A get that also moves the entry's eviction records.
  void access(uint32_t key) {
    const auto open = cache_.gate.enter();
    const std::lock_guard<std::mutex> mine(cache_.keys[key]);
    LuOffHeapValue* found = find(key, false);
    if (found == nullptr) return;
    for (const bool timed : {false, true}) {
      LuOffHeapEvictionData* record = evictionOf(found, timed);
      if (record == nullptr) continue;
      const jlong handle = natives::handle(record);
      EXPECT_TRUE(timed ? natives::updateTTL(env(), self(), queue(true), handle, time())
                  : cache_.byFrequency ? natives::updateLFU(env(), self(), queue(false), handle)
                                       : natives::updateLRU(env(), self(), queue(false), handle));
      EXPECT_GT(natives::getEvictionReferenceCount(env(), self(), handle), 0);
      unpinEviction(record, JNI_GET_PIN);
    }
    thread_.unpinRecord(found, NATIVE_TRANSIENT_GET_PIN);
  }

  // REQUIRES: a pin on the record, which goes. Evicts the entry that has its key.
  void evict(LuOffHeapEvictionData* record, uint32_t reason) {
    const uint32_t key = numberOf(record->key);
    {
      const auto open = cache_.gate.enter();
      const std::lock_guard<std::mutex> mine(cache_.keys[key]);
      if (take(key)) ++totals_.evicted;
    }
    unpinEviction(record, reason);
  }
  void evictFirst() {
    const jlongArray out = thread_.jni().newLongArray({0});
    EXPECT_TRUE(natives::getEvictionList(env(), self(), queue(false), out));
    const jlong first = thread_.jni().longsOf(out)[0];
    if (first != 0) evict(natives::asEvictionData(first), JNI_EVICTLIST_PIN);
  }
  void expire() {
    const jlongArray due =
        thread_.jni().adopt(natives::getTTLEvictionList(env(), self(), queue(true), 20));
    if (due == nullptr) return;
    for (const jlong one : thread_.jni().longsOf(due)) {
      evict(natives::asEvictionData(one), JNI_GET_PIN);
    }
  }
  void list() {
    const jlongArray due =
        thread_.jni().adopt(natives::getVoskaEvictionList(env(), self(), queue(true), time()));
    if (due == nullptr) return;
    for (const jlong one : thread_.jni().longsOf(due)) {
      unpinEviction(natives::asEvictionData(one), JNI_EVICTLIST_PIN);
    }
  }
  void figures() {
    EXPECT_GE(natives::getQueueCount(env(), self(), queue(false)), 0);
    EXPECT_NE(natives::getMinimumTime(env(), self(), queue(true)), 0);
    EXPECT_LE(natives::size(env(), self(), map()), kCachedKeys);
    natives::maxSize(env(), self(), map());
  }

  void clear() {
    const auto alone = cache_.gate.enterAlone();
    const jlong size = natives::size(env(), self(), map());
    EXPECT_EQ(size, cache_.present.get());
    EXPECT_TRUE(natives::clear(env(), self(), map()));
    EXPECT_TRUE(natives::clearEvictionQueue(env(), self(), queue(false)));
    EXPECT_TRUE(natives::clearEvictionQueue(env(), self(), queue(true)));
    cache_.present += -size;
    totals_.cleared += size;
    ++totals_.clears;
  }

  CachedMap& cache_;
};

// ---- Bounded maps
// --------------------------------------------------------------------------------

inline constexpr uint32_t kBoundedKeys = 24;
inline constexpr jlong kBoundedEntries = 16;
inline constexpr jlong kBoundedBytes = 24'000;
inline constexpr uint32_t kPartitions = 2;

struct BoundedMap : Shared {
  std::vector<bounded::Partition> partitions;
};

class BoundedActor {
 public:
  BoundedActor(Thread& thread, BoundedMap& map, Totals& totals, uint32_t index)
      : thread_(thread), map_(map), totals_(totals), index_(index) {}

  void step() {
    if (thread_.chance(400)) return clear();
    const auto inside = map_.gate.enter();
    const uint32_t key = thread_.below(kBoundedKeys);
    const bounded::Partition& partition = map_.partitions[key % kPartitions];
    switch (thread_.below(14)) {
      case 0:
      case 1:
      case 2: put(partition, key, bounded::kPut); break;
      case 3: put(partition, key, bounded::kPutIfAbsent); break;
      case 4: put(partition, key, bounded::kReplace); break;
      case 5:
      case 6: get(partition, key); break;
      case 7: pin(partition, key); break;
      case 8: caller(partition).containsKey(keyOf(key), hashOf(key), now()); break;
      case 9:
        if (caller(partition).remove(keyOf(key), hashOf(key), now()) == 1) ++totals_.removed;
        break;
      case 10: evict(partition, 1 + static_cast<jint>(thread_.below(3)), false); break;
      case 11: evict(partition, 4, true); break;
      case 12: query(partition); break;
      default: figures(partition); break;
    }
  }

 private:
  static std::string keyOf(uint32_t number) {
    return "key " + std::to_string(number) + std::string(number % 5 == 0 ? 700 : 0, '.');
  }
  static jint hashOf(uint32_t number) { return static_cast<jint>((number % 7) * 0x9e3779b9U); }
  static uint32_t numberOf(std::string_view key) {
    return static_cast<uint32_t>(std::strtoul(std::string(key.substr(4, 8)).c_str(), nullptr, 10));
  }
  static jlong now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
  }
  // Some deadlines come soon, some not within the test.
  jlong deadline() { return now() + (thread_.chance(3) ? 50'000 : 3'600'000'000'000); }
  jlong newDeadline() { return thread_.chance(2) ? bounded::kKeep : deadline(); }
  bounded::Caller caller(const bounded::Partition& partition) { return {thread_.jni(), partition}; }
  JNIEnv* env() { return thread_.env; }

  void put(const bounded::Partition& partition, uint32_t key, bounded::Mode mode) {
    const jlong revision = map_.next();
    const jint result = caller(partition).put(keyOf(key), hashOf(key),
                                              valueOf(key, static_cast<uint64_t>(revision)),
                                              revision, now(), deadline(), mode);
    if (result == 1 && mode != bounded::kReplace) ++totals_.inserted;
    if (result == bounded::kNoRoom) evict(partition, 2, false);
  }
  void get(const bounded::Partition& p, uint32_t key) {
    const jlongArray onDisk = thread_.jni().newLongArray({0});
    const jbyteArray found =
        bounded::get(env(), nullptr, p.handle(), p.queue, p.policy, p.ttl,
                     thread_.array(keyOf(key)), hashOf(key), now(), newDeadline(), onDisk);
    if (found != nullptr) {
      const std::vector<uint8_t> read = thread_.jni().bytesOf(thread_.jni().adopt(found));
      checkValue({reinterpret_cast<const char*>(read.data()), read.size()}, key);
      ++totals_.found;
    } else if (const jlong record = thread_.jni().longsOf(onDisk)[0]; record != 0) {
      readOnDisk(p, record, key);
    }
  }
  void pin(const bounded::Partition& partition, uint32_t key) {
    std::vector<jlong> words;
    const jlong pinned =
        caller(partition).pin(keyOf(key), hashOf(key), now(), newDeadline(), &words);
    if (pinned > 0) {
      const uint64_t write = checkValue(face::placeAt(words, 0).text(), key);
      EXPECT_EQ(static_cast<uint64_t>(words[2]), write) << "a revision of another value";
      face::unpin(env(), nullptr, pinned);
    } else if (pinned < 0) {
      readOnDisk(partition, -pinned, key);
    }
  }
  void readOnDisk(const bounded::Partition& partition, jlong record, uint32_t key) {
    checkValue(thread_.read(partition.map, natives::asValue(record)), key);
    Java_com_velt_rz_corvane_nimbra_OverflowNatives_unpinRecord(env(), nullptr, record);
  }
  void evict(const bounded::Partition& partition, jint count, bool timed) {
    const auto evicted = caller(partition).evict(count, timed, now(), 4);
    totals_.evicted += static_cast<int64_t>(evicted->list.size());
    for (const bounded::Evicted::Entry& entry : evicted->list) {
      const uint32_t key = numberOf(entry.key.text());
      const uint64_t write =
          checkValue(entry.value.bytes != nullptr
                         ? std::string(entry.value.text())
                         : thread_.read(partition.map, natives::asValue(entry.value.length)),
                     key);
      EXPECT_EQ(write, static_cast<uint64_t>(entry.revision));
    }
  }
  void query(const bounded::Partition& partition) {
    const jlong end = map_.last();
    const jlong start = std::max<jlong>(0, end - 40);
    if (start >= end) return;
    const jint bookmark = thread_.chance(2) ? -1 : static_cast<jint>(index_);
    const bounded::Queried changes(thread_.jni(), partition, bookmark, start, end);
    for (const bounded::Queried::Entry& entry : changes.list) {
      const uint32_t key = numberOf(entry.key.text());
      EXPECT_EQ(entry.key.text(), keyOf(key));
      if (entry.value.bytes != nullptr) checkValue(entry.value.text(), key);
    }
    totals_.queried += static_cast<int64_t>(changes.list.size());
  }
  void figures(const bounded::Partition& partition) {
    const jlong bytes = bounded::bytes(env(), nullptr, partition.bound);
    const jlong entries = bounded::entries(env(), nullptr, partition.bound);
    EXPECT_GE(bytes, 0);
    EXPECT_LE(bytes, kBoundedBytes);
    EXPECT_GE(entries, 0);
    EXPECT_LE(entries, kBoundedEntries);
  }
  void clear() {
    const auto alone = map_.gate.enterAlone();
    for (const bounded::Partition& partition : map_.partitions) {
      totals_.cleared += natives::size(env(), thread_.self, partition.handle());
      EXPECT_TRUE(caller(partition).clear());
    }
    EXPECT_EQ(bounded::bytes(env(), nullptr, map_.partitions[0].bound), 0);
    EXPECT_EQ(bounded::entries(env(), nullptr, map_.partitions[0].bound), 0);
    ++totals_.clears;
  }

  Thread& thread_;
  BoundedMap& map_;
  Totals& totals_;
  const uint32_t index_;
};

}  // namespace nimbra::test::stress
