// The map beside a plain oracle under random operations, and under several threads at once.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test {
namespace {

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

class MapOracle : public MapTest {
 protected:
  static constexpr int kKeys = 24;
  static constexpr uint16_t kOwners = 4;

  struct Expected {
    std::string value;
    uint16_t owner;
    int64_t revision;
  };

  // The keys of one owner in the order that its queue has to have.
  using Order = std::vector<std::string>;

  void enqueue(const std::string& key, uint16_t owner, int64_t revision) {
    Order& order = orders[owner];
    auto at = order.begin();
    while (at != order.end() && oracle[*at].revision <= revision) ++at;
    order.insert(at, key);
    highWater[owner] = std::max(highWater[owner], order.size());
  }
  void dequeue(const std::string& key) {
    Order& order = orders[oracle[key].owner];
    order.erase(std::find(order.begin(), order.end(), key));
  }

  void expectAgreement() {
    Rows rows;
    for (const auto& [key, expected] : oracle) {
      rows[key] = Row{expected.value, expected.owner, expected.revision};
    }
    ASSERT_EQ(contentsOf(map), rows);
    for (uint16_t owner = 0; owner < map->numQueues; ++owner) {
      Order seen;
      for (const LuOffHeapValue* value : valuesOf(map->revisionQueue[owner])) {
        seen.push_back(bytesOf(value->key));
      }
      ASSERT_EQ(seen, orders[owner]) << "order of owner " << owner;
      ASSERT_EQ(map->revisionQueue[owner]->maxCount, highWater[owner]);
    }
    checkMap(env, map, extraPins);
  }

  std::map<std::string, Expected> oracle;
  std::map<uint16_t, Order> orders;
  std::map<uint16_t, std::size_t> highWater;
  std::map<const LuOffHeapValue*, int> extraPins;
};

TEST_F(MapOracle, RandomOperations) {
  const uint64_t seed = seedOf("MapOracle");
  std::mt19937_64 random(seed);
  const auto below = [&random](uint64_t bound) { return random() % bound; };
  deleteMap(map);
  map = makeMap(4, 0.75F);

  // What Java still holds, with the text that it has to go on reading.
  struct Held {
    LuOffHeapValue* value;
    uint32_t reason;
    std::string text;
    bool inMap;
  };
  std::deque<Held> held;
  const auto hold = [&](LuOffHeapValue* value, uint32_t reason, std::string text, bool inMap) {
    held.push_back({value, reason, std::move(text), inMap});
    if (inMap) ++extraPins[value];
  };
  const auto letGo = [&] {
    const Held& oldest = held.front();
    if (oldest.inMap) {
      if (--extraPins[oldest.value] == 0) extraPins.erase(oldest.value);
    } else {
      EXPECT_EQ(bytesOf(oldest.value->value), oldest.text);
    }
    unpinValue(oldest.value, oldest.reason);
    held.pop_front();
  };

  for (int step = 0; step < 3000 && !HasFatalFailure(); ++step) {
    const std::string key = "key" + std::to_string(below(kKeys));
    const std::string value = std::string(below(200), static_cast<char>('a' + below(26)));
    const auto owner = static_cast<uint16_t>(below(kOwners));
    const auto revision = static_cast<int64_t>(below(12)) - 2;
    const auto present = oracle.find(key);
    switch (below(8)) {
      case 0:
      case 1: {
        LuOffHeapValue* made = insertPinned(key, value, owner, revision);
        ASSERT_EQ(made != nullptr, present == oracle.end());
        if (made == nullptr) break;
        enqueue(key, owner, revision);
        oracle[key] = {value, owner, revision};
        hold(made, JNI_INSERTED_PIN, value, true);
        break;
      }
      case 2:
      case 3: {
        LuOffHeapValue* snapshot = updatePinned(key, value, owner, revision);
        ASSERT_EQ(snapshot != nullptr, present != oracle.end());
        if (snapshot == nullptr) break;
        ASSERT_EQ(bytesOf(snapshot->value), present->second.value);
        ASSERT_EQ(snapshot->revisionOwner, present->second.owner);
        ASSERT_EQ(snapshot->revisionNumber, present->second.revision);
        dequeue(key);
        enqueue(key, owner, revision);
        hold(snapshot, ALLOCATION_PIN, present->second.value, false);
        present->second = {value, owner, revision};
        break;
      }
      case 4: {
        LuOffHeapValue* removed = removePinned(key);
        ASSERT_EQ(removed != nullptr, present != oracle.end());
        if (removed == nullptr) break;
        for (Held& one : held) {
          if (one.value != removed || !one.inMap) continue;
          one.inMap = false;
          one.text = present->second.value;
        }
        extraPins.erase(removed);
        dequeue(key);
        hold(removed, JNI_REMOVED_PIN, present->second.value, false);
        oracle.erase(present);
        break;
      }
      case 5:
      case 6: {  // a get, half of them with a touch
        const bool touch = below(2) == 1;
        ByteBufferHeader* keyBuffer = buffer(key);
        LuOffHeapValue* found = asValue(
            natives::getLuValue_ByteBuffer(env, caller, handle(map), javaBuffer(keyBuffer),
                                           hashOf(key), 0, static_cast<jboolean>(touch), revision));
        ASSERT_EQ(natives::containsKey(env, caller, handle(map), javaBuffer(keyBuffer)) == JNI_TRUE,
                  present != oracle.end());
        drop(keyBuffer);
        ASSERT_EQ(found != nullptr, present != oracle.end());
        if (found == nullptr) break;
        ASSERT_EQ(bytesOf(found->value), present->second.value);
        hold(found, NATIVE_TRANSIENT_GET_PIN, present->second.value, true);
        if (touch) {
          const int64_t moved = revision == -1 ? present->second.revision : revision;
          dequeue(key);
          enqueue(key, present->second.owner, moved);
          present->second.revision = moved;
        }
        break;
      }
      default:
        if (!held.empty()) letGo();
    }
    if (below(400) == 0) {
      EXPECT_TRUE(natives::clear(env, caller, handle(map)));
      for (Held& one : held) {
        if (!one.inMap) continue;
        one.inMap = false;
        one.text = bytesOf(one.value->value);
      }
      extraPins.clear();
      oracle.clear();
      for (auto& [number, order] : orders) order.clear();
    }
    SCOPED_TRACE("step " + std::to_string(step));
    expectAgreement();
    while (held.size() > 40) letGo();
  }
  while (!held.empty()) letGo();
  expectAgreement();
}

// ---- Many threads ------------------------------------------------------------------------

// A value says of which key it is, in every byte, so that a torn or foreign one is seen at once.
std::string textFor(int key, std::size_t length) {
  return std::string(length, static_cast<char>('A' + key));
}

bool isWholeTextFor(int key, const uint8_t* bytes, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) {
    if (bytes[i] != 'A' + key) return false;
  }
  return length > 0;
}

class MapThreads : public MapTest {
 protected:
  static constexpr int kThreads = 4;
  static constexpr int kKeys = 6;
};

// One thread's calls into the map, through an environment of its own.
class Worker {
 public:
  Worker(LuOffHeapMap* map, uint64_t seed) : map_(map), random_(seed), env_(jni_.env()) {
    caller_ = jni_.newMapObject();
    for (int key = 0; key < kKeys; ++key) {
      keys_.push_back(jni_.newByteArray({'k', static_cast<std::uint8_t>(key)}));
      keyBuffers_.push_back(makeBuffer(std::string("k") + static_cast<char>(key)));
    }
  }
  ~Worker() {
    for (ByteBufferHeader* held : keyBuffers_) unpinToFree(env_, held, ALLOCATION_PIN);
  }

  void step() {
    const int key = static_cast<int>(random_() % kKeys);
    switch (random_() % 10) {
      case 0:
      case 1:
      case 2: insert(key); break;
      case 3:
      case 4:
      case 5: update(key); break;
      case 6: remove(key); break;
      case 7: contains(key); break;
      case 8: readUnderTheBucketSet(key); break;
      default: touch(key);
    }
  }

  int64_t inserted = 0;
  int64_t removed = 0;
  int64_t updated = 0;
  int64_t torn = 0;

 private:
  static constexpr int kKeys = 6;

  static int32_t hashOfKey(int key) { return 31 * 'k' + key; }

  ByteBufferHeader* makeBuffer(const std::string& text) {
    ByteBufferHeader* made = allocateByteBufferData(env_, text.size(), "DirectByteBuffer");
    std::copy(text.begin(), text.end(), bufferData(made));
    pin(env_, made, ALLOCATION_PIN);
    return made;
  }
  ByteBufferHeader* makeValue(int key) {
    return makeBuffer(textFor(key, 1 + static_cast<std::size_t>(random_() % 120)));
  }
  uint16_t owner() { return static_cast<uint16_t>(random_() % 3); }
  int64_t revision() { return static_cast<int64_t>(random_() % 50); }

  // REQUIRES: a pin on the record, and nobody updates what it shows (snapshot or removed entry).
  void check(int key, const LuOffHeapValue* value) {
    if (!isWholeTextFor(key, bufferData(value->value), value->value->dataSize)) ++torn;
  }

  void insert(int key) {
    ByteBufferHeader* value = makeValue(key);
    LuOffHeapValue* made =
        insertAndPin(env_, caller_, map_, &keys_[static_cast<std::size_t>(key)],
                     OBJECT_TYPE_JBYTE_ARRAY, keyBuffers_[static_cast<std::size_t>(key)],
                     hashOfKey(key), true, value, owner(), revision());
    unpinToFree(env_, value, ALLOCATION_PIN);
    if (made == nullptr) return;
    ++inserted;
    unpinLuOffHeapMapValue(env_, made, JNI_INSERTED_PIN);
  }

  void update(int key) {
    ByteBufferHeader* value = makeValue(key);
    LuOffHeapValue* snapshot = updateAndPin(
        env_, caller_, map_, &keys_[static_cast<std::size_t>(key)], OBJECT_TYPE_JBYTE_ARRAY,
        nullptr, hashOfKey(key), true, value, owner(), revision());
    unpinToFree(env_, value, ALLOCATION_PIN);
    if (snapshot == nullptr) return;
    ++updated;
    check(key, snapshot);
    unpinLuOffHeapMapValue(env_, snapshot, ALLOCATION_PIN);
  }

  void remove(int key) {
    LuOffHeapValue* taken = removeAndPin(env_, caller_, map_, &keys_[static_cast<std::size_t>(key)],
                                         OBJECT_TYPE_JBYTE_ARRAY, nullptr, hashOfKey(key), true);
    if (taken == nullptr) return;
    ++removed;
    check(key, taken);
    unpinLuOffHeapMapValue(env_, taken, JNI_REMOVED_PIN);
  }

  void contains(int key) {
    natives::containsKeyWithHashCodeBA(env_, caller_, handle(map_),
                                       keys_[static_cast<std::size_t>(key)], hashOfKey(key));
  }

  void touch(int key) {
    LuOffHeapValue* found = asValue(natives::getLuValue_Number(
        env_, caller_, handle(map_), hashOfKey(key), 0, JNI_TRUE, revision(), 0.5));
    EXPECT_EQ(found, nullptr) << "no number is stored";
    const jlongArray attributes = jni_.newLongArray({0, 0, 0, 0});
    found = asValue(natives::getLuValue_ByteArray(env_, caller_, handle(map_), attributes,
                                                  keys_[static_cast<std::size_t>(key)],
                                                  hashOfKey(key), 0, JNI_TRUE, revision()));
    if (found != nullptr) unpinLuOffHeapMapValue(env_, found, JNI_GET_PIN);
  }

  // The record's pin does not hold its value buffer: that is pinned while the set is held, and
  // read afterwards whatever others do to the entry.
  void readUnderTheBucketSet(int key) {
    BucketSet* set = getBucketSet(map_->map, static_cast<uint32_t>(hashOfKey(key)));
    ASSERT_EQ(lockBucketSet(set), 0);
    LuOffHeapValue search = {};
    search.hashCode = hashOfKey(key);
    auto* found = static_cast<LuOffHeapValue*>(
        hashtable_getAndPin(env_, caller_, map_->map, &keys_[static_cast<std::size_t>(key)],
                            OBJECT_TYPE_JBYTE_ARRAY, &search, false, JNI_GET_PIN));
    ByteBufferHeader* value = nullptr;
    if (found != nullptr) {
      value = found->value;
      pin(env_, value, JNI_GET_PIN);
    }
    unlockBucketSet(set);
    if (found == nullptr) return;
    if (!isWholeTextFor(key, bufferData(value), value->dataSize)) ++torn;
    unpinToFree(env_, value, JNI_GET_PIN);
    unpinLuOffHeapMapValue(env_, found, JNI_GET_PIN);
  }

  ScriptedJni jni_;
  LuOffHeapMap* map_;
  std::mt19937_64 random_;
  JNIEnv* env_;
  jobject caller_;
  std::vector<jbyteArray> keys_;
  std::vector<ByteBufferHeader*> keyBuffers_;
};

TEST_F(MapThreads, WritersAndReadersOfAFewKeys) {
  const uint64_t seed = seedOf("MapThreads");
  deleteMap(map);
  map = makeMap(2, 0.75F);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  std::atomic<int64_t> inserted{0};
  std::atomic<int64_t> removed{0};
  std::atomic<int64_t> updated{0};
  std::atomic<int64_t> torn{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      // Environments keep every reference and call; a fresh one now and then bounds them.
      for (uint64_t round = 0; std::chrono::steady_clock::now() < end; ++round) {
        Worker worker(map, seed + static_cast<uint64_t>(i) * 1000003 + round);
        for (int step = 0; step < 500; ++step) worker.step();
        inserted += worker.inserted;
        removed += worker.removed;
        updated += worker.updated;
        torn += worker.torn;
      }
      EXPECT_EQ(heldLockCount(), 0);
    });
  }
  // A reader of the queues, as a revision query walks them: it may pin what it sees, and read it.
  threads.emplace_back([&] {
    ScriptedJni own;
    while (std::chrono::steady_clock::now() < end) {
      ASSERT_EQ(rdlock(own.env(), map), 0);
      const uint32_t count = map->numQueues;
      std::vector<LuOffHeapRevisionOrderQueue*> queues(map->revisionQueue,
                                                       map->revisionQueue + count);
      ASSERT_EQ(unlock(own.env(), map), 0);
      for (LuOffHeapRevisionOrderQueue* queue : queues) {
        std::vector<std::pair<int, ByteBufferHeader*>> pinned;
        ASSERT_EQ(lockQueue(queue), 0);
        int64_t last = INT64_MIN;
        for (LuQueueEntry* at = queue->first; at != nullptr; at = at->next) {
          const auto* value = static_cast<LuOffHeapValue*>(at);
          EXPECT_LE(last, value->revisionNumber);
          last = value->revisionNumber;
          pin(own.env(), value->value, JNI_QUERYREVISION_PIN);
          pinned.emplace_back(bufferData(value->key)[1], value->value);
        }
        ASSERT_EQ(unlockQueue(queue), 0);
        for (const auto& [key, value] : pinned) {
          if (!isWholeTextFor(key, bufferData(value), value->dataSize)) ++torn;
          unpinToFree(own.env(), value, JNI_QUERYREVISION_PIN);
        }
      }
    }
  });
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(torn, 0);
  EXPECT_GT(inserted, 0);
  EXPECT_GT(updated, 0);
  EXPECT_GT(removed, 0);
  EXPECT_EQ(hashtable_size(env, map->map), inserted - removed);
  checkMap(env, map);
}

}  // namespace
}  // namespace nimbra::test
