// Eviction queues beside plain containers under random operations; and a bounded cache in little,
// from many threads: puts, typed gets, queries, eviction and clears at once.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <list>
#include <map>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "evictqueue_support.h"

namespace nimbra::test {
namespace {

using natives::asEvictionData;
using natives::asValue;
using natives::handle;

uint64_t seedOf(const char* test) {
  const char* given = std::getenv("NIMBRA_TEST_SEED");
  const uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device{}();
  std::cout << test << ": NIMBRA_TEST_SEED=" << seed << std::endl;
  return seed;
}

// ---- One thread beside an oracle ---------------------------------------------------------

class EvictionOracle : public EvictionQueueTest {
 protected:
  static constexpr std::size_t kRecords = 24;
  static constexpr int kSteps = 3000;

  uint64_t below(uint64_t bound) { return random() % bound; }

  void startFrom(uint64_t seed) {
    random.seed(seed);
    for (std::size_t i = 0; i < kRecords; ++i) allocate();
  }
  // A record that is removed from the middle keeps its links: whoever inserts it again clears them.
  static void clearLinks(LuOffHeapEvictionData* record) {
    record->prev = nullptr;
    record->next = nullptr;
  }
  // A failed call has raised; the record has to be as it was.
  void expectRaised() { ASSERT_TRUE(jni.takePending().has_value()); }

  Records head(std::size_t length) {
    const jlongArray out = jni.newLongArray(std::vector<jlong>(length, -1));
    EXPECT_TRUE(natives::getEvictionList(env, caller, handle(queue), out));
    Records result;
    for (const jlong one : jni.longsOf(out)) {
      if (one == 0) break;
      result.push_back(asEvictionData(one));
      unpinRecord(result.back(), JNI_EVICTLIST_PIN);
    }
    return result;
  }

  std::mt19937_64 random;
};

TEST_F(EvictionOracle, LruBesideAList) {
  startFrom(seedOf("LruBesideAList"));
  std::list<LuOffHeapEvictionData*> oracle;
  for (int step = 0; step < kSteps && !HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    LuOffHeapEvictionData* record = made[below(kRecords)];
    const auto at = std::find(oracle.begin(), oracle.end(), record);
    const bool queued = at != oracle.end();
    switch (below(8)) {
      case 0:
      case 1:
      case 2:
        if (queued) {
          if (oracle.size() > 1) {
            ASSERT_EQ(insertLRU(record), -1);
          }
        } else {
          clearLinks(record);
          oracle.push_back(record);
          ASSERT_EQ(insertLRU(record), static_cast<jint>(oracle.size()));
        }
        break;
      case 3:
      case 4:
        if (queued) {
          oracle.splice(oracle.end(), oracle, at);
          ASSERT_TRUE(updateLRU(record));
        } else {
          clearLinks(record);
          ASSERT_FALSE(updateLRU(record));
          expectRaised();
          unpinRecord(record, NATIVE_TRANSIENT_GET_PIN);
        }
        break;
      case 5:
        if (queued) {
          oracle.erase(at);
        } else {
          clearLinks(record);
        }
        ASSERT_EQ(remove(record), static_cast<jint>(oracle.size()));
        if (!queued) expectRaised();
        break;
      case 6: {
        const std::size_t length = below(kRecords + 4);
        Records expected(oracle.begin(), oracle.end());
        expected.resize(std::min(length, expected.size()));
        ASSERT_EQ(head(length), expected);
        break;
      }
      default:
        if (below(60) == 0) {
          oracle.clear();
          ASSERT_TRUE(natives::clearEvictionQueue(env, caller, handle(queue)));
        }
    }
    ASSERT_EQ(order(), Records(oracle.begin(), oracle.end()));
    ASSERT_EQ(queue->maxCount, 0U);
  }
}

// LFU and TTL: a multimap puts a newcomer behind its equals, as the queue has to.
class OrderedOracle : public EvictionOracle {
 protected:
  using Oracle = std::multimap<int64_t, LuOffHeapEvictionData*>;

  Oracle::iterator find(LuOffHeapEvictionData* record) {
    return std::find_if(oracle.begin(), oracle.end(),
                        [record](const auto& one) { return one.second == record; });
  }
  Records expected() const {
    Records result;
    for (const auto& [sortKey, record] : oracle) result.push_back(record);
    return result;
  }
  void expectAgreement() {
    highWater = std::max(highWater, oracle.size());
    ASSERT_EQ(order(true), expected());
    for (const auto& [sortKey, record] : oracle) ASSERT_EQ(record->metadata, sortKey);
    ASSERT_EQ(queue->maxCount, highWater);
    ASSERT_EQ(natives::getMinimumTime(env, caller, handle(queue)),
              oracle.empty() ? INT64_MAX : oracle.begin()->first);
  }
  void removeOrClear(LuOffHeapEvictionData* record) {
    if (below(40) == 0) {
      oracle.clear();
      ASSERT_TRUE(natives::clearEvictionQueue(env, caller, handle(queue)));
      return;
    }
    const auto at = find(record);
    const bool queued = at != oracle.end();
    if (queued) {
      oracle.erase(at);
    } else {
      clearLinks(record);
    }
    ASSERT_EQ(remove(record), static_cast<jint>(oracle.size()));
    if (!queued) expectRaised();
  }

  Oracle oracle;
  std::size_t highWater = 0;
};

TEST_F(OrderedOracle, LfuBesideAMultimap) {
  startFrom(seedOf("LfuBesideAMultimap"));
  for (int step = 0; step < kSteps && !HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    LuOffHeapEvictionData* record = made[below(kRecords)];
    const auto at = find(record);
    const bool queued = at != oracle.end();
    switch (below(6)) {
      case 0:
        if (queued) break;
        oracle.emplace(0, record);
        ASSERT_EQ(insertLFU(record), static_cast<jint>(oracle.size()));
        break;
      case 1:
      case 2:
      case 3: {
        const int64_t raised = record->metadata + 1;
        if (queued) {
          oracle.erase(at);
        } else {
          clearLinks(record);
        }
        oracle.emplace(raised, record);
        ASSERT_TRUE(updateLFU(record)) << "a stranger is raised and inserted";
        if (!queued) expectRaised();
        break;
      }
      case 4: removeOrClear(record); break;
      default: {
        Records prefix = expected();
        const std::size_t length = below(kRecords + 4);
        prefix.resize(std::min(length, prefix.size()));
        ASSERT_EQ(head(length), prefix);
      }
    }
    expectAgreement();
  }
}

TEST_F(OrderedOracle, TtlBesideAMultimap) {
  startFrom(seedOf("TtlBesideAMultimap"));
  for (LuOffHeapEvictionData* record : made) record->expiration = static_cast<int64_t>(below(40));
  for (int step = 0; step < kSteps && !HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    LuOffHeapEvictionData* record = made[below(kRecords)];
    const auto at = find(record);
    const bool queued = at != oracle.end();
    const auto time = static_cast<int64_t>(below(40)) - 3;
    switch (below(7)) {
      case 0:
      case 1:
        if (queued) break;
        oracle.emplace(time, record);
        ASSERT_EQ(insertTTL(record, time), static_cast<jint>(oracle.size()));
        break;
      case 2:
      case 3:
        if (queued) {
          oracle.erase(at);
        } else {
          clearLinks(record);
        }
        oracle.emplace(time, record);
        ASSERT_TRUE(updateTTL(record, time));
        if (!queued) expectRaised();
        break;
      case 4: removeOrClear(record); break;
      case 5: {
        Records due;
        for (const auto& [sortKey, one] : oracle) {
          if (sortKey < time) due.push_back(one);
        }
        ASSERT_EQ(take(natives::getTTLEvictionList(env, caller, handle(queue), time), JNI_GET_PIN),
                  due);
        break;
      }
      default: {
        Records due;
        for (const auto& [sortKey, one] : oracle) {
          if (sortKey < time || one->expiration < time) due.push_back(one);
        }
        ASSERT_EQ(take(natives::getVoskaEvictionList(env, caller, handle(queue), time),
                       JNI_EVICTLIST_PIN),
                  due);
      }
    }
    expectAgreement();
  }
}

// ---- Many threads ------------------------------------------------------------------------

constexpr int kKeys = 8;
constexpr int kThreads = 4;
constexpr uint16_t kOwners = 2;

// What the workers share. As Java does, whoever puts, removes or evicts a key holds the key's
// mutex, because the links of an eviction record do not tell whether it is queued; and nobody adds
// or takes an entry while the map is cleared. Reads, touches, updates, queries and lists hold
// neither.
struct Cache {
  LuOffHeapMap* map = nullptr;
  LuOffHeapEvictionDataQueue* lru = nullptr;
  LuOffHeapEvictionDataQueue* ttl = nullptr;
  std::shared_mutex clearing;
  std::array<std::mutex, kKeys> keys;
  std::atomic<int64_t> revision{0};
};

class Worker {
 public:
  Worker(Cache& cache, int number, uint64_t seed)
      : cache_(cache), number_(number), random_(seed), env_(jni_.env()) {
    caller_ = jni_.newMapObject();
    manager_ = jni_.newManager();
    area_.resize(1 + 9 * (4 * kKeys));
    result_ = jni_.newDirectBuffer(area_.data(), static_cast<jlong>(8 * area_.size()));
  }

  void step() {
    const auto key = static_cast<jint>(random_() % kKeys);
    switch (random_() % 16) {
      case 0:
      case 1:
      case 2: put(key); break;
      case 3:
      case 4: update(key); break;
      case 5: drop(key); break;
      case 6:
      case 7: get(key, random_() % 2 == 0); break;
      case 8: access(key); break;
      case 9: evictFirst(); break;
      case 10: expire(); break;
      case 11:
      case 12: query(); break;
      case 13: scan(); break;
      case 14: look(); break;
      default:
        if (random_() % 40 == 0) clear();
    }
    if (jni_.pending().has_value()) {
      ADD_FAILURE() << jni_.takePending()->message;
    }
  }

  int64_t put_ = 0;
  int64_t updated_ = 0;
  int64_t found_ = 0;
  int64_t evicted_ = 0;
  int64_t reported_ = 0;
  int64_t torn_ = 0;

 private:
  static jint hashOf(jint key) { return key * 0x01010101; }
  jlong mapHandle() { return handle(cache_.map); }
  static std::string textOf(jint key, std::size_t length) {
    return std::string(length, static_cast<char>('A' + key));
  }
  static jint numberOf(const ByteBufferHeader* key) {
    jint number = 0;
    std::memcpy(&number, bufferData(key), sizeof number);
    return number;
  }
  void check(jint key, const uint8_t* bytes, std::size_t length) {
    bool whole = length > 0;
    for (std::size_t i = 0; i < length; ++i) whole = whole && bytes[i] == 'A' + key;
    if (!whole) ++torn_;
  }
  jshort owner() { return static_cast<jshort>(random_() % kOwners); }
  jlong nextRevision() { return 1 + cache_.revision.fetch_add(1, std::memory_order_relaxed); }
  jbyteArray value(jint key) {
    const std::string text = textOf(key, 1 + random_() % 100);
    length_ = static_cast<jint>(text.size());
    return jni_.newByteArray({text.begin(), text.end()});
  }
  void unpinValue(LuOffHeapValue* record, uint32_t reason) {
    unpinLuOffHeapMapValue(env_, record, reason);
  }
  void unpinRecord(LuOffHeapEvictionData* record, uint32_t reason) {
    unpinLuOffHeapEvictionData(env_, record, reason);
  }

  void put(jint key) {
    const std::shared_lock<std::shared_mutex> open(cache_.clearing);
    const std::lock_guard<std::mutex> mine(cache_.keys[static_cast<std::size_t>(key)]);
    const jbyteArray bytes = value(key);
    LuOffHeapValue* made = asValue(natives::insertAndGetNewAndPinWithInt(
        env_, caller_, mapHandle(), key, hashOf(key), bytes, length_, 0, owner(), nextRevision()));
    if (made == nullptr) return;
    ++put_;
    const jobject javaKey = jni_.newDirectBuffer(bufferData(made->key), 4);
    for (const jboolean forTTL : {JNI_FALSE, JNI_TRUE}) {
      LuOffHeapEvictionData* record =
          asEvictionData(natives::allocateAndPinEvictionData(env_, caller_, 0, javaKey, JNI_TRUE));
      natives::setExpiration(env_, caller_, 0, handle(record), 50);
      natives::setEvictionData_native(env_, manager_, handle(made), handle(record), forTTL);
      if (forTTL == JNI_TRUE) {
        EXPECT_GT(natives::insertTTL(env_, caller_, handle(cache_.ttl), handle(record), time()), 0);
      } else {
        EXPECT_GT(natives::insertLRU(env_, caller_, handle(cache_.lru), handle(record)), 0);
      }
      unpinRecord(record, ALLOCATION_PIN);
    }
    unpinValue(made, JNI_INSERTED_PIN);
  }

  void update(jint key) {
    const jbyteArray bytes = value(key);
    LuOffHeapValue* snapshot = asValue(natives::updateAndGetNewAndPinWithLong(
        env_, caller_, mapHandle(), key, hashOf(key), bytes, length_, 0, owner(), nextRevision()));
    if (snapshot == nullptr) return;
    ++updated_;
    check(key, bufferData(snapshot->value), snapshot->value->dataSize);
    unpinValue(snapshot, ALLOCATION_PIN);
  }

  // REQUIRES: `clearing` shared and the key's mutex. Takes the entry out of map and queues.
  bool take(jint key) {
    LuOffHeapValue* removed = asValue(natives::removeAndGetAndPinWithHashCodeNumber(
        env_, caller_, mapHandle(), hashOf(key), static_cast<jdouble>(key)));
    if (removed == nullptr) return false;
    check(key, bufferData(removed->value), removed->value->dataSize);
    for (const jboolean forTTL : {JNI_FALSE, JNI_TRUE}) {
      LuOffHeapEvictionData* record =
          asEvictionData(natives::getEvictionData_native(env_, manager_, handle(removed), forTTL));
      EXPECT_NE(record, nullptr);
      natives::removeFromEvictionQueue(
          env_, caller_, handle(forTTL == JNI_TRUE ? cache_.ttl : cache_.lru), handle(record));
      unpinRecord(record, JNI_GET_PIN);
    }
    unpinValue(removed, JNI_REMOVED_PIN);
    return true;
  }
  void drop(jint key) {
    const std::shared_lock<std::shared_mutex> open(cache_.clearing);
    const std::lock_guard<std::mutex> mine(cache_.keys[static_cast<std::size_t>(key)]);
    take(key);
  }

  void get(jint key, bool touch) {
    const jlong revision = touch ? nextRevision() : 0;
    LuOffHeapValue* found = asValue(natives::getLuValue_Number(
        env_, caller_, mapHandle(), hashOf(key), 0, static_cast<jboolean>(touch), revision, key));
    if (found == nullptr) return;
    ++found_;
    if (numberOf(found->key) != key) ++torn_;
    unpinValue(found, NATIVE_TRANSIENT_GET_PIN);
    natives::containsKeyWithHashCodeNumber(env_, caller_, mapHandle(), hashOf(key), key);
  }

  // A get that also moves the entry's eviction records.
  void access(jint key) {
    const std::shared_lock<std::shared_mutex> open(cache_.clearing);
    const std::lock_guard<std::mutex> mine(cache_.keys[static_cast<std::size_t>(key)]);
    LuOffHeapValue* found = asValue(
        natives::getLuValue_Number(env_, caller_, mapHandle(), hashOf(key), 0, JNI_FALSE, 0, key));
    if (found == nullptr) return;
    for (const jboolean forTTL : {JNI_FALSE, JNI_TRUE}) {
      LuOffHeapEvictionData* record =
          asEvictionData(natives::getEvictionData_native(env_, manager_, handle(found), forTTL));
      EXPECT_TRUE(
          forTTL == JNI_TRUE
              ? natives::updateTTL(env_, caller_, handle(cache_.ttl), handle(record), time())
              : natives::updateLRU(env_, caller_, handle(cache_.lru), handle(record)));
      unpinRecord(record, JNI_GET_PIN);
    }
    unpinValue(found, NATIVE_TRANSIENT_GET_PIN);
  }

  // REQUIRES: a pin on the record, which goes. Evicts the entry that has its key.
  void evict(LuOffHeapEvictionData* record, uint32_t reason) {
    const jint key = numberOf(record->key);
    {
      const std::shared_lock<std::shared_mutex> open(cache_.clearing);
      const std::lock_guard<std::mutex> mine(cache_.keys[static_cast<std::size_t>(key)]);
      if (take(key)) ++evicted_;
    }
    unpinRecord(record, reason);
  }
  void evictFirst() {
    const jlongArray out = jni_.newLongArray({0});
    EXPECT_TRUE(natives::getEvictionList(env_, caller_, handle(cache_.lru), out));
    const jlong first = jni_.longsOf(out)[0];
    if (first != 0) evict(asEvictionData(first), JNI_EVICTLIST_PIN);
  }
  void expire() {
    const jlongArray list =
        jni_.adopt(natives::getTTLEvictionList(env_, caller_, handle(cache_.ttl), 20));
    for (const jlong one : jni_.longsOf(list)) evict(asEvictionData(one), JNI_GET_PIN);
  }
  void scan() {
    const jlongArray list =
        jni_.adopt(natives::getVoskaEvictionList(env_, caller_, handle(cache_.ttl), time()));
    for (const jlong one : jni_.longsOf(list)) unpinRecord(asEvictionData(one), JNI_EVICTLIST_PIN);
  }
  void look() {
    EXPECT_GE(natives::getQueueCount(env_, caller_, handle(cache_.lru)), 0);
    EXPECT_NE(natives::getMinimumTime(env_, caller_, handle(cache_.ttl)), 0);
    natives::maxSize(env_, caller_, mapHandle());
    EXPECT_LE(natives::size(env_, caller_, mapHandle()), kKeys);
  }

  void query() {
    const jlong last = cache_.revision.load(std::memory_order_relaxed);
    const jlong from = random_() % 4 == 0 ? 0 : seen_;
    const std::vector<jlong> starts(kOwners, from);
    const std::vector<jlong> ends(kOwners, last);
    natives::queryRevisionAndPinWithBounds(env_, caller_, mapHandle(), result_,
                                           static_cast<jint>(number_), jni_.newLongArray(starts),
                                           jni_.newLongArray(ends));
    seen_ = last;
    int64_t before = INT64_MIN;
    int64_t ownerBefore = 0;
    for (int64_t i = 0; i < area_[0]; ++i) {
      const int64_t* row = &area_[static_cast<std::size_t>(1 + 9 * i)];
      LuOffHeapValue* found = asValue(row[0]);
      auto* key = headerOfData(reinterpret_cast<void*>(row[1]));
      auto* held = headerOfData(reinterpret_cast<void*>(row[3]));
      check(numberOf(key), bufferData(held), static_cast<std::size_t>(row[4]));
      if (row[5] != ownerBefore) before = INT64_MIN;
      if (row[6] < before || row[6] <= from || row[6] > last) ++torn_;
      ownerBefore = row[5];
      before = row[6];
      unpinToFree(env_, held, JAVA_TRANSPORT_PIN | JNI_CONVERT_FROM_JAVA_PIN);
      unpinToFree(env_, key, JAVA_TRANSPORT_PIN | JNI_CONVERT_FROM_JAVA_PIN);
      unpinValue(found, JNI_QUERYREVISION_PIN);
      ++reported_;
    }
  }

  void clear() {
    const std::unique_lock<std::shared_mutex> closed(cache_.clearing);
    EXPECT_TRUE(natives::clear(env_, caller_, mapHandle()));
    EXPECT_TRUE(natives::clearEvictionQueue(env_, caller_, handle(cache_.lru)));
    EXPECT_TRUE(natives::clearEvictionQueue(env_, caller_, handle(cache_.ttl)));
  }

  jlong time() { return 10 + static_cast<jlong>(random_() % 60); }

  Cache& cache_;
  const int number_;
  ScriptedJni jni_;
  std::mt19937_64 random_;
  JNIEnv* env_;
  jobject caller_;
  jobject manager_;
  std::vector<int64_t> area_;
  jobject result_;
  jint length_ = 0;
  jlong seen_ = 0;
};

class EvictionThreads : public MapTest {};

TEST_F(EvictionThreads, ABoundedCacheUnderEveryOperationAtOnce) {
  const uint64_t seed = seedOf("EvictionThreads");
  deleteMap(map);
  map = makeMap(2, 0.75F);
  Cache cache;
  cache.map = map;
  cache.lru = natives::asEvictionQueue(natives::allocateEvictionQueue(env, caller));
  cache.ttl = natives::asEvictionQueue(natives::allocateEvictionQueue(env, caller));
  std::atomic<int64_t> puts{0};
  std::atomic<int64_t> updated{0};
  std::atomic<int64_t> found{0};
  std::atomic<int64_t> evicted{0};
  std::atomic<int64_t> reported{0};
  std::atomic<int64_t> torn{0};
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      // Environments keep every reference and call; a fresh one now and then bounds them.
      for (uint64_t round = 0; std::chrono::steady_clock::now() < end; ++round) {
        Worker worker(cache, i, seed + static_cast<uint64_t>(i) * 1000003 + round);
        for (int step = 0; step < 400; ++step) worker.step();
        puts += worker.put_;
        updated += worker.updated_;
        found += worker.found_;
        evicted += worker.evicted_;
        reported += worker.reported_;
        torn += worker.torn_;
      }
      EXPECT_EQ(heldLockCount(), 0);
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(torn, 0);
  EXPECT_GT(puts, 0);
  EXPECT_GT(updated, 0);
  EXPECT_GT(found, 0);
  EXPECT_GT(evicted, 0);
  EXPECT_GT(reported, 0);
  checkMap(env, map);
  const jlong size = natives::size(env, caller, handle(map));
  for (LuOffHeapEvictionDataQueue* queue : {cache.lru, cache.ttl}) {
    EXPECT_EQ(natives::getQueueCount(env, caller, handle(queue)), size);
    EXPECT_TRUE(natives::freeEvictionQueue(env, caller, handle(queue)));
  }
}

}  // namespace
}  // namespace nimbra::test
