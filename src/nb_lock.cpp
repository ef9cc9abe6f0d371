// Checked forms of the lock wrappers: rank order, held locks, injected failures.
//
// State: one thread-local list of held locks. Compiled to nothing in release builds.
#include "nb_lock.h"

#if NIMBRA_CHECKS

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace nimbra {

namespace faults {
int (*failLock)(LockRank rank, const void* lock, LockOp op) = nullptr;
}  // namespace faults

namespace {

struct Held {
  LockRank rank;
  const void* lock;
};

thread_local std::vector<Held> heldLocks;

void abortOnViolation(const LockViolation& violation) {
  std::fprintf(stderr, "lock order: taking rank %d (%p) while holding rank %d (%p)\n",
               static_cast<int>(violation.taking), violation.lock, static_cast<int>(violation.held),
               violation.heldLock);
  std::abort();
}

void checkOrder(LockRank rank, const void* lock, Nesting nesting) {
  for (const Held& held : heldLocks) {
    if (held.lock == lock) return;  // relocking is the mutex's own business
    const bool allowed = held.rank < rank || (held.rank == rank && nesting == Nesting::ascending);
    if (!allowed) {
      lockViolationHandler({rank, lock, held.rank, held.lock});
      return;
    }
  }
}

int taken(int result, LockRank rank, const void* lock) {
  if (result == 0) heldLocks.push_back({rank, lock});
  return result;
}

int released(int result, const void* lock) {
  if (result != 0) return result;
  for (size_t i = heldLocks.size(); i-- > 0;) {
    if (heldLocks[i].lock == lock) {
      heldLocks.erase(heldLocks.begin() + static_cast<std::ptrdiff_t>(i));
      break;
    }
  }
  return result;
}

}  // namespace

void (*lockViolationHandler)(const LockViolation& violation) = abortOnViolation;

int injectedFault(LockRank rank, const void* lock, LockOp op) {
  return faults::failLock == nullptr ? 0 : faults::failLock(rank, lock, op);
}

int heldLockCount() { return static_cast<int>(heldLocks.size()); }

bool holdsLock(const void* lock) {
  for (const Held& held : heldLocks) {
    if (held.lock == lock) return true;
  }
  return false;
}

int mutexInit(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes, LockRank rank) {
  if (const int code = injectedFault(rank, mutex, LockOp::init)) return code;
  return pthread_mutex_init(mutex, attributes);
}

int mutexLock(pthread_mutex_t* mutex, LockRank rank, Nesting nesting) {
  if (const int code = injectedFault(rank, mutex, LockOp::lock)) return code;
  checkOrder(rank, mutex, nesting);
  return taken(pthread_mutex_lock(mutex), rank, mutex);
}

int mutexTryLock(pthread_mutex_t* mutex, LockRank rank) {
  if (const int code = injectedFault(rank, mutex, LockOp::tryLock)) return code;
  return taken(pthread_mutex_trylock(mutex), rank, mutex);
}

int mutexUnlock(pthread_mutex_t* mutex, LockRank rank) {
  if (const int code = injectedFault(rank, mutex, LockOp::unlock)) return code;
  return released(pthread_mutex_unlock(mutex), mutex);
}

int rwlockInit(pthread_rwlock_t* lock, LockRank rank) {
  if (const int code = injectedFault(rank, lock, LockOp::init)) return code;
  return initWriterFirst(lock);
}

int rwlockRead(pthread_rwlock_t* lock, LockRank rank) {
  if (const int code = injectedFault(rank, lock, LockOp::readLock)) return code;
  checkOrder(rank, lock, Nesting::single);
  return taken(pthread_rwlock_rdlock(lock), rank, lock);
}

int rwlockWrite(pthread_rwlock_t* lock, LockRank rank) {
  if (const int code = injectedFault(rank, lock, LockOp::writeLock)) return code;
  checkOrder(rank, lock, Nesting::single);
  return taken(pthread_rwlock_wrlock(lock), rank, lock);
}

int rwlockUnlock(pthread_rwlock_t* lock, LockRank rank) {
  if (const int code = injectedFault(rank, lock, LockOp::unlock)) return code;
  return released(pthread_rwlock_unlock(lock), lock);
}

}  // namespace nimbra

#endif
