// The reentrant lock of an overflow node: owners, strangers and waiters, every record at its level,
// and every system call that may fail.

#include "nof_locks.h"

#include <gmock/gmock.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "overflow_support.h"
#include "record_locks.h"

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kReleased[] =
    "[overflow_metadata_unlock] Error releasing lock by the Nimbra native overflow library. Lock "
    "already released.";
constexpr char kNotTheOwner[] =
    "[overflow_metadata_unlock] Error releasing lock by the Nimbra native overflow library. "
    "Releasing thread is not the owner of the lock.";

std::string self() { return std::to_string(static_cast<long>(pthread_self())); }

class NodeLock : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    std::memset(static_cast<void*>(&node), 0xA5, sizeof node);
    ASSERT_TRUE(overflow_metadata_lock_init(env, &node));
  }
  void TearDown() override {
    EXPECT_TRUE(isFree(&node.mutex));
    pthread_mutex_destroy(&node.mutex);
    pthread_cond_destroy(&node.cond);
    LibraryTest::TearDown();
  }

  bool lock(const char* tag = "tag") { return overflow_metadata_lock(env, tag, &node); }
  bool trylock(const char* tag = "tag") { return overflow_metadata_trylock(env, tag, &node); }
  bool unlock(const char* tag = "tag") { return overflow_metadata_unlock(env, tag, &node); }
  uint32_t holdCount() { return overflow_metadata_get_hold_count(env, &node); }
  // Lets the inner mutex go that a failed unlock of it has left locked.
  void releaseInner() { EXPECT_EQ(mutexUnlock(&node.mutex, LockRank::node), 0); }
  std::string at() const { return printed(&node); }

  // Runs something as a thread of its own, with an environment of its own.
  template <typename Operation>
  static void asAnother(Operation operation) {
    std::thread([&operation] {
      ScriptedJni other;
      operation(other);
    }).join();
  }

  overflow_metadata node;
};

// ---- Creation ----------------------------------------------------------------------------

TEST_F(NodeLock, IsBornFree) {
  EXPECT_EQ(node.lock_depth, 0);
  EXPECT_EQ(node.owner, pthread_t{});
  EXPECT_EQ(holdCount(), 0U);
}

TEST_F(NodeLock, InnerMutexIsOfTheErrorCheckingKind) {
  ASSERT_EQ(pthread_mutex_lock(&node.mutex), 0);
  EXPECT_EQ(pthread_mutex_lock(&node.mutex), EDEADLK);
  ASSERT_EQ(pthread_mutex_unlock(&node.mutex), 0);
}

TEST_F(NodeLock, InitWritesEntryAndExit) {
  overflow_metadata other{};
  setLevels(kAllLevels);
  ASSERT_TRUE(overflow_metadata_lock_init(env, &other));
  EXPECT_THAT(jni.lines(),
              ElementsAre("entry|JNI:overflow_metadata_lock_init:entry thread " + self() +
                              " address " + printed(&other),
                          "exit|JNI:overflow_metadata_lock_init:exit thread " + self()));
  pthread_mutex_destroy(&other.mutex);
  pthread_cond_destroy(&other.cond);
}

TEST_F(NodeLock, InitFailsWithEachOfItsCalls) {
  const struct {
    LockOp operation;
    const char* text;
    int code;
  } cases[] = {
      {LockOp::attributesInit, "pthread_mutexattr_init() failed", ENOMEM},
      {LockOp::attributesType, "pthread_mutex_settype failed", EINVAL},
      {LockOp::init, "pthread_mutex_init failed", EAGAIN},
      {LockOp::conditionInit, "pthread_cond_init() failed", ENOMEM},
      {LockOp::attributesDestroy, "pthread_mutexattr_destroy() failed", EINVAL},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.text);
    overflow_metadata other{};
    const FailLock failure(LockRank::node, one.operation, 1, one.code);
    EXPECT_FALSE(overflow_metadata_lock_init(env, &other));
    EXPECT_TRUE(failure.fired());
    EXPECT_EQ(jni.takePending(), raised("overflow_metadata_lock_init", one.text, one.code));
  }
}

TEST_F(NodeLock, AFailedInitWritesNoExit) {
  overflow_metadata other{};
  setLevels(kEntryLevel);
  const FailLock failure(LockRank::node, LockOp::init, 1);
  EXPECT_FALSE(overflow_metadata_lock_init(env, &other));
  EXPECT_EQ(jni.lines().size(), 1U);
  jni.clearPending();
}

// ---- One thread --------------------------------------------------------------------------

TEST_F(NodeLock, OwnerEntersAsOftenAsItLikes) {
  ASSERT_TRUE(lock());
  EXPECT_EQ(holdCount(), 1U);
  EXPECT_EQ(heldLockCount(), 0) << "no system lock is held while the logical one is";
  ASSERT_TRUE(lock());
  ASSERT_TRUE(trylock());
  EXPECT_EQ(holdCount(), 3U);
  EXPECT_TRUE(unlock());
  EXPECT_TRUE(unlock());
  EXPECT_EQ(holdCount(), 1U);
  EXPECT_TRUE(unlock());
  EXPECT_EQ(node.lock_depth, 0);
  EXPECT_EQ(holdCount(), 0U);
}

TEST_F(NodeLock, DepthReachesTheWidthOfItsField) {
  for (int i = 0; i < 65'535; ++i) ASSERT_TRUE(i % 2 == 0 ? lock() : trylock());
  EXPECT_EQ(holdCount(), 65'535U);
  for (int i = 0; i < 65'535; ++i) ASSERT_TRUE(unlock());
  EXPECT_EQ(node.lock_depth, 0);
}

TEST_F(NodeLock, TheOwnerOfAFreeLockIsStale) {
  ASSERT_TRUE(lock());
  ASSERT_TRUE(unlock());
  EXPECT_TRUE(pthread_equal(node.owner, pthread_self())) << "a release leaves the owner";
  EXPECT_EQ(holdCount(), 0U);
  asAnother([this](ScriptedJni& other) {
    EXPECT_TRUE(overflow_metadata_trylock(other.env(), "other", &node));
    EXPECT_TRUE(overflow_metadata_unlock(other.env(), "other", &node));
  });
}

TEST_F(NodeLock, LockAndUnlockWriteTheDepth) {
  setLevels(kAllLevels);
  ASSERT_TRUE(lock("getSize"));
  ASSERT_TRUE(lock("Clear"));
  ASSERT_TRUE(unlock("getSize"));
  ASSERT_TRUE(unlock("Clear"));
  const std::string locked = "debug|JNI:overflow_metadata_lock:";
  const std::string unlocked = "debug|JNI:overflow_metadata_unlock:decrement. locked=";
  EXPECT_THAT(jni.lines(),
              ElementsAre(locked + "(getSize) locked=" + at() + " lock_depth=1",
                          locked + "(Clear) locked=" + at() + " lock_depth=2",
                          unlocked + at() + " lock_depth=1", unlocked + at() + " lock_depth=0"));
}

TEST_F(NodeLock, TryWritesItsResult) {
  setLevels(kAllLevels);
  ASSERT_TRUE(trylock("trylock prev"));
  ASSERT_TRUE(trylock("trylock next"));
  const std::string head = "|JNI:overflow_metadata_trylock:";
  const std::string thread = "thread " + self() + ", metadata = " + at();
  EXPECT_THAT(
      jni.lines(),
      ElementsAre("entry" + head + thread,
                  "debug" + head + "trylocking trylock prev (" + at() + ")",
                  "debug" + head + "trylocking trylock prev (" + at() + ") success = true",
                  "exit" + head + thread + ",  return true", "entry" + head + thread,
                  "debug" + head + "trylocking trylock next (" + at() + ")",
                  "debug" + head + "current thread is owner. locked=" + at() + " lock_depth=2",
                  "debug" + head + "trylocking trylock next (" + at() + ") success = true",
                  "exit" + head + thread + ",  return true"));
  setLevels(0);
  EXPECT_TRUE(unlock());
  EXPECT_TRUE(unlock());
}

TEST_F(NodeLock, NothingIsWrittenWhileItsLevelIsOff) {
  setLevels(kAllLevels & ~(kDebugLevel | kEntryLevel));
  ASSERT_TRUE(lock());
  ASSERT_TRUE(trylock());
  holdCount();
  assert_unlocked(env, &node);
  EXPECT_TRUE(unlock());
  EXPECT_TRUE(unlock());
  EXPECT_THAT(jni.records(), IsEmpty());
}

TEST_F(NodeLock, OnlyTheLastReleaseWakesAWaiter) {
  ASSERT_TRUE(lock());
  ASSERT_TRUE(lock());
  using Operation = RecordLocks::Operation;
  {
    const RecordLocks record;
    EXPECT_TRUE(unlock());
    EXPECT_THAT(record.operations(), ElementsAre(Operation{&node.mutex, LockOp::lock},
                                                 Operation{&node.mutex, LockOp::unlock}));
  }
  const RecordLocks record;
  EXPECT_TRUE(unlock());
  ASSERT_EQ(record.operations().size(), 3U);
  EXPECT_EQ(record.operations()[0], (Operation{&node.mutex, LockOp::lock}));
  EXPECT_EQ(record.operations()[1].kind, LockOp::signal);
  EXPECT_EQ(record.operations()[2], (Operation{&node.mutex, LockOp::unlock}));
}

TEST_F(NodeLock, ReleaseOfAFreeLockIsRefused) {
  EXPECT_FALSE(unlock());
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, kReleased}));
  ASSERT_TRUE(lock());
  ASSERT_TRUE(unlock());
  EXPECT_FALSE(unlock()) << "also to the last owner";
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, kReleased}));
  EXPECT_EQ(node.lock_depth, 0);
  EXPECT_TRUE(lock()) << "the refusal leaves the lock usable";
  EXPECT_TRUE(unlock());
}

TEST_F(NodeLock, ReplaceHoldCountAnswersTheDepthBefore) {
  ASSERT_TRUE(lock());
  ASSERT_TRUE(lock());
  EXPECT_EQ(replaceHoldCount(&node, 1), 2);
  EXPECT_EQ(holdCount(), 1U);
  EXPECT_EQ(replaceHoldCount(&node, 5), 1);
  EXPECT_EQ(holdCount(), 5U);
  EXPECT_TRUE(isFree(&node.mutex));
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(unlock());
}

// ---- Several threads ---------------------------------------------------------------------

TEST_F(NodeLock, ReleaseByAStrangerIsRefused) {
  ASSERT_TRUE(lock());
  ASSERT_TRUE(lock());
  asAnother([this](ScriptedJni& other) {
    EXPECT_FALSE(overflow_metadata_unlock(other.env(), "stranger", &node));
    EXPECT_EQ(other.takePending(), (Thrown{kIllegalState, kNotTheOwner}));
    EXPECT_EQ(overflow_metadata_get_hold_count(other.env(), &node), 0U);
  });
  EXPECT_EQ(holdCount(), 2U) << "the owner's depth is intact";
  EXPECT_TRUE(unlock());
  EXPECT_TRUE(unlock());
}

TEST_F(NodeLock, TryMissesAHeldNodeWithoutWaiting) {
  const HeldByAnother held(&node, 2);
  setLevels(kAllLevels);
  EXPECT_FALSE(trylock());
  const std::string head = "|JNI:overflow_metadata_trylock:";
  EXPECT_THAT(
      jni.lines(),
      ElementsAre("entry" + head + "thread " + self() + ", metadata = " + at(),
                  "debug" + head + "trylocking tag (" + at() + ")",
                  "debug" + head + "trylocking tag (" + at() + ") success = false",
                  "exit" + head + "thread " + self() + ", metadata = " + at() + ",  return false"));
  setLevels(0);
  EXPECT_EQ(depthOf(&node), 2);
  EXPECT_FALSE(jni.pending().has_value()) << "a miss is no error";
}

TEST_F(NodeLock, TryMissesWhileTheInnerMutexIsBusy) {
  setLevels(kAllLevels);
  // The node itself is free: the other thread stands in the middle of one of the operations.
  std::promise<void> busy;
  std::promise<void> done;
  std::thread other([&] {
    EXPECT_EQ(pthread_mutex_lock(&node.mutex), 0);
    busy.set_value();
    done.get_future().wait();
    EXPECT_EQ(pthread_mutex_unlock(&node.mutex), 0);
  });
  busy.get_future().wait();
  EXPECT_FALSE(trylock());
  const std::string head = "|JNI:overflow_metadata_trylock:";
  EXPECT_THAT(jni.lines(), ElementsAre("entry" + head + "thread " + self() + ", metadata = " + at(),
                                       "debug" + head + "trylocking tag (" + at() + ")"))
      << "the miss itself is silent";
  EXPECT_FALSE(jni.pending().has_value());
  done.set_value();
  other.join();
  setLevels(0);
  EXPECT_TRUE(trylock());
  EXPECT_TRUE(unlock());
}

TEST_F(NodeLock, TryTakesAnyFailureOfTheInnerMutexForAMiss) {
  const FailLock failure(LockRank::node, LockOp::tryLock, 1, EINVAL);
  EXPECT_FALSE(trylock());
  EXPECT_TRUE(failure.fired());
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_EQ(node.lock_depth, 0);
}

// A thread that wants the node while another holds it.
class Waiter {
 public:
  // Returns when the waiter has missed the lock so often.
  Waiter(overflow_metadata* node, int misses) : misses_(misses) {
    thread_ = std::thread([this, node] {
      ScriptedJni other;
      other.setLevelWord(kDebugLevel);
      other.onRecord([this](const LogRecord& record) {
        if (record.text.find("lock-miss") != std::string::npos) ++seen_;
      });
      id_ = static_cast<long>(pthread_self());
      EXPECT_TRUE(overflow_metadata_lock(other.env(), "waiter", node));
      got_ = true;
      EXPECT_EQ(overflow_metadata_get_hold_count(other.env(), node), 1U);
      EXPECT_TRUE(overflow_metadata_unlock(other.env(), "waiter", node));
      lines_ = other.lines();
    });
    awaitMisses(misses_);
  }
  ~Waiter() {
    if (thread_.joinable()) thread_.join();
  }

  void awaitMisses(int count) const {
    while (seen_ < count) sched_yield();
  }
  bool got() const { return got_; }
  std::string id() const { return std::to_string(id_); }
  std::vector<std::string> join() {
    thread_.join();
    return lines_;
  }

 private:
  const int misses_;
  std::atomic<int> seen_{0};
  std::atomic<bool> got_{false};
  std::atomic<long> id_{0};
  std::vector<std::string> lines_;
  std::thread thread_;
};

TEST_F(NodeLock, WaiterGetsTheNodeAfterTheLastRelease) {
  ASSERT_TRUE(lock());
  ASSERT_TRUE(lock());
  setLevels(kDebugLevel);
  Waiter waiter(&node, 1);
  EXPECT_TRUE(unlock());
  EXPECT_EQ(depthOf(&node), 1);
  EXPECT_FALSE(waiter.got());
  EXPECT_TRUE(unlock());
  const std::vector<std::string> lines = waiter.join();
  EXPECT_THAT(
      lines, ElementsAre(
                 "debug|JNI:overflow_metadata_lock:(waiter) lock-miss metadata=" + at() +
                     " owner=" + self() + " me=" + waiter.id() + ": looping...",
                 "debug|JNI:overflow_metadata_lock:(waiter) locked=" + at() + " lock_depth=1",
                 "debug|JNI:overflow_metadata_unlock:decrement. locked=" + at() + " lock_depth=0"));
  EXPECT_EQ(node.lock_depth, 0);
}

TEST_F(NodeLock, WaiterThatIsWokenInVainWaitsAgain) {
  ASSERT_TRUE(lock());
  setLevels(kDebugLevel);
  Waiter waiter(&node, 1);
  ASSERT_EQ(pthread_mutex_lock(&node.mutex), 0);
  ASSERT_EQ(pthread_cond_signal(&node.cond), 0);
  ASSERT_EQ(pthread_mutex_unlock(&node.mutex), 0);
  waiter.awaitMisses(2);
  EXPECT_FALSE(waiter.got());
  EXPECT_TRUE(unlock());
  EXPECT_EQ(waiter.join().size(), 4U);
}

TEST_F(NodeLock, EveryWaiterGetsItsTurn) {
  ASSERT_TRUE(lock());
  setLevels(kDebugLevel);
  {
    Waiter first(&node, 1);
    Waiter second(&node, 1);
    Waiter third(&node, 1);
    EXPECT_TRUE(unlock());
  }
  EXPECT_EQ(node.lock_depth, 0);
}

// ---- Failing system calls ----------------------------------------------------------------

TEST_F(NodeLock, LockFailsWithTheInnerMutex) {
  const FailLock failure(LockRank::node, LockOp::lock, 1, EDEADLK);
  EXPECT_FALSE(lock());
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_lock", "pthread_mutex_lock() failed", EDEADLK));
  EXPECT_EQ(node.lock_depth, 0);
}

TEST_F(NodeLock, LockFailsWithTheWait) {
  HeldByAnother held(&node, 2);
  {
    const FailLock failure(LockRank::node, LockOp::wait, 1, EPERM);
    EXPECT_FALSE(lock());
    EXPECT_TRUE(failure.fired());
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_lock", "pthread_cond_wait() failed", EPERM));
  EXPECT_EQ(heldLockCount(), 0) << "the inner mutex is let go";
  EXPECT_EQ(depthOf(&node), 2);
  held.release();
  EXPECT_EQ(node.lock_depth, 0);
}

TEST_F(NodeLock, LockFailsWithTheReleaseOfTheInnerMutex) {
  {
    const FailLock failure(LockRank::node, LockOp::unlock, 1, EPERM);
    EXPECT_FALSE(lock());
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_lock", "pthread_mutex_unlock() failed", EPERM));
  releaseInner();
  EXPECT_TRUE(unlock()) << "the depth had been raised";
}

TEST_F(NodeLock, TryFailsWithTheReleaseOfTheInnerMutex) {
  {
    const FailLock failure(LockRank::node, LockOp::unlock, 1, EPERM);
    EXPECT_FALSE(trylock());
  }
  EXPECT_EQ(jni.takePending(), raised("overflow_metadata_trylock",
                                      "Unlock pthread_mutex_unlock() failed for metadata=" + at() +
                                          " metadata->mutex=" + printed(&node.mutex),
                                      EPERM));
  releaseInner();
  EXPECT_TRUE(unlock());
}

TEST_F(NodeLock, UnlockFailsWithTheInnerMutex) {
  ASSERT_TRUE(lock());
  {
    const FailLock failure(LockRank::node, LockOp::lock, 1, EINVAL);
    EXPECT_FALSE(unlock());
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_unlock", "pthread_mutex_lock() failed", EINVAL));
  EXPECT_EQ(holdCount(), 1U);
  EXPECT_TRUE(unlock());
}

TEST_F(NodeLock, UnlockFailsWithTheSignal) {
  ASSERT_TRUE(lock());
  {
    const FailLock failure(LockRank::node, LockOp::signal, 1, EINVAL);
    EXPECT_FALSE(unlock());
    EXPECT_TRUE(failure.fired());
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_unlock", "pthread_cond_signal() failed", EINVAL));
  EXPECT_EQ(heldLockCount(), 0) << "the inner mutex is let go";
  EXPECT_EQ(node.lock_depth, 0);
}

TEST_F(NodeLock, UnlockFailsWithTheReleaseOfTheInnerMutex) {
  ASSERT_TRUE(lock());
  {
    const FailLock failure(LockRank::node, LockOp::unlock, 1, EPERM);
    EXPECT_FALSE(unlock());
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_unlock", "pthread_mutex_unlock() failed", EPERM));
  releaseInner();
  EXPECT_EQ(node.lock_depth, 0);
}

TEST_F(NodeLock, HoldCountFailsWithTheInnerMutex) {
  {
    const FailLock failure(LockRank::node, LockOp::lock, 1, EINVAL);
    EXPECT_EQ(holdCount(), kHoldCountFailed);
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_get_hold_count", "pthread_mutex_lock() failed", EINVAL));
  {
    const FailLock failure(LockRank::node, LockOp::unlock, 1, EPERM);
    EXPECT_EQ(holdCount(), kHoldCountFailed);
  }
  EXPECT_EQ(jni.takePending(),
            raised("overflow_metadata_get_hold_count", "pthread_mutex_unlock() failed", EPERM));
  releaseInner();
}

// ---- assert_unlocked ---------------------------------------------------------------------

TEST_F(NodeLock, AFreeNodePassesTheCheck) {
  setLevels(kAllLevels);
  assert_unlocked(env, &node);
  const std::string text = "|JNI:assert_unlocked:thread " + self() + ", metadata = " + at();
  EXPECT_THAT(jni.lines(), ElementsAre("entry" + text, "exit" + text));
}

TEST_F(NodeLock, AHeldNodeIsReportedAndNothingElse) {
  ASSERT_TRUE(lock());
  ASSERT_TRUE(lock());
  setLevels(kAllLevels);
  assert_unlocked(env, &node);
  const std::string text = "|JNI:assert_unlocked:thread " + self() + ", metadata = " + at();
  EXPECT_THAT(jni.lines(), ElementsAre("entry" + text,
                                       "debug|JNI:assert_unlocked:lock depth = 2, owner = " +
                                           std::to_string(static_cast<int>(pthread_self())),
                                       "exit" + text));
  setLevels(0);
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_TRUE(unlock());
  EXPECT_TRUE(unlock());
}

TEST_F(NodeLock, TheCheckFailsWithTheInnerMutex) {
  {
    const FailLock failure(LockRank::node, LockOp::lock, 1, EINVAL);
    assert_unlocked(env, &node);
  }
  EXPECT_EQ(jni.takePending(),
            raised("assert_unlocked", "Error acquiring Overflow Metadata lock in Nimbra library.",
                   EINVAL));
  {
    const FailLock failure(LockRank::node, LockOp::unlock, 1, EPERM);
    assert_unlocked(env, &node);
  }
  EXPECT_EQ(jni.takePending(),
            raised("assert_unlocked", "Error releasing Overflow Metadata lock in Nimbra library.",
                   EPERM));
  releaseInner();
}

}  // namespace
}  // namespace nimbra::test
