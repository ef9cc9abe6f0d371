// The overflow node, and its reentrant lock.
//
// A node's lock is logical: a short inner mutex guards the owner and the depth, so the lock may be
// held between calls from Java without any system mutex being held. Its owner takes it again as
// often as it likes (to 65,535). Who needs several nodes waits for the first and only tries the
// others, and lets all go before trying again. The tag of each operation names the call site in its
// debug records.
#pragma once

#include <jni.h>
#include <pthread.h>

#include <cstddef>
#include <cstdint>

namespace nimbra {

struct MapHeader;

//   0     48     88     96         104   112   120             128                  136
//   | cond | mutex | owner | mapHeader | prev | next | chunkPtrOffset | nextChunkPtrOffset | ...
//   ... 136        140          142
//       | chunkSize | lock_depth | flags
//
// Map records carry it inline when disk overflow is enabled, so its layout is part of theirs. All
// fields but the first four are the lock holder's; a link belongs to whoever holds both its ends.
struct overflow_metadata {
  pthread_cond_t cond;         // signalled when lock_depth drops to 0
  pthread_mutex_t mutex;       // error-checking; guards owner and lock_depth
  pthread_t owner;             // meaningful only while lock_depth is non-zero
  MapHeader* mapHeader;        // the table of the entry's map; null before initialisation
  overflow_metadata* prev;     // null when not linked
  overflow_metadata* next;     // null when not linked
  int64_t chunkPtrOffset;      // disk position of the value's first chunk
  int64_t nextChunkPtrOffset;  // disk position of the following chunk
  int32_t chunkSize;           // bytes of the disk chunk
  uint16_t lock_depth;         // 0: free
  uint16_t flags;
};

#if defined(__x86_64__)
static_assert(sizeof(overflow_metadata) == 144);
static_assert(offsetof(overflow_metadata, owner) == 88);
static_assert(offsetof(overflow_metadata, mapHeader) == 96);
static_assert(offsetof(overflow_metadata, chunkPtrOffset) == 120);
static_assert(offsetof(overflow_metadata, flags) == 142);
#endif

// Each raises the library's exception, with the system's code, when a system call fails, and then
// returns false.

// Makes the lock, free.
bool overflow_metadata_lock_init(JNIEnv* env, overflow_metadata* node);
// Waits while another thread holds it.
bool overflow_metadata_lock(JNIEnv* env, const char* tag, overflow_metadata* node);
// Never waits: false also while another thread is merely inside one of these operations.
bool overflow_metadata_trylock(JNIEnv* env, const char* tag, overflow_metadata* node);
// Releases one level. Raises when the lock is free or another thread's.
bool overflow_metadata_unlock(JNIEnv* env, const char* tag, overflow_metadata* node);
// Holds a free lock, or one that the caller owns, for a few instructions without entering it: half
// the cost of a try and an unlock. Never waits. Nothing may be called in between.
bool tryBriefly(overflow_metadata* node);
void endBriefly(overflow_metadata* node);
// The calling thread's depth, 0 when it does not hold the lock.
inline constexpr uint32_t kHoldCountFailed = 0xFFFFFFFFU;
uint32_t overflow_metadata_get_hold_count(JNIEnv* env, overflow_metadata* node);
// Reports a lock that is held, at debug level.
void assert_unlocked(JNIEnv* env, overflow_metadata* node);

// Replaces the depth of a lock that the calling thread owns; returns the depth before.
uint16_t replaceHoldCount(overflow_metadata* node, uint16_t depth);

}  // namespace nimbra
