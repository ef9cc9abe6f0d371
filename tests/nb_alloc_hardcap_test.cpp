// The hard cap: when Java is asked to move values to disk, what it is told, and what follows from
// its answer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "manager_natives.h"
#include "overflow_support.h"

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kRefusalText =
    "[malloc_nb] Allocation by the Nimbra library failed. All available memory is used.";
constexpr jlong kRequest = 4'096;  // a size that the allocator does not round up

class HardCap : public OverflowTest {
 protected:
  void SetUp() override {
    OverflowTest::SetUp();
    initJemallocSizes();
    chunk = static_cast<jlong>(jemallocChunkSize.load());
    manager_natives::setInternalTracking(env, manager, JNI_TRUE);
  }
  void TearDown() override {
    logInfo.event = false;
    logInfo.debug = false;
    manager_natives::setInternalTracking(env, manager, JNI_FALSE);
    maxOffHeapSize = kAmpleMaximum;
    _hardCapLimit = hardCapOf(kAmpleMaximum);
    for (void* block : kept_) free_nb(env, block, 0);
    OverflowTest::TearDown();
  }

  // From here on this much counts as in use, below this maximum.
  void state(jlong maximum, jlong inUse) {
    maxOffHeapSize = maximum;
    _hardCapLimit = hardCapOf(maximum);
    allocatingOffHeapSize = inUse;
    calls.moreMemory.clear();
    jni.clearRecords();
  }
  static jlong capOf(jlong maximum) { return static_cast<jlong>(hardCapOf(maximum)); }
  // A maximum at which only the first test can be true at its boundary, and one at which only the
  // second can: 3 % of it are more, and less, than a chunk.
  jlong large() const { return 1000 * chunk; }
  jlong small() const { return 8 * chunk; }

  bool allocate(uint8_t unchecked = 0, const char* label = "Value Data", jlong size = kRequest) {
    void* block = malloc_nb(env, static_cast<uint64_t>(size), unchecked, label);
    if (block != nullptr) kept_.push_back(block);
    return block != nullptr;
  }
  // What was said about a sweep.
  std::vector<std::string> announcements() {
    std::vector<std::string> result;
    for (const std::string& line : jni.lines()) {
      if (line.ends_with("initiating hard-cap eviction sweep.")) result.push_back(line);
    }
    return result;
  }
  static std::string first(jlong inUse, jlong cap, const char* label = "Value Data") {
    return "event|JNI:malloc_nb:Current main-memory (" + std::to_string(inUse) +
           ") plus requested size (" + std::to_string(kRequest) + ") for (" + label +
           ") violates hard-cap limit (" + std::to_string(cap) +
           "): initiating hard-cap eviction sweep.";
  }
  static std::string second(jlong inUse, jlong cap, const char* label = "Value Data") {
    return "event|JNI:malloc_nb:Allocation of the requested size (" + std::to_string(kRequest) +
           ") for (" + label + ") will increment current size (" + std::to_string(inUse) +
           ") by the chunk size and violate the hard-cap limit (" + std::to_string(cap) +
           "): initiating hard-cap eviction sweep.";
  }

  jlong chunk = 0;

 private:
  std::vector<void*> kept_;
};

TEST_F(HardCap, LimitIsNinetySevenPercentOfTheMaximum) {
  EXPECT_EQ(capOf(100), 97);
  EXPECT_EQ(capOf(1'000'000'007), 970'000'006);
  EXPECT_EQ(capOf(0), 0);
}

TEST_F(HardCap, FirstTestMeasuresSizeAgainstTheHardCap) {
  const jlong cap = capOf(large());
  setLevels(kEventLevel);
  state(large(), cap - kRequest - 1);
  EXPECT_TRUE(allocate()) << "one byte below";
  EXPECT_THAT(calls.moreMemory, IsEmpty());
  EXPECT_THAT(announcements(), IsEmpty());

  state(large(), cap - kRequest);
  EXPECT_TRUE(allocate()) << "exactly at the cap";
  EXPECT_THAT(calls.moreMemory, ElementsAre(ElementsAre(cap, kRequest)));
  EXPECT_THAT(announcements(), ElementsAre(first(cap - kRequest, cap)));
}

TEST_F(HardCap, SecondTestMeasuresRoomBelowTheMaximum) {
  const jlong cap = capOf(small());
  const jlong room = small() - chunk;
  ASSERT_LT(room, cap) << "the first test must not be true here";
  setLevels(kEventLevel);
  state(small(), room - kRequest - 1);
  EXPECT_TRUE(allocate()) << "one byte more than a chunk is left";
  EXPECT_THAT(calls.moreMemory, IsEmpty());
  EXPECT_THAT(announcements(), IsEmpty());

  state(small(), room - kRequest);
  EXPECT_TRUE(allocate()) << "exactly a chunk is left";
  EXPECT_THAT(calls.moreMemory, ElementsAre(ElementsAre(cap, kRequest)));
  EXPECT_THAT(announcements(), ElementsAre(second(room - kRequest, cap)));
}

TEST_F(HardCap, SecondTestWrapsBehindTheMaximum) {
  setLevels(kEventLevel);
  state(small(), small() - kRequest + 1);
  EXPECT_FALSE(allocate()) << "one byte too much";
  EXPECT_THAT(announcements(), ElementsAre(first(small() - kRequest + 1, capOf(small()))));
  EXPECT_THAT(calls.moreMemory, ElementsAre(ElementsAre(capOf(small()), kRequest)));
  EXPECT_EQ(jni.takePending(), (Thrown{kNotEnoughResources, kRefusalText}));
  expectedBlocksDelta = 1;
}

TEST_F(HardCap, FirstTestWrapsForAnImpossibleSize) {
  setLevels(kEventLevel);
  state(small(), 1'000);
  const RefuseAllocation nothingLeft(1);
  EXPECT_EQ(malloc_nb(env, UINT64_MAX - 500, "Value Data"), nullptr);
  EXPECT_THAT(announcements(), IsEmpty());
  EXPECT_THAT(calls.moreMemory, IsEmpty());
  EXPECT_EQ(jni.pending(), std::nullopt);
}

TEST_F(HardCap, BothTestsAreAnnouncedAndJavaIsAskedOnce) {
  const jlong inUse = small() - 2 * kRequest - 4'096;
  setLevels(kEventLevel);
  state(small(), inUse);
  EXPECT_TRUE(allocate());
  EXPECT_THAT(announcements(),
              ElementsAre(first(inUse, capOf(small())), second(inUse, capOf(small()))));
  EXPECT_THAT(calls.moreMemory, ElementsAre(ElementsAre(capOf(small()), kRequest)));
}

TEST_F(HardCap, MissingLabelIsPrintedAsNull) {
  const jlong inUse = small() - 2 * kRequest - 4'096;
  setLevels(kEventLevel);
  state(small(), inUse);
  EXPECT_TRUE(allocate(0, nullptr));
  EXPECT_THAT(announcements(), ElementsAre(first(inUse, capOf(small()), "(null)"),
                                           second(inUse, capOf(small()), "(null)")));
}

TEST_F(HardCap, NothingIsAnnouncedWithoutTheEventLevel) {
  state(small(), small() - chunk);
  EXPECT_TRUE(allocate());
  EXPECT_THAT(jni.lines(), IsEmpty());
  EXPECT_THAT(calls.moreMemory, ElementsAre(ElementsAre(capOf(small()), kRequest)));
}

TEST_F(HardCap, MeasuresAreTracedFirst) {
  const jlong cap = capOf(small());
  setLevels(kDebugLevel);
  state(small(), 1'000);
  EXPECT_TRUE(allocate());
  ASSERT_FALSE(jni.lines().empty());
  EXPECT_EQ(jni.lines()[0], "debug|JNI:malloc_nb:allocating size=" + std::to_string(kRequest) +
                                " maxOffHeapSize=" + std::to_string(small()) +
                                " currentAllocatedSize=1000 jmChunkSize=" + std::to_string(chunk) +
                                " hardCapLimit=" + std::to_string(cap));
}

TEST_F(HardCap, WhatJavaFreesIsNotMeasuredAgainBeforehand) {
  state(small(), small() - 100);
  calls.onMoreMemory = [this](ScriptedJni&) { allocatingOffHeapSize = 1'000; };
  EXPECT_TRUE(allocate()) << "room was made";
  EXPECT_EQ(calls.moreMemory.size(), 1U);
  EXPECT_LT(allocatingOffHeapSize, 2 * kRequest + 1'000);
}

TEST_F(HardCap, MaximumIsNotCheckedBeforehand) {
  // The callback may do nothing: only the size behind the allocation counts, and it may be equal.
  state(small(), 0);
  ASSERT_TRUE(allocate());
  const jlong usable = allocatingOffHeapSize;
  setLevels(kErrorLevel);
  state(small(), small() - usable);
  EXPECT_TRUE(allocate());
  EXPECT_EQ(allocatingOffHeapSize, small());
  EXPECT_EQ(calls.moreMemory.size(), 1U);
  EXPECT_THAT(jni.lines(), IsEmpty());
}

TEST_F(HardCap, RefusalBehindTheAllocationKeepsTheCounts) {
  state(small(), 0);
  ASSERT_TRUE(allocate());
  const jlong usable = allocatingOffHeapSize;
  setLevels(kErrorLevel);
  state(small(), small() - usable + 1);
  const int64_t blocks = allocatingOffHeapBlocks;
  EXPECT_FALSE(allocate());
  EXPECT_EQ(jni.takePending(), (Thrown{kNotEnoughResources, kRefusalText}));
  EXPECT_THAT(jni.lines(), ElementsAre("error|OUT_OF_MEMORY_KTZAR7930"));
  EXPECT_EQ(allocatingOffHeapSize, small() + 1);
  EXPECT_EQ(allocatingOffHeapBlocks, blocks + 1);
  expectedBlocksDelta = 1;
}

TEST_F(HardCap, RefusalWithTheSwitchOffIsAnOutOfMemoryError) {
  state(small(), small());
  _isDiskOverflowEnabled = false;
  EXPECT_FALSE(allocate());
  _isDiskOverflowEnabled = true;
  EXPECT_EQ(calls.moreMemory.size(), 1U) << "the callback stays cached, and alone decides";
  EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory, kRefusalText}));
  expectedBlocksDelta = 1;
}

TEST_F(HardCap, UncheckedRequestsNeverAsk) {
  setLevels(kEventLevel);
  for (const uint8_t flag : {uint8_t{1}, uint8_t{255}}) {
    state(small(), small() + 5 * chunk);
    EXPECT_TRUE(allocate(flag, "Bookmarks"));
    EXPECT_THAT(calls.moreMemory, IsEmpty());
    EXPECT_THAT(announcements(), IsEmpty());
    EXPECT_EQ(jni.pending(), std::nullopt);
  }
}

TEST_F(HardCap, JavasExceptionRefusesAndStaysPending) {
  const Thrown thrown{"java/lang/RuntimeException", "no room on disk"};
  calls.onMoreMemory = [&](ScriptedJni& running) {
    running.throwNew(thrown.className, thrown.message);
  };
  setLevels(kErrorLevel | kWarningLevel | kEventLevel);
  state(small(), small() - chunk);
  const Books before = Books::now();
  EXPECT_FALSE(allocate());
  EXPECT_EQ(jni.takePending(), thrown);
  EXPECT_EQ(calls.moreMemory.size(), 1U);
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(allocatingOffHeapSize, small() - chunk);
  EXPECT_THAT(jni.lines(), ElementsAre(second(small() - chunk, capOf(small()))))
      << "neither an error record nor another exception";
}

TEST_F(HardCap, RecordOfJavasExceptionDoesNotReachJava) {
  // No call into Java is possible on top of the exception that stays.
  calls.onMoreMemory = [](ScriptedJni& running) {
    running.throwNew("java/lang/RuntimeException", "no room on disk");
  };
  setLevels(kDebugLevel);
  state(small(), small() - chunk);
  EXPECT_FALSE(allocate());
  EXPECT_TRUE(jni.takePending().has_value());
  for (const std::string& line : jni.lines()) {
    EXPECT_EQ(line.find("Exception in java code"), std::string::npos) << line;
  }
}

TEST_F(HardCap, ArgumentArrayThatCannotBeMadeRefuses) {
  state(small(), small() - chunk);
  const Thrown thrown{kOutOfMemory, "Java heap space"};
  jni.failCall("NewLongArray", 1, thrown);
  EXPECT_FALSE(allocate());
  EXPECT_EQ(jni.takePending(), thrown);
  EXPECT_THAT(calls.moreMemory, IsEmpty());
}

TEST_F(HardCap, PendingExceptionKeepsJavaFromBeingAsked) {
  state(small(), small() - chunk);
  jni.throwNew("java/lang/RuntimeException", "earlier");
  EXPECT_TRUE(allocate());
  EXPECT_THAT(calls.moreMemory, IsEmpty());
  EXPECT_EQ(jni.takePending(), (Thrown{"java/lang/RuntimeException", "earlier"}));
}

TEST_F(HardCap, AllocatorThatHasNothingLeftRaisesNothing) {
  state(small(), small() - chunk);
  const RefuseAllocation nothingLeft(1);
  EXPECT_FALSE(allocate());
  EXPECT_EQ(calls.moreMemory.size(), 1U);
  EXPECT_EQ(jni.pending(), std::nullopt);
  EXPECT_EQ(allocatingOffHeapSize, small() - chunk);
}

TEST_F(HardCap, WithoutTheCallbackTheMaximumAloneCounts) {
  const jmethodID cached = _moreMainMemoryNeededID;
  _moreMainMemoryNeededID = static_cast<jmethodID>(nullptr);
  state(small(), small() - kRequest - 1);
  EXPECT_TRUE(allocate(0, "Value Data", kRequest)) << "just below the maximum";
  state(small(), small() - kRequest);
  EXPECT_FALSE(allocate());
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, kRefusalText}));
  EXPECT_THAT(calls.moreMemory, IsEmpty());
  _moreMainMemoryNeededID = cached;
}

TEST_F(HardCap, InsertAsksForEachOfItsAllocations) {
  deleteMap(map);
  map = makeMap(1, 100.0F);  // the table has no need to grow
  std::vector<jlong> sizes;
  state(large(), capOf(large()));
  EXPECT_NE(insert("key", "value"), nullptr);
  for (const auto& call : calls.moreMemory) {
    EXPECT_EQ(call.at(0), capOf(large()));
    sizes.push_back(call.at(1));
  }
  // Key and value buffers with their headers, and the record of the overflow variant.
  EXPECT_THAT(sizes, ElementsAre(24 + 3, 24 + 5, 232));
}

TEST_F(HardCap, InsertThatJavaRefusesChangesNothing) {
  EXPECT_NE(insert("first", "value"), nullptr);
  const Rows rows = contentsOf(map);
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("value");
  const Books before = Books::now();
  state(large(), capOf(large()));
  const Thrown thrown{"java/lang/RuntimeException", "no room on disk"};
  calls.onMoreMemory = [&](ScriptedJni& running) {
    running.throwNew(thrown.className, thrown.message);
  };
  const jobject javaKey = javaBuffer(key);
  EXPECT_EQ(insertAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, hashFn(key),
                         false, value, 0, 1),
            nullptr);
  EXPECT_EQ(jni.takePending(), thrown);
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(contentsOf(map), rows);
  checkMap(env, map);
  drop(key);
  drop(value);
}

}  // namespace
}  // namespace nimbra::test
