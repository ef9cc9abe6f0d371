// Tables and small conversions behind the scripted function table: slot names, the types and
// slot names of the Call and array families, method signatures, modified UTF-8.

#pragma once

#include <jni.h>

#include <cstddef>
#include <string>

namespace nimbra::test::detail {

// Every slot's name in the order of the table, for the report of an unexpected call.
inline constexpr const char* kSlotNames[] = {
    // clang-format off
    "reserved0", "reserved1", "reserved2", "reserved3", "GetVersion", "DefineClass",
    "FindClass", "FromReflectedMethod", "FromReflectedField", "ToReflectedMethod",
    "GetSuperclass", "IsAssignableFrom", "ToReflectedField", "Throw", "ThrowNew",
    "ExceptionOccurred", "ExceptionDescribe", "ExceptionClear", "FatalError", "PushLocalFrame",
    "PopLocalFrame", "NewGlobalRef", "DeleteGlobalRef", "DeleteLocalRef", "IsSameObject",
    "NewLocalRef", "EnsureLocalCapacity", "AllocObject", "NewObject", "NewObjectV",
    "NewObjectA", "GetObjectClass", "IsInstanceOf", "GetMethodID", "CallObjectMethod",
    "CallObjectMethodV", "CallObjectMethodA", "CallBooleanMethod", "CallBooleanMethodV",
    "CallBooleanMethodA", "CallByteMethod", "CallByteMethodV", "CallByteMethodA",
    "CallCharMethod", "CallCharMethodV", "CallCharMethodA", "CallShortMethod",
    "CallShortMethodV", "CallShortMethodA", "CallIntMethod", "CallIntMethodV", "CallIntMethodA",
    "CallLongMethod", "CallLongMethodV", "CallLongMethodA", "CallFloatMethod",
    "CallFloatMethodV", "CallFloatMethodA", "CallDoubleMethod", "CallDoubleMethodV",
    "CallDoubleMethodA", "CallVoidMethod", "CallVoidMethodV", "CallVoidMethodA",
    "CallNonvirtualObjectMethod", "CallNonvirtualObjectMethodV", "CallNonvirtualObjectMethodA",
    "CallNonvirtualBooleanMethod", "CallNonvirtualBooleanMethodV",
    "CallNonvirtualBooleanMethodA", "CallNonvirtualByteMethod", "CallNonvirtualByteMethodV",
    "CallNonvirtualByteMethodA", "CallNonvirtualCharMethod", "CallNonvirtualCharMethodV",
    "CallNonvirtualCharMethodA", "CallNonvirtualShortMethod", "CallNonvirtualShortMethodV",
    "CallNonvirtualShortMethodA", "CallNonvirtualIntMethod", "CallNonvirtualIntMethodV",
    "CallNonvirtualIntMethodA", "CallNonvirtualLongMethod", "CallNonvirtualLongMethodV",
    "CallNonvirtualLongMethodA", "CallNonvirtualFloatMethod", "CallNonvirtualFloatMethodV",
    "CallNonvirtualFloatMethodA", "CallNonvirtualDoubleMethod", "CallNonvirtualDoubleMethodV",
    "CallNonvirtualDoubleMethodA", "CallNonvirtualVoidMethod", "CallNonvirtualVoidMethodV",
    "CallNonvirtualVoidMethodA", "GetFieldID", "GetObjectField", "GetBooleanField",
    "GetByteField", "GetCharField", "GetShortField", "GetIntField", "GetLongField",
    "GetFloatField", "GetDoubleField", "SetObjectField", "SetBooleanField", "SetByteField",
    "SetCharField", "SetShortField", "SetIntField", "SetLongField", "SetFloatField",
    "SetDoubleField", "GetStaticMethodID", "CallStaticObjectMethod", "CallStaticObjectMethodV",
    "CallStaticObjectMethodA", "CallStaticBooleanMethod", "CallStaticBooleanMethodV",
    "CallStaticBooleanMethodA", "CallStaticByteMethod", "CallStaticByteMethodV",
    "CallStaticByteMethodA", "CallStaticCharMethod", "CallStaticCharMethodV",
    "CallStaticCharMethodA", "CallStaticShortMethod", "CallStaticShortMethodV",
    "CallStaticShortMethodA", "CallStaticIntMethod", "CallStaticIntMethodV",
    "CallStaticIntMethodA", "CallStaticLongMethod", "CallStaticLongMethodV",
    "CallStaticLongMethodA", "CallStaticFloatMethod", "CallStaticFloatMethodV",
    "CallStaticFloatMethodA", "CallStaticDoubleMethod", "CallStaticDoubleMethodV",
    "CallStaticDoubleMethodA", "CallStaticVoidMethod", "CallStaticVoidMethodV",
    "CallStaticVoidMethodA", "GetStaticFieldID", "GetStaticObjectField",
    "GetStaticBooleanField", "GetStaticByteField", "GetStaticCharField", "GetStaticShortField",
    "GetStaticIntField", "GetStaticLongField", "GetStaticFloatField", "GetStaticDoubleField",
    "SetStaticObjectField", "SetStaticBooleanField", "SetStaticByteField", "SetStaticCharField",
    "SetStaticShortField", "SetStaticIntField", "SetStaticLongField", "SetStaticFloatField",
    "SetStaticDoubleField", "NewString", "GetStringLength", "GetStringChars",
    "ReleaseStringChars", "NewStringUTF", "GetStringUTFLength", "GetStringUTFChars",
    "ReleaseStringUTFChars", "GetArrayLength", "NewObjectArray", "GetObjectArrayElement",
    "SetObjectArrayElement", "NewBooleanArray", "NewByteArray", "NewCharArray", "NewShortArray",
    "NewIntArray", "NewLongArray", "NewFloatArray", "NewDoubleArray", "GetBooleanArrayElements",
    "GetByteArrayElements", "GetCharArrayElements", "GetShortArrayElements",
    "GetIntArrayElements", "GetLongArrayElements", "GetFloatArrayElements",
    "GetDoubleArrayElements", "ReleaseBooleanArrayElements", "ReleaseByteArrayElements",
    "ReleaseCharArrayElements", "ReleaseShortArrayElements", "ReleaseIntArrayElements",
    "ReleaseLongArrayElements", "ReleaseFloatArrayElements", "ReleaseDoubleArrayElements",
    "GetBooleanArrayRegion", "GetByteArrayRegion", "GetCharArrayRegion", "GetShortArrayRegion",
    "GetIntArrayRegion", "GetLongArrayRegion", "GetFloatArrayRegion", "GetDoubleArrayRegion",
    "SetBooleanArrayRegion", "SetByteArrayRegion", "SetCharArrayRegion", "SetShortArrayRegion",
    "SetIntArrayRegion", "SetLongArrayRegion", "SetFloatArrayRegion", "SetDoubleArrayRegion",
    "RegisterNatives", "UnregisterNatives", "MonitorEnter", "MonitorExit", "GetJavaVM",
    "GetStringRegion", "GetStringUTFRegion", "GetPrimitiveArrayCritical",
    "ReleasePrimitiveArrayCritical", "GetStringCritical", "ReleaseStringCritical",
    "NewWeakGlobalRef", "DeleteWeakGlobalRef", "ExceptionCheck", "NewDirectByteBuffer",
    "GetDirectBufferAddress", "GetDirectBufferCapacity", "GetObjectRefType", "GetModule",
    // clang-format on
};
inline constexpr std::size_t kSlotCount = sizeof(JNINativeInterface_) / sizeof(void*);

inline std::u16string decodeModifiedUtf8(const char* text) {
  std::u16string units;
  const auto* byte = reinterpret_cast<const unsigned char*>(text);
  while (*byte != 0) {
    if (*byte < 0x80) {
      units.push_back(*byte++);
    } else if ((*byte & 0xE0) == 0xC0) {
      units.push_back(static_cast<char16_t>((byte[0] & 0x1F) << 6 | (byte[1] & 0x3F)));
      byte += 2;
    } else {
      units.push_back(
          static_cast<char16_t>((byte[0] & 0x0F) << 12 | (byte[1] & 0x3F) << 6 | (byte[2] & 0x3F)));
      byte += 3;
    }
  }
  return units;
}

inline std::string encodeModifiedUtf8(const std::u16string& units) {
  std::string text;
  for (const char16_t unit : units) {
    if (unit != 0 && unit < 0x80) {
      text.push_back(static_cast<char>(unit));
    } else if (unit < 0x800) {
      text.push_back(static_cast<char>(0xC0 | unit >> 6));
      text.push_back(static_cast<char>(0x80 | (unit & 0x3F)));
    } else {
      text.push_back(static_cast<char>(0xE0 | unit >> 12));
      text.push_back(static_cast<char>(0x80 | (unit >> 6 & 0x3F)));
      text.push_back(static_cast<char>(0x80 | (unit & 0x3F)));
    }
  }
  return text;
}

// The parameter types of a method signature, one character each; a reference is 'L'.
inline std::string parameterTypes(const std::string& signature) {
  std::string types;
  std::size_t at = 1;
  while (at < signature.size() && signature[at] != ')') {
    const bool isArray = signature[at] == '[';
    while (signature[at] == '[') {
      ++at;
    }
    if (signature[at] == 'L') {
      at = signature.find(';', at);
      types.push_back('L');
    } else {
      types.push_back(isArray ? 'L' : signature[at]);
    }
    ++at;
  }
  return types;
}

inline char returnType(const std::string& signature) {
  const char type = signature[signature.find(')') + 1];
  return type == '[' ? 'L' : type;
}

// How each result type of the Call slots is named, typed and taken from a jvalue.
template <char Type>
struct Result;
template <>
struct Result<'V'> {
  using type = void;
  static constexpr const char* call = "CallVoidMethod";
  static constexpr const char* callStatic = "CallStaticVoidMethod";
};
template <>
struct Result<'Z'> {
  using type = jboolean;
  static constexpr const char* call = "CallBooleanMethod";
  static constexpr const char* callStatic = "CallStaticBooleanMethod";
  static jboolean of(const jvalue& value) { return value.z; }
};
template <>
struct Result<'I'> {
  using type = jint;
  static constexpr const char* call = "CallIntMethod";
  static constexpr const char* callStatic = "CallStaticIntMethod";
  static jint of(const jvalue& value) { return value.i; }
};
template <>
struct Result<'J'> {
  using type = jlong;
  static constexpr const char* call = "CallLongMethod";
  static constexpr const char* callStatic = "CallStaticLongMethod";
  static jlong of(const jvalue& value) { return value.j; }
};
template <>
struct Result<'L'> {
  using type = jobject;
  static constexpr const char* call = "CallObjectMethod";
  static constexpr const char* callStatic = "CallStaticObjectMethod";
  static jobject of(const jvalue& value) { return value.l; }
};

inline std::size_t elementSize(char type) {
  switch (type) {
    case 'C': return sizeof(jchar);
    case 'I': return sizeof(jint);
    case 'J': return sizeof(jlong);
    default: return sizeof(jbyte);
  }
}

// The names and types of the array slots of each element type.
template <char Type>
struct Array;
template <>
struct Array<'B'> {
  using array = jbyteArray;
  using element = jbyte;
  static constexpr const char* create = "NewByteArray";
  static constexpr const char* getRegion = "GetByteArrayRegion";
  static constexpr const char* setRegion = "SetByteArrayRegion";
  static constexpr const char* getElements = "GetByteArrayElements";
  static constexpr const char* releaseElements = "ReleaseByteArrayElements";
};
template <>
struct Array<'C'> {
  using array = jcharArray;
  using element = jchar;
  static constexpr const char* create = "NewCharArray";
  static constexpr const char* getRegion = "GetCharArrayRegion";
  static constexpr const char* setRegion = "SetCharArrayRegion";
  static constexpr const char* getElements = "GetCharArrayElements";
  static constexpr const char* releaseElements = "ReleaseCharArrayElements";
};
template <>
struct Array<'I'> {
  using array = jintArray;
  using element = jint;
  static constexpr const char* create = "NewIntArray";
  static constexpr const char* getRegion = "GetIntArrayRegion";
  static constexpr const char* setRegion = "SetIntArrayRegion";
  static constexpr const char* getElements = "GetIntArrayElements";
  static constexpr const char* releaseElements = "ReleaseIntArrayElements";
};
template <>
struct Array<'J'> {
  using array = jlongArray;
  using element = jlong;
  static constexpr const char* create = "NewLongArray";
  static constexpr const char* getRegion = "GetLongArrayRegion";
  static constexpr const char* setRegion = "SetLongArrayRegion";
  static constexpr const char* getElements = "GetLongArrayElements";
  static constexpr const char* releaseElements = "ReleaseLongArrayElements";
};

}  // namespace nimbra::test::detail
