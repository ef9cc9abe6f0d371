// The face's own natives with disk overflow: the inner loop of a sweep, reads that begin in memory
// or on disk, values put back, and lookups and walks that meet values on disk.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <future>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "bounded_support.h"
#include "com_velt_rz_corvane_nimbra_OverflowNatives.h"
#include "face_support.h"
#include "overflow_natives.h"

namespace nimbra::test {
namespace {

using natives::handle;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr auto& nextEvictable = Java_com_velt_rz_corvane_nimbra_OverflowNatives_nextEvictable;
constexpr auto& evicted = Java_com_velt_rz_corvane_nimbra_OverflowNatives_evicted;
constexpr auto& keep = Java_com_velt_rz_corvane_nimbra_OverflowNatives_keep;
constexpr auto& beginRead = Java_com_velt_rz_corvane_nimbra_OverflowNatives_beginRead;
constexpr auto& pageIn = Java_com_velt_rz_corvane_nimbra_OverflowNatives_pageIn;
constexpr auto& unpinRecord = Java_com_velt_rz_corvane_nimbra_OverflowNatives_unpinRecord;

constexpr jint kInMemory = 1;
constexpr jint kOnDisk = 2;
constexpr std::size_t kPayloadHeader = 8;

class FaceOverflow : public PagingTest {
 protected:
  void SetUp() override {
    PagingTest::SetUp();
    calls_.emplace(jni, map);
  }

  // An entry of the face in a list; the value's type is that of the face.
  LuOffHeapValue* put(int list, std::string_view key, std::string_view value, jlong revision = 1) {
    nextList(list);
    EXPECT_GE(calls_->put(key, hashOf(key), value, revision), 0);
    return find(map, key);
  }
  LuOffHeapValue* putIdle(int list, std::string_view key, std::string_view value) {
    LuOffHeapValue* made = put(list, key, value);
    changeFlags(made, 0, recently_used);
    return made;
  }
  std::optional<std::string> get(std::string_view key, jlongArray onDisk = nullptr) {
    const jbyteArray value = face::get(env, nullptr, handle(map), array(key), hashOf(key), onDisk);
    if (value == nullptr) return std::nullopt;
    const std::vector<uint8_t> bytes = jni.bytesOf(jni.adopt(value));
    return std::string(bytes.begin(), bytes.end());
  }
  jbyteArray array(std::string_view bytes) {
    return jni.newByteArray(std::vector<uint8_t>(bytes.begin(), bytes.end()));
  }
  jbyteArray payload(std::string_view value, uint8_t type = 0) {
    std::string bytes(kPayloadHeader, '\x55');
    bytes[0] = static_cast<char>(type);
    return array(bytes.append(value));
  }
  jlongArray longs(std::size_t count) { return jni.newLongArray(std::vector<jlong>(count, -1)); }
  std::string thrown() {
    const std::optional<Thrown> found = jni.takePending();
    return found.has_value() ? found->message : std::string();
  }

  std::optional<face::Caller> calls_;
};

// ---- The inner loop of a sweep -----------------------------------------------------------

class FaceSweep : public FaceOverflow {
 protected:
  void SetUp() override {
    FaceOverflow::SetUp();
    first = putIdle(0, "first", "1");
    value = putIdle(1, "key", "the value");
    out = longs(7);
    begin();
  }
  void TearDown() override {
    if (sweeping_) end();
    FaceOverflow::TearDown();
  }
  void begin(jlong maximum = 100) {
    natives::initSweep(env, nullptr, 10, maximum, JNI_FALSE);
    sweeping_ = true;
  }
  // Exactly once for each sweep: the cursor still shows the entry that it has let go.
  void end() {
    natives::disposeSweep(env, nullptr);
    sweeping_ = false;
  }

  LuOffHeapValue* first = nullptr;
  LuOffHeapValue* value = nullptr;
  jlongArray out = nullptr;

 private:
  bool sweeping_ = false;
};

TEST_F(FaceSweep, OfferShowsThePayloadAndWhatItGivesBack) {
  value->value->deserializedType = DESERIALIZED_TYPE_JSTRING;
  ASSERT_EQ(nextEvictable(env, nullptr, out), handle(value));
  const std::vector<jlong> words = jni.longsOf(out);
  EXPECT_EQ(words[0], handle(bufferData(value->value)) - 8);
  EXPECT_EQ(words[1], 8 + 9);
  const auto* bytes = reinterpret_cast<const char*>(static_cast<intptr_t>(words[0]));
  EXPECT_EQ(bytes[0], DESERIALIZED_TYPE_JSTRING);
  EXPECT_EQ(std::string(bytes + kPayloadHeader, 9), "the value");
  EXPECT_THAT(std::vector<jlong>(words.begin() + 2, words.begin() + 6), ElementsAre(0, 0, 0, 0));
  EXPECT_EQ(words[6], static_cast<jlong>(sizeofByteBufferHeader(value->value)));
  EXPECT_EQ(value->pins, 4);
  EXPECT_EQ(holdCount(nodeOf(value)), 1U);
  keep(env, nullptr, handle(value));
}

TEST_F(FaceSweep, EvictedValueLeavesMemoryAndItsPinGoes) {
  ASSERT_EQ(nextEvictable(env, nullptr, out), handle(value));
  const int64_t blocks = Books::now().blocks;
  const jlong bytes = bytesUsed();
  evicted(env, nullptr, handle(value), 4096, 77, 8192);
  EXPECT_EQ(Books::now().blocks, blocks - 1);
  EXPECT_EQ(value->pins, 3);
  EXPECT_EQ(value->value, nullptr);
  EXPECT_EQ(nodeOf(value)->flags, on_disk);
  EXPECT_EQ(nodeOf(value)->chunkPtrOffset, 4096);
  EXPECT_EQ(nodeOf(value)->chunkSize, 77);
  EXPECT_EQ(nodeOf(value)->nextChunkPtrOffset, 8192);
  EXPECT_EQ(bytesUsed(), bytes);
  EXPECT_EQ(holdCount(nodeOf(value)), 1U) << "the cursor keeps its locks";
}

TEST_F(FaceSweep, KeptValueStays) {
  ASSERT_EQ(nextEvictable(env, nullptr, out), handle(value));
  keep(env, nullptr, handle(value));
  EXPECT_EQ(value->pins, 3);
  EXPECT_EQ(bytesOf(value->value), "the value");
  EXPECT_EQ(nodeOf(value)->flags, in_memory);
}

TEST_F(FaceSweep, OfferWithACopyOnDiskShowsItsPlace) {
  end();
  pageOutValue(value, {4096, -7, 8192});
  pageInValue(value, "the value");
  changeFlags(value, 0, recently_used);
  begin();
  ASSERT_EQ(nextEvictable(env, nullptr, out), handle(value));
  const std::vector<jlong> words = jni.longsOf(out);
  EXPECT_THAT(std::vector<jlong>(words.begin() + 2, words.begin() + 6),
              ElementsAre(4096, -7, 8192, 1));
  keep(env, nullptr, handle(value));
}

TEST_F(FaceSweep, EndLeavesTheWordsAlone) {
  end();
  begin(1);
  // The anchor is not counted: one more entry, and the sweep is over.
  while (const jlong record = nextEvictable(env, nullptr, out)) keep(env, nullptr, record);
  out = longs(7);
  EXPECT_EQ(nextEvictable(env, nullptr, out), 0);
  EXPECT_THAT(jni.longsOf(out), ElementsAre(-1, -1, -1, -1, -1, -1, -1));
}

TEST_F(FaceSweep, EvictedEntryThatJavaHasRemovedIsReported) {
  ASSERT_EQ(nextEvictable(env, nullptr, out), handle(value));
  evicted(env, nullptr, handle(value), 1, 2, 3);
  end();
  EXPECT_EQ(calls_->remove("key", hashOf("key")), 1);
  ASSERT_EQ(calls.deleting.size(), 1U);
  EXPECT_EQ(calls.deleting[0].at(4), handle(value));
  EXPECT_EQ(calls.deleting[0].at(5), 1);
}

// ---- Reads -------------------------------------------------------------------------------

class FaceRead : public FaceOverflow {
 protected:
  void SetUp() override {
    FaceOverflow::SetUp();
    value = put(3, "key", "the value", 42);
    pin(env, value, JNI_GET_PIN);  // as a lookup does
    out = longs(4);
  }
  void TearDown() override {
    unpinRecord(env, nullptr, handle(value));
    FaceOverflow::TearDown();
  }
  LuOffHeapValue* value = nullptr;
  jlongArray out = nullptr;
};

TEST_F(FaceRead, ValueInMemoryIsPinnedAndNothingIsLocked) {
  EXPECT_EQ(beginRead(env, nullptr, handle(value), out), kInMemory);
  EXPECT_THAT(jni.longsOf(out),
              ElementsAre(handle(value->value), handle(bufferData(value->value)), 9, 42));
  EXPECT_EQ(value->value->pins, 2);
  expectFree(value);
  face::unpin(env, nullptr, handle(value->value));
  EXPECT_EQ(value->value->pins, 1);
}

TEST_F(FaceRead, ValueOnDiskKeepsItsNodeLocked) {
  pageOutValue(value, {4096, -7, 8192});
  EXPECT_EQ(beginRead(env, nullptr, handle(value), out), kOnDisk);
  EXPECT_THAT(jni.longsOf(out), ElementsAre(4096, -7, 8192, 42));
  EXPECT_EQ(holdCount(nodeOf(value)), 1U);
  EXPECT_TRUE(isFree(&setOf("key")->mutex));
  EXPECT_EQ(natives::unlockMetadata(env, nullptr, handle(value)), JNI_TRUE);
  expectFree(value);
}

TEST_F(FaceRead, WaitsForTheNode) {
  HeldByAnother holder(nodeOf(value));
  std::promise<jint> answered;
  std::thread reader([&] {
    OverflowThread thread;
    const jlongArray words = thread.jni.newLongArray({0, 0, 0, 0});
    answered.set_value(beginRead(thread.env, nullptr, handle(value), words));
    face::unpin(thread.env, nullptr, thread.jni.longsOf(words).at(0));
  });
  std::future<jint> answer = answered.get_future();
  EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  holder.release();
  EXPECT_EQ(answer.get(), kInMemory);
  reader.join();
}

TEST_F(FaceRead, FailedNodeLockIsRaised) {
  {
    const FailThisLock failure(&nodeOf(value)->mutex, LockOp::lock);
    EXPECT_EQ(beginRead(env, nullptr, handle(value), out), -1);
  }
  EXPECT_THAT(thrown(), HasSubstr("pthread_mutex_lock() failed"));
  EXPECT_THAT(jni.longsOf(out), ElementsAre(-1, -1, -1, -1));
  expectFree(value);
}

TEST_F(FaceRead, EntryMayBeRemovedMeanwhile) {
  EXPECT_EQ(beginRead(env, nullptr, handle(value), out), kInMemory);
  ByteBufferHeader* held = value->value;
  EXPECT_EQ(calls_->remove("key", hashOf("key")), 1);
  EXPECT_EQ(bytesOf(held), "the value");
  face::unpin(env, nullptr, handle(held));
  EXPECT_THAT(calls.deleting, IsEmpty()) << "the record is still pinned";
}

// ---- Back into memory --------------------------------------------------------------------

class FacePageIn : public FaceRead {
 protected:
  void SetUp() override {
    FaceRead::SetUp();
    value->value->deserializedType = DESERIALIZED_TYPE_JSTRING;
    pageOutValue(value, {4096, 17, 8192});
    out = longs(2);
  }
  jlong putBack(jlong position, jlong revision, jlongArray words, std::string_view bytes) {
    return pageIn(env, nullptr, handle(value), payload(bytes, DESERIALIZED_TYPE_JSTRING), position,
                  revision, words);
  }
};

TEST_F(FacePageIn, ValueIsBackWithItsType) {
  const jlong bytes = bytesUsed();
  EXPECT_EQ(putBack(4096, 42, nullptr, "the value"), 1);
  ASSERT_NE(value->value, nullptr);
  EXPECT_EQ(bytesOf(value->value), "the value");
  EXPECT_EQ(value->value->deserializedType, DESERIALIZED_TYPE_JSTRING);
  EXPECT_EQ(value->value->pins, 1);
  EXPECT_EQ(nodeOf(value)->flags, in_memory | recently_used | on_disk);
  EXPECT_TRUE(value->flags & HAS_VALUE);
  EXPECT_EQ(bytesUsed(), bytes);
  EXPECT_EQ(bytesUsed(), sumOfSizes());
  expectFree(value);
  EXPECT_EQ(get("key"), "the value");
}

TEST_F(FacePageIn, ViewOfTheValueIsPinned) {
  const jlong pinned = putBack(4096, 42, out, "the value");
  ASSERT_EQ(pinned, handle(value->value));
  EXPECT_THAT(jni.longsOf(out), ElementsAre(handle(bufferData(value->value)), 9));
  EXPECT_EQ(value->value->pins, 2);
  face::unpin(env, nullptr, pinned);
  EXPECT_EQ(value->value->pins, 1);
}

TEST_F(FacePageIn, EmptyValue) {
  EXPECT_GE(calls_->put("key", hashOf("key"), "", 43), 0);
  pageOutValue(value, {1, 8, 0});
  EXPECT_EQ(putBack(1, 43, nullptr, ""), 1);
  EXPECT_EQ(value->value->dataSize, 0U);
  EXPECT_EQ(bytesUsed(), sumOfSizes());
}

TEST_F(FacePageIn, ChangedEntryDoesNotTakeIt) {
  struct Case {
    const char* what;
    jlong position;
    jlong revision;
  };
  for (const Case& each :
       {Case{"moved on disk", 4097, 42}, Case{"of another revision", 4096, 41}}) {
    SCOPED_TRACE(each.what);
    const Books before = Books::now();
    EXPECT_EQ(putBack(each.position, each.revision, nullptr, "the value"), 0);
    EXPECT_EQ(Books::now(), before);
    EXPECT_EQ(value->value, nullptr);
    EXPECT_EQ(nodeOf(value)->flags & in_memory, 0);
    // Whoever asked for a view has it all the same.
    const jlong view = putBack(each.position, each.revision, out, "the value");
    ASSERT_NE(view, 0);
    EXPECT_THAT(jni.longsOf(out), ElementsAre(view + 24, 9));
    EXPECT_EQ(value->value, nullptr);
    face::unpin(env, nullptr, view);
    EXPECT_EQ(Books::now(), before);
    expectFree(value);
  }
}

TEST_F(FacePageIn, ValueInMemoryIsNotReplaced) {
  EXPECT_EQ(putBack(4096, 42, nullptr, "the value"), 1);
  const ByteBufferHeader* first = value->value;
  EXPECT_EQ(putBack(4096, 42, nullptr, "another one"), 0);
  EXPECT_EQ(value->value, first);
}

TEST_F(FacePageIn, ReplacedValueIsNotOverwritten) {
  EXPECT_EQ(calls_->put("key", hashOf("key"), "newer", 43), 0);
  EXPECT_EQ(putBack(4096, 42, nullptr, "the value"), 0);
  EXPECT_EQ(bytesOf(value->value), "newer");
  checkMap(env, map, {{value, 1}});
}

TEST_F(FacePageIn, RefusedMemory) {
  for (const bool view : {false, true}) {
    const Books before = Books::now();
    {
      const RefuseAllocation refusal(1, RefuseAllocation::Way::kOverMaximum);
      EXPECT_EQ(putBack(4096, 42, view ? out : nullptr, "the value"), 0);
    }
    const std::optional<Thrown> refused = jni.takePending();
    EXPECT_EQ(refused.has_value(), view) << "without a view, the value has been read all the same";
    if (refused.has_value()) {
      EXPECT_EQ(refused->className, kNotEnoughResources);
    }
    allocatingOffHeapBlocks -= 1;  // refused behind the allocation: the count stays raised
    EXPECT_EQ(Books::now(), before);
    EXPECT_EQ(value->value, nullptr);
    expectFree(value);
  }
}

TEST_F(FacePageIn, FailedLockLeavesTheEntryOnDisk) {
  const Books before = Books::now();
  {
    const FailThisLock failure(&nodeOf(value)->mutex, LockOp::lock);
    EXPECT_EQ(putBack(4096, 42, nullptr, "the value"), 0);
  }
  jni.clearPending();
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(value->value, nullptr);
  expectFree(value);
}

TEST_F(FacePageIn, FailedLockStillGivesTheView) {
  jlong view = 0;
  {
    const FailThisLock failure(&nodeOf(value)->mutex, LockOp::lock);
    view = putBack(4096, 42, out, "the value");
  }
  jni.clearPending();
  if (view != 0) {
    EXPECT_THAT(jni.longsOf(out), ElementsAre(view + 24, 9));
    face::unpin(env, nullptr, view);
  }
  EXPECT_EQ(value->value, nullptr);
  expectFree(value);
}

// ---- Lookups and walks -------------------------------------------------------------------

class FaceOnDisk : public FaceOverflow {
 protected:
  void SetUp() override {
    FaceOverflow::SetUp();
    here = putIdle(0, "here", "in memory");
    gone = putIdle(1, "gone", "on disk");
    pageOutValue(gone);
  }
  LuOffHeapValue* here = nullptr;
  LuOffHeapValue* gone = nullptr;
};

TEST_F(FaceOnDisk, GetHandsTheRecordOver) {
  const jlongArray onDisk = longs(1);
  EXPECT_EQ(get("here", onDisk), "in memory");
  EXPECT_THAT(jni.longsOf(onDisk), ElementsAre(-1)) << "left alone";
  EXPECT_EQ(get("missing", onDisk), std::nullopt);
  EXPECT_THAT(jni.longsOf(onDisk), ElementsAre(-1));
  EXPECT_EQ(get("gone", onDisk), std::nullopt);
  EXPECT_THAT(jni.longsOf(onDisk), ElementsAre(handle(gone)));
  EXPECT_EQ(gone->pins, 4);
  expectFree(gone);
  unpinRecord(env, nullptr, handle(gone));
  EXPECT_EQ(gone->pins, 3);
  EXPECT_TRUE(isFlagSet(recently_used, nodeOf(here)));
  EXPECT_TRUE(isFlagSet(recently_used, nodeOf(gone)));
  EXPECT_THAT(calls.accesses, IsEmpty()) << "the face marks the entry without a call into Java";
}

TEST_F(FaceOnDisk, BusyNodeIsNotWaitedFor) {
  const HeldByAnother holder(nodeOf(here));
  EXPECT_EQ(get("here", longs(1)), "in memory");
  EXPECT_FALSE((nodeOf(here)->flags & recently_used) != 0);
}

TEST_F(FaceOnDisk, PinHandsTheRecordOverAsANegative) {
  std::vector<jlong> words;
  EXPECT_EQ(calls_->pin("gone", hashOf("gone"), &words), -handle(gone));
  EXPECT_EQ(gone->pins, 4);
  unpinRecord(env, nullptr, handle(gone));
  const jlong pinned = calls_->pin("here", hashOf("here"), &words);
  EXPECT_EQ(pinned, handle(here->value));
  EXPECT_EQ(words.at(1), 9);
  calls_->unpin(pinned);
}

TEST_F(FaceOnDisk, RecordOfARemovedEntryStaysUntilItsPinGoes) {
  const jlongArray onDisk = longs(1);
  EXPECT_EQ(get("gone", onDisk), std::nullopt);
  EXPECT_EQ(calls_->remove("gone", hashOf("gone")), 1);
  EXPECT_THAT(calls.deleting, IsEmpty());
  unpinRecord(env, nullptr, handle(gone));
  EXPECT_EQ(calls.deleting.size(), 1U);
}

TEST_F(FaceOnDisk, WalkShowsTheRecordInPlaceOfTheValue) {
  face::Walk walk(*calls_, 8);
  std::map<std::string, std::string> inMemory;
  std::map<std::string, jlong> onDisk;
  while (!walk.ended()) {
    ASSERT_GE(walk.step(), 0);
    for (const face::Walk::Entry& entry : walk.entries()) {
      const std::string key(entry.key.text());
      EXPECT_EQ(entry.revision, 1);
      if (entry.value.bytes == nullptr) {
        onDisk[key] = entry.value.length;
        EXPECT_EQ(gone->pins, 4);
        EXPECT_EQ(gone->key->pins, 2);
      } else {
        inMemory[key] = std::string(entry.value.text());
      }
    }
    walk.release();
  }
  EXPECT_EQ(inMemory, (std::map<std::string, std::string>{{"here", "in memory"}}));
  EXPECT_EQ(onDisk, (std::map<std::string, jlong>{{"gone", handle(gone)}}));
  EXPECT_EQ(gone->pins, 3);
  EXPECT_EQ(gone->key->pins, 1);
}

TEST_F(FaceOnDisk, WalkMarksNothingUsed) {
  face::Walk walk(*calls_, 8);
  while (!walk.ended()) {
    ASSERT_GE(walk.step(), 0);
    walk.release();
  }
  EXPECT_EQ(nodeOf(here)->flags, in_memory);
  EXPECT_EQ(nodeOf(gone)->flags, on_disk);
}

TEST_F(FaceOnDisk, ReplacedAndRemoved) {
  EXPECT_EQ(calls_->put("gone", hashOf("gone"), "new", 2), 0);
  EXPECT_EQ(get("gone"), "new");
  EXPECT_EQ(depthOf(nodeOf(gone)), 0) << "the update's lock is let go";
  ASSERT_EQ(calls.deleting.size(), 1U) << "the copy on disk went with the snapshot";
  EXPECT_EQ(calls.deleting[0].at(1) & on_disk, on_disk);
  EXPECT_EQ(bytesUsed(), sumOfSizes());
  pageOutValue(gone, {5, 6, 7});
  EXPECT_EQ(calls_->putIfAbsent("gone", hashOf("gone"), "x", 3), 0);
  EXPECT_EQ(calls_->replace("gone", hashOf("gone"), "newest", 4), 1);
  EXPECT_EQ(get("gone"), "newest");
  EXPECT_TRUE(calls_->containsKey("gone", hashOf("gone")));
  EXPECT_EQ(calls_->remove("gone", hashOf("gone")), 1);
  EXPECT_EQ(bytesUsed(), sumOfSizes());
  checkMap(env, map);
}

// ---- Bounded maps ------------------------------------------------------------------------

class BoundedOnDisk : public FaceOverflow {
 protected:
  void SetUp() override {
    FaceOverflow::SetUp();
    partition.map = map;
    partition.policy = bounded::kLru;
    partition.bound = bounded::allocateBound(env, nullptr, 1'000'000, 1'000);
    partition.queue = natives::allocateEvictionQueue(env, nullptr);
    partition.ttl = natives::allocateEvictionQueue(env, nullptr);
    bounded.emplace(jni, partition);
    store("here", "in memory", 1);
    gone = store("gone", "on disk", 2);
    changeFlags(gone, 0, recently_used);
    pageOutValue(gone);
  }
  void TearDown() override {
    EXPECT_TRUE(bounded->clear());
    EXPECT_EQ(bounded::bytes(env, nullptr, partition.bound), 0);
    EXPECT_EQ(bounded::entries(env, nullptr, partition.bound), 0);
    EXPECT_TRUE(natives::freeEvictionQueue(env, nullptr, partition.queue));
    EXPECT_TRUE(natives::freeEvictionQueue(env, nullptr, partition.ttl));
    bounded::freeBound(env, nullptr, partition.bound);
    FaceOverflow::TearDown();
  }
  LuOffHeapValue* store(std::string_view key, std::string_view value, jlong revision) {
    EXPECT_GE(bounded->put(key, hashOf(key), value, revision, kNow, kNow + 100, bounded::kPut), 0);
    return find(map, key);
  }
  void expectFigures() {
    EXPECT_EQ(bytesUsed(), sumOfSizes());
    EXPECT_EQ(bounded::bytes(env, nullptr, partition.bound), bytesUsed());
  }

  static constexpr jlong kNow = 1'000;
  bounded::Partition partition;
  std::optional<bounded::Caller> bounded;
  LuOffHeapValue* gone = nullptr;
};

TEST_F(BoundedOnDisk, GetHandsTheRecordOverAndTouchesTheEntry) {
  const jlongArray onDisk = longs(1);
  EXPECT_EQ(bounded::get(env, nullptr, partition.handle(), partition.queue, partition.policy,
                         partition.ttl, array("gone"), hashOf("gone"), kNow, kNow + 500, onDisk),
            nullptr);
  EXPECT_THAT(jni.longsOf(onDisk), ElementsAre(handle(gone)));
  EXPECT_EQ(gone->pins, 4);
  unpinRecord(env, nullptr, handle(gone));
  EXPECT_EQ(gone->ttlEvictionData->metadata, kNow + 500);
  EXPECT_TRUE(isFlagSet(recently_used, nodeOf(gone)));
  expectFigures();
}

TEST_F(BoundedOnDisk, ExpiredEntryIsAbsent) {
  const jlongArray onDisk = longs(1);
  EXPECT_EQ(bounded::get(env, nullptr, partition.handle(), partition.queue, partition.policy,
                         partition.ttl, array("gone"), hashOf("gone"), kNow + 100, bounded::kKeep,
                         onDisk),
            nullptr);
  EXPECT_THAT(jni.longsOf(onDisk), ElementsAre(-1));
  EXPECT_EQ(gone->pins, 3);
}

TEST_F(BoundedOnDisk, PinHandsTheRecordOverAsANegative) {
  const jlongArray out = longs(3);
  EXPECT_EQ(bounded::pin(env, nullptr, partition.handle(), partition.queue, partition.policy,
                         partition.ttl, array("gone"), hashOf("gone"), kNow, bounded::kKeep, out),
            -handle(gone));
  unpinRecord(env, nullptr, handle(gone));
}

TEST_F(BoundedOnDisk, EvictionShowsTheRecordInPlaceOfTheValue) {
  const jlongArray out = longs(10);
  ASSERT_EQ(bounded::evict(env, nullptr, partition.handle(), partition.bound, partition.queue,
                           partition.ttl, 2, JNI_FALSE, kNow, out),
            2);
  const std::vector<jlong> words = jni.longsOf(out);
  EXPECT_EQ(face::placeAt(words, 0).text(), "here");
  EXPECT_EQ(face::placeAt(words, 2).text(), "in memory");
  EXPECT_EQ(face::placeAt(words, 5).text(), "gone");
  EXPECT_EQ(words.at(7), 0);
  EXPECT_EQ(words.at(8), handle(gone));
  EXPECT_EQ(words.at(9), 2);
  EXPECT_THAT(checkLists(), IsEmpty());
  EXPECT_EQ(bounded::bytes(env, nullptr, partition.bound), 0);
  face::unpinAll(env, nullptr, out, 0, 2);
  EXPECT_EQ(calls.deleting.size(), 1U) << "our own side wants to know of copies on disk only";
}

TEST_F(BoundedOnDisk, QueryShowsNoPlaceAndLocksNothingForLong) {
  std::vector<int64_t> words(1 + 9 * 4, -1);
  bounded::query(env, nullptr, partition.handle(),
                 jni.newDirectBuffer(words.data(), static_cast<jlong>(words.size() * 8)), -1, 0, 4);
  ASSERT_EQ(words[0], 2);
  EXPECT_EQ(words[10], handle(gone));
  EXPECT_EQ(words[10 + 3], 0);
  EXPECT_EQ(words[10 + 4], 0);
  expectFree(gone);
  for (const std::size_t at : {1, 10}) {
    bounded::releaseQueried(env, nullptr, words[at], words[at + 1], words[at + 3]);
  }
  EXPECT_EQ(gone->pins, 3);
  EXPECT_EQ(gone->key->pins, 3) << "the entry and its two queues";
}

TEST_F(BoundedOnDisk, ReplacedValueKeepsTheFigures) {
  expectFigures();
  store("gone", std::string(500, 'x'), 3);
  expectFigures();
  EXPECT_EQ(depthOf(nodeOf(gone)), 0);
  EXPECT_EQ(calls.deleting.size(), 1U);
  pageOutValue(gone, {5, 6, 7});
  expectFigures();
  EXPECT_EQ(bounded->remove("gone", hashOf("gone"), kNow), 1);
  expectFigures();
  EXPECT_EQ(checkLists().size(), 1U);
}

}  // namespace
}  // namespace nimbra::test
