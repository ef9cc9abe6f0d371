// The natives of the map face that pass short keys and values through memory of the thread, under
// short names, and one thread's calls of them with the area that goes with it.

#pragma once

#include <gtest/gtest.h>
#include <jni.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "com_velt_rz_corvane_nimbra_CallNatives.h"
#include "face_support.h"
#include "nb_face.h"

namespace nimbra::test::area {

inline constexpr auto& address = Java_com_velt_rz_corvane_nimbra_CallNatives_address;
inline constexpr auto& stamps = Java_com_velt_rz_corvane_nimbra_CallNatives_stamps;
inline constexpr auto& traceLevels = Java_com_velt_rz_corvane_nimbra_CallNatives_traceLevels;
inline constexpr auto& bucketSets = Java_com_velt_rz_corvane_nimbra_CallNatives_bucketSets;
inline constexpr auto& get = Java_com_velt_rz_corvane_nimbra_CallNatives_get;
inline constexpr auto& pin = Java_com_velt_rz_corvane_nimbra_CallNatives_pin;
inline constexpr auto& containsKey = Java_com_velt_rz_corvane_nimbra_CallNatives_containsKey;
inline constexpr auto& remove = Java_com_velt_rz_corvane_nimbra_CallNatives_remove;
inline constexpr auto& put = Java_com_velt_rz_corvane_nimbra_CallNatives_put;
inline constexpr auto& putIfAbsent = Java_com_velt_rz_corvane_nimbra_CallNatives_putIfAbsent;
inline constexpr auto& replace = Java_com_velt_rz_corvane_nimbra_CallNatives_replace;

inline constexpr jint kAbsent = -1;
inline constexpr jint kOrdinary = -2;  // nothing was done: to be called again with arrays

// A thread's area, filled as Java fills it before each call.
class Area {
 public:
  Area() { std::memset(static_cast<void*>(&memory_), 0x5A, sizeof memory_); }
  Area(const Area&) = delete;
  Area& operator=(const Area&) = delete;

  jlong with(std::string_view key) {
    EXPECT_LE(key.size(), sizeof memory_.key);
    key.copy(reinterpret_cast<char*>(memory_.key), key.size());
    ++memory_.use;
    return natives::handle(&memory_);
  }
  jlong with(std::string_view key, std::string_view value) {
    EXPECT_LE(value.size(), sizeof memory_.value);
    with(key);
    value.copy(reinterpret_cast<char*>(memory_.value), value.size());
    return natives::handle(&memory_);
  }
  jlong result(int index) const { return memory_.results[index]; }
  std::string_view value(jint length) const {
    return {reinterpret_cast<const char*>(memory_.value), static_cast<size_t>(length)};
  }

 private:
  ::nimbra::face::CallArea memory_;
};

inline jint lengthOf(std::string_view bytes) { return static_cast<jint>(bytes.size()); }

// One thread's calls on one map. What the natives leave to the calls with arrays is made with
// arrays, as Java does.
class Caller {
 public:
  Caller(ScriptedJni& jni, LuOffHeapMap* map) : Caller(jni, map, nullptr) {}
  // With an area that lives longer than these calls.
  Caller(ScriptedJni& jni, LuOffHeapMap* map, Area& area) : Caller(jni, map, &area) {}

  jint put(std::string_view key, jint hash, std::string_view value, jlong revision) {
    const jint result = area::put(env_, nullptr, handle(), area_.with(key, value), lengthOf(key),
                                  hash, lengthOf(value), revision);
    return again(result) ? arrays_.put(key, hash, value, revision) : result;
  }
  jint putIfAbsent(std::string_view key, jint hash, std::string_view value, jlong revision) {
    const jint result = area::putIfAbsent(env_, nullptr, handle(), area_.with(key, value),
                                          lengthOf(key), hash, lengthOf(value), revision);
    return again(result) ? arrays_.putIfAbsent(key, hash, value, revision) : result;
  }
  jint replace(std::string_view key, jint hash, std::string_view value, jlong revision) {
    const jint result = area::replace(env_, nullptr, handle(), area_.with(key, value),
                                      lengthOf(key), hash, lengthOf(value), revision);
    return again(result) ? arrays_.replace(key, hash, value, revision) : result;
  }
  jint remove(std::string_view key, jint hash) {
    return area::remove(env_, nullptr, handle(), area_.with(key), lengthOf(key), hash);
  }
  bool containsKey(std::string_view key, jint hash) {
    const jboolean present =
        area::containsKey(env_, nullptr, handle(), area_.with(key), lengthOf(key), hash);
    EXPECT_TRUE(present == JNI_TRUE || present == JNI_FALSE);
    return present == JNI_TRUE;
  }
  // The value's length, or what stands for it.
  jint find(std::string_view key, jint hash) {
    return area::get(env_, nullptr, handle(), area_.with(key), lengthOf(key), hash);
  }
  std::string_view found(jint length) const { return area_.value(length); }
  std::optional<std::string> get(std::string_view key, jint hash) {
    const jint length = find(key, hash);
    if (again(length)) return arrays_.get(key, hash);
    if (length == kAbsent) return std::nullopt;
    return std::string(found(length));
  }
  // The handle of the pin, 0 when absent; `words` receives address, length, revision.
  jlong pin(std::string_view key, jint hash, std::vector<jlong>* words) {
    const jlong pinned = area::pin(env_, nullptr, handle(), area_.with(key), lengthOf(key), hash);
    if (pinned > 0) *words = {area_.result(0), area_.result(1), area_.result(2)};
    return pinned;
  }

  Area& memory() { return area_; }
  // Calls that were made again.
  int ordinary() const { return ordinary_; }

 private:
  Caller(ScriptedJni& jni, LuOffHeapMap* map, Area* area)
      : env_(jni.env()),
        map_(map),
        arrays_(jni, map),
        own_(area == nullptr ? std::make_unique<Area>() : nullptr),
        area_(area == nullptr ? *own_ : *area) {}
  jlong handle() const { return natives::handle(map_); }
  bool again(jint result) {
    if (result != kOrdinary) return false;
    ++ordinary_;
    return true;
  }

  JNIEnv* const env_;
  LuOffHeapMap* const map_;
  face::Caller arrays_;
  const std::unique_ptr<Area> own_;
  Area& area_;
  int ordinary_ = 0;
};

}  // namespace nimbra::test::area
