// The C library's allocator behind the same adapter, for builds whose sanitizer watches malloc.
//
// State: one counter of usable bytes.
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "nb_alloc_backend.h"

namespace nimbra::backend {

namespace {
std::atomic<uint64_t> bytesInUse{0};
}  // namespace

void* allocate(size_t size) {
  void* block = std::malloc(size);
  if (block != nullptr) bytesInUse.fetch_add(malloc_usable_size(block), std::memory_order_relaxed);
  return block;
}

void release(void* block) {
  if (block != nullptr) bytesInUse.fetch_sub(malloc_usable_size(block), std::memory_order_relaxed);
  std::free(block);
}

size_t usableSize(const void* block) { return malloc_usable_size(const_cast<void*>(block)); }
void release(void* block, size_t /*size*/) { release(block); }
size_t usableSize(const void* block, size_t /*size*/) { return usableSize(block); }

uint64_t pageSize() { return static_cast<uint64_t>(sysconf(_SC_PAGESIZE)); }
uint64_t chunkSize() { return uint64_t{1} << 21; }
void prepareSizeInUse() {}
bool keepsAddresses() { return false; }
uint64_t sizeInUse() { return bytesInUse.load(std::memory_order_relaxed); }

void printStatistics(StatisticsWriter writer, void* opaque, const char* /*options*/) {
  char line[96];
  std::snprintf(line, sizeof line, "system allocator: %llu usable bytes in use\n",
                static_cast<unsigned long long>(sizeInUse()));
  writer(opaque, line);
}

}  // namespace nimbra::backend
