// Sweeps through the natives: which entry comes next, every counter, the limits, the place that is
// kept between sweeps, and what a failing lock leaves.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "cacheiter_support.h"

namespace nimbra::test {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

// A sweep's first list change records the start; leaving all lists behind takes one more change
// than there are lists.
constexpr int64_t kEmptyRound = 1001;

// ---- Arguments ---------------------------------------------------------------------------

class SweepInit : public SweepTest {};

TEST_F(SweepInit, WithoutEntriesIsNotEnoughResources) {
  idle(0, "a");
  setLevels(kDebugLevel);
  init(100, false, 0);
  const std::optional<Thrown> thrown = jni.takePending();
  ASSERT_TRUE(thrown.has_value());
  EXPECT_EQ(thrown->className, kNotEnoughResources);
  EXPECT_THAT(thrown->message, AllOf(StartsWith("["), HasSubstr("] on_entry_num_items < 1")));
  EXPECT_EQ(recordsOf("on_entry_num_items must be greater than zero"), 1);
  EXPECT_EQ(current(), nullptr);
  expectNothingHeld();
}

TEST_F(SweepInit, WithoutALimitIsRefused) {
  idle(0, "a");
  for (const jlong maximum : {0, -1}) {
    setLevels(kDebugLevel);
    init(maximum);
    const std::optional<Thrown> thrown = jni.takePending();
    ASSERT_TRUE(thrown.has_value());
    EXPECT_EQ(thrown->className, kIllegalState);
    EXPECT_THAT(thrown->message,
                HasSubstr("Exception during initialization of native overflow in the Nimbra "
                          "library."));
    EXPECT_EQ(recordsOf("max_num_items must be greater than zero"), 1);
    EXPECT_EQ(current(), nullptr);
    expectNothingHeld();
  }
}

TEST_F(SweepInit, RefusalResetsTheCountersOnly) {
  CacheIterator& at = cacheIterator;
  at.not_in_mem = at.reject_lru = at.invalid_node = at.trylock_failed = at.null_node = 5;
  at.head_node = at.lock_attempts = at.items_in_list = at._num_items_locked = 5;
  at._n_loops = 5;
  at._index = 17;
  at._initial_list_index = 3;
  at._anchor = headerOf(9);
  init(0);
  EXPECT_FALSE(thrown().empty());
  EXPECT_EQ(counters(), SweepCounters{});
  EXPECT_EQ(at.items_in_list, 0);
  EXPECT_EQ(at._initial_list_index, -1);
  EXPECT_EQ(at._index, 17);
  EXPECT_EQ(anchor(), headerOf(9));
  at._anchor = nullptr;
}

TEST_F(SweepInit, RestsOnTheFirstEntryOfItsList) {
  LuOffHeapValue* second = idle(4, "second");
  LuOffHeapValue* first = idle(4, "first");
  cacheIterator._index = 4;
  init();
  EXPECT_EQ(current(), nodeOf(first));
  expectHeld(nodeOf(first));
  EXPECT_EQ(holdCount(headerOf(4)), 1U);
  EXPECT_EQ(counters(), (SweepCounters{.locked = 1, .lists = 1, .attempts = 1}));
  EXPECT_EQ(cacheIterator._initial_list_index, 4);
  EXPECT_EQ(cacheIterator.items_in_list, 1);
  EXPECT_EQ(next(), second) << "the first is looked at when the sweep comes round";
  expectHeld(nodeOf(second));
}

TEST_F(SweepInit, EmptyListsEndItAfterARound) {
  init();
  EXPECT_EQ(current(), nullptr);
  EXPECT_EQ(counters(),
            (SweepCounters{.lists = 1 + kEmptyRound, .attempts = kEmptyRound, .loops = 1}));
  expectNothingHeld();
  EXPECT_EQ(next(), nullptr);
  EXPECT_EQ(counters().attempts, kEmptyRound) << "without a current node nothing is tried";
}

TEST_F(SweepInit, IsTraced) {
  idle(0, "a");
  setLevels(kDebugLevel | kEntryLevel);
  init(37);
  const std::vector<std::string> lines = jni.lines();
  EXPECT_THAT(lines.front(),
              AllOf(StartsWith("entry|"), ::testing::EndsWith("jmax_num_items = 37")));
  EXPECT_THAT(lines.back(),
              AllOf(StartsWith("exit|"), ::testing::EndsWith("iteration points at metadata node " +
                                                             printed(current()))));
  EXPECT_EQ(recordsOf("Acquired anchor lock"), 1);
  EXPECT_EQ(recordsOf("Unlocking anchor, set _current to (nil)"), 1);
  EXPECT_EQ(recordsOf("could not lock initial anchor; will lock head node instead"), 1);
  for (const char* label : {"cacheiter", "cacheiter_init on exit"}) {
    EXPECT_THAT(lines, Contains(AllOf(HasSubstr(label), HasSubstr("_index"), HasSubstr("_current"),
                                      HasSubstr("_anchor"), HasSubstr("_max_num_items"),
                                      HasSubstr("_num_items_locked"), HasSubstr("_n_loops"))));
  }
}

TEST_F(SweepInit, FailedAnchorLock) {
  idle(0, "a");
  setLevels(kDebugLevel);
  {
    const FailLock failure(LockRank::anchor, LockOp::lock, 1);
    init();
  }
  EXPECT_THAT(thrown(), HasSubstr("Error acquiring NOF Anchor Lock lock in Nimbra library."));
  EXPECT_EQ(recordsOf("Error acquiring Native Overflow lock in Nimbra library."), 1);
  EXPECT_EQ(current(), nullptr);
  expectNothingHeld();
}

// ---- Advancing ---------------------------------------------------------------------------

class Sweep : public SweepTest {};

TEST_F(Sweep, LimitOfOneIsReachedByTheFirstEntry) {
  LuOffHeapValue* only = idle(0, "only");
  idle(1, "other");
  init(1);
  EXPECT_EQ(current(), nodeOf(only));
  EXPECT_EQ(counters().locked, 1);
  setLevels(kDebugLevel);
  EXPECT_EQ(next(), nullptr);
  EXPECT_EQ(recordsOf("now max_loop constrained"), 1);
  EXPECT_EQ(recordsOf("unlocking current " + printed(nodeOf(only))), 1);
  EXPECT_EQ(recordsOf("Could not advance, returning 'address' 0"), 1);
  EXPECT_EQ(current(), nullptr);
  EXPECT_EQ(counters(), (SweepCounters{.locked = 1, .lists = 1, .attempts = 1}));
  expectNothingHeld();
}

TEST_F(Sweep, OffersAreLockedAndPinned) {
  idle(0, "first");
  LuOffHeapValue* second = idle(1, "second");
  init();
  setLevels(kEventLevel);
  EXPECT_EQ(next(), second);
  EXPECT_EQ(second->pins, 3 + 1);
  EXPECT_THAT(jni.lines(),
              Contains(HasSubstr("Next IN_MEMORY evictable LuValue=" + printed(second) +
                                 " metadata=" + printed(nodeOf(second)))));
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("reason=JNI_OVERFLOW_EVICTED_PIN")));
  expectHeld(nodeOf(second));
  EXPECT_EQ(counters(), (SweepCounters{.locked = 2, .lists = 2, .attempts = 3}));
}

TEST_F(Sweep, ComesRoundToWhereItBegan) {
  LuOffHeapValue* first = idle(0, "first");
  LuOffHeapValue* second = idle(1, "second");
  init();
  EXPECT_EQ(next(), second);
  EXPECT_EQ(cacheIterator._n_loops, 0);
  setLevels(kDebugLevel);
  EXPECT_EQ(next(), first);
  EXPECT_EQ(recordsOf("Looped iterator. Reset roots."), 1);
  // Out of list 1, through 998 empty lists, into list 0.
  EXPECT_EQ(counters(),
            (SweepCounters{.locked = 3, .lists = 1001, .attempts = 3 + 1 + 998 + 1, .loops = 1}));
}

TEST_F(Sweep, OnlyEntryIsFoundAgain) {
  LuOffHeapValue* only = idle(0, "only");
  init();
  EXPECT_EQ(next(), only);
  EXPECT_EQ(counters(),
            (SweepCounters{.locked = 2, .lists = 1001, .attempts = 1 + 1 + 999 + 1, .loops = 1}));
  EXPECT_EQ(next(), only);
  EXPECT_EQ(cacheIterator._n_loops, 2);
}

TEST_F(Sweep, RecentlyUsedEntryHasASecondChance) {
  LuOffHeapValue* first = idle(0, "first");
  LuOffHeapValue* used = insertInto(1, "used");
  LuOffHeapValue* third = idle(2, "third");
  init();
  setLevels(kDebugLevel);
  EXPECT_EQ(next(), third);
  EXPECT_EQ(recordsOf("node " + printed(nodeOf(used)) + " is RECENTLY_USED, continuing ..."), 1);
  EXPECT_EQ(recordsOf("Evaluating node " + printed(nodeOf(used)) + " as next evictable"), 1);
  EXPECT_EQ(nodeOf(used)->flags, in_memory);
  EXPECT_EQ(counters(), (SweepCounters{.locked = 3, .rejected = 1, .lists = 3, .attempts = 5}));
  setLevels(0);
  EXPECT_EQ(next(), first);
  EXPECT_EQ(next(), used) << "on the next round";
  EXPECT_EQ(counters().rejected, 1);
}

TEST_F(Sweep, EntryThatMayNotGoIsNeverOffered) {
  LuOffHeapValue* kept = idle(0, "kept");
  changeFlags(kept, PREVENT_EVICT);
  init(5);
  setLevels(kDebugLevel);
  EXPECT_EQ(next(), nullptr) << "met until the limit ends the sweep";
  EXPECT_EQ(counters().locked, 5);
  EXPECT_EQ(counters().rejected, 0);
  EXPECT_EQ(counters().notInMemory, 0);
  int seen = 0;
  for (const std::string& line : jni.lines()) {
    seen += line.ends_with(":node " + printed(nodeOf(kept)) +
                           " is marked PREVENT_EVICT (flags=0x1001), continuing ....")
                ? 1
                : 0;
  }
  EXPECT_EQ(seen, 4);
  EXPECT_EQ(kept->pins, 3);
  setLevels(0);
  expectNothingHeld();
}

TEST_F(Sweep, EntryOnDiskIsPassedOver) {
  LuOffHeapValue* first = idle(0, "first");
  LuOffHeapValue* gone = idle(1, "gone");
  pageOutValue(gone);
  init();
  setLevels(kDebugLevel);
  EXPECT_EQ(next(), first);
  EXPECT_EQ(counters().notInMemory, 1);
  EXPECT_EQ(counters().rejected, 0);
  EXPECT_EQ(recordsOf("node " + printed(nodeOf(gone)) +
                      " is not IN_MEMORY (flags=0x200), continuing ...."),
            1);
  setLevels(0);
}

TEST_F(Sweep, UsedEntryOnDiskIsRejectedFirst) {
  idle(0, "first");
  LuOffHeapValue* gone = insertInto(1, "gone");
  pageOutValue(gone);
  LuOffHeapValue* third = idle(2, "third");
  init();
  EXPECT_EQ(next(), third);
  EXPECT_EQ(counters().notInMemory, 0);
  EXPECT_EQ(counters().rejected, 1);
  EXPECT_EQ(nodeOf(gone)->flags, on_disk);
}

TEST_F(Sweep, BusyFirstEntrySkipsItsList) {
  idle(0, "behind");
  LuOffHeapValue* busy = idle(0, "busy");
  LuOffHeapValue* other = idle(1, "other");
  setLevels(kDebugLevel);
  {
    const HeldByAnother holder(nodeOf(busy));
    init();
  }
  EXPECT_EQ(current(), nodeOf(other));
  EXPECT_EQ(counters(), (SweepCounters{.locked = 1, .busy = 1, .lists = 2, .attempts = 2}));
  EXPECT_EQ(recordsOf("RESULT: trylock failed; advance to next header list"), 1);
  setLevels(0);
  EXPECT_EQ(holdCount(headerOf(0)), 0U);
}

TEST_F(Sweep, BusyBucketSetSkipsTheList) {
  LuOffHeapValue* busy = idle(0, "busy");
  LuOffHeapValue* other = nullptr;
  for (int i = 0; other == nullptr; ++i) {
    const std::string key = "other" + std::to_string(i);
    if (setOf(key) != setOf("busy")) other = idle(1, key);
  }
  {
    const SetHeldByAnother holder(setOfNode(nodeOf(busy)));
    init();
  }
  EXPECT_EQ(current(), nodeOf(other));
  EXPECT_EQ(counters().busy, 1);
}

TEST_F(Sweep, EntriesOfOneBucketSetThatFollowEachOtherAreBothMet) {
  deleteMap(map);
  map = makeMap(1);  // one set for all: the cursor holds it already when it tries the next entry
  LuOffHeapValue* second = idle(0, "second");
  LuOffHeapValue* first = idle(0, "first");
  init();
  EXPECT_EQ(current(), nodeOf(first));
  EXPECT_EQ(next(), second) << counters();
}

TEST_F(Sweep, InvalidNodeSkipsItsList) {
  idle(0, "behind");
  LuOffHeapValue* invalid = idle(0, "invalid");
  LuOffHeapValue* other = idle(1, "other");
  changeFlags(invalid, is_invalid);
  setLevels(kDebugLevel);
  init();
  setLevels(0);
  EXPECT_EQ(current(), nodeOf(other));
  EXPECT_EQ(counters(), (SweepCounters{.locked = 1, .invalid = 1, .lists = 2, .attempts = 2}));
  EXPECT_EQ(holdCount(nodeOf(invalid)), 0U);
  EXPECT_EQ(holdCount(headerOf(0)), 0U);
  EXPECT_FALSE(holdsLock(&setOfNode(nodeOf(invalid))->mutex) &&
               setOfNode(nodeOf(invalid)) != setOfNode(nodeOf(other)));
  changeFlags(invalid, 0, is_invalid);
}

TEST_F(Sweep, InvalidNodeIsTraced) {
  LuOffHeapValue* invalid = idle(0, "invalid");
  idle(1, "other");
  changeFlags(invalid, is_invalid);
  setLevels(kDebugLevel);
  init();
  EXPECT_EQ(recordsOf("RESULT: locked invalid next at " + printed(nodeOf(invalid)) +
                      "; advance to next header list"),
            1);
  setLevels(0);
  changeFlags(invalid, 0, is_invalid);
}

TEST_F(Sweep, MissingNodeSkipsItsList) {
  LuOffHeapValue* other = idle(1, "other");
  headerOf(0)->next = nullptr;
  setLevels(kDebugLevel);
  init();
  headerOf(0)->next = headerOf(0);
  EXPECT_EQ(current(), nodeOf(other));
  EXPECT_EQ(counters(), (SweepCounters{.locked = 1, .null = 1, .lists = 2, .attempts = 2}));
  EXPECT_EQ(recordsOf("RESULT: null node; advanced to next header list"), 1);
  setLevels(0);
}

TEST_F(Sweep, EndOfAListIsTraced) {
  idle(0, "first");
  idle(1, "second");
  init();
  setLevels(kDebugLevel);
  next();
  EXPECT_EQ(recordsOf("RESULT: locked a header; advance to next header list"), 1);
  EXPECT_EQ(recordsOf("New index. _index=1 items_in_list=1"), 1);
}

TEST_F(Sweep, WithoutAStartAnswersNothing) {
  idle(0, "a");
  EXPECT_EQ(next(), nullptr);
  EXPECT_EQ(cacheiter_advance(env), 0);
  EXPECT_EQ(counters(), SweepCounters{});
  expectNothingHeld();
}

TEST_F(Sweep, BeginsInTheListWhereTheLastOneStopped) {
  idle(4, "four");
  LuOffHeapValue* five = idle(5, "five");
  LuOffHeapValue* six = idle(6, "six");
  cacheIterator._index = 4;
  init(2);
  EXPECT_EQ(next(), five);
  EXPECT_EQ(next(), nullptr) << "the limit";
  EXPECT_EQ(cacheIterator._index, 5);
  EXPECT_EQ(anchor(), nullptr);
  init();
  EXPECT_EQ(current(), nodeOf(five));
  EXPECT_EQ(next(), six);
}

TEST_F(Sweep, OfferMayBePagedOutUnderTheCursorsLocks) {
  LuOffHeapValue* first = idle(0, "first");
  LuOffHeapValue* second = idle(1, "second");
  const jlong bytes = bytesUsed();
  init();
  ASSERT_EQ(next(), second);
  natives::evictedToDisk(env, nullptr, natives::handle(second), 1, 2, 3);
  EXPECT_EQ(bytesUsed(), bytes);
  ASSERT_EQ(next(), first);
  natives::evictedToDisk(env, nullptr, natives::handle(first), 4, 5, 6);
  const SweepCounters before = counters();
  cacheIterator._max_num_items = before.locked + 2;
  EXPECT_EQ(next(), nullptr);
  EXPECT_EQ(counters().notInMemory, 2);
  expectNothingHeld();
}

TEST_F(Sweep, EntriesThatComeAndGoMeanwhileAreSafe) {
  // The cursor's own bucket set would make the other thread wait for it.
  const auto keyBeside = [this](std::string key) {
    while (setOf(key) == setOf("second")) key += '+';
    return key;
  };
  idle(0, "first");
  LuOffHeapValue* second = idle(1, "second");
  idle(2, keyBeside("third"));
  init();
  ASSERT_EQ(next(), second);
  LuOffHeapValue* fourth = nullptr;
  std::thread writer([&] {
    jni.bindToThisThread();
    EXPECT_TRUE(remove(keyBeside("third")));
    fourth = idle(3, keyBeside("fourth"));
  });
  writer.join();
  jni.bindToThisThread();
  EXPECT_EQ(next(), fourth);
}

// ---- The place between sweeps ------------------------------------------------------------

class SweepAnchor : public SweepTest {
 protected:
  void SetUp() override {
    SweepTest::SetUp();
    third = idle(0, "third");
    second = idle(0, "second");
    first = idle(0, "first");
    fourth = idle(1, "fourth");
  }
  // A sweep that ends on the second entry.
  void sweepToTheSecond() {
    init();
    ASSERT_EQ(next(), second);
    dispose();
    ASSERT_EQ(anchor(), nodeOf(second));
  }

  LuOffHeapValue* first = nullptr;
  LuOffHeapValue* second = nullptr;
  LuOffHeapValue* third = nullptr;
  LuOffHeapValue* fourth = nullptr;
};

TEST_F(SweepAnchor, NextSweepResumesThere) {
  sweepToTheSecond();
  EXPECT_EQ(current(), nodeOf(second)) << "still shown, but not held";
  expectNothingHeld();
  setLevels(kDebugLevel);
  init();
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("was able to lock previous state")));
  setLevels(0);
  EXPECT_EQ(current(), nodeOf(second));
  expectHeld(nodeOf(second));
  EXPECT_EQ(counters(), SweepCounters{}) << "the anchor itself is not counted";
  EXPECT_EQ(cacheIterator._initial_list_index, 0);
  EXPECT_EQ(next(), third);
}

TEST_F(SweepAnchor, DisposeIsTraced) {
  init();
  ASSERT_EQ(next(), second);
  setLevels(kDebugLevel);
  dispose();
  EXPECT_EQ(recordsOf("Acquiring anchor mutex"), 1);
  EXPECT_EQ(recordsOf("unlocking anchor at " + printed(nodeOf(second))), 1);
  EXPECT_EQ(recordsOf("at end of dispose; _anchor = " + printed(nodeOf(second))), 1);
}

TEST_F(SweepAnchor, NothingToKeep) {
  setLevels(kDebugLevel);
  dispose();
  EXPECT_EQ(recordsOf("_anchor is null; no-op"), 1);
  EXPECT_EQ(recordsOf("at end of dispose; _anchor = (nil)"), 1);
  EXPECT_EQ(anchor(), nullptr);
  setLevels(0);
  expectNothingHeld();
}

TEST_F(SweepAnchor, EndOfASweepForgetsIt) {
  sweepToTheSecond();
  init(1);
  EXPECT_EQ(next(), third) << "the anchor is not counted";
  EXPECT_EQ(next(), nullptr);
  dispose();
  EXPECT_EQ(anchor(), nullptr);
}

TEST_F(SweepAnchor, BusyAnchorStartsItsListAgain) {
  sweepToTheSecond();
  {
    const HeldByAnother holder(nodeOf(second));
    init();
    EXPECT_EQ(current(), nodeOf(fourth)) << "the first entry's neighbour is busy";
    EXPECT_EQ(counters(), (SweepCounters{.locked = 1, .busy = 1, .lists = 2, .attempts = 2}));
    dispose();
  }
  expectNothingHeld();
}

TEST_F(SweepAnchor, RemovedAnchorStartsItsListAgain) {
  sweepToTheSecond();
  EXPECT_TRUE(remove("second"));
  EXPECT_EQ(anchor(), nullptr);
  setLevels(kDebugLevel);
  init();
  EXPECT_EQ(recordsOf("could not lock initial anchor; will lock head node instead"), 1);
  setLevels(0);
  EXPECT_EQ(current(), nodeOf(first));
  EXPECT_EQ(next(), third);
}

TEST_F(SweepAnchor, ClearedMapForgetsIt) {
  sweepToTheSecond();
  clearMap(map);
  EXPECT_EQ(anchor(), nullptr);
  init();
  EXPECT_EQ(current(), nullptr);
}

TEST_F(SweepAnchor, DeletedMapForgetsIt) {
  sweepToTheSecond();
  LuOffHeapMap* doomed = map;
  map = makeMap();
  dropOffers();
  deleteMap(doomed);
  EXPECT_EQ(anchor(), nullptr);
}

TEST_F(SweepAnchor, InvalidAnchorLeavesItsNeighboursHeld) {
  sweepToTheSecond();
  changeFlags(second, is_invalid);
  char text[128];
  std::snprintf(
      text, sizeof text, "_current is now invalid, releasing bucket-set lock at %p, hashCode = %x",
      static_cast<void*>(setOfNode(nodeOf(second))), static_cast<unsigned>(second->hashCode));
  setLevels(kInfoLevel);
  init();
  EXPECT_THAT(jni.lines(), Contains(HasSubstr(text)));
  setLevels(0);
  // The list is started again: the cursor holds its first entry with both neighbours.
  EXPECT_EQ(current(), nodeOf(first));
  EXPECT_EQ(holdCount(headerOf(0)), 1U);
  EXPECT_EQ(holdCount(nodeOf(first)), 2U) << "the cursor, and what was left";
  EXPECT_EQ(holdCount(nodeOf(second)), 1U) << "the cursor's neighbour";
  EXPECT_EQ(holdCount(nodeOf(third)), 1U) << "what was left";
  EXPECT_EQ(heldLockCount(), 1) << "one bucket set";
  letGo();
  changeFlags(second, 0, is_invalid);
  expectNothingHeld();
}

TEST_F(SweepAnchor, InvalidAnchorWhoseUnlockFailsIsRaised) {
  sweepToTheSecond();
  changeFlags(second, is_invalid);
  {
    const FailThisLock failure(&nodeOf(second)->mutex, LockOp::lock);
    init();
    EXPECT_GE(failure.fired(), 1);
  }
  EXPECT_FALSE(thrown().empty());
  letGo();
  changeFlags(second, 0, is_invalid);
  expectNothingHeld();
}

class SweepDispose : public SweepAnchor {};

TEST_F(SweepDispose, FailedAnchorLockKeepsTheCursorsLocks) {
  init();
  ASSERT_EQ(next(), second);
  {
    const FailLock failure(LockRank::anchor, LockOp::lock, 1, EDEADLK);
    dispose();
  }
  EXPECT_THAT(thrown(),
              AllOf(HasSubstr("Failure during dispose of CacheIter. Could not lock anchor mutex."),
                    HasSubstr("(" + std::to_string(EDEADLK) + ")")));
  EXPECT_EQ(anchor(), nullptr);
  expectHeld(nodeOf(second));
  dispose();
  expectNothingHeld();
}

TEST_F(SweepDispose, FailedAnchorUnlockIsRaised) {
  init();
  ASSERT_EQ(next(), second);
  {
    const FailLock failure(LockRank::anchor, LockOp::unlock, 1);
    dispose();
  }
  EXPECT_THAT(thrown(), HasSubstr("Failed to unlock anchor mutex."));
  EXPECT_EQ(anchor(), nodeOf(second));
  EXPECT_TRUE(holdsLock(&cacheIterator._anchor_mutex));
  EXPECT_EQ(mutexUnlock(&cacheIterator._anchor_mutex, LockRank::anchor), 0);
  expectNothingHeld();
}

TEST_F(SweepDispose, FailedUnlockLeavesTheAnchorMutexLocked) {
  init();
  ASSERT_EQ(next(), second);
  {
    // The next neighbour is the first to be let go.
    const FailThisLock failure(&nodeOf(third)->mutex, LockOp::lock);
    dispose();
    EXPECT_EQ(failure.fired(), 1);
  }
  EXPECT_FALSE(thrown().empty());
  EXPECT_EQ(anchor(), nodeOf(second));
  EXPECT_TRUE(holdsLock(&cacheIterator._anchor_mutex));
  EXPECT_EQ(mutexUnlock(&cacheIterator._anchor_mutex, LockRank::anchor), 0);
  expectHeld(nodeOf(second));
  EXPECT_EQ(unlock_node(env, nodeOf(second)), 1);
  expectNothingHeld();
}

// ---- Figures -----------------------------------------------------------------------------

class SweepState : public SweepTest {};

TEST_F(SweepState, ShowsFourteenFigures) {
  idle(0, "first");
  LuOffHeapValue* used = insertInto(1, "used");
  LuOffHeapValue* gone = idle(2, "gone");
  pageOutValue(gone);
  LuOffHeapValue* invalid = idle(3, "invalid");
  changeFlags(invalid, is_invalid);
  LuOffHeapValue* busy = idle(4, "busy");
  headerOf(5)->next = nullptr;
  LuOffHeapValue* last = idle(6, "last");
  EXPECT_NE(used, nullptr);
  init(1000, true, 12'345);
  {
    const HeldByAnother holder(nodeOf(busy));
    ASSERT_EQ(next(), last);
  }
  headerOf(5)->next = headerOf(5);
  // Attempts: the first, and two for each of the six lists behind it, of which the obstacles in
  // three lists do without their header.
  EXPECT_THAT(state(), ElementsAre(12'345, 4, 1, 1, 1, 1, 1, 7, 1 + 2 * 6 - 3, 0, 0, 0, 0, 0));
  EXPECT_EQ(counters(), (SweepCounters{.locked = 4,
                                       .notInMemory = 1,
                                       .rejected = 1,
                                       .invalid = 1,
                                       .busy = 1,
                                       .null = 1,
                                       .lists = 7,
                                       .attempts = 10}));
  letGo();
  changeFlags(invalid, 0, is_invalid);
}

TEST_F(SweepState, FirstFigureIsLiveTheOthersAreTheSnapshots) {
  idle(0, "first");
  idle(1, "second");
  init(100, true, 7);
  EXPECT_THAT(state(), ElementsAre(7, 1, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0));
  dispose();
  init(100, false, 8);
  next();
  EXPECT_THAT(state(), ElementsAre(8, 1, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0)) << "not refreshed";
}

TEST_F(SweepState, RefreshedBeforeTheFirstEntryIsLooked) {
  idle(0, "first");
  init(100, true);
  dispose();
  // Resuming at the anchor advances nothing: the figures are those of the reset counters.
  init(100, true);
  EXPECT_THAT(state(), ElementsAre(10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(SweepState, RefreshedAtTheEndOfASweep) {
  idle(0, "only");
  init(1, true);
  EXPECT_EQ(next(), nullptr);
  EXPECT_THAT(state(), ElementsAre(10, 1, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0));
}

TEST_F(SweepState, DurationIsInWholeSeconds) {
  idle(0, "only");
  init(100, true);
  cacheIterator._start -= 5;
  update_sweep_state(env);
  EXPECT_THAT(state().at(9), AllOf(::testing::Ge(5), ::testing::Le(6)));
}

TEST_F(SweepState, LoopsAreShown) {
  idle(0, "only");
  init(100, true);
  next();
  next();
  EXPECT_EQ(state().at(10), 2);
  EXPECT_EQ(state().at(7), 2001);
}

// ---- Failing locks -----------------------------------------------------------------------

// The nth time that a node's inner mutex is waited for fails; a try does not count. The exception
// of a failed unlock stays, and keeps the warning about it from Java.
class SweepFailure : public SweepTest {
 protected:
  // A sweep that starts at the head of list 0, ends at once, and says why.
  void expectInitWarns(int nth, const char* warning) {
    setLevels(kWarningLevel);
    failInit(nth);
    EXPECT_EQ(warningsOf(warning), 1) << ::testing::PrintToString(jni.lines());
    setLevels(0);
  }
  void failInit(int nth) {
    {
      const FailLock failure(LockRank::node, LockOp::lock, nth);
      init(100, true);
      EXPECT_TRUE(failure.fired());
    }
    EXPECT_FALSE(thrown().empty());
  }
  void failNext(int nth) {
    {
      const FailLock failure(LockRank::node, LockOp::lock, nth);
      EXPECT_EQ(next(), nullptr);
      EXPECT_TRUE(failure.fired());
    }
    EXPECT_THAT(thrown(), HasSubstr("pthread_mutex_lock() failed"));
  }
};

TEST_F(SweepFailure, CurrentNodeAtTheLimit) {
  LuOffHeapValue* only = idle(0, "a");
  init(1);
  // At the limit the cursor's own depth is asked for first.
  failNext(2);
  expectHeld(nodeOf(only));
  EXPECT_EQ(counters(), (SweepCounters{.locked = 1, .lists = 1, .attempts = 1}));
}

TEST_F(SweepFailure, CurrentNode) {
  LuOffHeapValue* behind = idle(0, "b");
  idle(0, "a");
  init();
  failNext(1);
  EXPECT_EQ(holdCount(nodeOf(behind)), 2U) << "taken as the candidate, not let go as a neighbour";
  EXPECT_EQ(counters(), (SweepCounters{.locked = 1, .lists = 1, .attempts = 2}));
}

TEST_F(SweepFailure, HeaderAtTheEndOfAList) {
  LuOffHeapValue* only = idle(0, "a");
  init();
  // The entry: next, prev and itself; then the header.
  failNext(4);
  EXPECT_EQ(holdCount(nodeOf(only)), 0U);
  EXPECT_EQ(holdCount(headerOf(0)), 1U);
  EXPECT_EQ(current(), nullptr);
  EXPECT_EQ(counters(), (SweepCounters{.locked = 1, .lists = 1, .attempts = 2}));
}

TEST_F(SweepFailure, HeaderOfTheNextList) {
  idle(0, "a");
  init();
  setLevels(kWarningLevel);
  failNext(5);
  EXPECT_EQ(
      warningsOf("Failed advance: advance_cand was a headnode so moving to next list; however, "
                 "caught exception while getting headnode of next list"),
      1);
  setLevels(0);
  EXPECT_EQ(counters(), (SweepCounters{.locked = 1, .lists = 2, .attempts = 2}));
}

TEST_F(SweepFailure, InvalidNode) {
  LuOffHeapValue* invalid = idle(0, "a");
  changeFlags(invalid, is_invalid);
  // The head's depth, the head; then the node's next.
  failInit(3);
  EXPECT_EQ(holdCount(nodeOf(invalid)), 1U);
  EXPECT_EQ(current(), nullptr);
  EXPECT_EQ(counters(), (SweepCounters{.invalid = 1, .lists = 1, .attempts = 1}));
  letGo();
  changeFlags(invalid, 0, is_invalid);
}

TEST_F(SweepFailure, HeaderBehindAnInvalidNode) {
  LuOffHeapValue* invalid = idle(0, "a");
  changeFlags(invalid, is_invalid);
  expectInitWarns(6,
                  "Failed advance: advance_cand was STATUS_INVALID, then failed to get a lock on "
                  "any headnode");
  letGo();
  changeFlags(invalid, 0, is_invalid);
}

TEST_F(SweepFailure, HeaderBehindAMissingNode) {
  headerOf(0)->next = nullptr;
  expectInitWarns(3,
                  "Failed advance: advance_cand was STATUS_NULL, then failed to get a lock an any "
                  "headnode");
  headerOf(0)->next = headerOf(0);
}

TEST_F(SweepFailure, HeaderBehindABusyNode) {
  LuOffHeapValue* busy = idle(0, "a");
  const HeldByAnother holder(nodeOf(busy));
  expectInitWarns(3,
                  "Failed advance: advance_cand trylock failed, then failed to get a lock on any "
                  "headnode");
}

TEST_F(SweepFailure, FirstHeaderEndsTheStart) {
  idle(0, "a");
  {
    const FailLock failure(LockRank::node, LockOp::lock, 1);
    init();
  }
  EXPECT_FALSE(thrown().empty());
  EXPECT_EQ(counters().attempts, 0);
}

TEST_F(SweepFailure, NoWarningWhileWarningsAreOff) {
  idle(0, "b");
  idle(0, "a");
  init();
  setLevels(kErrorLevel);
  {
    const FailLock failure(LockRank::node, LockOp::lock, 1);
    EXPECT_EQ(next(), nullptr);
  }
  EXPECT_FALSE(thrown().empty());
  EXPECT_THAT(jni.lines(), IsEmpty());
}

TEST_F(SweepFailure, FiguresAreRefreshedAllTheSame) {
  idle(0, "a");
  init(100, true);
  failNext(4);
  EXPECT_EQ(state().at(8), 2) << "attempts";
}

}  // namespace
}  // namespace nimbra::test
