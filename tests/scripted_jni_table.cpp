// The function table of the scripted JNI environment: every slot that the library may call,
// with the rules of a checking virtual machine. Slots that nothing scripts report their name.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstring>
#include <utility>

#include "scripted_jni.h"
#include "scripted_jni_traits.h"
#include "scripted_jni_world.h"

namespace nimbra::test {

using detail::Array;
using detail::decodeModifiedUtf8;
using detail::elementSize;
using detail::encodeModifiedUtf8;
using detail::Kind;
using detail::kSlotCount;
using detail::kSlotNames;
using detail::Method;
using detail::Object;
using detail::ObjectPtr;
using detail::parameterTypes;
using detail::Result;
using detail::returnType;
using detail::World;

namespace {

// What a slot is allowed to do. Default: no exception pending, no critical section open, and
// the exception of the Java call before it looked at.
enum Rule : unsigned {
  kDefault = 0,
  kWithException = 1,  // may be called while an exception is pending
  kInCritical = 2,     // may be called inside a critical section
  kLooksAtException = 4,
};

// A thread's native frame has room for this many local references without asking for more.
constexpr std::size_t kLocalCapacity = 32;

template <std::size_t Slot>
std::uintptr_t unexpectedCall() {
  if constexpr (Slot < std::size(kSlotNames)) {
    ADD_FAILURE() << "unexpected JNI call: " << kSlotNames[Slot];
  } else {
    ADD_FAILURE() << "unexpected JNI call: slot " << Slot;
  }
  return 0;
}

template <std::size_t... Slots>
std::array<std::uintptr_t (*)(), sizeof...(Slots)> unexpectedCalls(std::index_sequence<Slots...>) {
  return {&unexpectedCall<Slots>...};
}

ObjectPtr stringObject(std::u16string units) {
  auto object = std::make_shared<Object>();
  object->kind = Kind::kString;
  object->className = "java/lang/String";
  object->units = std::move(units);
  return object;
}

}  // namespace

struct JniTable {
  static ScriptedJni& of(JNIEnv* env) {
    return *static_cast<ScriptedJni::Environment*>(env)->owner;
  }

  // Opens a slot: records the call and applies the rules. False means that the script wants
  // this call to fail; its exception, if any, is pending then.
  static bool enter(JNIEnv* env, const char* slot, unsigned rules = kDefault) {
    ScriptedJni& jni = of(env);
    if (jni.thread_ != std::this_thread::get_id()) {
      ADD_FAILURE() << slot << ": called on a thread that does not own this JNIEnv";
    }
    jni.calls_.emplace_back(slot);
    if ((rules & kInCritical) == 0 && !jni.criticals_.empty()) {
      ADD_FAILURE() << slot << ": called inside a critical section ("
                    << jni.criticals_.begin()->second.slot << ")";
    }
    if ((rules & kWithException) == 0) {
      if (jni.pending_ != nullptr) {
        ADD_FAILURE() << slot << ": called while an exception is pending: " << *jni.pending();
      } else if (jni.awaitingCheck_ != nullptr) {
        ADD_FAILURE() << slot << ": called without a look at the exception of "
                      << jni.awaitingCheck_;
      }
      jni.awaitingCheck_ = nullptr;
    }
    if ((rules & kLooksAtException) != 0) {
      jni.awaitingCheck_ = nullptr;
    }
    return !failsByScript(jni, slot);
  }

  static bool failsByScript(ScriptedJni& jni, const char* slot) {
    for (auto failure = jni.failures_.begin(); failure != jni.failures_.end(); ++failure) {
      if (failure->slot == slot && --failure->remaining == 0) {
        if (failure->thrown.has_value()) {
          jni.throwNew(failure->thrown->className, failure->thrown->message);
        }
        jni.failures_.erase(failure);
        return true;
      }
    }
    return false;
  }

  static jobject local(ScriptedJni& jni, ObjectPtr object) {
    jobject reference = jni.makeLocal(std::move(object), false);
    if (jni.liveLocals() > kLocalCapacity) {
      ADD_FAILURE() << "more than " << kLocalCapacity << " local references are alive";
    }
    return reference;
  }

  // --- Classes, exceptions, references --------------------------------------------------

  static jint JNICALL getVersion(JNIEnv* env) {
    enter(env, "GetVersion");
    return JNI_VERSION_10;
  }

  static jclass JNICALL findClass(JNIEnv* env, const char* path) {
    ScriptedJni& jni = of(env);
    if (!enter(env, "FindClass")) {
      return nullptr;
    }
    World& world = World::instance();
    ObjectPtr found;
    {
      const std::lock_guard lock(world.mutex);
      if (const auto entry = world.classes.find(path); entry != world.classes.end()) {
        found = entry->second;
      }
    }
    if (found == nullptr || jni.hidden_.contains(path)) {
      jni.throwNew("java/lang/NoClassDefFoundError", path);
      return nullptr;
    }
    return static_cast<jclass>(local(jni, found));
  }

  static jclass JNICALL getObjectClass(JNIEnv* env, jobject reference) {
    ScriptedJni& jni = of(env);
    const bool proceed = enter(env, "GetObjectClass");
    const ObjectPtr object = jni.resolve(reference, "GetObjectClass");
    if (!proceed || object == nullptr) {
      return nullptr;
    }
    World& world = World::instance();
    ObjectPtr found;
    {
      const std::lock_guard lock(world.mutex);
      found = world.classObject(object->className);
    }
    return static_cast<jclass>(local(jni, found));
  }

  static jint JNICALL throwObject(JNIEnv* env, jthrowable reference) {
    ScriptedJni& jni = of(env);
    const bool proceed = enter(env, "Throw");
    ObjectPtr object = jni.resolve(reference, "Throw");
    if (!proceed || object == nullptr) {
      return JNI_ERR;
    }
    if (object->kind != Kind::kThrowable && object->kind != Kind::kClass) {
      ADD_FAILURE() << "Throw: a " << object->className << " cannot be thrown";
      return JNI_ERR;
    }
    jni.pending_ = std::move(object);
    return JNI_OK;
  }

  static jint JNICALL throwNew(JNIEnv* env, jclass reference, const char* message) {
    ScriptedJni& jni = of(env);
    const bool proceed = enter(env, "ThrowNew");
    const ObjectPtr object = jni.resolve(reference, "ThrowNew");
    if (!proceed || object == nullptr) {
      return JNI_ERR;
    }
    if (object->kind != Kind::kClass) {
      ADD_FAILURE() << "ThrowNew: a " << object->className << " is no class";
      return JNI_ERR;
    }
    jni.throwNew(object->className, message == nullptr ? "" : message);
    return JNI_OK;
  }

  static jthrowable JNICALL exceptionOccurred(JNIEnv* env) {
    ScriptedJni& jni = of(env);
    enter(env, "ExceptionOccurred", kWithException | kLooksAtException);
    return jni.pending_ == nullptr ? nullptr : static_cast<jthrowable>(local(jni, jni.pending_));
  }

  static void JNICALL exceptionDescribe(JNIEnv* env) {
    ScriptedJni& jni = of(env);
    enter(env, "ExceptionDescribe", kWithException | kLooksAtException);
    if (jni.pending_ != nullptr) {
      ++jni.described_;
    }
    jni.pending_.reset();  // as HotSpot does
  }

  static void JNICALL exceptionClear(JNIEnv* env) {
    enter(env, "ExceptionClear", kWithException | kLooksAtException);
    of(env).pending_.reset();
  }

  static jboolean JNICALL exceptionCheck(JNIEnv* env) {
    enter(env, "ExceptionCheck", kWithException | kLooksAtException);
    return of(env).pending_ != nullptr ? JNI_TRUE : JNI_FALSE;
  }

  static jobject JNICALL newGlobalRef(JNIEnv* env, jobject reference) {
    ScriptedJni& jni = of(env);
    if (!enter(env, "NewGlobalRef") || reference == nullptr) {
      return nullptr;
    }
    ObjectPtr object = jni.resolve(reference, "NewGlobalRef");
    if (object == nullptr) {
      return nullptr;
    }
    World& world = World::instance();
    const std::lock_guard lock(world.mutex);
    jobject handle = world.newHandle();
    world.globals[handle] = std::move(object);
    return handle;
  }

  static void JNICALL deleteGlobalRef(JNIEnv* env, jobject reference) {
    enter(env, "DeleteGlobalRef", kWithException);
    if (reference != nullptr) {
      of(env).dropGlobal(reference);
    }
  }

  static jobject JNICALL newLocalRef(JNIEnv* env, jobject reference) {
    ScriptedJni& jni = of(env);
    if (!enter(env, "NewLocalRef") || reference == nullptr) {
      return nullptr;
    }
    ObjectPtr object = jni.resolve(reference, "NewLocalRef");
    return object == nullptr ? nullptr : local(jni, std::move(object));
  }

  static void JNICALL deleteLocalRef(JNIEnv* env, jobject reference) {
    ScriptedJni& jni = of(env);
    enter(env, "DeleteLocalRef", kWithException);
    if (reference == nullptr) {
      return;
    }
    const auto found = jni.locals_.find(reference);
    if (found == jni.locals_.end()) {
      ADD_FAILURE() << "DeleteLocalRef: not a live local reference of this thread";
    } else if (found->second.ownedByTest) {
      ADD_FAILURE() << "DeleteLocalRef: the reference belongs to the caller of the library";
    } else {
      jni.locals_.erase(found);
    }
  }

  static jobjectRefType JNICALL getObjectRefType(JNIEnv* env, jobject reference) {
    return enter(env, "GetObjectRefType") ? of(env).refType(reference) : JNIInvalidRefType;
  }

  static jboolean JNICALL isSameObject(JNIEnv* env, jobject left, jobject right) {
    enter(env, "IsSameObject");
    return of(env).sameObject(left, right) ? JNI_TRUE : JNI_FALSE;
  }

  static jint JNICALL ensureLocalCapacity(JNIEnv* env, jint) {
    return enter(env, "EnsureLocalCapacity") ? JNI_OK : JNI_ENOMEM;
  }

  // --- Methods --------------------------------------------------------------------------

  static jmethodID findMethod(JNIEnv* env, const char* slot, jclass reference, const char* name,
                              const char* signature, bool isStatic) {
    ScriptedJni& jni = of(env);
    const bool proceed = enter(env, slot);
    const ObjectPtr object = jni.resolve(reference, slot);
    if (!proceed || object == nullptr) {
      return nullptr;
    }
    if (object->kind != Kind::kClass) {
      ADD_FAILURE() << slot << ": a " << object->className << " is no class";
      return nullptr;
    }
    const std::string key =
        detail::methodKey(object->className, name, signature) + (isStatic ? " static" : "");
    if (!jni.bodies_.contains(key)) {
      jni.throwNew("java/lang/NoSuchMethodError", name);
      return nullptr;
    }
    World& world = World::instance();
    const std::lock_guard lock(world.mutex);
    return reinterpret_cast<jmethodID>(world.method(object->className, name, signature, isStatic));
  }

  static jmethodID JNICALL getMethodId(JNIEnv* env, jclass reference, const char* name,
                                       const char* signature) {
    return findMethod(env, "GetMethodID", reference, name, signature, false);
  }

  static jmethodID JNICALL getStaticMethodId(JNIEnv* env, jclass reference, const char* name,
                                             const char* signature) {
    return findMethod(env, "GetStaticMethodID", reference, name, signature, true);
  }

  static std::vector<jvalue> arguments(jmethodID id, va_list list) {
    std::vector<jvalue> values;
    if (id == nullptr) {
      return values;
    }
    const auto& method = *reinterpret_cast<const Method*>(id);
    for (const char type : parameterTypes(method.signature)) {
      jvalue value;
      std::memset(&value, 0, sizeof value);
      switch (type) {
        case 'J': value.j = va_arg(list, jlong); break;
        case 'D': value.d = va_arg(list, jdouble); break;
        case 'F': value.f = static_cast<jfloat>(va_arg(list, jdouble)); break;
        case 'L': value.l = va_arg(list, jobject); break;
        case 'Z': value.z = static_cast<jboolean>(va_arg(list, jint)); break;
        case 'B': value.b = static_cast<jbyte>(va_arg(list, jint)); break;
        case 'C': value.c = static_cast<jchar>(va_arg(list, jint)); break;
        case 'S': value.s = static_cast<jshort>(va_arg(list, jint)); break;
        default: value.i = va_arg(list, jint); break;
      }
      values.push_back(value);
    }
    return values;
  }

  static jvalue invoke(JNIEnv* env, const char* slot, char result, bool isStatic, jobject target,
                       jmethodID id, const jvalue* values) {
    ScriptedJni& jni = of(env);
    jvalue answer;
    std::memset(&answer, 0, sizeof answer);
    const bool proceed = enter(env, slot);
    jni.awaitingCheck_ = slot;
    if (!proceed) {
      return answer;
    }
    const ObjectPtr object = jni.resolve(target, slot);
    if (object == nullptr || id == nullptr) {
      ADD_FAILURE() << slot << ": null or invalid target or method";
      return answer;
    }
    const auto& method = *reinterpret_cast<const Method*>(id);
    const std::string name = method.className + "." + method.name;
    if (method.isStatic != isStatic || returnType(method.signature) != result ||
        object->className != method.className || isStatic != (object->kind == Kind::kClass)) {
      ADD_FAILURE() << slot << ": does not fit " << name << method.signature << " on a "
                    << object->className;
      return answer;
    }
    const std::string types = parameterTypes(method.signature);
    for (std::size_t at = 0; at < types.size(); ++at) {
      if (types[at] == 'L' && values[at].l != nullptr &&
          jni.resolve(values[at].l, slot) == nullptr) {
        return answer;
      }
    }
    const auto body =
        jni.bodies_.find(detail::methodKey(method.className, method.name, method.signature) +
                         (isStatic ? " static" : ""));
    if (body == jni.bodies_.end()) {
      ADD_FAILURE() << slot << ": " << name << " has no body in this environment";
      return answer;
    }
    const ScriptedJni::Body run = body->second;  // a body may redefine itself
    jni.awaitingCheck_ = nullptr;                // the body may itself call natives
    answer = run(jni, isStatic ? nullptr : target, values);
    jni.awaitingCheck_ = slot;
    if (jni.pending_ != nullptr) {
      std::memset(&answer, 0, sizeof answer);
    } else if (result == 'L' && answer.l != nullptr) {
      answer.l = local(jni, jni.resolve(answer.l, slot));
    }
    return answer;
  }

  template <char Type, bool IsStatic>
  static constexpr const char* slotOf() {
    return IsStatic ? Result<Type>::callStatic : Result<Type>::call;
  }

  template <char Type, bool IsStatic>
  static typename Result<Type>::type answer(JNIEnv* env, jobject target, jmethodID id,
                                            const jvalue* values) {
    const jvalue value = invoke(env, slotOf<Type, IsStatic>(), Type, IsStatic, target, id, values);
    if constexpr (Type != 'V') {
      return Result<Type>::of(value);
    }
  }

  // Target is jobject for instance methods and jclass for static ones.
  template <char Type, typename Target>
  static typename Result<Type>::type JNICALL callA(JNIEnv* env, Target target, jmethodID id,
                                                   const jvalue* values) {
    return answer<Type, std::is_same_v<Target, jclass>>(env, target, id, values);
  }

  template <char Type, typename Target>
  static typename Result<Type>::type JNICALL callV(JNIEnv* env, Target target, jmethodID id,
                                                   va_list list) {
    const std::vector<jvalue> values = arguments(id, list);
    return answer<Type, std::is_same_v<Target, jclass>>(env, target, id, values.data());
  }

  template <char Type, typename Target>
  static typename Result<Type>::type JNICALL call(JNIEnv* env, Target target, jmethodID id, ...) {
    va_list list;
    va_start(list, id);
    const std::vector<jvalue> values = arguments(id, list);
    va_end(list);
    return answer<Type, std::is_same_v<Target, jclass>>(env, target, id, values.data());
  }

  // --- Arrays ---------------------------------------------------------------------------

  static jsize JNICALL getArrayLength(JNIEnv* env, jarray reference) {
    enter(env, "GetArrayLength");
    const ObjectPtr object = of(env).resolve(reference, "GetArrayLength");
    if (object == nullptr) {
      return 0;
    }
    if (object->kind == Kind::kObjectArray) {
      return static_cast<jsize>(object->elements.size());
    }
    if (object->kind != Kind::kPrimitiveArray) {
      ADD_FAILURE() << "GetArrayLength: a " << object->className << " is no array";
      return 0;
    }
    return static_cast<jsize>(object->bytes.size() / elementSize(object->elementType));
  }

  static jobject JNICALL getObjectArrayElement(JNIEnv* env, jobjectArray reference, jsize index) {
    ScriptedJni& jni = of(env);
    const bool proceed = enter(env, "GetObjectArrayElement");
    const ObjectPtr object = jni.resolve(reference, "GetObjectArrayElement");
    if (!proceed || object == nullptr) {
      return nullptr;
    }
    if (object->kind != Kind::kObjectArray) {
      ADD_FAILURE() << "GetObjectArrayElement: a " << object->className << " is no such array";
      return nullptr;
    }
    if (index < 0 || static_cast<std::size_t>(index) >= object->elements.size()) {
      jni.throwNew("java/lang/ArrayIndexOutOfBoundsException", std::to_string(index));
      return nullptr;
    }
    const ObjectPtr& element = object->elements[static_cast<std::size_t>(index)];
    return element == nullptr ? nullptr : local(jni, element);
  }

  template <char Type>
  static typename Array<Type>::array JNICALL newArray(JNIEnv* env, jsize length) {
    if (!enter(env, Array<Type>::create)) {
      return nullptr;
    }
    if (length < 0) {
      ADD_FAILURE() << Array<Type>::create << ": negative length " << length;
      return nullptr;
    }
    auto object = std::make_shared<Object>();
    object->kind = Kind::kPrimitiveArray;
    object->className = std::string("[") + Type;
    object->elementType = Type;
    const std::size_t size =
        static_cast<std::size_t>(length) * sizeof(typename Array<Type>::element);
    object->bytes.reserve(std::max<std::size_t>(1, size));
    object->bytes.resize(size);
    return static_cast<typename Array<Type>::array>(local(of(env), std::move(object)));
  }

  // The bytes of a region, or null when it leaves the array (the Java exception is pending).
  template <char Type>
  static std::uint8_t* region(ScriptedJni& jni, const char* slot, jarray reference, jsize start,
                              jsize length) {
    const ObjectPtr object = jni.resolveArray(reference, Type, slot);
    if (object == nullptr) {
      return nullptr;
    }
    const std::size_t size = sizeof(typename Array<Type>::element);
    const auto count = static_cast<jlong>(object->bytes.size() / size);
    if (start < 0 || length < 0 || static_cast<jlong>(start) + length > count) {
      jni.throwNew("java/lang/ArrayIndexOutOfBoundsException",
                   std::to_string(start) + "+" + std::to_string(length));
      return nullptr;
    }
    return object->bytes.data() + static_cast<std::size_t>(start) * size;
  }

  template <char Type>
  static void JNICALL getRegion(JNIEnv* env, typename Array<Type>::array reference, jsize start,
                                jsize length, typename Array<Type>::element* target) {
    const bool proceed = enter(env, Array<Type>::getRegion);
    const auto* from = region<Type>(of(env), Array<Type>::getRegion, reference, start, length);
    if (proceed && from != nullptr && length > 0) {
      std::memcpy(target, from, static_cast<std::size_t>(length) * sizeof *target);
    }
  }

  template <char Type>
  static void JNICALL setRegion(JNIEnv* env, typename Array<Type>::array reference, jsize start,
                                jsize length, const typename Array<Type>::element* source) {
    const bool proceed = enter(env, Array<Type>::setRegion);
    auto* to = region<Type>(of(env), Array<Type>::setRegion, reference, start, length);
    if (proceed && to != nullptr && length > 0) {
      std::memcpy(to, source, static_cast<std::size_t>(length) * sizeof *source);
    }
  }

  // Hands out a copy or the storage, as the script says.
  static void* access(std::map<void*, ScriptedJni::Access>& held, ScriptedJni& jni,
                      const char* slot, const ObjectPtr& object, std::uint8_t* storage,
                      std::size_t size, jboolean* isCopy) {
    ScriptedJni::Access entry{slot, object, nullptr};
    void* address = storage;
    if (jni.copies_) {
      entry.copy = std::make_unique<std::uint8_t[]>(std::max<std::size_t>(1, size));
      std::copy_n(storage, size, entry.copy.get());
      address = entry.copy.get();
    }
    if (isCopy != nullptr) {
      *isCopy = jni.copies_ ? JNI_TRUE : JNI_FALSE;
    }
    if (!held.emplace(address, std::move(entry)).second) {
      ADD_FAILURE() << slot << ": the same storage is already held; release it first";
    }
    return address;
  }

  static void release(std::map<void*, ScriptedJni::Access>& held, ScriptedJni& jni,
                      const char* slot, const ObjectPtr& object, const void* address,
                      std::uint8_t* storage, std::size_t size, jint mode) {
    const auto found = held.find(const_cast<void*>(address));
    if (found == held.end() || found->second.object != object) {
      ADD_FAILURE() << slot << ": the address was not handed out for this object";
      return;
    }
    if (mode != 0 && mode != JNI_COMMIT && mode != JNI_ABORT) {
      ADD_FAILURE() << slot << ": unknown release mode " << mode;
    }
    ScriptedJni::Access entry = std::move(found->second);
    held.erase(found);
    const bool copied = entry.copy != nullptr;
    jni.releases_.push_back(ReleaseCall{slot, mode, copied});
    if (copied && mode != JNI_ABORT) {
      std::copy_n(entry.copy.get(), size, storage);
    }
    if (copied && mode == JNI_COMMIT) {
      // The caller committed without freeing, so the copy stays the environment's.
      jni.committed_.push_back(std::move(entry.copy));
    }
  }

  template <char Type>
  static typename Array<Type>::element* JNICALL getElements(JNIEnv* env,
                                                            typename Array<Type>::array reference,
                                                            jboolean* isCopy) {
    ScriptedJni& jni = of(env);
    const bool proceed = enter(env, Array<Type>::getElements);
    const ObjectPtr object = jni.resolveArray(reference, Type, Array<Type>::getElements);
    if (!proceed || object == nullptr) {
      return nullptr;
    }
    return static_cast<typename Array<Type>::element*>(
        access(jni.elements_, jni, Array<Type>::getElements, object, object->bytes.data(),
               object->bytes.size(), isCopy));
  }

  template <char Type>
  static void JNICALL releaseElements(JNIEnv* env, typename Array<Type>::array reference,
                                      typename Array<Type>::element* address, jint mode) {
    ScriptedJni& jni = of(env);
    enter(env, Array<Type>::releaseElements, kWithException);
    const ObjectPtr object = jni.resolveArray(reference, Type, Array<Type>::releaseElements);
    if (object != nullptr) {
      release(jni.elements_, jni, Array<Type>::releaseElements, object, address,
              object->bytes.data(), object->bytes.size(), mode);
    }
  }

  static void* JNICALL getArrayCritical(JNIEnv* env, jarray reference, jboolean* isCopy) {
    ScriptedJni& jni = of(env);
    constexpr const char* slot = "GetPrimitiveArrayCritical";
    const bool proceed = enter(env, slot, kInCritical);
    const ObjectPtr object = jni.resolve(reference, slot);
    if (!proceed || object == nullptr) {
      return nullptr;
    }
    if (object->kind != Kind::kPrimitiveArray) {
      ADD_FAILURE() << slot << ": a " << object->className << " is no primitive array";
      return nullptr;
    }
    return access(jni.criticals_, jni, slot, object, object->bytes.data(), object->bytes.size(),
                  isCopy);
  }

  static void JNICALL releaseArrayCritical(JNIEnv* env, jarray reference, void* address,
                                           jint mode) {
    ScriptedJni& jni = of(env);
    constexpr const char* slot = "ReleasePrimitiveArrayCritical";
    enter(env, slot, kInCritical | kWithException);
    if (const ObjectPtr object = jni.resolve(reference, slot)) {
      release(jni.criticals_, jni, slot, object, address, object->bytes.data(),
              object->bytes.size(), mode);
    }
  }

  // --- Strings --------------------------------------------------------------------------

  static ObjectPtr text(JNIEnv* env, jstring reference, const char* slot) {
    ObjectPtr object = of(env).resolve(reference, slot);
    if (object != nullptr && object->kind != Kind::kString) {
      ADD_FAILURE() << slot << ": a " << object->className << " is no string";
      return nullptr;
    }
    return object;
  }

  static jstring JNICALL newString(JNIEnv* env, const jchar* units, jsize length) {
    if (!enter(env, "NewString")) {
      return nullptr;
    }
    return static_cast<jstring>(
        local(of(env), stringObject({reinterpret_cast<const char16_t*>(units),
                                     static_cast<std::size_t>(length)})));
  }

  static jstring JNICALL newStringUtf(JNIEnv* env, const char* bytes) {
    if (!enter(env, "NewStringUTF") || bytes == nullptr) {
      return nullptr;
    }
    return static_cast<jstring>(local(of(env), stringObject(decodeModifiedUtf8(bytes))));
  }

  static jsize JNICALL getStringLength(JNIEnv* env, jstring reference) {
    enter(env, "GetStringLength");
    const ObjectPtr object = text(env, reference, "GetStringLength");
    return object == nullptr ? 0 : static_cast<jsize>(object->units.size());
  }

  static const char* JNICALL getStringUtfChars(JNIEnv* env, jstring reference, jboolean* isCopy) {
    const bool proceed = enter(env, "GetStringUTFChars");
    const ObjectPtr object = text(env, reference, "GetStringUTFChars");
    if (!proceed || object == nullptr) {
      return nullptr;
    }
    const std::string encoded = encodeModifiedUtf8(object->units);
    auto copy = std::make_unique<char[]>(encoded.size() + 1);
    std::memcpy(copy.get(), encoded.c_str(), encoded.size() + 1);
    if (isCopy != nullptr) {
      *isCopy = JNI_TRUE;
    }
    const char* address = copy.get();
    of(env).utfChars_[address] = std::move(copy);
    return address;
  }

  static void JNICALL releaseStringUtfChars(JNIEnv* env, jstring reference, const char* address) {
    enter(env, "ReleaseStringUTFChars", kWithException);
    text(env, reference, "ReleaseStringUTFChars");
    if (of(env).utfChars_.erase(address) == 0) {
      ADD_FAILURE() << "ReleaseStringUTFChars: the address was not handed out";
    }
  }

  static const jchar* openString(JNIEnv* env, const char* slot, unsigned rules,
                                 std::map<void*, ScriptedJni::Access>& held, jstring reference,
                                 jboolean* isCopy) {
    const bool proceed = enter(env, slot, rules);
    const ObjectPtr object = text(env, reference, slot);
    if (!proceed || object == nullptr) {
      return nullptr;
    }
    return static_cast<const jchar*>(access(held, of(env), slot, object,
                                            reinterpret_cast<std::uint8_t*>(object->units.data()),
                                            object->units.size() * sizeof(jchar), isCopy));
  }

  static void closeString(JNIEnv* env, const char* slot, unsigned rules,
                          std::map<void*, ScriptedJni::Access>& held, jstring reference,
                          const jchar* address) {
    enter(env, slot, rules);
    if (const ObjectPtr object = text(env, reference, slot)) {
      release(held, of(env), slot, object, address, nullptr, 0, JNI_ABORT);
    }
  }

  static const jchar* JNICALL getStringChars(JNIEnv* env, jstring reference, jboolean* isCopy) {
    return openString(env, "GetStringChars", kDefault, of(env).elements_, reference, isCopy);
  }

  static void JNICALL releaseStringChars(JNIEnv* env, jstring reference, const jchar* address) {
    closeString(env, "ReleaseStringChars", kWithException, of(env).elements_, reference, address);
  }

  static const jchar* JNICALL getStringCritical(JNIEnv* env, jstring reference, jboolean* isCopy) {
    return openString(env, "GetStringCritical", kInCritical, of(env).criticals_, reference, isCopy);
  }

  static void JNICALL releaseStringCritical(JNIEnv* env, jstring reference, const jchar* address) {
    closeString(env, "ReleaseStringCritical", kInCritical | kWithException, of(env).criticals_,
                reference, address);
  }

  static void JNICALL getStringRegion(JNIEnv* env, jstring reference, jsize start, jsize length,
                                      jchar* target) {
    const bool proceed = enter(env, "GetStringRegion");
    const ObjectPtr object = text(env, reference, "GetStringRegion");
    if (!proceed || object == nullptr) {
      return;
    }
    if (start < 0 || length < 0 ||
        static_cast<std::size_t>(start) + static_cast<std::size_t>(length) > object->units.size()) {
      of(env).throwNew("java/lang/StringIndexOutOfBoundsException", std::to_string(start));
      return;
    }
    std::memcpy(target, object->units.data() + start,
                static_cast<std::size_t>(length) * sizeof(jchar));
  }

  // --- Direct buffers -------------------------------------------------------------------

  static jobject JNICALL newDirectByteBuffer(JNIEnv* env, void* address, jlong capacity) {
    if (!enter(env, "NewDirectByteBuffer")) {
      return nullptr;
    }
    if (capacity < 0 || capacity > 0x7fffffff) {
      ADD_FAILURE() << "NewDirectByteBuffer: capacity " << capacity;
    }
    auto object = std::make_shared<Object>();
    object->kind = Kind::kBuffer;
    object->className = "java/nio/DirectByteBuffer";
    object->address = address;
    object->capacity = capacity;
    return local(of(env), std::move(object));
  }

  static void* JNICALL getDirectBufferAddress(JNIEnv* env, jobject reference) {
    const bool proceed = enter(env, "GetDirectBufferAddress");
    const ObjectPtr object = of(env).resolve(reference, "GetDirectBufferAddress");
    return proceed && object != nullptr ? object->address : nullptr;
  }

  static jlong JNICALL getDirectBufferCapacity(JNIEnv* env, jobject reference) {
    const bool proceed = enter(env, "GetDirectBufferCapacity");
    const ObjectPtr object = of(env).resolve(reference, "GetDirectBufferCapacity");
    return proceed && object != nullptr && object->kind == Kind::kBuffer ? object->capacity : -1;
  }

  static void fill(JNINativeInterface_& table) {
    const auto unexpected = unexpectedCalls(std::make_index_sequence<kSlotCount>());
    static_assert(sizeof unexpected == sizeof table);
    std::memcpy(static_cast<void*>(&table), unexpected.data(), sizeof table);

    table.GetVersion = getVersion;
    table.FindClass = findClass;
    table.GetObjectClass = getObjectClass;
    table.Throw = throwObject;
    table.ThrowNew = throwNew;
    table.ExceptionOccurred = exceptionOccurred;
    table.ExceptionDescribe = exceptionDescribe;
    table.ExceptionClear = exceptionClear;
    table.ExceptionCheck = exceptionCheck;
    table.NewGlobalRef = newGlobalRef;
    table.DeleteGlobalRef = deleteGlobalRef;
    table.NewLocalRef = newLocalRef;
    table.DeleteLocalRef = deleteLocalRef;
    table.GetObjectRefType = getObjectRefType;
    table.IsSameObject = isSameObject;
    table.EnsureLocalCapacity = ensureLocalCapacity;
    table.GetMethodID = getMethodId;
    table.GetStaticMethodID = getStaticMethodId;
    table.CallVoidMethod = call<'V', jobject>;
    table.CallVoidMethodV = callV<'V', jobject>;
    table.CallVoidMethodA = callA<'V', jobject>;
    table.CallStaticVoidMethod = call<'V', jclass>;
    table.CallStaticVoidMethodV = callV<'V', jclass>;
    table.CallStaticVoidMethodA = callA<'V', jclass>;
    table.CallBooleanMethod = call<'Z', jobject>;
    table.CallBooleanMethodV = callV<'Z', jobject>;
    table.CallBooleanMethodA = callA<'Z', jobject>;
    table.CallStaticBooleanMethod = call<'Z', jclass>;
    table.CallStaticBooleanMethodV = callV<'Z', jclass>;
    table.CallStaticBooleanMethodA = callA<'Z', jclass>;
    table.CallIntMethod = call<'I', jobject>;
    table.CallIntMethodV = callV<'I', jobject>;
    table.CallIntMethodA = callA<'I', jobject>;
    table.CallStaticIntMethod = call<'I', jclass>;
    table.CallStaticIntMethodV = callV<'I', jclass>;
    table.CallStaticIntMethodA = callA<'I', jclass>;
    table.CallLongMethod = call<'J', jobject>;
    table.CallLongMethodV = callV<'J', jobject>;
    table.CallLongMethodA = callA<'J', jobject>;
    table.CallStaticLongMethod = call<'J', jclass>;
    table.CallStaticLongMethodV = callV<'J', jclass>;
    table.CallStaticLongMethodA = callA<'J', jclass>;
    table.CallObjectMethod = call<'L', jobject>;
    table.CallObjectMethodV = callV<'L', jobject>;
    table.CallObjectMethodA = callA<'L', jobject>;
    table.CallStaticObjectMethod = call<'L', jclass>;
    table.CallStaticObjectMethodV = callV<'L', jclass>;
    table.CallStaticObjectMethodA = callA<'L', jclass>;

    table.GetArrayLength = getArrayLength;
    table.GetObjectArrayElement = getObjectArrayElement;
    table.NewByteArray = newArray<'B'>;
    table.GetByteArrayRegion = getRegion<'B'>;
    table.SetByteArrayRegion = setRegion<'B'>;
    table.GetByteArrayElements = getElements<'B'>;
    table.ReleaseByteArrayElements = releaseElements<'B'>;
    table.NewCharArray = newArray<'C'>;
    table.GetCharArrayRegion = getRegion<'C'>;
    table.SetCharArrayRegion = setRegion<'C'>;
    table.GetCharArrayElements = getElements<'C'>;
    table.ReleaseCharArrayElements = releaseElements<'C'>;
    table.NewIntArray = newArray<'I'>;
    table.GetIntArrayRegion = getRegion<'I'>;
    table.SetIntArrayRegion = setRegion<'I'>;
    table.GetIntArrayElements = getElements<'I'>;
    table.ReleaseIntArrayElements = releaseElements<'I'>;
    table.NewLongArray = newArray<'J'>;
    table.GetLongArrayRegion = getRegion<'J'>;
    table.SetLongArrayRegion = setRegion<'J'>;
    table.GetLongArrayElements = getElements<'J'>;
    table.ReleaseLongArrayElements = releaseElements<'J'>;

    table.GetPrimitiveArrayCritical = getArrayCritical;
    table.ReleasePrimitiveArrayCritical = releaseArrayCritical;

    table.NewString = newString;
    table.NewStringUTF = newStringUtf;
    table.GetStringLength = getStringLength;
    table.GetStringUTFChars = getStringUtfChars;
    table.ReleaseStringUTFChars = releaseStringUtfChars;
    table.GetStringChars = getStringChars;
    table.ReleaseStringChars = releaseStringChars;
    table.GetStringCritical = getStringCritical;
    table.ReleaseStringCritical = releaseStringCritical;
    table.GetStringRegion = getStringRegion;

    table.NewDirectByteBuffer = newDirectByteBuffer;
    table.GetDirectBufferAddress = getDirectBufferAddress;
    table.GetDirectBufferCapacity = getDirectBufferCapacity;
  }
};

const JNINativeInterface_* detail::functionTable() {
  static const JNINativeInterface_ table = [] {
    JNINativeInterface_ filled;
    JniTable::fill(filled);
    return filled;
  }();
  return &table;
}

}  // namespace nimbra::test
