// A fixture for the tests of the sweep: entries in chosen lists, the sweep's natives, its figures,
// and a look at what the cursor holds.

#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "overflow_natives.h"

namespace nimbra::test {

// The counters of a sweep, live or as of the snapshot.
struct SweepCounters {
  int64_t locked = 0;
  int64_t notInMemory = 0;
  int64_t rejected = 0;
  int64_t invalid = 0;
  int64_t busy = 0;
  int64_t null = 0;
  int64_t lists = 0;
  int64_t attempts = 0;
  int64_t loops = 0;

  bool operator==(const SweepCounters&) const = default;

  static SweepCounters now() {
    const CacheIterator& at = cacheIterator;
    return {at._num_items_locked, at.not_in_mem,     at.reject_lru,
            at.invalid_node,      at.trylock_failed, at.null_node,
            at.head_node,         at.lock_attempts,  at._n_loops};
  }
};
inline std::ostream& operator<<(std::ostream& out, const SweepCounters& counters) {
  return out << "{locked " << counters.locked << ", not in memory " << counters.notInMemory
             << ", rejected " << counters.rejected << ", invalid " << counters.invalid << ", busy "
             << counters.busy << ", null " << counters.null << ", lists " << counters.lists
             << ", attempts " << counters.attempts << ", loops " << counters.loops << "}";
}

class SweepTest : public PagingTest {
 protected:
  void SetUp() override {
    PagingTest::SetUp();
    // A bucket set for every few entries: the cursor holds the one of its entry.
    deleteMap(map);
    map = makeMap(64);
    ASSERT_NE(map, nullptr);
  }
  void TearDown() override {
    letGo();
    dropOffers();
    PagingTest::TearDown();
  }

  // An entry in front of a list, not used lately.
  LuOffHeapValue* idle(int list, std::string_view key) {
    LuOffHeapValue* value = insertInto(list, key, "value");
    changeFlags(value, 0, recently_used);
    return value;
  }

  void init(jlong maximum = 100, bool track = false, jlong onEntry = 10) {
    natives::initSweep(env, nullptr, onEntry, maximum, track ? JNI_TRUE : JNI_FALSE);
  }
  // The next entry, or null. Its pin is dropped at the end of the test.
  LuOffHeapValue* next() {
    LuOffHeapValue* value = natives::asValue(natives::nextOfSweep(env, nullptr));
    if (value != nullptr) offered_.push_back(value);
    return value;
  }
  // Java's pins on what the sweep has offered. A record must not outlive its map's table before
  // Java has been told of its end.
  void dropOffers() {
    for (LuOffHeapValue* value : offered_) unpinValue(value, JNI_OVERFLOW_EVICTED_PIN);
    offered_.clear();
  }
  void dispose() { natives::disposeSweep(env, nullptr); }
  std::vector<jlong> state() {
    return jni.longsOf(jni.adopt(natives::getSweepState(env, nullptr)));
  }
  static SweepCounters counters() { return SweepCounters::now(); }
  static overflow_metadata* current() { return cacheIterator._current; }
  static overflow_metadata* anchor() { return cacheIterator._anchor; }

  BucketSet* setOfNode(overflow_metadata* node) {
    return getBucketSet(node->mapHeader, static_cast<uint32_t>(valueOf(node)->hashCode));
  }
  bool isHeader(overflow_metadata* node) { return is_header_node(env, node); }
  // The calling thread holds all four locks of an entry, each once unless told otherwise.
  void expectHeld(overflow_metadata* node) {
    EXPECT_EQ(holdCount(node), 1U);
    EXPECT_EQ(holdCount(node->prev), node->prev == node->next ? 2U : 1U);
    EXPECT_EQ(holdCount(node->next), node->prev == node->next ? 2U : 1U);
    EXPECT_TRUE(holdsLock(&setOfNode(node)->mutex));
  }
  // Nobody holds any node of any list, any bucket set of the map, or a lock of the sweep.
  void expectNothingHeld() {
    checkLists();
    for (uint32_t i = 0; i < map->map->numBucketSets; ++i) {
      EXPECT_TRUE(isFree(&getBucketSetByIndex(map->map, i)->mutex)) << "bucket set " << i;
    }
    EXPECT_TRUE(isFree(&cacheIterator._anchor_mutex));
    EXPECT_TRUE(isFree(&cacheIterator._sweep_state_mutex));
    EXPECT_EQ(heldLockCount(), 0);
  }

  // Lets go whatever this thread holds: at the end of a sweep, or behind a failure that leaves
  // locks.
  void letGo() {
    if (map == nullptr || _headerNodes == nullptr) return;
    const bool debug = logInfo.debug;
    logInfo.debug = false;
    for (int list = 0; list < kOverflowLists; ++list) {
      overflow_metadata* at = headerOf(list);
      do {
        while (holdCount(at) > 0) {
          if (!overflow_metadata_unlock(env, "test", at)) return;
        }
        at = at->next;
      } while (at != nullptr && at != headerOf(list));
    }
    for (uint32_t i = 0; i < map->map->numBucketSets; ++i) {
      BucketSet* set = getBucketSetByIndex(map->map, i);
      if (holdsLock(&set->mutex)) unlockBucketSet(set);
    }
    if (holdsLock(&cacheIterator._anchor_mutex)) {
      mutexUnlock(&cacheIterator._anchor_mutex, LockRank::anchor);
    }
    logInfo.debug = debug;
  }

  std::string thrown() {
    const std::optional<Thrown> found = jni.takePending();
    return found.has_value() ? found->message : std::string();
  }
  // Records whose text behind the function's name is this.
  int recordsOf(const std::string& text) { return recordsEnding(":" + text); }
  int warningsOf(const std::string& text) {
    int count = 0;
    for (const std::string& line : jni.lines()) {
      count += line.starts_with("warning|") && line.ends_with(text) ? 1 : 0;
    }
    return count;
  }

 private:
  std::vector<LuOffHeapValue*> offered_;
};

}  // namespace nimbra::test
