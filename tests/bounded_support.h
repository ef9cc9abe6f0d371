// The natives of bounded maps under short names, and a fixture that calls them on one or more
// partitions and checks every figure and every queue of a quiet map.

#pragma once

#include <gtest/gtest.h>
#include <jni.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "com_velt_rz_corvane_nimbra_BoundedNatives.h"
#include "face_support.h"

namespace nimbra::test::bounded {

inline constexpr auto& allocateBound = Java_com_velt_rz_corvane_nimbra_BoundedNatives_allocateBound;
inline constexpr auto& freeBound = Java_com_velt_rz_corvane_nimbra_BoundedNatives_freeBound;
inline constexpr auto& bytes = Java_com_velt_rz_corvane_nimbra_BoundedNatives_bytes;
inline constexpr auto& entries = Java_com_velt_rz_corvane_nimbra_BoundedNatives_entries;
inline constexpr auto& put = Java_com_velt_rz_corvane_nimbra_BoundedNatives_put;
inline constexpr auto& get = Java_com_velt_rz_corvane_nimbra_BoundedNatives_get;
inline constexpr auto& pin = Java_com_velt_rz_corvane_nimbra_BoundedNatives_pin;
inline constexpr auto& containsKey = Java_com_velt_rz_corvane_nimbra_BoundedNatives_containsKey;
inline constexpr auto& remove = Java_com_velt_rz_corvane_nimbra_BoundedNatives_remove;
inline constexpr auto& clear = Java_com_velt_rz_corvane_nimbra_BoundedNatives_clear;
inline constexpr auto& evict = Java_com_velt_rz_corvane_nimbra_BoundedNatives_evict;
inline constexpr auto& query = Java_com_velt_rz_corvane_nimbra_BoundedNatives_query;
inline constexpr auto& releaseQueried =
    Java_com_velt_rz_corvane_nimbra_BoundedNatives_releaseQueried;

enum Policy : jint { kNone = 0, kLru = 1, kLfu = 2 };
enum Mode : jint { kPut = 0, kPutIfAbsent = 1, kReplace = 2 };
inline constexpr jint kNoRoom = -2;
inline constexpr jlong kKeep = INT64_MIN;  // as a new deadline
inline constexpr jlong kNever = INT64_MAX;
inline constexpr int64_t kQueryWords = 9;

// What the natives are given of one partition.
struct Partition {
  LuOffHeapMap* map = nullptr;
  jlong bound = 0;
  jlong queue = 0;
  jint policy = kNone;
  jlong ttl = 0;

  jlong handle() const { return natives::handle(map); }
};

// Entries taken out by an eviction: pinned until release.
class Evicted {
 public:
  struct Entry {
    face::Place key;
    face::Place value;
    jlong revision;
  };

  Evicted(ScriptedJni& jni, jlongArray out, jint count) : jni_(jni), out_(out), count_(count) {
    const std::vector<jlong> words = jni_.longsOf(out_);
    for (size_t at = 0; at < static_cast<size_t>(count) * face::kWordsPerEntry;
         at += face::kWordsPerEntry) {
      list.push_back({face::placeAt(words, at), face::placeAt(words, at + 2), words.at(at + 4)});
    }
  }
  ~Evicted() {
    if (count_ > 0) face::unpinAll(jni_.env(), nullptr, out_, 0, count_);
  }
  Evicted(const Evicted&) = delete;
  Evicted& operator=(const Evicted&) = delete;

  std::vector<std::string> keys() const {
    std::vector<std::string> result;
    for (const Entry& entry : list) result.emplace_back(entry.key.text());
    return result;
  }

  std::vector<Entry> list;

 private:
  ScriptedJni& jni_;
  jlongArray out_;
  jint count_;
};

// The entries of one query: pinned until the object goes.
class Queried {
 public:
  struct Entry {
    jlong record;
    face::Place key;
    face::Place value;
    int64_t owner;
    int64_t revision;
  };

  Queried(ScriptedJni& jni, const Partition& partition, jint bookmark, jlong start, jlong end)
      : jni_(jni), words_(static_cast<size_t>(1 + kQueryWords * (end - start)), -1) {
    const jobject result =
        jni.newDirectBuffer(words_.data(), static_cast<jlong>(words_.size() * sizeof(int64_t)));
    query(jni.env(), nullptr, partition.handle(), result, bookmark, start, end);
    for (int64_t i = 0; i < words_.at(0); ++i) {
      const int64_t* at = &words_.at(static_cast<size_t>(1 + i * kQueryWords));
      list.push_back({at[0],
                      {reinterpret_cast<const char*>(static_cast<intptr_t>(at[1])), at[2]},
                      {reinterpret_cast<const char*>(static_cast<intptr_t>(at[3])), at[4]},
                      at[5],
                      at[6]});
    }
  }
  ~Queried() {
    for (const Entry& entry : list) {
      releaseQueried(jni_.env(), nullptr, entry.record, natives::handle(entry.key.bytes),
                     natives::handle(entry.value.bytes));
    }
  }
  Queried(const Queried&) = delete;
  Queried& operator=(const Queried&) = delete;

  std::vector<std::string> keys() const {
    std::vector<std::string> result;
    for (const Entry& entry : list) result.emplace_back(entry.key.text());
    return result;
  }

  std::vector<Entry> list;

 private:
  ScriptedJni& jni_;
  std::vector<int64_t> words_;
};

// One thread's calls on one partition.
class Caller {
 public:
  Caller(ScriptedJni& jni, const Partition& partition) : jni_(jni), partition_(partition) {}

  jint put(std::string_view key, jint hash, std::string_view value, jlong revision, jlong now,
           jlong deadline, jint mode) {
    const Partition& p = partition_;
    return bounded::put(jni_.env(), nullptr, p.handle(), p.bound, p.queue, p.policy, p.ttl,
                        array(key), hash, array(value), revision, now, deadline, mode);
  }
  std::optional<std::string> get(std::string_view key, jint hash, jlong now, jlong newDeadline) {
    const Partition& p = partition_;
    const jbyteArray value = bounded::get(jni_.env(), nullptr, p.handle(), p.queue, p.policy, p.ttl,
                                          array(key), hash, now, newDeadline, nullptr);
    if (value == nullptr) return std::nullopt;
    const std::vector<uint8_t> found = jni_.bytesOf(jni_.adopt(value));
    return std::string(found.begin(), found.end());
  }
  // The pin's handle, 0 when absent; `words` receives address, length, revision.
  jlong pin(std::string_view key, jint hash, jlong now, jlong newDeadline,
            std::vector<jlong>* words, size_t outLength = 3) {
    const Partition& p = partition_;
    const jlongArray out = jni_.newLongArray(std::vector<jlong>(outLength));
    const jlong pinned = bounded::pin(jni_.env(), nullptr, p.handle(), p.queue, p.policy, p.ttl,
                                      array(key), hash, now, newDeadline, out);
    *words = jni_.longsOf(out);
    return pinned;
  }
  void unpin(jlong pinned) { face::unpin(jni_.env(), nullptr, pinned); }
  bool containsKey(std::string_view key, jint hash, jlong now) {
    const jboolean present =
        bounded::containsKey(jni_.env(), nullptr, partition_.handle(), array(key), hash, now);
    EXPECT_TRUE(present == JNI_TRUE || present == JNI_FALSE);
    return present == JNI_TRUE;
  }
  jint remove(std::string_view key, jint hash, jlong now) {
    const Partition& p = partition_;
    return bounded::remove(jni_.env(), nullptr, p.handle(), p.bound, p.queue, p.ttl, array(key),
                           hash, now);
  }
  bool clear() {
    const Partition& p = partition_;
    return bounded::clear(jni_.env(), nullptr, p.handle(), p.bound, p.queue, p.ttl) == JNI_TRUE;
  }
  // `capacity`: entries that fit into the array; `spare` longs make no further one fit.
  std::unique_ptr<Evicted> evict(jint count, bool byDeadline, jlong now, jint capacity,
                                 jint spare = 0) {
    const Partition& p = partition_;
    const jlongArray out = jni_.newLongArray(
        std::vector<jlong>(static_cast<size_t>(capacity * face::kWordsPerEntry + spare)));
    const jint evicted = bounded::evict(jni_.env(), nullptr, p.handle(), p.bound, p.queue, p.ttl,
                                        count, byDeadline ? JNI_TRUE : JNI_FALSE, now, out);
    EXPECT_GE(evicted, 0);
    EXPECT_LE(evicted, capacity);
    return std::make_unique<Evicted>(jni_, out, evicted);
  }

  ScriptedJni& jni() { return jni_; }
  const Partition& partition() const { return partition_; }

 private:
  jbyteArray array(std::string_view text) {
    return jni_.newByteArray(std::vector<uint8_t>(text.begin(), text.end()));
  }

  ScriptedJni& jni_;
  const Partition partition_;
};

// Which policy and whether the entries expire.
struct Kind {
  const char* name;
  jint policy;
  bool timed;
};
inline std::ostream& operator<<(std::ostream& out, const Kind& kind) { return out << kind.name; }
inline constexpr Kind kKinds[] = {
    {"Plain", kNone, false}, {"Lru", kLru, false},     {"Lfu", kLfu, false},
    {"Timed", kNone, true},  {"TimedLru", kLru, true}, {"TimedLfu", kLfu, true},
};

inline std::vector<LuOffHeapEvictionData*> recordsOf(jlong queueHandle) {
  std::vector<LuOffHeapEvictionData*> result;
  if (queueHandle == 0) return result;
  const LuOffHeapEvictionDataQueue* queue = natives::asEvictionQueue(queueHandle);
  for (LuQueueEntry* at = queue->first; at != nullptr && result.size() <= queue->count;
       at = at->next) {
    result.push_back(static_cast<LuOffHeapEvictionData*>(at));
  }
  return result;
}

// The keys of a queue from the head, which goes first.
inline std::vector<std::string> orderOf(jlong queue) {
  std::vector<std::string> keys;
  for (const LuOffHeapEvictionData* record : recordsOf(queue)) keys.push_back(bytesOf(record->key));
  return keys;
}

using Keys = std::vector<std::string>;

// The test seed from the environment, or a random one; printed.
inline uint64_t testSeed() {
  const char* given = std::getenv("NIMBRA_TEST_SEED");
  const uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device{}();
  std::printf("NIMBRA_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
  return seed;
}

// Partitions that share one bound. The partition of the short calls is the first; its map is the
// fixture's. Nothing is made before `open`.
class BoundedTest : public MapTest {
 protected:
  void TearDown() override {
    close();
    MapTest::TearDown();
  }

  void open(jint policy, bool timed, jlong maximumBytes = 0, jlong maximumEntries = 0,
            int partitionCount = 1, jint bucketSets = 1, float loadFactor = 0.75F) {
    close();
    maximumBytes_ = maximumBytes > 0 ? maximumBytes : kNever;
    maximumEntries_ = maximumEntries > 0 ? maximumEntries : kNever;
    const jlong bound = allocateBound(env, nullptr, maximumBytes, maximumEntries);
    ASSERT_NE(bound, 0);
    for (int i = 0; i < partitionCount; ++i) {
      Partition made;
      made.map = makeMap(bucketSets, loadFactor);
      made.bound = bound;
      made.policy = policy;
      if (policy != kNone) made.queue = natives::allocateEvictionQueue(env, nullptr);
      if (timed) made.ttl = natives::allocateEvictionQueue(env, nullptr);
      partitions.push_back(made);
    }
    deleteMap(map);
    map = partitions[0].map;
    calls.emplace(jni, partitions[0]);
  }
  void open(const Kind& kind, jlong maximumBytes = 0, jlong maximumEntries = 0) {
    open(kind.policy, kind.timed, maximumBytes, maximumEntries);
  }
  // Leaves the fixture's map, empty.
  void close() {
    if (partitions.empty()) return;
    for (const Partition& partition : partitions) {
      EXPECT_TRUE(Caller(jni, partition).clear());
      for (const jlong queue : {partition.queue, partition.ttl}) {
        if (queue != 0) {
          EXPECT_TRUE(natives::freeEvictionQueue(env, nullptr, queue));
        }
      }
      if (partition.map != map) deleteMap(partition.map);
    }
    EXPECT_EQ(boundBytes(), 0);
    EXPECT_EQ(boundEntries(), 0);
    freeBound(env, nullptr, partitions[0].bound);
    partitions.clear();
  }

  const Partition& partition() const { return partitions.at(0); }
  jlong boundBytes() { return bytes(env, nullptr, partition().bound); }
  jlong boundEntries() { return entries(env, nullptr, partition().bound); }

  // Calls with the fixture's clock and the next revision.
  jint put(std::string_view key, std::string_view value, jlong deadline = kNever,
           jint mode = kPut) {
    return calls->put(key, hashOf(key), value, ++revision, now, deadline, mode);
  }
  std::optional<std::string> get(std::string_view key, jlong newDeadline = kKeep) {
    return calls->get(key, hashOf(key), now, newDeadline);
  }
  void pinAndUnpin(std::string_view key, jlong newDeadline = kKeep) {
    std::vector<jlong> words;
    const jlong pinned = calls->pin(key, hashOf(key), now, newDeadline, &words);
    ASSERT_NE(pinned, 0);
    calls->unpin(pinned);
  }
  bool containsKey(std::string_view key) { return calls->containsKey(key, hashOf(key), now); }
  jint remove(std::string_view key) { return calls->remove(key, hashOf(key), now); }
  Keys evictKeys(jint count, bool byDeadline = false, jint capacity = 16) {
    return calls->evict(count, byDeadline, now, capacity)->keys();
  }
  Keys order() { return orderOf(partition().queue); }
  Keys timeOrder() { return orderOf(partition().ttl); }

  // The bound's figures against what the partitions themselves count.
  void checkFigures() {
    jlong usedBytes = 0;
    jlong usedEntries = 0;
    for (const Partition& each : partitions) {
      usedBytes += natives::getCurrentBytesUsed(env, caller, each.handle());
      usedEntries += natives::size(env, caller, each.handle());
    }
    EXPECT_EQ(boundBytes(), usedBytes);
    EXPECT_EQ(boundEntries(), usedEntries);
    EXPECT_LE(boundBytes(), maximumBytes_);
    EXPECT_LE(boundEntries(), maximumEntries_);
  }

  // Every invariant of quiet partitions: the figures, the maps' own, each entry's records exactly
  // once in their queues, in order, with their pins and those of the key.
  void check() {
    checkFigures();
    for (const Partition& each : partitions) {
      checkMap(env, each.map);
      checkEvictionQueue(each, each.queue, false);
      checkEvictionQueue(each, each.ttl, true);
      const int records = (each.queue != 0 ? 1 : 0) + (each.ttl != 0 ? 1 : 0);
      for (const LuOffHeapValue* entry : entriesOf(each.map)) {
        EXPECT_EQ(entry->key->pins, 1 + records) << bytesOf(entry->key);
        EXPECT_EQ(entry->value->pins, 1) << bytesOf(entry->key);
        EXPECT_EQ(entry->evictionData != nullptr, each.queue != 0);
        EXPECT_EQ(entry->ttlEvictionData != nullptr, each.ttl != 0);
      }
    }
  }

  std::vector<Partition> partitions;
  std::optional<Caller> calls;
  jlong revision = 0;
  jlong now = 1000;

 private:
  void checkEvictionQueue(const Partition& each, jlong handle, bool timed) {
    if (handle == 0) return;
    const LuOffHeapEvictionDataQueue* queue = natives::asEvictionQueue(handle);
    EXPECT_TRUE(isFree(&natives::asEvictionQueue(handle)->mutex));
    std::set<const LuOffHeapEvictionData*> queued;
    const LuOffHeapEvictionData* before = nullptr;
    for (const LuOffHeapEvictionData* record : recordsOf(handle)) {
      EXPECT_TRUE(queued.insert(record).second);
      EXPECT_EQ(record->prev, before);
      // The entry's slot and two places in the queue.
      EXPECT_EQ(record->pins, 3) << bytesOf(record->key);
      EXPECT_FALSE(record->keyHeaderCounted);
      if (before != nullptr && (timed || each.policy == kLfu)) {
        EXPECT_LE(before->metadata, record->metadata);
      }
      before = record;
    }
    EXPECT_EQ(queue->last, before);
    EXPECT_EQ(queue->count, queued.size());
    std::set<const LuOffHeapEvictionData*> carried;
    for (const LuOffHeapValue* entry : entriesOf(each.map)) {
      const LuOffHeapEvictionData* record = timed ? entry->ttlEvictionData : entry->evictionData;
      ASSERT_NE(record, nullptr) << bytesOf(entry->key);
      EXPECT_EQ(record->key, entry->key);
      carried.insert(record);
    }
    EXPECT_EQ(carried, queued);
  }

  jlong maximumBytes_ = kNever;
  jlong maximumEntries_ = kNever;
};

}  // namespace nimbra::test::bounded
