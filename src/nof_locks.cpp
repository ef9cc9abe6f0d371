// Reentrant node locks.
//
// State: none beyond the nodes. The inner mutex is held for the few instructions of an operation
// and never across a return; waiting happens on the node's condition alone.
#include "nof_locks.h"

#include <cstdio>

#include "nb_lock.h"
#include "nb_logging.h"
#include "overflow.h"

namespace nimbra {

namespace {

constexpr char kMutexLockText[] = "pthread_mutex_lock() failed";
constexpr char kMutexUnlockText[] = "pthread_mutex_unlock() failed";

long self() { return static_cast<long>(pthread_self()); }

// The result of a system call as success, its failure raised.
bool succeeded(JNIEnv* env, const char* function, const char* text, int code) {
  if (code == 0) return true;
  throw_exception_with_code(env, function, text, code);
  return false;
}

bool lockInner(JNIEnv* env, const char* function, overflow_metadata* node) {
  return succeeded(env, function, kMutexLockText, mutexLock(&node->mutex, LockRank::node));
}

bool unlockInner(JNIEnv* env, const char* function, overflow_metadata* node) {
  return succeeded(env, function, kMutexUnlockText, mutexUnlock(&node->mutex, LockRank::node));
}

template <typename Call>
int nodeCall(overflow_metadata* node, LockOp op, Call call) {
  return faultable(LockRank::node, &node->mutex, op, call);
}

// REQUIRES: the inner mutex.
bool isMine(const overflow_metadata* node) {
  return node->lock_depth != 0 && pthread_equal(node->owner, pthread_self()) != 0;
}

bool isOthers(const overflow_metadata* node) {
  return node->lock_depth != 0 && pthread_equal(node->owner, pthread_self()) == 0;
}

// REQUIRES: the inner mutex, and the lock free or the caller's.
void enter(overflow_metadata* node) {
  if (node->lock_depth == 0) node->owner = pthread_self();
  node->lock_depth++;
}

}  // namespace

bool overflow_metadata_lock_init(JNIEnv* env, overflow_metadata* node) {
  NB_ENTRY(env, "entry thread %ld address %p", self(), static_cast<void*>(node));
  pthread_mutexattr_t attributes;
  const auto attempt = [&](LockOp op, const char* text, auto call) {
    return succeeded(env, "overflow_metadata_lock_init", text, nodeCall(node, op, call));
  };
  if (!attempt(LockOp::attributesInit, "pthread_mutexattr_init() failed",
               [&] { return pthread_mutexattr_init(&attributes); }) ||
      !attempt(LockOp::attributesType, "pthread_mutex_settype failed",
               [&] { return pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK); }) ||
      !succeeded(env, __func__, "pthread_mutex_init failed",
                 mutexInit(&node->mutex, &attributes, LockRank::node)) ||
      !attempt(LockOp::conditionInit, "pthread_cond_init() failed",
               [&] { return pthread_cond_init(&node->cond, nullptr); })) {
    return false;
  }
  node->lock_depth = 0;
  node->owner = pthread_t{};
  if (!attempt(LockOp::attributesDestroy, "pthread_mutexattr_destroy() failed",
               [&] { return pthread_mutexattr_destroy(&attributes); })) {
    return false;
  }
  NB_EXIT(env, "exit thread %ld", self());
  return true;
}

bool overflow_metadata_lock(JNIEnv* env, const char* tag, overflow_metadata* node) {
  if (!lockInner(env, __func__, node)) return false;
  while (isOthers(node)) {
    NB_DEBUG(env, "(%s) lock-miss metadata=%p owner=%ld me=%ld: looping...", tag,
             static_cast<void*>(node), static_cast<long>(node->owner), self());
    const int code =
        nodeCall(node, LockOp::wait, [&] { return pthread_cond_wait(&node->cond, &node->mutex); });
    if (code != 0) {
      mutexUnlock(&node->mutex, LockRank::node);
      throw_exception_with_code(env, __func__, "pthread_cond_wait() failed", code);
      return false;
    }
  }
  enter(node);
  NB_DEBUG(env, "(%s) locked=%p lock_depth=%d", tag, static_cast<void*>(node), node->lock_depth);
  return unlockInner(env, __func__, node);
}

bool overflow_metadata_trylock(JNIEnv* env, const char* tag, overflow_metadata* node) {
  NB_ENTRY(env, "thread %ld, metadata = %p", self(), static_cast<void*>(node));
  NB_DEBUG(env, "trylocking %s (%p)", tag, static_cast<void*>(node));
  // Deliberate: a busy inner mutex is a miss, even when the lock is free. Callers go elsewhere.
  // Pinned by NodeLock.TryMissesWhileTheInnerMutexIsBusy.
  if (mutexTryLock(&node->mutex, LockRank::node) != 0) return false;
  const bool success = !isOthers(node);
  if (success) {
    const bool again = node->lock_depth != 0;
    enter(node);
    if (again) {
      NB_DEBUG(env, "current thread is owner. locked=%p lock_depth=%d", static_cast<void*>(node),
               node->lock_depth);
    }
  }
  if (const int code = mutexUnlock(&node->mutex, LockRank::node)) {
    char text[128];
    std::snprintf(text, sizeof text,
                  "Unlock pthread_mutex_unlock() failed for metadata=%p metadata->mutex=%p",
                  static_cast<void*>(node), static_cast<void*>(&node->mutex));
    throw_exception_with_code(env, __func__, text, code);
    return false;
  }
  NB_DEBUG(env, "trylocking %s (%p) success = %s", tag, static_cast<void*>(node),
           bool_cast(success));
  NB_EXIT(env, "thread %ld, metadata = %p,  return %s", self(), static_cast<void*>(node),
          bool_cast(success));
  return success;
}

bool overflow_metadata_unlock(JNIEnv* env, const char* /*tag*/, overflow_metadata* node) {
  if (!lockInner(env, __func__, node)) return false;
  if (!isMine(node)) {
    const bool isFree = node->lock_depth == 0;
    mutexUnlock(&node->mutex, LockRank::node);
    throw_exception(env, __func__,
                    isFree ? "Error releasing lock by the Nimbra native overflow library. Lock "
                             "already released."
                           : "Error releasing lock by the Nimbra native overflow library. "
                             "Releasing thread is not the owner of the lock.");
    return false;
  }
  node->lock_depth--;
  NB_DEBUG(env, "decrement. locked=%p lock_depth=%d", static_cast<void*>(node), node->lock_depth);
  if (node->lock_depth == 0) {
    const int code =
        nodeCall(node, LockOp::signal, [&] { return pthread_cond_signal(&node->cond); });
    if (code != 0) {
      mutexUnlock(&node->mutex, LockRank::node);
      throw_exception_with_code(env, __func__, "pthread_cond_signal() failed", code);
      return false;
    }
  }
  return unlockInner(env, __func__, node);
}

bool tryBriefly(overflow_metadata* node) {
  if (mutexTryLock(&node->mutex, LockRank::node) != 0) return false;
  if (!isOthers(node)) return true;
  mutexUnlock(&node->mutex, LockRank::node);
  return false;
}

void endBriefly(overflow_metadata* node) { mutexUnlock(&node->mutex, LockRank::node); }

uint32_t overflow_metadata_get_hold_count(JNIEnv* env, overflow_metadata* node) {
  if (!lockInner(env, __func__, node)) return kHoldCountFailed;
  const uint32_t count = isMine(node) ? node->lock_depth : 0;
  return unlockInner(env, __func__, node) ? count : kHoldCountFailed;
}

void assert_unlocked(JNIEnv* env, overflow_metadata* node) {
  NB_ENTRY(env, "thread %ld, metadata = %p", self(), static_cast<void*>(node));
  if (!succeeded(env, __func__, "Error acquiring Overflow Metadata lock in Nimbra library.",
                 mutexLock(&node->mutex, LockRank::node))) {
    return;
  }
  if (node->lock_depth != 0) {
    NB_DEBUG(env, "lock depth = %d, owner = %d", node->lock_depth, static_cast<int>(node->owner));
  }
  if (!succeeded(env, __func__, "Error releasing Overflow Metadata lock in Nimbra library.",
                 mutexUnlock(&node->mutex, LockRank::node))) {
    return;
  }
  NB_EXIT(env, "thread %ld, metadata = %p", self(), static_cast<void*>(node));
}

uint16_t replaceHoldCount(overflow_metadata* node, uint16_t depth) {
  const bool locked = mutexLock(&node->mutex, LockRank::node) == 0;
  const uint16_t before = node->lock_depth;
  node->lock_depth = depth;
  if (locked) mutexUnlock(&node->mutex, LockRank::node);
  return before;
}

}  // namespace nimbra
