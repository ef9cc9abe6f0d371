// The exported entry points of disk overflow under short names, a thread that keeps a bucket set,
// and page-out and page-in in the steps in which Java makes them.

#pragma once

#include <gtest/gtest.h>
#include <jni.h>

#include <future>
#include <string_view>
#include <thread>
#include <vector>

#include "com_velt_rz_corvane_io_offheap_overflow_CacheIter.h"
#include "com_velt_rz_corvane_io_offheap_overflow_NOFStruct.h"
#include "com_velt_rz_corvane_io_offheap_overflow_Overflow.h"
#include "com_velt_rz_corvane_io_offheap_overflow_Utils.h"
#include "overflow_support.h"

namespace nimbra::test::natives {

inline constexpr auto& getOverflowState =
    Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_getOverflowState;
inline constexpr auto& getChunkPtrAndSize =
    Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_getChunkPtrAndSize;
inline constexpr auto& evictedToDisk =
    Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_evictedToDisk;
inline constexpr auto& valueToLuOffHeapValue =
    Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_valueToLuOffHeapValue;
inline constexpr auto& lockValidAndGetChunkPtr =
    Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_lockValidAndGetChunkPtr;
inline constexpr auto& setChunkPtrOffset =
    Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_setChunkPtrOffset;
inline constexpr auto& setNextChunkPtrOffset =
    Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_setNextChunkPtrOffset;
inline constexpr auto& lockBucketSetAndMetadata =
    Java_com_velt_rz_corvane_io_offheap_overflow_Overflow_lockBucketSetAndMetadata;
inline constexpr auto& unlockBucketSetAndMetadata =
    Java_com_velt_rz_corvane_io_offheap_overflow_Overflow_unlockBucketSetAndMetadata;
inline constexpr auto& unlockMetadata =
    Java_com_velt_rz_corvane_io_offheap_overflow_Overflow_unlockMetadata;
inline constexpr auto& printPthreadID =
    Java_com_velt_rz_corvane_io_offheap_overflow_Utils_printPthreadID;
inline constexpr auto& initSweep = Java_com_velt_rz_corvane_io_offheap_overflow_CacheIter_init;
inline constexpr auto& nextOfSweep =
    Java_com_velt_rz_corvane_io_offheap_overflow_CacheIter_advanceAndNextEvictable;
inline constexpr auto& disposeSweep =
    Java_com_velt_rz_corvane_io_offheap_overflow_CacheIter_dispose;
inline constexpr auto& getSweepState =
    Java_com_velt_rz_corvane_io_offheap_overflow_CacheIter_getSweepState;

}  // namespace nimbra::test::natives

namespace nimbra::test {

// A thread that holds a bucket set from its making to its end, or to `release`.
class SetHeldByAnother {
 public:
  explicit SetHeldByAnother(BucketSet* set) {
    std::promise<void> held;
    thread_ = std::thread([this, set, &held] {
      EXPECT_EQ(lockBucketSet(set), 0);
      held.set_value();
      released_.get_future().wait();
      EXPECT_EQ(unlockBucketSet(set), 0);
    });
    held.get_future().wait();
  }
  ~SetHeldByAnother() { release(); }
  SetHeldByAnother(const SetHeldByAnother&) = delete;
  SetHeldByAnother& operator=(const SetHeldByAnother&) = delete;

  void release() {
    if (!thread_.joinable()) return;
    released_.set_value();
    thread_.join();
  }

 private:
  std::promise<void> released_;
  std::thread thread_;
};

// A place on disk.
struct Chunk {
  jlong position = 4096;
  jint size = 77;
  jlong next = 8192;
};

// Entries whose values are moved to disk and back.
class PagingTest : public OverflowTest {
 protected:
  void TearDown() override {
    setLevels(0);
    if (map != nullptr) deleteMap(map);
    map = nullptr;
    dropReverseMapPins();
    OverflowTest::TearDown();
  }

  // What Java does when it has let go of the copies on disk: an entry that it was told of with a
  // copy there holds one pin for it.
  void dropReverseMapPins() {
    for (; told_ < calls.deleting.size(); ++told_) {
      const std::vector<jlong>& entry = calls.deleting[told_];
      if ((entry.at(1) & on_disk) == 0) continue;
      EXPECT_EQ(natives::unpinLuOffHeapValue_native(env, manager, entry.at(4),
                                                    static_cast<jint>(JAVA_NOF_REVERSEMAP_PIN)),
                0);
    }
  }

  // Locks as Java does, drops the value from memory, unlocks.
  void pageOutValue(LuOffHeapValue* value, const Chunk& chunk = {}) {
    const jlong record = natives::handle(value);
    ASSERT_EQ(natives::lockBucketSetAndMetadata(env, nullptr, record), 0);
    EXPECT_EQ(natives::evictedToDisk(env, nullptr, record, chunk.position, chunk.size, chunk.next),
              record);
    EXPECT_EQ(natives::unlockBucketSetAndMetadata(env, nullptr, record), 0);
  }
  // The way back, with the bytes that Java has read.
  void pageInValue(LuOffHeapValue* value, std::string_view bytes) {
    const jlong record = natives::handle(value);
    const jobject read = javaBuffer(buffer(bytes));
    ASSERT_EQ(natives::lockBucketSetAndMetadata(env, nullptr, record), 0);
    natives::valueToLuOffHeapValue(env, nullptr, read, record);
    EXPECT_EQ(natives::unlockBucketSetAndMetadata(env, nullptr, record), 0);
  }

  std::vector<jint> stateOf(LuOffHeapValue* value) {
    return jni.intsOf(jni.adopt(natives::getOverflowState(env, nullptr, natives::handle(value))));
  }
  std::vector<jlong> chunkOf(LuOffHeapValue* value) {
    return jni.longsOf(
        jni.adopt(natives::getChunkPtrAndSize(env, nullptr, natives::handle(value))));
  }

  jlong bytesUsed() { return hashtable_bytesUsed(env, map->map); }
  jlong sumOfSizes() {
    jlong sum = 0;
    for (LuOffHeapValue* value : entriesOf(map)) {
      sum += static_cast<jlong>(getSize_LuValue(env, value));
    }
    return sum;
  }

  // Neither the node nor the bucket set of the entry is held by anybody.
  void expectFree(LuOffHeapValue* value) {
    EXPECT_EQ(depthOf(nodeOf(value)), 0);
    EXPECT_TRUE(isFree(
        &getBucketSet(nodeOf(value)->mapHeader, static_cast<uint32_t>(value->hashCode))->mutex));
    EXPECT_EQ(heldLockCount(), 0);
  }

  // The records that end in `text`.
  int recordsEnding(std::string_view text) {
    int count = 0;
    for (const std::string& line : jni.lines()) count += line.ends_with(text) ? 1 : 0;
    return count;
  }

 private:
  std::size_t told_ = 0;  // deletions whose pins are dropped
};

}  // namespace nimbra::test
