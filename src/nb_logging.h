// The trace bridge to the Java logger, and the raising and noticing of Java exceptions.
//
// Java owns the enabled levels; getLogLevel copies them into logInfo. A disabled level costs one
// byte load and a branch: the macros below test the flag before they evaluate an argument.
// Formatting areas are per call, so no function here takes a lock.
#pragma once

#include <jni.h>

#include <cstdarg>
#include <cstdint>

#include "nb_atomic.h"

namespace nimbra {

// One byte a flag, in the order of the contract. A refresh may race with trace calls, which then
// see the old or the new level.
struct LogInfo {
  Relaxed<bool> debug;        // 0: bit 0x1; also dump, size dumps, pin backtraces
  Relaxed<bool> event;        // 1: bit 0x2
  Relaxed<bool> entryExit;    // 2: bit 0x4; entry and exit share it
  Relaxed<bool> detail;       // 3: bit 0x8; extra records, each also under its own level
  Relaxed<bool> flag4;        // 4: bit 0x10; gates nothing
  Relaxed<bool> info;         // 5: bit 0x20
  Relaxed<bool> flag6;        // 6: bit 0x40; gates nothing
  Relaxed<bool> warning;      // 7: bit 0x80
  Relaxed<bool> error;        // 8: bit 0x100
  Relaxed<bool> fatal;        // 9: bit 0x200
  Relaxed<bool> profiling;    // 10: bit 0x400
  Relaxed<bool> pinTracking;  // 11: derived, flag 12 or flag 13
  // Deliberate: the last two are filled crosswise. The contract with Java numbers them so.
  // Pinned by LogLevel.PinTrackingBitsAreCrossed.
  Relaxed<bool> pinTrackingBalanced;     // 12: bit 0x1000
  Relaxed<bool> pinTrackingOutstanding;  // 13: bit 0x800
};
static_assert(sizeof(LogInfo) == 14, "one byte a flag");

extern LogInfo logInfo;
extern Relaxed<bool> trace_initialized;
extern Relaxed<jclass> offheap_logger_class;  // global reference; kept for the process's life

// Message keys that Java translates.
inline constexpr char kLockErrorKey[] = "OFFHEAP_GENERIC_LOCK_ERROR_KTZAR7928";
inline constexpr char kGenericErrorKey[] = "OFFHEAP_GENERIC_ERROR_KTZAR7929";
inline constexpr char kOutOfMemoryKey[] = "OUT_OF_MEMORY_KTZAR7930";
inline constexpr char kAcquireLockText[] = "Error acquiring %s lock in Nimbra library.";
inline constexpr char kInitLockText[] = "Failed to initialize %s lock in Nimbra library.";

// Copies the enabled levels from Java; loads the logger class on first use. A Java exception from
// the logger is cleared and clears the levels.
void getLogLevel(JNIEnv* env);
// Sets every flag but event to false.
void clearLogLevel(LogInfo& levels);
// Loads the logger class; raises IllegalStateException when it cannot be had.
void initialize_trace(JNIEnv* env);
// A record is lost when the logger lacks its method, and that is to be raised; but no operation may
// go on with an exception pending. So every native that can trace begins with one of these: the
// first record lost in it is noted, and raised when the native ends. It then wins over what the
// native itself has raised since, as the earlier exception. A native that Java calls meanwhile, on
// the same thread, answers for its own records only.
class NativeScope {
 public:
  explicit NativeScope(JNIEnv* env) : env_(env) {
    if (recordsLost) enter();
  }
  ~NativeScope() {
    if (recordsLost) leave();
  }
  NativeScope(const NativeScope&) = delete;
  NativeScope& operator=(const NativeScope&) = delete;

  // Whether any thread has ever lost a record; never reset. Until then a scope costs two loads.
  static Relaxed<bool> recordsLost;

 private:
  void enter();
  void leave();

  JNIEnv* env_;
  const char* outer_ = nullptr;  // what the native around this one has lost
};

// Looks a static method of the logger up for one call. Null, without a call into Java, while an
// exception is pending; null with an IllegalStateException when the method is missing.
jmethodID getOffHeapLoggerMethodID(JNIEnv* env, jclass logger, const char* method,
                                   const char* signature);
// Formats one record (cut at 1,023 bytes) and hands it to the logger's static `method`, whose name
// is a static text; without an environment it goes to standard output. `function` may be null: no
// prefix.
void callTraceMethod(JNIEnv* env, const char* method, const char* function, const char* format,
                     va_list arguments);
// A new char[] of the text's byte length, each byte sign-extended to one unit; null on failure.
jcharArray getJavaCharArray(JNIEnv* env, const char* text);

#define NB_PRINTF(formatIndex) __attribute__((format(printf, formatIndex, (formatIndex) + 1)))

void audit(JNIEnv* env, const char* function, const char* format, ...) NB_PRINTF(3);
void debug(JNIEnv* env, const char* function, const char* format, ...) NB_PRINTF(3);
void dump(JNIEnv* env, const char* function, const char* format, ...) NB_PRINTF(3);
void error(JNIEnv* env, const char* function, const char* format, ...) NB_PRINTF(3);
void warning(JNIEnv* env, const char* function, const char* format, ...) NB_PRINTF(3);
void event(JNIEnv* env, const char* function, const char* format, ...) NB_PRINTF(3);
void entry(JNIEnv* env, const char* function, const char* format, ...) NB_PRINTF(3);
void exit(JNIEnv* env, const char* function, const char* format, ...) NB_PRINTF(3);
void fatal(JNIEnv* env, const char* function, const char* format, ...) NB_PRINTF(3);
void info(JNIEnv* env, const char* function, const char* format, ...) NB_PRINTF(3);
void errorGeneric(JNIEnv* env, const char* key, const char* format, ...) NB_PRINTF(3);

// Raises `className` (path form) with "[function] message", cut at 255 bytes. An exception that is
// already pending wins. A null message raises without a text; a null env prints the text.
void throw_exception(JNIEnv* env, const char* function, const char* message, const char* className);
// The same with java/lang/IllegalStateException.
void throw_exception(JNIEnv* env, const char* function, const char* message);
// "message: system text (code)" as IllegalStateException.
void throw_exception_with_code(JNIEnv* env, const char* function, const char* message, int code);
// The same with the current errno.
void throw_exception_with_code(JNIEnv* env, const char* function, const char* message);
// Is a Java exception pending? Logs and describes it; it stays pending unless `clear`.
bool catch_exception(JNIEnv* env, const char* function, bool clear);
// Raises, describes and clears at once: the JVM prints the exception, Java never sees it.
void JNI_ThrowByName(JNIEnv* env, const char* className, const char* message);

// Captures up to 100 frames of the calling stack. *lines is one block, freed with free(); the
// result is the number of lines, 0 with *lines null when none can be had.
int get_backtrace(char*** lines);
// Sends each line of the calling stack at info level.
void print_backtrace(JNIEnv* env);

}  // namespace nimbra

// One line a trace. The flag is tested first; __func__ is the record's function name. The _AS forms
// name another function, where Java expects a text that differs from ours.
#define NB_TRACE_AS(flag, level, env, function, ...)                         \
  do {                                                                       \
    if (::nimbra::logInfo.flag) ::nimbra::level(env, function, __VA_ARGS__); \
  } while (0)
#define NB_DEBUG_AS(env, function, ...) NB_TRACE_AS(debug, debug, env, function, __VA_ARGS__)
#define NB_EVENT_AS(env, function, ...) NB_TRACE_AS(event, event, env, function, __VA_ARGS__)
#define NB_ENTRY_AS(env, function, ...) NB_TRACE_AS(entryExit, entry, env, function, __VA_ARGS__)
#define NB_EXIT_AS(env, function, ...) NB_TRACE_AS(entryExit, exit, env, function, __VA_ARGS__)
#define NB_DEBUG(env, ...) NB_DEBUG_AS(env, __func__, __VA_ARGS__)
#define NB_EVENT(env, ...) NB_EVENT_AS(env, __func__, __VA_ARGS__)
#define NB_ENTRY(env, ...) NB_ENTRY_AS(env, __func__, __VA_ARGS__)
#define NB_EXIT(env, ...) NB_EXIT_AS(env, __func__, __VA_ARGS__)
#define NB_INFO(env, ...) NB_TRACE_AS(info, info, env, __func__, __VA_ARGS__)
#define NB_WARNING(env, ...) NB_TRACE_AS(warning, warning, env, __func__, __VA_ARGS__)
#define NB_ERROR_GENERIC(env, key, ...) NB_TRACE_AS(error, errorGeneric, env, key, __VA_ARGS__)
