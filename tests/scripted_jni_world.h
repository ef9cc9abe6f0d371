// What all scripted environments of the process share: classes, method identifiers and
// global references. The library keeps such handles in its own globals, so they outlive the
// environment that made them. Everything here is guarded by the world's mutex, but for the handles.

#pragma once

#include <atomic>
#include <mutex>

#include "scripted_jni.h"

namespace nimbra::test::detail {

struct World {
  std::mutex mutex;
  std::map<std::string, ObjectPtr> classes;
  std::map<std::string, std::unique_ptr<Method>> methods;
  std::unordered_map<jobject, ObjectPtr> globals;
  // No part of what the mutex guards: references are made all the time, and a lock in each would
  // order the library's threads where the library itself does not, and hide its races.
  std::atomic<std::uintptr_t> lastHandle{0};

  static World& instance();

  // Handles are never reused, so that a stale one is always recognised. They are no
  // addresses: the library dereferencing one faults.
  jobject newHandle();
  ObjectPtr classObject(const std::string& path);
  Method* method(const std::string& className, const std::string& name,
                 const std::string& signature, bool isStatic);
};

std::string methodKey(const std::string& className, const std::string& name,
                      const std::string& signature);

// The function table that every environment points to.
const JNINativeInterface_* functionTable();

}  // namespace nimbra::test::detail
