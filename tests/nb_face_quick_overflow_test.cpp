// The face's quick writes with disk overflow: the nodes of new entries, the lists that they enter,
// and the entries that are left to the ordinary road because their value is on disk or their node
// is busy.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "overflow_natives.h"
#include "quick_support.h"
#include "stress_support.h"

namespace nimbra::test::quick {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using Kind = RoadMap::Kind;

constexpr const char* kQuickUpdate = "map read, set, queue, node?";
constexpr const char* kQuickInsert = "map read, set, map read, set, queue, node?, node?";

class QuickOverflow : public PagingTest {
 protected:
  void SetUp() override {
    PagingTest::SetUp();
    quick.emplace(jni, map, Road::kQuick);
  }
  std::string run(Kind kind, std::string_view key, std::string value = "value",
                  jlong revision = 1) {
    const LockTrace locks;
    std::string answer =
        quick->run({kind, std::string(key), hashOf(key), std::move(value), revision});
    taken = locks.taken();
    return answer;
  }
  LuOffHeapValue* put(int list, std::string_view key, std::string value = "value",
                      jlong revision = 1) {
    nextList(list);
    EXPECT_EQ(run(Kind::kPut, key, std::move(value), revision), "1");
    return find(map, key);
  }
  // Whether the road to the end was the ordinary one.
  bool wasOrdinary() const { return taken.find("map write") != std::string::npos; }

  std::optional<RoadMap> quick;
  std::string taken;
};

// ---- The same as the ordinary road -------------------------------------------------------

TEST_F(QuickOverflow, AllRoadsAgree) {
  std::mt19937_64 random(stress::testSeed());
  const auto below = [&random](int limit) {
    return static_cast<int>(random() % static_cast<uint64_t>(limit));
  };
  for (const int newest : {1, 9, 1000}) {
    Roads roads(jni);
    for (const Road road : kRoads) roads.add(makeMap(1, newest == 9 ? 1000 : 0.75F), road);
    for (int i = 0; i < 300 && !HasFailure(); ++i) {
      const int key = below(16);
      const Kind kind = below(3) == 0 ? Kind::kPut : static_cast<Kind>(below(RoadMap::kKinds));
      const std::string name = std::to_string(key);
      roads.run({kind, name, (key % 5) * 977, std::string(static_cast<size_t>(below(100)), 'v'),
                 below(newest)});
      // The value of one entry leaves memory on all four, and comes back with its next write.
      if (below(8) != 0 || find(roads.maps()[0]->map(), name) == nullptr) continue;
      if (find(roads.maps()[0]->map(), name)->value == nullptr) continue;
      for (const auto& each : roads.maps()) {
        LuOffHeapValue* entry = find(each->map(), name);
        changeFlags(entry, 0, recently_used);
        pageOutValue(entry);
      }
      roads.run({Kind::kReplace, name, (key % 5) * 977, "new value", below(newest)});
    }
    // Every entry's node stands in exactly one list.
    std::vector<overflow_metadata*> nodes;
    for (const auto& each : roads.maps()) {
      checkMap(env, each->map());
      for (LuOffHeapValue* entry : entriesOf(each->map())) nodes.push_back(nodeOf(entry));
    }
    EXPECT_THAT(checkLists(), ::testing::UnorderedElementsAreArray(nodes));
    for (const auto& each : roads.maps()) deleteMap(each->map());
    dropReverseMapPins();
    EXPECT_THAT(checkLists(), IsEmpty());
  }
}

// ---- New entries -------------------------------------------------------------------------

TEST_F(QuickOverflow, NewNodeIsLinkedIntoAnEmptyList) {
  LuOffHeapValue* entry = put(7, "key");
  EXPECT_EQ(taken, "map read, set, map read, set, queue, node?");
  EXPECT_THAT(checkLists(), ElementsAre(nodeOf(entry)));
  EXPECT_THAT(checkList(7), ElementsAre(nodeOf(entry)));
  EXPECT_EQ(nodeOf(entry)->flags, in_memory | recently_used);
  EXPECT_EQ(nodeOf(entry)->mapHeader, map->map);
  expectFree(entry);
  checkMap(env, map);
}

TEST_F(QuickOverflow, NewNodeBecomesTheFirstOfItsList) {
  LuOffHeapValue* first = put(7, "first");
  LuOffHeapValue* second = put(7, "second");
  EXPECT_EQ(taken, kQuickInsert);
  LuOffHeapValue* third = put(7, "third");
  EXPECT_THAT(checkList(7), ElementsAre(nodeOf(third), nodeOf(second), nodeOf(first)));
  EXPECT_THAT(checkLists(), UnorderedElementsAre(nodeOf(third), nodeOf(second), nodeOf(first)));
}

TEST_F(QuickOverflow, BusyHeaderIsPassedOver) {
  LuOffHeapValue* first = put(7, "first");
  LuOffHeapValue* second = nullptr;
  {
    const HeldByAnother holder(headerOf(7));
    second = put(7, "second");
  }
  EXPECT_THAT(checkList(7), ElementsAre(nodeOf(first)));
  EXPECT_THAT(checkList(8), ElementsAre(nodeOf(second)));
}

TEST_F(QuickOverflow, BusyHeaderOfAnEmptyListIsPassedOver) {
  LuOffHeapValue* entry = nullptr;
  {
    const HeldByAnother here(headerOf(7));
    const HeldByAnother next(headerOf(8));
    entry = put(7, "key");
  }
  EXPECT_THAT(checkList(9), ElementsAre(nodeOf(entry)));
  EXPECT_EQ(checkLists().size(), 1U);
}

TEST_F(QuickOverflow, BusyFirstIsPassedOverAndItsHeaderLetGo) {
  LuOffHeapValue* first = put(7, "first");
  LuOffHeapValue* second = nullptr;
  {
    const HeldByAnother holder(nodeOf(first));
    second = put(7, "second");
    EXPECT_EQ(depthOf(headerOf(7)), 0);
    EXPECT_TRUE(isFree(&headerOf(7)->mutex));
  }
  EXPECT_THAT(checkList(7), ElementsAre(nodeOf(first)));
  EXPECT_THAT(checkList(8), ElementsAre(nodeOf(second)));
}

// A lock that the caller itself owns is as good as a free one.
TEST_F(QuickOverflow, OwnHeaderAndFirstAreNoObstacle) {
  LuOffHeapValue* first = put(7, "first");
  take(headerOf(7));
  take(nodeOf(first), 2);
  LuOffHeapValue* second = put(7, "second");
  EXPECT_EQ(holdCount(headerOf(7)), 1U);
  EXPECT_EQ(holdCount(nodeOf(first)), 2U);
  letGo(nodeOf(first), 2);
  letGo(headerOf(7));
  EXPECT_THAT(checkList(7), ElementsAre(nodeOf(second), nodeOf(first)));
}

TEST_F(QuickOverflow, ANodeWithoutItsLockIsNoEntry) {
  for (const LockOp operation : {LockOp::attributesInit, LockOp::init, LockOp::conditionInit}) {
    const Books before = Books::now();
    std::string answer;
    {
      const LockTrace locks([operation](LockRank rank, const void*, LockOp each) {
        return rank == LockRank::node && each == operation ? EAGAIN : 0;
      });
      answer = quick->run({Kind::kPut, "key", hashOf("key"), "value", 1});
    }
    EXPECT_EQ(answer, std::string("-1 raised ") + kIllegalState);
    EXPECT_EQ(Books::now(), before);
    EXPECT_TRUE(entriesOf(map).empty());
    EXPECT_THAT(checkLists(), IsEmpty());
    checkMap(env, map);
  }
}

// A key that came between the look and the insert: the record goes with its node's lock.
TEST_F(QuickOverflow, ARecordThatIsNotNeededIsDropped) {
  put(1, "key");
  face::Caller other(jni, map);
  const Books before = Books::now();
  int met = 0;
  int destroyed = 0;
  {
    const LockTrace locks([&](LockRank rank, const void*, LockOp operation) {
      if (rank == LockRank::node && operation == LockOp::destroy) ++destroyed;
      if (rank == LockRank::map && operation == LockOp::readLock && ++met == 1) {
        nextList(2);
        EXPECT_EQ(other.put("new", hashOf("new"), "other value", 6), 1);
      }
      return 0;
    });
    EXPECT_EQ(quick->run({Kind::kPutIfAbsent, "new", hashOf("new"), "value", 7}), "0");
  }
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(Books::now().blocks, before.blocks + 3);
  EXPECT_EQ(checkLists().size(), 2U);
  checkMap(env, map);
}

// ---- Present entries ---------------------------------------------------------------------

TEST_F(QuickOverflow, AReplacedValueCountsAsUsed) {
  LuOffHeapValue* entry = put(3, "key");
  changeFlags(entry, 0, recently_used);
  EXPECT_EQ(run(Kind::kPut, "key", "new value", 2), "0");
  EXPECT_EQ(taken, kQuickUpdate);
  EXPECT_EQ(nodeOf(entry)->flags, in_memory | recently_used);
  EXPECT_EQ(bytesUsed(), sumOfSizes());
  expectFree(entry);
}

TEST_F(QuickOverflow, AValueOnDiskIsLeftToTheOrdinaryRoad) {
  LuOffHeapValue* entry = put(3, "key");
  pageOutValue(entry);
  EXPECT_EQ(run(Kind::kPut, "key", "new value", 2), "0");
  EXPECT_TRUE(taken.starts_with("map read, set, map write")) << taken;
  EXPECT_EQ(nodeOf(entry)->flags, in_memory | recently_used);
  EXPECT_EQ(bytesOf(entry->value), "new value");
  EXPECT_EQ(calls.updating.size() + calls.deleting.size(), 1U) << "Java has to free the copy";
  expectFree(entry);
  checkMap(env, map);
  dropReverseMapPins();
}

// In memory and on disk at once: the copy there is as old as the value that is replaced.
TEST_F(QuickOverflow, AValueWithACopyOnDiskIsLeftToTheOrdinaryRoad) {
  LuOffHeapValue* entry = put(3, "key");
  pageOutValue(entry);
  pageInValue(entry, "value");
  ASSERT_TRUE(isFlagSet(on_disk, nodeOf(entry)));
  EXPECT_EQ(run(Kind::kReplace, "key", "new value", 2), "1");
  EXPECT_TRUE(wasOrdinary()) << taken;
  EXPECT_FALSE(isFlagSet(on_disk, nodeOf(entry)));
  checkMap(env, map);
  dropReverseMapPins();
}

TEST_F(QuickOverflow, ABusyInnerMutexIsLeftToTheOrdinaryRoad) {
  LuOffHeapValue* entry = put(3, "key");
  const std::string before = wholeState(env, map);
  std::string atRetry;
  bool failed = false;
  {
    const LockTrace locks([&](LockRank rank, const void* lock, LockOp operation) {
      if (rank == LockRank::map && operation == LockOp::writeLock) atRetry = wholeState(env, map);
      if (failed || lock != &nodeOf(entry)->mutex || operation != LockOp::tryLock) return 0;
      failed = true;
      return EBUSY;
    });
    EXPECT_EQ(quick->run({Kind::kPut, "key", hashOf("key"), "new value", 2}), "0");
    EXPECT_TRUE(locks.taken().starts_with("map read, set, queue, node?!, map write"))
        << locks.taken();
  }
  EXPECT_EQ(atRetry, before) << "the quick road left something undone";
  EXPECT_EQ(bytesOf(entry->value), "new value");
  expectFree(entry);
  checkMap(env, map);
}

// The ordinary road waits for the node; the quick one has let everything go by then.
TEST_F(QuickOverflow, ANodeOfAnotherThreadIsWaitedForOnTheOrdinaryRoad) {
  LuOffHeapValue* entry = put(3, "key");
  HeldByAnother holder(nodeOf(entry));
  std::promise<void> waits;
  std::string locksTaken;
  std::thread writer;
  {
    bool waited = false;
    const LockTrace locks([&](LockRank, const void* lock, LockOp operation) {
      if (!waited && lock == &nodeOf(entry)->mutex && operation == LockOp::wait) {
        waited = true;
        waits.set_value();
      }
      return 0;
    });
    writer = std::thread([&] {
      OverflowThread thread;
      face::Caller other(thread.jni, map);
      EXPECT_EQ(other.put("key", hashOf("key"), "new value", 2), 0);
    });
    waits.get_future().wait();
    EXPECT_TRUE(isFree(&map->revisionQueue[0]->mutex));
    holder.release();
    writer.join();
    locksTaken = locks.taken();
  }
  EXPECT_TRUE(locksTaken.starts_with("map read, set, queue, node?, map write")) << locksTaken;
  EXPECT_EQ(bytesOf(entry->value), "new value");
  expectFree(entry);
  checkMap(env, map);
}

TEST_F(QuickOverflow, AGetOfAnEntryWithABusyNodeDoesNotWait) {
  put(3, "key");
  LuOffHeapValue* entry = find(map, "key");
  changeFlags(entry, 0, recently_used);
  area::Caller area(jni, map);
  {
    const HeldByAnother holder(nodeOf(entry));
    EXPECT_EQ(area.find("key", hashOf("key")), 5);
    EXPECT_EQ(run(Kind::kGet, "key"), "value");
  }
  EXPECT_FALSE(isFlagSet(recently_used, nodeOf(entry)));
  EXPECT_EQ(area.find("key", hashOf("key")), 5);
  EXPECT_TRUE(isFlagSet(recently_used, nodeOf(entry)));
}

TEST_F(QuickOverflow, ValuesOnDiskAreLeftToTheArrays) {
  LuOffHeapValue* entry = put(3, "key", "value", 42);
  pageOutValue(entry);
  area::Caller area(jni, map);
  EXPECT_EQ(area.find("key", hashOf("key")), area::kOrdinary);
  std::vector<jlong> words;
  EXPECT_EQ(area.pin("key", hashOf("key"), &words), -natives::handle(entry));
  EXPECT_EQ(entry->pins, 4);
  unpinValue(entry, JNI_GET_PIN);
  EXPECT_TRUE(area.containsKey("key", hashOf("key")));
  expectFree(entry);
}

// ---- Removals ----------------------------------------------------------------------------

TEST_F(QuickOverflow, ARemovedEntryLeavesItsList) {
  LuOffHeapValue* first = put(3, "first");
  put(3, "key");
  LuOffHeapValue* last = put(3, "last");
  EXPECT_EQ(run(Kind::kRemove, "key"), "1");
  EXPECT_TRUE(taken.starts_with("map read, set, queue, ")) << taken;
  EXPECT_THAT(checkList(3), ElementsAre(nodeOf(last), nodeOf(first)));
  EXPECT_THAT(calls.deleting, IsEmpty()) << "there is no copy on disk";
  checkMap(env, map);
}

TEST_F(QuickOverflow, ARemovedEntryOnDiskIsReported) {
  LuOffHeapValue* entry = put(3, "key");
  pageOutValue(entry);
  EXPECT_EQ(run(Kind::kRemove, "key"), "1");
  ASSERT_EQ(calls.deleting.size(), 1U);
  EXPECT_EQ(calls.deleting[0].at(4), natives::handle(entry));
  EXPECT_THAT(checkLists(), IsEmpty());
  checkMap(env, map);
  dropReverseMapPins();
}

}  // namespace
}  // namespace nimbra::test::quick
