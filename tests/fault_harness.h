// Every native under every single failure: its first, second, ... allocation refused and its first,
// second, ... JNI call failing, each in a world of its own, until the native has nothing left that
// could fail.
//
// A case says how to arrange a world, how to call one native, and how to give back what a
// successful call holds. What each failure has to look like stands in one table of outcomes, the
// locks that a successful call keeps in a second, and what stays behind on purpose in a third, each
// row with its reason. The natives are enumerated from the table of declarations and from the
// classes of the face, so that a native without a case is named as missing.

#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "face_support.h"
#include "manager_natives.h"
#include "overflow_natives.h"

namespace nimbra::test::fault {

// A library with one map, made anew for every trial: with the overflow layer or without.
class World : public PagingTest {
 public:
  explicit World(bool overflow) : overflow_(overflow) {}
  void TestBody() override {}
  void begin();
  // Undoes the arrangement's steps.
  void undo();
  // Gives back all that the arrangement made, and checks that nothing else is left.
  void end();

  using LibraryTest::env;
  using LibraryTest::expectedBlocksDelta;
  using LibraryTest::expectedGlobalsDelta;
  using LibraryTest::expectedMetadataDelta;
  using LibraryTest::jni;
  using LibraryTest::manager;
  using LibraryTest::setLevels;
  using MapTest::buffer;
  using MapTest::caller;
  using MapTest::clearMap;
  using MapTest::drop;
  using MapTest::hashOf;
  using MapTest::insert;
  using MapTest::javaBuffer;
  using MapTest::makeMap;
  using MapTest::map;
  using MapTest::removePinned;
  using MapTest::unpinValue;
  using OverflowTest::calls;
  using OverflowTest::changeFlags;
  using OverflowTest::holdCount;
  using OverflowTest::nextList;
  using PagingTest::pageOutValue;

  bool overflow() const { return overflow_; }
  jlong handle() const { return natives::handle(map); }
  // Replaces the map: bucket sets and a load factor that decides when a set grows.
  void remakeMap(jint bucketSets, float loadFactor);

  // A buffer that the world drops at its end, and a Java buffer over it.
  ByteBufferHeader* kept(std::string_view bytes);
  jobject keptBuffer(std::string_view bytes) { return javaBuffer(kept(bytes)); }
  jbyteArray array(std::string_view bytes) {
    return jni.newByteArray(std::vector<uint8_t>(bytes.begin(), bytes.end()));
  }
  jstring text(std::string_view units) {
    return jni.newString(std::u16string(units.begin(), units.end()));
  }
  jlongArray longs(std::size_t count, jlong each = 0) {
    return jni.newLongArray(std::vector<jlong>(count, each));
  }
  // Eviction queues and records with one ALLOCATION_PIN; the world frees both.
  jlong evictionQueue();
  jlong evictionRecord(std::string_view key);
  // Freed by the call under test.
  void forgetQueue(jlong queue);
  // An undo of the arrangement, run first of all at the end; the last one runs first.
  void atEnd(std::function<void()> undo) { undo_.push_back(std::move(undo)); }

  // Everything that an operation can change, without addresses.
  std::string state();
  // No lock is held: neither by this thread nor, of the map, its queues, sets, nodes and the
  // world's eviction queues, by anybody.
  void expectAllFree();

  // For cases: what the arrangement hands to the call and the call to the release.
  LuOffHeapValue* entry = nullptr;
  jobject object = nullptr;
  jobject other = nullptr;
  jlong queue = 0;
  jlong record = 0;
  jlong number = 0;
  std::vector<int64_t> words;
  // Pins that the arrangement holds on entries.
  std::map<const LuOffHeapValue*, int> extraPins;
  // Blocks stay behind on purpose, and their bookkeeping with them.
  bool keepsMemory = false;
  // More of the state, when the map does not show it.
  std::function<std::string()> more;

 private:
  const bool overflow_;
  int64_t metadata_ = 0;
  std::vector<ByteBufferHeader*> kept_;
  std::vector<jlong> queues_;
  std::vector<jlong> records_;
  std::vector<std::function<void()>> undo_;
};

using Arrange = std::function<void(World&)>;
using Call = std::function<jlong(World&)>;
using Release = std::function<void(World&, jlong)>;

struct Case {
  std::string native = {};  // class and method, with the parameters where the name is overloaded
  std::string variant = {};
  bool overflow = false;
  Arrange arrange = {};
  // The native's answer as a number: an object is 1, null is 0, nothing is 0.
  Call call = {};
  // Gives back what a successful answer holds.
  Release release = {};
  // The answer that says "failed"; a native without one shows a failure by its exception at most.
  std::optional<jlong> failure = 0;
  // The same call can be made again in the same world once the fault is gone.
  bool again = true;
  // Writes records of one kind, as many as the process has profiles or the stack has frames: a few
  // of them are tried, so that the faults of a case are the same in every run.
  bool isReport = false;

  std::string name() const;
};
std::ostream& operator<<(std::ostream& out, const Case& each);

// The same case without and with the overflow layer.
void addBoth(std::vector<Case>& cases, Case each);

// All cases of one file.
std::vector<Case> managerCases();
std::vector<Case> mapCases();
std::vector<Case> valueCases();
std::vector<Case> typedCases();
std::vector<Case> evictionCases();
std::vector<Case> overflowCases();
std::vector<Case> faceCases();

// Takes over a reference that a native answered: 1, or 0 for null.
inline jlong taken(World& world, jobject reference) {
  world.object = world.jni.adopt(reference);
  return reference != nullptr ? 1 : 0;
}

inline jlong address(const void* block) { return natives::handle(block); }

class EveryFault : public ::testing::TestWithParam<Case> {};

inline std::string nameOf(const ::testing::TestParamInfo<Case>& info) { return info.param.name(); }

}  // namespace nimbra::test::fault
