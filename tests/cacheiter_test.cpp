// The parts of the sweep: the locks of one node, the walk from list to list, and the anchor.

#include "cacheiter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "cacheiter_support.h"
#include "record_locks.h"

namespace nimbra::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kInvalidState = "Current native overflow state is invalid.";

// Three entries in list 3, first to last, so that the one in the middle has two neighbours.
class CursorTest : public SweepTest {
 protected:
  void SetUp() override {
    SweepTest::SetUp();
    last = nodeOf(idle(3, "last"));
    middle = nodeOf(idle(3, "middle"));
    first = nodeOf(idle(3, "first"));
    ASSERT_THAT(checkList(3), ElementsAre(first, middle, last));
  }

  overflow_metadata* first = nullptr;
  overflow_metadata* middle = nullptr;
  overflow_metadata* last = nullptr;
};

// ---- The locks of one node ---------------------------------------------------------------

class TrylockNode : public CursorTest {};

TEST_F(TrylockNode, TakesBucketSetNodeAndNeighboursInThisOrder) {
  {
    const RecordLocks locks;
    EXPECT_TRUE(trylock_node(env, middle));
    std::vector<const void*> tried;
    for (const RecordLocks::Operation& operation : locks.operations()) {
      EXPECT_NE(operation.kind, LockOp::lock) << "nothing may wait";
      if (operation.kind == LockOp::tryLock) tried.push_back(operation.lock);
    }
    EXPECT_THAT(
        tried, ElementsAre(&setOfNode(middle)->mutex, &middle->mutex, &first->mutex, &last->mutex));
  }
  expectHeld(middle);
  EXPECT_EQ(unlock_node(env, middle), 1);
  expectNothingHeld();
}

TEST_F(TrylockNode, OnlyEntryTakesItsHeaderTwice) {
  overflow_metadata* alone = nodeOf(idle(8, "alone"));
  EXPECT_TRUE(trylock_node(env, alone));
  EXPECT_EQ(holdCount(headerOf(8)), 2U);
  EXPECT_EQ(unlock_node(env, alone), 1);
  expectNothingHeld();
}

TEST_F(TrylockNode, HeaderIsTakenAlone) {
  EXPECT_TRUE(trylock_node(env, headerOf(3)));
  EXPECT_EQ(holdCount(headerOf(3)), 1U);
  EXPECT_EQ(holdCount(first), 0U);
  EXPECT_EQ(heldLockCount(), 0);
  EXPECT_EQ(unlock_node(env, headerOf(3)), 1);
  expectNothingHeld();
}

TEST_F(TrylockNode, BusyHeader) {
  setLevels(kWarningLevel);
  {
    const HeldByAnother holder(headerOf(3));
    EXPECT_FALSE(trylock_node(env, headerOf(3)));
  }
  EXPECT_THAT(jni.lines(), IsEmpty());
  expectNothingHeld();
}

TEST_F(TrylockNode, BusyBucketSetIsPassedOverInSilence) {
  setLevels(kWarningLevel);
  {
    const SetHeldByAnother holder(setOfNode(middle));
    EXPECT_FALSE(trylock_node(env, middle));
    checkList(3);
  }
  EXPECT_THAT(jni.lines(), IsEmpty());
  expectNothingHeld();
}

TEST_F(TrylockNode, BusyNodesLeaveNothingHeld) {
  struct Case {
    overflow_metadata* busy;
    const char* warning;
  };
  for (const Case& each : {Case{middle, "trylock_node failed: metadata locked"},
                           Case{first, "trylock_node failed: prev locked"},
                           Case{last, "trylock_node failed: next locked"}}) {
    setLevels(kWarningLevel);
    {
      const HeldByAnother holder(each.busy);
      EXPECT_FALSE(trylock_node(env, middle));
    }
    EXPECT_EQ(warningsOf(each.warning), 1);
    EXPECT_EQ(jni.lines().size(), 1U);
    EXPECT_EQ(jni.pending(), std::nullopt);
    expectNothingHeld();
    setLevels(0);
    const HeldByAnother holder(each.busy);
    EXPECT_FALSE(trylock_node(env, middle));
    EXPECT_THAT(jni.lines(), IsEmpty()) << "warnings are off";
  }
  expectNothingHeld();
}

TEST_F(TrylockNode, TagsNameThePlaces) {
  setLevels(kDebugLevel);
  EXPECT_TRUE(trylock_node(env, middle));
  EXPECT_EQ(recordsOf("trylocking trylock_node (" + printed(middle) + ")"), 1);
  EXPECT_EQ(recordsOf("trylocking trylock prev (" + printed(first) + ")"), 1);
  EXPECT_EQ(recordsOf("trylocking trylock next (" + printed(last) + ")"), 1);
  EXPECT_EQ(unlock_node(env, middle), 1);
}

// A node's lock that fails, rather than being busy: the exception names the node.
TEST_F(TrylockNode, FailuresAreRaisedAgainWithTheNode) {
  struct Case {
    int operation;  // which lock operation fails: the end of the node's try
    overflow_metadata* node;
    const char* text;
  };
  for (const Case& each : {Case{3, middle, "Caught exception when trylock metadata="},
                           Case{5, first, "Caught exception when trylock metadata->prev="},
                           Case{7, last, "Caught exception when trylock metadata->next="}}) {
    SCOPED_TRACE(each.text);
    {
      FailNthLock failure(each.operation);
      EXPECT_FALSE(underFailingLock([&] { return trylock_node(env, middle); }));
      EXPECT_EQ(failure.site(), "node unlock");
      failure.release();
    }
    EXPECT_THAT(thrown(), HasSubstr(each.text + printed(each.node)));
    while (holdCount(each.node) > 0) {
      EXPECT_TRUE(overflow_metadata_unlock(env, "test", each.node));
    }
    expectNothingHeld();
  }
}

TEST_F(TrylockNode, FailureOfAHeaderIsRaisedAgain) {
  {
    FailNthLock failure(2);
    EXPECT_FALSE(underFailingLock([&] { return trylock_node(env, headerOf(3)); }));
    EXPECT_EQ(failure.site(), "node unlock");
    failure.release();
  }
  EXPECT_THAT(thrown(), HasSubstr("Caught exception when trylock headernode metadata=" +
                                  printed(headerOf(3))));
  while (holdCount(headerOf(3)) > 0) {
    EXPECT_TRUE(overflow_metadata_unlock(env, "test", headerOf(3)));
  }
  expectNothingHeld();
}

class UnlockNode : public CursorTest {};

TEST_F(UnlockNode, LetsGoFromTheFarEnd) {
  ASSERT_TRUE(trylock_node(env, middle));
  {
    const RecordLocks locks;
    EXPECT_EQ(unlock_node(env, middle), 1);
    std::vector<const void*> released;
    for (const RecordLocks::Operation& operation : locks.operations()) {
      if (operation.kind == LockOp::unlock) released.push_back(operation.lock);
    }
    EXPECT_THAT(released, ElementsAre(&last->mutex, &first->mutex, &middle->mutex,
                                      &setOfNode(middle)->mutex));
  }
  expectNothingHeld();
}

TEST_F(UnlockNode, IsTraced) {
  ASSERT_TRUE(trylock_node(env, middle));
  setLevels(kDebugLevel);
  EXPECT_EQ(unlock_node(env, middle), 1);
  EXPECT_EQ(
      recordsOf("metadata=" + printed(middle) + " pthread_self=" + std::to_string(pthread_self())),
      1);
  char text[96];
  std::snprintf(text, sizeof text, "unlocking bucket set at %p, hashcode %x",
                static_cast<void*>(setOfNode(middle)),
                static_cast<unsigned>(valueOf(middle)->hashCode));
  EXPECT_EQ(recordsOf(text), 1);
}

TEST_F(UnlockNode, StopsAtTheFirstFailure) {
  const std::vector<overflow_metadata*> order = {last, first, middle};
  for (std::size_t failing = 0; failing < order.size(); ++failing) {
    SCOPED_TRACE(failing);
    ASSERT_TRUE(trylock_node(env, middle));
    {
      const FailThisLock failure(&order[failing]->mutex, LockOp::lock);
      EXPECT_EQ(unlock_node(env, middle), 0);
    }
    EXPECT_THAT(thrown(), HasSubstr("pthread_mutex_lock() failed"));
    for (std::size_t at = 0; at < order.size(); ++at) {
      EXPECT_EQ(holdCount(order[at]), at < failing ? 0U : 1U) << at;
    }
    EXPECT_TRUE(holdsLock(&setOfNode(middle)->mutex));
    letGo();
    expectNothingHeld();
  }
}

class CursorLock : public CursorTest {};

TEST_F(CursorLock, NoNode) {
  setLevels(kDebugLevel);
  EXPECT_EQ(cacheiter_lock(env, nullptr), STATUS_NULL);
  EXPECT_EQ(recordsOf("metadata == NULL, cannot lock"), 1);
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("locking: : KLOR overflow_metadata = NULL")));
}

TEST_F(CursorLock, ValidNode) {
  setLevels(kDebugLevel);
  EXPECT_EQ(cacheiter_lock(env, middle), STATUS_LOCKED);
  setLevels(0);
  expectHeld(middle);
  EXPECT_EQ(unlock_node(env, middle), 1);
}

TEST_F(CursorLock, ShowsTheNodeBeforeAndAfter) {
  setLevels(kDebugLevel);
  EXPECT_EQ(cacheiter_lock(env, middle), STATUS_LOCKED);
  EXPECT_THAT(jni.lines(),
              Contains(HasSubstr("KLOR locking: : " + printed(middle) + " (luOffHeapValue " +
                                 printed(valueOf(middle)) + "): NOT LOCKED")));
  EXPECT_THAT(jni.lines(),
              Contains(HasSubstr("KLOR acquired lock: " + printed(middle) + " (luOffHeapValue " +
                                 printed(valueOf(middle)) + "): len=")));
  setLevels(0);
  EXPECT_EQ(unlock_node(env, middle), 1);
}

TEST_F(CursorLock, InvalidNodeIsHeldAllTheSame) {
  changeFlags(valueOf(middle), is_invalid);
  setLevels(kDebugLevel);
  EXPECT_EQ(cacheiter_lock(env, middle), STATUS_INVALID);
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("KLOR node locked but INVALID: " + printed(middle))));
  setLevels(0);
  expectHeld(middle);
  EXPECT_EQ(unlock_node(env, middle), 1);
  changeFlags(valueOf(middle), 0, is_invalid);
}

TEST_F(CursorLock, BusyNode) {
  const HeldByAnother holder(middle);
  EXPECT_EQ(cacheiter_lock(env, middle), STATUS_TRYLOCK_FAILED);
  EXPECT_EQ(heldLockCount(), 0);
}

// ---- From list to list -------------------------------------------------------------------

class ListIndex : public SweepTest {
 protected:
  void SetUp() override {
    SweepTest::SetUp();
    cacheIterator._index = 7;
    cacheIterator._initial_list_index = -1;
  }
};

TEST_F(ListIndex, FirstStepOnlyRecordsWhereTheSweepBegan) {
  cacheIterator.items_in_list = 4;
  setLevels(kDebugLevel);
  cacheiter_advance_iteration_index(env);
  EXPECT_EQ(cacheIterator._index, 7);
  EXPECT_EQ(cacheIterator._initial_list_index, 7);
  EXPECT_EQ(cacheIterator.head_node, 1);
  EXPECT_EQ(cacheIterator.items_in_list, 0);
  EXPECT_EQ(cacheIterator._n_loops, 0);
  EXPECT_EQ(recordsOf("New index. _index=7 items_in_list=4"), 1);
  EXPECT_EQ(recordsOf("Advanced to index=7 initialIndex=7 Loop=0"), 1);
}

TEST_F(ListIndex, ThousandStepsAreOneLoop) {
  cacheiter_advance_iteration_index(env);
  for (int step = 1; step < kOverflowLists; ++step) {
    cacheiter_advance_iteration_index(env);
    ASSERT_EQ(cacheIterator._index, (7 + step) % kOverflowLists);
  }
  EXPECT_EQ(cacheIterator._n_loops, 0);
  setLevels(kDebugLevel);
  cacheiter_advance_iteration_index(env);
  EXPECT_EQ(cacheIterator._index, 7);
  EXPECT_EQ(cacheIterator._n_loops, 1);
  EXPECT_EQ(cacheIterator.head_node, 1001);
  EXPECT_EQ(recordsOf("Looped iterator. Reset roots."), 1);
  EXPECT_EQ(recordsOf("Advanced to index=7 initialIndex=7 Loop=1"), 1);
}

class LockHead : public SweepTest {
 protected:
  void SetUp() override {
    SweepTest::SetUp();
    cacheIterator._index = 20;
    cacheIterator._initial_list_index = 20;
  }
};

TEST_F(LockHead, TakesTheHeaderOfTheCurrentList) {
  cacheiter_lock_one_head(env);
  EXPECT_EQ(current(), headerOf(20));
  EXPECT_EQ(holdCount(headerOf(20)), 1U);
  EXPECT_EQ(counters(), SweepCounters{});
}

TEST_F(LockHead, PassesBusyHeadersOver) {
  setLevels(kDebugLevel | kInfoLevel);
  {
    const HeldByAnother one(headerOf(20));
    const HeldByAnother two(headerOf(21));
    cacheiter_lock_one_head(env);
  }
  EXPECT_EQ(current(), headerOf(22));
  EXPECT_EQ(cacheIterator._index, 22);
  EXPECT_EQ(counters(), (SweepCounters{.lists = 2}));
  EXPECT_EQ(recordsOf("Failed to trylock head-node, advancing iteration index"), 2);
  for (const int list : {20, 21}) {
    EXPECT_THAT(
        jni.lines(),
        Contains(HasSubstr("Skipped an index bc of a failed trylock for a head node. head=" +
                           printed(headerOf(list)))));
  }
}

TEST_F(LockHead, InvalidHeaderEndsWithoutACurrentNode) {
  setFlag(is_invalid, headerOf(20));
  setLevels(kInfoLevel);
  cacheiter_lock_one_head(env);
  EXPECT_EQ(current(), nullptr);
  EXPECT_THAT(jni.lines(),
              Contains(HasSubstr("Skipped an index bc of a locked headnode was INVALID. head=" +
                                 printed(headerOf(20)))));
  clearFlag(is_invalid, headerOf(20));
  expectNothingHeld();
}

TEST_F(LockHead, CurrentNodeMustBeNull) {
  cacheIterator._current = headerOf(4);
  setLevels(kDebugLevel);
  cacheiter_lock_one_head(env);
  EXPECT_THAT(thrown(), HasSubstr(kInvalidState));
  EXPECT_EQ(recordsOf("anchor must be null"), 1);
  EXPECT_EQ(current(), headerOf(4));
  cacheIterator._current = nullptr;
  expectNothingHeld();
}

TEST_F(LockHead, HeaderThatIsHeldAlreadyIsRaised) {
  EXPECT_TRUE(overflow_metadata_lock(env, "test", headerOf(20)));
  setLevels(kDebugLevel);
  cacheiter_lock_one_head(env);
  EXPECT_THAT(thrown(), HasSubstr(kInvalidState));
  EXPECT_EQ(recordsOf("_current hold_count != 1"), 1);
}

TEST_F(LockHead, MissingHeaderIsRaised) {
  overflow_metadata* headers = _headerNodes;
  _headerNodes = nullptr;
  cacheIterator._index = 0;
  cacheiter_lock_one_head(env);
  _headerNodes = headers;
  EXPECT_THAT(thrown(), HasSubstr("Unexpected NULL head node"));
  EXPECT_EQ(current(), nullptr);
}

// ---- The anchor --------------------------------------------------------------------------

class Anchor : public CursorTest {};

TEST_F(Anchor, FreedNodeIsForgotten) {
  cacheIterator._anchor = middle;
  setLevels(kDebugLevel);
  cacheiter_freeing_node(env, first);
  EXPECT_EQ(anchor(), middle);
  EXPECT_THAT(jni.lines(), IsEmpty());
  cacheiter_freeing_node(env, middle);
  EXPECT_EQ(anchor(), nullptr);
  EXPECT_EQ(recordsOf("Node being freed is the anchor " + printed(middle)), 1);
  expectNothingHeld();
}

TEST_F(Anchor, RemovalOfItsEntryForgetsIt) {
  cacheIterator._anchor = middle;
  EXPECT_TRUE(remove("first"));
  EXPECT_EQ(anchor(), middle);
  EXPECT_TRUE(remove("middle"));
  EXPECT_EQ(anchor(), nullptr);
}

TEST_F(Anchor, ReplacedNodePassesTheCursorOn) {
  ASSERT_TRUE(trylock_node(env, middle));
  cacheIterator._current = middle;
  cacheIterator._anchor = middle;
  cacheiter_replace_metadata(env, middle, last);
  EXPECT_EQ(current(), last);
  EXPECT_EQ(anchor(), nullptr);
  EXPECT_EQ(holdCount(middle), 0U) << "the node's own lock goes";
  EXPECT_EQ(holdCount(first), 1U);
  EXPECT_EQ(holdCount(last), 1U);
  EXPECT_TRUE(holdsLock(&setOfNode(middle)->mutex));
  EXPECT_EQ(jni.pending(), std::nullopt);
}

TEST_F(Anchor, ReplacingAnotherNodeKeepsIt) {
  ASSERT_TRUE(trylock_node(env, middle));
  cacheIterator._current = middle;
  cacheIterator._anchor = first;
  cacheiter_replace_metadata(env, middle, last);
  EXPECT_EQ(anchor(), first);
}

TEST_F(Anchor, ReplacementRaisesWhenItsLockFails) {
  ASSERT_TRUE(trylock_node(env, middle));
  cacheIterator._current = middle;
  cacheIterator._anchor = middle;
  {
    const FailLock failure(LockRank::anchor, LockOp::lock, 1);
    cacheiter_replace_metadata(env, middle, last);
  }
  EXPECT_THAT(thrown(), HasSubstr("Failed to lock anchor mutex."));
  EXPECT_EQ(anchor(), middle);
  EXPECT_EQ(current(), last);
  letGo();

  ASSERT_TRUE(trylock_node(env, middle));
  cacheIterator._current = middle;
  {
    const FailLock failure(LockRank::anchor, LockOp::unlock, 1);
    underFailingLock([&] {
      cacheiter_replace_metadata(env, middle, last);
      return 0;
    });
  }
  EXPECT_THAT(thrown(), HasSubstr("Failed to unlock anchor mutex."));
  EXPECT_EQ(anchor(), nullptr);
  EXPECT_TRUE(holdsLock(&cacheIterator._anchor_mutex));
}

class CursorDeathTest : public CursorTest {};

TEST_F(CursorDeathTest, ReplacingANodeThatIsNotCurrentAborts) {
  cacheIterator._current = first;
  EXPECT_DEATH(cacheiter_replace_metadata(env, middle, last), "_current == old_metadata");
  cacheIterator._current = nullptr;
}

// ---- Start -------------------------------------------------------------------------------

class SingletonInit : public SweepTest {};

TEST_F(SingletonInit, EachFailureIsRaised) {
  ASSERT_EQ(pthread_mutex_destroy(&cacheIterator._anchor_mutex), 0);
  ASSERT_EQ(pthread_mutex_destroy(&cacheIterator._sweep_state_mutex), 0);
  std::vector<std::string> texts;
  for (bool fired = true; fired;) {
    ASSERT_LT(texts.size(), 12U);
    bool made = false;
    {
      const FailNthLock failure(static_cast<int>(texts.size()) + 1, ENOMEM);
      made = cacheiter_singleton_init(env);
      fired = failure.fired();
    }
    if (fired && made) {
      // Only the attribute's destruction may go unnoticed.
      texts.emplace_back("none");
      EXPECT_EQ(jni.pending(), std::nullopt);
      continue;
    }
    EXPECT_EQ(made, !fired);
    if (!fired) break;
    const std::string text = thrown();
    EXPECT_THAT(text, HasSubstr("(" + std::to_string(ENOMEM) + ")"));
    for (const char* known : {"pthread_mutexattr_init() failed", "pthread_mutex_settype failed",
                              "pthread_mutex_init failed"}) {
      if (text.find(known) != std::string::npos) texts.emplace_back(known);
    }
    ASSERT_FALSE(texts.empty()) << text;
  }
  EXPECT_THAT(texts, Contains("pthread_mutexattr_init() failed"));
  EXPECT_THAT(texts, Contains("pthread_mutex_settype failed"));
  EXPECT_EQ(std::count(texts.begin(), texts.end(), std::string("pthread_mutex_init failed")), 2);
  expectNothingHeld();
}

TEST_F(SingletonInit, BothMutexesCheckForErrors) {
  for (pthread_mutex_t* mutex : {&cacheIterator._anchor_mutex, &cacheIterator._sweep_state_mutex}) {
    EXPECT_EQ(pthread_mutex_lock(mutex), 0);
    EXPECT_EQ(pthread_mutex_lock(mutex), EDEADLK);
    EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
#ifndef __SANITIZE_THREAD__  // which reports the call itself
    EXPECT_EQ(pthread_mutex_unlock(mutex), EPERM);
#endif
  }
}

}  // namespace
}  // namespace nimbra::test
