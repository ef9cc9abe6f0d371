// Every lock of the library: the order in which locks nest, and the wrappers that take them.
//
// The wrappers cost nothing in release builds: they are the pthread calls. Builds with
// NIMBRA_CHECKS check each acquisition against the locks that the thread already holds and let
// tests make any acquisition fail.
#pragma once

#include <pthread.h>

#include <cstdint>

#ifndef NIMBRA_CHECKS
#define NIMBRA_CHECKS 0
#endif

namespace nimbra {

// Outermost first: a thread may take a lock only while all that it holds have a lower rank.
enum class LockRank : int {
  map = 10,
  bucketSet = 20,
  queue = 30,
  anchor = 35,
  node = 40,
  sweepState = 45,
  pinChain = 80,
  pinRecord = 81,
  profileRegistry = 85,
  profile = 86,
};

struct LockRankRow {
  LockRank rank;
  const char* name;
  const char* protects;
  const char* heldBefore;  // what the thread may hold when it takes the lock
};

// The one table of the lock order; docs/locking.md explains it.
inline constexpr LockRankRow kLockRanks[] = {
    {LockRank::map, "LuOffHeapMap::lock (read-write)",
     "the map's queue list and count; writers of entries exclude each other with it", "nothing"},
    {LockRank::bucketSet, "BucketSet::mutex",
     "one stripe of the table: its chains, buckets, size, threshold; the value slot of its entries",
     "the map lock; no other bucket set"},
    {LockRank::queue, "LuOffHeapQueue::mutex",
     "one queue: first, last, counts, bookmarks, and the prev and next links of its entries",
     "the map lock, one bucket set; another queue only inside lockMapAndQueues (ascending)"},
    {LockRank::anchor, "_anchor_mutex", "where the next sweep resumes", "all of the above"},
    {LockRank::node, "overflow_metadata::mutex",
     "owner and depth of one node's reentrant lock; never held across a return",
     "all of the above"},
    {LockRank::sweepState, "_sweep_state_mutex", "the published figures of the sweep",
     "all of the above"},
    {LockRank::pinChain, "PinTracker::lock of a chain's head",
     "one chain of tracked objects; only while pin tracking is on", "all of the above"},
    {LockRank::pinRecord, "PinTracker::lock of a record", "one object's events and balance",
     "its chain's head"},
    {LockRank::profileRegistry, "the mutex of globalTable", "the list of profiles", "nothing"},
    {LockRank::profile, "native_prof::lock", "who times in which slot, and at which position",
     "all of the above but pin tracking; the slot locks are only ever tried"},
};

enum class LockOp {
  init,
  lock,
  tryLock,
  readLock,
  writeLock,
  unlock,
  // Of the nodes' reentrant locks.
  attributesInit,
  attributesType,
  attributesDestroy,
  conditionInit,
  conditionDestroy,
  wait,
  signal,
  destroy,
  yield,
};

// How many locks of one rank the thread may hold at once.
enum class Nesting { single, ascending };

// A read-write lock of which a waiting writer goes before new readers. With the C library's default
// a few threads that hold the map lock for reading in turns, while they wait for a queue, keep
// every writer out for good. No thread takes such a lock twice, which this kind would not allow.
inline int initWriterFirst(pthread_rwlock_t* lock) {
  pthread_rwlockattr_t attributes;
  if (const int code = pthread_rwlockattr_init(&attributes)) return code;
  int code =
      pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
  if (code == 0) code = pthread_rwlock_init(lock, &attributes);
  pthread_rwlockattr_destroy(&attributes);
  return code;
}

#if NIMBRA_CHECKS

namespace faults {
// Tests only. A non-zero answer is returned by the wrapper instead of doing the operation.
extern int (*failLock)(LockRank rank, const void* lock, LockOp op);
}  // namespace faults

// The injected code for an operation, or 0.
int injectedFault(LockRank rank, const void* lock, LockOp op);

struct LockViolation {
  LockRank taking;
  const void* lock;
  LockRank held;
  const void* heldLock;
};

// Called when an acquisition breaks the order. The default prints both ranks and aborts.
extern void (*lockViolationHandler)(const LockViolation& violation);

// Number of locks that the calling thread holds through these wrappers.
int heldLockCount();
// REQUIRES-checks of internal functions: is this very lock held by the calling thread?
bool holdsLock(const void* lock);

int mutexInit(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes, LockRank rank);
int mutexLock(pthread_mutex_t* mutex, LockRank rank, Nesting nesting = Nesting::single);
// A try never waits, so it may break the order; what it gets is held like any other lock.
int mutexTryLock(pthread_mutex_t* mutex, LockRank rank);
int mutexUnlock(pthread_mutex_t* mutex, LockRank rank);
int rwlockInit(pthread_rwlock_t* lock, LockRank rank);
int rwlockRead(pthread_rwlock_t* lock, LockRank rank);
int rwlockWrite(pthread_rwlock_t* lock, LockRank rank);
int rwlockUnlock(pthread_rwlock_t* lock, LockRank rank);

#else

inline int injectedFault(LockRank, const void*, LockOp) { return 0; }
inline int mutexInit(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes, LockRank) {
  return pthread_mutex_init(mutex, attributes);
}
inline int mutexLock(pthread_mutex_t* mutex, LockRank, Nesting = Nesting::single) {
  return pthread_mutex_lock(mutex);
}
inline int mutexTryLock(pthread_mutex_t* mutex, LockRank) { return pthread_mutex_trylock(mutex); }
inline int mutexUnlock(pthread_mutex_t* mutex, LockRank) { return pthread_mutex_unlock(mutex); }
inline int rwlockInit(pthread_rwlock_t* lock, LockRank) { return initWriterFirst(lock); }
inline int rwlockRead(pthread_rwlock_t* lock, LockRank) { return pthread_rwlock_rdlock(lock); }
inline int rwlockWrite(pthread_rwlock_t* lock, LockRank) { return pthread_rwlock_wrlock(lock); }
inline int rwlockUnlock(pthread_rwlock_t* lock, LockRank) { return pthread_rwlock_unlock(lock); }

#endif

// A system call that has no wrapper of its own and that tests can make fail. 0 or its error code.
template <typename Call>
int faultable(LockRank rank, const void* lock, LockOp op, Call call) {
  const int injected = injectedFault(rank, lock, op);
  return injected != 0 ? injected : call();
}

}  // namespace nimbra

// First statement of a function that needs a held lock; compiled out of release builds.
#if NIMBRA_CHECKS
#include <cassert>
#define NB_REQUIRES_HELD(lockPointer) assert(::nimbra::holdsLock(lockPointer))
#else
#define NB_REQUIRES_HELD(lockPointer) ((void)0)
#endif
