// What the fault harness has found broken: one test each, named after what went wrong.

#include <gmock/gmock.h>

#include "bounded_support.h"
#include "com_velt_rz_corvane_nimbra_OverflowNatives.h"
#include "fault_harness.h"

namespace nimbra::test {
namespace {

using natives::handle;

const Thrown kTooShort{"java/lang/ArrayIndexOutOfBoundsException", ""};

class FoundByFaults : public face::FaceTest {
 protected:
  std::string raised() {
    const std::optional<Thrown> thrown = jni.takePending();
    return thrown.has_value() ? thrown->className : "";
  }
  jlongArray longs(std::size_t count) { return jni.newLongArray(std::vector<jlong>(count)); }
  jbyteArray array(std::string_view bytes) {
    return jni.newByteArray(std::vector<uint8_t>(bytes.begin(), bytes.end()));
  }
};

class FoundByFaultsOnDisk : public PagingTest {
 protected:
  void SetUp() override {
    PagingTest::SetUp();
    value = insertInto(1, "key", "the value");
  }
  std::string raised() {
    const std::optional<Thrown> thrown = jni.takePending();
    return thrown.has_value() ? thrown->className : "";
  }
  jlongArray longs(std::size_t count) { return jni.newLongArray(std::vector<jlong>(count)); }

  LuOffHeapValue* value = nullptr;
};

// ---- Start-up ----------------------------------------------------------------------------

TEST_F(FoundByFaults, StartUpWithoutAReferenceToTheMapClassWentOn) {
  jni.failCall("NewGlobalRef", 1, Thrown{kOutOfMemory, "test"});
  EXPECT_FALSE(initialize());
  EXPECT_EQ(raised(), kOutOfMemory);
  EXPECT_TRUE(initialize());
  ++expectedGlobalsDelta;
}

TEST_F(FoundByFaults, StartUpSucceededWithoutAKeyMethod) {
  jni.failCall("GetMethodID", 2);
  EXPECT_FALSE(initialize());
  EXPECT_TRUE(initialize());
  expectedGlobalsDelta += 2;
}

TEST_F(FoundByFaults, StartUpOfOverflowLookedClassesUpWithAnExceptionPending) {
  jni.failCall("GetStaticMethodID", 1);  // of the logger
  EXPECT_FALSE(manager_natives::initializeOffHeap(env, manager, kAmpleMaximum, 0, 0, JNI_TRUE));
  EXPECT_EQ(raised(), kIllegalState);
  EXPECT_FALSE(_isDiskOverflowEnabled);
}

// ---- Buffers -----------------------------------------------------------------------------

TEST_F(FoundByFaults, AddressOfNoBufferWasAskedForInAListOfBuffers) {
  ByteBufferHeader* first = buffer("first");
  ByteBufferHeader* last = buffer("last");
  const int64_t blocks = Books::now().blocks;
  const jobjectArray list = jni.newObjectArray({javaBuffer(first), nullptr, javaBuffer(last)});
  EXPECT_TRUE(manager_natives::freeAllToOffHeap(env, manager, list, 4));
  EXPECT_EQ(Books::now().blocks, blocks - 2);
}

// ---- Searches ----------------------------------------------------------------------------

// Several keys of one hash, so that the search has somewhere to go on to.
class FoundByFaultsInSearch : public FoundByFaults {
 protected:
  void SetUp() override {
    FoundByFaults::SetUp();
    remakeMap(1, 1000);
    for (const char* start : {"a", "b", "c"}) {
      ASSERT_EQ(calls->put(key(start), 7, "value", 1), 1);
    }
  }
  static std::string key(std::string_view start) {
    return std::string(start) + std::string(600, '-');
  }
  void refuseTheKey() {
    jni.failCall("GetPrimitiveArrayCritical", 1, Thrown{kOutOfMemory, "test"});
  }
};

TEST_F(FoundByFaultsInSearch, SearchWentOnWithAnExceptionPending) {
  refuseTheKey();
  EXPECT_FALSE(natives::containsKeyWithHashCodeBA(env, caller, handle(map), array(key("a")), 7));
  EXPECT_EQ(raised(), kOutOfMemory);
}

TEST_F(FoundByFaultsInSearch, PutIfAbsentWentOnAfterASearchThatFailed) {
  refuseTheKey();
  EXPECT_EQ(calls->putIfAbsent(key("d"), 7, "value", 1), -1);
  EXPECT_EQ(raised(), kOutOfMemory);
  EXPECT_FALSE(calls->containsKey(key("d"), 7));
  checkFaceMap();
}

TEST_F(FoundByFaultsInSearch, BoundedPutWentOnAfterASearchThatFailed) {
  const jlong bound = bounded::allocateBound(env, nullptr, 0, 0);
  refuseTheKey();
  EXPECT_EQ(bounded::put(env, nullptr, handle(map), bound, 0, bounded::kNone, 0, array(key("d")), 7,
                         array("value"), 1, 0, bounded::kNever, bounded::kPut),
            -1);
  EXPECT_EQ(raised(), kOutOfMemory);
  EXPECT_FALSE(calls->containsKey(key("d"), 7));
  bounded::freeBound(env, nullptr, bound);
  checkFaceMap();
}

// ---- What Java would never learn of ------------------------------------------------------

TEST_F(FoundByFaults, WalkTookACursorThatItCouldNotRead) {
  put("key", "value");
  EXPECT_EQ(face::scan(env, nullptr, handle(map), longs(1), longs(10)), 0);
  EXPECT_EQ(raised(), kTooShort.className);
  checkFaceMap();
}

TEST_F(FoundByFaults, UnpinOfAWalkTookWordsThatItCouldNotRead) {
  face::unpinAll(env, nullptr, longs(3), 0, 1);
  EXPECT_EQ(raised(), kTooShort.className);
}

TEST_F(FoundByFaults, NextKeyStayedPinnedWhenItsAttributesDidNotFit) {
  put("first", "1", 1);
  put("key", "2", 2);
  const jlong first = natives::getAndPinFirstInQueue(env, caller, handle(map), 1, JNI_TRUE);
  EXPECT_EQ(natives::getAndPinNextKeyWithAttributes(env, caller, handle(map), first, longs(5), 1),
            0);
  EXPECT_EQ(raised(), kTooShort.className);
  unpinValue(natives::asValue(first), JNI_GET_PIN);
  checkFaceMap();
}

TEST_F(FoundByFaultsOnDisk, CompactionLeftBothLocksHeldWithoutAnArrayToSaySo) {
  jni.failCall("NewLongArray", 1, Thrown{kOutOfMemory, "test"});
  EXPECT_EQ(natives::lockValidAndGetChunkPtr(env, nullptr, handle(value)), nullptr);
  EXPECT_EQ(raised(), kOutOfMemory);
  expectFree(value);
}

TEST_F(FoundByFaultsOnDisk, RecordStayedPinnedWhenItsHandleDidNotFit) {
  pageOutValue(value);
  const std::string key = "key";
  EXPECT_EQ(face::get(env, nullptr, handle(map),
                      jni.newByteArray(std::vector<uint8_t>(key.begin(), key.end())), hashOf(key),
                      longs(0)),
            nullptr);
  EXPECT_EQ(raised(), kTooShort.className);
  EXPECT_EQ(value->pins, 3);
}

TEST_F(FoundByFaultsOnDisk, EvictableValueStayedPinnedWhenItsWordsDidNotFit) {
  changeFlags(value, 0, recently_used);
  changeFlags(insertInto(2, "other", "value"), 0, recently_used);
  natives::initSweep(env, nullptr, 10, 100, JNI_FALSE);
  EXPECT_EQ(Java_com_velt_rz_corvane_nimbra_OverflowNatives_nextEvictable(env, nullptr, longs(6)),
            0);
  EXPECT_EQ(raised(), kTooShort.className);
  natives::disposeSweep(env, nullptr);
  checkMap(env, map);
}

TEST_F(FoundByFaultsOnDisk, ReadKeptItsPinOrItsLockWhenItsWordsDidNotFit) {
  constexpr auto& beginRead = Java_com_velt_rz_corvane_nimbra_OverflowNatives_beginRead;
  EXPECT_EQ(beginRead(env, nullptr, handle(value), longs(3)), -1);
  EXPECT_EQ(raised(), kTooShort.className);
  EXPECT_EQ(value->value->pins, 1);
  expectFree(value);
  pageOutValue(value);
  EXPECT_EQ(beginRead(env, nullptr, handle(value), longs(3)), -1);
  EXPECT_EQ(raised(), kTooShort.className);
  expectFree(value);
}

TEST_F(FoundByFaultsOnDisk, ViewOfAValueStayedPinnedWhenItsPlaceDidNotFit) {
  pageOutValue(value);
  const Books before = Books::now();
  const jbyteArray payload = jni.newByteArray(std::vector<uint8_t>(17, 0));
  EXPECT_EQ(Java_com_velt_rz_corvane_nimbra_OverflowNatives_pageIn(
                env, nullptr, handle(value), payload, Chunk{}.position, 1, longs(1)),
            0);
  EXPECT_EQ(raised(), kTooShort.className);
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(value->value, nullptr);
  expectFree(value);
}

}  // namespace
}  // namespace nimbra::test
