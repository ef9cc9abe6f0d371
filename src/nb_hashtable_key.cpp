// Key comparison, key hashes, and the calls into Java for keys that only Java can compare.
//
// State: the cached Java class and methods, filled at start-up. No locks of its own: comparisons
// run with the bucket set's mutex held, including the calls into Java.
#include <cmath>
#include <cstring>
#include <limits>

#include "nb_hashtable.h"
#include "nb_logging.h"

namespace nimbra {

Relaxed<jclass> luMapClassRef;
Relaxed<jmethodID> compareMethod;
Relaxed<jmethodID> deserializeMethod;
Relaxed<jmethodID> allocateDirectFromPhantomMethod;

namespace {

// The low 32 bits of the stored size minus those of the search size.
int32_t sizeDifference(JNIEnv* env, uint64_t storedSize, uint64_t searchSize) {
  NB_DEBUG_AS(env, "keycmp", "size not same");
  return static_cast<int32_t>(static_cast<uint32_t>(storedSize) -
                              static_cast<uint32_t>(searchSize));
}

// A key that is shorter than its type says (Java may change the type) is no number.
template <typename Number>
double storedNumber(const ByteBufferHeader* stored) {
  if (stored->dataSize < sizeof(Number)) return std::numeric_limits<double>::quiet_NaN();
  Number number;
  std::memcpy(&number, bufferData(stored), sizeof number);
  return static_cast<double>(number);
}

}  // namespace

int32_t keycmp(JNIEnv* env, const ByteBufferHeader* search, const ByteBufferHeader* stored) {
  NB_DEBUG(env, "raw. sizes: %d , %d", static_cast<int>(search->dataSize),
           static_cast<int>(stored->dataSize));
  if (search->dataSize != stored->dataSize) {
    return sizeDifference(env, stored->dataSize, search->dataSize);
  }
  const int32_t result = std::memcmp(bufferData(search), bufferData(stored), stored->dataSize);
  NB_DEBUG(env, "memcmp result: %d", result);
  return result;
}

int32_t keycmp(JNIEnv* env, jbyteArray search, const ByteBufferHeader* stored) {
  const auto size = static_cast<uint64_t>(env->GetArrayLength(search));
  NB_DEBUG(env, "jbyteArray. sizes: %d , %d", static_cast<int>(size),
           static_cast<int>(stored->dataSize));
  if (stored->dataSize != size) return sizeDifference(env, stored->dataSize, size);
  jboolean isCopy = JNI_FALSE;
  void* elements = env->GetPrimitiveArrayCritical(search, &isCopy);
  if (elements == nullptr) return -1;  // no memory for a copy: no match
  const int32_t result = std::memcmp(elements, bufferData(stored), size);
  // Deliberate: the is-copy flag is the release mode. The contract with Java says so.
  // Pinned by KeyCompare.ByteArrayReleasesWithTheCopyFlag.
  env->ReleasePrimitiveArrayCritical(search, elements, isCopy);
  NB_DEBUG(env, "memcmp result: %d", result);
  return result;
}

int32_t keycmp(JNIEnv* env, jstring search, const ByteBufferHeader* stored) {
  const auto units = static_cast<uint64_t>(env->GetStringLength(search));
  NB_DEBUG(env, "jstring. sizes: %d , %d", static_cast<int>(2 * units),
           static_cast<int>(stored->dataSize));
  if (stored->dataSize != 2 * units) return sizeDifference(env, stored->dataSize, 2 * units);
  if (stored->deserializedType != DESERIALIZED_TYPE_JSTRING) {
    NB_DEBUG(env, "key %p is not of type jstring so not equal", static_cast<const void*>(stored));
    return 1;
  }
  const jchar* characters = env->GetStringCritical(search, nullptr);
  if (characters == nullptr) return -1;  // no memory for a copy: no match
  const uint8_t* bytes = bufferData(stored);
  int32_t result = 0;
  for (uint64_t i = 0; i < units && result == 0; i++) {
    if ((characters[i] >> 8) != bytes[2 * i] || (characters[i] & 0xff) != bytes[2 * i + 1]) {
      result = 1;
    }
  }
  env->ReleaseStringCritical(search, characters);
  NB_DEBUG(env, "entry comparison result: %d", result);
  return result;
}

int32_t keycmp(JNIEnv* env, double search, const ByteBufferHeader* stored) {
  int32_t result = -1;
  const double tolerance = std::fabs(search) * EPSILON;
  switch (stored->deserializedType) {
    case DESERIALIZED_TYPE_JBYTE:
      if (storedNumber<int8_t>(stored) == search) result = 0;
      break;
    case DESERIALIZED_TYPE_JSHORT:
      if (storedNumber<int16_t>(stored) == search) result = 0;
      break;
    case DESERIALIZED_TYPE_JINT:
      if (storedNumber<int32_t>(stored) == search) result = 0;
      break;
    case DESERIALIZED_TYPE_JLONG:
      if (storedNumber<int64_t>(stored) == search) result = 0;
      break;
    case DESERIALIZED_TYPE_JFLOAT: {
      const double number = storedNumber<float>(stored);
      NB_DEBUG(env, "jfloat. %f, %f", search, number);
      const double difference = std::fabs(static_cast<float>(search - number));
      if (search == 0 ? number == search : tolerance >= difference) result = 0;
      break;
    }
    case DESERIALIZED_TYPE_JDOUBLE: {
      const double number = storedNumber<double>(stored);
      NB_DEBUG(env, "jdouble. %lf, %lf", search, number);
      if (search == 0 ? number == search : tolerance >= std::fabs(search - number)) result = 0;
      break;
    }
    default: break;
  }
  NB_DEBUG(env, "cmp result: %d", result);
  return result;
}

int32_t hashFn(const ByteBufferHeader* key) {
  const uint8_t* bytes = bufferData(key);
  uint32_t hash = 0;
  for (uint64_t i = 0; i < key->dataSize; i++) {
    hash = 31 * hash + static_cast<uint32_t>(static_cast<int8_t>(bytes[i]));
  }
  return static_cast<int32_t>(hash);
}

jobject deserialize(JNIEnv* env, jobject map, jobject buffer) {
  const jmethodID method = deserializeMethod;
  return method == nullptr ? nullptr : env->CallObjectMethod(map, method, buffer);
}

jboolean compare(JNIEnv* env, jobject map, jobject key, jobject buffer) {
  const jmethodID method = compareMethod;
  return method == nullptr ? JNI_FALSE : env->CallBooleanMethod(map, method, key, buffer);
}

jobject allocateDirectFromPhantom(JNIEnv* env, jobject map, void* address, uint64_t length) {
  const jmethodID method = allocateDirectFromPhantomMethod;
  if (method == nullptr) return nullptr;
  return env->CallObjectMethod(map, method, static_cast<jlong>(reinterpret_cast<intptr_t>(address)),
                               static_cast<jint>(length));
}

}  // namespace nimbra
