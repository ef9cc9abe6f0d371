// Start-up of the overflow layer: what it makes and writes down, and every way in which it fails
// and leaves a library that runs without overflow.

#include <gmock/gmock.h>

#include <cerrno>
#include <string>
#include <vector>

#include "manager_natives.h"
#include "overflow_support.h"

namespace nimbra::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kFailed[] =
    "errorGeneric|OVERFLOW_GENERIC_ERROR_KTZAR7931|overflow error during initializing";
constexpr char kMoreMemory[] = "moreMainMemoryNeeded";

// The layer not yet started, its Java classes present.
class OverflowStart : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    defineOverflowCallbacks(jni, calls);
  }
  void TearDown() override {
    forgetOverflow(env, jni);
    LibraryTest::TearDown();
  }

  // A start that has to fail: answers what reached the logger as errors.
  std::vector<std::string> failedStart() {
    const Books before = Books::now();
    setLevels(kErrorLevel);
    EXPECT_FALSE(initialize_overflow(env, manager));
    EXPECT_FALSE(jni.pending().has_value()) << *jni.pending();
    EXPECT_EQ(_headerNodes, nullptr);
    EXPECT_EQ(_mapHeadersForHeaderNodes, nullptr);
    EXPECT_EQ(Books::now(), before);
    EXPECT_EQ(heldLockCount(), 0);
    return jni.lines();
  }
  // The same for one that fails over Java's classes: the last error says so.
  void expectFailedStart() { EXPECT_THAT(failedStart(), Contains(kFailed)); }
  int lookUps(const char* slot) {
    jni.clearCalls();
    EXPECT_FALSE(initialize_overflow(env, manager));
    return jni.callCount(slot);
  }
  std::vector<std::string> linesOf(const std::string& function) const {
    std::vector<std::string> result;
    for (const std::string& line : jni.lines()) {
      if (line.find("|JNI:" + function + ":") != std::string::npos) result.push_back(line);
    }
    return result;
  }

  OverflowCalls calls;
};

// ---- Success -----------------------------------------------------------------------------

TEST_F(OverflowStart, MakesAThousandEmptyLists) {
  const int64_t blocks = lockRead(&allocatingOffHeapBlocks);
  _roundRobinIndex = 77U;
  ASSERT_TRUE(initialize_overflow(env, manager));
  EXPECT_EQ(lockRead(&allocatingOffHeapBlocks), blocks + 2);
  EXPECT_TRUE(checkLists().empty());
  EXPECT_EQ(_roundRobinIndex, 0U);
  for (int list = 0; list < kOverflowLists; ++list) {
    overflow_metadata* const header = headerOf(list);
    EXPECT_EQ(header->mapHeader, &_mapHeadersForHeaderNodes[list]);
    EXPECT_EQ(header->mapHeader->map_id, -2147483647);
    EXPECT_EQ(header->mapHeader->map_set_id, -2147483647);
    EXPECT_EQ(header->mapHeader->numBucketSets, 0U);
    EXPECT_EQ(header->flags, 0);
    EXPECT_EQ(header->next, header);
    EXPECT_EQ(header->prev, header);
    EXPECT_TRUE(is_header_node(env, header));
  }
}

TEST_F(OverflowStart, CachesClassesAndMethodsForGood) {
  ASSERT_TRUE(initialize_overflow(env, manager));
  EXPECT_EQ(jni.refType(_nofStructClass.load()), JNIGlobalRefType);
  EXPECT_EQ(jni.refType(_overflowClass.load()), JNIGlobalRefType);
  const jclass nofStruct = jni.adopt(env->FindClass(kNofStructClass));
  EXPECT_TRUE(jni.sameObject(_nofStructClass.load(), nofStruct));
  EXPECT_EQ(_nofStructUpdatingNativeID.load(),
            env->GetStaticMethodID(nofStruct, "updatingNative", "([J)V"));
  EXPECT_EQ(_nofStructDeletingNativeID.load(),
            env->GetStaticMethodID(nofStruct, "deletingNative", "([J)V"));
  EXPECT_EQ(_nofStructGetOccurredID.load(),
            env->GetStaticMethodID(nofStruct, "getOccurred", "([I)V"));
  const jclass overflow = jni.adopt(env->FindClass(kOverflowClass));
  EXPECT_TRUE(jni.sameObject(_overflowClass.load(), overflow));
  EXPECT_EQ(_moreMainMemoryNeededID.load(), env->GetStaticMethodID(overflow, kMoreMemory, "([J)V"));
  EXPECT_EQ(jni.liveLocals(), 0U);
}

TEST_F(OverflowStart, WritesItsStepsInOrder) {
  setLevels(kAllLevels);
  ASSERT_TRUE(initialize_overflow(env, manager));
  const std::string head = "JNI:initialize_overflow:";
  std::vector<std::string> expected = {
      "entry|" + head + "initializing headers",
      "debug|" + head + "Number of metadata lists = 1000",
      "event|" + head + "NOF overflow_metadata_t headers for lists allocated",
      "event|" + head + "NOF MapHeaders for lists allocated",
  };
  for (int list = 0; list < kOverflowLists; ++list) {
    expected.push_back("debug|" + head + "mapHeader[" + std::to_string(list) + "] @ " +
                       printed(&_mapHeadersForHeaderNodes[list]));
  }
  for (int list = 0; list < kOverflowLists; ++list) {
    const std::string node = printed(headerOf(list));
    expected.push_back("debug|" + head + "headerNode[" + std::to_string(list) + "] @ " + node);
    expected.push_back("debug|" + head + "KLOR header node " + std::to_string(list) +
                       ": KLOR initialize_overflow: " + node + ": HEADER node xx, prev=" + node +
                       ", next=" + node + ", locked=0");
  }
  for (const char* line :
       {"debug|JNI:initialize_overflow:KLOR _headerNodes initialized",
        "debug|JNI:initialize_overflow:Caching Java JNI overflow classes and methods",
        "debug|JNI:initialize_overflow:Initializing cacheiter singleton",
        "exit|JNI:initialize_overflow:KLOR _headerNodes initialized"}) {
    expected.push_back(line);
  }
  EXPECT_EQ(linesOf("initialize_overflow"), expected);
  EXPECT_THAT(jni.lines(), Contains("info|OVERFLOW_ACTIVATED_KTZAR7932").Times(1));
  EXPECT_EQ(linesOf("overflow_metadata_lock_init").size(), 2000U);
}

TEST_F(OverflowStart, SaysNothingWhileTheLevelsAreOff) {
  setLevels(kErrorLevel | kWarningLevel | kFatalLevel);
  ASSERT_TRUE(initialize_overflow(env, manager));
  EXPECT_THAT(jni.records(), IsEmpty());
}

// ---- Memory and locks --------------------------------------------------------------------

TEST_F(OverflowStart, FailsWithoutMemoryForTheHeaders) {
  const RefuseAllocation refusal(1);
  EXPECT_THAT(failedStart(), ElementsAre("errorGeneric|OVERFLOW_GENERIC_ERROR_KTZAR7931|"
                                         "overflow _headerNodes is null"));
  EXPECT_EQ(jni.callCount("FindClass"), 0);
}

TEST_F(OverflowStart, FailsWithoutMemoryForTheTablesOfTheHeaders) {
  const RefuseAllocation refusal(2);
  EXPECT_THAT(failedStart(), ElementsAre("errorGeneric|OVERFLOW_GENERIC_ERROR_KTZAR7931|"
                                         "overflow _mapHeadersForHeaderNodes is null"));
}

TEST_F(OverflowStart, ClearsTheExceptionOfARefusedAllocation) {
  for (int nth = 1; nth <= 2; ++nth) {
    SCOPED_TRACE(nth);
    const RefuseAllocation refusal(nth, RefuseAllocation::Way::kOverMaximum);
    EXPECT_THAT(failedStart(),
                Contains(std::string("errorGeneric|OVERFLOW_GENERIC_ERROR_KTZAR7931|") +
                         (nth == 1 ? "overflow _headerNodes is null"
                                   : "overflow _mapHeadersForHeaderNodes is null")));
    EXPECT_TRUE(refusal.fired());
    EXPECT_GE(jni.described(), nth) << "the refusal is described before it is cleared";
  }
}

TEST_F(OverflowStart, FailsWithTheLockOfAnyHeader) {
  for (const int nth : {1, 2, 500, 1000}) {
    for (const LockOp operation : {LockOp::attributesInit, LockOp::init, LockOp::conditionInit}) {
      SCOPED_TRACE(std::to_string(nth) + ", operation " +
                   std::to_string(static_cast<int>(operation)));
      const FailLock failure(LockRank::node, operation, nth, ENOMEM);
      const std::vector<std::string> lines = failedStart();
      EXPECT_TRUE(failure.fired());
      EXPECT_THAT(lines, Contains("errorGeneric|OVERFLOW_GENERIC_ERROR_KTZAR7931|"
                                  "overflow_metadata_lock_init not successful of[20]"));
    }
  }
}

TEST_F(OverflowStart, FailsWithEitherMutexOfTheSweep) {
  for (const LockRank rank : {LockRank::anchor, LockRank::sweepState}) {
    SCOPED_TRACE(static_cast<int>(rank));
    const FailLock failure(rank, LockOp::init, 1, EAGAIN);
    EXPECT_THAT(failedStart(), Contains(kFailed));
    EXPECT_TRUE(failure.fired());
  }
  EXPECT_NE(_nofStructGetOccurredID.load(), nullptr) << "Java's side stays cached";
  expectedGlobalsDelta = 2;  // of the first of the two starts
}

// ---- Java's classes ----------------------------------------------------------------------

TEST_F(OverflowStart, FailsWithoutNofStructAndStillLooksForOverflow) {
  jni.hideClass(kNofStructClass);
  expectFailedStart();
  EXPECT_EQ(_nofStructClass.load(), nullptr);
  EXPECT_NE(_overflowClass.load(), nullptr) << "what was found is kept";
  EXPECT_NE(_moreMainMemoryNeededID.load(), nullptr);
  setLevels(0);
  ++expectedGlobalsDelta;
  EXPECT_EQ(lookUps("GetStaticMethodID"), 1)
      << "the three methods of the missing class are skipped";
}

TEST_F(OverflowStart, FailsWithoutOverflow) {
  jni.hideClass(kOverflowClass);
  expectFailedStart();
  EXPECT_NE(_nofStructClass.load(), nullptr);
  EXPECT_NE(_nofStructUpdatingNativeID.load(), nullptr);
  EXPECT_NE(_nofStructDeletingNativeID.load(), nullptr);
  EXPECT_NE(_nofStructGetOccurredID.load(), nullptr);
  EXPECT_EQ(_overflowClass.load(), nullptr);
  setLevels(0);
  ++expectedGlobalsDelta;
  EXPECT_EQ(lookUps("GetStaticMethodID"), 3);
}

TEST_F(OverflowStart, FailsWithoutBothClasses) {
  jni.hideClass(kNofStructClass);
  jni.hideClass(kOverflowClass);
  expectFailedStart();
  setLevels(0);
  EXPECT_EQ(lookUps("GetStaticMethodID"), 0);
  EXPECT_EQ(lookUps("FindClass"), 2);
}

TEST_F(OverflowStart, FailsWithoutAnyMethodAndStillLooksForTheOthers) {
  for (const char* missing : {"updatingNative", "deletingNative", "getOccurred", kMoreMemory}) {
    SCOPED_TRACE(missing);
    forgetOverflow(env, jni);
    jni.removeMethod(missing == kMoreMemory ? kOverflowClass : kNofStructClass, missing);
    expectFailedStart();
    const std::string gone = missing;
    EXPECT_EQ(_nofStructUpdatingNativeID.load() == nullptr, gone == "updatingNative");
    EXPECT_EQ(_nofStructDeletingNativeID.load() == nullptr, gone == "deletingNative");
    EXPECT_EQ(_nofStructGetOccurredID.load() == nullptr, gone == "getOccurred");
    EXPECT_EQ(_moreMainMemoryNeededID.load() == nullptr, gone == kMoreMemory);
    defineOverflowCallbacks(jni, calls);
  }
}

TEST_F(OverflowStart, FailsWhenALookUpAnswersNullQuietly) {
  const struct {
    const char* slot;
    int calls;
  } slots[] = {{"FindClass", 2}, {"NewGlobalRef", 2}, {"GetStaticMethodID", 4}};
  for (const auto& slot : slots) {
    for (int nth = 1; nth <= slot.calls; ++nth) {
      SCOPED_TRACE(std::string(slot.slot) + " " + std::to_string(nth));
      forgetOverflow(env, jni);
      setLevels(0);
      jni.failCall(slot.slot, nth);
      EXPECT_FALSE(initialize_overflow(env, manager));
      EXPECT_EQ(_headerNodes, nullptr);
      EXPECT_EQ(jni.liveLocals(), 0U);
    }
  }
  forgetOverflow(env, jni);
  setLevels(kErrorLevel);
  jni.failCall("NewGlobalRef", 1);
  EXPECT_FALSE(initialize_overflow(env, manager));
  EXPECT_THAT(jni.lines(), Contains(kFailed)) << "also without an exception";
}

TEST_F(OverflowStart, FailsWhenALookUpThrows) {
  for (const char* slot : {"FindClass", "NewGlobalRef", "GetStaticMethodID"}) {
    for (int nth = 1; nth <= 2; ++nth) {
      SCOPED_TRACE(std::string(slot) + " " + std::to_string(nth));
      forgetOverflow(env, jni);
      setLevels(0);
      jni.failCall(slot, nth, Thrown{kOutOfMemory, "no more"});
      EXPECT_FALSE(initialize_overflow(env, manager));
      EXPECT_FALSE(jni.pending().has_value());
      EXPECT_EQ(_headerNodes, nullptr);
    }
  }
}

TEST_F(OverflowStart, ALaterStartMakesGoodAFailedOne) {
  jni.hideClass(kOverflowClass);
  EXPECT_FALSE(initialize_overflow(env, manager));
  jni.showClass(kOverflowClass);
  EXPECT_TRUE(initialize_overflow(env, manager));
  EXPECT_TRUE(checkLists().empty());
  expectedGlobalsDelta = 1;  // the class that the failed start had found
}

// ---- Through the library's own start -----------------------------------------------------

class LibraryStart : public OverflowStart {
 protected:
  bool start() {
    ++expectedGlobalsDelta;  // every complete start makes a new reference to the map class
    return manager_natives::initializeOffHeap(env, manager, kAmpleMaximum, 0, 0, JNI_TRUE) ==
           JNI_TRUE;
  }
};

TEST_F(LibraryStart, StartsTheLayerWithTheSwitchOn) {
  EXPECT_TRUE(start());
  EXPECT_TRUE(_isDiskOverflowEnabled);
  ASSERT_NE(_headerNodes, nullptr);
  EXPECT_TRUE(checkLists().empty());
}

TEST_F(LibraryStart, WithoutTheJavaClassesTheLibraryRunsWithoutOverflow) {
  for (const char* hidden : {kNofStructClass, kOverflowClass}) {
    SCOPED_TRACE(hidden);
    jni.hideClass(hidden);
    setLevels(kErrorLevel);
    EXPECT_EQ(manager_natives::initializeOffHeap(env, manager, kAmpleMaximum, 0, 0, JNI_TRUE),
              JNI_FALSE);
    EXPECT_FALSE(jni.pending().has_value());
    EXPECT_THAT(jni.lines(), Contains(kFailed));
    jni.showClass(hidden);
    setLevels(0);
    jni.setLevelWord(0);
    EXPECT_FALSE(_isDiskOverflowEnabled);
    EXPECT_EQ(_headerNodes, nullptr);

    ByteBufferHeader* key = allocateByteBufferData(env, 3, "key");
    pin(env, key, ALLOCATION_PIN);
    LuOffHeapValue* value = allocateLuOffHeapMapValue(env, key, 1, true, nullptr, 0, 1);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(unpinLuOffHeapMapValue(env, value, ALLOCATION_PIN), 0U);
    EXPECT_EQ(unpinToFree(env, key, ALLOCATION_PIN), 0);
    EXPECT_THAT(calls.deleting, IsEmpty());
    forgetOverflow(env, jni);
  }
}

}  // namespace
}  // namespace nimbra::test
