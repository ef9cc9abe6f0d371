// Raising and noticing Java exceptions, and native backtraces.

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "nb_logging.h"
#include "test_support.h"

namespace nimbra::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class JavaException : public LibraryTest {};

TEST_F(JavaException, IsRaisedWithItsFunctionInBrackets) {
  throw_exception(env, "malloc_nb", "no memory", kOutOfMemory);
  EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory, "[malloc_nb] no memory"}));
  EXPECT_EQ(jni.liveLocals(), 0U);
}

TEST_F(JavaException, IsIllegalStateByDefault) {
  throw_exception(env, "f", "message");
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "[f] message"}));
}

TEST_F(JavaException, PercentSignsInItsMessageAreText) {
  throw_exception(env, "f%s", "100%d of %n");
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "[f%s] 100%d of %n"}));
}

TEST_F(JavaException, MessageIsCutAt255Characters) {
  const std::string longMessage(500, 'm');
  throw_exception(env, "f", longMessage.c_str());
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "[f] " + longMessage.substr(0, 251)}));
}

TEST_F(JavaException, WithoutAMessageTheClassItselfIsThrown) {
  throw_exception(env, "f", nullptr, kOutOfMemory);
  EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory, ""}));
  EXPECT_EQ(jni.callCount("Throw"), 1);
  EXPECT_EQ(jni.callCount("ThrowNew"), 0);
  EXPECT_EQ(jni.liveLocals(), 0U);
}

TEST_F(JavaException, EarlierOneWins) {
  jni.throwNew("java/lang/RuntimeException", "first");
  throw_exception(env, "f", "second", kOutOfMemory);
  EXPECT_EQ(jni.takePending(), (Thrown{"java/lang/RuntimeException", "first"}));
  EXPECT_EQ(jni.callCount("ThrowNew"), 0);
  EXPECT_EQ(jni.described(), 1);
  EXPECT_EQ(jni.liveLocals(), 0U);
}

TEST_F(JavaException, EarlierOneKeepsItsRecordsFromJava) {
  setLevels(kErrorLevel | kEventLevel | kInfoLevel);
  jni.throwNew("java/lang/RuntimeException", "first");
  throw_exception(env, "f", "second");
  EXPECT_THAT(jni.records(), IsEmpty());
  EXPECT_EQ(jni.takePending(), (Thrown{"java/lang/RuntimeException", "first"}));
}

TEST_F(JavaException, OfAnUnknownClassLeavesTheErrorOfTheLookup) {
  setLevels(kErrorLevel);
  throw_exception(env, "f", "message", "no/such/Exception");
  EXPECT_EQ(jni.takePending(), (Thrown{"java/lang/NoClassDefFoundError", "no/such/Exception"}));
  EXPECT_THAT(jni.records(), IsEmpty()) << "the record cannot pass the pending error";
}

TEST_F(JavaException, OfAClassThatIsQuietlyMissingIsLogged) {
  setLevels(kErrorLevel);
  jni.failCall("FindClass");
  throw_exception(env, "f", "message", kOutOfMemory);
  EXPECT_EQ(jni.pending(), std::nullopt);
  EXPECT_THAT(jni.lines(), ElementsAre("errorGeneric|OFFHEAP_GENERIC_ERROR_KTZAR7929|"
                                       "throw_exception unable to find IllegalStateException "
                                       "class"));
}

TEST_F(JavaException, SendsABacktraceAtInfoLevelWhenEventsAreOn) {
  setLevels(kEventLevel | kInfoLevel);
  throw_exception(env, "f", "message");
  ASSERT_FALSE(jni.records().empty());
  for (const LogRecord& record : jni.records()) {
    EXPECT_EQ(record.level, "info");
    EXPECT_THAT(record.text, StartsWith("throw_exception: "));
  }
  EXPECT_LE(jni.records().size(), 100U);
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "[f] message"}));
}

TEST_F(JavaException, BacktraceNeedsBothLevels) {
  setLevels(kEventLevel);
  throw_exception(env, "f", "message");
  EXPECT_THAT(jni.records(), IsEmpty());
  jni.clearPending();
  setLevels(kInfoLevel);
  throw_exception(env, "f", "message");
  EXPECT_THAT(jni.records(), IsEmpty());
  jni.clearPending();
}

TEST_F(JavaException, WithoutAnEnvironmentIsPrinted) {
  ::testing::internal::CaptureStdout();
  throw_exception(nullptr, "f", "message", kOutOfMemory);
  std::fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "[f] message\n");
}

TEST_F(JavaException, WithCodeNamesTheSystemError) {
  throw_exception_with_code(env, "f", "lock failed", ENOENT);
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState, "[f] lock failed: No such file or directory (2)"}));
}

TEST_F(JavaException, WithoutCodeTakesErrno) {
  errno = EACCES;
  throw_exception_with_code(env, "f", "lock failed");
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "[f] lock failed: Permission denied (13)"}));
}

TEST_F(JavaException, WithCodeIsBounded) {
  const std::string longMessage(600, 'm');
  throw_exception_with_code(env, "f", longMessage.c_str(), ENOENT);
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "[f] " + longMessage.substr(0, 251)}));
}

TEST_F(JavaException, UnknownCodeIsNamedByTheSystem) {
  throw_exception_with_code(env, "f", "m", 99999);
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, "[f] m: Unknown error 99999 (99999)"}));
}

TEST_F(JavaException, NoneToCatch) {
  setLevels(kErrorLevel);
  jni.clearCalls();
  EXPECT_FALSE(catch_exception(env, "f", true));
  EXPECT_FALSE(catch_exception(env, "f", false));
  EXPECT_EQ(jni.described(), 0);
  EXPECT_THAT(jni.records(), IsEmpty());
}

TEST_F(JavaException, StaysPendingAfterTheDescription) {
  setLevels(kErrorLevel);
  jni.throwNew("java/lang/RuntimeException", "first");
  EXPECT_TRUE(catch_exception(env, "f", false));
  EXPECT_EQ(jni.described(), 1);
  EXPECT_EQ(jni.takePending(), (Thrown{"java/lang/RuntimeException", "first"}));
  EXPECT_THAT(jni.records(), IsEmpty()) << "no record passes a pending exception";
  EXPECT_EQ(jni.liveLocals(), 0U);
}

TEST_F(JavaException, IsClearedOnRequest) {
  jni.throwNew("java/lang/RuntimeException", "first");
  EXPECT_TRUE(catch_exception(env, "f", true));
  EXPECT_EQ(jni.described(), 1);
  EXPECT_EQ(jni.pending(), std::nullopt);
  EXPECT_EQ(jni.liveLocals(), 0U);
  EXPECT_FALSE(catch_exception(env, "f", true));
}

TEST_F(JavaException, ThrownByNameIsPrintedAndNeverSeen) {
  JNI_ThrowByName(env, "java/lang/RuntimeException", "printed");
  EXPECT_EQ(jni.described(), 1);
  EXPECT_EQ(jni.pending(), std::nullopt);
  EXPECT_EQ(jni.callCount("ThrowNew"), 1);
  EXPECT_EQ(jni.liveLocals(), 0U);
}

class Backtrace : public LibraryTest {};

TEST_F(Backtrace, HasALineForEachFrame) {
  char** lines = nullptr;
  const int count = get_backtrace(&lines);
  ASSERT_GT(count, 0);
  ASSERT_LE(count, 100);
  ASSERT_NE(lines, nullptr);
  for (int at = 0; at < count; ++at) EXPECT_GT(std::strlen(lines[at]), 0U);
  std::free(lines);
}

TEST_F(Backtrace, IsCutAtAHundredFrames) {
  struct Deep {
    __attribute__((noinline)) static int dive(int depth, char*** lines) {
      volatile int below = depth == 0 ? get_backtrace(lines) : dive(depth - 1, lines);
      return below;
    }
  };
  char** lines = nullptr;
  EXPECT_EQ(Deep::dive(300, &lines), 100);
  std::free(lines);
}

TEST_F(Backtrace, IsPrintedAtInfoLevel) {
  setLevels(kInfoLevel);
  print_backtrace(env);
  ASSERT_FALSE(jni.records().empty());
  for (const LogRecord& record : jni.records()) {
    EXPECT_EQ(record.level, "info");
    EXPECT_THAT(record.text, ::testing::HasSubstr("0x"));
  }
  jni.clearRecords();
  setLevels(0);
  print_backtrace(env);
  EXPECT_THAT(jni.records(), IsEmpty());
}

}  // namespace
}  // namespace nimbra::test
