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

// Takes a pending exception aside for a scope in which Java must be called, and raises it again at
// the end: the earlier exception wins over one that the scope raised.
class ExceptionAside {
 public:
  explicit ExceptionAside(JNIEnv* env)
      : env_(env), exception_(env->ExceptionCheck() ? env->ExceptionOccurred() : nullptr) {
    if (exception_ != nullptr) env_->ExceptionClear();
  }
  ~ExceptionAside() {
    if (exception_ == nullptr) return;
    if (env_->ExceptionCheck()) env_->ExceptionClear();
    env_->Throw(exception_);
    env_->DeleteLocalRef(exception_);
  }
  ExceptionAside(const ExceptionAside&) = delete;
  ExceptionAside& operator=(const ExceptionAside&) = delete;

 private:
  JNIEnv* env_;
  jthrowable exception_;
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
