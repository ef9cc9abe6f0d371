// Races that the stress of the whole library has found, each in the one order of steps that shows
// it every time. Where nothing but a report of the thread sanitizer would show it, the test says
// so.

#include <gtest/gtest.h>

#include <thread>

#include "evictqueue_support.h"
#include "face_support.h"
#include "manager_natives.h"
#include "overflow_support.h"

namespace nimbra::test {
namespace {

class LastPinElsewhere : public EvictionQueueTest {
 protected:
  // Another holder drops the last pin as soon as the record that begins so is sent.
  template <typename Drop>
  void dropWhenTraced(const std::string& beginning, Drop drop) {
    jni.onRecord([beginning, drop, done = false](const LogRecord& record) mutable {
      if (done || record.text.find(beginning) == std::string::npos) return;
      done = true;
      drop();
    });
  }
  bool traced(const std::string& text) const {
    for (const LogRecord& record : jni.records()) {
      // The end of a record counts as the end of its last number.
      if ((record.text + " reason=").find(text) != std::string::npos) return true;
    }
    return false;
  }
  static std::string countOf(const void* header, int pins) {
    return "p=" + printed(header) + " pins=" + std::to_string(pins) + " reason=";
  }
};

// The count that the event shows was read from the header, which was freed by then.
TEST_F(LastPinElsewhere, UnpinOfABufferShowsTheCountThatItLeft) {
  ByteBufferHeader* held = buffer("bytes");
  pin(env, held, JAVA_TRANSIENT_PIN);
  setLevels(kEventLevel);
  dropWhenTraced("exit unpin", [&] { unpinToFree(env, held, ALLOCATION_PIN); });
  EXPECT_EQ(unpinToFree(env, held, JAVA_TRANSIENT_PIN), 1);
  EXPECT_TRUE(traced(countOf(held, 1)));
  setLevels(0);
}

TEST_F(LastPinElsewhere, UnpinOfAJavaBufferShowsTheCountThatItLeft) {
  ByteBufferHeader* held = buffer("bytes");
  const jobject java = javaBuffer(held);
  pin(env, held, JAVA_TRANSIENT_PIN);
  setLevels(kEventLevel);
  dropWhenTraced("exit unpin", [&] { unpinToFree(env, held, ALLOCATION_PIN); });
  EXPECT_TRUE(manager_natives::unpinToFree(env, manager, java, JAVA_TRANSIENT_PIN));
  EXPECT_TRUE(traced(countOf(held, 1)));
  setLevels(0);
}

TEST_F(LastPinElsewhere, UnpinOfAnEvictionRecordShowsTheCountThatItLeft) {
  ByteBufferHeader* keyBuffer = buffer("key");
  LuOffHeapEvictionData* record = natives::asEvictionData(
      natives::allocateAndPinEvictionData(env, caller, 0, javaBuffer(keyBuffer), JNI_FALSE));
  ASSERT_NE(record, nullptr);
  pin(env, static_cast<Pinnable*>(record), JNI_GET_PIN);
  setLevels(kDebugLevel);
  dropWhenTraced("exit unpin", [&] { unpinLuOffHeapEvictionData(env, record, ALLOCATION_PIN); });
  EXPECT_EQ(unpinLuOffHeapEvictionData(env, record, JNI_GET_PIN), 1U);
  EXPECT_TRUE(traced("evictData=" + printed(record) + ", refCount=1 reason="));
  setLevels(0);
  drop(keyBuffer);
}

class DeletionWhileTold : public OverflowTest {};

// Java drops the pin of its copy on disk while it is still being told of the deletion. The flags of
// the node were read by the one and written by the other; the thread sanitizer reports that.
TEST_F(DeletionWhileTold, TheReverseMapPinGoesBeforeTheCallbackReturns) {
  LuOffHeapValue* value = insert("key", "value");
  ASSERT_NE(value, nullptr);
  changeFlags(value, on_disk);
  uint32_t left = 1;
  std::thread other;
  calls.onDeleting = [&](ScriptedJni&) {
    other = std::thread([&left, value] {
      OverflowThread java;
      left = unpinLuOffHeapMapValue(java.env, value, JAVA_NOF_REVERSEMAP_PIN);
    });
  };
  EXPECT_TRUE(remove("key"));
  ASSERT_TRUE(other.joinable());
  other.join();
  EXPECT_EQ(left, 0U);
}

class TouchBesideAPin : public MapTest {};

// A touch moved the revision under the map lock alone while a lookup of the face read it under the
// bucket set; the thread sanitizer reports that.
TEST_F(TouchBesideAPin, TheRevisionReadIsOneThatWasSet) {
  constexpr jlong kTouches = 300;
  ASSERT_NE(insert("key", "value", 0, 1), nullptr);
  std::thread touching([this] {
    ScriptedJni own;
    const jbyteArray key = own.newByteArray({'k', 'e', 'y'});
    const jlongArray attributes = own.newLongArray({0, 0, 0, 0});
    const jobject self = own.newMapObject();
    for (jlong revision = 2; revision < kTouches; ++revision) {
      LuOffHeapValue* found = natives::asValue(
          natives::getLuValue_ByteArray(own.env(), self, natives::handle(map), attributes, key,
                                        hashOf("key"), 0, JNI_TRUE, revision));
      ASSERT_NE(found, nullptr);
      unpinLuOffHeapMapValue(own.env(), found, JNI_GET_PIN);
    }
  });
  face::Caller calls(jni, map);
  jlong last = 1;
  for (jlong i = 0; i < kTouches; ++i) {
    std::vector<jlong> words;
    const jlong pinned = calls.pin("key", hashOf("key"), &words);
    ASSERT_NE(pinned, 0);
    EXPECT_GE(words[2], last);
    EXPECT_LT(words[2], kTouches);
    last = words[2];
    calls.unpin(pinned);
  }
  touching.join();
}

}  // namespace
}  // namespace nimbra::test
