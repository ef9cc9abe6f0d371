// Threads against one another on very few overflow lists: holders of one lock, linking and splicing
// out of shared nodes, writers of a map, and a sweep through all of it.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "overflow_support.h"

namespace nimbra::test {
namespace {

constexpr auto kRunTime = std::chrono::milliseconds(1'000);

uint64_t seedOf(const char* test) {
  const char* given = std::getenv("NIMBRA_TEST_SEED");
  const uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device{}();
  std::cout << test << ": NIMBRA_TEST_SEED=" << seed << std::endl;
  return seed;
}

class OverflowStress : public OverflowTest {
 protected:
  static constexpr int kLists = 3;  // few enough for everybody to meet
  static constexpr int kThreads = 3;

  // Runs `work(thread, random)` on so many threads, and a sweep if asked for, until time is up.
  template <typename Work>
  void run(uint64_t seed, bool sweeping, Work work) {
    const auto end = std::chrono::steady_clock::now() + kRunTime;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        OverflowThread own;
        std::mt19937_64 random(seed + static_cast<uint64_t>(i));
        int rounds = 0;
        while (std::chrono::steady_clock::now() < end && !own.jni.pending()) {
          work(own, random);
          ++rounds;
        }
        EXPECT_FALSE(own.jni.pending().has_value()) << *own.jni.pending();
        EXPECT_GT(rounds, 0);
      });
    }
    if (sweeping) {
      threads.emplace_back([&] {
        OverflowThread own;
        std::mt19937_64 random(seed + 99);
        while (std::chrono::steady_clock::now() < end && !own.jni.pending()) {
          sweep(own.env, random);
        }
        EXPECT_FALSE(own.jni.pending().has_value()) << *own.jni.pending();
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(sweeping && offered == 0) << "the sweep never met an entry";
  }

  // One sweep over a few entries, resumed where the last one ended or begun at the busy lists.
  void sweep(JNIEnv* threadEnv, std::mt19937_64& random) {
    cacheIterator._index = static_cast<int32_t>(random() % kLists);
    cacheiter_init(threadEnv, 1, 1 + static_cast<int64_t>(random() % 20), random() % 2 == 0);
    while (LuOffHeapValue* value = cacheiter_next_evictable(threadEnv)) {
      EXPECT_EQ(overflow_metadata_get_hold_count(threadEnv, nodeOf(value)), 1U);
      EXPECT_TRUE(isFlagSet(in_memory, nodeOf(value)));
      // The chain or the test holds the record while the cursor rests on it.
      EXPECT_NE(unpinLuOffHeapMapValue(threadEnv, value, JNI_OVERFLOW_EVICTED_PIN), 0U);
      ++offered;
      if (random() % 8 == 0) break;
    }
    cacheiter_dispose(threadEnv);
  }

  int64_t offered = 0;
};

TEST_F(OverflowStress, OneHolderAtATime) {
  overflow_metadata node{};
  ASSERT_TRUE(overflow_metadata_lock_init(env, &node));
  int64_t counter = 0;
  std::atomic<int64_t> expected{0};
  run(seedOf("OneHolderAtATime"), false, [&](OverflowThread& own, std::mt19937_64& random) {
    const bool held = random() % 2 == 0 ? overflow_metadata_lock(own.env, "lock", &node)
                                        : overflow_metadata_trylock(own.env, "try", &node);
    if (!held) return;
    ++expected;
    ++counter;
    const uint64_t more = random() % 3;
    for (uint64_t i = 0; i < more; ++i) {
      EXPECT_TRUE(overflow_metadata_lock(own.env, "again", &node));
    }
    EXPECT_EQ(overflow_metadata_get_hold_count(own.env, &node), more + 1);
    for (uint64_t i = 0; i <= more; ++i) {
      EXPECT_TRUE(overflow_metadata_unlock(own.env, "unlock", &node));
    }
  });
  EXPECT_EQ(counter, expected);
  EXPECT_EQ(node.lock_depth, 0);
  EXPECT_TRUE(overflow_metadata_uninit_metadata(env, &node));
}

TEST_F(OverflowStress, LinkSpliceOutAndSweepCollide) {
  std::vector<LuOffHeapValue*> records;
  for (int i = 0; i < 24; ++i) {
    records.push_back(looseRecord(("key" + std::to_string(i)).c_str()));
    changeFlags(records.back(), in_memory, is_invalid | recently_used);
  }
  std::atomic<int64_t> linked{0};
  std::atomic<int64_t> left{0};
  run(seedOf("LinkSpliceOutAndSweepCollide"), true,
      [&](OverflowThread& own, std::mt19937_64& random) {
        overflow_metadata* node = nodeOf(records[random() % records.size()]);
        const uint64_t depth = random() % 3;
        if (random() % 2 == 0) {
          EXPECT_TRUE(overflow_metadata_lock(own.env, "link", node));
          if (node->next == nullptr) {
            nextList(static_cast<int>(random() % kLists));
            EXPECT_TRUE(overflow_metadata_link_to_header(own.env, node, true));
            ++linked;
          }
          EXPECT_TRUE(overflow_metadata_unlock(own.env, "link", node));
          return;
        }
        for (uint64_t i = 0; i < depth; ++i) {
          EXPECT_TRUE(overflow_metadata_lock(own.env, "splice", node));
        }
        EXPECT_TRUE(overflow_metadata_splice_out(own.env, node, depth > 0));
        ++left;
        if (depth > 0) {
          EXPECT_EQ(node->next, nullptr);
        }
        for (uint64_t i = 0; i < depth; ++i) {
          EXPECT_TRUE(overflow_metadata_unlock(own.env, "splice", node));
        }
      });
  EXPECT_GT(linked, 0);
  EXPECT_GT(left, 0);
  std::set<overflow_metadata*> expected;
  for (LuOffHeapValue* value : records) {
    EXPECT_EQ(depthOf(nodeOf(value)), 0);
    EXPECT_EQ(value->pins, 1);
    EXPECT_EQ(nodeOf(value)->next == nullptr, nodeOf(value)->prev == nullptr);
    if (nodeOf(value)->next != nullptr) expected.insert(nodeOf(value));
  }
  const auto nodes = checkLists();
  EXPECT_EQ(std::set<overflow_metadata*>(nodes.begin(), nodes.end()), expected);
  EXPECT_EQ(nodes.size(), expected.size());
  for (LuOffHeapValue* value : records) dropRecord(value);
}

TEST_F(OverflowStress, WritersOfAMapAndASweepCollide) {
  const auto makeBuffer = [](JNIEnv* threadEnv, const std::string& bytes) {
    ByteBufferHeader* made = allocateByteBufferData(threadEnv, bytes.size(), "DirectByteBuffer");
    std::copy(bytes.begin(), bytes.end(), bufferData(made));
    pin(threadEnv, made, ALLOCATION_PIN);
    return made;
  };
  std::atomic<int64_t> written{0};
  run(seedOf("WritersOfAMapAndASweepCollide"), true,
      [&](OverflowThread& own, std::mt19937_64& random) {
        const jobject self = own.jni.newMapObject();
        ByteBufferHeader* key = makeBuffer(own.env, "key" + std::to_string(random() % 16));
        ByteBufferHeader* value = makeBuffer(own.env, std::string(random() % 100, 'v'));
        const jobject javaKey =
            own.jni.newDirectBuffer(bufferData(key), static_cast<jlong>(key->dataSize));
        const int32_t hash = hashFn(key);
        const auto owner = static_cast<uint16_t>(random() % 2);
        LuOffHeapValue* done = nullptr;
        nextList(static_cast<int>(random() % kLists));
        switch (random() % 4) {
          case 0:
          case 1:
            done = insertAndPin(own.env, self, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, hash,
                                false, value, owner, 1);
            if (done != nullptr) unpinLuOffHeapMapValue(own.env, done, JNI_INSERTED_PIN);
            break;
          case 2:
            done = updateAndPin(own.env, self, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, hash,
                                false, value, owner, 2);
            if (done != nullptr) {
              EXPECT_TRUE(overflow_metadata_unlock(own.env, "update", nodeOf(done->hashNext)));
              unpinLuOffHeapMapValue(own.env, done, ALLOCATION_PIN);
            }
            break;
          default:
            done = removeAndGetAndPinLuOffHeapMap(own.env, self, map, javaKey, key, hash, false);
            if (done != nullptr) unpinLuOffHeapMapValue(own.env, done, JNI_REMOVED_PIN);
        }
        if (done != nullptr) ++written;
        unpinToFree(own.env, key, ALLOCATION_PIN);
        unpinToFree(own.env, value, ALLOCATION_PIN);
      });
  EXPECT_GT(written, 0);
  checkMap(env, map);
  std::set<overflow_metadata*> expected;
  for (LuOffHeapValue* entry : entriesOf(map)) expected.insert(nodeOf(entry));
  const auto nodes = checkLists();
  EXPECT_EQ(std::set<overflow_metadata*>(nodes.begin(), nodes.end()), expected);
  EXPECT_EQ(nodes.size(), expected.size());
}

}  // namespace
}  // namespace nimbra::test
