// The overflow node: where an entry's value lives, and the fields of its reentrant lock.
//
// Only the record stands here: map records carry it inline when disk overflow is enabled, so its
// layout is part of theirs.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

namespace nimbra {

struct MapHeader;

//   0     48     88     96         104   112   120             128                  136
//   | cond | mutex | owner | mapHeader | prev | next | chunkPtrOffset | nextChunkPtrOffset | ...
//   ... 136        140          142
//       | chunkSize | lock_depth | flags
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

}  // namespace nimbra
