// The accounting allocator: every byte that the library keeps outside the Java heap.
//
// Counters change only by compare-and-swap; no lock is taken on the allocation path. The limits are
// read without a lock, so two threads may pass a check together: the re-check after the allocation
// then refuses whichever reads the size last.
#pragma once

#include <jni.h>

#include <cstdint>

#include "nb_atomic.h"

namespace nimbra {

// Limits, set at start-up and by setCurrentMaxOffHeapSize (bytes).
extern Relaxed<int64_t> maxOffHeapSize;
extern Relaxed<uint64_t> _hardCapLimit;
extern Relaxed<bool> _isDiskOverflowEnabled;

// Java's callback at the hard cap, cached when disk overflow starts and kept from then on, whatever
// becomes of the switch. Without it the maximum alone is checked.
extern Relaxed<jclass> _overflowClass;
extern Relaxed<jmethodID> _moreMainMemoryNeededID;

// What every thread changes, in a cache line of its own: settings in the same line would have to be
// fetched from another processor at every read.
struct alignas(64) AllocationCounters {
  int64_t blocks;
  int64_t size;
  int64_t internalMetadata;
};
extern AllocationCounters allocationCounters;
// Live blocks; always kept.
inline constexpr int64_t& allocatingOffHeapBlocks = allocationCounters.blocks;
// Usable bytes of live blocks; kept only while trackReqSize_Internal is on.
inline constexpr int64_t& allocatingOffHeapSize = allocationCounters.size;
// Bytes of bookkeeping: table headers, buckets, queues, iterator buffers.
inline constexpr int64_t& allocatingInternalMetadataSize = allocationCounters.internalMetadata;
extern Relaxed<bool> trackReqSize_Internal;
extern Relaxed<uint64_t> jemallocPageSize;   // 0 until first asked for
extern Relaxed<uint64_t> jemallocChunkSize;  // 0 until first asked for

// A block of `size` bytes, or null. A non-zero `unchecked` skips every size check. `type` names
// what is allocated, for traces; it may be null. Refused by the limits: an exception is pending.
// Refused by the allocator underneath: none is. With the callback cached, an allocation that comes
// near the limits calls Java first, inside whatever locks the caller holds.
void* malloc_nb(JNIEnv* env, uint64_t size, uint8_t unchecked, const char* type);
void* malloc_nb(JNIEnv* env, uint64_t size, const char* type);
// Returns a block. `size` is the caller's idea of it, for traces only.
void free_nb(JNIEnv* env, void* block, uint64_t size);
// The same where `size` is certainly the block's requested or usable size, which saves looking it
// up.
void freeSized(JNIEnv* env, void* block, uint64_t size);
// Older form of free_nb that measures the block itself.
void freeToOffHeap_deprecated(JNIEnv* env, void* block, int32_t typeCode);
// Adjusts the counters: flag 1 for an allocation, anything else for a release. Without a block,
// `size` is counted instead of the usable size. Returns the new number of blocks.
int64_t updateUsage(JNIEnv* env, int32_t flag, uint64_t size, const void* block);
// Bytes in use: the allocator's own figure, or our byte counter while internal counting is on.
int64_t getCurrentSize(JNIEnv* env);
int64_t getCurrentInternalMetadataSize(JNIEnv* env);
// What a structure of ours holds, by its usable size, so that making and freeing balance to the
// byte.
inline void addMetadata(uint64_t bytes) {
  lockIncrement(&allocatingInternalMetadataSize, static_cast<int64_t>(bytes));
}
inline void subtractMetadata(uint64_t bytes) {
  lockDecrement(&allocatingInternalMetadataSize, static_cast<int64_t>(bytes));
}
void initJemallocSizes();

// Rounded up to whole pages when above one page and at most one chunk; otherwise unchanged.
uint64_t alignSize(uint64_t size);
// The block's usable size (the name is shared on purpose; nothing is rounded).
uint64_t alignSize(const void* block);
uint64_t getUsableSize(const void* block);
// The same for a block whose requested size the caller knows; mostly without a look at the block.
uint64_t usableSizeOfRequest(const void* block, uint64_t requested);

// The allocator's statistics report as a new Java string; null with or without an exception when
// memory for it cannot be had.
jstring jemallocStatistics(JNIEnv* env);

#ifndef NIMBRA_CHECKS
#define NIMBRA_CHECKS 0
#endif
#if NIMBRA_CHECKS
namespace faults {
// Tests only. Called at the start of every malloc_nb; true: the allocator underneath answers null.
extern bool (*refuseAllocation)(uint64_t size, const char* type);
}  // namespace faults
#endif

}  // namespace nimbra
