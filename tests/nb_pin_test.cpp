// Atomic helpers, pin counts, reason texts and buffer headers.

#include <gmock/gmock.h>

#include <limits>
#include <thread>

#include "nb.h"
#include "nb_alloc.h"
#include "nb_atomic.h"
#include "test_support.h"

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr uint32_t kJava = JNI_CONVERT_FROM_JAVA_PIN;

// ---- Atomic helpers --------------------------------------------------------------------

TEST(AtomicHelpers, CompareExchangeAnswersTheValueFound) {
  int64_t word = 5;
  EXPECT_EQ(lockCompareExchange(&word, 4, 9), 5);
  EXPECT_EQ(word, 5);
  EXPECT_EQ(lockCompareExchange(&word, 5, 9), 5);
  EXPECT_EQ(word, 9);
}

TEST(AtomicHelpers, IncrementAndDecrementAnswerTheNewValue) {
  int64_t word = 0;
  EXPECT_EQ(lockIncrement(&word), 1);
  EXPECT_EQ(lockIncrement(&word, 41), 42);
  EXPECT_EQ(lockIncrement(&word, -2), 40);
  EXPECT_EQ(lockDecrement(&word), 39);
  EXPECT_EQ(lockDecrement(&word, 40), -1);
  EXPECT_EQ(lockRead(&word), -1);
}

TEST(AtomicHelpers, WrapAroundAtTheEndsOfTheRange) {
  int64_t word = std::numeric_limits<int64_t>::max();
  EXPECT_EQ(lockIncrement(&word), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(lockDecrement(&word), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(lockDecrement(&word, std::numeric_limits<int64_t>::min()), -1);
}

TEST(AtomicHelpers, LoseNoUpdateBetweenThreads) {
  int64_t word = 0;
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&word] {
      for (int turn = 0; turn < 20'000; ++turn) {
        lockIncrement(&word, 3);
        lockDecrement(&word, 2);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(word, 80'000);
}

// ---- Reasons ---------------------------------------------------------------------------

TEST(PinReason, NativeCodesHaveTheirTexts) {
  const std::pair<uint32_t, const char*> rows[] = {
      {REVISION_QUEUE_NEXT_PIN, "REVISION_QUEUE_NEXT_PIN or EVICTION_QUEUE_NEXT_PIN"},
      {REVISION_QUEUE_PREV_PIN, "REVISION_QUEUE_PREV_PIN or EVICTION_QUEUE_PREV_PIN"},
      {REVISION_QUEUE_FIRST_PIN, "REVISION_QUEUE_FIRST_PIN or EVICTION_QUEUE_FIRST_PIN"},
      {REVISION_QUEUE_LAST_PIN, "REVISION_QUEUE_LAST_PIN or EVICTION_QUEUE_LAST_PIN"},
      {TRANSPORT_PIN, "TRANSPORT_PIN"},
      {INDEX_CONTAINER_PIN, "INDEX_CONTAINER_PIN"},
      {INDEXENTRY_INDEX_PIN, "INDEXENTRY_INDEX_PIN"},
      {PHANTOM_JAVA_PIN, "PHANTOM_JAVA_PIN"},
      {JNI_OVERFLOW_EVICTED_PIN, "JNI_OVERFLOW_EVICTED_PIN"},
      {MAPENTRY_VALUE_PIN, "MAPENTRY_VALUE_PIN or TREEENTRY_INDEX_PIN"},
      {JNI_EVICTLIST_PIN, "JNI_EVICTLIST_PIN"},
      {JNI_GET_PIN, "JNI_GET_PIN"},
      {JNI_QUERYREVISION_PIN, "JNI_QUERYREVISION_PIN"},
      {MAPENTRY_KEY_PIN, "MAPENTRY_KEY_PIN or TREEENTRY_ATTRIBUTE_PIN"},
      {TREEHEADER_MIN_PIN, "TREEHEADER_MIN_PIN"},
      {TREEHEADER_MAX_PIN, "TREEHEADER_MAX_PIN"},
      {TREEENTRY_NEXT_PIN, "TREEENTRY_NEXT_PIN"},
      {INDEX_ATTRIBUTE_PIN, "INDEX_ATTRIBUTE_PIN"},
      {LUOFFHEAPMAPVALUE_EVICTION_PIN, "LUOFFHEAPMAPVALUE_EVICTION_PIN"},
      {EVICTIONDATA_ALLOCATION_PIN, "EVICTIONDATA_ALLOCATION_PIN"},
      {BUCKET_FIRST_PIN, "BUCKET_FIRST_PIN"},
      {BUCKET_NEXT_PIN, "BUCKET_NEXT_PIN"},
      {LUOFFHEAPEVICTIONDATA_KEY_PIN, "LUOFFHEAPEVICTIONDATA_KEY_PIN"},
      {ALLOCATION_PIN, "ALLOCATION_PIN"},
      {INDEXENTRY_MAPENTRY_PIN, "INDEXENTRY_MAPENTRY_PIN"},
      {JNI_REMOVED_PIN, "JNI_REMOVED_PIN"},
      {JNI_INSERTED_PIN, "JNI_INSERTED_PIN"},
      {JNI_UPDATED_PIN, "JNI_UPDATED_PIN"},
      {NATIVE_TRANSIENT_GET_PIN, "NATIVE_TRANSIENT_GET_PIN"},
      {NATIVE_TRANSIENT_REMOVED_PIN, "NATIVE_TRANSIENT_REMOVED_PIN"},
      {JNI_ROLLBACK_PIN, "JNI_ROLLBACK_PIN"},
      {LUOFFHEAPMAPVALUE_KEY_PIN, "LUOFFHEAPMAPVALUE_KEY_PIN or LUOFFHEAPEVICTIONDATA_KEY_PIN"},
      {LUOFFHEAPMAPVALUE_VALUE_PIN, "LUOFFHEAPMAPVALUE_VALUE_PIN"},
  };
  for (const auto& [code, text] : rows) EXPECT_STREQ(getReason(code), text) << code;
}

TEST(PinReason, NativeCodesHaveTheirValues) {
  // The numbers are shared with Java and with recorded traces, so they are written out here.
  const std::pair<uint32_t, uint32_t> rows[] = {
      {REVISION_QUEUE_NEXT_PIN, 1},
      {EVICTION_QUEUE_NEXT_PIN, 1},
      {REVISION_QUEUE_PREV_PIN, 2},
      {EVICTION_QUEUE_PREV_PIN, 2},
      {REVISION_QUEUE_FIRST_PIN, 4},
      {EVICTION_QUEUE_FIRST_PIN, 4},
      {REVISION_QUEUE_LAST_PIN, 8},
      {EVICTION_QUEUE_LAST_PIN, 8},
      {TRANSPORT_PIN, 16},
      {INDEX_CONTAINER_PIN, 32},
      {INDEXENTRY_INDEX_PIN, 64},
      {PHANTOM_JAVA_PIN, 128},
      {JNI_OVERFLOW_EVICTED_PIN, 256},
      {MAPENTRY_VALUE_PIN, 512},
      {TREEENTRY_INDEX_PIN, 512},
      {JNI_EVICTLIST_PIN, 513},
      {JNI_GET_PIN, 1024},
      {JNI_QUERYREVISION_PIN, 2048},
      {MAPENTRY_KEY_PIN, 4096},
      {TREEENTRY_ATTRIBUTE_PIN, 4096},
      {TREEHEADER_MIN_PIN, 8192},
      {TREEHEADER_MAX_PIN, 16384},
      {TREEENTRY_NEXT_PIN, 32768},
      {INDEX_ATTRIBUTE_PIN, 65536},
      {LUOFFHEAPMAPVALUE_EVICTION_PIN, 131072},
      {EVICTIONDATA_ALLOCATION_PIN, 262144},
      {BUCKET_FIRST_PIN, 393216},
      {BUCKET_NEXT_PIN, 524288},
      {LUOFFHEAPEVICTIONDATA_KEY_PIN, 1048576},
      {ALLOCATION_PIN, 2097152},
      {INDEXENTRY_MAPENTRY_PIN, 4194304},
      {JNI_REMOVED_PIN, 8388608},
      {JNI_INSERTED_PIN, 8388609},
      {JNI_UPDATED_PIN, 8388610},
      {NATIVE_TRANSIENT_GET_PIN, 16777216},
      {NATIVE_TRANSIENT_REMOVED_PIN, 33554432},
      {JNI_ROLLBACK_PIN, 67108864},
      {LUOFFHEAPMAPVALUE_KEY_PIN, 134217728},
      {LUOFFHEAPMAPVALUE_VALUE_PIN, 268435456},
      {JNI_CONVERT_FROM_JAVA_PIN, 2147483648U},
  };
  for (const auto& [constant, value] : rows) EXPECT_EQ(constant, value);
}

TEST(PinReason, JavaCodesHaveTheirTexts) {
  const std::tuple<uint32_t, uint32_t, const char*> rows[] = {
      {JAVA_GET_PIN, 1, "JAVA_GET_PIN"},
      {JAVA_LUOFFHEAPMAPVALUE_ITERATOR_PIN, 2, "JAVA_LUOFFHEAPMAPVALUE_ITERATOR_PIN"},
      {JAVA_FREE_PIN, 4, "JAVA_FREE_PIN"},
      {JAVA_TRANSIENT_PIN, 8, "JAVA_TRANSIENT_PIN"},
      {JAVA_OFFHEAPENTRY_LUVALUE_PIN, 16, "JAVA_OFFHEAPENTRY_LUVALUE_PIN"},
      {JAVA_OFFHEAPENTRY_VALUE_PIN, 17, "JAVA_OFFHEAPENTRY_VALUE_PIN"},
      {JAVA_OFFHEAPENTRY_PREV_LUVALUE_PIN, 32, "JAVA_OFFHEAPENTRY_PREV_LUVALUE_PIN"},
      {JAVA_OFFHEAPENTRY_KEY_PIN, 64, "JAVA_OFFHEAPENTRY_KEY_PIN"},
      {JAVA_EVICTED_PIN, 128, "JAVA_EVICTED_PIN"},
      {JAVA_PUTINTOMAP_PIN, 256, "JAVA_PUTINTOMAP_PIN"},
      {JAVA_REMOVE_PIN, 512, "JAVA_REMOVE_PIN"},
      {JAVA_EVICTLIST_PIN, 513, "JAVA_EVICTLIST_PIN"},
      {JAVA_CONTAINSKEY_PIN, 1024, "JAVA_CONTAINSKEY_PIN"},
      {JAVA_SESSIONIMPL_PIN, 2048, "JAVA_SESSIONIMPL_PIN"},
      {JAVA_LUBYTEBUFFERMANAGER_RELEASE, 4096, "JAVA_LUBYTEBUFFERMANAGER_RELEASE"},
      {JAVA_TRANSPORT_PIN, 8192, "JAVA_TRANSPORT_PIN"},
      {JAVA_REMOVED_LIST_TRACKING_PIN, 16384, "JAVA_REMOVED_LIST_TRACKING_PIN"},
      {JAVA_REMOVE_REAPER_PIN, 32768, "JAVA_REMOVE_REAPER_PIN"},
      {JAVA_TRANSACTION_COMPLETED, 32769, "JAVA_TRANSACTION_COMPLETED"},
      {JAVA_OFFHEAPENTRY_CLONE_KEY_PIN, 32770, "JAVA_OFFHEAPENTRY_CLONE_KEY_PIN"},
      {JAVA_OFFHEAPENTRY_CLONE_VALUE_PIN, 32771, "JAVA_OFFHEAPENTRY_CLONE_VALUE_PIN"},
      {JAVA_OFFHEAPENTRY_CLONE_LUVALUE_PIN, 32772, "JAVA_OFFHEAPENTRY_CLONE_LUVALUE_PIN"},
      {JAVA_OFFHEAPENTRY_CLONE_PREV_LUVALUE_PIN, 32773, "JAVA_OFFHEAPENTRY_CLONE_PREV_LUVALUE_PIN"},
      {JAVA_COLLISION_PIN, 32774, "JAVA_COLLISION_PIN"},
      {JAVA_QUERYREVISION_STANDARD_PIN, 32775, "JAVA_QUERYREVISION_STANDARD_PIN"},
      {JAVA_QUERYREVISION_SENDKEYS_PIN, 32776, "JAVA_QUERYREVISION_SENDKEYS_PIN"},
      {JAVA_NOF_REVERSEMAP_PIN, 32778, "JAVA_NOF_REVERSEMAP_PIN"},
      {JAVA_NOF_EVICTED_PIN, 32779, "JAVA_NOF_EVICTED_PIN"},
      {JAVA_DMV_VERSIONED_VALUE_PIN, 32780, "JAVA_DMV_VERSIONED_VALUE_PIN"},
      {JAVA_REMOVED_LIST_CHECKING_PIN, 32781, "JAVA_REMOVED_LIST_CHECKING_PIN"},
  };
  for (const auto& [constant, value, text] : rows) {
    EXPECT_EQ(constant, value);
    EXPECT_STREQ(getReason(kJava | constant), text);
  }
}

TEST(PinReason, OtherCodesAreUnknown) {
  for (const uint32_t code : {0U, 3U, 5U, 514U, 0x60001U, 0x800003U, 0x20000000U, 0x7fffffffU}) {
    EXPECT_STREQ(getReason(code), "UNKNOWN NATIVE PIN") << code;
  }
  for (const uint32_t code : {0U, 3U, 18U, 514U, 32777U, 32782U, 65536U, 0x7fffffffU}) {
    EXPECT_STREQ(getReason(kJava | code), "UNKNOWN JAVA PIN") << code;
  }
}

TEST(PinReason, SameLowBitsReadDifferentlyOnEachSide) {
  EXPECT_STREQ(getReason(32768), "TREEENTRY_NEXT_PIN");
  EXPECT_STREQ(getReason(kJava | 32768), "JAVA_REMOVE_REAPER_PIN");
}

TEST(PinReason, BucketFirstIsTheSumOfTwoCodes) {
  EXPECT_EQ(BUCKET_FIRST_PIN, LUOFFHEAPMAPVALUE_EVICTION_PIN + EVICTIONDATA_ALLOCATION_PIN);
  EXPECT_STREQ(getReason(LUOFFHEAPMAPVALUE_EVICTION_PIN | EVICTIONDATA_ALLOCATION_PIN),
               "BUCKET_FIRST_PIN");
}

TEST(PinReason, TextOfTheValueKeyPinAlsoNamesTheEvictionKeyPin) {
  EXPECT_NE(LUOFFHEAPMAPVALUE_KEY_PIN, LUOFFHEAPEVICTIONDATA_KEY_PIN);
  EXPECT_STREQ(getReason(LUOFFHEAPMAPVALUE_KEY_PIN),
               "LUOFFHEAPMAPVALUE_KEY_PIN or LUOFFHEAPEVICTIONDATA_KEY_PIN");
}

// ---- Pins ------------------------------------------------------------------------------

class Pins : public LibraryTest {
 protected:
  // The records without the backtrace lines, which must all carry the object's address.
  std::vector<std::string> linesWithoutBacktrace(const void* object, const char* function) {
    std::vector<std::string> lines;
    const std::string prefix = "debug|JNI:" + std::string(function) + ":";
    int backtraceLines = 0;
    for (const std::string& line : jni.lines()) {
      if (line.starts_with(prefix)) {
        EXPECT_THAT(line, StartsWith(prefix + printed(object) + ": "));
        ++backtraceLines;
      } else {
        lines.push_back(line);
      }
    }
    EXPECT_GT(backtraceLines, 0);
    EXPECT_LE(backtraceLines, 100);
    return lines;
  }
};

TEST_F(Pins, AreCounted) {
  Pinnable object{0};
  EXPECT_EQ(pin(env, &object, TRANSPORT_PIN), 1);
  EXPECT_EQ(pin(env, &object, TRANSPORT_PIN), 2);
  EXPECT_EQ(unpin(env, &object, TRANSPORT_PIN), 1);
  EXPECT_EQ(unpin(env, &object, TRANSPORT_PIN), 0);
  EXPECT_EQ(object.pins, 0);
}

TEST_F(Pins, OfABufferHeaderAreItsFirstField) {
  ByteBufferHeader header{};
  EXPECT_EQ(pin(env, &header, TRANSPORT_PIN), 1);
  EXPECT_EQ(header.pins, 1);
  EXPECT_EQ(unpin(env, &header, TRANSPORT_PIN), 0);
}

TEST_F(Pins, MayGoBelowZero) {
  Pinnable object{0};
  EXPECT_EQ(unpin(env, &object, TRANSPORT_PIN), -1);
  EXPECT_EQ(unpin(env, &object, TRANSPORT_PIN), -2);
  EXPECT_EQ(pin(env, &object, TRANSPORT_PIN), -1);
}

TEST_F(Pins, AreReportedWithTheirLow32Bits) {
  Pinnable object{0xffffffff};
  EXPECT_EQ(pin(env, &object, TRANSPORT_PIN), 0);
  EXPECT_EQ(object.pins, 0x100000000);
  EXPECT_EQ(unpin(env, &object, TRANSPORT_PIN), -1);
  EXPECT_EQ(object.pins, 0xffffffff);
}

TEST_F(Pins, MakeNoJniCallWithEveryLevelOff) {
  Pinnable object{0};
  jni.clearCalls();
  pin(env, &object, TRANSPORT_PIN);
  unpin(env, &object, TRANSPORT_PIN);
  EXPECT_THAT(jni.calls(), IsEmpty());
}

TEST_F(Pins, AreTracedAtEventLevel) {
  setLevels(kEventLevel);
  Pinnable object{4};
  pin(env, &object, ALLOCATION_PIN);
  unpin(env, &object, kJava | JAVA_FREE_PIN);
  const std::string header = "header=" + printed(&object);
  EXPECT_THAT(jni.lines(),
              ElementsAre("event|JNI:pin:enter pin: " + header + ", reason=ALLOCATION_PIN",
                          "event|JNI:pin:exit pin: " + header + ", pins=5",
                          "event|JNI:unpin:enter unpin: " + header + ", reason=JAVA_FREE_PIN",
                          "event|JNI:unpin:exit unpin: " + header + ", pins=4"));
}

TEST_F(Pins, AreTracedWithABacktraceAtDebugLevel) {
  setLevels(kDebugLevel | kEventLevel);
  Pinnable object{4};
  pin(env, &object, ALLOCATION_PIN);
  const std::string header = "header=" + printed(&object);
  EXPECT_THAT(jni.lines().front(),
              "debug|JNI:pin:enter pin: " + header + ", reason=ALLOCATION_PIN");
  EXPECT_THAT(jni.lines().back(), "debug|JNI:pin:exit pin: " + header + ", pins=5");
  EXPECT_EQ(linesWithoutBacktrace(&object, "pin backtrace").size(), 2U)
      << "debug takes the place of event";
  jni.clearRecords();
  unpin(env, &object, ALLOCATION_PIN);
  EXPECT_THAT(linesWithoutBacktrace(&object, "unpin backtrace"),
              ElementsAre("debug|JNI:unpin:enter unpin: " + header + ", reason=ALLOCATION_PIN",
                          "debug|JNI:unpin:exit unpin: " + header + ", pins=4"));
}

TEST_F(Pins, HaveOneThreadThatDropsTheLast) {
  constexpr int kThreads = 4;
  constexpr int kTurns = 5'000;
  Pinnable object{kThreads * kTurns};
  std::atomic<int> last{0};
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&object, &last] {
      ScriptedJni mine;
      for (int turn = 0; turn < kTurns; ++turn) {
        pin(mine.env(), &object, TRANSPORT_PIN);
        unpin(mine.env(), &object, TRANSPORT_PIN);
        if (unpin(mine.env(), &object, TRANSPORT_PIN) == 0) ++last;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(object.pins, 0);
  EXPECT_EQ(last, 1);
}

// ---- Buffer headers --------------------------------------------------------------------

class BufferHeader : public LibraryTest {};

TEST_F(BufferHeader, HasItsOffsets) {
  ByteBufferHeader header{};
  const auto* base = reinterpret_cast<const uint8_t*>(&header);
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(&header.pins) - base, 0);
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(&header.dataSize) - base, 8);
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(&header.deserializedType) - base, 16);
  EXPECT_EQ(bufferData(&header) - base, 24);
  EXPECT_EQ(headerOfData(bufferData(&header)), &header);
  EXPECT_EQ(sizeof header, 24U);
  EXPECT_EQ(sizeof(Pinnable), 8U);
}

TEST_F(BufferHeader, StartsUnpinnedAndUntyped) {
  ByteBufferHeader* header = allocateByteBufferData(env, 100, "Key Data");
  ASSERT_NE(header, nullptr);
  EXPECT_EQ(header->pins, 0);
  EXPECT_EQ(header->dataSize, 100U);
  EXPECT_EQ(header->deserializedType, 0);
  EXPECT_GE(sizeofByteBufferHeader(header), 124U);
  EXPECT_EQ(sizeofByteBufferHeader(header), getUsableSize(header));
  std::fill_n(bufferData(header), 100, uint8_t{0xa5});
  freeByteBufferData(env, header);
}

TEST_F(BufferHeader, MayHoldNoData) {
  ByteBufferHeader* header = allocateByteBufferData(env, 0, "Key Data");
  ASSERT_NE(header, nullptr);
  EXPECT_EQ(header->dataSize, 0U);
  EXPECT_GE(sizeofByteBufferHeader(header), 24U);
  freeByteBufferData(env, header);
}

TEST_F(BufferHeader, IsRequestedWithTwentyFourBytesMore) {
  static uint64_t requested;
  static std::string label;
  faults::refuseAllocation = [](uint64_t size, const char* type) {
    requested = size;
    label = type;
    return false;
  };
  freeByteBufferData(env, allocateByteBufferData(env, 100, "Value Data"));
  faults::refuseAllocation = nullptr;
  EXPECT_EQ(requested, 124U);
  EXPECT_EQ(label, "Value Data");
}

TEST_F(BufferHeader, PassesTheUncheckedFlagOn) {
  maxOffHeapSize = 0;
  EXPECT_EQ(allocateByteBufferData(env, 100, "Key Data"), nullptr);
  EXPECT_EQ(jni.takePending()->className, kIllegalState);
  EXPECT_EQ(allocateByteBufferData(env, 100, 0, "Key Data"), nullptr);
  EXPECT_EQ(jni.takePending()->className, kIllegalState);
  ByteBufferHeader* header = allocateByteBufferData(env, 100, 1, "Key Data");
  ASSERT_NE(header, nullptr);
  freeByteBufferData(env, header);
}

TEST_F(BufferHeader, IsTraced) {
  setLevels(kDebugLevel);
  ByteBufferHeader* header = allocateByteBufferData(env, 100, "Key Data");
  const std::string usable = std::to_string(sizeofByteBufferHeader(header));
  EXPECT_EQ(jni.lines().front(),
            "debug|JNI:allocateByteBufferData:start sub-allocation. size=124 dataSize=100");
  EXPECT_EQ(jni.lines().back(),
            "debug|JNI:allocateByteBufferData:sub-allocation was finished. size=" + usable +
                " dataSize=100 allocated=" + printed(header));
  EXPECT_EQ(jni.records().size(), 4U) << "with the allocator's two records between them";
  setLevels(0);
  freeByteBufferData(env, header);
}

TEST_F(BufferHeader, RefusalIsTraced) {
  setLevels(kDebugLevel);
  const RefuseAllocation nothingLeft(1);
  EXPECT_EQ(allocateByteBufferData(env, 100, "Key Data"), nullptr);
  EXPECT_EQ(jni.lines().back(),
            "debug|JNI:allocateByteBufferData:sub-allocation was failed. size=124 dataSize=100");
}

TEST_F(BufferHeader, IsFreedWhateverItsCount) {
  ByteBufferHeader* header = allocateByteBufferData(env, 100, "Key Data");
  pin(env, header, TRANSPORT_PIN);
  pin(env, header, TRANSPORT_PIN);
  const int64_t blocks = allocatingOffHeapBlocks;
  freeByteBufferData(env, header);
  EXPECT_EQ(allocatingOffHeapBlocks, blocks - 1);
}

TEST_F(BufferHeader, LastUnpinFreesIt) {
  ByteBufferHeader* header = allocateByteBufferData(env, 100, "Key Data");
  pin(env, header, ALLOCATION_PIN);
  const int64_t blocks = allocatingOffHeapBlocks;
  EXPECT_EQ(unpinToFree(env, header, ALLOCATION_PIN), 0);
  EXPECT_EQ(allocatingOffHeapBlocks, blocks - 1);
}

TEST_F(BufferHeader, EarlierUnpinKeepsIt) {
  ByteBufferHeader* header = allocateByteBufferData(env, 100, "Key Data");
  pin(env, header, ALLOCATION_PIN);
  pin(env, header, TRANSPORT_PIN);
  const int64_t blocks = allocatingOffHeapBlocks;
  EXPECT_EQ(unpinToFree(env, header, TRANSPORT_PIN), 1);
  EXPECT_EQ(allocatingOffHeapBlocks, blocks);
  EXPECT_EQ(header->dataSize, 100U);
  EXPECT_EQ(unpinToFree(env, header, ALLOCATION_PIN), 0);
}

TEST_F(BufferHeader, UnpinBelowZeroDoesNotFreeIt) {
  ByteBufferHeader* header = allocateByteBufferData(env, 100, "Key Data");
  const int64_t blocks = allocatingOffHeapBlocks;
  EXPECT_EQ(unpinToFree(env, header, TRANSPORT_PIN), -1);
  EXPECT_EQ(allocatingOffHeapBlocks, blocks);
  EXPECT_EQ(header->pins, -1);
  freeByteBufferData(env, header);
}

TEST_F(BufferHeader, UnpinToFreeIsTracedAtEventLevel) {
  ByteBufferHeader* header = allocateByteBufferData(env, 100, "Key Data");
  pin(env, header, ALLOCATION_PIN);
  pin(env, header, TRANSPORT_PIN);
  setLevels(kEventLevel);
  unpinToFree(env, header, TRANSPORT_PIN);
  const std::string address = printed(header);
  EXPECT_THAT(
      jni.lines(),
      ElementsAre("event|JNI:unpin:enter unpin: header=" + address + ", reason=TRANSPORT_PIN",
                  "event|JNI:unpin:exit unpin: header=" + address + ", pins=1",
                  "event|JNI:unpinToFree:p=" + address + " pins=1 reason=TRANSPORT_PIN"));
  setLevels(0);
  unpinToFree(env, header, ALLOCATION_PIN);
}

TEST_F(BufferHeader, UnpinToFreeIsTracedAtDebugLevel) {
  ByteBufferHeader* header = allocateByteBufferData(env, 100, "Key Data");
  pin(env, header, ALLOCATION_PIN);
  setLevels(kDebugLevel);
  const std::string address = printed(header);
  unpinToFree(env, header, ALLOCATION_PIN);
  std::vector<std::string> lines;
  for (const std::string& line : jni.lines()) {
    if (!line.starts_with("debug|JNI:unpin backtrace:")) {
      lines.push_back(line.substr(0, line.find(" objSize=")));
    }
  }
  EXPECT_THAT(lines, ElementsAre("debug|JNI:unpinToFree:>entry",
                                 "debug|JNI:unpin:enter unpin: header=" + address +
                                     ", reason=ALLOCATION_PIN",
                                 "debug|JNI:unpin:exit unpin: header=" + address + ", pins=0",
                                 StartsWith("debug|JNI:free_nb:jemalloc toFree=" + address),
                                 "debug|JNI:free_nb:free=" + address,
                                 "debug|JNI:unpinToFree:<exit currentRefCount=0"));
}

}  // namespace
}  // namespace nimbra::test
