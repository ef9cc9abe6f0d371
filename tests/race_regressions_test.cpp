// Races that the stress of the whole library has found, each in the one order of steps that shows
// it every time. Where nothing but a report of the thread sanitizer would show it, the test says
// so.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <ostream>
#include <string_view>
#include <thread>
#include <vector>

#include "bounded_support.h"
#include "com_velt_rz_corvane_nimbra_OverflowNatives.h"
#include "disk_support.h"
#include "evictqueue_support.h"
#include "face_support.h"
#include "manager_natives.h"
#include "overflow_natives.h"

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

// ---- Evictions beside a holder of the record -----------------------------------------------

constexpr std::string_view kValue = "value";
constexpr jlong kRevision = 3;
const Chunk kChunk;

// The value comes back from disk in the steps of the contract with Java.
void bringBackAsTheContract(OverflowThread& java, LuOffHeapValue* record) {
  ByteBufferHeader* read = allocateByteBufferData(java.env, kValue.size(), "DirectByteBuffer");
  ASSERT_NE(read, nullptr);
  pin(java.env, read, ALLOCATION_PIN);
  std::copy(kValue.begin(), kValue.end(), bufferData(read));
  const jobject bytes = java.jni.newDirectBuffer(bufferData(read), kValue.size());
  const jlong handle = natives::handle(record);
  EXPECT_NE(natives::lockBucketSetAndMetadata(java.env, nullptr, handle), 1);
  natives::valueToLuOffHeapValue(java.env, nullptr, bytes, handle);
  EXPECT_EQ(natives::unlockBucketSetAndMetadata(java.env, nullptr, handle), 0);
}

void bringBackAsTheFace(OverflowThread& java, LuOffHeapValue* record) {
  std::vector<uint8_t> payload(disk::kPayloadHeader + kValue.size());
  std::copy(kValue.begin(), kValue.end(), payload.begin() + disk::kPayloadHeader);
  EXPECT_EQ(Java_com_velt_rz_corvane_nimbra_OverflowNatives_pageIn(
                java.env, nullptr, natives::handle(record), java.jni.newByteArray(payload),
                kChunk.position, kRevision, nullptr),
            1);
}

struct WayBack {
  const char* name;
  void (*bringBack)(OverflowThread& java, LuOffHeapValue* record);
};
std::ostream& operator<<(std::ostream& out, const WayBack& way) { return out << way.name; }

// A bounded partition with one entry.
class EvictionBesideAHolder : public PagingTest {
 protected:
  void SetUp() override {
    PagingTest::SetUp();
    partition.map = map;
    partition.policy = bounded::kLru;
    partition.bound = bounded::allocateBound(env, nullptr, 0, 0);
    partition.queue = natives::allocateEvictionQueue(env, nullptr);
    bounded.emplace(jni, partition);
    store();
  }
  void TearDown() override {
    empty();
    EXPECT_TRUE(natives::freeEvictionQueue(env, nullptr, partition.queue));
    bounded::freeBound(env, nullptr, partition.bound);
    PagingTest::TearDown();
  }
  void store() {
    ASSERT_EQ(
        bounded->put("key", hashOf("key"), kValue, kRevision, kNow, bounded::kNever, bounded::kPut),
        1);
    entry = find(map, "key");
  }
  void empty() {
    EXPECT_TRUE(bounded->clear());
    EXPECT_EQ(bounded::bytes(env, nullptr, partition.bound), 0);
    EXPECT_EQ(bounded::entries(env, nullptr, partition.bound), 0);
  }
  // What a lookup does that finds the value on disk.
  void pageOutAndHold() {
    pageOutValue(entry, kChunk);
    std::vector<jlong> words;
    ASSERT_EQ(bounded->pin("key", hashOf("key"), kNow, bounded::kKeep, &words),
              -natives::handle(entry));
  }
  std::unique_ptr<bounded::Evicted> evict() { return bounded->evict(1, false, kNow, 1); }
  void expectTheRecordOnly(const bounded::Evicted& evicted) {
    ASSERT_EQ(evicted.keys(), (bounded::Keys{"key"}));
    EXPECT_EQ(evicted.list[0].value.bytes, nullptr);
    EXPECT_EQ(evicted.list[0].value.length, natives::handle(entry));
    EXPECT_EQ(evicted.list[0].revision, kRevision);
    EXPECT_EQ(entry->pins, 2) << "the lookup's and the eviction's";
  }
  // The value is in memory again, and goes with the lookup's pin.
  void expectBackAndLetGo() {
    EXPECT_EQ(entry->pins, 1);
    ASSERT_NE(entry->value, nullptr);
    EXPECT_EQ(bytesOf(entry->value), kValue);
    EXPECT_EQ(entry->value->pins, 1);
    EXPECT_EQ(nodeOf(entry)->flags, in_memory | on_disk | recently_used);
    expectFree(entry);
    unpinValue(entry, JNI_GET_PIN);
    ASSERT_EQ(calls.deleting.size(), 1U) << "Java has to free the copy";
    EXPECT_EQ(calls.deleting[0].at(5), kChunk.position);
  }

  static constexpr jlong kNow = 1000;
  bounded::Partition partition;
  std::optional<bounded::Caller> bounded;
  LuOffHeapValue* entry = nullptr;
};

class EvictionBesideAPageIn : public EvictionBesideAHolder,
                              public ::testing::WithParamInterface<WayBack> {};

// The value comes back between the bucket set and the rest of the eviction, which looked for it
// only at its end.
TEST_P(EvictionBesideAPageIn, HandsOverWhatTheEntryHadInsideItsBucketSet) {
  pageOutAndHold();
  bool back = false;
  std::unique_ptr<bounded::Evicted> evicted;
  {
    const OnLockOperation behindTheBucketSet([&](const void* lock, LockOp operation) {
      if (back || lock != &map->lock || operation != LockOp::readLock) return 0;
      back = true;
      std::thread([this] {
        OverflowThread java;
        GetParam().bringBack(java, entry);
      }).join();
      return 0;
    });
    evicted = evict();
  }
  ASSERT_TRUE(back);
  expectTheRecordOnly(*evicted);
  evicted.reset();
  expectBackAndLetGo();
}

// The value comes back when the eviction is over. Only the locks of the entry put the one before
// the other, not the flag that the thread waits for: the thread sanitizer reports what the eviction
// reads of the entry after it has let them go.
TEST_P(EvictionBesideAPageIn, ReadsTheValueInsideTheBucketSetOnly) {
  pageOutAndHold();
  std::atomic<bool> isOver{false};
  std::promise<void> arrived;
  std::unique_ptr<bounded::Evicted> evicted;
  {
    static thread_local bool waitsAtTheNode;
    waitsAtTheNode = false;
    const OnLockOperation atTheNode([&](const void* lock, LockOp operation) {
      if (!waitsAtTheNode || lock != &nodeOf(entry)->mutex || operation != LockOp::lock) return 0;
      waitsAtTheNode = false;
      arrived.set_value();
      while (!isOver.load(std::memory_order_relaxed)) std::this_thread::yield();
      return 0;
    });
    std::thread holder([this] {
      OverflowThread java;
      waitsAtTheNode = true;
      GetParam().bringBack(java, entry);
    });
    arrived.get_future().wait();
    evicted = evict();
    isOver.store(true, std::memory_order_relaxed);
    holder.join();
  }
  expectTheRecordOnly(*evicted);
  evicted.reset();
  expectBackAndLetGo();
}

INSTANTIATE_TEST_SUITE_P(Ways, EvictionBesideAPageIn,
                         ::testing::Values(WayBack{"Contract", bringBackAsTheContract},
                                           WayBack{"Face", bringBackAsTheFace}),
                         [](const auto& info) { return std::string(info.param.name); });

// What an eviction has pinned inside the bucket set it lets go when it cannot finish.
TEST_F(EvictionBesideAHolder, RefusedRevisionQueueLeavesNoPinBehind) {
  struct Refusal {
    const char* name;
    const void* lock;
    LockOp operation;
  };
  const Refusal refusals[] = {{"map", &map->lock, LockOp::readLock},
                              {"queue", &map->revisionQueue[0]->mutex, LockOp::lock}};
  for (const Refusal& refusal : refusals) {
    for (const bool onDisk : {false, true}) {
      SCOPED_TRACE(std::string(refusal.name) + (onDisk ? ", on disk" : ", in memory"));
      if (onDisk) pageOutValue(entry, kChunk);
      ByteBufferHeader* buffer = entry->value;
      ASSERT_EQ(buffer == nullptr, onDisk);
      pin(env, static_cast<Pinnable*>(entry), JNI_GET_PIN);
      if (buffer != nullptr) pin(env, buffer, JNI_GET_PIN);
      {
        const FailThisLock guard(refusal.lock, refusal.operation);
        EXPECT_EQ(evict()->keys(), bounded::Keys{});
        EXPECT_EQ(guard.fired(), 1);
      }
      jni.clearPending();
      EXPECT_TRUE(entriesOf(map).empty());
      EXPECT_EQ(entry->pins, 3) << "two places in the revision queue, and the test's";
      if (buffer != nullptr) {
        EXPECT_EQ(buffer->pins, 2) << "the entry's and the test's";
        unpinToFree(env, buffer, JNI_GET_PIN);
      }
      unpinValue(entry, JNI_GET_PIN);
      empty();
      store();
    }
  }
}

}  // namespace
}  // namespace nimbra::test
