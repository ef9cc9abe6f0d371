// The size in use on jemalloc: it must be the allocator's own active figure to the byte, at any
// moment, without an epoch refresh. jemalloc's own statistics, refreshed here, are the oracle.

#include <gtest/gtest.h>
#include <jemalloc/jemalloc.h>

#include <thread>
#include <vector>

#include "manager_natives.h"
#include "nb_alloc.h"
#include "nb_alloc_backend.h"
#include "test_support.h"

namespace nimbra::test {
namespace {

uint64_t refreshEpoch() {
  uint64_t epoch = 1;
  std::size_t size = sizeof epoch;
  EXPECT_EQ(jemallctl("epoch", &epoch, &size, &epoch, size), 0);
  return epoch;
}

uint64_t currentEpoch() {
  uint64_t epoch = 0;
  std::size_t size = sizeof epoch;
  EXPECT_EQ(jemallctl("epoch", &epoch, &size, nullptr, 0), 0);
  return epoch;
}

uint64_t activeBytes() {
  refreshEpoch();
  std::size_t active = 0;
  std::size_t size = sizeof active;
  EXPECT_EQ(jemallctl("stats.active", &active, &size, nullptr, 0), 0);
  return active;
}

class JemallocAccounting : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    backend::prepareSizeInUse();
  }
};

TEST_F(JemallocAccounting, SizeInUseIsTheActiveFigure) {
  EXPECT_EQ(backend::sizeInUse(), activeBytes());
  std::vector<void*> blocks;
  for (uint64_t size = 1; size <= (uint64_t{4} << 20); size *= 2) {
    blocks.push_back(malloc_nb(env, size, "Value Data"));
    ASSERT_NE(blocks.back(), nullptr);
    EXPECT_EQ(backend::sizeInUse(), activeBytes()) << "after " << size;
    EXPECT_EQ(static_cast<uint64_t>(getCurrentSize(env)), activeBytes());
  }
  for (void* block : blocks) {
    free_nb(env, block, 0);
    EXPECT_EQ(backend::sizeInUse(), activeBytes());
  }
}

// On a thread of its own, whose cache has nothing to give back in the middle of the allocation.
TEST_F(JemallocAccounting, BlockOf64MebibytesIsCounted) {
  std::thread([] {
    constexpr uint64_t kSize = uint64_t{64} << 20;
    ScriptedJni mine;
    const uint64_t before = backend::sizeInUse();
    void* block = malloc_nb(mine.env(), kSize, "Value Data");
    ASSERT_NE(block, nullptr);
    EXPECT_GE(backend::sizeInUse(), before + kSize);
    EXPECT_EQ(backend::sizeInUse(), activeBytes());
    free_nb(mine.env(), block, kSize);
    EXPECT_EQ(backend::sizeInUse(), activeBytes());
    EXPECT_LT(backend::sizeInUse(), before + kSize);
  }).join();
}

TEST_F(JemallocAccounting, ThreadsInEveryArenaAreCounted) {
  constexpr int kThreads = 6;
  std::vector<std::vector<void*>> blocks(kThreads);
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([number, &mine = blocks[static_cast<std::size_t>(number)]] {
      ScriptedJni jni;
      for (int turn = 0; turn < 400; ++turn) {
        const auto size = static_cast<uint64_t>(1 + (turn * 977 * (number + 1)) % 70'000);
        mine.push_back(malloc_nb(jni.env(), size, "Value Data"));
        if (turn % 4 == 3) {
          free_nb(jni.env(), mine.back(), size);
          mine.pop_back();
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  void* large = malloc_nb(env, uint64_t{64} << 20, "Value Data");
  EXPECT_EQ(backend::sizeInUse(), activeBytes());
  for (const std::vector<void*>& mine : blocks) {
    for (void* block : mine) free_nb(env, block, 0);
  }
  free_nb(env, large, 0);
  EXPECT_EQ(backend::sizeInUse(), activeBytes());
}

TEST_F(JemallocAccounting, NoQueryRefreshesTheEpoch) {
  const uint64_t epoch = currentEpoch();
  void* block = malloc_nb(env, 1 << 20, "Value Data");
  getCurrentSize(env);
  free_nb(env, block, 1 << 20);
  EXPECT_EQ(currentEpoch(), epoch);
}

TEST_F(JemallocAccounting, BytesCountedByUsMatchTheBlocks) {
  trackReqSize_Internal = true;
  allocatingOffHeapSize = 0;
  void* block = malloc_nb(env, 97, "Value Data");
  EXPECT_EQ(allocatingOffHeapSize, 112) << "the size class of 97 bytes";
  free_nb(env, block, 97);
  EXPECT_EQ(allocatingOffHeapSize, 0);
}

TEST_F(JemallocAccounting, PageAndChunk) {
  std::size_t page = 0;
  std::size_t size = sizeof page;
  ASSERT_EQ(jemallctl("arenas.page", &page, &size, nullptr, 0), 0);
  EXPECT_EQ(backend::pageSize(), page);
  std::size_t logChunk = 0;
  size = sizeof logChunk;
  if (jemallctl("opt.lg_chunk", &logChunk, &size, nullptr, 0) != 0) logChunk = 21;
  EXPECT_EQ(backend::chunkSize(), uint64_t{1} << logChunk);
}

TEST_F(JemallocAccounting, StatisticsAreTheAllocatorsReport) {
  const int64_t blocks = allocatingOffHeapBlocks;
  const uint64_t before = backend::sizeInUse();
  jstring text = jni.adopt(manager_natives::getJemallocStats(env, manager));
  ASSERT_NE(text, nullptr);
  const std::string report = jni.textOf(text);
  EXPECT_NE(report.find("Begin jemalloc statistics"), std::string::npos);
  EXPECT_NE(report.find("End jemalloc statistics"), std::string::npos);
  EXPECT_NE(report.find("Version"), std::string::npos);
  EXPECT_EQ(report.find("arenas[0]"), std::string::npos) << "single arenas are left out";
  EXPECT_EQ(allocatingOffHeapBlocks, blocks);
  EXPECT_LT(backend::sizeInUse(), before + (uint64_t{5} << 20)) << "the work area is released";
}

}  // namespace
}  // namespace nimbra::test
