// What the files of the entry map share and nobody else needs.
#pragma once

#include <cstdint>

#include "nb_alloc.h"
#include "nb_logging.h"
#include "nb_map.h"
#include "nb_prof.h"

namespace nimbra {

inline constexpr char kQueueLockText[] =
    "Error acquiring internal queue lock in Nimbra library. Queue=%s";
inline constexpr char kQueueLockMessage[] =
    "Error acquiring internal queue lock in Nimbra library. Queue=Entry Revision Queue";

// A reason that Java passed in, as pins and unpins take it.
inline uint32_t javaReason(jint reason) {
  return static_cast<uint32_t>(reason) | JNI_CONVERT_FROM_JAVA_PIN;
}

// Words that a revision query writes for one entry.
inline constexpr int64_t kQueryWords = 9;

// The profile of revision queries: the entry point starts the run, the query goes on with it.
extern ProfileSlot qnp;
inline constexpr int32_t kQueryPositions = 500;
inline constexpr char kQueryProfile[] = "queryRevision";
inline constexpr const char* kQueryLabels[] = {"getArrayElems", "wrlockMap", "growBmkLst",
                                               "unlockMap",     "rdlockMap", "mainLoop",
                                               "buildRet",      "unlkAndRel"};

// Takes a queue of a map whose lower queues the thread holds already.
inline int lockQueueAscending(LuOffHeapQueue* queue) {
  return mutexLock(&queue->mutex, LockRank::queue, Nesting::ascending);
}

// The result of a release that failed or of a record of no known kind.
inline constexpr uint32_t kNoCount = 0xFFFFFFFFU;

// Asks for the neighbours in the queue that an entry is about to leave. Their addresses are read
// without the queue's mutex: a stale one is a useless hint, and nothing else. The thread sanitizer
// cannot know that, so its build does without.
inline void prefetchNeighbours([[maybe_unused]] const LuQueueEntry* entry) {
#ifndef __SANITIZE_THREAD__
  prefetch(__atomic_load_n(&entry->prev, __ATOMIC_RELAXED));
  prefetch(__atomic_load_n(&entry->next, __ATOMIC_RELAXED));
#endif
}

inline uint64_t usableSizeOf(const void* block) { return alignSize(block); }

// The record's size under the switch as it stands; the switch must not change while values exist.
inline uint64_t valueRecordSize() {
  return _isDiskOverflowEnabled ? sizeof(LuOffHeapOverflowValue) : sizeof(LuOffHeapValue);
}

}  // namespace nimbra
