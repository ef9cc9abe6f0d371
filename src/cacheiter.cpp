// The sweep over the overflow lists.
//
// State: the one cursor. Its fields belong to the sweeping thread, but for the anchor and the
// published figures. Lock order: anchor mutex; then bucket set, node, prev and next, all tried.
#include "cacheiter.h"

#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "nb_hashtable.h"
#include "nb_lock.h"
#include "nb_logging.h"
#include "overflow.h"

namespace nimbra {

CacheIterator cacheIterator;

namespace {

CacheIterator& it = cacheIterator;

constexpr char kInvalidStateText[] = "Current native overflow state is invalid.";
constexpr char kUnlockFailedText[] = "Error releasing Native Overflow lock in Nimbra library.";
constexpr char kAnchorLockText[] = "Error acquiring NOF Anchor Lock lock in Nimbra library.";

BucketSet* setOf(overflow_metadata* node) {
  return getBucketSet(node->mapHeader, static_cast<uint32_t>(valueOf(node)->hashCode));
}

// Raises again, in words that name the node, what a missed try has left pending.
void raiseMiss(JNIEnv* env, const char* format, const overflow_metadata* node) {
  if (!env->ExceptionCheck()) return;
  env->ExceptionClear();
  char text[128];
  std::snprintf(text, sizeof text, format, static_cast<const void*>(node));
  throw_exception(env, "trylock_node", text);
}

void traceNode(JNIEnv* env, const char* function, const char* label, overflow_metadata* node) {
  if (!logInfo.debug) return;
  char* text = to_string(env, label, node);
  debug(env, function, "%s", text);
  release_string(env, text);
}

// Every field of the cursor by name.
void traceState(JNIEnv* env, const char* label) {
  if (!logInfo.debug && !logInfo.entryExit) return;
  char text[768];
  std::snprintf(
      text, sizeof text,
      "%s: _index=%d _initial_list_index=%d _current=%p _anchor=%p _max_num_items=%lld "
      "_num_items_locked=%lld _on_entry_num_items=%lld _n_loops=%d _start=%lld "
      "do_stat_tracking=%s not_in_mem=%lld reject_lru=%lld invalid_node=%lld trylock_failed=%lld "
      "null_node=%lld head_node=%lld lock_attempts=%lld items_in_list=%lld",
      label, it._index, it._initial_list_index, static_cast<void*>(it._current),
      static_cast<void*>(__atomic_load_n(&it._anchor, __ATOMIC_RELAXED)),
      static_cast<long long>(it._max_num_items), static_cast<long long>(it._num_items_locked),
      static_cast<long long>(it._on_entry_num_items), it._n_loops,
      static_cast<long long>(it._start), bool_cast(it.do_stat_tracking),
      static_cast<long long>(it.not_in_mem), static_cast<long long>(it.reject_lru),
      static_cast<long long>(it.invalid_node), static_cast<long long>(it.trylock_failed),
      static_cast<long long>(it.null_node), static_cast<long long>(it.head_node),
      static_cast<long long>(it.lock_attempts), static_cast<long long>(it.items_in_list));
  if (logInfo.debug) {
    debug(env, "cacheiter_to_string", "%s", text);
  } else {
    entry(env, "cacheiter_to_string", "%s", text);
  }
}

bool initErrorCheckingMutex(JNIEnv* env, pthread_mutex_t* mutex, LockRank rank) {
  pthread_mutexattr_t attributes;
  const auto attempt = [&](LockOp op, const char* text, auto call) {
    const int code = faultable(rank, mutex, op, call);
    if (code != 0) throw_exception_with_code(env, "cacheiter_singleton_init", text, code);
    return code == 0;
  };
  if (!attempt(LockOp::attributesInit, "pthread_mutexattr_init() failed",
               [&] { return pthread_mutexattr_init(&attributes); }) ||
      !attempt(LockOp::attributesType, "pthread_mutex_settype failed",
               [&] { return pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK); })) {
    return false;
  }
  const int code = mutexInit(mutex, &attributes, rank);
  pthread_mutexattr_destroy(&attributes);
  if (code == 0) return true;
  throw_exception_with_code(env, "cacheiter_singleton_init", "pthread_mutex_init failed", code);
  return false;
}

int lockAnchor() { return mutexLock(&it._anchor_mutex, LockRank::anchor); }
int unlockAnchor() { return mutexUnlock(&it._anchor_mutex, LockRank::anchor); }

void setAnchor(overflow_metadata* node) { __atomic_store_n(&it._anchor, node, __ATOMIC_RELEASE); }

bool isHeldByMe(JNIEnv* env, overflow_metadata* node) {
  const uint32_t held = overflow_metadata_get_hold_count(env, node);
  return held != 0 && held != kHoldCountFailed;
}

}  // namespace

bool cacheiter_singleton_init(JNIEnv* env) {
  return initErrorCheckingMutex(env, &it._anchor_mutex, LockRank::anchor) &&
         initErrorCheckingMutex(env, &it._sweep_state_mutex, LockRank::sweepState);
}

void cacheiter_freeing_node(JNIEnv* env, overflow_metadata* node) {
  // A node becomes the anchor only in the hands of a sweep that holds its lock, and whoever takes a
  // node out of its list holds that lock when he asks for the last time. So only the anchor itself
  // needs the mutex, which then waits for a sweep that is about to resume there.
  if (__atomic_load_n(&it._anchor, __ATOMIC_ACQUIRE) != node) return;
  if (const int code = lockAnchor()) {
    throw_exception_with_code(env, __func__, "Failed to lock anchor mutex.", code);
    return;
  }
  if (it._anchor == node) {
    NB_DEBUG(env, "Node being freed is the anchor %p", static_cast<void*>(node));
    setAnchor(nullptr);
  }
  if (const int code = unlockAnchor()) {
    throw_exception_with_code(env, __func__, "Failed to unlock anchor mutex.", code);
  }
}

void cacheiter_replace_metadata(JNIEnv* env, overflow_metadata* old,
                                overflow_metadata* replacement) {
  if (it._current != old) {
    std::fprintf(stderr, "cacheiter_replace_metadata: _current == old_metadata\n");
    std::abort();
  }
  overflow_metadata_unlock(env, __func__, old);
  it._current = replacement;
  if (const int code = lockAnchor()) {
    throw_exception_with_code(env, __func__, "Failed to lock anchor mutex.", code);
    return;
  }
  if (it._anchor == old) setAnchor(nullptr);
  if (const int code = unlockAnchor()) {
    throw_exception_with_code(env, __func__, "Failed to unlock anchor mutex.", code);
  }
}

// ---- The locks of one node -----------------------------------------------------------------

bool trylock_node(JNIEnv* env, overflow_metadata* node) {
  if (is_header_node(env, node)) {
    if (overflow_metadata_trylock(env, "trylock_node", node)) return true;
    raiseMiss(env, "Caught exception when trylock headernode metadata=%p", node);
    return false;
  }
  BucketSet* set = setOf(node);
  if (trylockBucketSet(set) != 0) return false;
  if (!overflow_metadata_trylock(env, "trylock_node", node)) {
    unlockBucketSet(set);
    raiseMiss(env, "Caught exception when trylock metadata=%p", node);
    NB_WARNING(env, "trylock_node failed: metadata locked");
    return false;
  }
  overflow_metadata* prev = node->prev;
  overflow_metadata* next = node->next;
  if (!overflow_metadata_trylock(env, "trylock prev", prev)) {
    overflow_metadata_unlock(env, "trylock prev fail", node);
    unlockBucketSet(set);
    raiseMiss(env, "Caught exception when trylock metadata->prev=%p", prev);
    NB_WARNING(env, "trylock_node failed: prev locked");
    return false;
  }
  if (overflow_metadata_trylock(env, "trylock next", next)) return true;
  overflow_metadata_unlock(env, "trylock next fail", prev);
  overflow_metadata_unlock(env, "trylock prev fail", node);
  unlockBucketSet(set);
  raiseMiss(env, "Caught exception when trylock metadata->next=%p", next);
  NB_WARNING(env, "trylock_node failed: next locked");
  return false;
}

int32_t unlock_node(JNIEnv* env, overflow_metadata* node) {
  NB_DEBUG(env, "metadata=%p pthread_self=%lu", static_cast<void*>(node),
           static_cast<unsigned long>(pthread_self()));
  if (is_header_node(env, node)) {
    return overflow_metadata_unlock(env, "unlock_node node", node) ? 1 : 0;
  }
  // Read while the node is held: afterwards the record may be freed.
  BucketSet* set = setOf(node);
  const int32_t hashCode = valueOf(node)->hashCode;
  if (!overflow_metadata_unlock(env, "unlock_node next", node->next) ||
      !overflow_metadata_unlock(env, "unlock_node prev", node->prev) ||
      !overflow_metadata_unlock(env, "unlock_node node", node)) {
    return 0;
  }
  NB_DEBUG(env, "unlocking bucket set at %p, hashcode %x", static_cast<void*>(set),
           static_cast<unsigned>(hashCode));
  unlockBucketSet(set);
  return 1;
}

int32_t cacheiter_lock(JNIEnv* env, overflow_metadata* node) {
  traceNode(env, __func__, "locking: ", node);
  if (node == nullptr) {
    NB_DEBUG(env, "metadata == NULL, cannot lock");
    return STATUS_NULL;
  }
  if (!trylock_node(env, node)) return STATUS_TRYLOCK_FAILED;
  if (isFlagSet(is_invalid, node)) {
    traceNode(env, __func__, "node locked but INVALID", node);
    return STATUS_INVALID;
  }
  traceNode(env, __func__, "acquired lock", node);
  return STATUS_LOCKED;
}

// ---- The cursor ----------------------------------------------------------------------------

void cacheiter_advance_iteration_index(JNIEnv* env) {
  if (it._initial_list_index == -1) {
    it._initial_list_index = it._index;
  } else {
    it._index = (it._index + 1) % kOverflowLists;
    if (it._index == it._initial_list_index) {
      it._n_loops++;
      NB_DEBUG(env, "Looped iterator. Reset roots.");
    }
  }
  it.head_node++;
  NB_DEBUG(env, "New index. _index=%d items_in_list=%lu", it._index,
           static_cast<unsigned long>(it.items_in_list));
  it.items_in_list = 0;
  NB_DEBUG(env, "Advanced to index=%d initialIndex=%d Loop=%d", it._index, it._initial_list_index,
           it._n_loops);
}

namespace {

// REQUIRES: a header that has just been locked is the cursor.
void checkHead(JNIEnv* env) {
  const char* fault = nullptr;
  if (it._current == nullptr) {
    fault = "_current is null";
  } else if (overflow_metadata_get_hold_count(env, it._current) != 1) {
    fault = "_current hold_count != 1";
  } else if (isFlagSet(is_invalid, it._current)) {
    fault = "_current is invalid";
  }
  if (fault == nullptr) return;
  NB_DEBUG_AS(env, "cacheiter_lock_one_head", "%s", fault);
  throw_exception(env, "cacheiter_lock_one_head", kInvalidStateText);
}

}  // namespace

void cacheiter_lock_one_head(JNIEnv* env) {
  if (it._current != nullptr) {
    NB_DEBUG(env, "anchor must be null");
    throw_exception(env, __func__, kInvalidStateText);
    return;
  }
  for (;;) {
    overflow_metadata* head = _headerNodes == nullptr ? nullptr : &_headerNodes[it._index];
    switch (cacheiter_lock(env, head)) {
      case STATUS_LOCKED:
        it._current = head;
        checkHead(env);
        return;
      case STATUS_INVALID:
        unlock_node(env, head);
        NB_INFO(env, "Skipped an index bc of a locked headnode was INVALID. head=%p",
                static_cast<void*>(head));
        return;
      case STATUS_NULL: throw_exception(env, __func__, "Unexpected NULL head node"); return;
      default:
        NB_DEBUG(env, "Failed to trylock head-node, advancing iteration index");
        NB_INFO(env, "Skipped an index bc of a failed trylock for a head node. head=%p",
                static_cast<void*>(head));
        cacheiter_advance_iteration_index(env);
    }
  }
}

namespace {

constexpr char kAdvance[] = "cacheiter_advance";

// What the cursor does about a candidate that is no entry to rest on.
struct Obstacle {
  const char* record;         // debug
  int64_t* counter;           // null: not counted here
  bool holdsCandidate;        // locked, to be let go first
  const char* unlockWarning;  // when that fails
  const char* headWarning;    // when no header of another list can be had
};

Obstacle obstacleOf(int32_t status) {
  switch (status) {
    case STATUS_LOCKED:
      return {"RESULT: locked a header; advance to next header list", nullptr, true,
              "Failed advance: advance_cand was a headnode so moving to next list; however, failed "
              "to unlock advance_cand",
              "Failed advance: advance_cand was a headnode so moving to next list; however, caught "
              "exception while getting headnode of next list"};
    case STATUS_INVALID:
      return {"RESULT: locked invalid next at %p; advance to next header list", &it.invalid_node,
              true, "Failed advance: advance_cand was STATUS_INVALID, then failed to unlock it",
              "Failed advance: advance_cand was STATUS_INVALID, then failed to get a lock on any "
              "headnode"};
    case STATUS_NULL:
      return {"RESULT: null node; advanced to next header list", &it.null_node, false, nullptr,
              "Failed advance: advance_cand was STATUS_NULL, then failed to get a lock an any "
              "headnode"};
    default:
      return {"RESULT: trylock failed; advance to next header list", &it.trylock_failed, false,
              nullptr,
              "Failed advance: advance_cand trylock failed, then failed to get a lock on any "
              "headnode"};
  }
}

// Gives the rest of the list up and puts the cursor on the header of another. False: the sweep is
// over.
bool moveToNextList(JNIEnv* env, int32_t status, overflow_metadata* candidate) {
  const Obstacle obstacle = obstacleOf(status);
  if (status == STATUS_INVALID) {
    NB_DEBUG_AS(env, kAdvance, "RESULT: locked invalid next at %p; advance to next header list",
                static_cast<void*>(candidate));
  } else {
    NB_DEBUG_AS(env, kAdvance, "%s", obstacle.record);
  }
  if (obstacle.counter != nullptr) ++*obstacle.counter;
  if (obstacle.holdsCandidate && unlock_node(env, candidate) == 0) {
    NB_WARNING(env, "%s", obstacle.unlockWarning);
    return false;
  }
  cacheiter_advance_iteration_index(env);
  cacheiter_lock_one_head(env);
  if (env->ExceptionCheck()) {
    const jthrowable raised = env->ExceptionOccurred();
    env->ExceptionClear();
    NB_WARNING(env, "%s", obstacle.headWarning);
    env->Throw(raised);
    env->DeleteLocalRef(raised);
    return false;
  }
  return it._current != nullptr;
}

// The sweep has seen as many entries as it may: lets the cursor go.
void endAtLimit(JNIEnv* env) {
  NB_DEBUG_AS(env, kAdvance, "now max_loop constrained");
  if (it._current != nullptr && isHeldByMe(env, it._current)) {
    NB_DEBUG_AS(env, kAdvance, "unlocking current %p", static_cast<void*>(it._current));
    if (unlock_node(env, it._current) == 0) {
      NB_WARNING(env, "Failed advance: max reached; however, could not unlock _current.");
      return;
    }
  }
  it._current = nullptr;
}

int32_t advance(JNIEnv* env) {
  overflow_metadata* onEntry = it._current;
  // A whole round of empty or busy lists ends the sweep: it must not spin.
  for (int32_t changes = 0; it._current != nullptr; changes++) {
    if (it._num_items_locked == it._max_num_items) {
      endAtLimit(env);
      return 0;
    }
    overflow_metadata* candidate = it._current->next;
    if (candidate == onEntry) {
      NB_DEBUG_AS(env, kAdvance, "Edge case hit: on_entry_node=%p advance_candidate=%p",
                  static_cast<void*>(onEntry), static_cast<void*>(candidate));
    }
    // The candidate is locked before the current node is let go, so the cursor never loses its
    // list.
    const int32_t status = cacheiter_lock(env, candidate);
    it.lock_attempts++;
    if (unlock_node(env, it._current) == 0) {
      NB_WARNING(env, "Failed advance: could not unlock _current.");
      return 0;
    }
    it._current = nullptr;
    if (status == STATUS_LOCKED && !is_header_node(env, candidate)) {
      it.items_in_list++;
      it._num_items_locked++;
      it._current = candidate;
      return 1;
    }
    if (!moveToNextList(env, status, candidate)) return 0;
    if (changes >= kOverflowLists) {
      unlock_node(env, it._current);
      it._current = nullptr;
    }
  }
  return 0;
}

}  // namespace

int32_t cacheiter_advance(JNIEnv* env) {
  if (logInfo.entryExit) traceState(env, "cacheiter");
  const int32_t result = advance(env);
  if (it.do_stat_tracking) update_sweep_state(env);
  return result;
}

LuOffHeapValue* cacheiter_next_evictable(JNIEnv* env) {
  for (;;) {
    if (cacheiter_advance(env) < 1) {
      NB_DEBUG(env, "Could not advance, returning 'address' 0");
      return nullptr;
    }
    overflow_metadata* node = it._current;
    NB_DEBUG(env, "Evaluating node %p as next evictable", static_cast<void*>(node));
    if (isFlagSet(recently_used, node)) {
      NB_DEBUG(env, "node %p is RECENTLY_USED, continuing ...", static_cast<void*>(node));
      clearFlag(recently_used, node);
      it.reject_lru++;
      continue;
    }
    if (!isFlagSet(in_memory, node)) {
      NB_DEBUG(env, "node %p is not IN_MEMORY (flags=%p), continuing ....",
               static_cast<void*>(node), reinterpret_cast<void*>(uintptr_t{node->flags}));
      it.not_in_mem++;
      clearFlag(recently_used, node);
      continue;
    }
    if (isFlagSet(PREVENT_EVICT, node)) {
      NB_DEBUG(env, "node %p is marked PREVENT_EVICT (flags=%p), continuing ....",
               static_cast<void*>(node), reinterpret_cast<void*>(uintptr_t{node->flags}));
      continue;
    }
    LuOffHeapValue* value = valueOf(node);
    NB_EVENT(env, "Next IN_MEMORY evictable LuValue=%p metadata=%p", static_cast<void*>(value),
             static_cast<void*>(node));
    pin(env, static_cast<Pinnable*>(value), JNI_OVERFLOW_EVICTED_PIN);
    return value;
  }
}

// ---- Begin, end, and figures ---------------------------------------------------------------

namespace {

constexpr char kInit[] = "cacheiter_init";

// Lets go what an invalid anchor's own locks are; its neighbours stay locked, as they are.
void releaseInvalidAnchor(JNIEnv* env, overflow_metadata* node) {
  BucketSet* set = setOf(node);
  const int32_t hashCode = valueOf(node)->hashCode;
  NB_INFO(env, "_current is now invalid, releasing bucket-set lock at %p, hashCode = %x",
          static_cast<void*>(set), static_cast<unsigned>(hashCode));
  if (!overflow_metadata_unlock(env, kInit, node) || unlockBucketSet(set) != 0) {
    if (env->ExceptionCheck()) env->ExceptionClear();
    throw_exception(env, kInit, kUnlockFailedText);
  }
}

void resetCounters() {
  it.not_in_mem = 0;
  it.reject_lru = 0;
  it.invalid_node = 0;
  it.trylock_failed = 0;
  it.null_node = 0;
  it.head_node = 0;
  it.lock_attempts = 0;
  it.items_in_list = 0;
  it._start = std::time(nullptr);
  it._n_loops = 0;
  it._num_items_locked = 0;
  it._initial_list_index = -1;
}

// Begins at the first list whose header is not busy.
void beginAtHead(JNIEnv* env) {
  NB_DEBUG_AS(env, kInit, "could not lock initial anchor; will lock head node instead");
  cacheiter_advance_iteration_index(env);
  it._current = nullptr;
  cacheiter_lock_one_head(env);
  if (!env->ExceptionCheck()) cacheiter_advance(env);
}

}  // namespace

void cacheiter_init(JNIEnv* env, int64_t onEntryNumItems, int64_t maxNumItems, bool trackStats) {
  NB_ENTRY(env, "jmax_num_items = %ld", static_cast<long>(maxNumItems));
  resetCounters();
  if (onEntryNumItems < 1) {
    NB_DEBUG(env, "on_entry_num_items must be greater than zero");
    throw_exception(env, __func__, "on_entry_num_items < 1",
                    "com/velt/rz/corvane/io/offheap/overflow/NotEnoughResourcesException");
    return;
  }
  if (maxNumItems < 1) {
    NB_DEBUG(env, "max_num_items must be greater than zero");
    throw_exception(env, __func__,
                    "Exception during initialization of native overflow in the Nimbra library.");
    return;
  }
  if (lockAnchor() != 0) {
    NB_DEBUG(env, kAcquireLockText, "Native Overflow");
    throw_exception(env, __func__, kAnchorLockText);
    return;
  }
  __atomic_store_n(&it._on_entry_num_items, onEntryNumItems, __ATOMIC_RELAXED);
  it._max_num_items = maxNumItems;
  NB_DEBUG(env, "Acquired anchor lock");
  it._current = it._anchor;
  NB_DEBUG(env, "Unlocking anchor, set _current to %p", static_cast<void*>(it._current));
  it.do_stat_tracking = trackStats;
  if (trackStats) update_sweep_state(env);
  traceState(env, "cacheiter");
  // The mutex is kept until the anchor was tried: whoever frees it has to pass this mutex.
  const int32_t status = cacheiter_lock(env, it._current);
  unlockAnchor();
  if (status == STATUS_LOCKED) {
    traceNode(env, __func__, "was able to lock previous state", it._current);
    it._initial_list_index = it._index;
  } else {
    if (status == STATUS_INVALID) releaseInvalidAnchor(env, it._current);
    if (!env->ExceptionCheck()) beginAtHead(env);
    if (env->ExceptionCheck()) return;
  }
  traceState(env, "cacheiter_init on exit");
  it._start = std::time(nullptr);
  NB_EXIT(env, "iteration points at metadata node %p", static_cast<void*>(it._current));
}

void cacheiter_dispose(JNIEnv* env) {
  NB_DEBUG(env, "Acquiring anchor mutex");
  if (const int code = lockAnchor()) {
    throw_exception_with_code(
        env, __func__, "Failure during dispose of CacheIter. Could not lock anchor mutex.", code);
    return;
  }
  setAnchor(it._current);
  if (it._anchor != nullptr) {
    NB_DEBUG(env, "unlocking anchor at %p", static_cast<void*>(it._anchor));
    // Deliberate: a failed unlock leaves the anchor's mutex locked. The contract with Java says so.
    // Pinned by SweepDispose.FailedUnlockLeavesTheAnchorMutexLocked.
    if (unlock_node(env, it._anchor) == 0) return;
  } else {
    NB_DEBUG(env, "_anchor is null; no-op");
  }
  NB_DEBUG(env, "at end of dispose; _anchor = %p", static_cast<void*>(it._anchor));
  if (const int code = unlockAnchor()) {
    throw_exception_with_code(env, __func__, "Failed to unlock anchor mutex.", code);
  }
}

void update_sweep_state(JNIEnv* /*env*/) {
  const int64_t now = std::time(nullptr);
  const bool locked = mutexLock(&it._sweep_state_mutex, LockRank::sweepState) == 0;
  const int64_t words[kSweepStateWords] = {
      0,
      it._num_items_locked,
      it.not_in_mem,
      it.reject_lru,
      it.invalid_node,
      it.trylock_failed,
      it.null_node,
      it.head_node,
      it.lock_attempts,
      now - it._start,
      it._n_loops,
      0,  // skipped small nodes
      0,  // new lassos
      0,  // full lassos
  };
  for (int32_t i = 1; i < kSweepStateWords; i++) it.c_state[i] = words[i];
  if (locked) mutexUnlock(&it._sweep_state_mutex, LockRank::sweepState);
}

void cacheiter_state(JNIEnv* /*env*/, int64_t* words) {
  const bool locked = mutexLock(&it._sweep_state_mutex, LockRank::sweepState) == 0;
  for (int32_t i = 1; i < kSweepStateWords; i++) words[i] = it.c_state[i];
  if (locked) mutexUnlock(&it._sweep_state_mutex, LockRank::sweepState);
  words[0] = __atomic_load_n(&it._on_entry_num_items, __ATOMIC_RELAXED);
}

}  // namespace nimbra
