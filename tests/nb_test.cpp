// Start-up, limits, levels and the cache of the map class and its methods.

#include "nb.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "manager_natives.h"
#include "nb_alloc.h"
#include "nb_hashtable.h"
#include "test_support.h"

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kInitialize =
    "Java_com_velt_rz_corvane_io_offheap_OffHeapManager_initializeOffHeap";

class Lifecycle : public LibraryTest {
 protected:
  jboolean start(jlong max = kAmpleMaximum, jboolean overflow = JNI_FALSE) {
    return manager_natives::initializeOffHeap(env, manager, max, 11, 22, overflow);
  }
  void TearDown() override {
    _isDiskOverflowEnabled = false;
    LibraryTest::TearDown();
  }
};

TEST_F(Lifecycle, StartStoresTheLimits) {
  expectedGlobalsDelta = 1;  // every start makes a new reference to the map class
  EXPECT_EQ(start(1'000'000'000), JNI_TRUE);
  EXPECT_EQ(maxOffHeapSize, 1'000'000'000);
  EXPECT_EQ(getHardCapLimit(), 970'000'000U);
  EXPECT_FALSE(_isDiskOverflowEnabled);
  EXPECT_EQ(manager_natives::getCurrentMaxOffHeapSize(env, manager), 1'000'000'000);
}

TEST_F(Lifecycle, StartCachesTheMapClassAndItsMethods) {
  expectedGlobalsDelta = 1;
  luMapClassRef = static_cast<jclass>(nullptr);
  compareMethod = static_cast<jmethodID>(nullptr);
  deserializeMethod = static_cast<jmethodID>(nullptr);
  allocateDirectFromPhantomMethod = static_cast<jmethodID>(nullptr);
  EXPECT_EQ(start(), JNI_TRUE);
  EXPECT_EQ(jni.refType(luMapClassRef.load()), JNIGlobalRefType);
  EXPECT_NE(compareMethod.load(), nullptr);
  EXPECT_NE(deserializeMethod.load(), nullptr);
  EXPECT_NE(allocateDirectFromPhantomMethod.load(), nullptr);
  EXPECT_EQ(jni.liveLocals(), 0U);
}

TEST_F(Lifecycle, StartWritesItsRecordsInOrder) {
  expectedGlobalsDelta = 1;
  jni.setLevelWord(kDebugLevel | kEventLevel);
  EXPECT_EQ(start(1'000'000'000), JNI_TRUE);
  std::vector<std::string> lines;
  for (const std::string& line : jni.lines()) {
    if (line.find("|JNI:luoffheap_map_sizes:") == std::string::npos) lines.push_back(line);
  }
  const std::string self = printed(manager);
  const std::string debugPrefix = "debug|JNI:" + std::string(kInitialize) + ":";
  const std::string map = kMapClass;
  EXPECT_THAT(
      lines,
      ElementsAre(
          "event|JNI:" + std::string(kInitialize) + ":offHeapMgr=" + self +
              " max=1000000000 trimThreshold=11 mmapThreshold=22 isDiskOverflowEnabled=0",
          "debug|JNI:Java_initializeOffHeap:Allocation Sizes for Offheap Structs:",
          "debug|JNI:offheap_sizes:Pinnable=8", "debug|JNI:offheap_sizes:ByteBufferHeader=32",
          debugPrefix + "start offheap initialization. offHeapMgr=" + self,
          debugPrefix + "offheap is successfully initialized. offHeapMgr=" + self +
              ", maxOffHeapSize=1000000000, trimThreshold=11, mmapThreshold=22, "
              "isDiskOverflowEnabled=0, hardCapLimit=970000000",
          debugPrefix + "[rb52718.11230907]", debugPrefix + "Loaded class " + map,
          debugPrefix + "found a method: " + map + "((Ljava/lang/Object;Ljava/nio/ByteBuffer;)Z)",
          debugPrefix + "found a method: " + map + "((Ljava/nio/ByteBuffer;)Ljava/lang/Object;)",
          debugPrefix + "found a method: " + map + "((JI)Ljava/nio/ByteBuffer;)"));
}

TEST_F(Lifecycle, StartDumpsTheMapSizesAfterTheBufferSizes) {
  expectedGlobalsDelta = 1;
  jni.setLevelWord(kDebugLevel);
  EXPECT_EQ(start(), JNI_TRUE);
  const std::vector<std::string> lines = jni.lines();
  std::vector<std::string> dump;
  for (std::size_t at = 3; at < lines.size() && dump.size() < 8; ++at) dump.push_back(lines[at]);
  for (const std::string& line : dump) {
    EXPECT_THAT(line, ::testing::StartsWith("debug|JNI:luoffheap_map_sizes:"));
  }
}

TEST_F(Lifecycle, StartFetchesTheLevelsFirst) {
  expectedGlobalsDelta = 1;
  jni.setLevelWord(kInfoLevel);
  jni.clearCalls();
  EXPECT_EQ(start(), JNI_TRUE);
  EXPECT_TRUE(logInfo.info);
  const std::vector<std::string>& calls = jni.calls();
  const auto level = std::find(calls.begin(), calls.end(), "CallStaticIntMethod");
  ASSERT_NE(level, calls.end());
  EXPECT_EQ(std::find(calls.begin(), level, "FindClass"), level)
      << "the map class is looked up after the level";
}

TEST_F(Lifecycle, OnlyAByteOfOneTurnsOverflowOn) {
  expectedGlobalsDelta = 1;
  EXPECT_EQ(start(kAmpleMaximum, 2), JNI_TRUE);
  EXPECT_FALSE(_isDiskOverflowEnabled);
}

TEST_F(Lifecycle, OverflowWithoutItsJavaClassesAnswersFalseAndStaysOff) {
  jni.hideClass("com/velt/rz/corvane/io/offheap/overflow/NOFStruct");
  jni.hideClass(kOverflowClass);
  jni.clearCalls();
  EXPECT_EQ(start(1'000'000, JNI_TRUE), JNI_FALSE);
  EXPECT_FALSE(_isDiskOverflowEnabled);
  EXPECT_EQ(maxOffHeapSize, 1'000'000);
  EXPECT_EQ(jni.callCount("GetMethodID"), 0);
}

TEST_F(Lifecycle, SecondStartOverwritesTheLimits) {
  expectedGlobalsDelta = 2;
  EXPECT_EQ(start(1'000), JNI_TRUE);
  EXPECT_EQ(start(2'000), JNI_TRUE);
  EXPECT_EQ(maxOffHeapSize, 2'000);
  EXPECT_EQ(getHardCapLimit(), 1'940U);
}

TEST_F(Lifecycle, MissingMapClassAnswersFalseAndLeavesTheError) {
  jni.setLevelWord(kErrorLevel);
  jni.hideClass(kMapClass);
  EXPECT_EQ(start(), JNI_FALSE);
  EXPECT_EQ(jni.takePending(), (Thrown{"java/lang/NoClassDefFoundError", kMapClass}));
  EXPECT_THAT(jni.records(), IsEmpty()) << "no record passes a pending exception";
}

TEST_F(Lifecycle, QuietlyMissingMapClassIsLogged) {
  jni.setLevelWord(kErrorLevel);
  jni.failCall("FindClass");
  EXPECT_EQ(start(), JNI_FALSE);
  EXPECT_THAT(jni.lines(), ElementsAre("errorGeneric|OFFHEAP_GENERIC_ERROR_KTZAR7929|"
                                       "The Nimbra library failed to find matching class: " +
                                       std::string(kMapClass)));
}

TEST_F(Lifecycle, MissingMethodsAnswerFalseAndLeaveTheError) {
  for (const char* name : {"compare", "deserialize", "allocateDirectFromPhantom"}) {
    ScriptedJni other;
    other.setLevelWord(kErrorLevel);
    other.removeMethod(kMapClass, name);
    EXPECT_EQ(manager_natives::initializeOffHeap(other.env(), other.newManager(), kAmpleMaximum, 0,
                                                 0, JNI_FALSE),
              JNI_FALSE);
    EXPECT_EQ(other.takePending(), (Thrown{"java/lang/NoSuchMethodError", name}));
    EXPECT_THAT(other.records(), IsEmpty());
    EXPECT_EQ(other.liveLocals(), 0U);
    ++expectedGlobalsDelta;  // the class had been cached before the method was missed
  }
}

TEST_F(Lifecycle, MethodsAreLookedUpInOrderUntilOneIsMissing) {
  ++expectedGlobalsDelta;
  jni.removeMethod(kMapClass, "deserialize");
  compareMethod = static_cast<jmethodID>(nullptr);
  deserializeMethod = static_cast<jmethodID>(nullptr);
  allocateDirectFromPhantomMethod = static_cast<jmethodID>(nullptr);
  EXPECT_EQ(start(), JNI_FALSE);
  EXPECT_NE(compareMethod.load(), nullptr);
  EXPECT_EQ(deserializeMethod.load(), nullptr);
  EXPECT_EQ(allocateDirectFromPhantomMethod.load(), nullptr);
  jni.clearPending();
}

TEST_F(Lifecycle, MissingLoggerKeepsItsErrorAndStillStoresTheLimits) {
  const bool initialized = trace_initialized;
  const jclass logger = offheap_logger_class;
  trace_initialized = false;
  jni.hideClass(kLoggerClass);
  EXPECT_EQ(start(4'000), JNI_FALSE);
  EXPECT_EQ(maxOffHeapSize, 4'000);
  EXPECT_EQ(jni.takePending(), (Thrown{"java/lang/NoClassDefFoundError", kLoggerClass}));
  trace_initialized = initialized;
  offheap_logger_class = logger;
}

TEST_F(Lifecycle, FinalizeReleasesNothingAndAnswersTrue) {
  setLevels(kDebugLevel);
  EXPECT_EQ(manager_natives::finalizeOffHeap(env, manager), JNI_TRUE);
  EXPECT_THAT(jni.lines(),
              ElementsAre("debug|JNI:finalizeOffHeap:start offheap finalization. offHeapMgr=" +
                          printed(manager)));
  EXPECT_EQ(maxOffHeapSize, kAmpleMaximum);
  EXPECT_EQ(jni.refType(luMapClassRef.load()), JNIGlobalRefType);
}

TEST_F(Lifecycle, VersionIsTheBuildString) {
  jstring version = jni.adopt(manager_natives::getLibraryVersion(env, manager));
  EXPECT_EQ(jni.textOf(version), "[rb52718.11230907]");
}

TEST_F(Lifecycle, VersionThatJavaCannotHoldIsNull) {
  jni.failCall("NewStringUTF", 1, Thrown{kOutOfMemory, "heap"});
  EXPECT_EQ(manager_natives::getLibraryVersion(env, manager), nullptr);
  EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory, "heap"}));
}

TEST_F(Lifecycle, LevelChangesReachTheLibraryOnlyOnRequest) {
  jni.setLevelWord(kDebugLevel);
  EXPECT_FALSE(logInfo.debug);
  manager_natives::setLogLevel(env, manager);
  EXPECT_TRUE(logInfo.debug);
  jni.setLevelWord(0);
  EXPECT_TRUE(logInfo.debug);
  manager_natives::setLogLevel(env, manager);
  EXPECT_FALSE(logInfo.debug);
}

TEST_F(Lifecycle, SystemMemoryIsThatOfTheMachine) {
  EXPECT_EQ(manager_natives::getSystemTotalMemory(env, manager),
            sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE));
}

TEST_F(Lifecycle, SizesAreDumpedAtDebugLevelOnly) {
  offheap_sizes(env);
  EXPECT_THAT(jni.records(), IsEmpty());
  setLevels(kDebugLevel);
  offheap_sizes(env);
  EXPECT_THAT(jni.lines(), ElementsAre("debug|JNI:offheap_sizes:Pinnable=8",
                                       "debug|JNI:offheap_sizes:ByteBufferHeader=32"));
}

// ---- Limits ----------------------------------------------------------------------------

class Limits : public LibraryTest {};

TEST_F(Limits, SettingTheMaximumMovesTheHardCapAndAnswersTheOldOne) {
  EXPECT_EQ(manager_natives::setCurrentMaxOffHeapSize(env, manager, 1'000'000'000), kAmpleMaximum);
  EXPECT_EQ(getHardCapLimit(), 970'000'000U);
  EXPECT_EQ(manager_natives::setCurrentMaxOffHeapSize(env, manager, 101), 1'000'000'000);
  EXPECT_EQ(getHardCapLimit(), 97U) << "97.97 is truncated";
  EXPECT_EQ(manager_natives::getCurrentMaxOffHeapSize(env, manager), 101);
}

TEST_F(Limits, SettingTheMaximumChecksAndLogsNothing) {
  setLevels(0x7ff);
  EXPECT_EQ(manager_natives::setCurrentMaxOffHeapSize(env, manager, 0), kAmpleMaximum);
  EXPECT_EQ(getHardCapLimit(), 0U);
  EXPECT_EQ(manager_natives::setCurrentMaxOffHeapSize(env, manager, -1), 0);
  EXPECT_EQ(maxOffHeapSize, -1);
  EXPECT_EQ(manager_natives::setCurrentMaxOffHeapSize(env, manager, kAmpleMaximum), -1);
  EXPECT_THAT(jni.records(), IsEmpty());
}

TEST_F(Limits, HardCapTreatsTheMaximumAsUnsigned) {
  EXPECT_EQ(hardCapOf(0), 0U);
  EXPECT_EQ(hardCapOf(1), 0U);
  EXPECT_EQ(hardCapOf(100), 97U);
  EXPECT_EQ(hardCapOf(std::numeric_limits<int64_t>::max()),
            static_cast<uint64_t>(9223372036854775808.0 * 0.97));
  EXPECT_EQ(hardCapOf(-1), static_cast<uint64_t>(18446744073709551616.0 * 0.97));
  EXPECT_GT(hardCapOf(-1), uint64_t{1} << 63);
}

}  // namespace
}  // namespace nimbra::test
