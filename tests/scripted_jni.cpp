// The object model and the scripts of the scripted JNI environment. The function table that
// the library calls through is in scripted_jni_table.cpp.

#include "scripted_jni.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <utility>

#include "scripted_jni_world.h"

namespace nimbra::test {

using detail::Kind;
using detail::Object;
using detail::ObjectPtr;
using detail::World;

namespace detail {

World& World::instance() {
  // Never destroyed: the library's own globals hold handles into it until the process ends.
  static World* world = new World;
  return *world;
}

jobject World::newHandle() {
  const std::uintptr_t number = lastHandle.fetch_add(1, std::memory_order_relaxed) + 1;
  return reinterpret_cast<jobject>((number << 4) | 0x8);
}

ObjectPtr World::classObject(const std::string& path) {
  ObjectPtr& entry = classes[path];
  if (entry == nullptr) {
    entry = std::make_shared<Object>();
    entry->kind = Kind::kClass;
    entry->className = path;
  }
  return entry;
}

Method* World::method(const std::string& className, const std::string& name,
                      const std::string& signature, bool isStatic) {
  auto& entry = methods[methodKey(className, name, signature) + (isStatic ? " static" : "")];
  if (entry == nullptr) {
    entry = std::make_unique<Method>(Method{className, name, signature, isStatic});
  }
  return entry.get();
}

std::string methodKey(const std::string& className, const std::string& name,
                      const std::string& signature) {
  return className + "." + name + " " + signature;
}

}  // namespace detail

namespace {

// The classes that exist before a test hides one. Any other path is unknown.
constexpr const char* kClasses[] = {
    kLoggerClass,
    kMapClass,
    kManagerClass,
    kOverflowClass,
    kNotEnoughResources,
    kIllegalState,
    kOutOfMemory,
    "com/velt/rz/corvane/io/offheap/impl/LuOffHeapMapValueImpl",
    "com/velt/rz/corvane/io/offheap/overflow/NOFStruct",
    "java/lang/Object",
    "java/lang/RuntimeException",
    "java/lang/Throwable",
};

template <typename Element>
ObjectPtr primitiveArray(char elementType, const Element* values, std::size_t count) {
  auto object = std::make_shared<Object>();
  object->kind = Kind::kPrimitiveArray;
  object->className = std::string("[") + elementType;
  object->elementType = elementType;
  object->bytes.reserve(std::max<std::size_t>(1, count * sizeof(Element)));
  const auto* from = reinterpret_cast<const std::uint8_t*>(values);
  object->bytes.assign(from, from + count * sizeof(Element));
  return object;
}

template <typename Container, typename Element = typename Container::value_type>
Container elementsOf(const ObjectPtr& object) {
  Container result;
  if (object == nullptr) {
    return result;
  }
  result.resize(object->bytes.size() / sizeof(Element));
  if (!result.empty()) {
    std::memcpy(result.data(), object->bytes.data(), object->bytes.size());
  }
  return result;
}

jvalue nothing() {
  jvalue value;
  std::memset(&value, 0, sizeof value);
  return value;
}

jvalue object(jobject reference) {
  jvalue value = nothing();
  value.l = reference;
  return value;
}

}  // namespace

std::string LogRecord::line() const {
  return key.empty() ? level + "|" + text : level + "|" + key + "|" + text;
}

std::ostream& operator<<(std::ostream& out, const Thrown& thrown) {
  return out << thrown.className << "(\"" << thrown.message << "\")";
}

ScriptedJni::ScriptedJni() : thread_(std::this_thread::get_id()) {
  environment_.functions = detail::functionTable();
  environment_.owner = this;
  defineDefaults();
}

ScriptedJni::~ScriptedJni() { verifyClean(); }

JNIEnv* ScriptedJni::env() { return &environment_; }

void ScriptedJni::bindToThisThread() { thread_ = std::this_thread::get_id(); }

void ScriptedJni::defineDefaults() {
  for (const char* level :
       {"audit", "debug", "dump", "error", "warning", "event", "entry", "exit", "fatal", "info"}) {
    define(kLoggerClass, level, "([C)V", true,
           [level](ScriptedJni& jni, jobject, const jvalue* arguments) {
             LogRecord record;
             record.level = level;
             record.units = jni.charsOf(arguments[0].l);
             record.text.assign(record.units.begin(), record.units.end());
             jni.record(std::move(record));
             return nothing();
           });
  }
  define(kLoggerClass, "errorGeneric", "([C[C)V", true,
         [](ScriptedJni& jni, jobject, const jvalue* arguments) {
           LogRecord record;
           record.level = "errorGeneric";
           const std::u16string key = jni.charsOf(arguments[0].l);
           record.key.assign(key.begin(), key.end());
           record.units = jni.charsOf(arguments[1].l);
           record.text.assign(record.units.begin(), record.units.end());
           jni.record(std::move(record));
           return nothing();
         });
  define(kLoggerClass, "getLogLevel", "()I", true, [](ScriptedJni& jni, jobject, const jvalue*) {
    jvalue value = nothing();
    value.i = jni.levelWord_;
    return value;
  });
  onCompare([this](jobject key, jobject buffer) { return bytesOf(key) == bufferBytes(buffer); });
  onDeserialize(
      [this](jobject buffer) { return newObject("java/lang/Object", bufferBytes(buffer)); });
  onAllocateDirectFromPhantom([this](jlong address, jint length) {
    return newDirectBuffer(reinterpret_cast<void*>(address), length);
  });
}

void ScriptedJni::record(LogRecord record) {
  records_.push_back(std::move(record));
  if (onRecord_) {
    const LogRecord seen = records_.back();  // the body may clear the records
    onRecord_(seen);
  }
}

// --- Objects ----------------------------------------------------------------------------

jobject ScriptedJni::makeLocal(ObjectPtr object, bool ownedByTest) {
  const jobject handle = World::instance().newHandle();
  locals_[handle] = Reference{std::move(object), ownedByTest};
  return handle;
}

jbyteArray ScriptedJni::newByteArray(const std::vector<std::uint8_t>& bytes) {
  return static_cast<jbyteArray>(makeLocal(primitiveArray('B', bytes.data(), bytes.size()), true));
}

jcharArray ScriptedJni::newCharArray(const std::u16string& units) {
  return static_cast<jcharArray>(makeLocal(primitiveArray('C', units.data(), units.size()), true));
}

jintArray ScriptedJni::newIntArray(const std::vector<jint>& values) {
  return static_cast<jintArray>(makeLocal(primitiveArray('I', values.data(), values.size()), true));
}

jlongArray ScriptedJni::newLongArray(const std::vector<jlong>& values) {
  return static_cast<jlongArray>(
      makeLocal(primitiveArray('J', values.data(), values.size()), true));
}

jobjectArray ScriptedJni::newObjectArray(const std::vector<jobject>& elements) {
  auto object = std::make_shared<Object>();
  object->kind = Kind::kObjectArray;
  object->className = "[Ljava/lang/Object;";
  for (jobject element : elements) {
    object->elements.push_back(element == nullptr ? nullptr : resolve(element, "newObjectArray"));
  }
  return static_cast<jobjectArray>(makeLocal(std::move(object), true));
}

jstring ScriptedJni::newString(const std::u16string& units) {
  auto object = std::make_shared<Object>();
  object->kind = Kind::kString;
  object->className = "java/lang/String";
  object->units = units;
  return static_cast<jstring>(makeLocal(std::move(object), true));
}

jobject ScriptedJni::newDirectBuffer(const void* address, jlong capacity) {
  auto object = std::make_shared<Object>();
  object->kind = Kind::kBuffer;
  object->className = "java/nio/DirectByteBuffer";
  object->address = const_cast<void*>(address);
  object->capacity = capacity;
  return makeLocal(std::move(object), true);
}

jobject ScriptedJni::newHeapBuffer() { return newDirectBuffer(nullptr, -1); }

jobject ScriptedJni::newObject(const std::string& className,
                               const std::vector<std::uint8_t>& payload) {
  auto object = std::make_shared<Object>();
  object->className = className;
  object->bytes = payload;
  return makeLocal(std::move(object), true);
}

void ScriptedJni::adoptReference(jobject reference) {
  if (reference == nullptr) {
    return;
  }
  const auto found = locals_.find(reference);
  if (found == locals_.end()) {
    ADD_FAILURE() << "adopt: not a live local reference of this environment";
    return;
  }
  found->second.ownedByTest = true;
}

void ScriptedJni::dropGlobal(jobject reference) {
  World& world = World::instance();
  const std::lock_guard lock(world.mutex);
  if (world.globals.erase(reference) == 0) {
    ADD_FAILURE() << "dropGlobal: not a live global reference";
  }
}

ObjectPtr ScriptedJni::resolve(jobject reference, const char* purpose) {
  if (reference == nullptr) {
    ADD_FAILURE() << purpose << ": null reference";
    return nullptr;
  }
  if (const auto found = locals_.find(reference); found != locals_.end()) {
    return found->second.object;
  }
  World& world = World::instance();
  const std::lock_guard lock(world.mutex);
  if (const auto found = world.globals.find(reference); found != world.globals.end()) {
    return found->second;
  }
  ADD_FAILURE() << purpose << ": reference " << reference
                << " is deleted or belongs to another thread";
  return nullptr;
}

ObjectPtr ScriptedJni::resolveArray(jobject reference, char elementType, const char* purpose) {
  ObjectPtr object = resolve(reference, purpose);
  if (object != nullptr &&
      (object->kind != Kind::kPrimitiveArray || object->elementType != elementType)) {
    ADD_FAILURE() << purpose << ": a " << object->className << " is no array of " << elementType;
    return nullptr;
  }
  return object;
}

std::vector<std::uint8_t> ScriptedJni::bytesOf(jobject arrayOrPayload) {
  const ObjectPtr object = resolve(arrayOrPayload, "bytesOf");
  return object == nullptr ? std::vector<std::uint8_t>{} : object->bytes;
}

std::u16string ScriptedJni::charsOf(jobject charArray) {
  return elementsOf<std::u16string>(resolveArray(charArray, 'C', "charsOf"));
}

std::vector<jint> ScriptedJni::intsOf(jobject intArray) {
  return elementsOf<std::vector<jint>>(resolveArray(intArray, 'I', "intsOf"));
}

std::vector<jlong> ScriptedJni::longsOf(jobject longArray) {
  return elementsOf<std::vector<jlong>>(resolveArray(longArray, 'J', "longsOf"));
}

std::u16string ScriptedJni::stringOf(jobject string) {
  const ObjectPtr object = resolve(string, "stringOf");
  if (object == nullptr || object->kind != Kind::kString) {
    ADD_FAILURE() << "stringOf: not a string";
    return {};
  }
  return object->units;
}

std::string ScriptedJni::textOf(jobject string) {
  const std::u16string units = stringOf(string);
  return {units.begin(), units.end()};
}

void* ScriptedJni::bufferAddress(jobject buffer) {
  const ObjectPtr object = resolve(buffer, "bufferAddress");
  return object == nullptr ? nullptr : object->address;
}

jlong ScriptedJni::bufferCapacity(jobject buffer) {
  const ObjectPtr object = resolve(buffer, "bufferCapacity");
  return object == nullptr ? -1 : object->capacity;
}

std::vector<std::uint8_t> ScriptedJni::bufferBytes(jobject buffer) {
  const ObjectPtr object = resolve(buffer, "bufferBytes");
  if (object == nullptr || object->address == nullptr) {
    return {};
  }
  const auto* from = static_cast<const std::uint8_t*>(object->address);
  return {from, from + object->capacity};
}

jobjectRefType ScriptedJni::refType(jobject reference) {
  if (locals_.contains(reference)) {
    return JNILocalRefType;
  }
  World& world = World::instance();
  const std::lock_guard lock(world.mutex);
  return world.globals.contains(reference) ? JNIGlobalRefType : JNIInvalidRefType;
}

bool ScriptedJni::sameObject(jobject left, jobject right) {
  const ObjectPtr first = left == nullptr ? nullptr : resolve(left, "sameObject");
  const ObjectPtr second = right == nullptr ? nullptr : resolve(right, "sameObject");
  return first == second;
}

// --- Scripts ----------------------------------------------------------------------------

void ScriptedJni::define(const std::string& className, const std::string& name,
                         const std::string& signature, bool isStatic, Body body) {
  {
    World& world = World::instance();
    const std::lock_guard lock(world.mutex);
    world.classObject(className);
    world.method(className, name, signature, isStatic);
  }
  bodies_[detail::methodKey(className, name, signature) + (isStatic ? " static" : "")] =
      std::move(body);
}

void ScriptedJni::removeMethod(const std::string& className, const std::string& name) {
  const std::string prefix = className + "." + name + " ";
  std::erase_if(bodies_, [&](const auto& entry) { return entry.first.starts_with(prefix); });
}

void ScriptedJni::hideClass(const std::string& path) { hidden_.insert(path); }

void ScriptedJni::showClass(const std::string& path) { hidden_.erase(path); }

void ScriptedJni::onCompare(std::function<bool(jobject, jobject)> body) {
  define(kMapClass, "compare", "(Ljava/lang/Object;Ljava/nio/ByteBuffer;)Z", false,
         [body = std::move(body)](ScriptedJni&, jobject, const jvalue* arguments) {
           jvalue value = nothing();
           value.z = body(arguments[0].l, arguments[1].l) ? JNI_TRUE : JNI_FALSE;
           return value;
         });
}

void ScriptedJni::onDeserialize(std::function<jobject(jobject)> body) {
  define(kMapClass, "deserialize", "(Ljava/nio/ByteBuffer;)Ljava/lang/Object;", false,
         [body = std::move(body)](ScriptedJni&, jobject, const jvalue* arguments) {
           return object(body(arguments[0].l));
         });
}

void ScriptedJni::onAllocateDirectFromPhantom(std::function<jobject(jlong, jint)> body) {
  define(kMapClass, "allocateDirectFromPhantom", "(JI)Ljava/nio/ByteBuffer;", false,
         [body = std::move(body)](ScriptedJni&, jobject, const jvalue* arguments) {
           return object(body(arguments[0].j, arguments[1].i));
         });
}

void ScriptedJni::failCall(const std::string& slot, int nth, std::optional<Thrown> thrown) {
  failures_.push_back(Failure{slot, nth, std::move(thrown)});
}

void ScriptedJni::clearFailures() { failures_.clear(); }

// --- Exceptions -------------------------------------------------------------------------

void ScriptedJni::throwNew(const std::string& className, const std::string& message) {
  auto object = std::make_shared<Object>();
  object->kind = Kind::kThrowable;
  object->className = className;
  object->message = message;
  pending_ = std::move(object);
}

std::optional<Thrown> ScriptedJni::pending() const {
  if (pending_ == nullptr) {
    return std::nullopt;
  }
  return Thrown{pending_->className, pending_->message};
}

std::optional<Thrown> ScriptedJni::takePending() {
  std::optional<Thrown> thrown = pending();
  clearPending();
  return thrown;
}

void ScriptedJni::clearPending() {
  pending_.reset();
  awaitingCheck_ = nullptr;
}

// --- What happened ----------------------------------------------------------------------

std::vector<std::string> ScriptedJni::lines() const {
  std::vector<std::string> result;
  result.reserve(records_.size());
  for (const LogRecord& record : records_) {
    result.push_back(record.line());
  }
  return result;
}

int ScriptedJni::callCount(std::string_view slot) const {
  return static_cast<int>(std::count(calls_.begin(), calls_.end(), slot));
}

std::size_t ScriptedJni::liveLocals() const {
  return static_cast<std::size_t>(std::count_if(
      locals_.begin(), locals_.end(), [](const auto& entry) { return !entry.second.ownedByTest; }));
}

std::size_t ScriptedJni::liveGlobals() {
  World& world = World::instance();
  const std::lock_guard lock(world.mutex);
  return world.globals.size();
}

void ScriptedJni::verifyClean() {
  for (auto& [handle, reference] : locals_) {
    if (!reference.ownedByTest) {
      ADD_FAILURE() << "leaked local reference to a " << reference.object->className;
      reference.ownedByTest = true;
    }
  }
  for (const auto& [address, access] : elements_) {
    ADD_FAILURE() << "array elements were not released after " << access.slot;
  }
  for (const auto& [address, access] : criticals_) {
    ADD_FAILURE() << "critical section was not released after " << access.slot;
  }
  for (std::size_t count = utfChars_.size(); count > 0; --count) {
    ADD_FAILURE() << "string characters were not released after GetStringUTFChars";
  }
  elements_.clear();
  criticals_.clear();
  utfChars_.clear();
  if (const std::optional<Thrown> thrown = takePending()) {
    ADD_FAILURE() << "exception left pending: " << *thrown;
  }
}

namespace detail {

// The built-in classes come into being with the first environment.
[[maybe_unused]] const bool kClassesDefined = [] {
  World& world = World::instance();
  const std::lock_guard lock(world.mutex);
  for (const char* path : kClasses) {
    world.classObject(path);
  }
  return true;
}();

}  // namespace detail

}  // namespace nimbra::test
