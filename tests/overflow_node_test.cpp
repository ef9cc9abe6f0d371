// One overflow node at the end and in between: tear-down, the report of an access to Java, the
// debug rendering, and pins in traces.

#include <gmock/gmock.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "overflow_support.h"

namespace nimbra::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using Nodes = std::vector<overflow_metadata*>;

class OverflowNode : public OverflowTest {};

// ---- Tear-down ---------------------------------------------------------------------------

TEST_F(OverflowNode, UninitTakesANodeOutAndDestroysItsLock) {
  LuOffHeapValue* value = linkedRecord(8);
  overflow_metadata* node = nodeOf(value);
  cacheIterator._anchor = node;
  setLevels(kEntryLevel);
  EXPECT_EQ(overflow_metadata_uninit(env, node), 0);
  const std::string head = "|JNI:overflow_metadata_uninit:";
  EXPECT_THAT(linesOf("overflow_metadata_uninit"),
              ElementsAre("entry" + head + "uninitializing overflow metadata @ " + printed(node),
                          "exit" + head + "uninitialized overflow metadata @ " + printed(node)));
  EXPECT_EQ(linesOf("overflow_metadata_uninit_metadata").size(), 2U);
  setLevels(0);
  EXPECT_EQ(node->next, nullptr);
  EXPECT_EQ(cacheIterator._anchor, nullptr);
  EXPECT_TRUE(checkLists().empty());
  revive(value);
  dropRecord(value);
}

TEST_F(OverflowNode, UninitOfALooseNodeDestroysItsLock) {
  LuOffHeapValue* value = looseRecord();
  setLevels(kEntryLevel | kDebugLevel);
  EXPECT_EQ(overflow_metadata_uninit(env, nodeOf(value)), 0);
  EXPECT_THAT(linesOf("overflow_metadata_splice_out"), IsEmpty());
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:overflow_metadata_lock:(uninit) locked=" +
                                    printed(nodeOf(value)) + " lock_depth=1"));
  EXPECT_EQ(linesOf("overflow_metadata_uninit_metadata").size(), 2U);
  setLevels(0);
  revive(value);
  dropRecord(value);
}

TEST_F(OverflowNode, UninitAnswersOneWhenItCannotTakeTheNode) {
  LuOffHeapValue* value = linkedRecord(8);
  {
    const FailThisLock failure(&nodeOf(value)->mutex, LockOp::lock, EINVAL);
    EXPECT_EQ(overflow_metadata_uninit(env, nodeOf(value)), 1);
  }
  EXPECT_TRUE(jni.takePending().has_value());
  EXPECT_EQ(checkList(8), Nodes{nodeOf(value)});
  dropRecord(value);
}

TEST_F(OverflowNode, UninitLeavesANodeThatCannotBeSplicedOut) {
  LuOffHeapValue* value = linkedRecord(8);
  int destroyed = 0;
  jni.throwNew(kIllegalState, "earlier");
  {
    const OnLockOperation watch([&destroyed](const void*, LockOp operation) {
      if (operation == LockOp::destroy) ++destroyed;
      return 0;
    });
    EXPECT_EQ(overflow_metadata_uninit(env, nodeOf(value)), 0);
  }
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "earlier"}));
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(checkList(8), Nodes{nodeOf(value)}) << "still linked, and free";
  dropRecord(value);
}

TEST_F(OverflowNode, UninitLeavesTheLockOfANodeThatItCannotRelease) {
  LuOffHeapValue* value = looseRecord();
  overflow_metadata* node = nodeOf(value);
  int destroyed = 0;
  int locks = 0;
  {
    const OnLockOperation failure([&](const void* lock, LockOp operation) {
      if (operation == LockOp::destroy) ++destroyed;
      return lock == &node->mutex && operation == LockOp::lock && ++locks == 2 ? EINVAL : 0;
    });
    EXPECT_EQ(overflow_metadata_uninit(env, node), 0);
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_unlock", "pthread_mutex_lock() failed", EINVAL));
  EXPECT_EQ(destroyed, 0);
  letGo(node);
  dropRecord(value);
}

// The lock alone, taken out of use.
class NodeLockDestruction : public OverflowNode {
 protected:
  void SetUp() override {
    OverflowNode::SetUp();
    ASSERT_TRUE(overflow_metadata_lock_init(env, &node));
  }
  bool destroy() { return overflow_metadata_uninit_metadata(env, &node); }
  std::vector<std::string> lines() const { return linesOf("overflow_metadata_uninit_metadata"); }

  const std::string head = "|JNI:overflow_metadata_uninit_metadata:";
  overflow_metadata node{};
};

TEST_F(NodeLockDestruction, SucceedsAtOnceOnAFreeLock) {
  setLevels(kAllLevels);
  EXPECT_TRUE(destroy());
  EXPECT_THAT(jni.lines(), ElementsAre("entry" + head + "metadata = " + printed(&node),
                                       HasSubstr("entry|JNI:assert_unlocked:thread "),
                                       HasSubstr("exit|JNI:assert_unlocked:thread "),
                                       "exit" + head + "returning true"));
}

TEST_F(NodeLockDestruction, ReportsALockThatIsHeld) {
  ASSERT_TRUE(overflow_metadata_lock(env, "test", &node));
  setLevels(kDebugLevel);
  EXPECT_TRUE(destroy());
  EXPECT_THAT(jni.lines(), ElementsAre(HasSubstr("|JNI:assert_unlocked:lock depth = 1, owner = ")));
}

TEST_F(NodeLockDestruction, IsTriedAgainWhileTheMutexIsBusy) {
  for (const int failures : {1, 3, 999}) {
    SCOPED_TRACE(failures);
    overflow_metadata one{};
    ASSERT_TRUE(overflow_metadata_lock_init(env, &one));
    int tries = 0;
    int yields = 0;
    setLevels(kDebugLevel);
    {
      const OnLockOperation busy([&](const void*, LockOp operation) {
        if (operation == LockOp::yield) ++yields;
        return operation == LockOp::destroy && ++tries <= failures ? EBUSY : 0;
      });
      EXPECT_TRUE(overflow_metadata_uninit_metadata(env, &one));
    }
    EXPECT_EQ(tries, failures + 1);
    EXPECT_EQ(yields, failures);
    EXPECT_THAT(lines(), ElementsAre("debug" + head +
                                         "pthread_mutex_destroy() is failing with rc "
                                         "= 16",
                                     "debug" + head +
                                         "An attempt to destroy a lock has succeeded "
                                         "after failing " +
                                         std::to_string(failures) + " times"));
    setLevels(0);
  }
  EXPECT_TRUE(destroy());
}

TEST_F(NodeLockDestruction, GivesUpAfterAThousandTries) {
  int tries = 0;
  int conditions = 0;
  setLevels(kAllLevels);
  {
    const OnLockOperation busy([&](const void*, LockOp operation) {
      if (operation == LockOp::conditionDestroy) ++conditions;
      if (operation != LockOp::destroy) return 0;
      ++tries;
      return EBUSY;
    });
    EXPECT_FALSE(destroy());
  }
  EXPECT_EQ(tries, 1000);
  EXPECT_EQ(conditions, 0);
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_uninit_metadata", "pthread_mutex_destroy() failed", EBUSY));
  EXPECT_THAT(lines(),
              ElementsAre("entry" + head + "metadata = " + printed(&node),
                          "debug" + head + "pthread_mutex_destroy() is failing with rc = 16"));
  setLevels(0);
  EXPECT_TRUE(destroy());
}

TEST_F(NodeLockDestruction, FailsWithTheYield) {
  {
    const OnLockOperation failure([](const void*, LockOp operation) {
      if (operation == LockOp::destroy) return EBUSY;
      return operation == LockOp::yield ? ENOSYS : 0;
    });
    EXPECT_FALSE(destroy());
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_uninit_metadata", "sched_yield() failed", ENOSYS));
  EXPECT_TRUE(destroy());
}

TEST_F(NodeLockDestruction, RaisesWhenTheConditionCannotBeDestroyed) {
  {
    const FailLock failure(LockRank::node, LockOp::conditionDestroy, 1, EBUSY);
    EXPECT_FALSE(destroy());
    EXPECT_TRUE(failure.fired());
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_uninit_metadata", "pthread_cond_destroy() failed", EBUSY));
}

// The thread sanitizer reports every attempt on a busy mutex, also one that the library then
// repeats.
#if !defined(__SANITIZE_THREAD__)
TEST_F(NodeLockDestruction, OutlastsAThreadThatIsStillLeaving) {
  std::atomic<bool> inside{false};
  std::atomic<bool> leave{false};
  std::atomic<bool> left{false};
  int tries = 0;
  {
    // The check before the destruction waits for the mutex, so the other thread comes in behind it.
    const OnLockOperation watch([&](const void* lock, LockOp operation) {
      if (lock != &node.mutex || operation != LockOp::destroy) return 0;
      ++tries;
      if (tries == 1) {
        inside = true;
        while (!left) sched_yield();
        left = false;
      } else if (tries == 3) {
        leave = true;
        while (!left) sched_yield();
      }
      return 0;
    });
    std::thread other([&] {
      while (!inside) sched_yield();
      EXPECT_EQ(pthread_mutex_lock(&node.mutex), 0);
      left = true;
      while (!leave) sched_yield();
      EXPECT_EQ(pthread_mutex_unlock(&node.mutex), 0);
      left = true;
    });
    EXPECT_TRUE(destroy());
    other.join();
  }
  EXPECT_EQ(tries, 3);
}
#endif

// ---- Accesses ----------------------------------------------------------------------------

class NodeAccess : public OverflowTest {
 protected:
  void SetUp() override {
    OverflowTest::SetUp();
    value = insertInto(1, "key");
    ASSERT_NE(value, nullptr);
    changeFlags(value, 0, recently_used);
    node = nodeOf(value);
    mapId = map->map->map_id;
    ASSERT_NE(mapId, map->map->map_set_id);
  }

  LuOffHeapValue* value = nullptr;
  overflow_metadata* node = nullptr;
  jint mapId = 0;
};

TEST_F(NodeAccess, OfAValueInMemoryIsReportedAndMarksTheEntry) {
  setLevels(kAllLevels);
  invoke_get_occurred(env, value);
  EXPECT_EQ(calls.accesses, (std::vector<std::vector<jint>>{{mapId, 1}}));
  EXPECT_TRUE(isFlagSet(recently_used, node));
  EXPECT_EQ(linesOf("invoke_get_occurred"),
            (std::vector<std::string>{"debug|JNI:invoke_get_occurred:luValue=" + printed(value) +
                                      " metadata=" + printed(node)}));
  setLevels(0);
  EXPECT_EQ(depthOf(node), 0);
  invoke_get_occurred(env, value);
  EXPECT_EQ(calls.accesses.size(), 2U) << "every access is reported";
}

TEST_F(NodeAccess, OfAValueOnDiskSaysSo) {
  changeFlags(value, on_disk, in_memory);
  invoke_get_occurred(env, value);
  EXPECT_EQ(calls.accesses, (std::vector<std::vector<jint>>{{mapId, 0}}));
  EXPECT_TRUE(isFlagSet(recently_used, node));
  changeFlags(value, in_memory, on_disk);
  invoke_get_occurred(env, value);
  EXPECT_EQ(calls.accesses.back(), (std::vector<jint>{mapId, 1}));
}

TEST_F(NodeAccess, JavaRunsWithoutTheNodesLock) {
  int depth = -1;
  calls.onAccess = [&](ScriptedJni&) { depth = depthOf(node); };
  invoke_get_occurred(env, value);
  EXPECT_EQ(depth, 0);
}

TEST_F(NodeAccess, AnExceptionOfJavasIsLoggedAndCleared) {
  calls.onAccess = [](ScriptedJni& running) {
    running.throwNew("java/lang/RuntimeException", "no");
  };
  setLevels(kErrorLevel);
  invoke_get_occurred(env, value);
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_THAT(jni.lines(), Contains("errorGeneric|OFFHEAP_GENERIC_ERROR_KTZAR7929|caught exception "
                                    "in invoked_get_occured"));
  setLevels(0);
  EXPECT_EQ(calls.accesses.size(), 1U);
  EXPECT_TRUE(isFlagSet(recently_used, node));
}

TEST_F(NodeAccess, WithoutTheMethodNothingHappens) {
  const jmethodID method = _nofStructGetOccurredID;
  _nofStructGetOccurredID = static_cast<jmethodID>(nullptr);
  setLevels(kAllLevels);
  invoke_get_occurred(env, value);
  _nofStructGetOccurredID = method;
  EXPECT_THAT(jni.records(), IsEmpty());
  EXPECT_THAT(calls.accesses, IsEmpty());
  EXPECT_FALSE(isFlagSet(recently_used, node));
}

TEST_F(NodeAccess, WithoutTheNodesLockJavaIsNotCalled) {
  {
    const FailThisLock failure(&node->mutex, LockOp::lock, EINVAL);
    invoke_get_occurred(env, value);
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_lock", "pthread_mutex_lock() failed", EINVAL));
  EXPECT_FALSE(isFlagSet(recently_used, node));
  {
    int locks = 0;
    const OnLockOperation failure([&locks](const void*, LockOp operation) {
      return operation == LockOp::lock && ++locks == 2 ? EINVAL : 0;
    });
    invoke_get_occurred(env, value);
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_unlock", "pthread_mutex_lock() failed", EINVAL));
  EXPECT_THAT(calls.accesses, IsEmpty());
  letGo(node);
}

TEST_F(NodeAccess, WithoutMemoryForTheArrayJavaIsNotCalled) {
  jni.failCall("NewIntArray", 1, Thrown{kOutOfMemory, "no array"});
  invoke_get_occurred(env, value);
  EXPECT_THAT(calls.accesses, IsEmpty());
  EXPECT_FALSE(jni.pending().has_value()) << *jni.pending();
  jni.failCall("NewIntArray", 1);
  invoke_get_occurred(env, value);
  EXPECT_THAT(calls.accesses, IsEmpty());
}

TEST_F(NodeAccess, MarkingAloneTellsWhereTheValueWas) {
  bool wasInMemory = false;
  EXPECT_TRUE(markRecentlyUsed(env, value, &wasInMemory));
  EXPECT_TRUE(wasInMemory);
  EXPECT_TRUE(isFlagSet(recently_used, node));
  changeFlags(value, on_disk, in_memory | recently_used);
  EXPECT_TRUE(markRecentlyUsed(env, value, &wasInMemory));
  EXPECT_FALSE(wasInMemory);
  changeFlags(value, in_memory, on_disk | recently_used);
  EXPECT_TRUE(markRecentlyUsed(env, value, nullptr));
  EXPECT_TRUE(isFlagSet(recently_used, node));
  EXPECT_THAT(calls.accesses, IsEmpty());
  const FailLock failure(LockRank::node, LockOp::lock, 1);
  EXPECT_FALSE(markRecentlyUsed(env, value, nullptr));
  EXPECT_TRUE(jni.takePending().has_value());
}

// ---- Text --------------------------------------------------------------------------------

class NodeText : public OverflowTest {
 protected:
  void SetUp() override {
    OverflowTest::SetUp();
    insertInto(1, "behind");
    value = insertInto(1, "key", "a value");
    node = nodeOf(value);
    head = "KLOR label: " + printed(node) + " (luOffHeapValue " + printed(value) + "): ";
  }
  std::string text(overflow_metadata* of, const char* label = "label") {
    char* made = to_string(env, label, of);
    if (made == nullptr) {
      ADD_FAILURE() << "no text";
      return {};
    }
    std::string result = made;
    release_string(env, made);
    return result;
  }
  // The last two pieces of a valid node's text.
  std::string tail(const char* flags, int depth) const {
    return std::string(flags) + "prev=" + printed(node->prev) + ", next=" + printed(node->next) +
           ", locked=" + std::to_string(depth);
  }
  std::string sizes() const {
    return "len=" + std::to_string(getSize_LuValue(env, value)) +
           ", value_len=" + std::to_string(value->valueLength) +
           ", map_id_num=" + std::to_string(map->map->map_id) +
           ", map_set_id_num=" + std::to_string(map->map->map_set_id) + ", ";
  }

  LuOffHeapValue* value = nullptr;
  overflow_metadata* node = nullptr;
  std::string head;
};

TEST_F(NodeText, NoNode) { EXPECT_EQ(text(nullptr), "label: KLOR overflow_metadata = NULL"); }

TEST_F(NodeText, AHeaderShowsItsNeighboursAndTheCallersDepth) {
  const std::string header = "KLOR label: " + printed(headerOf(1)) +
                             ": HEADER node xx, prev=" + printed(headerOf(1)->prev) +
                             ", next=" + printed(node) + ", locked=";
  EXPECT_EQ(text(headerOf(1)), header + "0");
  take(headerOf(1), 2);
  EXPECT_EQ(text(headerOf(1)), header + "2");
  letGo(headerOf(1), 2);
}

TEST_F(NodeText, OfANodeThatTheCallerDoesNotHoldNothingIsRead) {
  EXPECT_EQ(text(node), head + "NOT LOCKED");
  const HeldByAnother held(node, 3);
  EXPECT_EQ(text(node), head + "NOT LOCKED") << "also while another thread holds it";
}

TEST_F(NodeText, AValidNodeShowsEverything) {
  take(node, 2);
  clearFlag(0xFFFF, node);
  EXPECT_EQ(text(node),
            head + sizes() +
                tail("in_memory=false, is_invalid=false, recently_used=false, on_disk=false, ", 2));
  setFlag(in_memory, node);
  EXPECT_EQ(text(node),
            head + sizes() +
                tail("in_memory=true, is_invalid=false, recently_used=false, on_disk=false, ", 2));
  setFlag(on_disk, node);
  EXPECT_EQ(text(node),
            head + sizes() +
                tail("in_memory=true, is_invalid=false, recently_used=false, on_disk=true, ", 2));
  setFlag(recently_used | PREVENT_EVICT | kSnapshot, node);
  clearFlag(on_disk, node);
  EXPECT_EQ(text(node),
            head + sizes() +
                tail("in_memory=true, is_invalid=false, recently_used=true, on_disk=false, ", 2));
  letGo(node, 2);
}

TEST_F(NodeText, InvalidNodesPrintTheirNeighboursSwapped) {
  ASSERT_NE(node->prev, node->next);
  take(node);
  setFlag(is_invalid, node);
  EXPECT_EQ(text(node), head + "INVALID flag set, prev=" + printed(node->next) +
                            ", next=" + printed(node->prev) + ", locked=1");
  clearFlag(is_invalid, node);
  letGo(node);
}

TEST_F(NodeText, AFailingLockIsAllThatIsSaid) {
  {
    const FailLock failure(LockRank::node, LockOp::lock, 1, EINVAL);
    EXPECT_EQ(text(node), "error getting hold_count");
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_get_hold_count", "pthread_mutex_lock() failed", EINVAL));
}

TEST_F(NodeText, ALongLabelIsCutWithTheText) {
  const std::string label(3'000, 'x');
  take(node);
  for (overflow_metadata* one : {node, headerOf(1), static_cast<overflow_metadata*>(nullptr)}) {
    EXPECT_LE(text(one, label.c_str()).size(), 1'023U);
  }
  letGo(node);
  EXPECT_LE(text(node, label.c_str()).size(), 1'023U);
  EXPECT_THAT(text(node, std::string(900, 'x').c_str()), HasSubstr("NOT LOCKED"));
}

// ---- Pins in traces ----------------------------------------------------------------------

TEST_F(NodeText, ReferenceCountsShowRecordKeyAndValue) {
  pin(env, value, JNI_GET_PIN);
  pin(env, value->value, JNI_GET_PIN);
  setLevels(kDebugLevel);
  trace_ref_count(env, "label", value);
  ASSERT_EQ(jni.lines().size(), 1U);
  EXPECT_THAT(jni.lines().front(),
              HasSubstr("LuOffHeapValue refcount = " + std::to_string(value->pins) + ", key " +
                        printed(value->key) + " ('key') refcount = " +
                        std::to_string(value->key->pins) + ", value " + printed(value->value) +
                        " refcount = " + std::to_string(value->value->pins)));
  setLevels(0);
  trace_ref_count(env, "label", value);
  EXPECT_THAT(jni.records(), IsEmpty());
  unpin(env, value->value, JNI_GET_PIN);
  unpinValue(value, JNI_GET_PIN);
}

TEST_F(NodeText, ReferenceCountsOfARecordWithoutBuffers) {
  LuOffHeapValue* bare = record(nullptr, nullptr);
  ASSERT_TRUE(initialize_overflow_metadata(env, nodeOf(bare), map->map));
  setLevels(kDebugLevel);
  trace_ref_count(env, "label", bare);
  ASSERT_EQ(jni.lines().size(), 1U);
  EXPECT_THAT(jni.lines().front(), HasSubstr("LuOffHeapValue refcount = 1, key (nil)"));
  setLevels(0);
  dropRecord(bare);
}

TEST_F(NodeText, PinSnapshotsBeginWithTheMarker) {
  int32_t snapshot[4] = {};
  pin(env, value->value, JNI_GET_PIN);
  trace_pin_count_init(snapshot, value);
  EXPECT_THAT(snapshot, ElementsAre(123456789, static_cast<int32_t>(value->pins),
                                    static_cast<int32_t>(value->key->pins),
                                    static_cast<int32_t>(value->value->pins)));
  unpin(env, value->value, JNI_GET_PIN);
  LuOffHeapValue* bare = record(nullptr, nullptr);
  ASSERT_TRUE(initialize_overflow_metadata(env, nodeOf(bare), map->map));
  trace_pin_count_init(snapshot, bare);
  EXPECT_THAT(snapshot, ElementsAre(123456789, 1, 0, 0));
  dropRecord(bare);
}

TEST_F(NodeText, PinDifferencesKeepTheMarker) {
  int32_t difference[4];
  const int32_t before[4] = {10, 5, 7, 1};
  const int32_t after[4] = {13, 4, 7, 3};
  const int32_t markedBefore[4] = {kPinCountMarker, 5, 7, 1};
  const int32_t markedAfter[4] = {kPinCountMarker, 4, 7, 3};
  trace_pin_count_diff(before, after, difference);
  EXPECT_THAT(difference, ElementsAre(3, -1, 0, 2));
  trace_pin_count_diff(markedBefore, after, difference);
  EXPECT_THAT(difference, ElementsAre(123456789, -1, 0, 2));
  trace_pin_count_diff(before, markedAfter, difference);
  EXPECT_THAT(difference, ElementsAre(123456789, -1, 0, 2));
  trace_pin_count_diff(markedBefore, markedAfter, difference);
  EXPECT_THAT(difference, ElementsAre(123456789, -1, 0, 2));
}

}  // namespace
}  // namespace nimbra::test
