// The accounting allocator: counters, limits, every kind of refusal, and the records it writes.

#include "nb_alloc.h"

#include <gmock/gmock.h>

#include <limits>
#include <thread>

#include "manager_natives.h"
#include "nb.h"
#include "nb_alloc_backend.h"
#include "test_support.h"

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kRefusalText =
    "[malloc_nb] Allocation by the Nimbra library failed. All available memory is used.";

class AllocTest : public LibraryTest {
 protected:
  // From here on the size in use is our own byte counter, which starts at `inUse`.
  void countBytes(int64_t inUse = 0) {
    trackReqSize_Internal = true;
    allocatingOffHeapSize = inUse;
  }

  void TearDown() override {
    for (void* block : kept_) free_nb(env, block, 0);
    LibraryTest::TearDown();
  }

  // Allocates a block that the end of the test frees.
  void* keep(void* block) {
    if (block != nullptr) kept_.push_back(block);
    return block;
  }

 private:
  std::vector<void*> kept_;
};

// ---- Counters --------------------------------------------------------------------------

class AllocCounters : public AllocTest {};

TEST_F(AllocCounters, BlocksAreCountedWithAndWithoutByteCounting) {
  const int64_t before = allocatingOffHeapBlocks;
  void* first = malloc_nb(env, 100, "Key Data");
  void* second = malloc_nb(env, 100, 1, "Key Data");
  EXPECT_EQ(allocatingOffHeapBlocks, before + 2);
  EXPECT_EQ(manager_natives::getAllocatingCountInOffHeap(env, manager), before + 2);
  EXPECT_EQ(allocatingOffHeapSize, 0) << "bytes are counted only on request";
  free_nb(env, first, 100);
  free_nb(env, second, 100);
  EXPECT_EQ(allocatingOffHeapBlocks, before);
}

TEST_F(AllocCounters, BytesAreUsableBytes) {
  countBytes();
  void* block = malloc_nb(env, 97, "Key Data");
  const auto usable = static_cast<int64_t>(getUsableSize(block));
  EXPECT_GE(usable, 97);
  EXPECT_EQ(allocatingOffHeapSize, usable);
  EXPECT_EQ(manager_natives::getAllocatingSizeInOffHeap(env, manager), usable);
  free_nb(env, block, 97);
  EXPECT_EQ(allocatingOffHeapSize, 0);
}

TEST_F(AllocCounters, FreeingSubtractsUsableBytesWhateverSizeIsPassed) {
  void* block = malloc_nb(env, 200, "Key Data");
  const auto usable = static_cast<int64_t>(getUsableSize(block));
  countBytes(10'000);
  free_nb(env, block, 7);
  EXPECT_EQ(allocatingOffHeapSize, 10'000 - usable);
}

TEST_F(AllocCounters, FreeingABlockFromBeforeCountingMayGoBelowZero) {
  void* block = malloc_nb(env, 200, "Key Data");
  const auto usable = static_cast<int64_t>(getUsableSize(block));
  countBytes();
  free_nb(env, block, 200);
  EXPECT_EQ(allocatingOffHeapSize, -usable);
}

TEST_F(AllocCounters, UpdateUsageTakesTheGivenSizeWithoutABlock) {
  const int64_t before = allocatingOffHeapBlocks;
  countBytes(5'000);
  EXPECT_EQ(updateUsage(env, 1, 300, nullptr), before + 1);
  EXPECT_EQ(allocatingOffHeapSize, 5'300);
  EXPECT_EQ(updateUsage(env, 0, 100, nullptr), before);
  EXPECT_EQ(allocatingOffHeapSize, 5'200);
}

TEST_F(AllocCounters, UpdateUsageTreatsEveryFlagButOneAsARelease) {
  const int64_t before = allocatingOffHeapBlocks;
  countBytes(5'000);
  EXPECT_EQ(updateUsage(env, 2, 10, nullptr), before - 1);
  EXPECT_EQ(updateUsage(env, -1, 10, nullptr), before - 2);
  EXPECT_EQ(allocatingOffHeapSize, 4'980);
  EXPECT_EQ(updateUsage(env, 1, 10, nullptr), before - 1);
  EXPECT_EQ(updateUsage(env, 1, 10, nullptr), before);
}

TEST_F(AllocCounters, UpdateUsagePrefersTheBlocksOwnSize) {
  void* block = keep(malloc_nb(env, 97, "Key Data"));
  const auto usable = static_cast<int64_t>(getUsableSize(block));
  countBytes(5'000);
  const int64_t before = allocatingOffHeapBlocks;
  EXPECT_EQ(updateUsage(env, 1, 7, block), before + 1);
  EXPECT_EQ(allocatingOffHeapSize, 5'000 + usable);
  EXPECT_EQ(updateUsage(env, 0, 7, block), before);
  EXPECT_EQ(allocatingOffHeapSize, 5'000);
}

TEST_F(AllocCounters, UpdateUsageLeavesTheBytesAloneWithoutCounting) {
  const int64_t before = allocatingOffHeapBlocks;
  EXPECT_EQ(updateUsage(env, 1, 300, nullptr), before + 1);
  EXPECT_EQ(updateUsage(env, 0, 300, nullptr), before);
  EXPECT_EQ(allocatingOffHeapSize, 0);
}

TEST_F(AllocCounters, SizeInUseIsTheCounterWhileCounting) {
  countBytes(123'456);
  EXPECT_EQ(getCurrentSize(env), 123'456);
  EXPECT_EQ(manager_natives::getAllocatingSizeInOffHeap(env, manager), 123'456);
}

// On a thread of its own: what earlier tests have left in this thread's cache may be given back in
// the middle of any allocation, and would be missing from the difference.
TEST_F(AllocCounters, SizeInUseIsOtherwiseTheAllocators) {
  constexpr int64_t kSize = 8 << 20;
  std::thread([] {
    ScriptedJni mine;
    const int64_t before = getCurrentSize(mine.env());
    void* block = malloc_nb(mine.env(), kSize, "Value Data");
    EXPECT_GE(getCurrentSize(mine.env()), before + kSize);
    free_nb(mine.env(), block, kSize);
    EXPECT_LT(getCurrentSize(mine.env()), before + kSize);
  }).join();
}

TEST_F(AllocCounters, InternalMetadataFigureIsItsCounter) {
  const int64_t before = allocatingInternalMetadataSize;
  lockIncrement(&allocatingInternalMetadataSize, 77);
  EXPECT_EQ(getCurrentInternalMetadataSize(env), before + 77);
  EXPECT_EQ(manager_natives::getAllocatingInternalMetadataSize(env, manager), before + 77);
  lockDecrement(&allocatingInternalMetadataSize, 77);
}

TEST_F(AllocCounters, TrackingSwitchAnnouncesTheSizeAndKeepsTheCounter) {
  setLevels(kInfoLevel);
  countBytes(4'242);
  manager_natives::setInternalTracking(env, manager, JNI_TRUE);
  EXPECT_TRUE(trackReqSize_Internal);
  manager_natives::setInternalTracking(env, manager, JNI_FALSE);
  EXPECT_FALSE(trackReqSize_Internal);
  const std::string text =
      "info|Internal use only: Using internal byte counting. Current OffHeapSize=4242";
  EXPECT_THAT(jni.lines(), ElementsAre(text, text));
  EXPECT_EQ(allocatingOffHeapSize, 4'242);
}

TEST_F(AllocCounters, TrackingSwitchReportsTheSizeFromBeforeIt) {
  setLevels(kInfoLevel);
  allocatingOffHeapSize = 99;
  manager_natives::setInternalTracking(env, manager, JNI_TRUE);
  ASSERT_EQ(jni.records().size(), 1U);
  EXPECT_NE(jni.records()[0].text,
            "Internal use only: Using internal byte counting. Current OffHeapSize=99")
      << "the size is the allocator's own until the flag is stored";
  EXPECT_EQ(getCurrentSize(env), 99);
}

TEST_F(AllocCounters, TrackingSwitchIsSilentWithoutInfoLevel) {
  manager_natives::setInternalTracking(env, manager, JNI_TRUE);
  EXPECT_TRUE(trackReqSize_Internal);
  EXPECT_THAT(jni.records(), IsEmpty());
}

TEST_F(AllocCounters, ThreadsKeepTheCountersExact) {
  countBytes();
  const int64_t blocks = allocatingOffHeapBlocks;
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([number] {
      ScriptedJni mine;
      std::vector<void*> mineBlocks;
      for (int turn = 0; turn < 500; ++turn) {
        mineBlocks.push_back(
            malloc_nb(mine.env(), static_cast<uint64_t>(1 + turn * (number + 1)), "Key Data"));
        if (turn % 3 == 2) {
          free_nb(mine.env(), mineBlocks.back(), 0);
          mineBlocks.pop_back();
        }
      }
      for (void* block : mineBlocks) free_nb(mine.env(), block, 0);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(allocatingOffHeapBlocks, blocks);
  EXPECT_EQ(allocatingOffHeapSize, 0);
}

// ---- Refusals --------------------------------------------------------------------------

class AllocRefusal : public AllocTest {
 protected:
  int64_t usableOf(uint64_t size) {
    void* probe = malloc_nb(env, size, "Key Data");
    const auto usable = static_cast<int64_t>(getUsableSize(probe));
    free_nb(env, probe, size);
    return usable;
  }
};

TEST_F(AllocRefusal, ReachingTheMaximumIsRefusedBeforeAllocating) {
  setLevels(kErrorLevel);
  countBytes(1'000);
  maxOffHeapSize = 1'100;
  const int64_t blocks = allocatingOffHeapBlocks;
  EXPECT_EQ(malloc_nb(env, 100, "Key Data"), nullptr) << "equal to the maximum";
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, kRefusalText}));
  EXPECT_EQ(malloc_nb(env, 101, "Key Data"), nullptr) << "over the maximum";
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, kRefusalText}));
  EXPECT_THAT(jni.lines(),
              ElementsAre("error|OUT_OF_MEMORY_KTZAR7930", "error|OUT_OF_MEMORY_KTZAR7930"));
  EXPECT_EQ(allocatingOffHeapBlocks, blocks);
  EXPECT_EQ(allocatingOffHeapSize, 1'000);
}

TEST_F(AllocRefusal, SizeInUseMayEqualTheMaximumAfterwards) {
  const RefuseAfterwards refusal(jni, 1, kAmpleMaximum - usableOf(97));
  EXPECT_NE(keep(malloc_nb(env, 97, "Key Data")), nullptr);
  EXPECT_EQ(allocatingOffHeapSize, kAmpleMaximum);
  EXPECT_EQ(jni.pending(), std::nullopt);
}

TEST_F(AllocRefusal, CountsStayRaised) {
  const RefuseAfterwards refusal(jni, 1, kAmpleMaximum - usableOf(97) + 1);
  const int64_t blocks = allocatingOffHeapBlocks;
  EXPECT_EQ(malloc_nb(env, 97, "Key Data"), nullptr);
  EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory, kRefusalText}));
  EXPECT_EQ(allocatingOffHeapBlocks, blocks + 1) << "one more than there are live blocks";
  EXPECT_EQ(allocatingOffHeapSize, kAmpleMaximum + 1) << "the freed block stays counted";
  expectedBlocksDelta = 1;
}

TEST_F(AllocRefusal, AfterwardsWithOverflowOnRaisesNotEnoughResources) {
  const RefuseAfterwards refusal(jni);
  _isDiskOverflowEnabled = true;
  EXPECT_EQ(malloc_nb(env, 97, "Key Data"), nullptr);
  _isDiskOverflowEnabled = false;
  EXPECT_EQ(jni.takePending(), (Thrown{kNotEnoughResources, kRefusalText}));
  expectedBlocksDelta = 1;
}

TEST_F(AllocRefusal, AfterwardsIsTraced) {
  const int64_t usable = usableOf(97);
  const int64_t blocks = allocatingOffHeapBlocks;
  setLevels(kErrorLevel);
  const RefuseAfterwards refusal(jni);
  EXPECT_EQ(malloc_nb(env, 97, "Key Data"), nullptr);
  jni.clearPending();
  EXPECT_THAT(jni.lines(),
              ElementsAre("debug|JNI:malloc_nb:allocating size=97 currentAllocatedSize=1000 "
                          "maxOffHeapSize=" +
                              std::to_string(kAmpleMaximum),
                          "debug|JNI:malloc_nb:Allocation of new memory has exceeded the maximum "
                          "Nimbra size. Requested=97 AllocatedByte=" +
                              std::to_string(kAmpleMaximum + usable) +
                              " AllocatedBlocks=" + std::to_string(blocks + 1) + " type=Key Data",
                          "error|OUT_OF_MEMORY_KTZAR7930"));
  expectedBlocksDelta = 1;
}

TEST_F(AllocRefusal, MaximumOfZeroRefusesCheckedRequestsOnly) {
  maxOffHeapSize = 0;
  EXPECT_EQ(malloc_nb(env, 1, "Key Data"), nullptr);
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, kRefusalText}));
  EXPECT_EQ(malloc_nb(env, 1, 0, "Key Data"), nullptr);
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, kRefusalText}));
  EXPECT_NE(keep(malloc_nb(env, 1, 1, "Key Data")), nullptr);
  EXPECT_NE(keep(malloc_nb(env, 1, 255, "Key Data")), nullptr) << "any non-zero flag";
}

TEST_F(AllocRefusal, NegativeMaximumRefusesCheckedRequests) {
  maxOffHeapSize = -1;
  EXPECT_EQ(malloc_nb(env, 1, "Key Data"), nullptr);
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, kRefusalText}));
}

TEST_F(AllocRefusal, UncheckedRequestPassesBothChecks) {
  countBytes(1'000);
  maxOffHeapSize = 500;
  EXPECT_NE(keep(malloc_nb(env, 100, 1, "Bookmarks")), nullptr);
  EXPECT_EQ(jni.pending(), std::nullopt);
}

TEST_F(AllocRefusal, SizesAreComparedAsSignedNumbers) {
  const RefuseAllocation nothingLeft(1);
  EXPECT_EQ(malloc_nb(env, uint64_t{1} << 63, "Key Data"), nullptr);
  EXPECT_TRUE(nothingLeft.fired());
  EXPECT_EQ(jni.pending(), std::nullopt)
      << "a size that reads as negative passes the check; the allocator underneath refuses it";
}

TEST_F(AllocRefusal, EmptyAllocatorAnswersNullWithoutAnException) {
  setLevels(kErrorLevel);
  countBytes(1'000);
  const int64_t blocks = allocatingOffHeapBlocks;
  for (const uint8_t flag : {0, 1}) {
    const RefuseAllocation nothingLeft(1);
    EXPECT_EQ(malloc_nb(env, 100, flag, "Key Data"), nullptr);
    EXPECT_TRUE(nothingLeft.fired());
    EXPECT_EQ(jni.pending(), std::nullopt);
  }
  EXPECT_THAT(jni.records(), IsEmpty());
  EXPECT_EQ(allocatingOffHeapBlocks, blocks);
  EXPECT_EQ(allocatingOffHeapSize, 1'000);
}

TEST_F(AllocRefusal, ThreadsAtTheLimitAreRefusedOrServed) {
  countBytes();
  maxOffHeapSize = 64 * 1024;
  std::atomic<int64_t> refusedAfterwards{0};
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&refusedAfterwards] {
      ScriptedJni mine;
      std::vector<void*> blocks;
      for (int turn = 0; turn < 400; ++turn) {
        void* block = malloc_nb(mine.env(), 1'000, "Value Data");
        const std::optional<Thrown> thrown = mine.takePending();
        EXPECT_EQ(block == nullptr, thrown.has_value());
        if (block != nullptr) {
          blocks.push_back(block);
        } else {
          EXPECT_EQ(thrown->message, kRefusalText);
          if (thrown->className == kOutOfMemory) ++refusedAfterwards;
          for (void* mineBlock : blocks) free_nb(mine.env(), mineBlock, 1'000);
          blocks.clear();
        }
      }
      for (void* block : blocks) free_nb(mine.env(), block, 1'000);
    });
  }
  for (std::thread& thread : threads) thread.join();
  expectedBlocksDelta = refusedAfterwards;  // every such refusal leaves its count behind
}

// ---- Records ---------------------------------------------------------------------------

class AllocRecords : public AllocTest {};

TEST_F(AllocRecords, OfACheckedRequestAtDebugLevel) {
  setLevels(kDebugLevel | kEventLevel);
  countBytes(1'000);
  maxOffHeapSize = 1'000'000;
  const int64_t blocks = allocatingOffHeapBlocks;
  void* block = keep(malloc_nb(env, 97, "Key Data"));
  const uint64_t usable = getUsableSize(block);
  EXPECT_THAT(jni.lines(),
              ElementsAre("debug|JNI:malloc_nb:allocating size=97 currentAllocatedSize=1000 "
                          "maxOffHeapSize=1000000",
                          "debug|JNI:malloc_nb:jemalloc=" + printed(block) +
                              " requested=97 allocatedSize=" + std::to_string(usable) +
                              " offHeapSize=" + std::to_string(1'000 + usable) +
                              " offHeapBlocks=" + std::to_string(blocks + 1) + " type=Key Data"));
  setLevels(0);
}

TEST_F(AllocRecords, OfAnUncheckedRequestCarryTheSizeFromBefore) {
  setLevels(kDebugLevel);
  countBytes(1'000);
  const int64_t blocks = allocatingOffHeapBlocks;
  void* block = keep(malloc_nb(env, 97, 1, nullptr));
  EXPECT_THAT(jni.lines(),
              ElementsAre("debug|JNI:malloc_nb:jemalloc=" + printed(block) +
                          " requested=97 allocatedSize=" + std::to_string(getUsableSize(block)) +
                          " offHeapSize=1000 offHeapBlocks=" + std::to_string(blocks + 1) +
                          " type=(null)"));
  setLevels(0);
}

TEST_F(AllocRecords, OfARequestAtEventLevel) {
  setLevels(kEventLevel);
  countBytes(1'000);
  void* block = keep(malloc_nb(env, 97, "Value Data"));
  const uint64_t usable = getUsableSize(block);
  EXPECT_THAT(jni.lines(),
              ElementsAre("event|JNI:malloc_nb:malloc=" + printed(block) +
                          " requested=97 allocateSize=" + std::to_string(usable) +
                          " offheapSize=" + std::to_string(1'000 + usable) + " type=Value Data"));
  setLevels(0);
}

TEST_F(AllocRecords, OfARequestThatFindsNothingLeftShowANullBlock) {
  setLevels(kDebugLevel);
  countBytes(1'000);
  maxOffHeapSize = 1'000'000;
  const int64_t blocks = allocatingOffHeapBlocks;
  const RefuseAllocation nothingLeft(1);
  EXPECT_EQ(malloc_nb(env, 97, "Key Data"), nullptr);
  EXPECT_THAT(jni.lines(),
              ElementsAre("debug|JNI:malloc_nb:allocating size=97 currentAllocatedSize=1000 "
                          "maxOffHeapSize=1000000",
                          "debug|JNI:malloc_nb:jemalloc=(nil) requested=97 allocatedSize=0 "
                          "offHeapSize=1000 offHeapBlocks=" +
                              std::to_string(blocks) + " type=Key Data"));
}

TEST_F(AllocRecords, OfAReleaseAtDebugLevel) {
  void* block = malloc_nb(env, 97, "Key Data");
  const uint64_t usable = getUsableSize(block);
  setLevels(kDebugLevel | kEventLevel);
  countBytes(1'000);
  const int64_t blocks = allocatingOffHeapBlocks;
  const std::string address = printed(block);
  free_nb(env, block, 55);
  EXPECT_THAT(jni.lines(), ElementsAre("debug|JNI:free_nb:jemalloc toFree=" + address +
                                           " allocatingOffHeapSize=1000, allocatingOffHeapBlocks=" +
                                           std::to_string(blocks),
                                       "debug|JNI:free_nb:free=" + address +
                                           " objSize=55 actualSize=" + std::to_string(usable) +
                                           " offHeapSize=" + std::to_string(1'000 - usable)));
}

TEST_F(AllocRecords, OfAReleaseAtEventLevelSpellOneLetterDifferently) {
  void* block = malloc_nb(env, 97, "Key Data");
  const uint64_t usable = getUsableSize(block);
  setLevels(kEventLevel);
  countBytes(1'000);
  const std::string address = printed(block);
  free_nb(env, block, 55);
  EXPECT_THAT(jni.lines(), ElementsAre("event|JNI:free_nb:free=" + address +
                                       " objSize=55 actualSize=" + std::to_string(usable) +
                                       " offheapSize=" + std::to_string(1'000 - usable)));
}

TEST_F(AllocRecords, OfTheOlderReleaseAtDebugLevel) {
  void* block = malloc_nb(env, 97, "Key Data");
  const uint64_t usable = getUsableSize(block);
  setLevels(kDebugLevel | kEventLevel);
  countBytes(1'000);
  const int64_t blocks = allocatingOffHeapBlocks;
  const std::string address = printed(block);
  freeToOffHeap_deprecated(env, block, -3);
  EXPECT_EQ(allocatingOffHeapBlocks, blocks - 1);
  EXPECT_EQ(allocatingOffHeapSize, 1'000 - static_cast<int64_t>(usable));
  EXPECT_THAT(
      jni.lines(),
      ElementsAre("debug|JNI:freeToOffHeap_deprecated:jemalloc toFree=" + address +
                      " allocatingOffHeapSize=1000, allocatingOffHeapBlocks=" +
                      std::to_string(blocks) + ", usable=" + std::to_string(usable) + ", type=-3",
                  "debug|JNI:freeToOffHeap_deprecated:done freeing, "
                  "allocatingOffHeapSize=" +
                      std::to_string(1'000 - usable)));
}

TEST_F(AllocRecords, OfTheOlderReleaseAtEventLevel) {
  void* block = malloc_nb(env, 97, "Key Data");
  setLevels(kEventLevel);
  countBytes(1'000);
  const std::string address = printed(block);
  freeToOffHeap_deprecated(env, block, 7);
  EXPECT_THAT(jni.lines(), ElementsAre("event|JNI:freeToOffHeap_deprecated:free=" + address +
                                       " type=7 offheapSize=1000"));
}

// ---- Sizes -----------------------------------------------------------------------------

class AllocSizes : public AllocTest {};

TEST_F(AllocSizes, AreRoundedToPagesBetweenOnePageAndOneChunk) {
  initJemallocSizes();
  const uint64_t page = jemallocPageSize;
  const uint64_t chunk = jemallocChunkSize;
  ASSERT_GT(page, 0U);
  ASSERT_GT(chunk, page);
  EXPECT_EQ(alignSize(uint64_t{0}), 0U);
  EXPECT_EQ(alignSize(uint64_t{1}), 1U);
  EXPECT_EQ(alignSize(page - 1), page - 1);
  EXPECT_EQ(alignSize(page), page);
  EXPECT_EQ(alignSize(page + 1), 2 * page);
  EXPECT_EQ(alignSize(2 * page), 2 * page);
  EXPECT_EQ(alignSize(3 * page - 1), 3 * page);
  EXPECT_EQ(alignSize(chunk - 1), chunk);
  EXPECT_EQ(alignSize(chunk), chunk);
  EXPECT_EQ(alignSize(chunk + 1), chunk + 1);
}

TEST_F(AllocSizes, PageAndChunkAreThoseOfTheAllocator) {
  initJemallocSizes();
  EXPECT_EQ(jemallocPageSize, backend::pageSize());
  EXPECT_EQ(jemallocChunkSize, backend::chunkSize());
  EXPECT_EQ(jemallocPageSize & (jemallocPageSize - 1), 0U);
  EXPECT_EQ(jemallocChunkSize & (jemallocChunkSize - 1), 0U);
}

TEST_F(AllocSizes, AreFetchedOnceAndNotRefreshed) {
  initJemallocSizes();
  const uint64_t page = jemallocPageSize;
  const uint64_t chunk = jemallocChunkSize;
  jemallocPageSize = 12'345;
  jemallocChunkSize = 0;
  initJemallocSizes();
  EXPECT_EQ(jemallocPageSize, 12'345U);
  EXPECT_EQ(jemallocChunkSize, chunk);
  jemallocPageSize = 0;
  getCurrentSize(env);
  EXPECT_EQ(jemallocPageSize, page) << "the first size query fetches it";
}

TEST_F(AllocSizes, OfABlockIsItsUsableSize) {
  void* block = keep(malloc_nb(env, 5'000, "Value Data"));
  EXPECT_GE(getUsableSize(block), 5'000U);
  EXPECT_EQ(alignSize(block), getUsableSize(block));
  EXPECT_EQ(getUsableSize(block), backend::usableSize(block));
}

TEST_F(AllocSizes, StatisticsAreATextForJava) {
  const int64_t blocks = allocatingOffHeapBlocks;
  jstring text = jni.adopt(manager_natives::getJemallocStats(env, manager));
  ASSERT_NE(text, nullptr);
  EXPECT_FALSE(jni.textOf(text).empty());
  EXPECT_EQ(allocatingOffHeapBlocks, blocks);
}

TEST_F(AllocSizes, StatisticsThatJavaCannotHoldAreNull) {
  jni.failCall("NewStringUTF", 1, Thrown{kOutOfMemory, "heap"});
  EXPECT_EQ(manager_natives::getJemallocStats(env, manager), nullptr);
  EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory, "heap"}));
}

}  // namespace
}  // namespace nimbra::test
