// The lists that eviction queues hand to Java, and what each failing lock and each refused block
// leaves of any operation.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "evictqueue_support.h"
#include "record_locks.h"

namespace nimbra::test {
namespace {

using natives::handle;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// ---- The head list -----------------------------------------------------------------------

class HeadList : public EvictionQueueTest {
 protected:
  // The list as Java reads it: up to the first 0. Drops the pins.
  std::optional<Records> head(jsize length) {
    const jlongArray out =
        jni.newLongArray(std::vector<jlong>(static_cast<std::size_t>(length), -1));
    if (natives::getEvictionList(env, caller, handle(queue), out) != JNI_TRUE) return std::nullopt;
    Records records;
    for (const jlong one : jni.longsOf(out)) {
      if (one == 0) break;
      records.push_back(natives::asEvictionData(one));
      EXPECT_EQ(records.back()->pins, 4);
      unpinRecord(records.back(), JNI_EVICTLIST_PIN);
    }
    return records;
  }
};

TEST_F(HeadList, HoldsAsManyAsTheArrayOrTheQueueHas) {
  const Records r = lru(3);
  EXPECT_THAT(*head(5), ElementsAre(r[0], r[1], r[2])) << "and a 0 behind them";
  EXPECT_THAT(*head(4), ElementsAre(r[0], r[1], r[2]));
  EXPECT_THAT(*head(3), ElementsAre(r[0], r[1], r[2]));
  EXPECT_THAT(*head(2), ElementsAre(r[0], r[1])) << "exactly as many are pinned";
  EXPECT_THAT(*head(0), IsEmpty());
  EXPECT_THAT(order(), ElementsAre(r[0], r[1], r[2]));
}

TEST_F(HeadList, OfAnEmptyQueueStartsWithAZero) { EXPECT_THAT(*head(3), IsEmpty()); }

TEST_F(HeadList, PinsWithTheReasonOfEvictionLists) {
  const Records r = lru(1);
  const jlongArray out = jni.newLongArray({-1, -1});
  setLevels(kDebugLevel);
  EXPECT_TRUE(natives::getEvictionList(env, caller, handle(queue), out));
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:pin:enter pin: header=" + printed(r[0]) +
                                    ", reason=JNI_EVICTLIST_PIN"));
  setLevels(0);
  unpinRecord(r[0], JNI_EVICTLIST_PIN);
}

TEST_F(HeadList, ARemovedRecordStaysReadable) {
  const Records r = lru(2);
  const jlongArray out = jni.newLongArray({-1, -1});
  EXPECT_TRUE(natives::getEvictionList(env, caller, handle(queue), out));
  made = {r[1]};
  unpinRecord(r[0], ALLOCATION_PIN);
  EXPECT_EQ(remove(r[0]), 1);
  EXPECT_EQ(r[0]->pins, 1);
  EXPECT_EQ(r[0]->key, key);
  unpinRecord(r[0], JNI_EVICTLIST_PIN);
  unpinRecord(r[1], JNI_EVICTLIST_PIN);
}

TEST_F(HeadList, ScratchMemoryIsTakenBeforeTheLock) {
  lru(2);
  const jlongArray out = jni.newLongArray({-1, -1});
  for (const auto way :
       {RefuseAllocation::Way::kNothingLeft, RefuseAllocation::Way::kOverMaximum}) {
    RecordLocks locks;
    RefuseAllocation refusal(1, way, "Addresses for Eviction List");
    EXPECT_FALSE(natives::getEvictionList(env, caller, handle(queue), out));
    EXPECT_TRUE(refusal.fired());
    EXPECT_TRUE(locks.operations().empty());
    jni.clearPending();
  }
  EXPECT_THAT(jni.longsOf(out), ::testing::Each(-1));
  order();
}

// ---- The list of a whole queue -----------------------------------------------------------

class WholeQueueList : public EvictionQueueTest {
 protected:
  std::optional<Records> expired(jlong now) {
    return take(natives::getVoskaEvictionList(env, caller, handle(queue), now), JNI_EVICTLIST_PIN);
  }
};

TEST_F(WholeQueueList, FindsEitherTimeAnywhere) {
  const std::vector<std::pair<int64_t, int64_t>> times = {{100, 100}, {100, 5}, {5, 100},
                                                          {100, 100}, {5, 5},   {100, 9}};
  Records r;
  for (const auto& [metadata, expiration] : times) {
    r.push_back(allocate(metadata, expiration));
    insertLRU(r.back());
  }
  EXPECT_THAT(*expired(10), ElementsAre(r[1], r[2], r[4], r[5])) << "in queue order";
  EXPECT_THAT(*expired(9), ElementsAre(r[1], r[2], r[4])) << "strictly before";
  EXPECT_THAT(*expired(5), IsEmpty());
  EXPECT_THAT(*expired(INT64_MIN), IsEmpty());
  EXPECT_EQ(expired(INT64_MAX)->size(), 6U);
  EXPECT_EQ(order(), r);
}

TEST_F(WholeQueueList, PinsWithTheReasonOfEvictionLists) {
  LuOffHeapEvictionData* record = allocate(1, 1);
  insertLRU(record);
  setLevels(kDebugLevel);
  const jlongArray list = natives::getVoskaEvictionList(env, caller, handle(queue), 10);
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:pin:enter pin: header=" + printed(record) +
                                    ", reason=JNI_EVICTLIST_PIN"));
  setLevels(0);
  take(list, JNI_EVICTLIST_PIN);
}

TEST_F(WholeQueueList, Trace) {
  insertLRU(allocate(1, 1));
  setLevels(kEntryLevel);
  EXPECT_EQ(natives::getVoskaEvictionList(env, caller, 0, 55), nullptr);
  EXPECT_TRUE(jni.records().empty()) << "no queue, no trace";
  const jlongArray list = natives::getVoskaEvictionList(env, caller, handle(queue), 55);
  const std::vector<std::string> lines = jni.lines();
  setLevels(0);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_THAT(lines[0], ::testing::EndsWith(":queue=" + printed(queue) + ", currentTime=55"));
  EXPECT_THAT(lines[1],
              ::testing::EndsWith(":queue=" + printed(queue) + ", currentTime=55, count=1"));
  take(list, JNI_EVICTLIST_PIN);
}

// ---- Failures of every operation ---------------------------------------------------------

class EvictionQueueFailures : public EvictionQueueTest {
 protected:
  using ListCall = std::function<jlongArray()>;
  std::vector<ListCall> timeLists() {
    return {[this] { return natives::getTTLEvictionList(env, caller, handle(queue), 100); },
            [this] { return natives::getVoskaEvictionList(env, caller, handle(queue), 100); }};
  }
};

TEST_F(EvictionQueueFailures, NullQueues) {
  LuOffHeapEvictionData* record = allocate();
  const jlong at = handle(record);
  EXPECT_EQ(natives::insertLRU(env, caller, 0, at), 0);
  EXPECT_EQ(natives::insertTTL(env, caller, 0, at, 5), 0);
  EXPECT_FALSE(natives::updateLRU(env, caller, 0, at));
  EXPECT_FALSE(natives::updateLFU(env, caller, 0, at));
  EXPECT_FALSE(natives::updateTTL(env, caller, 0, at, 5));
  EXPECT_FALSE(natives::clearEvictionQueue(env, caller, 0));
  EXPECT_FALSE(natives::freeEvictionQueue(env, caller, 0));
  EXPECT_EQ(natives::getTTLEvictionList(env, caller, 0, 5), nullptr);
  EXPECT_EQ(natives::getVoskaEvictionList(env, caller, 0, 5), nullptr);
  EXPECT_EQ(natives::getMinimumTime(env, caller, 0), 0);
  EXPECT_EQ(record->metadata, 0);
  EXPECT_EQ(record->pins, 1);
}

TEST_F(EvictionQueueFailures, AQueueThatCannotBeLockedIsLeftAsItIs) {
  const Records r = ttl({10, 20});
  LuOffHeapEvictionData* outside = allocate(3);
  const jlongArray out = jni.newLongArray({-1, -1});
  setLevels(kErrorLevel | kWarningLevel | kInfoLevel);
  struct Operation {
    const char* name;
    std::function<int64_t()> run;
    int64_t answer;
  };
  const std::vector<Operation> operations = {
      {"insertLRU", [&] { return insertLRU(outside); }, -1},
      {"insertLFU", [&] { return insertLFU(outside); }, -1},
      {"insertTTL", [&] { return insertTTL(outside, 5); }, -1},
      {"updateLRU", [&] { return updateLRU(r[0]); }, 0},
      {"updateLFU", [&] { return updateLFU(r[0]); }, 0},
      {"updateTTL", [&] { return updateTTL(r[0], 99); }, 0},
      {"remove", [&] { return remove(r[0]); }, -1},
      {"clear", [&] { return natives::clearEvictionQueue(env, caller, handle(queue)); }, 0},
      {"head list", [&] { return natives::getEvictionList(env, caller, handle(queue), out); }, 0},
      {"ttl list", [&] { return handle(timeLists()[0]()); }, 0},
      {"whole list", [&] { return handle(timeLists()[1]()); }, 0},
      {"minimum", [&] { return natives::getMinimumTime(env, caller, handle(queue)); }, 0},
  };
  const Books before = Books::now();
  for (const Operation& operation : operations) {
    SCOPED_TRACE(operation.name);
    FailLock failure(LockRank::queue, LockOp::lock, 1);
    EXPECT_EQ(operation.run(), operation.answer);
    EXPECT_TRUE(failure.fired());
    EXPECT_TRUE(jni.records().empty()) << "nothing is logged";
    EXPECT_FALSE(jni.pending().has_value());
    EXPECT_EQ(outside->metadata, 3);
    EXPECT_EQ(r[0]->metadata, 10);
  }
  EXPECT_EQ(Books::now(), before);
  EXPECT_THAT(jni.longsOf(out), ElementsAre(-1, -1));
  EXPECT_THAT(order(true), ElementsAre(r[0], r[1]));
}

TEST_F(EvictionQueueFailures, RefusedScratchMemoryPinsNothing) {
  ttl({10, 20});
  for (const ListCall& list : timeLists()) {
    for (const auto way :
         {RefuseAllocation::Way::kNothingLeft, RefuseAllocation::Way::kOverMaximum}) {
      const Books before = Books::now();
      RefuseAllocation refusal(1, way, "Addresses for Eviction List");
      EXPECT_EQ(list(), nullptr);
      EXPECT_TRUE(refusal.fired());
      jni.clearPending();
      EXPECT_EQ(Books::now(), before);
      EXPECT_EQ(jni.liveLocals(), 0U);
      order(true);
    }
  }
}

TEST_F(EvictionQueueFailures, AnEmptyListNeedsNoScratchMemory) {
  for (const ListCall& list : timeLists()) {
    RefuseAllocation refusal(1);
    const jlongArray array = list();
    ASSERT_NE(array, nullptr);
    EXPECT_TRUE(jni.longsOf(jni.adopt(array)).empty());
    EXPECT_FALSE(refusal.fired());
  }
}

TEST_F(EvictionQueueFailures, AJavaArrayThatCannotBeHadPinsNothing) {
  ttl({10, 20});
  for (const ListCall& list : timeLists()) {
    jni.failCall("NewLongArray", 1, Thrown{kOutOfMemory, "no room"});
    const Books before = Books::now();
    EXPECT_EQ(list(), nullptr);
    EXPECT_TRUE(jni.takePending().has_value());
    EXPECT_EQ(Books::now(), before);
    order(true);
  }
}

TEST_F(EvictionQueueFailures, AFailedUnlockEndsTheTtlList) {
  const Records r = ttl({10, 20});
  {
    FailNthLock failure(2);
    EXPECT_EQ(underFailingLock([&] { return timeLists()[0](); }), nullptr);
    EXPECT_EQ(failure.site(), "queue unlock");
    failure.release();
  }
  EXPECT_EQ(jni.liveLocals(), 0U) << "the array";
  for (LuOffHeapEvictionData* record : r) {
    EXPECT_EQ(record->pins, 4) << "the pins were taken for Java";
    unpinRecord(record, JNI_GET_PIN);
  }
  order(true);
}

TEST_F(EvictionQueueFailures, AFailedUnlockOfAWholeQueueListIsIgnored) {
  const Records r = ttl({10, 20});
  {
    FailNthLock failure(2);
    const jlongArray list = underFailingLock([&] { return timeLists()[1](); });
    EXPECT_EQ(failure.site(), "queue unlock");
    failure.release();
    EXPECT_THAT(*take(list, JNI_EVICTLIST_PIN), ElementsAre(r[0], r[1]));
  }
  order(true);
}

TEST_F(EvictionQueueFailures, EveryOperationHoldsTheQueueOnceForItsWholeWork) {
  const Records r = ttl({10, 20});
  LuOffHeapEvictionData* extra = allocate();
  const jlongArray out = jni.newLongArray({-1});
  const std::vector<std::function<void()>> operations = {
      [&] { insertTTL(extra, 15); },
      [&] { updateTTL(extra, 25); },
      [&] { updateLFU(extra); },
      [&] { updateLRU(r[0]); },
      [&] { remove(extra); },
      [&] { insertLFU(extra); },
      [&] {
        natives::getEvictionList(env, caller, handle(queue), out);
        unpinRecord(natives::asEvictionData(jni.longsOf(out)[0]), JNI_EVICTLIST_PIN);
      },
      [&] { take(timeLists()[0](), JNI_GET_PIN); },
      [&] { take(timeLists()[1](), JNI_EVICTLIST_PIN); },
      [&] { natives::clearEvictionQueue(env, caller, handle(queue)); },
  };
  for (std::size_t i = 0; i < operations.size(); ++i) {
    SCOPED_TRACE(i);
    RecordLocks locks;
    operations[i]();
    EXPECT_EQ(locks.operations(),
              (std::vector<RecordLocks::Operation>{{&queue->mutex, LockOp::lock},
                                                   {&queue->mutex, LockOp::unlock}}));
  }
  RecordLocks locks;
  natives::getQueueCount(env, caller, handle(queue));
  EXPECT_TRUE(locks.operations().empty());
}

TEST_F(EvictionQueueFailures, UpdateTraces) {
  const Records r = ttl({10, 20});
  setLevels(kEntryLevel);
  const std::string arguments = "queue=" + printed(queue) + ", evictData=" + printed(r[0]);
  for (const bool byTime : {false, true}) {
    jni.clearRecords();
    EXPECT_TRUE(byTime ? updateTTL(r[0], 30) : updateLFU(r[0]));
    EXPECT_THAT(jni.lines().front(), ::testing::AllOf(::testing::StartsWith("entry|"),
                                                      ::testing::EndsWith(":" + arguments)));
    EXPECT_THAT(jni.lines().back(), ::testing::AllOf(::testing::StartsWith("exit|"),
                                                     ::testing::EndsWith(":" + arguments)));
  }
  setLevels(0);
}

TEST_F(EvictionQueueFailures, InsertTraces) {
  setLevels(kEntryLevel);
  for (const bool byTime : {false, true}) {
    LuOffHeapEvictionData* record = allocate();
    jni.clearRecords();
    const jint count = byTime ? insertTTL(record, 30) : insertLFU(record);
    const std::string arguments = "queue=" + printed(queue) + ", evictData=" + printed(record);
    EXPECT_THAT(jni.lines().front(), ::testing::AllOf(::testing::StartsWith("entry|"),
                                                      ::testing::EndsWith(":" + arguments)));
    EXPECT_THAT(jni.lines().back(),
                ::testing::AllOf(
                    ::testing::StartsWith("exit|"),
                    ::testing::EndsWith(":" + arguments + ", return=" + std::to_string(count))));
  }
  setLevels(0);
}

}  // namespace
}  // namespace nimbra::test
