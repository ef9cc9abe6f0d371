// Overflow nodes and their lists: headers and flags, preparing a node, linking, and splicing out
// under back-off.

#include <gmock/gmock.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "overflow_support.h"

namespace nimbra::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Nodes = std::vector<overflow_metadata*>;

class OverflowLists : public OverflowTest {};

// ---- Round robin, headers, flags ---------------------------------------------------------

TEST_F(OverflowLists, RoundRobinGoesRoundFromZero) {
  for (int turn = 0; turn < 2; ++turn) {
    for (int list = 0; list < 1000; ++list) ASSERT_EQ(roundRobin(), list);
  }
  EXPECT_EQ(_roundRobinIndex, 2000U);
}

TEST_F(OverflowLists, RoundRobinStaysInRangePastTheSignBit) {
  _roundRobinIndex = 0x7FFFFFFEU;
  EXPECT_EQ(roundRobin(), 646);
  EXPECT_EQ(roundRobin(), 647);
  EXPECT_EQ(_roundRobinIndex, 0x80000000U);
  EXPECT_EQ(roundRobin(), 0);
  EXPECT_EQ(roundRobin(), 1);
  _roundRobinIndex = 0xFFFFFFFFU;
  EXPECT_EQ(roundRobin(), 647);
  EXPECT_EQ(_roundRobinIndex, 0U);
  EXPECT_EQ(roundRobin(), 0);
}

TEST_F(OverflowLists, HeadersAreToldByBothIdsOfTheirTable) {
  setLevels(kAllLevels);
  EXPECT_TRUE(is_header_node(env, headerOf(0)));
  EXPECT_TRUE(is_header_node(env, headerOf(999)));
  overflow_metadata node{};
  MapHeader table{};
  node.mapHeader = &table;
  EXPECT_FALSE(is_header_node(env, &node));
  table.map_id = HEAD_NODE_MAP_ID;
  EXPECT_FALSE(is_header_node(env, &node));
  table.map_set_id = HEAD_NODE_MAP_ID;
  EXPECT_TRUE(is_header_node(env, &node));
  table.map_id = 1;
  EXPECT_FALSE(is_header_node(env, &node));
  EXPECT_THAT(jni.records(), IsEmpty());
}

TEST_F(OverflowLists, ANodeWithoutATableCountsAsAHeaderAndWarns) {
  overflow_metadata node{};
  EXPECT_TRUE(is_header_node(env, &node));
  EXPECT_THAT(jni.records(), IsEmpty());
  setLevels(kWarningLevel);
  EXPECT_TRUE(is_header_node(env, &node));
  EXPECT_THAT(jni.lines(), ElementsAre("warning|Found a metadata with a NULL mapHeader pointer."));
}

TEST(NodeFlags, AllBitsOfAMaskMustBeSet) {
  overflow_metadata node{};
  EXPECT_TRUE(isFlagSet(0, &node));
  EXPECT_FALSE(isFlagSet(in_memory, &node));
  setFlag(in_memory, &node);
  setFlag(on_disk, &node);
  EXPECT_EQ(node.flags, 0x0201);
  EXPECT_TRUE(isFlagSet(in_memory, &node));
  EXPECT_TRUE(isFlagSet(in_memory | on_disk, &node));
  EXPECT_FALSE(isFlagSet(in_memory | recently_used, &node));
  clearFlag(in_memory | recently_used, &node);
  EXPECT_EQ(node.flags, 0x0200);
}

TEST(NodeFlags, BooleansPrintAsWords) {
  EXPECT_STREQ(bool_cast(true), "true");
  EXPECT_STREQ(bool_cast(false), "false");
}

TEST(NodeFlags, BitsStandWhereJavaReadsThem) {
  EXPECT_EQ(in_memory, 0x0001);
  EXPECT_EQ(is_invalid, 0x0002);
  EXPECT_EQ(recently_used, 0x0004);
  EXPECT_EQ(on_disk, 0x0200);
  EXPECT_EQ(kInitialising, 0x0400);
  EXPECT_EQ(PREVENT_EVICT, 0x1000);
  EXPECT_EQ(kSnapshot, 0x2000);
}

// ---- Preparing a node --------------------------------------------------------------------

TEST_F(OverflowLists, APreparedNodeIsInMemoryUsedInvalidAndAlone) {
  LuOffHeapValue* value = record("key", "value");
  overflow_metadata* node = nodeOf(value);
  std::memset(static_cast<void*>(node), 0xA5, sizeof *node);
  ASSERT_TRUE(initialize_overflow_metadata(env, node, map->map));
  EXPECT_EQ(node->flags, 0x0007);
  EXPECT_EQ(node->mapHeader, map->map);
  EXPECT_EQ(node->prev, nullptr);
  EXPECT_EQ(node->next, nullptr);
  EXPECT_EQ(node->chunkPtrOffset, 0);
  EXPECT_EQ(node->nextChunkPtrOffset, 0);
  EXPECT_EQ(node->chunkSize, 0);
  EXPECT_EQ(node->lock_depth, 0);
  EXPECT_EQ(valueOf(node), value);
  dropRecord(value);
}

TEST_F(OverflowLists, PreparationWritesTheNodeAsItIsBeingMade) {
  LuOffHeapValue* value = record("key", "value");
  overflow_metadata* node = nodeOf(value);
  setLevels(kEventLevel | kEntryLevel);
  ASSERT_TRUE(initialize_overflow_metadata(env, node, map->map));
  const std::string head = "|JNI:initialize_overflow_metadata:";
  EXPECT_THAT(linesOf("initialize_overflow_metadata"),
              ElementsAre("entry" + head + "NOF initializing overflow metadata = " + printed(node),
                          "event" + head + "KLOR NOF overflow_metadata: " + printed(node) +
                              " (luOffHeapValue " + printed(value) +
                              "): INVALID flag set, prev=(nil), next=(nil), locked=1",
                          "exit" + head + "KLOR initialized metadata at " + printed(node)));
  setLevels(kDebugLevel);
  ASSERT_TRUE(initialize_overflow_metadata(env, node, map->map));
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:overflow_metadata_lock:(init) locked=" +
                                    printed(node) + " lock_depth=1"));
  setLevels(0);
  dropRecord(value);
}

TEST_F(OverflowLists, PreparationFailsWithItsLock) {
  LuOffHeapValue* value = record("key", "value");
  const struct {
    LockOp operation;
    const char* function;
    const char* text;
  } cases[] = {{LockOp::init, "overflow_metadata_lock_init", "pthread_mutex_init failed"},
               {LockOp::lock, "overflow_metadata_lock", "pthread_mutex_lock() failed"},
               {LockOp::unlock, "overflow_metadata_lock", "pthread_mutex_unlock() failed"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.text);
    const FailLock failure(LockRank::node, one.operation, 1, EINVAL);
    EXPECT_FALSE(initialize_overflow_metadata(env, nodeOf(value), map->map));
    EXPECT_TRUE(failure.fired());
    EXPECT_EQ(jni.takePending(), raised(one.function, one.text, EINVAL));
    if (one.operation == LockOp::unlock) releaseInner(nodeOf(value));
  }
  {
    const FailLock failure(LockRank::node, LockOp::lock, 2, EINVAL);
    EXPECT_FALSE(initialize_overflow_metadata(env, nodeOf(value), map->map)) << "its last step";
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_unlock", "pthread_mutex_lock() failed", EINVAL));
  letGo(nodeOf(value));
  revive(value);
  dropRecord(value);
}

// ---- Linking -----------------------------------------------------------------------------

TEST_F(OverflowLists, TheFirstNodeOfAListStandsBetweenTheHeaderAndItself) {
  LuOffHeapValue* value = looseRecord();
  overflow_metadata* node = nodeOf(value);
  take(node);
  nextList(17);
  ASSERT_TRUE(overflow_metadata_link_to_header(env, node, true));
  EXPECT_EQ(holdCount(node), 1U) << "the caller still holds its node";
  letGo(node);
  EXPECT_EQ(headerOf(17)->next, node);
  EXPECT_EQ(headerOf(17)->prev, node);
  EXPECT_EQ(node->next, headerOf(17));
  EXPECT_EQ(node->prev, headerOf(17));
  EXPECT_EQ(checkLists(), Nodes{node});
  EXPECT_EQ(_roundRobinIndex, 18U);
  dropRecord(value);
}

TEST_F(OverflowLists, FurtherNodesGoToTheFront) {
  LuOffHeapValue* first = linkedRecord(3, "first");
  LuOffHeapValue* second = linkedRecord(3, "second");
  LuOffHeapValue* third = linkedRecord(3, "third");
  EXPECT_EQ(checkList(3), (Nodes{nodeOf(third), nodeOf(second), nodeOf(first)}));
  for (LuOffHeapValue* value : {second, first, third}) dropRecord(value);
}

TEST_F(OverflowLists, NodesAreSpreadOverTheLists) {
  nextList(998);
  std::vector<LuOffHeapValue*> values;
  for (int i = 0; i < 3; ++i) {
    values.push_back(looseRecord());
    take(nodeOf(values.back()));
    ASSERT_TRUE(overflow_metadata_link_to_header(env, nodeOf(values.back()), true));
    letGo(nodeOf(values.back()));
  }
  EXPECT_EQ(checkList(998), Nodes{nodeOf(values[0])});
  EXPECT_EQ(checkList(999), Nodes{nodeOf(values[1])});
  EXPECT_EQ(checkList(0), Nodes{nodeOf(values[2])});
  for (LuOffHeapValue* value : values) dropRecord(value);
}

TEST_F(OverflowLists, LinkLeavesTheNeighboursLockedWhenAsked) {
  LuOffHeapValue* first = looseRecord("first");
  LuOffHeapValue* second = looseRecord("second");
  take(nodeOf(first));
  nextList(4);
  ASSERT_TRUE(overflow_metadata_link_to_header(env, nodeOf(first), false));
  EXPECT_EQ(holdCount(headerOf(4)), 2U) << "the header of an empty list is taken twice";
  letGo(headerOf(4), 2);
  letGo(nodeOf(first));

  take(nodeOf(second));
  nextList(4);
  ASSERT_TRUE(overflow_metadata_link_to_header(env, nodeOf(second), false));
  EXPECT_EQ(holdCount(headerOf(4)), 1U);
  EXPECT_EQ(holdCount(nodeOf(first)), 1U);
  EXPECT_EQ(holdCount(nodeOf(second)), 1U);
  for (overflow_metadata* node : {nodeOf(first), headerOf(4), nodeOf(second)}) letGo(node);
  EXPECT_EQ(checkList(4), (Nodes{nodeOf(second), nodeOf(first)}));
  dropRecord(first);
  dropRecord(second);
}

TEST_F(OverflowLists, LinkPassesOverBusyHeadersAndBusyFirstNodes) {
  LuOffHeapValue* busy = linkedRecord(11, "busy");
  LuOffHeapValue* value = looseRecord();
  {
    const HeldByAnother header(headerOf(10));
    const HeldByAnother first(nodeOf(busy));
    linkInto(10, nodeOf(value));
    EXPECT_EQ(depthOf(headerOf(11)), 0) << "the header before a busy node is let go";
  }
  EXPECT_EQ(checkList(10), Nodes{});
  EXPECT_EQ(checkList(11), Nodes{nodeOf(busy)});
  EXPECT_EQ(checkList(12), Nodes{nodeOf(value)});
  dropRecord(busy);
  dropRecord(value);
}

TEST_F(OverflowLists, LinkGoesRoundUntilAListIsFree) {
  LuOffHeapValue* value = looseRecord();
  overflow_metadata* node = nodeOf(value);
  take(node);
  int tries = 0;
  {
    // Every list is busy for more than a whole round.
    const OnLockOperation busy([&tries](const void*, LockOp operation) {
      return operation == LockOp::tryLock && ++tries <= 2'345 ? EBUSY : 0;
    });
    nextList(0);
    EXPECT_TRUE(overflow_metadata_link_to_header(env, node, true));
  }
  EXPECT_EQ(tries, 2'347);
  letGo(node);
  EXPECT_EQ(checkList(345), Nodes{node});
  dropRecord(value);
}

TEST_F(OverflowLists, LinkWritesTheHeaderBeforeAndAfter) {
  LuOffHeapValue* first = linkedRecord(5, "first");
  LuOffHeapValue* value = looseRecord();
  overflow_metadata* node = nodeOf(value);
  take(node);
  nextList(5);
  setLevels(kAllLevels);
  ASSERT_TRUE(overflow_metadata_link_to_header(env, node, true));
  const std::string header = printed(headerOf(5));
  const std::string last = printed(nodeOf(first));
  EXPECT_THAT(
      linesOf("overflow_metadata_link_to_header"),
      ElementsAre(
          "debug|JNI:overflow_metadata_link_to_header:KLOR KLOR headerNode (before-link): " +
              header + ": HEADER node xx, prev=" + last + ", next=" + last + ", locked=1",
          "debug|JNI:overflow_metadata_link_to_header:KLOR KLOR headerNode (after-link): " +
              header + ": HEADER node xx, prev=" + last + ", next=" + printed(node) +
              ", locked=1"));
  setLevels(0);
  letGo(node);
  dropRecord(first);
  dropRecord(value);
}

TEST_F(OverflowLists, LinkGivesUpAfterAMissWithAnException) {
  LuOffHeapValue* value = looseRecord();
  overflow_metadata* node = nodeOf(value);
  take(node);
  {
    const HeldByAnother busy(headerOf(7));
    nextList(7);
    jni.throwNew(kIllegalState, "earlier");
    EXPECT_FALSE(overflow_metadata_link_to_header(env, node, true));
    EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "earlier"}));
  }
  EXPECT_EQ(_roundRobinIndex, 8U) << "no second try";
  EXPECT_EQ(node->next, nullptr);
  EXPECT_EQ(node->prev, nullptr);
  EXPECT_EQ(holdCount(node), 1U);
  letGo(node);
  EXPECT_TRUE(checkLists().empty());
  dropRecord(value);
}

TEST_F(OverflowLists, LinkGivesUpWhenALockFails) {
  LuOffHeapValue* first = linkedRecord(7, "first");
  LuOffHeapValue* value = looseRecord();
  overflow_metadata* node = nodeOf(value);
  take(node);
  // The mutex that is not released stays held while the header is let go.
  const auto handler = lockViolationHandler;
  lockViolationHandler = [](const LockViolation&) {};
  for (overflow_metadata* failing : {headerOf(7), nodeOf(first)}) {
    {
      const FailThisLock failure(&failing->mutex, LockOp::unlock, EPERM);
      nextList(7);
      EXPECT_FALSE(
          underFailingLock([&] { return overflow_metadata_link_to_header(env, node, true); }));
      EXPECT_EQ(failure.fired(), 1);
    }
    EXPECT_TRUE(jni.takePending().has_value());
    EXPECT_EQ(node->next, nullptr);
    releaseInner(failing);
    letGo(failing);
    EXPECT_EQ(depthOf(headerOf(7)), 0);
  }
  lockViolationHandler = handler;
  letGo(node);
  EXPECT_EQ(checkLists(), Nodes{nodeOf(first)});
  dropRecord(first);
  dropRecord(value);
}

TEST_F(OverflowLists, LinkReportsANeighbourThatIsNotReleased) {
  LuOffHeapValue* first = linkedRecord(7, "first");
  for (const bool headerFails : {false, true}) {
    SCOPED_TRACE(headerFails);
    LuOffHeapValue* value = looseRecord();
    overflow_metadata* const next = headerOf(7)->next;
    overflow_metadata* failing = headerFails ? headerOf(7) : next;
    take(nodeOf(value));
    nextList(7);
    {
      // A release begins by locking the inner mutex; a try does not.
      const FailThisLock failure(&failing->mutex, LockOp::lock, EINVAL);
      EXPECT_FALSE(overflow_metadata_link_to_header(env, nodeOf(value), true));
      EXPECT_EQ(failure.fired(), 1);
    }
    EXPECT_EQ(jni.takePending(),
              raised("overflow_metadata_unlock", "pthread_mutex_lock() failed", EINVAL));
    EXPECT_EQ(holdCount(failing), 1U);
    EXPECT_EQ(holdCount(headerFails ? next : headerOf(7)), 0U) << "the other one is released";
    letGo(failing);
    letGo(nodeOf(value));
    EXPECT_EQ(checkList(7), (Nodes{nodeOf(value), nodeOf(first)})) << "the node is linked";
    dropRecord(value);
  }
  dropRecord(first);
}

// ---- Splicing out ------------------------------------------------------------------------

TEST_F(OverflowLists, TheOnlyNodeLeavesItsHeaderPointingToItself) {
  for (const bool locked : {false, true}) {
    SCOPED_TRACE(locked);
    LuOffHeapValue* value = linkedRecord(8);
    overflow_metadata* node = nodeOf(value);
    if (locked) take(node);
    EXPECT_TRUE(overflow_metadata_splice_out(env, node, locked));
    EXPECT_EQ(holdCount(node), locked ? 1U : 0U);
    if (locked) letGo(node);
    EXPECT_EQ(node->prev, nullptr);
    EXPECT_EQ(node->next, nullptr);
    EXPECT_EQ(headerOf(8)->prev, headerOf(8));
    EXPECT_EQ(headerOf(8)->next, headerOf(8));
    EXPECT_EQ(depthOf(headerOf(8)), 0);
    dropRecord(value);
  }
}

TEST_F(OverflowLists, TheHeaderComesBackToTheDepthItHad) {
  LuOffHeapValue* value = linkedRecord(8);
  take(headerOf(8), 3);
  EXPECT_TRUE(overflow_metadata_splice_out(env, nodeOf(value), false));
  EXPECT_EQ(holdCount(headerOf(8)), 3U);
  letGo(headerOf(8), 3);
  dropRecord(value);
}

TEST_F(OverflowLists, NodesLeaveFromAnyPlace) {
  for (int place = 0; place < 3; ++place) {
    SCOPED_TRACE(place);
    std::vector<LuOffHeapValue*> values;
    for (int i = 0; i < 3; ++i) values.push_back(linkedRecord(9));
    Nodes nodes = checkList(9);
    ASSERT_EQ(nodes.size(), 3U);
    EXPECT_TRUE(overflow_metadata_delete(env, nodes[static_cast<std::size_t>(place)], false));
    nodes.erase(nodes.begin() + place);
    EXPECT_EQ(checkList(9), nodes);
    for (LuOffHeapValue* value : values) dropRecord(value);
  }
}

TEST_F(OverflowLists, ACallersOwnDepthIsRestored) {
  for (const int depth : {1, 2, 7}) {
    SCOPED_TRACE(depth);
    LuOffHeapValue* value = linkedRecord(8);
    take(nodeOf(value), depth);
    EXPECT_TRUE(overflow_metadata_splice_out(env, nodeOf(value), true));
    EXPECT_EQ(holdCount(nodeOf(value)), static_cast<uint32_t>(depth));
    letGo(nodeOf(value), depth);
    EXPECT_EQ(depthOf(nodeOf(value)), 0);
    dropRecord(value);
  }
}

TEST_F(OverflowLists, SplicingOutWritesTheDepths) {
  LuOffHeapValue* value = linkedRecord(8);
  overflow_metadata* node = nodeOf(value);
  const std::string head = "|JNI:overflow_metadata_splice_out:";
  take(node, 2);
  setLevels(kAllLevels);
  ASSERT_TRUE(overflow_metadata_splice_out(env, node, true));
  EXPECT_THAT(linesOf("overflow_metadata_splice_out"),
              ElementsAre("entry" + head + "entry: middle(metadata)=" + printed(node) +
                              ", middle_locked_on_entry=true",
                          "debug" + head + "startup bring locks down. locked=" + printed(node) +
                              " incoming_lock_depth=2",
                          "debug" + head + "completion. locked=" + printed(node) +
                              " metadata->lock_depth=2"));

  setLevels(kAllLevels);
  ASSERT_TRUE(overflow_metadata_splice_out(env, node, true));
  EXPECT_THAT(linesOf("overflow_metadata_splice_out"),
              ElementsAre("entry" + head + "entry: middle(metadata)=" + printed(node) +
                              ", middle_locked_on_entry=true",
                          "debug" + head + "startup bring locks down. locked=" + printed(node) +
                              " incoming_lock_depth=2",
                          "debug" + head + "metadata was already spliced out",
                          "debug" + head + "locked=" + printed(node) + " incoming_lock_depth=2"));
  setLevels(0);
  EXPECT_EQ(holdCount(node), 2U);
  letGo(node, 2);

  setLevels(kAllLevels);
  ASSERT_TRUE(overflow_metadata_splice_out(env, node, false));
  EXPECT_THAT(linesOf("overflow_metadata_splice_out"),
              ElementsAre("entry" + head + "entry: middle(metadata)=" + printed(node) +
                              ", middle_locked_on_entry=false",
                          "debug" + head + "metadata was already spliced out"));
  setLevels(0);
  EXPECT_EQ(depthOf(node), 0);
  dropRecord(value);
}

TEST_F(OverflowLists, APendingExceptionEndsASpliceOut) {
  LuOffHeapValue* value = linkedRecord(8);
  overflow_metadata* node = nodeOf(value);
  take(node, 2);
  jni.throwNew(kIllegalState, "earlier");
  EXPECT_FALSE(overflow_metadata_splice_out(env, node, true));
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "earlier"}));
  EXPECT_EQ(holdCount(node), 2U);
  letGo(node, 2);
  EXPECT_EQ(checkList(8), Nodes{node});

  jni.throwNew(kIllegalState, "earlier");
  EXPECT_FALSE(overflow_metadata_splice_out(env, node, false));
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "earlier"}));
  EXPECT_EQ(holdCount(node), 0U) << "what the operation took itself it gives back";
  EXPECT_EQ(checkList(8), Nodes{node});
  dropRecord(value);
}

TEST_F(OverflowLists, ASpliceOutThatCannotTakeItsNodeFails) {
  LuOffHeapValue* value = linkedRecord(8);
  {
    const FailThisLock failure(&nodeOf(value)->mutex, LockOp::lock, EINVAL);
    EXPECT_FALSE(overflow_metadata_splice_out(env, nodeOf(value), false));
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_lock", "pthread_mutex_lock() failed", EINVAL));
  EXPECT_EQ(checkList(8), Nodes{nodeOf(value)});
  dropRecord(value);
}

TEST_F(OverflowLists, TheSweepIsToldThatItsAnchorLeaves) {
  LuOffHeapValue* value = linkedRecord(8);
  LuOffHeapValue* other = linkedRecord(8);
  cacheIterator._anchor = nodeOf(value);
  EXPECT_TRUE(overflow_metadata_splice_out(env, nodeOf(other), false));
  EXPECT_EQ(cacheIterator._anchor, nodeOf(value));
  EXPECT_TRUE(overflow_metadata_splice_out(env, nodeOf(value), false));
  EXPECT_EQ(cacheIterator._anchor, nullptr);
  dropRecord(value);
  dropRecord(other);
}

// A neighbour that is busy when the node is to leave.
class BusyNeighbour : public OverflowLists {
 protected:
  void SetUp() override {
    OverflowLists::SetUp();
    last = linkedRecord(2, "last");
    middle = linkedRecord(2, "middle");
    first = linkedRecord(2, "first");
  }
  void TearDown() override {
    for (LuOffHeapValue* value : {first, middle, last}) dropRecord(value);
    OverflowLists::TearDown();
  }

  // Splices the middle node out on another thread while `busy` is held by a third; returns when
  // the other thread has missed it three times.
  void startSplicing(overflow_metadata* busy, int depth) {
    holder.emplace(busy);
    watch.emplace([this, busy](const void* lock, LockOp operation) {
      if (lock == &busy->mutex && operation == LockOp::tryLock) ++tries;
      return 0;
    });
    splicer = std::thread([this, depth] {
      OverflowThread own;
      overflow_metadata* const node = nodeOf(middle);
      for (int i = 0; i < depth; ++i) {
        EXPECT_TRUE(overflow_metadata_lock(own.env, "splicer", node));
      }
      spliced = overflow_metadata_splice_out(own.env, node, depth > 0);
      EXPECT_EQ(overflow_metadata_get_hold_count(own.env, node), static_cast<uint32_t>(depth));
      for (int i = 0; i < depth; ++i) {
        EXPECT_TRUE(overflow_metadata_unlock(own.env, "splicer", node));
      }
    });
    while (tries < 3) sched_yield();
  }
  void finish() {
    holder.reset();
    splicer.join();
    watch.reset();
    EXPECT_TRUE(spliced);
    EXPECT_EQ(nodeOf(middle)->next, nullptr);
    EXPECT_EQ(nodeOf(middle)->prev, nullptr);
    EXPECT_EQ(checkList(2), (Nodes{nodeOf(first), nodeOf(last)}));
  }

  LuOffHeapValue* last = nullptr;
  LuOffHeapValue* middle = nullptr;
  LuOffHeapValue* first = nullptr;
  std::atomic<int> tries{0};
  std::atomic<bool> spliced{false};
  std::optional<HeldByAnother> holder;
  std::optional<OnLockOperation> watch;
  std::thread splicer;
};

TEST_F(BusyNeighbour, BeforeTheNodeIsWaitedFor) {
  for (const int depth : {0, 1, 2}) {
    SCOPED_TRACE(depth);
    tries = 0;
    startSplicing(nodeOf(first), depth);
    finish();
    overflow_metadata_uninit(env, nodeOf(first));
    revive(first);
    linkInto(2, nodeOf(middle));
    linkInto(2, nodeOf(first));
  }
}

TEST_F(BusyNeighbour, BehindTheNodeIsWaitedFor) {
  for (const int depth : {0, 1, 2}) {
    SCOPED_TRACE(depth);
    tries = 0;
    startSplicing(nodeOf(last), depth);
    finish();
    overflow_metadata_uninit(env, nodeOf(first));
    revive(first);
    linkInto(2, nodeOf(middle));
    linkInto(2, nodeOf(first));
  }
}

TEST_F(BusyNeighbour, TheNodeIsFreeInBetween) {
  for (const int depth : {0, 2}) {
    SCOPED_TRACE(depth);
    tries = 0;
    startSplicing(nodeOf(last), depth);
    // Whoever wants the node gets it, and the neighbour that was not busy, too.
    take(nodeOf(middle));
    EXPECT_EQ(holdCount(nodeOf(middle)), 1U);
    take(nodeOf(first));
    letGo(nodeOf(first));
    letGo(nodeOf(middle));
    finish();
    overflow_metadata_uninit(env, nodeOf(first));
    revive(first);
    linkInto(2, nodeOf(middle));
    linkInto(2, nodeOf(first));
  }
}

TEST_F(BusyNeighbour, TheNodeMayBeGoneAfterwards) {
  startSplicing(nodeOf(first), 2);
  take(nodeOf(middle));
  holder.reset();
  EXPECT_TRUE(overflow_metadata_splice_out(env, nodeOf(middle), true));
  letGo(nodeOf(middle));
  finish();
}

TEST_F(OverflowLists, ABackOffThatCannotRetakeItsNodeLeavesItToOthers) {
  LuOffHeapValue* value = linkedRecord(8);
  overflow_metadata* node = nodeOf(value);
  std::optional<HeldByAnother> busy(std::in_place, headerOf(8));
  std::optional<HeldByAnother> other;
  {
    const std::thread::id self = std::this_thread::get_id();
    bool tried = false;
    const OnLockOperation failure([&](const void* lock, LockOp operation) {
      if (std::this_thread::get_id() != self) return 0;
      if (lock == &headerOf(8)->mutex && operation == LockOp::tryLock) tried = true;
      if (lock != &node->mutex || operation != LockOp::lock || !tried || other) return 0;
      if (depthOf(node) != 0) return 0;  // the release before the pause
      other.emplace(node);
      return EINVAL;
    });
    EXPECT_FALSE(overflow_metadata_splice_out(env, node, false));
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_lock", "pthread_mutex_lock() failed", EINVAL));
  ASSERT_TRUE(other.has_value());
  EXPECT_EQ(depthOf(node), 1) << "the depth is the other thread's";
  EXPECT_EQ(holdCount(node), 0U);
  other.reset();
  busy.reset();
  EXPECT_EQ(checkList(8), Nodes{node});
  dropRecord(value);
}

}  // namespace
}  // namespace nimbra::test
