// The natives of the map face under short names, and a fixture that calls them the way the face
// does.

#pragma once

#include <gtest/gtest.h>
#include <jni.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "com_velt_rz_corvane_nimbra_MapNatives.h"
#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test::face {

inline constexpr auto& put = Java_com_velt_rz_corvane_nimbra_MapNatives_put;
inline constexpr auto& putIfAbsent = Java_com_velt_rz_corvane_nimbra_MapNatives_putIfAbsent;
inline constexpr auto& replace = Java_com_velt_rz_corvane_nimbra_MapNatives_replace;
inline constexpr auto& get = Java_com_velt_rz_corvane_nimbra_MapNatives_get;
inline constexpr auto& remove = Java_com_velt_rz_corvane_nimbra_MapNatives_remove;
inline constexpr auto& containsKey = Java_com_velt_rz_corvane_nimbra_MapNatives_containsKey;
inline constexpr auto& pin = Java_com_velt_rz_corvane_nimbra_MapNatives_pin;
inline constexpr auto& unpin = Java_com_velt_rz_corvane_nimbra_MapNatives_unpin;
inline constexpr auto& scan = Java_com_velt_rz_corvane_nimbra_MapNatives_scan;
inline constexpr auto& unpinAll = Java_com_velt_rz_corvane_nimbra_MapNatives_unpinAll;
inline constexpr auto& hardCapLimit = Java_com_velt_rz_corvane_nimbra_MapNatives_hardCapLimit;

inline constexpr jint kWordsPerEntry = 5;  // longs of one entry of a walk's result

// An entry as a walk or a pin shows it: places in native memory that a pin keeps valid.
struct Place {
  const char* bytes;
  jlong length;

  std::string_view text() const { return {bytes, static_cast<std::size_t>(length)}; }
};

inline Place placeAt(const std::vector<jlong>& words, std::size_t at) {
  return {reinterpret_cast<const char*>(static_cast<intptr_t>(words.at(at))), words.at(at + 1)};
}

// One thread's calls of the face's natives on one map.
class Caller {
 public:
  Caller(ScriptedJni& jni, LuOffHeapMap* map) : jni_(jni), env_(jni.env()), map_(map) {}

  // The hash travels beside the key; equal keys have to come with equal hashes.
  jint put(std::string_view key, jint hash, std::string_view value, jlong revision) {
    return face::put(env_, nullptr, handle(), array(key), hash, array(value), revision);
  }
  jint putIfAbsent(std::string_view key, jint hash, std::string_view value, jlong revision) {
    return face::putIfAbsent(env_, nullptr, handle(), array(key), hash, array(value), revision);
  }
  jint replace(std::string_view key, jint hash, std::string_view value, jlong revision) {
    return face::replace(env_, nullptr, handle(), array(key), hash, array(value), revision);
  }
  jint remove(std::string_view key, jint hash) {
    return face::remove(env_, nullptr, handle(), array(key), hash);
  }
  bool containsKey(std::string_view key, jint hash) {
    const jboolean present = face::containsKey(env_, nullptr, handle(), array(key), hash);
    EXPECT_TRUE(present == JNI_TRUE || present == JNI_FALSE);
    return present == JNI_TRUE;
  }
  std::optional<std::string> get(std::string_view key, jint hash) {
    const jbyteArray value = face::get(env_, nullptr, handle(), array(key), hash, nullptr);
    if (value == nullptr) return std::nullopt;
    const std::vector<uint8_t> bytes = jni_.bytesOf(jni_.adopt(value));
    return std::string(bytes.begin(), bytes.end());
  }
  // The handle of the pin, 0 when absent; `words` receives address, length, revision.
  jlong pin(std::string_view key, jint hash, std::vector<jlong>* words, jint outLength = 3) {
    const jlongArray out = jni_.newLongArray(std::vector<jlong>(static_cast<size_t>(outLength)));
    const jlong pinned = face::pin(env_, nullptr, handle(), array(key), hash, out);
    *words = jni_.longsOf(out);
    return pinned;
  }
  void unpin(jlong pinned) { face::unpin(env_, nullptr, pinned); }

  ScriptedJni& jni() { return jni_; }
  JNIEnv* env() { return env_; }
  LuOffHeapMap* map() { return map_; }
  jlong handle() const { return natives::handle(map_); }
  jbyteArray array(std::string_view bytes) {
    return jni_.newByteArray(std::vector<uint8_t>(bytes.begin(), bytes.end()));
  }

 private:
  ScriptedJni& jni_;
  JNIEnv* const env_;
  LuOffHeapMap* const map_;
};

// A walk over a map, step by step.
class Walk {
 public:
  struct Entry {
    Place key;
    Place value;
    jlong revision;
  };

  // `capacity`: entries that one step may return.
  Walk(Caller& caller, jint capacity)
      : caller_(caller), cursor_(caller.jni().newLongArray({0, 0})) {
    setCapacity(capacity);
  }
  ~Walk() { EXPECT_EQ(count_, 0) << "a test has to release its last step"; }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  // `spare` longs make no further entry fit.
  void setCapacity(jint capacity, jint spare = 0) {
    out_ = caller_.jni().newLongArray(
        std::vector<jlong>(static_cast<size_t>(capacity * kWordsPerEntry + spare)));
  }
  jint step() {
    const jint result = scan(caller_.env(), nullptr, caller_.handle(), cursor_, out_);
    count_ = result > 0 ? result : 0;
    return result;
  }
  // The entries of the last step, valid until release().
  std::vector<Entry> entries() {
    std::vector<Entry> result;
    const std::vector<jlong> words = caller_.jni().longsOf(out_);
    for (size_t i = 0; i < static_cast<size_t>(count_); ++i) {
      const size_t at = i * kWordsPerEntry;
      result.push_back({placeAt(words, at), placeAt(words, at + 2), words.at(at + 4)});
    }
    return result;
  }
  // Drops the pins of the entries [from, from + count) of the last step, or of all.
  void release(jint from, jint count) { unpinAll(caller_.env(), nullptr, out_, from, count); }
  void release() {
    release(0, count_);
    count_ = 0;
  }
  // The pins were dropped piece by piece.
  void released() { count_ = 0; }
  std::vector<jlong> cursor() { return caller_.jni().longsOf(cursor_); }
  bool ended() { return cursor().at(0) == -1; }

 private:
  Caller& caller_;
  const jlongArray cursor_;
  jlongArray out_ = nullptr;
  jint count_ = 0;
};

// Every key that a whole walk shows, as often as it does; releases every step.
using Seen = std::map<std::string, int>;

// A map with one or more bucket sets and the natives on it, hashes as `hashOf` says.
class FaceTest : public MapTest {
 protected:
  void SetUp() override {
    MapTest::SetUp();
    calls.emplace(jni, map);
  }

  void remakeMap(jint bucketSets, float loadFactor = 0.75F) {
    deleteMap(map);
    map = makeMap(bucketSets, loadFactor);
    ASSERT_NE(map, nullptr);
    calls.emplace(jni, map);
  }

  jint put(std::string_view key, std::string_view value, jlong revision = 1) {
    return calls->put(key, hashOf(key), value, revision);
  }
  std::optional<std::string> get(std::string_view key) { return calls->get(key, hashOf(key)); }

  // Every invariant of the quiet map, and the pins of its buffers: one of the entry for each,
  // besides `pinned` further ones by address.
  void checkFaceMap(const std::map<const ByteBufferHeader*, int>& pinned = {}) {
    checkMap(env, map);
    for (const LuOffHeapValue* entry : entriesOf(map)) {
      for (const ByteBufferHeader* held : {entry->key, entry->value}) {
        const auto extra = pinned.find(held);
        EXPECT_EQ(held->pins, 1 + (extra == pinned.end() ? 0 : extra->second))
            << "pins of a buffer of " << bytesOf(entry->key).substr(0, 40);
      }
    }
  }

  std::optional<Caller> calls;
};

}  // namespace nimbra::test::face
