// The trace bridge: formats records and hands them to the static methods of the Java logger.
//
// State: the level flags, the logger class, and for each thread the record that its native has
// lost. No locks. Nothing reaches Java while an exception is pending, and an exception that the
// logger throws is cleared: tracing changes no operation.
#include "nb_logging.h"

#include <execinfo.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "nb_jni.h"

namespace nimbra {

LogInfo logInfo;
Relaxed<bool> trace_initialized;
Relaxed<jclass> offheap_logger_class;
Relaxed<bool> NativeScope::recordsLost;

namespace {

constexpr char kLoggerClass[] = "com/velt/rz/corvane/io/offheap/util/OffHeapLogger";
constexpr char kIllegalState[] = "java/lang/IllegalStateException";
constexpr size_t kRecordArea = 1024;  // bytes, terminator included
constexpr int kBacktraceFrames = 100;
constexpr char kRecordSignature[] = "([C)V";
constexpr char kKeyAndRecord[] = "errorGeneric";
constexpr char kKeyAndRecordSignature[] = "([C[C)V";

// The logger's method that the thread's native has missed first; null for none.
thread_local const char* lostMethod;

bool readyToTrace(JNIEnv* env) {
  if (env == nullptr) return true;  // records go to standard output
  if (!trace_initialized) initialize_trace(env);
  return trace_initialized;
}

void clearLoggerException(JNIEnv* env) {
  if (env->ExceptionCheck()) env->ExceptionClear();
}

// REQUIRES: no exception pending. None is left when the method is missing: the error of the look-up
// would win over the text that says which record was lost.
jmethodID findMethod(JNIEnv* env, jclass logger, const char* method, const char* signature) {
  const jmethodID id = env->GetStaticMethodID(logger, method, signature);
  if (id == nullptr && env->ExceptionCheck()) env->ExceptionClear();
  return id;
}

void raiseMissing(JNIEnv* env, const char* method, const char* signature) {
  char message[256];
  std::snprintf(message, sizeof message, "%s. Method signature=%s,%s",
                "Failed to lookup trace method in the Nimbra library.", method, signature);
  throw_exception(env, "getOffHeapLoggerMethodID", message);
}

// The method of a record; null, and noted, when it is missing.
jmethodID methodOfRecord(JNIEnv* env, const char* method, const char* signature) {
  if (env->ExceptionCheck()) return nullptr;
  const jmethodID id = findMethod(env, offheap_logger_class, method, signature);
  if (id != nullptr) return id;
  if (lostMethod == nullptr) lostMethod = method;
  NativeScope::recordsLost = true;
  return nullptr;
}

// The format is the caller's, checked at the call by the level functions' attributes.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void formatRecord(char (&record)[kRecordArea], const char* format, va_list arguments) {
  std::vsnprintf(record, sizeof record, format, arguments);
}
#pragma GCC diagnostic pop

}  // namespace

void clearLogLevel(LogInfo& levels) {
  // Deliberate: event stays as it was. The contract with Java says so.
  // Pinned by LogLevel.ClearLeavesEvent.
  for (Relaxed<bool>* flag :
       {&levels.debug, &levels.entryExit, &levels.detail, &levels.flag4, &levels.info,
        &levels.flag6, &levels.warning, &levels.error, &levels.fatal, &levels.profiling,
        &levels.pinTracking, &levels.pinTrackingBalanced, &levels.pinTrackingOutstanding}) {
    *flag = false;
  }
}

void getLogLevel(JNIEnv* env) {
  if (!trace_initialized) initialize_trace(env);
  if (!trace_initialized) return;
  const jmethodID method =
      getOffHeapLoggerMethodID(env, offheap_logger_class, "getLogLevel", "()I");
  if (method == nullptr) {
    clearLogLevel(logInfo);
    return;
  }
  const jint word = env->CallStaticIntMethod(offheap_logger_class, method);
  if (env->ExceptionCheck()) {
    env->ExceptionClear();
    clearLogLevel(logInfo);
    return;
  }
  logInfo.debug = (word & 0x1) != 0;
  logInfo.event = (word & 0x2) != 0;
  logInfo.entryExit = (word & 0x4) != 0;
  logInfo.detail = (word & 0x8) != 0;
  logInfo.flag4 = (word & 0x10) != 0;
  logInfo.info = (word & 0x20) != 0;
  logInfo.flag6 = (word & 0x40) != 0;
  logInfo.warning = (word & 0x80) != 0;
  logInfo.error = (word & 0x100) != 0;
  logInfo.fatal = (word & 0x200) != 0;
  logInfo.profiling = (word & 0x400) != 0;
  logInfo.pinTrackingOutstanding = (word & 0x800) != 0;
  logInfo.pinTrackingBalanced = (word & 0x1000) != 0;
  logInfo.pinTracking = (word & 0x1800) != 0;
}

void initialize_trace(JNIEnv* env) {
  if (env->ExceptionCheck()) return;  // no class can be looked up now
  if (const LocalRef<jclass> logger(env, env->FindClass(kLoggerClass)); logger) {
    if (auto* global = static_cast<jclass>(env->NewGlobalRef(logger.get()))) {
      offheap_logger_class = global;
      trace_initialized = true;
      return;
    }
  }
  throw_exception(env, "initialize_trace", "Failed to initialize tracing in the Nimbra library.");
}

jmethodID getOffHeapLoggerMethodID(JNIEnv* env, jclass logger, const char* method,
                                   const char* signature) {
  if (env->ExceptionCheck()) return nullptr;
  const jmethodID id = findMethod(env, logger, method, signature);
  if (id == nullptr) raiseMissing(env, method, signature);
  return id;
}

void NativeScope::enter() {
  outer_ = lostMethod;
  lostMethod = nullptr;
}

void NativeScope::leave() {
  if (const char* method = lostMethod; method != nullptr) {
    if (env_->ExceptionCheck()) env_->ExceptionClear();
    const bool hasKey = std::strcmp(method, kKeyAndRecord) == 0;
    raiseMissing(env_, method, hasKey ? kKeyAndRecordSignature : kRecordSignature);
  }
  lostMethod = outer_;
}

jcharArray getJavaCharArray(JNIEnv* env, const char* text) {
  constexpr size_t kUnitsAtOnce = 256;
  const size_t length = std::strlen(text);
  const jcharArray array = env->NewCharArray(static_cast<jsize>(length));
  if (array == nullptr) return nullptr;
  jchar units[kUnitsAtOnce];
  for (size_t done = 0; done < length;) {
    const size_t count = length - done < kUnitsAtOnce ? length - done : kUnitsAtOnce;
    for (size_t i = 0; i < count; i++) {
      units[i] = static_cast<jchar>(static_cast<signed char>(text[done + i]));
    }
    env->SetCharArrayRegion(array, static_cast<jsize>(done), static_cast<jsize>(count), units);
    done += count;
  }
  return array;
}

void callTraceMethod(JNIEnv* env, const char* method, const char* function, const char* format,
                     va_list arguments) {
  if (!readyToTrace(env)) return;
  char prefixed[kRecordArea];
  if (function != nullptr) {
    std::snprintf(prefixed, sizeof prefixed, "JNI:%s:%s", function, format);
    format = prefixed;
  }
  char record[kRecordArea];
  formatRecord(record, format, arguments);
  if (env == nullptr) {
    std::puts(record);
    return;
  }
  const jmethodID id = methodOfRecord(env, method, kRecordSignature);
  if (id == nullptr) return;
  const LocalRef<jcharArray> text(env, getJavaCharArray(env, record));
  if (text) env->CallStaticVoidMethod(offheap_logger_class, id, text.get());
  clearLoggerException(env);
}

// Each level function: the gate, then the common back end. `prefix` is null where the level ignores
// the function name.
#define NB_SEND(gate, method, prefix)                        \
  do {                                                       \
    if (!(gate)) return;                                     \
    va_list arguments;                                       \
    va_start(arguments, format);                             \
    callTraceMethod(env, method, prefix, format, arguments); \
    va_end(arguments);                                       \
  } while (0)

void audit(JNIEnv* env, const char* function, const char* format, ...) {
  NB_SEND(true, "audit", function);
}
void debug(JNIEnv* env, const char* function, const char* format, ...) {
  NB_SEND(logInfo.debug, "debug", function);
}
void dump(JNIEnv* env, const char* function, const char* format, ...) {
  NB_SEND(logInfo.debug, "dump", function);
}
void error(JNIEnv* env, const char* /*function*/, const char* format, ...) {
  NB_SEND(logInfo.error, "error", nullptr);
}
void warning(JNIEnv* env, const char* /*function*/, const char* format, ...) {
  NB_SEND(logInfo.warning, "warning", nullptr);
}
void event(JNIEnv* env, const char* function, const char* format, ...) {
  NB_SEND(logInfo.event, "event", function);
}
void entry(JNIEnv* env, const char* function, const char* format, ...) {
  NB_SEND(logInfo.entryExit, "entry", function);
}
void exit(JNIEnv* env, const char* function, const char* format, ...) {
  NB_SEND(logInfo.entryExit, "exit", function);
}
void fatal(JNIEnv* env, const char* function, const char* format, ...) {
  NB_SEND(logInfo.fatal, "fatal", function);
}
void info(JNIEnv* env, const char* /*function*/, const char* format, ...) {
  NB_SEND(logInfo.info, "info", nullptr);
}

void errorGeneric(JNIEnv* env, const char* key, const char* format, ...) {
  if (!logInfo.error || !readyToTrace(env)) return;
  char record[kRecordArea];
  va_list arguments;
  va_start(arguments, format);
  formatRecord(record, format, arguments);
  va_end(arguments);
  if (env == nullptr) {
    std::puts(record);
    return;
  }
  const jmethodID id = methodOfRecord(env, kKeyAndRecord, kKeyAndRecordSignature);
  if (id == nullptr) return;
  const LocalRef<jcharArray> keyChars(env, getJavaCharArray(env, key));
  if (keyChars) {
    const LocalRef<jcharArray> text(env, getJavaCharArray(env, record));
    if (text) {
      env->CallStaticVoidMethod(offheap_logger_class, id, keyChars.get(), text.get());
    }
  }
  clearLoggerException(env);
}

void throw_exception(JNIEnv* env, const char* function, const char* message,
                     const char* className) {
  if (logInfo.event) {
    char** lines = nullptr;
    const int count = get_backtrace(&lines);
    for (int i = 0; i < count; i++)
      info(env, "NB Exception", "%s: %s", "throw_exception", lines[i]);
    if (count == 0) info(env, "NB Exception", "Unable to get native backtrace.");
    std::free(lines);
  }
  char text[256] = "";
  if (message != nullptr) std::snprintf(text, sizeof text, "[%s] %s", function, message);
  if (env == nullptr) {
    std::puts(text);
    return;
  }
  // The earlier exception wins. It is looked for before the class, since no class may be looked up
  // while an exception is pending.
  if (catch_exception(env, "throw_exception", false)) return;
  const LocalRef<jclass> type(env, env->FindClass(className));
  if (!type) {
    NB_ERROR_GENERIC(env, kGenericErrorKey,
                     "throw_exception unable to find IllegalStateException class");
    return;
  }
  if (message != nullptr) {
    env->ThrowNew(type.get(), text);
  } else {
    env->Throw(reinterpret_cast<jthrowable>(type.get()));
  }
}

void throw_exception(JNIEnv* env, const char* function, const char* message) {
  throw_exception(env, function, message, kIllegalState);
}

void throw_exception_with_code(JNIEnv* env, const char* function, const char* message, int code) {
  char area[255];
  const char* reason = strerror_r(code, area, sizeof area);
  char text[256];
  std::snprintf(text, sizeof text, "%s: %s (%d)", message, reason, code);
  throw_exception(env, function, text);
}

void throw_exception_with_code(JNIEnv* env, const char* function, const char* message) {
  throw_exception_with_code(env, function, message, errno);
}

bool catch_exception(JNIEnv* env, const char* /*function*/, bool clear) {
  const LocalRef<jthrowable> pending(env, env->ExceptionOccurred());
  if (!pending) return false;
  NB_ERROR_GENERIC(env, kGenericErrorKey, "catch_exception detected exception in JNI environment");
  env->ExceptionDescribe();
  // Describing an exception also clears it on the usual virtual machine, so the state that the
  // caller asked for is set whatever the description did.
  if (clear) {
    if (env->ExceptionCheck()) env->ExceptionClear();
  } else if (!env->ExceptionCheck()) {
    env->Throw(pending.get());
  }
  return true;
}

void JNI_ThrowByName(JNIEnv* env, const char* className, const char* message) {
  const LocalRef<jclass> type(env, env->FindClass(className));
  if (!type) return;
  env->ThrowNew(type.get(), message);
  env->ExceptionDescribe();
  env->ExceptionClear();
}

int get_backtrace(char*** lines) {
  void* frames[kBacktraceFrames];
  const int count = backtrace(frames, kBacktraceFrames);
  *lines = backtrace_symbols(frames, count);
  return *lines == nullptr ? 0 : count;
}

void print_backtrace(JNIEnv* env) {
  char** lines = nullptr;
  const int count = get_backtrace(&lines);
  for (int i = 0; i < count; i++) info(env, "", "%s", lines[i]);
  if (count == 0) info(env, "pin backtrace", "Unable to get native backtrace.");
  std::free(lines);
}

}  // namespace nimbra
