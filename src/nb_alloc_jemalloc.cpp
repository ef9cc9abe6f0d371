// The jemalloc adapter.
//
// jemalloc is linked statically with a private namespace, so the JVM's own malloc is never touched.
// State: the pointers behind sizeInUse, fetched once.
#include <jemalloc/jemalloc.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <vector>

#include "nb_alloc_backend.h"

// Read by jemalloc when it starts. Few arenas keep the sum in sizeInUse short; no extra arena for
// oversized blocks, which would stand outside it; address space once mapped stays mapped, so that a
// view kept too long reads stale bytes instead of ending the process. Huge pages are left to the
// system's own policy: on request, they make resident what was never used, and the kernel puts
// pages together again that have been given back.
extern "C" const char* jemalloc_conf;
const char* jemalloc_conf = "narenas:4,oversize_threshold:0,retain:true";

namespace nimbra::backend {

namespace {

template <typename T>
bool readControl(const char* key, T* value) {
  size_t size = sizeof *value;
  return jemallctl(key, value, &size, nullptr, 0) == 0;
}

// jemalloc before 5 publishes one figure under "stats.cactive". Later ones have it no more: there
// it is the sum of the arenas' active-page counters times the page size, which equals
// "stats.active" without the lock and the cost of an epoch refresh.
struct ActiveBytes {
  std::vector<const size_t*> counters;
  size_t unit = pageSizeOfJemalloc();  // bytes that one count stands for

  static size_t pageSizeOfJemalloc() {
    size_t size = 0;
    readControl("arenas.page", &size);
    return size;
  }

  ActiveBytes() {
    const size_t* total = nullptr;
    if (readControl("stats.cactive", &total)) {
      counters = {total};
      unit = 1;
      return;
    }
    unsigned arenas = 0;
    if (!readControl("opt.narenas", &arenas)) return;
    // An arena that has never served a request has no counter.
    for (unsigned i = 0; i < arenas; i++) {
      const int flags = MALLOCX_ARENA(i) | MALLOCX_TCACHE_NONE;
      if (void* block = jemallocx(1, flags)) jedallocx(block, flags);
    }
    uint64_t epoch = 1;  // the counters' keys answer only after the first refresh
    jemallctl("epoch", nullptr, nullptr, &epoch, sizeof epoch);
    for (unsigned i = 0; i < arenas; i++) {
      char key[64];
      std::snprintf(key, sizeof key, "experimental.arenas.%u.pactivep", i);
      const size_t* pages = nullptr;
      if (readControl(key, &pages) && pages != nullptr) counters.push_back(pages);
    }
  }

  uint64_t read() const {
    uint64_t counts = 0;
    for (const size_t* counter : counters) counts += __atomic_load_n(counter, __ATOMIC_RELAXED);
    return counts * unit;
  }
};

// Null until first asked for.
std::atomic<const ActiveBytes*> activeBytes{nullptr};

const ActiveBytes& makeActiveBytes() {
  static const ActiveBytes instance;
  activeBytes.store(&instance, std::memory_order_release);
  return instance;
}

// Usable bytes of blocks for requests of 8 i + 1 to 8 i + 8 bytes, which have one size class; 0
// until first asked for.
std::atomic<uint16_t> smallSizes[512];

// jemalloc collects its report in pieces of many kilobytes; the reader takes about one at a time.
struct PieceSplitter {
  static constexpr size_t kPiece = 1000;
  StatisticsWriter writer;
  void* opaque;

  static void write(void* self, const char* text) {
    const auto* splitter = static_cast<PieceSplitter*>(self);
    char piece[kPiece + 1];
    for (size_t left = std::strlen(text); left > 0;) {
      const size_t count = left < kPiece ? left : kPiece;
      std::memcpy(piece, text, count);
      piece[count] = '\0';
      splitter->writer(splitter->opaque, piece);
      text += count;
      left -= count;
    }
  }
};

}  // namespace

void* allocate(size_t size) { return jemalloc(size); }
void release(void* block) { jefree(block); }
size_t usableSize(const void* block) { return jemalloc_usable_size(const_cast<void*>(block)); }
void release(void* block, size_t size) { jesdallocx(block, size, 0); }
size_t usableSize(const void* /*block*/, size_t size) {
  if (size == 0) size = 1;
  const size_t index = (size - 1) / 8;
  if (index >= std::size(smallSizes)) return jenallocx(size, 0);
  uint16_t known = smallSizes[index].load(std::memory_order_relaxed);
  if (known == 0) {
    known = static_cast<uint16_t>(jenallocx(size, 0));
    smallSizes[index].store(known, std::memory_order_relaxed);
  }
  return known;
}

uint64_t pageSize() { return ActiveBytes::pageSizeOfJemalloc(); }

uint64_t chunkSize() {
  size_t lgChunk = 21;  // jemalloc 5 has no chunks any more; 2 MiB is what 4 used
  readControl("opt.lg_chunk", &lgChunk);
  uint64_t size = 1;
  for (size_t i = 0; i < lgChunk; i++) size *= 2;
  return size;
}

void prepareSizeInUse() { makeActiveBytes(); }
uint64_t sizeInUse() {
  const ActiveBytes* made = activeBytes.load(std::memory_order_acquire);
  return (made != nullptr ? *made : makeActiveBytes()).read();
}

// Where the kernel counts every mapping against its limit, jemalloc makes pages that it gives back
// inaccessible. It decides so by the same file.
bool keepsAddresses() {
  bool retains = false;
  if (!readControl("opt.retain", &retains) || !retains) return false;
  std::FILE* file = std::fopen("/proc/sys/vm/overcommit_memory", "re");
  if (file == nullptr) return false;
  const int policy = std::fgetc(file);
  std::fclose(file);
  return policy == '0' || policy == '1';
}

void printStatistics(StatisticsWriter writer, void* opaque, const char* options) {
  PieceSplitter splitter{writer, opaque};
  jemalloc_stats_print(PieceSplitter::write, &splitter, options);
}

}  // namespace nimbra::backend
