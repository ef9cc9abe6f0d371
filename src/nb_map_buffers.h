// Buffers that live for one call: keys and values that Java passed as arrays, strings or numbers.
//
// Each holds one ALLOCATION_PIN until the end of its scope; a value record takes pins of its own.
#pragma once

#include <cstdint>
#include <cstring>

#include "nb_map_private.h"

namespace nimbra {

class CallBuffer {
 public:
  CallBuffer(JNIEnv* env, int64_t length, const char* label)
      : env_(env), header_(allocateByteBufferData(env, static_cast<uint64_t>(length), label)) {
    if (header_ != nullptr) pin(env, header_, ALLOCATION_PIN);
  }
  ~CallBuffer() {
    if (header_ != nullptr) unpinToFree(env_, header_, ALLOCATION_PIN);
  }
  CallBuffer(const CallBuffer&) = delete;
  CallBuffer& operator=(const CallBuffer&) = delete;
  ByteBufferHeader* get() const { return header_; }

 protected:
  JNIEnv* env_;
  ByteBufferHeader* header_;  // null when memory was refused
};

// The first `length` bytes of an array. `ok` is false when memory was refused or the array is
// shorter.
struct ArrayBuffer : CallBuffer {
  ArrayBuffer(JNIEnv* env, jbyteArray source, jint length, jbyte type, const char* label)
      : CallBuffer(env, length, label) {
    if (header_ == nullptr) return;
    ok = copyBAToBB(env, header_, source, length);
    header_->deserializedType = static_cast<uint8_t>(type);
  }
  bool ok = false;
};

// A string's UTF-16 units, high byte first.
struct StringBuffer : CallBuffer {
  StringBuffer(JNIEnv* env, jstring source)
      : CallBuffer(env, int64_t{2} * env->GetStringLength(source), "Key Data") {
    if (header_ == nullptr) return;
    const jsize units = env->GetStringLength(source);
    const jchar* characters = env->GetStringCritical(source, nullptr);
    if (characters == nullptr) return;
    uint8_t* bytes = bufferData(header_);
    for (jsize i = 0; i < units; i++) {
      *bytes++ = static_cast<uint8_t>(characters[i] >> 8);
      *bytes++ = static_cast<uint8_t>(characters[i]);
    }
    env->ReleaseStringCritical(source, characters);
    header_->deserializedType = DESERIALIZED_TYPE_JSTRING;
    ok = true;
  }
  bool ok = false;
};

// A number in its native byte order.
struct NumberBuffer : CallBuffer {
  template <typename Number>
  NumberBuffer(JNIEnv* env, Number key, uint8_t type) : CallBuffer(env, sizeof key, "Key Data") {
    if (header_ == nullptr) return;
    std::memcpy(bufferData(header_), &key, sizeof key);
    header_->deserializedType = type;
  }
};

}  // namespace nimbra
