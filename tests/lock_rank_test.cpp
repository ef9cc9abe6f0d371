// The lock wrappers of checking builds: the order of ranks, what a thread holds, scripted
// failures.

#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "nb_lock.h"
#include "test_support.h"

namespace nimbra::test {
namespace {

thread_local std::vector<LockViolation> violations;

class LockOrder : public ::testing::Test {
 protected:
  void SetUp() override {
    violations.clear();
    previous_ = lockViolationHandler;
    lockViolationHandler = [](const LockViolation& violation) { violations.push_back(violation); };
    ASSERT_EQ(heldLockCount(), 0);
    ASSERT_EQ(rwlockInit(&map_, LockRank::map), 0);
    for (pthread_mutex_t& mutex : sets_)
      ASSERT_EQ(mutexInit(&mutex, nullptr, LockRank::bucketSet), 0);
    for (pthread_mutex_t& mutex : queues_)
      ASSERT_EQ(mutexInit(&mutex, nullptr, LockRank::queue), 0);
  }
  void TearDown() override {
    EXPECT_EQ(heldLockCount(), 0);
    lockViolationHandler = previous_;
    EXPECT_EQ(pthread_rwlock_destroy(&map_), 0);
    for (pthread_mutex_t& mutex : sets_) EXPECT_EQ(pthread_mutex_destroy(&mutex), 0);
    for (pthread_mutex_t& mutex : queues_) EXPECT_EQ(pthread_mutex_destroy(&mutex), 0);
  }

  static bool isFree(pthread_mutex_t& mutex) {
    bool taken = false;
    std::thread([&] {
      if (pthread_mutex_trylock(&mutex) == 0) {
        taken = true;
        pthread_mutex_unlock(&mutex);
      }
    }).join();
    return taken;
  }

  pthread_rwlock_t map_;
  pthread_mutex_t sets_[2];
  pthread_mutex_t queues_[3];

 private:
  void (*previous_)(const LockViolation&) = nullptr;
};

TEST(LockRanks, TableNamesEveryRankInOrder) {
  const LockRank order[] = {LockRank::map,      LockRank::bucketSet, LockRank::queue,
                            LockRank::anchor,   LockRank::node,      LockRank::sweepState,
                            LockRank::pinChain, LockRank::pinRecord, LockRank::profileRegistry,
                            LockRank::profile};
  ASSERT_EQ(std::size(kLockRanks), std::size(order));
  for (std::size_t at = 0; at < std::size(order); ++at) {
    EXPECT_EQ(kLockRanks[at].rank, order[at]);
    EXPECT_STRNE(kLockRanks[at].name, "");
    EXPECT_STRNE(kLockRanks[at].protects, "");
    EXPECT_STRNE(kLockRanks[at].heldBefore, "");
    if (at > 0) {
      EXPECT_LT(kLockRanks[at - 1].rank, kLockRanks[at].rank);
    }
  }
}

TEST_F(LockOrder, OutermostFirstIsAccepted) {
  EXPECT_EQ(rwlockWrite(&map_, LockRank::map), 0);
  EXPECT_EQ(mutexLock(&sets_[0], LockRank::bucketSet), 0);
  EXPECT_EQ(mutexLock(&queues_[0], LockRank::queue), 0);
  EXPECT_EQ(heldLockCount(), 3);
  EXPECT_TRUE(holdsLock(&map_));
  EXPECT_TRUE(holdsLock(&sets_[0]));
  EXPECT_TRUE(holdsLock(&queues_[0]));
  EXPECT_FALSE(holdsLock(&queues_[1]));
  EXPECT_EQ(mutexUnlock(&queues_[0], LockRank::queue), 0);
  EXPECT_EQ(mutexUnlock(&sets_[0], LockRank::bucketSet), 0);
  EXPECT_EQ(rwlockUnlock(&map_, LockRank::map), 0);
  EXPECT_TRUE(violations.empty());
}

TEST_F(LockOrder, LocksMayBeReleasedInAnyOrder) {
  EXPECT_EQ(rwlockWrite(&map_, LockRank::map), 0);
  EXPECT_EQ(mutexLock(&sets_[0], LockRank::bucketSet), 0);
  EXPECT_EQ(rwlockUnlock(&map_, LockRank::map), 0);
  EXPECT_FALSE(holdsLock(&map_));
  EXPECT_EQ(mutexLock(&queues_[0], LockRank::queue), 0);
  EXPECT_EQ(mutexUnlock(&sets_[0], LockRank::bucketSet), 0);
  EXPECT_EQ(mutexUnlock(&queues_[0], LockRank::queue), 0);
  EXPECT_TRUE(violations.empty());
}

TEST_F(LockOrder, OuterAfterInnerIsReported) {
  EXPECT_EQ(mutexLock(&queues_[0], LockRank::queue), 0);
  EXPECT_EQ(mutexLock(&sets_[0], LockRank::bucketSet), 0);
  ASSERT_EQ(violations.size(), 1U);
  EXPECT_EQ(violations[0].taking, LockRank::bucketSet);
  EXPECT_EQ(violations[0].lock, &sets_[0]);
  EXPECT_EQ(violations[0].held, LockRank::queue);
  EXPECT_EQ(violations[0].heldLock, &queues_[0]);
  EXPECT_EQ(mutexUnlock(&sets_[0], LockRank::bucketSet), 0);
  EXPECT_EQ(mutexUnlock(&queues_[0], LockRank::queue), 0);
}

TEST_F(LockOrder, ReadersFollowTheOrderToo) {
  EXPECT_EQ(mutexLock(&sets_[0], LockRank::bucketSet), 0);
  EXPECT_EQ(rwlockRead(&map_, LockRank::map), 0);
  ASSERT_EQ(violations.size(), 1U);
  EXPECT_EQ(violations[0].taking, LockRank::map);
  EXPECT_EQ(rwlockUnlock(&map_, LockRank::map), 0);
  EXPECT_EQ(mutexUnlock(&sets_[0], LockRank::bucketSet), 0);
}

TEST_F(LockOrder, SecondBucketSetIsReported) {
  EXPECT_EQ(mutexLock(&sets_[0], LockRank::bucketSet), 0);
  EXPECT_EQ(mutexLock(&sets_[1], LockRank::bucketSet), 0);
  ASSERT_EQ(violations.size(), 1U);
  EXPECT_EQ(violations[0].lock, &sets_[1]);
  EXPECT_EQ(violations[0].heldLock, &sets_[0]);
  EXPECT_EQ(mutexUnlock(&sets_[1], LockRank::bucketSet), 0);
  EXPECT_EQ(mutexUnlock(&sets_[0], LockRank::bucketSet), 0);
}

TEST_F(LockOrder, QueuesMayNestWhereAllOfThemAreTaken) {
  EXPECT_EQ(rwlockRead(&map_, LockRank::map), 0);
  for (pthread_mutex_t& queue : queues_) {
    EXPECT_EQ(mutexLock(&queue, LockRank::queue, Nesting::ascending), 0);
  }
  EXPECT_TRUE(violations.empty());
  EXPECT_EQ(heldLockCount(), 4);
  for (pthread_mutex_t& queue : queues_) EXPECT_EQ(mutexUnlock(&queue, LockRank::queue), 0);
  EXPECT_EQ(rwlockUnlock(&map_, LockRank::map), 0);
}

TEST_F(LockOrder, OtherThreadsHoldTheirOwnLocks) {
  EXPECT_EQ(mutexLock(&queues_[0], LockRank::queue), 0);
  std::thread([this] {
    violations.clear();
    EXPECT_EQ(heldLockCount(), 0);
    EXPECT_FALSE(holdsLock(&queues_[0]));
    EXPECT_EQ(mutexLock(&sets_[0], LockRank::bucketSet), 0);
    EXPECT_TRUE(violations.empty());
    EXPECT_EQ(mutexUnlock(&sets_[0], LockRank::bucketSet), 0);
  }).join();
  EXPECT_EQ(mutexUnlock(&queues_[0], LockRank::queue), 0);
}

TEST_F(LockOrder, ScriptedFailureLeavesTheLockAlone) {
  {
    const FailLock failure(LockRank::bucketSet, LockOp::lock, 2, EDEADLK);
    EXPECT_EQ(mutexLock(&sets_[0], LockRank::bucketSet), 0);
    EXPECT_EQ(mutexUnlock(&sets_[0], LockRank::bucketSet), 0);
    EXPECT_FALSE(failure.fired());
    EXPECT_EQ(mutexLock(&sets_[0], LockRank::bucketSet), EDEADLK);
    EXPECT_TRUE(failure.fired());
    EXPECT_EQ(heldLockCount(), 0);
    EXPECT_TRUE(isFree(sets_[0]));
    EXPECT_EQ(mutexLock(&sets_[0], LockRank::bucketSet), 0);
  }
  const FailLock failure(LockRank::bucketSet, LockOp::unlock, 1, EPERM);
  EXPECT_EQ(mutexUnlock(&sets_[0], LockRank::bucketSet), EPERM);
  EXPECT_TRUE(holdsLock(&sets_[0])) << "a failed release still holds";
  EXPECT_FALSE(isFree(sets_[0]));
  EXPECT_EQ(mutexUnlock(&sets_[0], LockRank::bucketSet), 0);
}

TEST_F(LockOrder, ScriptedFailuresTellTheOperationsApart) {
  {
    const FailLock failure(LockRank::map, LockOp::writeLock, 1, EAGAIN);
    EXPECT_EQ(rwlockRead(&map_, LockRank::map), 0);
    EXPECT_EQ(rwlockUnlock(&map_, LockRank::map), 0);
    EXPECT_EQ(rwlockWrite(&map_, LockRank::map), EAGAIN);
  }
  {
    const FailLock failure(LockRank::map, LockOp::readLock, 1, EAGAIN);
    EXPECT_EQ(rwlockWrite(&map_, LockRank::map), 0);
    EXPECT_EQ(rwlockUnlock(&map_, LockRank::map), 0);
    EXPECT_EQ(rwlockRead(&map_, LockRank::map), EAGAIN);
  }
  {
    const FailLock failure(LockRank::queue, LockOp::init, 1, ENOMEM);
    pthread_mutex_t other;
    EXPECT_EQ(mutexInit(&other, nullptr, LockRank::queue), ENOMEM);
  }
  EXPECT_EQ(heldLockCount(), 0);
}

}  // namespace
}  // namespace nimbra::test
