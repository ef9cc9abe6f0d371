// The sweep: one cursor over all overflow lists that finds values to move to disk.
//
// The cursor holds the locks of the entry it rests on: its bucket set, its node, and both
// neighbours. All are only tried, so a sweep never waits for an operation; an obstacle makes it go
// on in the next list. One thread sweeps at a time. Only the anchor, where the next sweep resumes,
// and the published figures are shared, each under its own mutex.
#pragma once

#include <jni.h>

#include <cstdint>

#include "nof_locks.h"

namespace nimbra {

struct LuOffHeapValue;

// What cacheiter_lock found.
inline constexpr int32_t STATUS_NULL = 0;            // no node
inline constexpr int32_t STATUS_INVALID = 1;         // all locks held, the node is out of use
inline constexpr int32_t STATUS_LOCKED = 2;          // all locks held
inline constexpr int32_t STATUS_TRYLOCK_FAILED = 3;  // nothing held

inline constexpr int32_t kSweepStateWords = 14;

// Creates the two mutexes; raises and answers false when it cannot.
bool cacheiter_singleton_init(JNIEnv* env);
// Called before a node leaves its list: the next sweep must not resume at it. Takes the anchor's
// mutex.
void cacheiter_freeing_node(JNIEnv* env, overflow_metadata* node);
// Moves the cursor, which must rest on `old`, to `replacement`, and lets `old`'s node lock go.
void cacheiter_replace_metadata(JNIEnv* env, overflow_metadata* old,
                                overflow_metadata* replacement);

// Tries bucket set, node, prev and next; a header's node alone. Holds all or nothing.
bool trylock_node(JNIEnv* env, overflow_metadata* node);
// Lets the same locks go: 1, or 0 at the first node that could not be unlocked.
int32_t unlock_node(JNIEnv* env, overflow_metadata* node);
int32_t cacheiter_lock(JNIEnv* env, overflow_metadata* node);
void cacheiter_advance_iteration_index(JNIEnv* env);
// Puts the cursor on the header of the current list, or of the next that is not busy.
void cacheiter_lock_one_head(JNIEnv* env);
// 1: the cursor rests on a locked, valid entry; 0: the sweep is over, nothing is held.
int32_t cacheiter_advance(JNIEnv* env);
void update_sweep_state(JNIEnv* env);

void cacheiter_init(JNIEnv* env, int64_t onEntryNumItems, int64_t maxNumItems, bool trackStats);
// The next value to move to disk, pinned JNI_OVERFLOW_EVICTED_PIN and locked, or null at the end.
// An entry that was used since the last round is passed over once.
LuOffHeapValue* cacheiter_next_evictable(JNIEnv* env);
void cacheiter_dispose(JNIEnv* env);
void cacheiter_state(JNIEnv* env, int64_t* words);

// The sweep's own state, all of it the sweeping thread's but for the two mutexes and what they
// guard. Internal; tests look at it.
struct CacheIterator {
  int32_t _index;               // the list being swept
  int32_t _initial_list_index;  // where this sweep began; -1 before that is known
  overflow_metadata* _current;  // held, or null
  overflow_metadata* _anchor;   // guarded by _anchor_mutex
  pthread_mutex_t _anchor_mutex;
  pthread_mutex_t _sweep_state_mutex;
  int64_t _max_num_items;
  int64_t _num_items_locked;
  int64_t _on_entry_num_items;
  int32_t _n_loops;
  int64_t _start;  // seconds since the epoch
  bool do_stat_tracking;
  int64_t not_in_mem;
  int64_t reject_lru;
  int64_t invalid_node;
  int64_t trylock_failed;
  int64_t null_node;
  int64_t head_node;
  int64_t lock_attempts;
  int64_t items_in_list;
  int64_t c_state[kSweepStateWords];  // the snapshot; guarded by _sweep_state_mutex
};
extern CacheIterator cacheIterator;

}  // namespace nimbra
