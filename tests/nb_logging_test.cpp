// The trace bridge: level flags, gates, the text that reaches the Java logger, and what
// happens when the logger is missing, incomplete or throws.

#include "nb_logging.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include "test_support.h"

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr jint kEveryLevel = 0x1fff;

std::vector<bool> flagsOf(const LogInfo& levels) {
  return {levels.debug,
          levels.event,
          levels.entryExit,
          levels.detail,
          levels.flag4,
          levels.info,
          levels.flag6,
          levels.warning,
          levels.error,
          levels.fatal,
          levels.profiling,
          levels.pinTracking,
          levels.pinTrackingBalanced,
          levels.pinTrackingOutstanding};
}

std::vector<bool> onlyFlags(std::initializer_list<int> set) {
  std::vector<bool> flags(14, false);
  for (const int flag : set) flags[static_cast<std::size_t>(flag)] = true;
  return flags;
}

// A format string that the compiler cannot check against its arguments.
const char* unchecked(const char* format) {
  static const char* volatile hidden;
  hidden = format;
  return hidden;
}

// Makes the library forget its logger class for the length of a test.
class ForgottenLogger {
 public:
  explicit ForgottenLogger(ScriptedJni& jni)
      : jni_(jni), initialized_(trace_initialized), logger_(offheap_logger_class) {
    trace_initialized = false;
    offheap_logger_class = static_cast<jclass>(nullptr);
  }
  ~ForgottenLogger() {
    jclass now = offheap_logger_class;
    if (now != nullptr && now != logger_) jni_.dropGlobal(now);
    trace_initialized = initialized_;
    offheap_logger_class = logger_;
  }
  ForgottenLogger(const ForgottenLogger&) = delete;
  ForgottenLogger& operator=(const ForgottenLogger&) = delete;

 private:
  ScriptedJni& jni_;
  const bool initialized_;
  const jclass logger_;
};

// ---- Levels ----------------------------------------------------------------------------

class LogLevel : public LibraryTest {};

TEST_F(LogLevel, OneByteAFlag) { EXPECT_EQ(sizeof(LogInfo), 14U); }

TEST_F(LogLevel, BitsZeroToTenSetTheirFlagsInOrder) {
  for (int bit = 0; bit <= 10; ++bit) {
    jni.setLevelWord(1 << bit);
    getLogLevel(env);
    EXPECT_EQ(flagsOf(logInfo), onlyFlags({bit})) << "bit " << bit;
  }
}

TEST_F(LogLevel, PinTrackingBitsAreCrossed) {
  setLevels(0x800);
  EXPECT_EQ(flagsOf(logInfo), onlyFlags({11, 13}));
  setLevels(0x1000);
  EXPECT_EQ(flagsOf(logInfo), onlyFlags({11, 12}));
  setLevels(0x1800);
  EXPECT_EQ(flagsOf(logInfo), onlyFlags({11, 12, 13}));
}

TEST_F(LogLevel, UnknownBitsSetNothing) {
  setLevels(static_cast<jint>(0xffffe000U));
  EXPECT_EQ(flagsOf(logInfo), onlyFlags({}));
}

TEST_F(LogLevel, RefreshReplacesTheFlags) {
  setLevels(kEveryLevel);
  jni.setLevelWord(kInfoLevel);
  getLogLevel(env);
  EXPECT_EQ(flagsOf(logInfo), onlyFlags({5}));
}

TEST_F(LogLevel, ClearingLeavesEventAsItWas) {
  setLevels(kEveryLevel);
  clearLogLevel(logInfo);
  EXPECT_EQ(flagsOf(logInfo), onlyFlags({1}));
  setLevels(kDebugLevel);
  clearLogLevel(logInfo);
  EXPECT_EQ(flagsOf(logInfo), onlyFlags({}));
}

TEST_F(LogLevel, EventsFlowOnAfterClearing) {
  setLevels(kEventLevel);
  clearLogLevel(logInfo);
  event(env, "f", "still here");
  EXPECT_THAT(jni.lines(), ElementsAre("event|JNI:f:still here"));
}

TEST_F(LogLevel, ExceptionOfTheLoggerIsClearedAndClearsTheLevels) {
  setLevels(kEveryLevel);
  jni.failCall("CallStaticIntMethod", 1, Thrown{"java/lang/RuntimeException", "no level"});
  getLogLevel(env);
  EXPECT_EQ(jni.pending(), std::nullopt);
  EXPECT_EQ(flagsOf(logInfo), onlyFlags({1}));
}

TEST_F(LogLevel, MissingMethodClearsTheLevels) {
  setLevels(kEveryLevel);
  logInfo.event = false;
  jni.removeMethod(kLoggerClass, "getLogLevel");
  getLogLevel(env);
  EXPECT_EQ(flagsOf(logInfo), onlyFlags({}));
  EXPECT_EQ(jni.callCount("CallStaticIntMethod"), 1) << "only the call that set the levels";
  jni.clearPending();
}

TEST_F(LogLevel, MissingLoggerClassLeavesTheLevelsAlone) {
  setLevels(kInfoLevel);
  const ForgottenLogger forgotten(jni);
  jni.hideClass(kLoggerClass);
  jni.setLevelWord(kEveryLevel);
  getLogLevel(env);
  EXPECT_EQ(flagsOf(logInfo), onlyFlags({5}));
  EXPECT_FALSE(trace_initialized);
  EXPECT_EQ(jni.takePending(), (Thrown{"java/lang/NoClassDefFoundError", kLoggerClass}))
      << "the error of the lookup stays";
}

TEST_F(LogLevel, FirstRefreshLoadsTheLoggerClass) {
  const ForgottenLogger forgotten(jni);
  jni.setLevelWord(kInfoLevel);
  getLogLevel(env);
  EXPECT_TRUE(trace_initialized);
  EXPECT_EQ(jni.refType(offheap_logger_class), JNIGlobalRefType);
  EXPECT_EQ(flagsOf(logInfo), onlyFlags({5}));
}

TEST_F(LogLevel, LoggerWithoutGlobalReferenceRaises) {
  const ForgottenLogger forgotten(jni);
  jni.failCall("NewGlobalRef");
  initialize_trace(env);
  EXPECT_FALSE(trace_initialized);
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState,
                    "[initialize_trace] Failed to initialize tracing in the Nimbra library."}));
  EXPECT_EQ(jni.liveLocals(), 0U);
}

TEST_F(LogLevel, LoggerLookupWithoutAnErrorOfItsOwnRaises) {
  const ForgottenLogger forgotten(jni);
  jni.failCall("FindClass");
  initialize_trace(env);
  EXPECT_FALSE(trace_initialized);
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState,
                    "[initialize_trace] Failed to initialize tracing in the Nimbra library."}));
}

// ---- Records ---------------------------------------------------------------------------

class TraceRecord : public LibraryTest {
 protected:
  void emitAll() {
    audit(env, "f", "a%d", 1);
    debug(env, "f", "d%d", 2);
    dump(env, "f", "u%d", 3);
    error(env, "f", "e%d", 4);
    warning(env, "f", "w%d", 5);
    event(env, "f", "v%d", 6);
    entry(env, "f", "n%d", 7);
    exit(env, "f", "x%d", 8);
    fatal(env, "f", "t%d", 9);
    info(env, "f", "i%d", 10);
    errorGeneric(env, "KEY", "g%d", 11);
  }
};

TEST_F(TraceRecord, EachLevelHasItsGateAndItsPrefix) {
  struct Row {
    jint word;
    std::vector<std::string> lines;
  };
  const std::string audited = "audit|JNI:f:a1";
  const Row rows[] = {
      {0, {audited}},
      {0x1, {audited, "debug|JNI:f:d2", "dump|JNI:f:u3"}},
      {0x2, {audited, "event|JNI:f:v6"}},
      {0x4, {audited, "entry|JNI:f:n7", "exit|JNI:f:x8"}},
      {0x8, {audited}},
      {0x10, {audited}},
      {0x20, {audited, "info|i10"}},
      {0x40, {audited}},
      {0x80, {audited, "warning|w5"}},
      {0x100, {audited, "error|e4", "errorGeneric|KEY|g11"}},
      {0x200, {audited, "fatal|JNI:f:t9"}},
      {0x400, {audited}},
      {0x1800, {audited}},
  };
  for (const Row& row : rows) {
    setLevels(row.word);
    emitAll();
    EXPECT_EQ(jni.lines(), row.lines) << "level word " << row.word;
  }
}

TEST_F(TraceRecord, DisabledLevelMakesNoJniCall) {
  jni.clearCalls();
  debug(env, "f", "x");
  dump(env, "f", "x");
  error(env, "f", "x");
  warning(env, "f", "x");
  event(env, "f", "x");
  entry(env, "f", "x");
  exit(env, "f", "x");
  fatal(env, "f", "x");
  info(env, "f", "x");
  errorGeneric(env, "KEY", "x");
  EXPECT_THAT(jni.calls(), IsEmpty());
}

TEST_F(TraceRecord, MacrosDoNotEvaluateArgumentsOfADisabledLevel) {
  int evaluated = 0;
  NB_DEBUG(env, "%d", ++evaluated);
  NB_EVENT(env, "%d", ++evaluated);
  NB_ENTRY(env, "%d", ++evaluated);
  NB_EXIT(env, "%d", ++evaluated);
  NB_INFO(env, "%d", ++evaluated);
  NB_WARNING(env, "%d", ++evaluated);
  NB_ERROR_GENERIC(env, "KEY", "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  setLevels(kDebugLevel);
  NB_DEBUG_AS(env, "f", "%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_THAT(jni.lines(), ElementsAre("debug|JNI:f:1"));
}

TEST_F(TraceRecord, LeavesNoLocalReference) {
  setLevels(kEveryLevel & ~0x1800);
  emitAll();
  EXPECT_EQ(jni.liveLocals(), 0U);
  EXPECT_EQ(jni.records().size(), 11U);
}

TEST_F(TraceRecord, PercentInTheFunctionNameIsAConversion) {
  setLevels(kDebugLevel);
  debug(env, "share=%d", unchecked("of %d"), 50, 80);
  EXPECT_THAT(jni.lines(), ElementsAre("debug|JNI:share=50:of 80"));
}

TEST_F(TraceRecord, FunctionNameOfAnUnprefixedLevelIsIgnored) {
  setLevels(kErrorLevel | kWarningLevel | kInfoLevel);
  error(env, "%s%s%s", "OUT_OF_MEMORY_KTZAR7930");
  warning(env, "%n", "w");
  info(env, nullptr, "i");
  EXPECT_THAT(jni.lines(), ElementsAre("error|OUT_OF_MEMORY_KTZAR7930", "warning|w", "info|i"));
}

TEST_F(TraceRecord, NullStringArgumentIsPrintedAsTheFormatterDoes) {
  setLevels(kDebugLevel);
  debug(env, "f", unchecked("type=%s"), static_cast<const char*>(nullptr));
  EXPECT_THAT(jni.lines(), ElementsAre("debug|JNI:f:type=(null)"));
}

TEST_F(TraceRecord, LongRecordIsCutAt1023Characters) {
  setLevels(kDebugLevel | kErrorLevel);
  const std::string tail(3000, 'x');
  debug(env, "f", "%s", tail.c_str());
  error(env, "f", "%s", tail.c_str());
  errorGeneric(env, "KEY", "%s", tail.c_str());
  ASSERT_EQ(jni.records().size(), 3U);
  EXPECT_EQ(jni.records()[0].text, "JNI:f:" + tail.substr(0, 1017));
  EXPECT_EQ(jni.records()[1].text, tail.substr(0, 1023));
  EXPECT_EQ(jni.records()[2].text, tail.substr(0, 1023));
}

TEST_F(TraceRecord, LongFormatIsCutAt1023Characters) {
  setLevels(kDebugLevel | kErrorLevel);
  const std::string longFormat(3000, 'y');
  debug(env, "f", unchecked(longFormat.c_str()), 0);
  errorGeneric(env, "KEY", unchecked(longFormat.c_str()), 0);
  ASSERT_EQ(jni.records().size(), 2U);
  EXPECT_EQ(jni.records()[0].text, "JNI:f:" + longFormat.substr(0, 1017));
  EXPECT_EQ(jni.records()[1].text, longFormat.substr(0, 1023));
}

TEST_F(TraceRecord, HighBytesAreSignExtended) {
  setLevels(kInfoLevel);
  info(env, "f", "a\x80\xff\x7f");
  ASSERT_EQ(jni.records().size(), 1U);
  EXPECT_EQ(jni.records()[0].units, std::u16string(u"a\xff80\xffff\x7f"));
}

TEST_F(TraceRecord, CharArrayHoldsOneUnitAByte) {
  jcharArray array = jni.adopt(getJavaCharArray(env, "\x01\xc3\xa4z"));
  EXPECT_EQ(jni.charsOf(array), std::u16string(u"\x01\xffc3\xffa4z"));
  EXPECT_EQ(jni.charsOf(jni.adopt(getJavaCharArray(env, ""))), u"");
}

TEST_F(TraceRecord, CharArrayThatCannotBeMadeIsNull) {
  jni.failCall("NewCharArray", 1, Thrown{kOutOfMemory, "heap"});
  EXPECT_EQ(getJavaCharArray(env, "text"), nullptr);
  jni.clearPending();
}

TEST_F(TraceRecord, NothingReachesJavaWhileAnExceptionIsPending) {
  setLevels(kEveryLevel & ~0x1800);
  jni.throwNew("java/lang/RuntimeException", "first");
  emitAll();
  EXPECT_THAT(jni.records(), IsEmpty());
  EXPECT_EQ(jni.takePending(), (Thrown{"java/lang/RuntimeException", "first"}));
}

TEST_F(TraceRecord, ExceptionOfTheLoggerIsCleared) {
  setLevels(kDebugLevel | kErrorLevel);
  jni.failCall("CallStaticVoidMethod", 1, Thrown{"java/lang/RuntimeException", "disk full"});
  debug(env, "f", "lost");
  EXPECT_EQ(jni.pending(), std::nullopt);
  jni.failCall("CallStaticVoidMethod", 1, Thrown{"java/lang/RuntimeException", "disk full"});
  errorGeneric(env, "KEY", "lost");
  EXPECT_EQ(jni.pending(), std::nullopt);
  debug(env, "f", "kept");
  EXPECT_THAT(jni.lines(), ElementsAre("debug|JNI:f:kept"));
}

TEST_F(TraceRecord, RecordWithoutMemoryForItIsDropped) {
  setLevels(kDebugLevel | kErrorLevel);
  for (int nth = 1; nth <= 2; ++nth) {
    jni.failCall("NewCharArray", nth, Thrown{kOutOfMemory, "heap"});
    errorGeneric(env, "KEY", "lost");
    EXPECT_EQ(jni.liveLocals(), 0U);
    EXPECT_EQ(jni.pending(), std::nullopt) << "tracing changes no operation's outcome";
    jni.clearPending();
  }
  jni.failCall("NewCharArray", 1, Thrown{kOutOfMemory, "heap"});
  debug(env, "f", "lost");
  EXPECT_EQ(jni.pending(), std::nullopt);
  jni.clearPending();
  EXPECT_THAT(jni.records(), IsEmpty());
}

TEST_F(TraceRecord, MethodIdOfAPresentMethod) {
  EXPECT_NE(getOffHeapLoggerMethodID(env, offheap_logger_class, "debug", "([C)V"), nullptr);
  EXPECT_NE(getOffHeapLoggerMethodID(env, offheap_logger_class, "errorGeneric", "([C[C)V"),
            nullptr);
}

std::string missing(const char* methodAndSignature) {
  return std::string(
             "[getOffHeapLoggerMethodID] Failed to lookup trace method in the Nimbra "
             "library.. Method signature=") +
         methodAndSignature;
}

TEST_F(TraceRecord, MissingMethodRaises) {
  jni.removeMethod(kLoggerClass, "debug");
  EXPECT_EQ(getOffHeapLoggerMethodID(env, offheap_logger_class, "debug", "([C)V"), nullptr);
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, missing("debug,([C)V")}));
}

// What the logger lacks is raised when the native ends, and not in the middle of it.
TEST_F(TraceRecord, RecordOfAMissingMethodIsDropped) {
  setLevels(kDebugLevel | kInfoLevel);
  jni.removeMethod(kLoggerClass, "debug");
  {
    const NativeScope scope(env);
    debug(env, "f", "lost");
    EXPECT_EQ(jni.pending(), std::nullopt);
    info(env, "f", "kept");
  }
  EXPECT_THAT(jni.lines(), ElementsAre("info|kept"));
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, missing("debug,([C)V")}));
}

TEST_F(TraceRecord, FirstMissingMethodOfANativeIsRaised) {
  setLevels(kDebugLevel | kErrorLevel);
  jni.removeMethod(kLoggerClass, "errorGeneric");
  jni.removeMethod(kLoggerClass, "debug");
  {
    const NativeScope scope(env);
    errorGeneric(env, kGenericErrorKey, "lost");
    debug(env, "f", "lost, too");
  }
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, missing("errorGeneric,([C[C)V")}));
  { const NativeScope scope(env); }
  EXPECT_EQ(jni.pending(), std::nullopt) << "said once";
}

TEST_F(TraceRecord, MissingMethodWinsOverWhatTheNativeRaisesLater) {
  setLevels(kDebugLevel);
  jni.removeMethod(kLoggerClass, "debug");
  {
    const NativeScope scope(env);
    debug(env, "f", "lost");
    throw_exception(env, "f", "later", "java/lang/RuntimeException");
  }
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, missing("debug,([C)V")}));
  {
    const NativeScope scope(env);
    throw_exception(env, "f", "earlier", "java/lang/RuntimeException");
    debug(env, "f", "not tried");
  }
  EXPECT_EQ(jni.takePending(), (Thrown{"java/lang/RuntimeException", "[f] earlier"}));
}

// Java calls a native from within a native's callback.
TEST_F(TraceRecord, NativeWithinANativeAnswersForItsOwnRecords) {
  setLevels(kDebugLevel);
  jni.removeMethod(kLoggerClass, "debug");
  {
    const NativeScope outer(env);
    debug(env, "f", "lost");
    { const NativeScope quiet(env); }
    EXPECT_EQ(jni.pending(), std::nullopt);
    {
      const NativeScope inner(env);
      debug(env, "g", "lost");
    }
    EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, missing("debug,([C)V")}));
  }
  EXPECT_EQ(jni.takePending(), (Thrown{kIllegalState, missing("debug,([C)V")}));
}

TEST_F(TraceRecord, MethodLookupIsNotTriedWhileAnExceptionIsPending) {
  jni.throwNew("java/lang/RuntimeException", "first");
  jni.clearCalls();
  EXPECT_EQ(getOffHeapLoggerMethodID(env, offheap_logger_class, "debug", "([C)V"), nullptr);
  EXPECT_EQ(jni.callCount("GetStaticMethodID"), 0);
  EXPECT_EQ(jni.takePending(), (Thrown{"java/lang/RuntimeException", "first"}));
}

TEST_F(TraceRecord, FirstRecordLoadsTheLoggerClass) {
  const ForgottenLogger forgotten(jni);
  logInfo.debug = true;
  debug(env, "f", "first");
  EXPECT_TRUE(trace_initialized);
  EXPECT_THAT(jni.lines(), ElementsAre("debug|JNI:f:first"));
}

TEST_F(TraceRecord, RecordsAreDroppedWithoutALoggerClass) {
  const ForgottenLogger forgotten(jni);
  jni.hideClass(kLoggerClass);
  logInfo.debug = true;
  debug(env, "f", "lost");
  EXPECT_THAT(jni.records(), IsEmpty());
  EXPECT_EQ(jni.takePending(), (Thrown{"java/lang/NoClassDefFoundError", kLoggerClass}));
}

TEST_F(TraceRecord, WithoutAnEnvironmentRecordsGoToStandardOutput) {
  setLevels(kDebugLevel | kErrorLevel);
  ::testing::internal::CaptureStdout();
  debug(nullptr, "f", "d%d", 1);
  error(nullptr, "f", "e%d", 2);
  errorGeneric(nullptr, "KEY", "g%d", 3);
  std::fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "JNI:f:d1\ne2\ng3\n");
}

TEST_F(TraceRecord, ThreadsTraceThroughTheirOwnEnvironments) {
  setLevels(kDebugLevel);
  constexpr int kRecords = 300;
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([number] {
      ScriptedJni mine;
      mine.setLevelWord(kDebugLevel);
      for (int record = 0; record < kRecords; ++record) {
        if (record % 50 == 0) getLogLevel(mine.env());
        debug(mine.env(), "f", "%d.%d", number, record);
      }
      ASSERT_EQ(mine.records().size(), static_cast<std::size_t>(kRecords));
      for (int record = 0; record < kRecords; ++record) {
        EXPECT_EQ(mine.records()[static_cast<std::size_t>(record)].text,
                  "JNI:f:" + std::to_string(number) + "." + std::to_string(record));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace nimbra::test
