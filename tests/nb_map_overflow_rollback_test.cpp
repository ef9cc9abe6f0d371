// Map operations with disk overflow that fail on the way: each allocation refused, and each lock
// operation failing, one at a time.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "overflow_natives.h"

namespace nimbra::test {
namespace {

using natives::handle;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class OverflowRollback : public PagingTest {
 protected:
  void SetUp() override {
    PagingTest::SetUp();
    previousHandler = lockViolationHandler;
    deleteMap(map);
    map = makeMap(1, 100.0F);  // the table has no need to grow
    ASSERT_NE(map, nullptr);
  }

  // An insert by key buffer whose buffers stay the test's.
  struct Buffers {
    ByteBufferHeader* key;
    ByteBufferHeader* value;
    jobject javaKey;
  };
  Buffers buffers(const char* key, const char* value) {
    ByteBufferHeader* keyBuffer = buffer(key);
    return {keyBuffer, buffer(value), javaBuffer(keyBuffer)};
  }
  LuOffHeapValue* insertWith(const Buffers& of) {
    return insertAndPin(env, caller, map, &of.javaKey, OBJECT_TYPE_JBYTE_BUFFER, of.key,
                        hashFn(of.key), false, of.value, 0, 1);
  }
  LuOffHeapValue* updateWith(const Buffers& of) {
    return updateAndPin(env, caller, map, &of.javaKey, OBJECT_TYPE_JBYTE_BUFFER, of.key,
                        hashFn(of.key), false, of.value, 0, 7);
  }
  void dropBuffers(const Buffers& of) {
    drop(of.key);
    drop(of.value);
  }
  std::string thrown() {
    const std::optional<Thrown> found = jni.takePending();
    return found.has_value() ? found->message : std::string();
  }
  // A node whose release failed is still held; gives it back.
  void letHeadersGo() {
    for (int list = 0; list < kOverflowLists; ++list) {
      while (holdCount(headerOf(list)) > 0) {
        EXPECT_TRUE(overflow_metadata_unlock(env, "test", headerOf(list)));
      }
    }
  }
  // Nothing of a failed insert is left: no entry, no node, no block, no word to Java.
  void expectNothingLeft(const Books& before) {
    EXPECT_EQ(Books::now(), before);
    EXPECT_THAT(checkLists(), IsEmpty());
    EXPECT_THAT(entriesOf(map), IsEmpty());
    EXPECT_EQ(bytesUsed(), 0);
    EXPECT_EQ(map->revisionQueue[0]->count, 0U);
    checkMap(env, map);
  }

  void (*previousHandler)(const LockViolation&) = nullptr;
};

// What an operation takes. Failing unlocks are left out: the lock would stay held, and a loop that
// waits for it would not end.
struct Taking {
  const char* name;
  LockRank rank;
  LockOp operation;
};
constexpr Taking kTakings[] = {
    {"map", LockRank::map, LockOp::writeLock},
    {"map for reading", LockRank::map, LockOp::readLock},
    {"bucket set", LockRank::bucketSet, LockOp::lock},
    {"queue", LockRank::queue, LockOp::lock},
    {"anchor", LockRank::anchor, LockOp::lock},
    {"node", LockRank::node, LockOp::lock},
    {"try of a node", LockRank::node, LockOp::tryLock},
};

// ---- Insert ------------------------------------------------------------------------------

class OverflowInsertRollback : public OverflowRollback {};

TEST_F(OverflowInsertRollback, NodeThatCannotBeInitialised) {
  for (const LockOp operation : {LockOp::attributesInit, LockOp::attributesType, LockOp::init,
                                 LockOp::conditionInit, LockOp::attributesDestroy}) {
    SCOPED_TRACE(static_cast<int>(operation));
    const Buffers of = buffers("key", "value");
    const Books before = Books::now();
    {
      const FailLock failure(LockRank::node, operation, 1);
      EXPECT_EQ(insertWith(of), nullptr);
      EXPECT_TRUE(failure.fired());
    }
    EXPECT_THAT(thrown(), AnyOf(HasSubstr("failed initialization of Nimbra overflow metadata"),
                                HasSubstr("pthread_")));
    expectNothingLeft(before);
    EXPECT_THAT(calls.deleting, IsEmpty());
    dropBuffers(of);
  }
}

TEST_F(OverflowInsertRollback, NodeWhoseFirstLockFails) {
  for (const int nth : {1, 2}) {
    const Buffers of = buffers("key", "value");
    const Books before = Books::now();
    {
      const FailLock failure(LockRank::node, LockOp::lock, nth);
      EXPECT_EQ(insertWith(of), nullptr);
    }
    EXPECT_FALSE(thrown().empty());
    expectNothingLeft(before);
    dropBuffers(of);
  }
}

TEST_F(OverflowInsertRollback, NodeThatCannotBeLinked) {
  const Buffers of = buffers("key", "value");
  nextList(3);
  const Books before = Books::now();
  lockViolationHandler = [](const LockViolation&) {};
  {
    // The try on the header ends with its inner mutex locked.
    const FailThisLock failure(&headerOf(3)->mutex, LockOp::unlock);
    EXPECT_EQ(underFailingLock([&] { return insertWith(of); }), nullptr);
    EXPECT_EQ(failure.fired(), 1);
  }
  lockViolationHandler = previousHandler;
  EXPECT_EQ(mutexUnlock(&headerOf(3)->mutex, LockRank::node), 0);
  // The earlier exception wins.
  EXPECT_THAT(thrown(), AnyOf(HasSubstr("failed to link to header"),
                              HasSubstr("pthread_mutex_unlock() failed for metadata=")));
  letHeadersGo();
  expectNothingLeft(before);
  dropBuffers(of);
}

TEST_F(OverflowInsertRollback, QueueThatCannotBeLocked) {
  const Buffers of = buffers("key", "value");
  const Books before = Books::now();
  setLevels(kErrorLevel);
  {
    const FailLock failure(LockRank::queue, LockOp::lock, 1);
    EXPECT_EQ(insertWith(of), nullptr);
    EXPECT_TRUE(failure.fired());
  }
  setLevels(0);
  EXPECT_THAT(thrown(), HasSubstr("Error acquiring internal queue lock"));
  expectNothingLeft(before);
  dropBuffers(of);
}

TEST_F(OverflowInsertRollback, EveryRefusedAllocation) {
  for (const auto way :
       {RefuseAllocation::Way::kNothingLeft, RefuseAllocation::Way::kOverMaximum}) {
    bool inserted = false;
    for (int nth = 1; !inserted; ++nth) {
      SCOPED_TRACE(nth);
      ASSERT_LT(nth, 10);
      const Buffers of = buffers("key", "value");
      const Books before = Books::now();
      const int64_t blocks = allocatingOffHeapBlocks;
      LuOffHeapValue* made = nullptr;
      bool fired = false;
      {
        const RefuseAllocation refusal(nth, way);
        made = insertWith(of);
        fired = refusal.fired();
      }
      const std::optional<Thrown> refused = jni.takePending();
      inserted = made != nullptr;
      if (inserted) {
        EXPECT_FALSE(refused.has_value());
        unpinValue(made, JNI_INSERTED_PIN);
        EXPECT_TRUE(remove("key"));
      } else {
        EXPECT_TRUE(fired);
        // A refusal by the limit comes behind the allocation: its count stays raised.
        const int64_t kept = way == RefuseAllocation::Way::kOverMaximum ? 1 : 0;
        EXPECT_EQ(allocatingOffHeapBlocks, blocks + kept);
        allocatingOffHeapBlocks -= kept;
        EXPECT_EQ(refused.has_value(), kept == 1);
        if (refused.has_value()) {
          EXPECT_EQ(refused->className, kNotEnoughResources);
        }
        expectNothingLeft(before);
      }
      dropBuffers(of);
    }
    EXPECT_THAT(checkLists(), IsEmpty());
  }
}

// Each lock that an insert takes fails once. Whatever it answers, no lock is left, and the map
// agrees with the answer.
TEST_F(OverflowInsertRollback, EveryLockThatFails) {
  for (const Taking& taking : kTakings) {
    bool fired = true;
    for (int nth = 1; fired; ++nth) {
      SCOPED_TRACE(std::string(taking.name) + " " + std::to_string(nth));
      ASSERT_LT(nth, 20);
      const Buffers of = buffers("key", "value");
      const Books before = Books::now();
      LuOffHeapValue* made = nullptr;
      LuOffHeapValue* allocated = nullptr;  // as its allocation traces it
      if (taking.rank == LockRank::map) {
        setLevels(kDebugLevel);
        jni.onRecord([&](const LogRecord& seen) {
          void* address = nullptr;
          if (std::sscanf(seen.text.c_str(), "JNI:allocateLuOffHeapMapValue:luValue=%p",
                          &address) == 1) {
            allocated = static_cast<LuOffHeapValue*>(address);
          }
        });
      }
      {
        const FailLock failure(taking.rank, taking.operation, nth);
        made = insertWith(of);
        fired = failure.fired();
      }
      jni.onRecord(nullptr);
      setLevels(0);
      const bool raised = jni.takePending().has_value();
      EXPECT_FALSE(made != nullptr && raised) << "an exception beside an answer";
      letHeadersGo();
      EXPECT_EQ(heldLockCount(), 0);
      LuOffHeapValue* present = find(map, "key");
      EXPECT_EQ(present, made) << "the map agrees with the answer";
      if (made != nullptr) {
        EXPECT_EQ(unpinValue(made, JNI_INSERTED_PIN), 3U);
        EXPECT_THAT(checkLists(), ::testing::ElementsAre(nodeOf(made)));
        checkMap(env, map);
        EXPECT_TRUE(remove("key"));
        expectNothingLeft(before);
      } else if (taking.rank == LockRank::map) {
        // Deliberate: without the map the new record stays as it is.
        EXPECT_EQ(Books::now().blocks, before.blocks + 1);
        EXPECT_THAT(checkLists(), IsEmpty());
        ASSERT_NE(allocated, nullptr);
        dropRecord(allocated);
        expectNothingLeft(before);
      } else {
        expectNothingLeft(before);
      }
      dropBuffers(of);
    }
  }
}

// ---- Update ------------------------------------------------------------------------------

class OverflowUpdateRollback : public OverflowRollback {
 protected:
  void SetUp() override {
    OverflowRollback::SetUp();
    entry = insertInto(3, "key", "first");
  }
  LuOffHeapValue* entry = nullptr;
};

TEST_F(OverflowUpdateRollback, NodeThatCannotBeLocked) {
  const Buffers of = buffers("key", "second");
  const Books before = Books::now();
  setLevels(kDebugLevel);
  {
    const FailThisLock failure(&nodeOf(entry)->mutex, LockOp::lock);
    EXPECT_EQ(updateWith(of), nullptr);
    EXPECT_EQ(failure.fired(), 1);
  }
  EXPECT_THAT(thrown(), HasSubstr("pthread_mutex_lock() failed"));
  setLevels(0);
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(bytesOf(entry->value), "first");
  EXPECT_EQ(entry->value->pins, 1);
  expectFree(entry);
  checkMap(env, map);
  dropBuffers(of);
}

TEST_F(OverflowUpdateRollback, NodeOfAnEntryOnDiskThatCannotBeLocked) {
  pageOutValue(entry, {1, 2, 3});
  const Buffers of = buffers("key", "second");
  const Books before = Books::now();
  {
    const FailThisLock failure(&nodeOf(entry)->mutex, LockOp::lock);
    EXPECT_EQ(updateWith(of), nullptr);
  }
  jni.clearPending();
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(nodeOf(entry)->flags, on_disk | recently_used);
  EXPECT_EQ(nodeOf(entry)->chunkSize, 2);
  EXPECT_EQ(bytesUsed(), sumOfSizes());
  EXPECT_THAT(calls.deleting, IsEmpty()) << "the snapshot had not taken the copy over";
  dropBuffers(of);
}

TEST_F(OverflowUpdateRollback, SnapshotThatIsRefused) {
  const Buffers of = buffers("key", "second");
  const Books before = Books::now();
  {
    const RefuseAllocation refusal(1);
    EXPECT_EQ(updateWith(of), nullptr);
    EXPECT_TRUE(refusal.fired());
  }
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(contentsOf(map), (Rows{{"key", {"first", 0, 1}}}));
  expectFree(entry);
  checkMap(env, map);
  dropBuffers(of);
}

TEST_F(OverflowUpdateRollback, SnapshotWhoseNodeCannotBeInitialised) {
  const Buffers of = buffers("key", "second");
  {
    const FailLock failure(LockRank::node, LockOp::init, 1);
    LuOffHeapValue* snapshot = updateWith(of);
    EXPECT_TRUE(failure.fired());
    if (snapshot != nullptr) {
      EXPECT_EQ(natives::unlockMetadata(env, nullptr, handle(entry)), JNI_TRUE);
      unpinValue(snapshot);
    }
  }
  jni.clearPending();
  while (holdCount(nodeOf(entry)) > 0) {
    EXPECT_TRUE(overflow_metadata_unlock(env, "test", nodeOf(entry)));
  }
  EXPECT_EQ(bytesUsed(), sumOfSizes());
  checkMap(env, map);
  dropBuffers(of);
}

TEST_F(OverflowUpdateRollback, EveryLockThatFails) {
  for (const bool paged : {false, true}) {
    for (const Taking& taking : kTakings) {
      bool fired = true;
      for (int nth = 1; fired; ++nth) {
        SCOPED_TRACE(std::string(paged ? "on disk: " : "") + taking.name + " " +
                     std::to_string(nth));
        ASSERT_LT(nth, 20);
        if (paged) pageOutValue(entry, {1, 2, 3});
        const Buffers of = buffers("key", "second");
        const Books before = Books::now();
        LuOffHeapValue* snapshot = nullptr;
        {
          const FailLock failure(taking.rank, taking.operation, nth);
          snapshot = updateWith(of);
          fired = failure.fired();
        }
        jni.clearPending();
        EXPECT_EQ(heldLockCount(), 0);
        EXPECT_EQ(bytesUsed(), sumOfSizes());
        if (snapshot != nullptr) {
          EXPECT_EQ(bytesOf(entry->value), "second");
          EXPECT_EQ(holdCount(nodeOf(entry)), 1U);
          EXPECT_EQ(natives::unlockMetadata(env, nullptr, handle(entry)), JNI_TRUE);
          unpinValue(snapshot);
          dropReverseMapPins();
        } else {
          EXPECT_TRUE(fired);
          EXPECT_EQ(Books::now(), before);
          EXPECT_EQ(isFlagSet(on_disk, nodeOf(entry)), paged);
          if (!paged) {
            EXPECT_EQ(bytesOf(entry->value), "first");
          }
          expectFree(entry);
        }
        EXPECT_EQ(checkLists(), std::vector<overflow_metadata*>{nodeOf(entry)});
        dropBuffers(of);
        clearMap(map);
        dropReverseMapPins();
        entry = insertInto(3, "key", "first");
      }
    }
  }
}

// ---- Remove ------------------------------------------------------------------------------

TEST_F(OverflowRollback, RemovalWithEachLockOperationOfItsNodeFailing) {
  bool fired = true;
  int nth = 1;
  for (; fired; ++nth) {
    ASSERT_LT(nth, 20);
    LuOffHeapValue* entry = insertInto(3, "key", "first");
    LuOffHeapValue* removed = nullptr;
    {
      const FailLock failure(LockRank::node, LockOp::lock, nth);
      removed = removePinned("key");
      fired = failure.fired();
    }
    SCOPED_TRACE(nth);
    jni.clearPending();
    EXPECT_EQ(removed, entry) << "the entry is out of the map by then";
    for (overflow_metadata* node : {nodeOf(entry), headerOf(3)}) {
      while (holdCount(node) > 0) EXPECT_TRUE(overflow_metadata_unlock(env, "test", node));
    }
    EXPECT_EQ(find(map, "key"), nullptr);
    // A node that is still linked leaves its list with the record.
    EXPECT_EQ(unpinValue(removed, JNI_REMOVED_PIN), 0U);
    EXPECT_THAT(checkLists(), IsEmpty());
    checkMap(env, map);
  }
  EXPECT_GT(nth, 3);
}

}  // namespace
}  // namespace nimbra::test
