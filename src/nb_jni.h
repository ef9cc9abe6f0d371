// Guards that keep every exit path of a JNI entry point from leaking, and handle conversion.
#pragma once

#include <jni.h>

#include <cstdint>

namespace nimbra {

// Deletes a local reference at the end of its scope.
template <typename T>
class LocalRef {
 public:
  LocalRef(JNIEnv* env, T reference) : env_(env), reference_(reference) {}
  ~LocalRef() {
    if (reference_ != nullptr) env_->DeleteLocalRef(reference_);
  }
  LocalRef(const LocalRef&) = delete;
  LocalRef& operator=(const LocalRef&) = delete;
  T get() const { return reference_; }
  explicit operator bool() const { return reference_ != nullptr; }

 private:
  JNIEnv* env_;
  T reference_;
};

// A native handle: a record's address as Java passes it.
template <typename Record>
Record* fromHandle(jlong handle) {
  return reinterpret_cast<Record*>(static_cast<uintptr_t>(handle));
}

inline jlong toHandle(const void* record) {
  return static_cast<jlong>(reinterpret_cast<uintptr_t>(record));
}

}  // namespace nimbra
