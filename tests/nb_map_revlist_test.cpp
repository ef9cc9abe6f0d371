// The per-owner list of revision queues: growth, moves of an entry between owners with every
// failure, removal by owner, and clearing.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string kLockError = std::string("errorGeneric|") + kLockErrorKey + "|";
const std::string kQueueLockText =
    "Error acquiring internal queue lock in Nimbra library. Queue=Entry Revision Queue";

class RevisionList : public MapTest {
 protected:
  void SetUp() override {
    MapTest::SetUp();
    ASSERT_EQ(wrlock(env, map), 0);
  }
  void TearDown() override {
    if (holdsLock(&map->lock)) {
      EXPECT_EQ(unlock(env, map), 0);
    }
    MapTest::TearDown();
  }
  LuOffHeapRevisionOrderQueue* queueOf(uint16_t owner) { return map->revisionQueue[owner]; }

  // A record in its owner's queue, with one pin of the test.
  LuOffHeapValue* queued(uint16_t owner, int64_t revision) {
    LuOffHeapValue* value = record("key", "value", owner, revision);
    EXPECT_TRUE(updateRevisionQueue(env, map, nullptr, value));
    return value;
  }
  void expectQueuesFree() {
    for (uint32_t i = 0; i < map->numQueues; ++i) {
      EXPECT_TRUE(isFree(&map->revisionQueue[i]->mutex)) << "queue " << i;
    }
  }
};

// ---- The owner's queue -------------------------------------------------------------------

TEST_F(RevisionList, AKnownOwnerChangesNothing) {
  const Books before = Books::now();
  EXPECT_EQ(getQueue(env, map, 0), map->revisionQueue[0]);
  EXPECT_EQ(map->numQueues, 1U);
  EXPECT_EQ(Books::now(), before);
}

TEST_F(RevisionList, ANewOwnerBringsAllQueuesBelowItIntoBeing) {
  LuOffHeapRevisionOrderQueue* zero = map->revisionQueue[0];
  const auto oldList = static_cast<int64_t>(getUsableSize(map->revisionQueue));
  const Books before = Books::now();
  setLevels(kDebugLevel);
  LuOffHeapRevisionOrderQueue* four = getQueue(env, map, 4);
  ASSERT_EQ(map->numQueues, 5U);
  std::vector<std::string> own;
  for (const LogRecord& record : jni.records()) {
    const std::size_t at = record.text.find("updRevQ:");
    if (at != std::string::npos) own.push_back(record.text.substr(at));
  }
  EXPECT_THAT(own, ElementsAre("updRevQ: saving queue[0]=" + printed(zero),
                               "updRevQ: allocated new queue[1]=" + printed(queueOf(1)),
                               "updRevQ: allocated new queue[2]=" + printed(queueOf(2)),
                               "updRevQ: allocated new queue[3]=" + printed(queueOf(3)),
                               "updRevQ: allocated new queue[4]=" + printed(queueOf(4))));
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("type=LuOffHeapQueue List")));
  setLevels(0);
  EXPECT_EQ(queueOf(0), zero) << "a queue pointer stays valid";
  EXPECT_EQ(queueOf(4), four);
  int64_t added = static_cast<int64_t>(getUsableSize(map->revisionQueue)) - oldList;
  for (uint16_t owner = 1; owner <= 4; ++owner) {
    EXPECT_EQ(queueOf(owner)->count, 0U);
    EXPECT_EQ(queueOf(owner)->numBookmarks, 0U);
    added += static_cast<int64_t>(getUsableSize(queueOf(owner)));
  }
  EXPECT_EQ(Books::now(), (Books{before.blocks + 4, before.metadata + added}));
}

TEST_F(RevisionList, TheHighestOwnerIsServed) {
  EXPECT_NE(getQueue(env, map, 65535), nullptr);
  EXPECT_EQ(map->numQueues, 65536U);
  EXPECT_EQ(getQueue(env, map, 65535), queueOf(65535));
}

// ---- Moves -------------------------------------------------------------------------------

TEST_F(RevisionList, MovingNothingIsFalse) {
  LuOffHeapValue* value = record("key", "value");
  EXPECT_FALSE(updateRevisionQueue(env, nullptr, nullptr, value));
  EXPECT_FALSE(updateRevisionQueue(env, map, value, nullptr));
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_EQ(map->revisionQueue[0]->count, 0U);
  unpinValue(value);
}

TEST_F(RevisionList, AddingTrace) {
  LuOffHeapValue* value = record("key", "value", 0, 8);
  setLevels(kDebugLevel);
  EXPECT_TRUE(updateRevisionQueue(env, map, nullptr, value));
  std::vector<std::string> own;
  const std::string prefix = "debug|JNI:updateRevisionQueue:";
  for (const std::string& line : jni.lines()) {
    if (line.starts_with(prefix)) own.push_back(line.substr(prefix.size()));
  }
  const std::string queue = printed(queueOf(0));
  EXPECT_THAT(own, ElementsAre("update the revision queues. luMap=" + printed(map) +
                                   " numQueues=1 newLuValue=" + printed(value) +
                                   ", overriddenLuValue=(nil)",
                               "remove the previous value. oldQueue=(nil) newQueue=" + queue +
                                   " newLuValue=" + printed(value) + ", overriddenLuValue=(nil)",
                               "unlocking newQueue=" + queue));
  setLevels(0);
  EXPECT_EQ(value->pins, 3);
  expectQueuesFree();
  unpinValue(value);
}

TEST_F(RevisionList, MinusOneKeepsTheValuesOwnRevision) {
  LuOffHeapValue* value = record("key", "value", 0, 8);
  EXPECT_TRUE(updateRevisionQueue(env, map, nullptr, value, -1, true));
  EXPECT_EQ(value->revisionNumber, 8);
  EXPECT_TRUE(updateRevisionQueue(env, map, value, value, 12, false));
  EXPECT_EQ(value->revisionNumber, 12);
  EXPECT_EQ(queueOf(0)->count, 1U);
  EXPECT_EQ(value->pins, 3);
  unpinValue(value);
}

TEST_F(RevisionList, AReplacedValueGivesItsPlaceToAnotherOwnersQueue) {
  LuOffHeapValue* stays = queued(2, 1);
  LuOffHeapValue* replaced = queued(2, 5);
  LuOffHeapValue* value = record("key", "new", 1, 3);
  EXPECT_TRUE(updateRevisionQueue(env, map, replaced, value));
  EXPECT_EQ(valuesOf(queueOf(2)), std::vector<LuOffHeapValue*>{stays});
  EXPECT_EQ(valuesOf(queueOf(1)), std::vector<LuOffHeapValue*>{value});
  EXPECT_EQ(replaced->pins, 1);
  EXPECT_EQ(value->pins, 3);
  expectQueuesFree();
  unpinValue(stays);
  unpinValue(replaced);
  unpinValue(value);
}

TEST_F(RevisionList, MovingTouchesTheOrderWithinOneQueue) {
  LuOffHeapValue* one = queued(0, 1);
  LuOffHeapValue* two = queued(0, 2);
  LuOffHeapValue* three = queued(0, 3);
  EXPECT_TRUE(updateRevisionQueue(env, map, one, one, 9, false));
  EXPECT_EQ(valuesOf(queueOf(0)), (std::vector<LuOffHeapValue*>{two, three, one}));
  EXPECT_TRUE(updateRevisionQueue(env, map, one, one, 0, false));
  EXPECT_EQ(valuesOf(queueOf(0)), (std::vector<LuOffHeapValue*>{one, two, three}));
  EXPECT_TRUE(updateRevisionQueue(env, map, two, two, 2, false));
  EXPECT_EQ(valuesOf(queueOf(0)), (std::vector<LuOffHeapValue*>{one, two, three}));
  for (LuOffHeapValue* value : {one, two, three}) EXPECT_EQ(unpinValue(value), 2U);
}

TEST_F(RevisionList, BookmarksFollowToThePredecessor) {
  LuOffHeapValue* one = queued(0, 1);
  LuOffHeapValue* two = queued(0, 2);
  lockQueue(queueOf(0));
  add_bookmark(env, queueOf(0), two, 0);
  unlockQueue(queueOf(0));
  LuOffHeapValue* replacement = record("key", "new", 0, 7);
  EXPECT_TRUE(updateRevisionQueue(env, map, two, replacement));
  EXPECT_EQ(queueOf(0)->bookmarks[0], one);
  EXPECT_TRUE(updateRevisionQueue(env, map, one, one, 9, false));
  EXPECT_EQ(queueOf(0)->bookmarks[0], nullptr) << "the first has no predecessor";
  for (LuOffHeapValue* value : {one, two, replacement}) unpinValue(value);
}

TEST_F(RevisionList, ANewQueueThatCannotBeLocked) {
  LuOffHeapValue* value = record("key", "value");
  setLevels(kErrorLevel);
  {
    FailThisLock failure(&queueOf(0)->mutex, LockOp::lock);
    EXPECT_FALSE(updateRevisionQueue(env, map, nullptr, value));
  }
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "[updateRevisionQueue] " + kQueueLockText}));
  ASSERT_EQ(jni.lines().size(), 1U);
  EXPECT_THAT(jni.lines()[0], HasSubstr(kLockError));
  EXPECT_THAT(jni.lines()[0], HasSubstr("lum[4]"));
  setLevels(0);
  EXPECT_EQ(queueOf(0)->count, 0U);
  EXPECT_EQ(value->pins, 1);
  expectQueuesFree();
  unpinValue(value);
}

TEST_F(RevisionList, AnOldQueueThatCannotBeLocked) {
  LuOffHeapValue* replaced = queued(0, 1);
  LuOffHeapValue* value = record("key", "new", 1, 2);
  setLevels(kErrorLevel);
  {
    FailThisLock failure(&queueOf(0)->mutex, LockOp::lock);
    EXPECT_FALSE(updateRevisionQueue(env, map, replaced, value));
  }
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "[updateRevisionQueue] " + kQueueLockText}));
  ASSERT_EQ(jni.lines().size(), 1U);
  EXPECT_THAT(jni.lines()[0], HasSubstr(kLockError));
  EXPECT_THAT(jni.lines()[0], HasSubstr("lum[3]"));
  setLevels(0);
  EXPECT_EQ(valuesOf(queueOf(0)), std::vector<LuOffHeapValue*>{replaced});
  EXPECT_EQ(queueOf(1)->count, 0U);
  expectQueuesFree();
  unpinValue(replaced);
  unpinValue(value);
}

TEST_F(RevisionList, ASecondQueueThatCannotBeLockedLosesTheReplacedValue) {
  LuOffHeapValue* replaced = queued(0, 1);
  getQueue(env, map, 1);
  LuOffHeapValue* value = record("key", "new", 1, 2);
  setLevels(kErrorLevel);
  {
    FailThisLock failure(&queueOf(1)->mutex, LockOp::lock);
    EXPECT_FALSE(updateRevisionQueue(env, map, replaced, value));
  }
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "[updateRevisionQueue] " + kQueueLockText}));
  ASSERT_EQ(jni.lines().size(), 1U);
  EXPECT_THAT(jni.lines()[0], HasSubstr(kLockError));
  EXPECT_THAT(jni.lines()[0], HasSubstr("lum[5]"));
  setLevels(0);
  EXPECT_EQ(queueOf(0)->count, 0U);
  EXPECT_EQ(queueOf(1)->count, 0U);
  EXPECT_EQ(replaced->pins, 1) << "it stays out of every queue";
  EXPECT_EQ(value->pins, 1);
  expectQueuesFree();
  unpinValue(replaced);
  unpinValue(value);
}

TEST_F(RevisionList, AReplacedValueThatIsNotQueued) {
  LuOffHeapValue* stranger = record("key", "value");
  LuOffHeapValue* value = record("key", "new");
  setLevels(kErrorLevel);
  EXPECT_FALSE(updateRevisionQueue(env, map, stranger, value));
  // The first exception wins, and while it is pending no record reaches Java.
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState,
                    "[removeFromQueue] Node=" + printed(stranger) + " not found in queue."}));
  EXPECT_EQ(queueOf(0)->count, 0U);
  setLevels(0);
  expectQueuesFree();
  unpinValue(stranger);
  unpinValue(value);
}

// ---- Removal by owner --------------------------------------------------------------------

class RevisionRemoval : public RevisionList {
 protected:
  void SetUp() override {
    RevisionList::SetUp();
    one = queued(1, 1);
    two = queued(1, 2);
    ASSERT_EQ(unlock(env, map), 0);
  }
  void TearDown() override {
    for (LuOffHeapValue* value : {one, two}) unpinValue(value);
    RevisionList::TearDown();
  }
  LuOffHeapValue* one = nullptr;
  LuOffHeapValue* two = nullptr;
};

TEST_F(RevisionRemoval, TakesTheEntryOutOfItsOwnersQueue) {
  lockQueue(queueOf(1));
  add_bookmark(env, queueOf(1), two, 0);
  unlockQueue(queueOf(1));
  EXPECT_TRUE(removeFromRevisionQueue(env, map, two));
  EXPECT_EQ(queueOf(1)->bookmarks[0], one);
  EXPECT_EQ(valuesOf(queueOf(1)), std::vector<LuOffHeapValue*>{one});
  EXPECT_EQ(two->pins, 1);
  EXPECT_TRUE(removeFromRevisionQueue(env, map, one));
  EXPECT_EQ(queueOf(1)->bookmarks[0], nullptr);
  EXPECT_EQ(queueOf(1)->count, 0U);
  EXPECT_TRUE(isFree(&map->lock));
  expectQueuesFree();
}

TEST_F(RevisionRemoval, OfNothingIsFalse) {
  EXPECT_FALSE(removeFromRevisionQueue(env, nullptr, one));
  EXPECT_FALSE(removeFromRevisionQueue(env, map, nullptr));
  EXPECT_FALSE(jni.pending().has_value());
}

TEST_F(RevisionRemoval, OfAnOwnerWithoutAQueueIsFalse) {
  LuOffHeapValue* stranger = record("key", "value", 2, 1);
  EXPECT_FALSE(removeFromRevisionQueue(env, map, stranger));
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_TRUE(isFree(&map->lock));
  unpinValue(stranger);
}

TEST_F(RevisionRemoval, ThatCannotLockChangesNothing) {
  {
    FailThisLock failure(&map->lock, LockOp::readLock);
    EXPECT_FALSE(removeFromRevisionQueue(env, map, one));
  }
  EXPECT_THAT(jni.takePending()->message, HasSubstr("rdlock failure for luMap"));
  {
    FailThisLock failure(&queueOf(1)->mutex, LockOp::lock);
    EXPECT_FALSE(removeFromRevisionQueue(env, map, one));
  }
  jni.clearPending();
  {
    FailThisLock failure(&map->lock, LockOp::unlock);
    EXPECT_FALSE(removeFromRevisionQueue(env, map, one));
  }
  EXPECT_THAT(jni.takePending()->message, HasSubstr("unlock failure for luMap"));
  EXPECT_EQ(heldLockCount(), 1);
  EXPECT_EQ(unlock(env, map), 0);
  EXPECT_EQ(valuesOf(queueOf(1)), (std::vector<LuOffHeapValue*>{one, two}));
  expectQueuesFree();
}

TEST_F(RevisionRemoval, OfAnEntryThatIsNotQueuedThrowsAndUnlocks) {
  LuOffHeapValue* stranger = record("key", "value", 1, 1);
  EXPECT_FALSE(removeFromRevisionQueue(env, map, stranger));
  EXPECT_THAT(jni.takePending()->message, HasSubstr("not found in queue."));
  expectQueuesFree();
  EXPECT_TRUE(isFree(&map->lock));
  unpinValue(stranger);
}

// ---- Clearing ----------------------------------------------------------------------------

class Clearing : public MapTest {};

TEST_F(Clearing, EmptiesEveryQueueAndNullsTheBookmarks) {
  insert("one", "1", 0, 1);
  insert("two", "2", 0, 2);
  insert("three", "3", 2, 3);
  LuOffHeapRevisionOrderQueue* queue = map->revisionQueue[0];
  lockQueue(queue);
  add_bookmark(env, queue, static_cast<LuOffHeapValue*>(queue->first), 3);
  unlockQueue(queue);
  LuOffHeapValue** bookmarks = queue->bookmarks;
  hashtable_clear(env, map->map);
  EXPECT_EQ(queue->count, 2U) << "the queue's own pins keep them";
  EXPECT_TRUE(clearQueues(env, map));
  for (uint32_t i = 0; i < map->numQueues; ++i) {
    EXPECT_EQ(map->revisionQueue[i]->count, 0U);
    EXPECT_EQ(map->revisionQueue[i]->first, nullptr);
    EXPECT_EQ(map->revisionQueue[i]->last, nullptr);
  }
  EXPECT_EQ(queue->bookmarks, bookmarks);
  EXPECT_EQ(queue->numBookmarks, 4U);
  EXPECT_EQ(queue->bookmarks[3], nullptr);
  EXPECT_EQ(queue->maxCount, 2U);
  checkMap(env, map);
}

TEST_F(Clearing, KeepsEntriesThatOthersHold) {
  LuOffHeapValue* pinned = insertPinned("one", "1");
  clearMap(map);
  EXPECT_EQ(pinned->pins, 1);
  EXPECT_EQ(bytesOf(pinned->value), "1");
  EXPECT_EQ(unpinValue(pinned, JNI_INSERTED_PIN), 0U);
}

TEST_F(Clearing, Trace) {
  insert("one", "1");
  LuOffHeapValue* two = insert("two", "2", 0, 2);
  const auto texts = [this] {
    std::vector<std::string> own;
    for (const LogRecord& record : jni.records()) {
      const std::size_t at = record.text.find(':', 4);
      const std::string text = record.text.substr(at + 1);
      if (text.starts_with("clearRevisionOrderQueue") || text.starts_with("queue->last") ||
          text.starts_with("Before Dump") || text.starts_with("Dumping LuValue")) {
        own.push_back(record.level + "|" + text);
      }
    }
    return own;
  };
  const LuOffHeapValue* one = find(map, "one");
  const std::string queue = printed(map->revisionQueue[0]);
  const std::string enter = "clearRevisionOrderQueue enter.  queue=" + queue;
  const std::string leave = "clearRevisionOrderQueue exit.  queue=" + printed(map->revisionQueue);
  hashtable_clear(env, map->map);
  setLevels(kDebugLevel | kEntryLevel | kEventLevel);
  EXPECT_TRUE(clearQueues(env, map));
  const std::string info = printed(&logInfo);
  EXPECT_THAT(texts(), ElementsAre("entry|" + enter, "debug|queue->last=" + printed(two),
                                   "debug|Before Dump of all LuValues, there are 2 entries. "
                                   "LogInfo=" +
                                       info,
                                   "debug|Dumping LuValue " + printed(two),
                                   "debug|Dumping LuValue " + printed(one), "exit|" + leave));
  setLevels(kEventLevel);
  EXPECT_TRUE(clearQueues(env, map));
  EXPECT_THAT(texts(), ElementsAre("event|" + enter, "event|" + leave));
  setLevels(kEntryLevel);
  EXPECT_TRUE(clearQueues(env, map));
  EXPECT_THAT(texts(), ElementsAre("entry|" + enter, "exit|" + leave));
  setLevels(0);
}

TEST_F(Clearing, WithoutAMapOrItsLockIsFalse) {
  insert("one", "1");
  EXPECT_FALSE(clearQueues(env, nullptr));
  {
    FailThisLock failure(&map->lock, LockOp::readLock);
    EXPECT_FALSE(clearQueues(env, map));
  }
  EXPECT_THAT(jni.takePending()->message, HasSubstr("rdlock failure for luMap"));
  EXPECT_EQ(map->revisionQueue[0]->count, 1U);
  checkMap(env, map);
}

TEST_F(Clearing, ThatCannotUnlockIsFalse) {
  insert("one", "1");
  hashtable_clear(env, map->map);
  {
    FailThisLock failure(&map->lock, LockOp::unlock);
    EXPECT_FALSE(clearQueues(env, map));
  }
  EXPECT_THAT(jni.takePending()->message, HasSubstr("unlock failure for luMap"));
  EXPECT_EQ(map->revisionQueue[0]->count, 0U);
  EXPECT_EQ(unlock(env, map), 0);
}

TEST_F(Clearing, TheNativeEmptiesTableAndQueues) {
  insert("one", "1", 0);
  insert("two", "2", 1);
  LuOffHeapValue* pinned = insertPinned("three", "3", 1);
  EXPECT_TRUE(natives::clear(env, caller, natives::handle(map)));
  EXPECT_EQ(natives::size(env, caller, natives::handle(map)), 0);
  EXPECT_EQ(natives::getCurrentBytesUsed(env, caller, natives::handle(map)), 0);
  EXPECT_THAT(contentsOf(map), IsEmpty());
  EXPECT_EQ(pinned->pins, 1);
  unpinValue(pinned, JNI_INSERTED_PIN);
  checkMap(env, map);
  insert("one", "again");
  checkMap(env, map);
}

}  // namespace
}  // namespace nimbra::test
