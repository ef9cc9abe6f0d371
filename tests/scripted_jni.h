// A scripted JNI environment: a complete function table over a small object model, so
// that the library runs without a virtual machine and the sanitizers can watch it.
//
// One ScriptedJni stands for one thread's JNIEnv. It owns that thread's objects, local
// references, pending exception and scripts, and it is not synchronised: only the thread
// that made it (or last called bindToThisThread) may use it. What threads share (classes,
// method identifiers, global references) lives in one process-wide table behind a mutex,
// because the library caches these for the life of the process.
//
// The environment is strict. It reports a test failure for what a checking virtual machine
// would warn about: a slot that nothing scripts, a call while an exception is pending, a
// call between the get and the release of a critical section, a call after a Java method
// without a look at its exception, a deleted or foreign reference, a wrong object type, a
// region outside its array, and (when it is destroyed) leaked local references, elements,
// critical sections and a forgotten exception.

#pragma once

#include <jni.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

namespace nimbra::test {

inline constexpr const char* kLoggerClass = "com/velt/rz/corvane/io/offheap/util/OffHeapLogger";
inline constexpr const char* kMapClass = "com/velt/rz/corvane/io/offheap/impl/LuOffHeapMapImpl";
inline constexpr const char* kManagerClass = "com/velt/rz/corvane/io/offheap/OffHeapManager";
inline constexpr const char* kOverflowClass = "com/velt/rz/corvane/io/offheap/overflow/Overflow";
inline constexpr const char* kNotEnoughResources =
    "com/velt/rz/corvane/io/offheap/overflow/NotEnoughResourcesException";
inline constexpr const char* kIllegalState = "java/lang/IllegalStateException";
inline constexpr const char* kOutOfMemory = "java/lang/OutOfMemoryError";

// One record that reached the Java logger. `level` is the name of the Java method; `key` is
// filled by errorGeneric only; `text` holds the low bytes of `units`, the characters as sent.
struct LogRecord {
  std::string level;
  std::string key;
  std::string text;
  std::u16string units;

  // "level|text", or "level|key|text" when there is a key: handy for whole sequences.
  std::string line() const;
};

struct Thrown {
  std::string className;
  std::string message;

  bool operator==(const Thrown&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Thrown& thrown);

// A release of array elements or of a critical section.
struct ReleaseCall {
  std::string slot;
  jint mode;
  bool copied;
};

namespace detail {

struct Object;
using ObjectPtr = std::shared_ptr<Object>;

enum class Kind { kPlain, kClass, kString, kPrimitiveArray, kObjectArray, kBuffer, kThrowable };

struct Object {
  Kind kind = Kind::kPlain;
  std::string className;            // for kClass: the path of the class it stands for
  char elementType = 0;             // kPrimitiveArray: B C I J
  std::vector<std::uint8_t> bytes;  // kPrimitiveArray: storage; kPlain: payload
  std::u16string units;             // kString
  std::vector<ObjectPtr> elements;  // kObjectArray
  void* address = nullptr;          // kBuffer: null for a buffer inside the heap
  jlong capacity = 0;
  std::string message;  // kThrowable
};

struct Method {
  std::string className;
  std::string name;
  std::string signature;
  bool isStatic;
};

}  // namespace detail

class ScriptedJni {
 public:
  // A Java method's body. Argument references are valid during the call. A returned object
  // may be any live reference; the caller receives a fresh local reference to it.
  using Body = std::function<jvalue(ScriptedJni&, jobject self, const jvalue* arguments)>;

  ScriptedJni();
  ~ScriptedJni();
  ScriptedJni(const ScriptedJni&) = delete;
  ScriptedJni& operator=(const ScriptedJni&) = delete;

  JNIEnv* env();
  void bindToThisThread();

  // --- Objects that play Java's side. The references belong to the test: they do not count
  // as leaks, and the library deleting one is a failure.
  jbyteArray newByteArray(const std::vector<std::uint8_t>& bytes);
  jcharArray newCharArray(const std::u16string& units);
  jintArray newIntArray(const std::vector<jint>& values);
  jlongArray newLongArray(const std::vector<jlong>& values);
  jobjectArray newObjectArray(const std::vector<jobject>& elements);
  jstring newString(const std::u16string& units);
  jobject newDirectBuffer(const void* address, jlong capacity);
  jobject newHeapBuffer();  // a ByteBuffer without a direct address
  jobject newObject(const std::string& className = "java/lang/Object",
                    const std::vector<std::uint8_t>& payload = {});
  jobject newMapObject() { return newObject(kMapClass); }
  jobject newManager() { return newObject(kManagerClass); }

  // Takes over a local reference that a native returned: it no longer counts as a leak.
  template <typename Reference>
  Reference adopt(Reference reference) {
    adoptReference(reference);
    return reference;
  }
  // Drops a global reference that the library handed out for good.
  void dropGlobal(jobject reference);

  // --- Reading objects back.
  std::vector<std::uint8_t> bytesOf(jobject arrayOrPayload);
  std::u16string charsOf(jobject charArray);
  std::vector<jint> intsOf(jobject intArray);
  std::vector<jlong> longsOf(jobject longArray);
  std::u16string stringOf(jobject string);
  std::string textOf(jobject string);  // low bytes of the string's characters
  void* bufferAddress(jobject buffer);
  jlong bufferCapacity(jobject buffer);
  // The buffer's memory as bytes, by its address and capacity.
  std::vector<std::uint8_t> bufferBytes(jobject buffer);
  jobjectRefType refType(jobject reference);
  bool sameObject(jobject left, jobject right);

  // --- Scripts.
  void setLevelWord(jint word) { levelWord_ = word; }
  jint levelWord() const { return levelWord_; }
  // Defines or replaces a Java method for this environment.
  void define(const std::string& className, const std::string& name, const std::string& signature,
              bool isStatic, Body body);
  void removeMethod(const std::string& className, const std::string& name);
  void hideClass(const std::string& path);
  void showClass(const std::string& path);
  // The bodies of the map object's key callbacks. By default "deserialize" answers a plain
  // object with the buffer's bytes, "compare" compares such bytes with a buffer's, and
  // "allocateDirectFromPhantom" answers a buffer over the address.
  void onCompare(std::function<bool(jobject key, jobject buffer)> body);
  void onDeserialize(std::function<jobject(jobject buffer)> body);
  void onAllocateDirectFromPhantom(std::function<jobject(jlong address, jint length)> body);
  // Makes the nth call (counted from now, first is 1) of a slot fail: it answers null, 0 or
  // the slot's error value, with the exception pending when one is given. The three forms of
  // a Call slot count as one: "CallStaticVoidMethod" stands for ...MethodV and ...MethodA too.
  void failCall(const std::string& slot, int nth = 1, std::optional<Thrown> thrown = std::nullopt);
  void clearFailures();
  // Called after each record, with the library in the middle of what it traces: a test can
  // change the world between two steps of an operation.
  void onRecord(std::function<void(const LogRecord&)> body) { onRecord_ = std::move(body); }
  // Whether element and critical accesses hand out copies (isCopy true) or the storage.
  void handOutCopies(bool copies) { copies_ = copies; }

  // --- Exceptions. throwNew also serves scripted bodies that throw.
  void throwNew(const std::string& className, const std::string& message);
  std::optional<Thrown> pending() const;
  std::optional<Thrown> takePending();
  void clearPending();
  int described() const { return described_; }

  // --- What happened.
  const std::vector<LogRecord>& records() const { return records_; }
  std::vector<std::string> lines() const;  // LogRecord::line of each record
  void clearRecords() { records_.clear(); }
  const std::vector<std::string>& calls() const { return calls_; }
  int callCount(std::string_view slot) const;
  void clearCalls() { calls_.clear(); }
  const std::vector<ReleaseCall>& releases() const { return releases_; }
  void clearReleases() { releases_.clear(); }

  // --- Leaks. Local references count when the library made them and has not deleted them.
  std::size_t liveLocals() const;
  std::size_t liveElements() const { return elements_.size(); }
  std::size_t liveCriticals() const { return criticals_.size(); }
  static std::size_t liveGlobals();
  // Reports every leak and a pending exception as a test failure. The destructor calls it.
  void verifyClean();

 private:
  friend struct JniTable;

  struct Reference {
    detail::ObjectPtr object;
    bool ownedByTest;
  };
  struct Failure {
    std::string slot;
    int remaining;
    std::optional<Thrown> thrown;
  };
  struct Access {  // elements or a critical section that the library holds
    std::string slot;
    detail::ObjectPtr object;
    std::unique_ptr<std::uint8_t[]> copy;
  };
  struct Environment : JNIEnv_ {
    ScriptedJni* owner;
  };

  jobject makeLocal(detail::ObjectPtr object, bool ownedByTest);
  void adoptReference(jobject reference);
  detail::ObjectPtr resolve(jobject reference, const char* purpose);
  detail::ObjectPtr resolveArray(jobject reference, char elementType, const char* purpose);
  void throwObject(detail::ObjectPtr object) { pending_ = std::move(object); }
  void defineDefaults();
  void record(LogRecord record);

  Environment environment_;
  std::thread::id thread_;
  jint levelWord_ = 0;
  bool copies_ = false;
  int described_ = 0;
  std::unordered_map<jobject, Reference> locals_;
  std::map<std::string, Body> bodies_;  // by class.name signature
  std::set<std::string> hidden_;
  std::vector<Failure> failures_;
  detail::ObjectPtr pending_;
  const char* awaitingCheck_ = nullptr;  // the Java call whose exception nobody looked at
  std::map<void*, Access> elements_;
  std::map<void*, Access> criticals_;
  std::map<const char*, std::unique_ptr<char[]>> utfChars_;
  std::vector<std::unique_ptr<std::uint8_t[]>> committed_;  // copies kept by mode JNI_COMMIT
  std::vector<LogRecord> records_;
  std::function<void(const LogRecord&)> onRecord_;
  std::vector<std::string> calls_;
  std::vector<ReleaseCall> releases_;
};

}  // namespace nimbra::test
