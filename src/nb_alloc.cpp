// Accounting and limits on top of the adapter.
//
// State: the counters and limits declared in the header. No locks: counters change by
// compare-and-swap, limits are read as they stand at that moment.
#include "nb_alloc.h"

#include <cstring>
#include <memory>
#include <new>

#include "nb_alloc_backend.h"
#include "nb_jni.h"
#include "nb_logging.h"

namespace nimbra {

Relaxed<int64_t> maxOffHeapSize;
Relaxed<uint64_t> _hardCapLimit;
Relaxed<bool> _isDiskOverflowEnabled;
Relaxed<jclass> _overflowClass;
Relaxed<jmethodID> _moreMainMemoryNeededID;
AllocationCounters allocationCounters;
Relaxed<bool> trackReqSize_Internal;
Relaxed<uint64_t> jemallocPageSize;
Relaxed<uint64_t> jemallocChunkSize;

#if NIMBRA_CHECKS
namespace faults {
bool (*refuseAllocation)(uint64_t size, const char* type) = nullptr;
}  // namespace faults
#endif

namespace {

constexpr char kRefusedText[] =
    "Allocation by the Nimbra library failed. All available memory is used.";

void refuse(JNIEnv* env, const char* exceptionClass) {
  NB_TRACE_AS(error, error, env, "malloc_nb", "%s", kOutOfMemoryKey);
  throw_exception(env, "malloc_nb", kRefusedText, exceptionClass);
}

// The plain check of the maximum, before the allocator is asked.
bool passesMaximum(JNIEnv* env, uint64_t size, int64_t inUse) {
  NB_DEBUG_AS(env, "malloc_nb", "allocating size=%ld currentAllocatedSize=%ld maxOffHeapSize=%ld",
              static_cast<long>(size), static_cast<long>(inUse),
              static_cast<long>(maxOffHeapSize.load()));
  const auto wanted = static_cast<int64_t>(size + static_cast<uint64_t>(inUse));
  if (wanted < maxOffHeapSize) return true;
  refuse(env, "java/lang/IllegalStateException");
  return false;
}

// Asks Java to move values to disk when the allocation comes near the limits. False when Java
// raised; otherwise the check behind the allocation decides.
bool passesHardCap(JNIEnv* env, uint64_t size, int64_t inUse, const char* type) {
  const uint64_t used = static_cast<uint64_t>(inUse);
  const uint64_t hardCap = _hardCapLimit;
  const auto maximum = static_cast<uint64_t>(maxOffHeapSize.load());
  const char* label = type == nullptr ? "(null)" : type;
  NB_DEBUG_AS(env, "malloc_nb",
              "allocating size=%ld maxOffHeapSize=%ld currentAllocatedSize=%ld jmChunkSize=%ld "
              "hardCapLimit=%ld",
              static_cast<long>(size), static_cast<long>(maximum), static_cast<long>(inUse),
              static_cast<long>(jemallocChunkSize.load()), static_cast<long>(hardCap));
  bool sweep = false;
  if (used + size >= hardCap) {
    sweep = true;
    NB_EVENT_AS(env, "malloc_nb",
                "Current main-memory (%ld) plus requested size (%ld) for (%s) violates hard-cap "
                "limit (%ld): initiating hard-cap eviction sweep.",
                static_cast<long>(inUse), static_cast<long>(size), label,
                static_cast<long>(hardCap));
  }
  // Deliberate: this measures the room below the maximum, although its record names the hard cap.
  // The contract with Java says so. Pinned by HardCap.SecondTestMeasuresRoomBelowTheMaximum.
  if (maximum - used - size <= jemallocChunkSize) {
    sweep = true;
    NB_EVENT_AS(env, "malloc_nb",
                "Allocation of the requested size (%ld) for (%s) will increment current size "
                "(%ld) by the chunk size and violate the hard-cap limit (%ld): initiating "
                "hard-cap eviction sweep.",
                static_cast<long>(size), label, static_cast<long>(inUse),
                static_cast<long>(hardCap));
  }
  // Java cannot be called on top of an exception; the check behind the allocation decides.
  if (!sweep || env->ExceptionCheck()) return true;
  const jlong words[] = {static_cast<jlong>(hardCap), static_cast<jlong>(size)};
  const LocalRef<jlongArray> array(env, env->NewLongArray(2));
  if (array) {
    env->SetLongArrayRegion(array.get(), 0, 2, words);
    env->CallStaticVoidMethod(_overflowClass, _moreMainMemoryNeededID, array.get());
  }
  if (!env->ExceptionCheck()) return true;
  NB_DEBUG_AS(env, "malloc_nb",
              "Exception in java code when invoking moreMainMemoryNeeded for overflow.");
  return false;
}

void traceAllocated(JNIEnv* env, const void* block, uint64_t size, int64_t inUse,
                    const char* type) {
  if (!logInfo.debug && !logInfo.event) return;
  const uint64_t usable = block == nullptr ? 0 : backend::usableSize(block);
  if (logInfo.debug) {
    debug(env, "malloc_nb",
          "%s=%p requested=%lu allocatedSize=%lu offHeapSize=%lld offHeapBlocks=%lld type=%s",
          "jemalloc", block, size, usable, static_cast<long long>(inUse),
          static_cast<long long>(lockRead(&allocatingOffHeapBlocks)),
          type == nullptr ? "(null)" : type);
  } else {
    event(env, "malloc_nb", "malloc=%p requested=%lu allocateSize=%lu offheapSize=%lld type=%s",
          block, size, usable, static_cast<long long>(inUse), type == nullptr ? "(null)" : type);
  }
}

}  // namespace

void initJemallocSizes() {
  if (jemallocPageSize == 0) jemallocPageSize = backend::pageSize();
  if (jemallocChunkSize == 0) jemallocChunkSize = backend::chunkSize();
}

int64_t getCurrentSize(JNIEnv* /*env*/) {
  initJemallocSizes();
  if (trackReqSize_Internal) return lockRead(&allocatingOffHeapSize);
  return static_cast<int64_t>(backend::sizeInUse());
}

int64_t getCurrentInternalMetadataSize(JNIEnv* /*env*/) {
  return lockRead(&allocatingInternalMetadataSize);
}

uint64_t getUsableSize(const void* block) { return backend::usableSize(block); }
uint64_t alignSize(const void* block) { return backend::usableSize(block); }
uint64_t usableSizeOfRequest(const void* block, uint64_t requested) {
  return backend::usableSize(block, requested);
}

uint64_t alignSize(uint64_t size) {
  initJemallocSizes();
  const uint64_t page = jemallocPageSize;
  if (size <= page || size > jemallocChunkSize) return size;
  return (size + page - 1) / page * page;
}

namespace {

template <typename Bytes>
int64_t countBlock(int64_t sign, Bytes&& bytes) {
  if (trackReqSize_Internal) {
    lockIncrement(&allocatingOffHeapSize, sign * static_cast<int64_t>(bytes()));
  }
  return lockIncrement(&allocatingOffHeapBlocks, sign);
}

}  // namespace

int64_t updateUsage(JNIEnv* /*env*/, int32_t flag, uint64_t size, const void* block) {
  return countBlock(flag == 1 ? 1 : -1,
                    [=] { return block == nullptr ? size : backend::usableSize(block); });
}

void* malloc_nb(JNIEnv* env, uint64_t size, uint8_t unchecked, const char* type) {
#if NIMBRA_CHECKS
  const bool injected = faults::refuseAllocation != nullptr && faults::refuseAllocation(size, type);
#else
  constexpr bool injected = false;
#endif
  int64_t inUse = getCurrentSize(env);
  if (unchecked == 0) {
    const bool asksJava = _moreMainMemoryNeededID != nullptr;
    if (asksJava ? !passesHardCap(env, size, inUse, type) : !passesMaximum(env, size, inUse)) {
      return nullptr;
    }
  }
  void* block = injected ? nullptr : backend::allocate(size);
  if (block == nullptr) {
    traceAllocated(env, nullptr, size, inUse, type);
    return nullptr;
  }
  countBlock(1, [=] { return backend::usableSize(block, size); });
  if (unchecked == 0) {
    inUse = getCurrentSize(env);
    if (inUse > maxOffHeapSize) {
      NB_DEBUG(env,
               "Allocation of new memory has exceeded the maximum Nimbra size. Requested=%d "
               "AllocatedByte=%lld AllocatedBlocks=%lld type=%s",
               static_cast<int>(size), static_cast<long long>(inUse),
               static_cast<long long>(lockRead(&allocatingOffHeapBlocks)),
               type == nullptr ? "(null)" : type);
      // Deliberate: the counters keep the block that is given back here. Java derives the number of
      // such refusals from the difference. Pinned by AllocRefusal.CountsStayRaised.
      backend::release(block);
      refuse(env, _isDiskOverflowEnabled
                      ? "com/velt/rz/corvane/io/offheap/overflow/NotEnoughResourcesException"
                      : "java/lang/OutOfMemoryError");
      return nullptr;
    }
  }
  traceAllocated(env, block, size, inUse, type);
  return block;
}

void* malloc_nb(JNIEnv* env, uint64_t size, const char* type) {
  return malloc_nb(env, size, 0, type);
}

namespace {

// What free_nb does, around one of the allocator's two ways to release.
template <typename Release>
void freeBlock(JNIEnv* env, void* block, uint64_t size, Release&& release) {
  NB_DEBUG_AS(env, "free_nb", "%s toFree=%p allocatingOffHeapSize=%d, allocatingOffHeapBlocks=%d",
              "jemalloc", block, static_cast<int>(getCurrentSize(env)),
              static_cast<int>(lockRead(&allocatingOffHeapBlocks)));
  const bool traced = logInfo.debug || logInfo.event;
  const uint64_t usable = traced ? backend::usableSize(block) : 0;
  const void* freed = block;
  release();
  if (!traced) return;
  // The two texts differ in the case of one letter; both are kept.
  if (logInfo.debug) {
    debug(env, "free_nb", "free=%p objSize=%lu actualSize=%lu offHeapSize=%lu", freed, size, usable,
          static_cast<unsigned long>(getCurrentSize(env)));
  } else {
    event(env, "free_nb", "free=%p objSize=%lu actualSize=%lu offheapSize=%lu", freed, size, usable,
          static_cast<unsigned long>(getCurrentSize(env)));
  }
}

}  // namespace

void free_nb(JNIEnv* env, void* block, uint64_t size) {
  freeBlock(env, block, size, [=] {
    updateUsage(env, 0, size, block);
    backend::release(block);
  });
}

void freeSized(JNIEnv* env, void* block, uint64_t size) {
  freeBlock(env, block, size, [=] {
    countBlock(-1, [=] { return backend::usableSize(block, size); });
    backend::release(block, size);
  });
}

void freeToOffHeap_deprecated(JNIEnv* env, void* block, int32_t typeCode) {
  const uint64_t usable = backend::usableSize(block);
  if (logInfo.debug) {
    debug(env, "freeToOffHeap_deprecated",
          "%s toFree=%p allocatingOffHeapSize=%d, allocatingOffHeapBlocks=%d, usable=%d, type=%d",
          "jemalloc", block, static_cast<int>(getCurrentSize(env)),
          static_cast<int>(lockRead(&allocatingOffHeapBlocks)), static_cast<int>(usable), typeCode);
  } else {
    NB_EVENT(env, "free=%p type=%d offheapSize=%lu", block, typeCode,
             static_cast<unsigned long>(getCurrentSize(env)));
  }
  updateUsage(env, 0, usable, block);
  backend::release(block);
  NB_DEBUG(env, "done freeing, allocatingOffHeapSize=%lu",
           static_cast<unsigned long>(getCurrentSize(env)));
}

namespace {

// Work area of one statistics report. Text beyond it is dropped.
struct StatisticsText {
  static constexpr size_t kCapacity = 5242880;  // bytes, terminator included
  static constexpr size_t kPieceBound = 1024;   // characters copied of one piece
  uint32_t length;
  char text[kCapacity];

  static void append(void* opaque, const char* piece) {
    auto* self = static_cast<StatisticsText*>(opaque);
    const size_t count = strnlen(piece, kPieceBound);
    const bool cut = count >= kPieceBound;
    if (self->length + count + (cut ? 1 : 0) >= kCapacity) return;
    std::memcpy(self->text + self->length, piece, count);
    self->length += static_cast<uint32_t>(count);
    if (cut) self->text[self->length++] = '\n';
    self->text[self->length] = '\0';
  }
};
static_assert(sizeof(StatisticsText) == 5242884);

}  // namespace

jstring jemallocStatistics(JNIEnv* env) {
  const std::unique_ptr<StatisticsText> area(new (std::nothrow) StatisticsText);
  if (area == nullptr) return nullptr;
  area->length = 0;
  area->text[0] = '\0';
  backend::printStatistics(StatisticsText::append, area.get(), "a");
  return env->NewStringUTF(area->text);
}

}  // namespace nimbra
