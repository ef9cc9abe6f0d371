// The accounting allocator beside the bare one, and its size figure beside the ways to get one.
#include <jemalloc/jemalloc.h>

#include <atomic>
#include <cstdint>

#include "comparison.h"
#include "nb_alloc.h"
#include "nb_alloc_backend.h"

namespace nimbra::bench {

namespace {

// Alone on its cache line, like any counter that threads share should be.
struct alignas(64) SharedCounter {
  std::atomic<int64_t> blocks{0};
};
SharedCounter counter;

void accounted(benchmark::State& state, size_t size) {
  for (auto _ : state) {
    void* block = malloc_nb(nullptr, size, "benchmark");
    benchmark::DoNotOptimize(block);
    free_nb(nullptr, block, size);
  }
}

void bare(benchmark::State& state, size_t size) {
  for (auto _ : state) {
    void* block = backend::allocate(size);
    benchmark::DoNotOptimize(block);
    backend::release(block);
  }
}

// What two threads pay for one exact count of live blocks, however it is written.
void bareAndCounted(benchmark::State& state, size_t size) {
  for (auto _ : state) {
    void* block = backend::allocate(size);
    counter.blocks.fetch_add(1);
    benchmark::DoNotOptimize(block);
    counter.blocks.fetch_sub(1);
    backend::release(block);
  }
}

void sizeInUse(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(getCurrentSize(nullptr));
}

void relaxedLoad(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(counter.blocks.load(std::memory_order_relaxed));
  }
}

void epochRefresh(benchmark::State& state) {
  for (auto _ : state) {
    uint64_t epoch = 1;
    if (jemallctl("epoch", nullptr, nullptr, &epoch, sizeof epoch) != 0) {
      state.SkipWithError("the allocator refused the refresh");
      return;
    }
    size_t active = 0;
    size_t length = sizeof active;
    if (jemallctl("stats.active", &active, &length, nullptr, 0) != 0) {
      state.SkipWithError("the allocator has no figure of active bytes");
      return;
    }
    benchmark::DoNotOptimize(active);
  }
}

}  // namespace

void registerAllocatorBenchmarks() {
  for (const int threads : {1, 2}) {
    for (const size_t size : {16U, 88U, 280U, 4120U, 65536U}) {
      measure({.operation = "malloc_nb + free_nb, " + std::to_string(size) + " B" +
                            (threads == 1 ? "" : ", " + std::to_string(threads) + " threads"),
               .body = [size](benchmark::State& state) { accounted(state, size); },
               .floors = {{"bare malloc + free",
                           [size](benchmark::State& state) { bare(state, size); }},
                          {"bare, and one shared counter up and down",
                           [size](benchmark::State& state) { bareAndCounted(state, size); }}},
               .threads = threads});
    }
  }
  measure({.operation = "size in use",
           .body = sizeInUse,
           .floors = {{"one relaxed load", relaxedLoad},
                      {"epoch refresh and \"stats.active\"", epochRefresh}}});
}

}  // namespace nimbra::bench
