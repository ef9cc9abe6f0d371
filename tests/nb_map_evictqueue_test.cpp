// Eviction queues through their natives: LRU, LFU and TTL order, removal and clearing, and the
// traces.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "evictqueue_support.h"
#include "record_locks.h"

namespace nimbra::test {
namespace {

using natives::handle;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr char kGenericError[] = "OFFHEAP_GENERIC_ERROR_KTZAR7929";

// ---- LRU ---------------------------------------------------------------------------------

class LruQueue : public EvictionQueueTest {};

TEST_F(LruQueue, InsertAppendsAndAnswersTheCount) {
  const Records r = lru(3);
  EXPECT_THAT(order(), ElementsAre(r[0], r[1], r[2]));
}

TEST_F(LruQueue, UpdateMovesToTheTail) {
  const Records r = lru(3);
  EXPECT_TRUE(updateLRU(r[0]));
  EXPECT_THAT(order(), ElementsAre(r[1], r[2], r[0]));
  EXPECT_TRUE(updateLRU(r[2])) << "from the middle";
  EXPECT_THAT(order(), ElementsAre(r[1], r[0], r[2]));
  EXPECT_TRUE(updateLRU(r[2])) << "the tail stays the tail";
  EXPECT_THAT(order(), ElementsAre(r[1], r[0], r[2]));
}

TEST_F(LruQueue, UpdateOfTheOnlyRecord) {
  const Records r = lru(1);
  EXPECT_TRUE(updateLRU(r[0]));
  EXPECT_THAT(order(), ElementsAre(r[0]));
}

TEST_F(LruQueue, UpdateKeepsTheOrderingValue) {
  Records r = lru(2);
  r[0]->metadata = 77;
  EXPECT_TRUE(updateLRU(r[0]));
  EXPECT_EQ(r[0]->metadata, 77);
}

TEST_F(LruQueue, AppendLeavesTheHighWaterMark) {
  const Records r = lru(3);
  EXPECT_TRUE(updateLRU(r[0]));
  EXPECT_EQ(queue->maxCount, 0U);
  for (LuOffHeapEvictionData* record : r) remove(record);
  LuOffHeapEvictionData* ordered = allocate();
  EXPECT_EQ(insertLFU(ordered), 1);
  EXPECT_EQ(queue->maxCount, 1U) << "the ordered insert raises it";
}

TEST_F(LruQueue, ARecordWithANeighbourIsNotInsertedAgain) {
  const Records r = lru(3);
  setLevels(kErrorLevel | kDebugLevel);
  for (LuOffHeapEvictionData* record : r) {
    jni.clearRecords();
    EXPECT_EQ(insertLRU(record), -1);
    EXPECT_THAT(jni.lines(),
                ElementsAre("debug|JNI:appendIntoEvictionQueue:value is in a eviction "
                            "queue. evictData=" +
                                printed(record),
                            "debug|JNI:insertLRU:Failed to insert an entry from the "
                            "internal queue in Nimbra library. Queue=LRU_Eviction_Queue",
                            std::string("errorGeneric|") + kGenericError +
                                "|Failure appending to LRU_Eviction_Queue. queue=" +
                                printed(queue) + ", evictData=" + printed(record)));
  }
  setLevels(0);
  EXPECT_THAT(order(), ElementsAre(r[0], r[1], r[2])) << "nothing moved";
}

TEST_F(LruQueue, TheFailedInsertIsAnErrorRecordOnlyAtErrorLevel) {
  const Records r = lru(2);
  setLevels(kInfoLevel | kWarningLevel);
  EXPECT_EQ(insertLRU(r[0]), -1);
  EXPECT_TRUE(jni.records().empty());
}

// A record out of the middle keeps the links that it had there.
TEST_F(LruQueue, ARecordTakenFromTheMiddleIsRefusedUntilItsLinksAreCleared) {
  const Records r = lru(3);
  EXPECT_EQ(remove(r[1]), 2);
  EXPECT_EQ(insertLRU(r[1]), -1);
  r[1]->prev = nullptr;
  r[1]->next = nullptr;
  EXPECT_EQ(insertLRU(r[1]), 3);
  EXPECT_THAT(order(), ElementsAre(r[0], r[2], r[1]));
  EXPECT_EQ(remove(r[0]), 2);
  EXPECT_EQ(insertLRU(r[0]), 3) << "the ends are cleared";
  EXPECT_EQ(remove(r[0]), 2);
  EXPECT_EQ(insertLRU(r[0]), 3);
  EXPECT_THAT(order(), ElementsAre(r[2], r[1], r[0]));
}

TEST_F(LruQueue, FailedUpdateKeepsTheTransientPin) {
  const Records r = lru(2);
  LuOffHeapEvictionData* stranger = allocate();
  setLevels(kDebugLevel);
  EXPECT_FALSE(updateLRU(stranger));
  EXPECT_EQ(stranger->pins, 2);
  setLevels(0);
  expectNotFound(stranger);
  unpinRecord(stranger, NATIVE_TRANSIENT_GET_PIN);
  EXPECT_THAT(order(), ElementsAre(r[0], r[1]));
  EXPECT_FALSE(updateLRU(stranger)) << "also while nothing traces";
  expectNotFound(stranger);
  EXPECT_EQ(stranger->pins, 2);
  unpinRecord(stranger, NATIVE_TRANSIENT_GET_PIN);
  order();
}

TEST_F(LruQueue, AQueueOfOneLetsItsRecordInTwice) {
  // The test for neighbours cannot see a record that is alone; callers do not ask for this.
  LuOffHeapEvictionData* record = lru(1)[0];
  EXPECT_EQ(insertLRU(record), 2);
  EXPECT_EQ(record->next, record) << "it became its own neighbour";
  // Put right by hand.
  record->next = nullptr;
  record->prev = nullptr;
  queue->count = 1;
  while (record->pins > 3) unpinRecord(record, EVICTION_QUEUE_LAST_PIN);
  EXPECT_THAT(order(), ElementsAre(record));
}

TEST_F(LruQueue, InsertTrace) {
  LuOffHeapEvictionData* first = allocate();
  LuOffHeapEvictionData* second = allocate();
  const auto traceInsert = [&](LuOffHeapEvictionData* record, LuOffHeapEvictionData* last) {
    setLevels(kAllLevels);
    const jint count = insertLRU(record);
    Script script;
    const char* arguments = "queue=%p, evictData=%p";
    script.entry("insertLRU", arguments, address(queue), address(record));
    script.entry("appendIntoEvictionQueue", arguments, address(queue), address(record));
    if (last != nullptr) {
      script.pins(last, EVICTION_QUEUE_PREV_PIN, 4);
      script.pins(record, EVICTION_QUEUE_NEXT_PIN, 2);
      script.unpins(last, EVICTION_QUEUE_LAST_PIN, 3);
      script.debug("unpinLuOffHeapEvictionData", "evictData=%p, refCount=%d", address(last), 3);
      script.pins(record, EVICTION_QUEUE_LAST_PIN, 3);
    } else {
      script.pins(record, EVICTION_QUEUE_LAST_PIN, 2);
      script.pins(record, EVICTION_QUEUE_FIRST_PIN, 3);
    }
    script.exit("appendIntoEvictionQueue", "queue=%p, evictData=%p, return=%d", address(queue),
                address(record), 1);
    script.exit("insertLRU", "queue=%p, evictData=%p, return=%d", address(queue), address(record),
                count);
    script.expectIn(jni);
    setLevels(0);
  };
  traceInsert(first, nullptr);
  traceInsert(second, first);
}

TEST_F(LruQueue, UpdateTraceGuardsTheRecord) {
  const Records r = lru(1);
  setLevels(kDebugLevel | kEntryLevel);
  EXPECT_TRUE(updateLRU(r[0]));
  std::vector<std::string> own;
  for (const std::string& line : traceOf(jni)) {
    if (line.find("updateLRU") != std::string::npos ||
        line.find("reason=NATIVE_TRANSIENT_GET_PIN") != std::string::npos) {
      own.push_back(line);
    }
  }
  setLevels(0);
  const std::string arguments = "queue=" + printed(queue) + ", evictData=" + printed(r[0]);
  ASSERT_EQ(own.size(), 4U);
  EXPECT_THAT(own[0], ::testing::AllOf(::testing::StartsWith("entry|"), HasSubstr(arguments)));
  EXPECT_EQ(own[1], "debug|JNI:pin:enter pin: header=" + printed(r[0]) +
                        ", reason=NATIVE_TRANSIENT_GET_PIN");
  EXPECT_EQ(own[2], "debug|JNI:unpin:enter unpin: header=" + printed(r[0]) +
                        ", reason=NATIVE_TRANSIENT_GET_PIN");
  EXPECT_THAT(own[3], ::testing::AllOf(::testing::StartsWith("exit|"), HasSubstr(arguments)));
}

TEST_F(LruQueue, FailedUpdateTrace) {
  lru(2);
  LuOffHeapEvictionData* stranger = allocate();
  setLevels(kDebugLevel);
  // The exception of the removal silences what follows it; without it the record arrives.
  jni.failCall("ThrowNew");
  EXPECT_FALSE(updateLRU(stranger));
  EXPECT_THAT(jni.lines(),
              Contains(HasSubstr("Failure removing from queue. queue=" + printed(queue) +
                                 ", evictData=" + printed(stranger))));
  setLevels(0);
  jni.clearPending();
  unpinRecord(stranger, NATIVE_TRANSIENT_GET_PIN);
}

// ---- LFU ---------------------------------------------------------------------------------

class LfuQueue : public EvictionQueueTest {};

TEST_F(LfuQueue, EqualCountsKeepTheirArrivalAndAMovedRecordGoesBehindItsEquals) {
  Records r;
  for (int i = 0; i < 3; ++i) {
    r.push_back(allocate(99));
    EXPECT_EQ(insertLFU(r.back()), i + 1);
    EXPECT_EQ(r.back()->metadata, 0) << "a new record starts at 0";
  }
  EXPECT_THAT(order(true), ElementsAre(r[0], r[1], r[2]));
  EXPECT_TRUE(updateLFU(r[1]));
  EXPECT_EQ(r[1]->metadata, 1);
  EXPECT_THAT(order(true), ElementsAre(r[0], r[2], r[1]));
  EXPECT_TRUE(updateLFU(r[0]));
  EXPECT_THAT(order(true), ElementsAre(r[2], r[1], r[0]));
  EXPECT_TRUE(updateLFU(r[1]));
  EXPECT_THAT(order(true), ElementsAre(r[2], r[0], r[1]));
  EXPECT_EQ(queue->maxCount, 3U);
}

TEST_F(LfuQueue, ALatecomerGoesBehindTheOthersOfNoAccess) {
  const Records r = {allocate(), allocate(), allocate()};
  insertLFU(r[0]);
  insertLFU(r[1]);
  updateLFU(r[1]);
  EXPECT_EQ(insertLFU(r[2]), 3);
  EXPECT_THAT(order(true), ElementsAre(r[0], r[2], r[1]));
}

TEST_F(LfuQueue, UpdateOfAStrangerRaisesAndInsertsIt) {
  LuOffHeapEvictionData* member = allocate();
  insertLFU(member);
  LuOffHeapEvictionData* stranger = allocate(4);
  EXPECT_TRUE(updateLFU(stranger)) << "the results of removal and insert are ignored";
  expectNotFound(stranger);
  EXPECT_EQ(stranger->metadata, 5);
  EXPECT_THAT(order(true), ElementsAre(member, stranger));
}

TEST_F(LfuQueue, ANullRecordIsRefused) {
  // The ordered insert refuses null; what it is asked to sort must exist, though.
  EXPECT_FALSE(appendToQueue(env, queue, nullptr));
  EXPECT_THAT(order(), IsEmpty());
}

// ---- TTL ---------------------------------------------------------------------------------

class TtlQueue : public EvictionQueueTest {
 protected:
  std::optional<Records> due(jlong now) {
    return take(natives::getTTLEvictionList(env, caller, handle(queue), now), JNI_GET_PIN);
  }
};

TEST_F(TtlQueue, SortsByTimeAndEqualTimesByArrival) {
  const Records r = ttl({50, 30, 50, 70, INT64_MIN, INT64_MAX});
  EXPECT_THAT(order(true), ElementsAre(r[4], r[1], r[0], r[2], r[3], r[5]));
  EXPECT_EQ(r[1]->metadata, 30);
  EXPECT_EQ(queue->maxCount, 6U);
}

TEST_F(TtlQueue, UpdateMovesBothWays) {
  const Records r = ttl({10, 20, 30});
  EXPECT_TRUE(updateTTL(r[0], 25));
  EXPECT_THAT(order(true), ElementsAre(r[1], r[0], r[2]));
  EXPECT_TRUE(updateTTL(r[2], 5));
  EXPECT_THAT(order(true), ElementsAre(r[2], r[1], r[0]));
  EXPECT_TRUE(updateTTL(r[1], 25)) << "behind its equal";
  EXPECT_THAT(order(true), ElementsAre(r[2], r[0], r[1]));
  EXPECT_TRUE(updateTTL(r[0], 25)) << "and again";
  EXPECT_THAT(order(true), ElementsAre(r[2], r[1], r[0]));
}

TEST_F(TtlQueue, UpdateOfAStrangerRaisesAndInsertsIt) {
  const Records r = ttl({10, 20});
  LuOffHeapEvictionData* stranger = allocate();
  EXPECT_TRUE(updateTTL(stranger, 15));
  expectNotFound(stranger);
  EXPECT_THAT(order(true), ElementsAre(r[0], stranger, r[1]));
}

TEST_F(TtlQueue, TheListHoldsWhatIsStrictlyBefore) {
  const Records r = ttl({10, 20, 30});
  EXPECT_THAT(*due(10), IsEmpty()) << "due at 10 is not due before 10";
  EXPECT_THAT(*due(11), ElementsAre(r[0]));
  EXPECT_THAT(*due(30), ElementsAre(r[0], r[1]));
  EXPECT_THAT(*due(INT64_MAX), ElementsAre(r[0], r[1], r[2]));
  EXPECT_THAT(*due(INT64_MIN), IsEmpty());
  order(true);
}

TEST_F(TtlQueue, TheListEndsAtTheFirstRecordThatIsNotDue) {
  const Records r = ttl({10, 20, 30});
  r[2]->metadata = 1;
  EXPECT_THAT(*due(15), ElementsAre(r[0])) << "the order is relied on";
  r[2]->metadata = 30;
}

// The other lists pin with the reason of eviction lists; Java drops each with its own.
TEST_F(TtlQueue, ListPinsWithTheReasonOfGets) {
  const Records r = ttl({10, 20});
  setLevels(kDebugLevel);
  const jlongArray list = natives::getTTLEvictionList(env, caller, handle(queue), 100);
  std::vector<std::string> pins;
  for (const std::string& line : jni.lines()) {
    if (line.find(":enter pin: ") != std::string::npos) pins.push_back(line);
  }
  setLevels(0);
  EXPECT_THAT(
      pins,
      ElementsAre("debug|JNI:pin:enter pin: header=" + printed(r[0]) + ", reason=JNI_GET_PIN",
                  "debug|JNI:pin:enter pin: header=" + printed(r[1]) + ", reason=JNI_GET_PIN"));
  take(list, JNI_GET_PIN);
}

TEST_F(TtlQueue, MinimumTime) {
  const auto minimum = [&] { return natives::getMinimumTime(env, caller, handle(queue)); };
  EXPECT_EQ(minimum(), 0x7FFF'FFFF'FFFF'FFFF) << "an empty queue";
  const Records r = ttl({50, -30, 70});
  EXPECT_EQ(minimum(), -30);
  updateTTL(r[1], 60);
  EXPECT_EQ(minimum(), 50);
  EXPECT_EQ(natives::getMinimumTime(env, caller, 0), 0) << "no queue";
  {
    RecordLocks locks;
    minimum();
    EXPECT_EQ(locks.operations(),
              (std::vector<RecordLocks::Operation>{{&queue->mutex, LockOp::lock},
                                                   {&queue->mutex, LockOp::unlock}}));
  }
  order(true);
}

TEST_F(TtlQueue, MinimumTimeTrace) {
  ttl({50});
  setLevels(kAllLevels);
  natives::getMinimumTime(env, caller, handle(queue));
  Script script;
  script.entry("getMinimumTime", "queue=%p", address(queue));
  script.exit("getMinimumTime", "queue=%p, minimumTime=%lu", address(queue), 50UL);
  script.expectIn(jni);
}

TEST_F(TtlQueue, ListTrace) {
  ttl({50, 60});
  setLevels(kEntryLevel);
  const jlongArray list = natives::getTTLEvictionList(env, caller, handle(queue), 55);
  const std::vector<std::string> lines = jni.lines();
  setLevels(0);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_THAT(lines[0], ::testing::EndsWith(":queue=" + printed(queue) + ", currentTime=55"));
  EXPECT_THAT(lines[1],
              ::testing::EndsWith(":queue=" + printed(queue) + ", currentTime=55, count=1"));
  take(list, JNI_GET_PIN);
}

// ---- Removal, clearing, freeing ----------------------------------------------------------

class EvictionQueueRemoval : public EvictionQueueTest {};

TEST_F(EvictionQueueRemoval, AnswersTheCountThatIsLeft) {
  const Records r = lru(4);
  EXPECT_EQ(remove(r[1]), 3);
  EXPECT_THAT(order(), ElementsAre(r[0], r[2], r[3]));
  EXPECT_EQ(remove(r[0]), 2);
  EXPECT_EQ(remove(r[3]), 1);
  EXPECT_THAT(order(), ElementsAre(r[2]));
  EXPECT_EQ(remove(r[2]), 0);
  EXPECT_THAT(order(), IsEmpty());
}

TEST_F(EvictionQueueRemoval, OfAStrangerRaisesAndStillAnswersTheCount) {
  const Records r = lru(2);
  LuOffHeapEvictionData* stranger = allocate();
  setLevels(kEntryLevel);
  EXPECT_EQ(remove(stranger), 2);
  for (const std::string& line : jni.lines()) {
    EXPECT_EQ(line.find("exit|JNI:LuOffHeapEvictionQueue_remove"), std::string::npos)
        << "only a removal that succeeds is traced at its end";
  }
  setLevels(0);
  expectNotFound(stranger);
  EXPECT_THAT(order(), ElementsAre(r[0], r[1]));
}

TEST_F(EvictionQueueRemoval, Trace) {
  const Records r = lru(2);
  setLevels(kEntryLevel);
  EXPECT_EQ(remove(r[0]), 1);
  const std::vector<std::string> lines = jni.lines();
  setLevels(0);
  const std::string arguments = "queue=" + printed(queue) + ", evictData=" + printed(r[0]);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), "entry|JNI:LuOffHeapEvictionQueue_remove:" + arguments);
  EXPECT_EQ(lines.back(), "exit|JNI:LuOffHeapEvictionQueue_remove:" + arguments + ", size=1");
}

TEST_F(EvictionQueueRemoval, FreesARecordThatOnlyTheQueueHeld) {
  const Records r = lru(1);
  made.clear();
  unpinRecord(r[0], ALLOCATION_PIN);
  EXPECT_EQ(r[0]->pins, 2);
  const Books before = Books::now();
  EXPECT_EQ(remove(r[0]), 0);
  EXPECT_EQ(Books::now().blocks, before.blocks - 1);
  EXPECT_EQ(queue->count, 0U);
}

TEST_F(EvictionQueueRemoval, ClearEmptiesFromTheTail) {
  const Records r = lru(3);
  setLevels(kEntryLevel);
  EXPECT_TRUE(natives::clearEvictionQueue(env, caller, handle(queue)));
  std::vector<std::string> removed;
  for (const std::string& line : jni.lines()) {
    const std::size_t at = line.find("Entry to Remove: entry=");
    if (at != std::string::npos)
      removed.push_back(line.substr(at + 23, line.find(',', at) - at - 23));
  }
  EXPECT_THAT(jni.lines().front(),
              ::testing::StartsWith("entry|JNI:clearEvictionQueue:queue=" + printed(queue)));
  EXPECT_EQ(jni.lines().back(), "exit|JNI:clearEvictionQueue:queue=" + printed(queue));
  setLevels(0);
  EXPECT_THAT(removed, ElementsAre(printed(r[2]), printed(r[1]), printed(r[0])));
  EXPECT_THAT(order(), IsEmpty());
  EXPECT_TRUE(natives::clearEvictionQueue(env, caller, handle(queue))) << "an empty one";
}

TEST_F(EvictionQueueRemoval, ClearFreesWhatNothingElseHolds) {
  const Books before = Books::now();
  Records r = lru(3);
  unpinRecord(r[0], ALLOCATION_PIN);
  unpinRecord(r[2], ALLOCATION_PIN);
  made = {r[1]};
  EXPECT_TRUE(natives::clearEvictionQueue(env, caller, handle(queue)));
  EXPECT_EQ(Books::now().blocks, before.blocks + 1);
  EXPECT_EQ(key->pins, 2);
}

TEST_F(EvictionQueueRemoval, FreeClearsFirst) {
  const Books before = Books::now();
  const jlong other = natives::allocateEvictionQueue(env, caller);
  ASSERT_NE(other, 0);
  EXPECT_EQ(Books::now().blocks, before.blocks + 1);
  EXPECT_GT(Books::now().metadata, before.metadata);
  LuOffHeapEvictionData* record = allocateEvictionData(env, key, true);
  EXPECT_EQ(natives::insertLRU(env, caller, other, handle(record)), 1);
  unpinRecord(record, ALLOCATION_PIN);
  EXPECT_TRUE(natives::freeEvictionQueue(env, caller, other));
  EXPECT_EQ(Books::now(), before);
}

TEST_F(EvictionQueueRemoval, AQueueThatCannotBeLockedIsNotFreed) {
  const Records r = lru(2);
  {
    FailLock failure(LockRank::queue, LockOp::lock, 1);
    EXPECT_FALSE(natives::freeEvictionQueue(env, caller, handle(queue)));
    EXPECT_TRUE(failure.fired());
  }
  EXPECT_THAT(order(), ElementsAre(r[0], r[1]));
}

TEST_F(EvictionQueueRemoval, RefusedQueueMemoryIsNoQueue) {
  const Books before = Books::now();
  RefuseAllocation refusal(1, RefuseAllocation::Way::kNothingLeft, "LuOffHeapQueue");
  EXPECT_EQ(natives::allocateEvictionQueue(env, caller), 0);
  EXPECT_TRUE(refusal.fired());
  EXPECT_EQ(Books::now(), before);
}

}  // namespace
}  // namespace nimbra::test
