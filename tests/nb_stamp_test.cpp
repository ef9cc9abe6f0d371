// The stamps of bucket sets: what Java's reads without a lock rely on is that no change of a set
// goes without one, that a stamp tells while somebody is at work, and that it comes to rest.
#include "nb_stamp.h"

#include <gtest/gtest.h>

#include <barrier>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hashtable_support.h"
#include "quick_support.h"

namespace nimbra::test {
namespace {

using hashtable::HashtableTest;
using hashtable::Table;
using quick::LockTrace;
using quick::Road;
using quick::RoadMap;
using Kind = RoadMap::Kind;

constexpr uint64_t kAtWork = 0xFFFF;

uint64_t wordOf(const BucketSet* set) { return stampOf(set).word.load(); }
uint64_t atWork(const BucketSet* set) { return wordOf(set) & kAtWork; }

std::vector<uint64_t> wordsOf(MapHeader* header) {
  std::vector<uint64_t> words;
  for (uint32_t i = 0; i < header->numBucketSets; ++i) {
    words.push_back(wordOf(getBucketSetByIndex(header, i)));
  }
  return words;
}

void expectAllAtRest() {
  for (std::size_t i = 0; i < kSetStamps; ++i) {
    EXPECT_EQ(setStamps[i].word.load() & kAtWork, 0U) << "stamp " << i;
  }
}

// Earlier tests of the process have made unlocks fail, and their sets count as held for good.
void forgetWhatIsHeld() {
  for (SetStamp& stamp : setStamps) stamp.word.fetch_and(~kAtWork);
}

// ---- Locks -------------------------------------------------------------------------------

class Stamp : public HashtableTest {
 protected:
  void SetUp() override {
    forgetWhatIsHeld();
    HashtableTest::SetUp();
  }
  void TearDown() override {
    expectAllAtRest();
    HashtableTest::TearDown();
  }
};

TEST_F(Stamp, TellsThatSomebodyIsAtWorkWhileASetIsHeld) {
  const Table table(env, newTable());
  EXPECT_EQ(atWork(table.set()), 0U);
  ASSERT_EQ(lockBucketSet(table.set()), 0);
  EXPECT_EQ(atWork(table.set()), 1U);
  EXPECT_EQ(unlockBucketSet(table.set()), 0);
  EXPECT_EQ(atWork(table.set()), 0U);
}

TEST_F(Stamp, IsAnotherAfterASetWasHeld) {
  const Table table(env, newTable());
  const uint64_t before = wordOf(table.set());
  ASSERT_EQ(lockBucketSet(table.set()), 0);
  EXPECT_EQ(unlockBucketSet(table.set()), 0);
  EXPECT_NE(wordOf(table.set()), before);
}

TEST_F(Stamp, IsNeverTheSameAgain) {
  const Table table(env, newTable());
  std::set<uint64_t> seen{wordOf(table.set())};
  for (int i = 0; i < 100'000; ++i) {
    ASSERT_EQ(lockBucketSet(table.set()), 0);
    ASSERT_EQ(unlockBucketSet(table.set()), 0);
    ASSERT_TRUE(seen.insert(wordOf(table.set())).second) << "after " << i << " holds";
  }
}

TEST_F(Stamp, CountsNestedHoldsUntilTheLast) {
  const Table table(env, newTable());
  ASSERT_EQ(lockBucketSet(table.set()), 0);
  ASSERT_EQ(lockBucketSet(table.set()), 0);
  ASSERT_EQ(trylockBucketSet(table.set()), 0);
  EXPECT_EQ(atWork(table.set()), 3U);
  EXPECT_EQ(unlockBucketSet(table.set()), 0);
  EXPECT_EQ(unlockBucketSet(table.set()), 0);
  EXPECT_EQ(atWork(table.set()), 1U);
  EXPECT_EQ(unlockBucketSet(table.set()), 0);
  EXPECT_EQ(atWork(table.set()), 0U);
}

TEST_F(Stamp, StaysWhenTheLockIsRefused) {
  const Table table(env, newTable());
  const uint64_t before = wordOf(table.set());
  const FailLock failure(LockRank::bucketSet, LockOp::lock, 1);
  EXPECT_NE(lockBucketSet(table.set()), 0);
  EXPECT_TRUE(failure.fired());
  EXPECT_EQ(wordOf(table.set()), before);
}

TEST_F(Stamp, ChangesWithATriedLock) {
  const Table table(env, newTable());
  const uint64_t before = wordOf(table.set());
  ASSERT_EQ(trylockBucketSet(table.set()), 0);
  EXPECT_EQ(atWork(table.set()), 1U);
  EXPECT_EQ(unlockBucketSet(table.set()), 0);
  EXPECT_NE(wordOf(table.set()), before);
}

TEST_F(Stamp, StaysWhenATriedLockIsRefused) {
  const Table table(env, newTable());
  const uint64_t before = wordOf(table.set());
  const FailLock failure(LockRank::bucketSet, LockOp::tryLock, 1);
  EXPECT_NE(trylockBucketSet(table.set()), 0);
  EXPECT_TRUE(failure.fired());
  EXPECT_EQ(wordOf(table.set()), before);
}

TEST_F(Stamp, StaysWhenATriedLockIsBusy) {
  const Table table(env, newTable());
  ASSERT_EQ(lockBucketSet(table.set()), 0);
  const uint64_t before = wordOf(table.set());
  int code = 0;
  std::thread([&] { code = trylockBucketSet(table.set()); }).join();
  EXPECT_NE(code, 0);
  EXPECT_EQ(wordOf(table.set()), before);
  EXPECT_EQ(unlockBucketSet(table.set()), 0);
}

TEST_F(Stamp, StaysWhenASetIsHeldToRead) {
  const Table table(env, newTable());
  const uint64_t before = wordOf(table.set());
  ASSERT_EQ(lockBucketSetToRead(table.set()), 0);
  EXPECT_EQ(wordOf(table.set()), before);
  EXPECT_EQ(unlockReadBucketSet(table.set()), 0);
  EXPECT_EQ(wordOf(table.set()), before);
}

TEST_F(Stamp, OfOtherSetsStays) {
  const Table table(env, newTable({.concurrency = 4}));
  std::vector<uint64_t> expected = wordsOf(table);
  ASSERT_EQ(lockBucketSet(table.set(2)), 0);
  expected[2] = wordOf(table.set(2));
  EXPECT_EQ(wordsOf(table), expected);
  EXPECT_EQ(unlockBucketSet(table.set(2)), 0);
}

TEST_F(Stamp, ThatTwoSetsShareRestsWhenBothAreLetGo) {
  const Table table(env, newTable({.concurrency = 2 * kSetStamps}));
  BucketSet* first = table.set(3);
  BucketSet* second = table.set(3 + kSetStamps);
  ASSERT_EQ(&stampOf(first), &stampOf(second));
  std::barrier step(2);
  const auto hold = [&](BucketSet* set, bool letsGoFirst) {
    EXPECT_EQ(lockBucketSet(set), 0);
    step.arrive_and_wait();  // both hold theirs
    EXPECT_EQ(atWork(set), 2U);
    step.arrive_and_wait();
    if (letsGoFirst) {
      EXPECT_EQ(unlockBucketSet(set), 0);
    }
    step.arrive_and_wait();  // one does
    EXPECT_EQ(atWork(set), 1U);
    step.arrive_and_wait();
    if (!letsGoFirst) {
      EXPECT_EQ(unlockBucketSet(set), 0);
    }
  };
  std::thread other(hold, second, true);
  hold(first, false);
  other.join();
  EXPECT_EQ(atWork(first), 0U);
}

TEST_F(Stamp, LosesNothingAmongManyThreads) {
  const Table table(env, newTable({.concurrency = 2 * kSetStamps}));
  constexpr uint64_t kHolds = 20'000;
  const uint64_t before = wordOf(table.set());
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < 4; ++i) {
    threads.emplace_back([set = table.set(i % 2 * kSetStamps)] {
      for (uint64_t hold = 0; hold < kHolds; ++hold) {
        ASSERT_EQ(lockBucketSet(set), 0);
        ASSERT_EQ(unlockBucketSet(set), 0);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wordOf(table.set()) - before, 4 * kHolds << 16);
}

// ---- Tables ------------------------------------------------------------------------------

// Growing asks for new buckets before it moves the chains to them.
TEST_F(Stamp, TellsOfWorkWhileTheSetGrows) {
  static const BucketSet* set;
  static std::vector<uint64_t> found;
  found.clear();
  const Table table(env, newTable({.loadFactor = 1}));
  add(table, {1}, 1);
  set = table.set();
  const uint32_t buckets = set->bucketCount;
  DefaultEntry* entry = hashtable::newEntry(env, {2}, 2);
  faults::refuseAllocation = [](uint64_t, const char*) {
    found.push_back(atWork(set));
    return false;
  };
  hashtable::insertOwned(env, table, entry);
  faults::refuseAllocation = nullptr;
  EXPECT_GT(set->bucketCount, buckets);
  EXPECT_EQ(found, std::vector<uint64_t>{1});
}

TEST_F(Stamp, OfEverySetChangesWhenTheTableIsCleared) {
  const Table table(env, newTable({.concurrency = 4}));
  add(table, {1}, 1);
  const std::vector<uint64_t> before = wordsOf(table);
  hashtable_clear(env, table);
  const std::vector<uint64_t> after = wordsOf(table);
  for (std::size_t i = 0; i < before.size(); ++i) {
    EXPECT_NE(after[i], before[i]) << "set " << i;
    EXPECT_EQ(after[i] & kAtWork, 0U) << "set " << i;
  }
}

// The words of the sets of a table that goes meanwhile.
class Doomed {
 public:
  explicit Doomed(MapHeader* header) : before_(wordsOf(header)) {
    for (uint32_t i = 0; i < header->numBucketSets; ++i) {
      stamps_.push_back(&stampOf(getBucketSetByIndex(header, i)));
    }
  }
  void expectStamped() const {
    for (std::size_t i = 0; i < stamps_.size(); ++i) {
      EXPECT_NE(stamps_[i]->word.load(), before_[i]) << "set " << i;
      EXPECT_EQ(stamps_[i]->word.load() & kAtWork, 0U) << "set " << i;
    }
  }

 private:
  std::vector<uint64_t> before_;
  std::vector<const SetStamp*> stamps_;
};

TEST_F(Stamp, OfEverySetChangesWhenTheTableIsDestroyed) {
  Table table(env, newTable({.concurrency = 4}));
  const Doomed doomed(table);
  table.destroy();
  doomed.expectStamped();
}

TEST_F(Stamp, OfEverySetChangesWhenItsBucketsAreFreed) {
  Table table(env, newTable({.concurrency = 4}));
  const Doomed doomed(table);
  freeBucketSets(env, table);
  doomed.expectStamped();
  freeMapHeader(env, table, 1, 4);
  table.release();
}

// The buckets are freed all the same.
TEST_F(Stamp, OfEverySetChangesWhenBucketsAreFreedWithoutTheLock) {
  Table table(env, newTable({.concurrency = 4}));
  const Doomed doomed(table);
  {
    const LockTrace refused([](LockRank rank, const void*, LockOp operation) {
      return rank == LockRank::bucketSet && operation == LockOp::lock ? EINVAL : 0;
    });
    freeBucketSets(env, table);
  }
  doomed.expectStamped();
  freeMapHeader(env, table, 1, 4);
  table.release();
}

TEST_F(Stamp, TellsOfWorkBeforeBucketsAreFreed) {
  Table table(env, newTable({.concurrency = 4}));
  int locked = 0;
  {
    const LockTrace watch([&](LockRank rank, const void* mutex, LockOp operation) {
      if (rank == LockRank::bucketSet && operation == LockOp::lock) {
        ++locked;
        EXPECT_EQ(atWork(static_cast<const BucketSet*>(mutex)), 1U);
      }
      return 0;
    });
    freeBucketSets(env, table);
  }
  EXPECT_EQ(locked, 4);
  freeMapHeader(env, table, 1, 4);
  table.release();
}

// ---- The face ----------------------------------------------------------------------------

// What a reader relies on: as often as a set is seen at rest with the same stamp, whatever an
// operation is about to do, it is in the same state. Looks before every lock operation and every
// allocation.
class StatesByStamp {
 public:
  explicit StatesByStamp(const BucketSet* set)
      : set_(set), locks_([this](LockRank, const void*, LockOp) {
          look();
          return 0;
        }) {
    active_ = this;
    faults::refuseAllocation = [](uint64_t, const char*) {
      active_->look();
      return false;
    };
    look();
  }
  ~StatesByStamp() { faults::refuseAllocation = nullptr; }
  StatesByStamp(const StatesByStamp&) = delete;
  StatesByStamp& operator=(const StatesByStamp&) = delete;

  // Looks once more, and answers how many states there were.
  std::size_t atRest() {
    look();
    std::set<std::string> states;
    for (const auto& [word, state] : states_) states.insert(state);
    return states.size();
  }

 private:
  void look() {
    const uint64_t word = wordOf(set_);
    if ((word & kAtWork) != 0) return;
    const auto [known, isNew] = states_.emplace(word, state());
    if (!isNew) {
      EXPECT_EQ(state(), known->second) << "with the same stamp";
    }
  }
  // What Java reads: the buckets, the chains and the values' places.
  std::string state() const {
    std::ostringstream out;
    out << set_->buckets << " of " << set_->bucketMask;
    for (uint32_t bucket = 0; bucket < set_->bucketCount; ++bucket) {
      for (auto* at = static_cast<LuOffHeapValue*>(set_->buckets[bucket]); at != nullptr;
           at = at->hashNext) {
        out << " " << at << " " << at->hashCode << " " << at->key << " " << at->value;
      }
    }
    return out.str();
  }
  static inline StatesByStamp* active_ = nullptr;

  const BucketSet* const set_;
  std::map<uint64_t, std::string> states_;
  const LockTrace locks_;
};

// A map of four sets, with the key "here" in it.
class FaceStamp : public MapTest, public ::testing::WithParamInterface<Road> {
 protected:
  void SetUp() override {
    forgetWhatIsHeld();
    MapTest::SetUp();
    deleteMap(map);
    map = makeMap(4);
    ASSERT_NE(map, nullptr);
    calls.emplace(jni, map, GetParam());
    ASSERT_EQ(run(Kind::kPut, "here"), "1");
  }
  void TearDown() override {
    expectAllAtRest();
    MapTest::TearDown();
  }
  std::string run(Kind kind, const std::string& key, const std::string& value = "a value") {
    return calls->run({kind, key, hashOf(key), value, ++revision_});
  }
  // What the operation does to the stamps: "changes its own" or "changes none" are the only
  // answers without a failure.
  void expectStamps(Kind kind, const std::string& key, const std::string& answer, bool changed) {
    const BucketSet* own = setOf(key);
    const std::vector<uint64_t> before = wordsOf(map->map);
    EXPECT_EQ(run(kind, key, "another value"), answer);
    const std::vector<uint64_t> after = wordsOf(map->map);
    for (uint32_t i = 0; i < before.size(); ++i) {
      const bool expected = changed && getBucketSetByIndex(map->map, i) == own;
      EXPECT_EQ(after[i] != before[i], expected) << "set " << i;
      EXPECT_EQ(after[i] & kAtWork, 0U) << "set " << i;
    }
  }
  void expectStatesTold(Kind kind, const std::string& key) {
    StatesByStamp states(setOf(key));
    run(kind, key, "another value");
    EXPECT_EQ(states.atRest(), 2) << "before and after";
  }

  std::optional<RoadMap> calls;

 private:
  jlong revision_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Roads, FaceStamp, ::testing::ValuesIn(quick::kRoads),
                         [](const ::testing::TestParamInfo<Road>& info) {
                           std::string name = quick::nameOf(info.param);
                           std::erase_if(name, [](char c) { return c == ',' || c == ' '; });
                           return name;
                         });

TEST_P(FaceStamp, ChangesWithPutOfANewKey) { expectStamps(Kind::kPut, "new", "1", true); }
TEST_P(FaceStamp, ChangesWithPutOfAPresentKey) { expectStamps(Kind::kPut, "here", "0", true); }
TEST_P(FaceStamp, ChangesWithPutIfAbsent) { expectStamps(Kind::kPutIfAbsent, "new", "1", true); }
TEST_P(FaceStamp, ChangesWithReplace) { expectStamps(Kind::kReplace, "here", "1", true); }
TEST_P(FaceStamp, ChangesWithRemove) { expectStamps(Kind::kRemove, "here", "1", true); }

TEST_P(FaceStamp, StaysWithGet) { expectStamps(Kind::kGet, "here", "a value", false); }
TEST_P(FaceStamp, StaysWithGetOfAnAbsentKey) { expectStamps(Kind::kGet, "new", "absent", false); }
TEST_P(FaceStamp, StaysWithContainsKey) { expectStamps(Kind::kContains, "here", "present", false); }
TEST_P(FaceStamp, StaysWithContainsKeyOfAnAbsentKey) {
  expectStamps(Kind::kContains, "new", "absent", false);
}
TEST_P(FaceStamp, StaysWithPin) {
  expectStamps(Kind::kPin, "here", "a value of 1 pinned 2", false);
}
TEST_P(FaceStamp, StaysWithPinOfAnAbsentKey) { expectStamps(Kind::kPin, "new", "absent", false); }

TEST_P(FaceStamp, TellsStatesApartInPutOfANewKey) { expectStatesTold(Kind::kPut, "new"); }
TEST_P(FaceStamp, TellsStatesApartInPutOfAPresentKey) { expectStatesTold(Kind::kPut, "here"); }
TEST_P(FaceStamp, TellsStatesApartInPutIfAbsent) { expectStatesTold(Kind::kPutIfAbsent, "new"); }
TEST_P(FaceStamp, TellsStatesApartInReplace) { expectStatesTold(Kind::kReplace, "here"); }
TEST_P(FaceStamp, TellsStatesApartInRemove) { expectStatesTold(Kind::kRemove, "here"); }

TEST_P(FaceStamp, RestsAfterEveryWriteWithAFailingLock) {
  for (const auto& [kind, key] :
       std::vector<std::pair<Kind, const char*>>{{Kind::kPut, "new"},
                                                 {Kind::kPut, "here"},
                                                 {Kind::kPutIfAbsent, "new"},
                                                 {Kind::kReplace, "here"},
                                                 {Kind::kRemove, "here"},
                                                 {Kind::kGet, "here"}}) {
    for (int nth = 1; nth <= 3; ++nth) {
      SCOPED_TRACE(std::to_string(static_cast<int>(kind)) + " of " + key + ", lock " +
                   std::to_string(nth) + " of its set");
      const FailLock failure(LockRank::bucketSet, LockOp::lock, nth);
      run(kind, key);
      expectAllAtRest();
    }
  }
}

TEST_P(FaceStamp, RestsAfterEveryWriteWithoutMemory) {
  for (const auto& [kind, key] :
       std::vector<std::pair<Kind, const char*>>{{Kind::kPut, "new"},
                                                 {Kind::kPut, "here"},
                                                 {Kind::kPutIfAbsent, "newer"},
                                                 {Kind::kReplace, "here"}}) {
    for (int nth = 1; nth <= 4; ++nth) {
      SCOPED_TRACE(std::to_string(static_cast<int>(kind)) + " of " + key + ", allocation " +
                   std::to_string(nth));
      const RefuseAllocation failure(nth);
      run(kind, key);
      expectAllAtRest();
    }
  }
}

}  // namespace
}  // namespace nimbra::test
