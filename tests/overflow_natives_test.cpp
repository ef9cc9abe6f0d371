// The overflow natives: the state of an entry, values that leave memory and come back, and the
// pairs of locks that Java takes for it.

#include "overflow_natives.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <future>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"
#include "fresh_process.h"
#include "manager_natives.h"
#include "pintrack_support.h"
#include "record_locks.h"

namespace nimbra::test {
namespace {

using natives::handle;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr const char* kLockText = "pthread_mutex_lock() failed";
constexpr const char* kUnlockText = "pthread_mutex_unlock() failed";
constexpr const char* kFreeLockText = "Lock already released.";
constexpr const char* kForeignLockText = "Releasing thread is not the owner of the lock.";

class OverflowNatives : public PagingTest {
 protected:
  void SetUp() override {
    PagingTest::SetUp();
    value = insertInto(5, "key", "the value");
    ASSERT_NE(value, nullptr);
    node = nodeOf(value);
    record = handle(value);
    set = setOf("key");
  }

  // The exception that an operation has left.
  std::string thrown() {
    const std::optional<Thrown> found = jni.takePending();
    return found.has_value() ? found->message : std::string();
  }
  jlong usable() { return static_cast<jlong>(sizeofByteBufferHeader(value->value)); }
  bool setIsFree() { return isFree(&set->mutex); }

  LuOffHeapValue* value = nullptr;
  overflow_metadata* node = nullptr;
  jlong record = 0;
  BucketSet* set = nullptr;
};

// ---- State -------------------------------------------------------------------------------

class OverflowState : public OverflowNatives {};

TEST_F(OverflowState, FreshEntryShowsItsSixElements) {
  const auto size = static_cast<jint>(getSize_LuValue(env, value));
  EXPECT_THAT(stateOf(value), ElementsAre(size, 0x0005, 7, 9, static_cast<jint>(usable()), 0));
  expectFree(value);
}

TEST_F(OverflowState, LastElementIsTheLowWordOfTheChainLink) {
  deleteMap(map);
  map = makeMap(1, 100.0F);  // one chain
  LuOffHeapValue* first = insert("Aa", "1");
  LuOffHeapValue* second = insert("BB", "2");
  LuOffHeapValue* linked = first->hashNext != nullptr ? first : second;
  ASSERT_NE(linked->hashNext, nullptr);
  EXPECT_EQ(stateOf(linked).at(5), static_cast<jint>(handle(linked->hashNext)));
}

TEST_F(OverflowState, SizesStayWhenTheValueLeavesMemory) {
  const std::vector<jint> before = stateOf(value);
  pageOutValue(value);
  std::vector<jint> after = before;
  after[1] = 0x0204;
  EXPECT_EQ(stateOf(value), after);
  pageInValue(value, "the value");
  after[1] = 0x0205;
  EXPECT_EQ(stateOf(value), after);
}

TEST_F(OverflowState, NoEntryIsAnsweredWithNull) {
  setLevels(kDebugLevel | kEntryLevel);
  EXPECT_EQ(natives::getOverflowState(env, nullptr, 0), nullptr);
  EXPECT_THAT(jni.lines(), ElementsAre(EndsWith(":getOverflowState, address=(nil)"),
                                       EndsWith(":luValue=(nil) NULL! Bailing out.")));
  EXPECT_EQ(jni.pending(), std::nullopt);
}

TEST_F(OverflowState, IsTraced) {
  setLevels(kDebugLevel | kEntryLevel);
  stateOf(value);
  EXPECT_THAT(jni.lines().front(),
              ::testing::AllOf(::testing::StartsWith("entry|"),
                               EndsWith(":getOverflowState, address=" + printed(value))));
  EXPECT_THAT(jni.lines().back(),
              ::testing::AllOf(::testing::StartsWith("exit|"), EndsWith(":getOverflowState")));
  EXPECT_EQ(recordsEnding(":luValue=" + printed(value) + " luValue->key=" + printed(value->key) +
                          " luValue->value=" + printed(value->value) +
                          " luValue->flags=5 luValue->value_size=" +
                          std::to_string(value->valueLength) + " metadata->flags=5"),
            1);
}

TEST_F(OverflowState, LockFailureIsAnsweredWithNull) {
  const FailThisLock failure(&node->mutex, LockOp::lock);
  EXPECT_EQ(natives::getOverflowState(env, nullptr, record), nullptr);
  EXPECT_THAT(thrown(), HasSubstr(kLockText));
}

TEST_F(OverflowState, UnlockFailureIsAnsweredWithNull) {
  {
    const FailLock failure(LockRank::node, LockOp::lock, 2);
    EXPECT_EQ(natives::getOverflowState(env, nullptr, record), nullptr);
    EXPECT_TRUE(failure.fired());
  }
  EXPECT_THAT(thrown(), HasSubstr(kLockText));
  EXPECT_EQ(holdCount(node), 1U);
  EXPECT_TRUE(overflow_metadata_unlock(env, "test", node));
}

TEST_F(OverflowState, WaitsForTheHolderOfTheNode) {
  HeldByAnother holder(node);
  std::promise<std::vector<jint>> seen;
  std::thread reader([&] {
    OverflowThread thread;
    seen.set_value(thread.jni.intsOf(
        thread.jni.adopt(natives::getOverflowState(thread.env, nullptr, record))));
  });
  std::future<std::vector<jint>> state = seen.get_future();
  EXPECT_EQ(state.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  holder.release();
  EXPECT_EQ(state.get().at(1), 0x0005);
  reader.join();
}

// ---- Chunks ------------------------------------------------------------------------------

class ChunkNatives : public OverflowNatives {};

TEST_F(ChunkNatives, ValueInMemoryHasOnlyItsLength) {
  natives::setChunkPtrOffset(env, nullptr, record, 11);
  natives::setNextChunkPtrOffset(env, nullptr, record, 13);
  EXPECT_THAT(chunkOf(value), ElementsAre(0, 0, 0, usable()));
  expectFree(value);
}

TEST_F(ChunkNatives, ValueOnDiskShowsItsPlace) {
  const jlong length = usable();
  pageOutValue(value, {LLONG_MAX, -5, LLONG_MIN});
  EXPECT_THAT(chunkOf(value), ElementsAre(LLONG_MAX, -5, LLONG_MIN, length))
      << "the size keeps its sign";
  pageInValue(value, "the value");
  EXPECT_THAT(chunkOf(value), ElementsAre(LLONG_MAX, -5, LLONG_MIN, length))
      << "the copy on disk stays";
}

TEST_F(ChunkNatives, PlaceIsTraced) {
  setLevels(kEntryLevel);
  pageOutValue(value, {4, 5, 6});
  jni.clearRecords();
  chunkOf(value);
  EXPECT_EQ(recordsEnding(":luOffHeapValueAddress = " + printed(value)), 1);
  EXPECT_EQ(
      recordsEnding(":exit with return values 4, 5, 6, " + std::to_string(value->valueLength)), 1);
}

TEST_F(ChunkNatives, LockFailureIsAnsweredWithNull) {
  const FailThisLock failure(&node->mutex, LockOp::lock);
  EXPECT_EQ(natives::getChunkPtrAndSize(env, nullptr, record), nullptr);
  EXPECT_THAT(thrown(), HasSubstr(kLockText));
}

TEST_F(ChunkNatives, UnlockFailureIsAnsweredWithNull) {
  {
    const FailLock failure(LockRank::node, LockOp::lock, 2);
    EXPECT_EQ(natives::getChunkPtrAndSize(env, nullptr, record), nullptr);
  }
  EXPECT_THAT(thrown(), HasSubstr(kLockText));
  EXPECT_TRUE(overflow_metadata_unlock(env, "test", node));
}

TEST_F(ChunkNatives, SettersAnswerTheNodeAndTakeNoLock) {
  const RecordLocks locks;
  EXPECT_EQ(natives::setChunkPtrOffset(env, nullptr, record, LLONG_MAX), handle(node));
  EXPECT_EQ(natives::setNextChunkPtrOffset(env, nullptr, record, LLONG_MIN), handle(node));
  EXPECT_EQ(node->chunkPtrOffset, LLONG_MAX);
  EXPECT_EQ(node->nextChunkPtrOffset, LLONG_MIN);
  EXPECT_EQ(node->chunkSize, 0);
  EXPECT_THAT(locks.operations(), IsEmpty());
}

// ---- Out of memory, and back -------------------------------------------------------------

class PageOut : public OverflowNatives {};

TEST_F(PageOut, DropsTheBufferAndKeepsEveryFigure) {
  const jlong size = natives::getSize(env, nullptr, record);
  const jlong bytes = bytesUsed();
  const uint64_t length = value->valueLength;
  const auto buffer = static_cast<jlong>(sizeofByteBufferHeader(value->value));
  const Books before = Books::now();
  manager_natives::setInternalTracking(env, manager, JNI_TRUE);
  allocatingOffHeapSize = 100'000;
  pageOutValue(value, {4096, 77, 8192});
  EXPECT_EQ(allocatingOffHeapSize, 100'000 - buffer);
  EXPECT_EQ(Books::now(), (Books{before.blocks - 1, before.metadata}));
  EXPECT_EQ(value->value, nullptr);
  EXPECT_EQ(value->flags, clientDirty);
  EXPECT_EQ(value->valueLength, length);
  EXPECT_EQ(node->flags, on_disk | recently_used);
  EXPECT_EQ(node->chunkPtrOffset, 4096);
  EXPECT_EQ(node->chunkSize, 77);
  EXPECT_EQ(node->nextChunkPtrOffset, 8192);
  EXPECT_EQ(natives::getSize(env, nullptr, record), size);
  EXPECT_EQ(bytesUsed(), bytes);
  EXPECT_EQ(sumOfSizes(), bytes);
  EXPECT_EQ(natives::isValueInMemory(env, nullptr, record), 0);
  EXPECT_THAT(checkList(5), ElementsAre(node));
  EXPECT_THAT(calls.deleting, IsEmpty());
  EXPECT_THAT(calls.updating, IsEmpty());
  expectFree(value);
  manager_natives::setInternalTracking(env, manager, JNI_FALSE);
}

TEST_F(PageOut, KeepsOtherFlags) {
  value->flags |= hashCodeGiven;
  changeFlags(value, PREVENT_EVICT, recently_used);
  pageOutValue(value);
  EXPECT_EQ(value->flags, clientDirty | hashCodeGiven);
  EXPECT_EQ(node->flags, on_disk | PREVENT_EVICT);
}

TEST_F(PageOut, BufferThatJavaPinsSurvives) {
  ByteBufferHeader* held = value->value;
  pin(env, held, JNI_GET_PIN);
  pageOutValue(value);
  EXPECT_EQ(value->value, nullptr);
  EXPECT_EQ(held->pins, 1);
  EXPECT_EQ(bytesOf(held), "the value");
  EXPECT_EQ(unpinToFree(env, held, JNI_GET_PIN), 0);
}

TEST_F(PageOut, TakesNoLock) {
  const RecordLocks locks;
  EXPECT_EQ(natives::evictedToDisk(env, nullptr, record, 1, 2, 3), record);
  EXPECT_THAT(locks.operations(), IsEmpty());
}

TEST_F(PageOut, IsTraced) {
  setLevels(kDebugLevel | kEventLevel);
  const std::string before = std::to_string(getCurrentSize(env));
  const uint64_t size = sizeofByteBufferHeader(value->value);
  natives::evictedToDisk(env, nullptr, record, 1, 2, 3);
  const std::vector<std::string> lines = jni.lines();
  ASSERT_GE(lines.size(), 4U);
  EXPECT_THAT(lines[0], ::testing::StartsWith("event|"));
  EXPECT_THAT(lines[0], EndsWith(":nof-evict. luValue=" + printed(value) +
                                 " luValue->flags=0x5 offheapSizeBeforeEvict=" + before));
  EXPECT_THAT(lines[1], HasSubstr(":Usage before eviction: "));
  EXPECT_THAT(lines[2], EndsWith(":old_metadata = " + printed(node)));
  EXPECT_THAT(lines.back(),
              EndsWith(":nof-evict completed. luValue=" + printed(value) +
                       " luValue->value=(nil) prevValue_size=" + std::to_string(size) +
                       " prevValue_dataSize=9 luValue->flags=0x1 metadata->flags=0x204 "
                       "chunkptr_offset=1 chunkptr_size=2 chunkptr_next=3"));
}

TEST_F(PageOut, EventIsAlsoSentAtEntryLevel) {
  setLevels(kEntryLevel | kEventLevel);
  natives::evictedToDisk(env, nullptr, record, 1, 2, 3);
  ASSERT_FALSE(jni.lines().empty());
  EXPECT_THAT(jni.lines().front(), HasSubstr(":nof-evict. luValue="));
}

class PageIn : public PinTracking<OverflowNatives> {
 protected:
  // Brings the value back while pin tracking is on, and answers the reasons of its buffer's pins.
  std::vector<std::string> pinsOfPageIn(jint levels) {
    pageOutValue(value);
    setLevels(levels | kPinTrackLevel);
    ByteBufferHeader* read = buffer("the value");
    const jobject javaRead = javaBuffer(read);
    // The address may have been another buffer's before.
    const int earlier = recordOf(read) == nullptr ? 0 : recordOf(read)->eventCount;
    natives::valueToLuOffHeapValue(env, nullptr, javaRead, record);
    setLevels(0);
    EXPECT_EQ(value->value, read);
    EXPECT_EQ(read->pins, 1);
    std::vector<std::string> reasons;
    const PinTracker* tracked = recordOf(read);
    EXPECT_NE(tracked, nullptr);
    for (int at = earlier; tracked != nullptr && at < tracked->eventCount; ++at) {
      reasons.push_back((tracked->events[at]->isPin ? "+" : "-") +
                        std::string(tracked->events[at]->reason));
    }
    return reasons;
  }
};

TEST_F(PageIn, GivesTheBufferBack) {
  const jlong bytes = bytesUsed();
  const jlong size = natives::getSize(env, nullptr, record);
  pageOutValue(value, {4096, 77, 8192});
  changeFlags(value, 0, recently_used);
  pageInValue(value, "the value");
  ASSERT_NE(value->value, nullptr);
  EXPECT_EQ(bytesOf(value->value), "the value");
  EXPECT_EQ(value->value->pins, 1);
  EXPECT_EQ(value->flags, clientDirty | HAS_VALUE);
  EXPECT_EQ(node->flags, in_memory | recently_used | on_disk);
  EXPECT_EQ(node->chunkPtrOffset, 4096);
  EXPECT_EQ(node->chunkSize, 77);
  EXPECT_EQ(node->nextChunkPtrOffset, 8192);
  EXPECT_EQ(natives::getSize(env, nullptr, record), size);
  EXPECT_EQ(bytesUsed(), bytes);
  EXPECT_EQ(natives::isValueInMemory(env, nullptr, record), 1);
  EXPECT_EQ(contentsOf(map), (Rows{{"key", {"the value", 0, 1}}}));
  checkMap(env, map);
}

TEST_F(PageIn, RoundTripsLeaveNothingBehind) {
  const Books before = Books::now();
  for (int i = 0; i < 5; ++i) {
    pageOutValue(value, {i, i, i});
    pageInValue(value, "the value");
  }
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(node->chunkPtrOffset, 4);
  checkMap(env, map);
}

TEST_F(PageIn, PinReasonDependsOnTheTraceLevel) {
  EXPECT_THAT(pinsOfPageIn(0), IsEmpty()) << "the allocation's pin stays";
  EXPECT_THAT(pinsOfPageIn(kEntryLevel | kInfoLevel | kErrorLevel), IsEmpty());
  EXPECT_THAT(pinsOfPageIn(kEventLevel),
              ElementsAre("+LUOFFHEAPMAPVALUE_VALUE_PIN", "-ALLOCATION_PIN"));
  EXPECT_THAT(pinsOfPageIn(kDebugLevel),
              ElementsAre("+LUOFFHEAPMAPVALUE_VALUE_PIN", "-ALLOCATION_PIN"));
}

TEST_F(PageIn, BufferWithoutAHeaderIsRefused) {
  pageOutValue(value);
  // A data address that steps back to null.
  const jobject nowhere = jni.newDirectBuffer(reinterpret_cast<void*>(kBufferDataOffset), 1);
  natives::valueToLuOffHeapValue(env, nullptr, nowhere, record);
  EXPECT_THAT(thrown(), HasSubstr("Error from GetDirectBufferAddress (returned NULL)"));
  EXPECT_EQ(value->value, nullptr);
  EXPECT_EQ(value->flags, clientDirty);
  EXPECT_EQ(node->flags, on_disk | recently_used);
}

TEST_F(PageIn, TakesNoLock) {
  pageOutValue(value);
  const jobject read = javaBuffer(buffer("the value"));
  const RecordLocks locks;
  natives::valueToLuOffHeapValue(env, nullptr, read, record);
  EXPECT_THAT(locks.operations(), IsEmpty());
}

TEST_F(PageIn, IsTraced) {
  pageOutValue(value);
  setLevels(kDebugLevel);
  natives::valueToLuOffHeapValue(env, nullptr, javaBuffer(buffer("the value")), record);
  EXPECT_EQ(recordsEnding(":Paged-in luValue=" + printed(value) + " luValue->key=" +
                          printed(value->key) + " luValue->value=" + printed(value->value) +
                          " luValue->flags=0x5 metadata->flags=0x205"),
            1);
}

// ---- Locks that do not wait --------------------------------------------------------------

class LockValid : public OverflowNatives {
 protected:
  std::vector<jlong> tryLock() {
    return jni.longsOf(jni.adopt(natives::lockValidAndGetChunkPtr(env, nullptr, record)));
  }
};

TEST_F(LockValid, HoldsBothAndShowsTheChunk) {
  pageOutValue(value, {LLONG_MIN, -7, LLONG_MAX});
  EXPECT_THAT(tryLock(), ElementsAre(1, LLONG_MIN, -7, LLONG_MAX));
  EXPECT_EQ(holdCount(node), 1U);
  EXPECT_FALSE(setIsFree());
  EXPECT_EQ(natives::unlockBucketSetAndMetadata(env, nullptr, record), 0);
  expectFree(value);
}

TEST_F(LockValid, OwnerEntersAgain) {
  EXPECT_TRUE(overflow_metadata_lock(env, "test", node));
  EXPECT_EQ(tryLock().at(0), 1);
  EXPECT_EQ(holdCount(node), 2U);
  EXPECT_EQ(natives::unlockBucketSetAndMetadata(env, nullptr, record), 0);
  EXPECT_EQ(natives::unlockMetadata(env, nullptr, record), JNI_TRUE);
  expectFree(value);
}

TEST_F(LockValid, BusyNode) {
  setLevels(kDebugLevel);
  {
    const HeldByAnother holder(node);
    EXPECT_EQ(tryLock().at(0), 0);
    EXPECT_TRUE(setIsFree());
    EXPECT_EQ(depthOf(node), 1);
  }
  EXPECT_EQ(recordsEnding(":Couldn't get metadata lock on " + printed(node)) +
                recordsEnding(":Couldn't get metadata lock on " + printed(value)),
            1);
  expectFree(value);
}

TEST_F(LockValid, InvalidNodeIsLetGo) {
  changeFlags(value, is_invalid);
  setLevels(kDebugLevel | kErrorLevel);
  EXPECT_EQ(tryLock().at(0), 0);
  EXPECT_EQ(recordsEnding(":metadata marked INVALID: " + printed(node)), 1);
  expectFree(value);
  EXPECT_EQ(jni.pending(), std::nullopt);
  setLevels(0);
  changeFlags(value, 0, is_invalid);
}

TEST_F(LockValid, FailedUnlockOfAnInvalidNodeIsSwallowed) {
  changeFlags(value, is_invalid);
  for (const jint levels : {kErrorLevel | kDebugLevel, kDebugLevel}) {
    setLevels(levels);
    {
      const FailLock failure(LockRank::node, LockOp::lock, 1);
      EXPECT_EQ(tryLock().at(0), 0);
      EXPECT_TRUE(failure.fired());
    }
    EXPECT_EQ(jni.pending(), std::nullopt);
    const int expected = (levels & kErrorLevel) != 0 ? 1 : 0;
    const std::vector<std::string> lines = jni.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         std::string("errorGeneric|OVERFLOW_GENERIC_ERROR_KTZAR7931|") +
                             "failed to unlock INVALID metadata during compaction"),
              expected);
    EXPECT_EQ(recordsEnding(":metadata marked INVALID: " + printed(node)), 1);
    setLevels(0);
    EXPECT_TRUE(overflow_metadata_unlock(env, "test", node));
    expectFree(value);
  }
  changeFlags(value, 0, is_invalid);
}

TEST_F(LockValid, BusyBucketSetLetsTheNodeGo) {
  setLevels(kDebugLevel);
  {
    const SetHeldByAnother holder(set);
    EXPECT_EQ(tryLock().at(0), 0);
    EXPECT_EQ(depthOf(node), 0);
  }
  int found = 0;
  for (const std::string& line : jni.lines()) {
    found += line.find(":Couldn't get buckset lock on 0x") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(found, 1);
  expectFree(value);
}

TEST_F(LockValid, FailedUnlockBehindABusyBucketSetIsSwallowed) {
  setLevels(kErrorLevel);
  {
    const SetHeldByAnother holder(set);
    const FailLock failure(LockRank::node, LockOp::lock, 1);
    EXPECT_EQ(tryLock().at(0), 0);
    EXPECT_TRUE(failure.fired());
  }
  EXPECT_EQ(jni.pending(), std::nullopt);
  EXPECT_THAT(jni.lines(),
              Contains("errorGeneric|OVERFLOW_GENERIC_ERROR_KTZAR7931|failed to unlock valid node "
                       "after a BucketSet trylock failure"));
  EXPECT_TRUE(overflow_metadata_unlock(env, "test", node));
  expectFree(value);
}

// ---- Locks that wait ---------------------------------------------------------------------

class LockPair : public OverflowNatives {
 protected:
  jlong lockBoth() { return natives::lockBucketSetAndMetadata(env, nullptr, record); }
  jint unlockBoth() { return natives::unlockBucketSetAndMetadata(env, nullptr, record); }

  // Takes the pair while another thread has the bucket set, from a thread that holds the node so
  // often; the set is given free when the node has been let go. Answers the depth at the end.
  uint32_t depthBehindABusySet(int depth) {
    for (int i = 0; i < depth; ++i) EXPECT_TRUE(overflow_metadata_lock(env, "test", node));
    SetHeldByAnother holder(set);
    std::thread watcher([&] {
      // The waiting thread lets the node go altogether, so that others get on meanwhile.
      OverflowThread other;
      EXPECT_TRUE(overflow_metadata_lock(other.env, "watcher", node));
      EXPECT_TRUE(overflow_metadata_unlock(other.env, "watcher", node));
      holder.release();
    });
    EXPECT_EQ(lockBoth(), handle(node));
    watcher.join();
    EXPECT_TRUE(holdsLock(&set->mutex));
    return holdCount(node);
  }
};

TEST_F(LockPair, TakesBothWhenFree) {
  EXPECT_EQ(lockBoth(), 0);
  EXPECT_EQ(holdCount(node), 1U);
  EXPECT_TRUE(holdsLock(&set->mutex));
  EXPECT_EQ(unlockBoth(), 0);
  expectFree(value);
}

TEST_F(LockPair, OwnerOfTheNodeEntersAgain) {
  EXPECT_TRUE(overflow_metadata_lock(env, "test", node));
  EXPECT_EQ(lockBoth(), 0);
  EXPECT_EQ(holdCount(node), 2U);
  EXPECT_EQ(unlockBoth(), 0);
  EXPECT_EQ(natives::unlockMetadata(env, nullptr, record), JNI_TRUE);
  expectFree(value);
}

TEST_F(LockPair, WaitsForTheNodeWithoutTheBucketSet) {
  HeldByAnother holder(node, 2);
  std::promise<void> taken;
  std::thread waiting([&] {
    OverflowThread thread;
    EXPECT_EQ(natives::lockBucketSetAndMetadata(thread.env, nullptr, record), 0);
    EXPECT_EQ(natives::unlockBucketSetAndMetadata(thread.env, nullptr, record), 0);
    taken.set_value();
  });
  std::future<void> done = taken.get_future();
  EXPECT_EQ(done.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  EXPECT_TRUE(setIsFree());
  holder.release();
  done.get();
  waiting.join();
  expectFree(value);
}

TEST_F(LockPair, BusyBucketSetIsWaitedForWithoutTheNode) {
  setLevels(kDebugLevel);
  EXPECT_EQ(depthBehindABusySet(0), 1U);
  EXPECT_THAT(jni.lines(), Contains(HasSubstr(":updating metadata=" + printed(node) +
                                              " old_lock_depth=1 new_lock_depth=")));
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("(from lockBucket after trylock failure) locked=" +
                                              printed(node))));
  EXPECT_EQ(unlockBoth(), 0);
  expectFree(value);
}

TEST_F(LockPair, DepthIsRestoredBehindABusyBucketSet) {
  // Held once, the pair adds its own level; each level is let go by whoever took it.
  EXPECT_EQ(depthBehindABusySet(1), 2U);
  EXPECT_EQ(unlockBoth(), 0);
  EXPECT_EQ(holdCount(node), 1U);
  EXPECT_EQ(natives::unlockMetadata(env, nullptr, record), JNI_TRUE);
  expectFree(value);

  EXPECT_EQ(depthBehindABusySet(2), 3U);
  EXPECT_EQ(unlockBoth(), 0);
  EXPECT_EQ(holdCount(node), 2U);
  EXPECT_EQ(natives::unlockMetadata(env, nullptr, record), JNI_TRUE);
  EXPECT_EQ(natives::unlockMetadata(env, nullptr, record), JNI_TRUE);
  expectFree(value);
}

TEST_F(LockPair, FailedNodeLockHoldsNothing) {
  {
    const FailThisLock failure(&node->mutex, LockOp::lock);
    EXPECT_EQ(lockBoth(), 1);
  }
  EXPECT_THAT(thrown(), HasSubstr(kLockText));
  expectFree(value);
}

TEST_F(LockPair, FailedBucketSetIsReportedWithTheNodeLetGo) {
  setLevels(kErrorLevel);
  {
    const SetHeldByAnother holder(set);
    const FailThisLock failure(&set->mutex, LockOp::lock);
    EXPECT_EQ(lockBoth(), 1);
    EXPECT_EQ(failure.fired(), 1);
  }
  EXPECT_THAT(
      jni.lines(),
      Contains("errorGeneric|OFFHEAP_GENERIC_LOCK_ERROR_KTZAR7928|Error acquiring BucketSet "
               "[of1] lock in Nimbra library."));
  jni.clearPending();
  expectFree(value);
}

TEST_F(LockPair, EachFailureOfTheNodeBehindABusyBucketSetLeavesTheSetFree) {
  jlong answer = 1;
  int nth = 1;
  for (; answer == 1; ++nth) {
    SCOPED_TRACE("node lock " + std::to_string(nth));
    ASSERT_LT(nth, 12);
    EXPECT_TRUE(overflow_metadata_lock(env, "test", node));
    SetHeldByAnother holder(set);
    std::atomic<bool> returned{false};
    std::thread watcher([&] {
      while (depthOf(node) != 0 && !returned) std::this_thread::yield();
      holder.release();
    });
    {
      const FailLock failure(LockRank::node, LockOp::lock, nth);
      answer = lockBoth();
      returned = true;
      watcher.join();  // here, since the holder's unlock asks for the failure, too
    }
    EXPECT_EQ(jni.takePending().has_value(), answer == 1);
    if (answer != 1) {
      EXPECT_EQ(answer, handle(node));
      EXPECT_EQ(unlockBoth(), 0);
    }
    EXPECT_EQ(heldLockCount(), 0) << "Java is told of a failure and lets nothing go";
    if (holdsLock(&set->mutex)) unlockBucketSet(set);
    while (holdCount(node) > 0) EXPECT_TRUE(overflow_metadata_unlock(env, "test", node));
    expectFree(value);
  }
  EXPECT_GE(nth, 6) << "lock, two levels let go, lock again";
}

TEST_F(LockPair, UnlockOfANodeThatIsNotHeldKeepsTheBucketSet) {
  EXPECT_EQ(lockBucketSet(set), 0);
  EXPECT_EQ(unlockBoth(), 1);
  EXPECT_THAT(thrown(), HasSubstr(kFreeLockText));
  EXPECT_TRUE(holdsLock(&set->mutex));
  EXPECT_EQ(unlockBucketSet(set), 0);
}

TEST_F(LockPair, UnlockAnswersTheCodeOfTheBucketSet) {
  EXPECT_EQ(lockBoth(), 0);
  {
    const FailThisLock failure(&set->mutex, LockOp::unlock, EPERM);
    EXPECT_EQ(unlockBoth(), EPERM);
  }
  EXPECT_EQ(depthOf(node), 0);
  EXPECT_EQ(jni.pending(), std::nullopt);
  EXPECT_EQ(unlockBucketSet(set), 0);
}

TEST_F(LockPair, UnlockMetadataReleasesOneLevel) {
  EXPECT_TRUE(overflow_metadata_lock(env, "test", node));
  EXPECT_TRUE(overflow_metadata_lock(env, "test", node));
  EXPECT_EQ(natives::unlockMetadata(env, nullptr, record), JNI_TRUE);
  EXPECT_EQ(holdCount(node), 1U);
  EXPECT_EQ(natives::unlockMetadata(env, nullptr, record), JNI_TRUE);
  EXPECT_EQ(natives::unlockMetadata(env, nullptr, record), JNI_FALSE);
  EXPECT_THAT(thrown(), HasSubstr(kFreeLockText));
  const HeldByAnother holder(node);
  EXPECT_EQ(natives::unlockMetadata(env, nullptr, record), JNI_FALSE);
  EXPECT_THAT(thrown(), HasSubstr(kForeignLockText));
  EXPECT_EQ(depthOf(node), 1);
}

TEST_F(LockPair, FailedSystemUnlockIsReported) {
  EXPECT_TRUE(overflow_metadata_lock(env, "test", node));
  {
    FailNthLock failure(2);
    EXPECT_EQ(natives::unlockMetadata(env, nullptr, record), JNI_FALSE);
    EXPECT_TRUE(failure.fired());
    failure.release();
  }
  EXPECT_FALSE(thrown().empty());
  while (holdCount(node) > 0) EXPECT_TRUE(overflow_metadata_unlock(env, "test", node));
}

// ---- Diagnosis ---------------------------------------------------------------------------

class OverflowUtils : public OverflowNatives {};

TEST_F(OverflowUtils, ThreadIsPrintedAtDebugLevelOnly) {
  natives::printPthreadID(env, nullptr);
  EXPECT_THAT(jni.lines(), IsEmpty());
  setLevels(kAllLevels & ~kDebugLevel);
  natives::printPthreadID(env, nullptr);
  EXPECT_THAT(jni.lines(), IsEmpty());
  setLevels(kDebugLevel);
  natives::printPthreadID(env, nullptr);
  EXPECT_THAT(jni.lines(), ElementsAre(EndsWith(":pthread_self() = " +
                                                std::to_string(static_cast<int>(pthread_self())))));
}

// A profile lives as long as the process and counts every run in it.
class EvictProfileDeathTest : public OverflowNatives {
 protected:
  static constexpr int kPositions = 500;
  static constexpr int kRunsUntilReady = kPositions - 5;

  std::vector<std::string> report() {
    jni.clearRecords();
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_printProfileStats(env, manager);
    return jni.lines();
  }
  void roundTrip() {
    pageOutValue(value);
    pageInValue(value, "the value");
  }
  static void waitAWhile() {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(40);
    while (std::chrono::steady_clock::now() < until) std::this_thread::yield();
  }
};

TEST_F(EvictProfileDeathTest, IsMadeByTheFirstPageOutUnderTheFlag) {
  inFreshProcess([this] {
    setLevels(kInfoLevel);
    roundTrip();
    EXPECT_THAT(report(), Not(Contains(HasSubstr("evictToDisk"))));
    setLevels(kInfoLevel | 0x400);
    roundTrip();
    EXPECT_THAT(report(), Contains("info|Profile evictToDisk was skipped because it is not yet "
                                   "ready (up to about 5/500 samples)"));
  });
}

TEST_F(EvictProfileDeathTest, SamplesTheFirstAndTheLastPhaseBehindSevenLabels) {
  inFreshProcess([this] {
    setLevels(kInfoLevel | kEventLevel | kDebugLevel | 0x400);
    // One slow run: a wait before the fields are set, and one before the end.
    jni.onRecord([](const LogRecord& seen) {
      if (seen.text.find("nof-evict. ") != std::string::npos ||
          seen.text.find("nof-evict completed. ") != std::string::npos) {
        waitAWhile();
      }
    });
    roundTrip();
    jni.onRecord(nullptr);
    setLevels(kInfoLevel | 0x400);
    for (int run = 1; run < kRunsUntilReady; ++run) roundTrip();
    std::string line;
    for (const std::string& each : report()) {
      if (each.starts_with("info|Profile evictToDisk ")) line = each;
    }
    std::smatch found;
    ASSERT_TRUE(
        std::regex_match(line, found,
                         std::regex("info\\|Profile evictToDisk allocAndInit:[0-9]+\\(([0-9]+)\\)"
                                    "  lockAndSetFields:[0-9]+\\(([0-9]+)\\)"
                                    " updateAndPinMapEntry:[0-9]+\\(([0-9]+)\\)"
                                    " pointerSwizzle:[0-9]+\\(([0-9]+)\\)"
                                    " cacheiter_replace_metadata:[0-9]+\\(([0-9]+)\\)"
                                    " updateRevisionQueue:[0-9]+\\(([0-9]+)\\)"
                                    " unpinAndReturn:[0-9]+\\(([0-9]+)\\)")))
        << line;
    // 40 ms in one of 500 positions, and twice that at the end.
    EXPECT_GE(std::stoull(found[2]), 80'000U);
    EXPECT_GE(std::stoull(found[7]), 160'000U);
    for (const std::size_t unused : {1, 3, 4, 5, 6}) EXPECT_EQ(found[unused], "0") << unused;
  });
}

}  // namespace
}  // namespace nimbra::test
