// What the tests of disk overflow share: a fixture that starts the overflow layer anew for every
// test and takes it away again, Java's callbacks written down, a look into nodes and lists, and
// threads that hold nodes.

#pragma once

#include <gtest/gtest.h>
#include <jni.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "cacheiter.h"
#include "map_natives.h"
#include "map_support.h"
#include "nof_locks.h"
#include "overflow.h"
#include "scripted_jni.h"

namespace nimbra::test {

inline constexpr const char* kNofStructClass = "com/velt/rz/corvane/io/offheap/overflow/NOFStruct";

// What Java was told through one environment. A hook, when set, runs inside the callback, after its
// arguments are written down; it may throw through the environment.
struct OverflowCalls {
  std::vector<std::vector<jlong>> deleting;
  std::vector<std::vector<jlong>> updating;
  std::vector<std::vector<jlong>> moreMemory;
  std::vector<std::vector<jint>> accesses;
  std::function<void(ScriptedJni&)> onDeleting;
  std::function<void(ScriptedJni&)> onUpdating;
  std::function<void(ScriptedJni&)> onMoreMemory;
  std::function<void(ScriptedJni&)> onAccess;
};

// Gives an environment the four callbacks. `calls` outlives it.
inline void defineOverflowCallbacks(ScriptedJni& jni, OverflowCalls& calls) {
  const auto longs = [](std::vector<std::vector<jlong>>& into,
                        std::function<void(ScriptedJni&)>& hook) {
    return [&into, &hook](ScriptedJni& running, jobject, const jvalue* arguments) {
      into.push_back(running.longsOf(arguments[0].l));
      if (hook) hook(running);
      return jvalue{};
    };
  };
  jni.define(kNofStructClass, "deletingNative", "([J)V", true,
             longs(calls.deleting, calls.onDeleting));
  jni.define(kNofStructClass, "updatingNative", "([J)V", true,
             longs(calls.updating, calls.onUpdating));
  jni.define(kOverflowClass, "moreMainMemoryNeeded", "([J)V", true,
             longs(calls.moreMemory, calls.onMoreMemory));
  jni.define(kNofStructClass, "getOccurred", "([I)V", true,
             [&calls](ScriptedJni& running, jobject, const jvalue* arguments) {
               calls.accesses.push_back(running.intsOf(arguments[0].l));
               if (calls.onAccess) calls.onAccess(running);
               return jvalue{};
             });
}

// The environment of a further thread: make it on that thread.
struct OverflowThread {
  OverflowThread() { defineOverflowCallbacks(jni, calls); }

  OverflowCalls calls;
  ScriptedJni jni;
  JNIEnv* const env = jni.env();
};

// The library's exception as a failed system call raises it.
inline Thrown raised(const std::string& function, const std::string& text, int code) {
  return {kIllegalState, "[" + function + "] " + text + ": " + std::strerror(code) + " (" +
                             std::to_string(code) + ")"};
}

// ---- A look at nodes and lists -----------------------------------------------------------

// The depth of a node's lock, whoever holds it.
inline int depthOf(overflow_metadata* node) {
  pthread_mutex_lock(&node->mutex);
  const int depth = node->lock_depth;
  pthread_mutex_unlock(&node->mutex);
  return depth;
}

inline overflow_metadata* headerOf(int list) { return &_headerNodes[list]; }

// The nodes of a list from the header on. Checks that it is circular both ways, that no node is out
// of place, and that every lock of it is free.
inline std::vector<overflow_metadata*> checkList(int list) {
  SCOPED_TRACE("list " + std::to_string(list));
  std::vector<overflow_metadata*> nodes;
  overflow_metadata* const header = headerOf(list);
  std::set<overflow_metadata*> seen;
  overflow_metadata* at = header;
  do {
    if (at == nullptr || at->next == nullptr || at->prev == nullptr || !seen.insert(at).second) {
      ADD_FAILURE() << "the list does not lead back to its header";
      return nodes;
    }
    EXPECT_EQ(at->next->prev, at);
    EXPECT_EQ(at->prev->next, at);
    EXPECT_EQ(depthOf(at), 0);
    if (at != header) {
      EXPECT_FALSE(at >= headerOf(0) && at < headerOf(0) + kOverflowLists) << "another header";
      nodes.push_back(at);
    }
    at = at->next;
  } while (at != header);
  return nodes;
}

// All lists, list by list.
inline std::vector<overflow_metadata*> checkLists() {
  std::vector<overflow_metadata*> nodes;
  for (int list = 0; list < kOverflowLists; ++list) {
    const auto some = checkList(list);
    nodes.insert(nodes.end(), some.begin(), some.end());
  }
  return nodes;
}

// ---- The layer ---------------------------------------------------------------------------

// Forgets the layer as if it had never started. Every list is empty, and nothing is held.
inline void forgetOverflow(JNIEnv* env, ScriptedJni& jni) {
  _isDiskOverflowEnabled = false;
  if (_headerNodes != nullptr) {
    for (int list = 0; list < kOverflowLists; ++list) {
      EXPECT_EQ(pthread_mutex_destroy(&headerOf(list)->mutex), 0) << "header " << list;
      EXPECT_EQ(pthread_cond_destroy(&headerOf(list)->cond), 0) << "header " << list;
    }
    EXPECT_EQ(pthread_mutex_destroy(&cacheIterator._anchor_mutex), 0);
    EXPECT_EQ(pthread_mutex_destroy(&cacheIterator._sweep_state_mutex), 0);
    freeOverflowMetadata(env, _headerNodes, kOverflowLists);
    freeMapHeader(env, _mapHeadersForHeaderNodes, kOverflowLists, 0);
  }
  _headerNodes = nullptr;
  _mapHeadersForHeaderNodes = nullptr;
  _roundRobinIndex = 0U;
  cacheIterator = CacheIterator{};
  for (Relaxed<jclass>* cached : {&_nofStructClass, &_overflowClass}) {
    if (cached->load() != nullptr) jni.dropGlobal(cached->load());
    *cached = static_cast<jclass>(nullptr);
  }
  for (Relaxed<jmethodID>* cached : {&_nofStructUpdatingNativeID, &_nofStructDeletingNativeID,
                                     &_nofStructGetOccurredID, &_moreMainMemoryNeededID}) {
    *cached = static_cast<jmethodID>(nullptr);
  }
}

// A thread that holds a node from its making to its end, or to `release`.
class HeldByAnother {
 public:
  explicit HeldByAnother(overflow_metadata* node, int depth = 1) {
    std::promise<void> held;
    thread_ = std::thread([this, node, depth, &held] {
      ScriptedJni jni;
      for (int i = 0; i < depth; ++i) {
        EXPECT_TRUE(overflow_metadata_lock(jni.env(), "held by another", node));
      }
      held.set_value();
      released_.get_future().wait();
      for (int i = 0; i < depth; ++i) {
        EXPECT_TRUE(overflow_metadata_unlock(jni.env(), "held by another", node));
      }
    });
    held.get_future().wait();
  }
  ~HeldByAnother() { release(); }
  HeldByAnother(const HeldByAnother&) = delete;
  HeldByAnother& operator=(const HeldByAnother&) = delete;

  void release() {
    if (!thread_.joinable()) return;
    released_.set_value();
    thread_.join();
  }

 private:
  std::promise<void> released_;
  std::thread thread_;
};

// Shows every lock operation to a function; a non-zero answer makes the operation fail with it.
class OnLockOperation {
 public:
  using Watch = std::function<int(const void* lock, LockOp operation)>;
  explicit OnLockOperation(Watch watch) {
    EXPECT_EQ(faults::failLock, nullptr) << "one guard at a time";
    watch_ = std::move(watch);
    faults::failLock = [](LockRank, const void* lock, LockOp operation) {
      return watch_(lock, operation);
    };
  }
  ~OnLockOperation() { faults::failLock = nullptr; }
  OnLockOperation(const OnLockOperation&) = delete;
  OnLockOperation& operator=(const OnLockOperation&) = delete;

 private:
  static inline Watch watch_;
};

// Starts every test with the layer started, the switch on, an empty map and all lists empty.
// Afterwards the lists must be empty and free again, and nothing of the layer is left behind.
class OverflowTest : public MapTest {
 protected:
  void SetUp() override {
    MapTest::SetUp();
    defineOverflowCallbacks(jni, calls);
    ASSERT_TRUE(initialize_overflow(env, manager));
    _isDiskOverflowEnabled = true;
    jni.clearRecords();
    jni.clearCalls();
  }

  void TearDown() override {
    if (map != nullptr) deleteMap(map);
    map = nullptr;
    if (_headerNodes != nullptr) {
      EXPECT_TRUE(checkLists().empty());
    }
    forgetOverflow(env, jni);
    MapTest::TearDown();
  }

  // Makes `list` the one that the next link tries first.
  static void nextList(int list) { _roundRobinIndex = static_cast<uint32_t>(list); }

  // Inserts an entry into a list of the test's choice.
  LuOffHeapValue* insertInto(int list, std::string_view key, std::string_view value = "value") {
    nextList(list);
    return insert(key, value);
  }
  // An update as Java ends it: the snapshot dropped, the node that was kept locked let go.
  bool updateAndRelease(std::string_view key, std::string_view value, uint16_t owner = 0,
                        int64_t revision = 1) {
    LuOffHeapValue* snapshot = updatePinned(key, value, owner, revision);
    if (snapshot == nullptr) return false;
    LuOffHeapValue* entry = snapshot->hashNext;
    EXPECT_TRUE(overflow_metadata_unlock(env, "test", nodeOf(entry)));
    unpinValue(snapshot);
    return true;
  }

  // A record outside any map, its node initialised for the fixture's map but in no list. One
  // ALLOCATION_PIN; `dropRecord` releases it, and Java hears nothing of that while the node still
  // counts as invalid.
  LuOffHeapValue* looseRecord(const char* key = "loose", const char* value = "value") {
    LuOffHeapValue* made = record(key, value);
    EXPECT_NE(made, nullptr);
    EXPECT_TRUE(initialize_overflow_metadata(env, nodeOf(made), map->map));
    return made;
  }
  // The same, taken into use and linked into `list`.
  LuOffHeapValue* linkedRecord(int list, const char* key = "linked", const char* value = "value") {
    LuOffHeapValue* made = looseRecord(key, value);
    linkInto(list, nodeOf(made));
    return made;
  }
  void linkInto(int list, overflow_metadata* node) {
    EXPECT_TRUE(overflow_metadata_lock(env, "test", node));
    clearFlag(is_invalid, node);
    nextList(list);
    EXPECT_TRUE(overflow_metadata_link_to_header(env, node, true));
    EXPECT_TRUE(overflow_metadata_unlock(env, "test", node));
  }
  // REQUIRES: the record's last pin.
  void dropRecord(LuOffHeapValue* value) { EXPECT_EQ(unpinValue(value), 0U); }

  // Sets and clears flags under the node's lock.
  void changeFlags(LuOffHeapValue* value, uint16_t set, uint16_t clear = 0) {
    EXPECT_TRUE(overflow_metadata_lock(env, "test", nodeOf(value)));
    setFlag(set, nodeOf(value));
    clearFlag(clear, nodeOf(value));
    EXPECT_TRUE(overflow_metadata_unlock(env, "test", nodeOf(value)));
  }
  // The calling thread's own depth.
  uint32_t holdCount(overflow_metadata* node) {
    return overflow_metadata_get_hold_count(env, node);
  }

  // Takes and lets go, as the caller of an operation does.
  void take(overflow_metadata* node, int times = 1) {
    for (int i = 0; i < times; ++i) ASSERT_TRUE(overflow_metadata_lock(env, "test", node));
  }
  void letGo(overflow_metadata* node, int times = 1) {
    for (int i = 0; i < times; ++i) ASSERT_TRUE(overflow_metadata_unlock(env, "test", node));
  }
  // Lets the inner mutex go that a failed unlock of it has left locked.
  static void releaseInner(overflow_metadata* node) {
    EXPECT_EQ(mutexUnlock(&node->mutex, LockRank::node), 0);
  }
  // Gives a node whose lock is destroyed a new one, so that its record can be dropped.
  void revive(LuOffHeapValue* value) {
    ASSERT_TRUE(initialize_overflow_metadata(env, nodeOf(value), map->map));
  }
  // The records of one function.
  std::vector<std::string> linesOf(const std::string& function) const {
    std::vector<std::string> result;
    for (const std::string& line : jni.lines()) {
      if (line.find("|JNI:" + function + ":") != std::string::npos) result.push_back(line);
    }
    return result;
  }

  OverflowCalls calls;  // what Java was told through the fixture's environment
};

}  // namespace nimbra::test
