// The map object: creation and deletion, its locks, its queues' locks, and the high-water figure.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class MapObject : public MapTest {
 protected:
  // The first address behind `label` in the records.
  void* tracedAddress(const std::string& label) {
    for (const LogRecord& record : jni.records()) {
      const std::size_t at = record.text.find(label);
      if (at == std::string::npos) continue;
      void* address = nullptr;
      if (std::sscanf(record.text.c_str() + at + label.size(), "%p", &address) == 1) {
        return address;
      }
    }
    return nullptr;
  }

  jlong makeHandle(jint ignored = 0) {
    return natives::allocateLuOffHeapMap(env, caller, ignored, 1, 0.75F, 7, 9);
  }

  int64_t maxSize() { return natives::maxSize(env, caller, natives::handle(map)); }

  // Queues for the owners 0 to `last`.
  void growQueues(uint16_t last) {
    ASSERT_EQ(wrlock(env, map), 0);
    EXPECT_NE(getQueue(env, map, last), nullptr);
    ASSERT_EQ(unlock(env, map), 0);
  }

  void expectEveryLockFree() {
    EXPECT_EQ(heldLockCount(), 0);
    EXPECT_TRUE(isFree(&map->lock));
    for (uint32_t i = 0; i < map->numQueues; ++i) {
      EXPECT_TRUE(isFree(&map->revisionQueue[i]->mutex)) << "queue " << i;
    }
  }
};

class MapCreation : public MapObject {};
class MapDeletion : public MapObject {};
class MapLock : public MapObject {};
class QueueAllocation : public MapObject {};
class AllLocks : public MapObject {};
class HighWater : public MapObject {};

// ---- Creation ----------------------------------------------------------------------------

TEST_F(MapCreation, ANewMapHasOneQueueAndNothingInIt) {
  EXPECT_EQ(map->numQueues, 1U);
  const LuOffHeapRevisionOrderQueue* queue = map->revisionQueue[0];
  ASSERT_NE(queue, nullptr);
  EXPECT_EQ(queue->first, nullptr);
  EXPECT_EQ(queue->last, nullptr);
  EXPECT_EQ(queue->count, 0U);
  EXPECT_EQ(queue->maxCount, 0U);
  EXPECT_EQ(queue->bookmarks, nullptr);
  EXPECT_EQ(queue->numBookmarks, 0U);
  EXPECT_EQ(maxSize(), 0);
  EXPECT_EQ(natives::size(env, caller, natives::handle(map)), 0);
  EXPECT_EQ(natives::getCurrentBytesUsed(env, caller, natives::handle(map)), 0);
}

TEST_F(MapCreation, JavasArgumentsReachTheTableExceptTheFirst) {
  LuOffHeapMap* other =
      natives::asMap(natives::allocateLuOffHeapMap(env, caller, 999, 5, 0.5F, -3, 44));
  ASSERT_NE(other, nullptr);
  const MapHeader* header = other->map;
  EXPECT_EQ(header->initCapacity, 1U);
  EXPECT_EQ(header->numBucketSets, 8U);
  EXPECT_EQ(header->loadFactor, 0.5F);
  EXPECT_EQ(header->map_id, -3);
  EXPECT_EQ(header->map_set_id, 44);
  EXPECT_EQ(header->getNext, &getNext_LuValue);
  EXPECT_EQ(header->setNext, &setNext_LuValue);
  EXPECT_EQ(header->getKey, &getKey_LuValue);
  EXPECT_EQ(header->getValue, &getValue_LuValue);
  EXPECT_EQ(header->setValue, &setValue_LuValue);
  EXPECT_EQ(header->getHash, &getHash_LuValue);
  EXPECT_EQ(header->sizeofEntry, &nimbra::getSize_LuValue);
  EXPECT_EQ(header->unpinEntry, &unpinLuOffHeapMapValue);
  EXPECT_EQ(header->deserialize, &deserialize);
  EXPECT_EQ(header->compare, &compare);
  EXPECT_EQ(header->allocateDirectFromPhantom, &allocateDirectFromPhantom);
  deleteMap(other);
}

TEST_F(MapCreation, CreationAccountsEveryBlockAndDeletionReturnsIt) {
  const Books before = Books::now();
  LuOffHeapMap* other = natives::asMap(makeHandle());
  const uint64_t expected = getUsableSize(other) + getUsableSize(other->revisionQueue) +
                            getUsableSize(other->revisionQueue[0]) + getUsableSize(other->map) +
                            getUsableSize(getBucketSetByIndex(other->map, 0)->buckets);
  EXPECT_EQ(Books::now().metadata, before.metadata + static_cast<int64_t>(expected));
  EXPECT_EQ(Books::now().blocks, before.blocks + 5);
  deleteMap(other);
  EXPECT_EQ(Books::now(), before);
}

TEST_F(MapCreation, CreationTrace) {
  setLevels(kDebugLevel);
  LuOffHeapMap* other = natives::asMap(makeHandle());
  std::vector<std::string> own;
  for (const LogRecord& record : jni.records()) {
    if (record.text.find("llocateLuOffHeapMap:") != std::string::npos ||
        record.text.find("allocateQueue:") != std::string::npos) {
      own.push_back(record.text.substr(record.text.find(':', 4) + 1));
    }
  }
  EXPECT_THAT(own,
              ElementsAre("starting sub-allocation. Backing MapHeader=" + printed(other->map),
                          "sub-allocation was finished. allocated=" + printed(other),
                          "sub-allocation has finished. queue=" + printed(other->revisionQueue[0]),
                          "luMap=" + printed(other) + ", luMap->map=" + printed(other->map) +
                              ", luMap->revisionQueue=" + printed(other->revisionQueue)));
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("type=LuOffHeapMap")));
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("type=LuOffHeapQueue List")));
  setLevels(0);
  deleteMap(other);
}

TEST_F(MapCreation, AMapWithoutATableIsRefused) {
  const Thrown refused{kIllegalState,
                       "[allocateLuOffHeapMap] Cannot instantiate new LuOffHeapMap object. "
                       "Invalid backing hashtable."};
  EXPECT_EQ(allocateLuOffHeapMap(env, nullptr), nullptr);
  EXPECT_EQ(jni.takePending(), refused);
  MapHeader header{};
  EXPECT_EQ(allocateLuOffHeapMap(env, &header), nullptr);
  EXPECT_EQ(jni.takePending(), refused);
}

TEST_F(MapCreation, AFailedTableGivesNoMap) {
  const Books before = Books::now();
  {
    RefuseAllocation refusal(1, RefuseAllocation::Way::kNothingLeft, "MapHeader");
    EXPECT_EQ(makeHandle(), 0);
    EXPECT_TRUE(refusal.fired());
  }
  EXPECT_THAT(jni.takePending()->message, HasSubstr("Invalid backing hashtable."));
  EXPECT_EQ(Books::now(), before);
}

// Deliberate: a creation that fails behind its table leaves the table as it is.
TEST_F(MapCreation, LaterFailuresLeaveTheTable) {
  for (const char* label : {"LuOffHeapMap", "LuOffHeapQueue List", "LuOffHeapQueue"}) {
    SCOPED_TRACE(label);
    const Books before = Books::now();
    setLevels(kDebugLevel);
    {
      RefuseAllocation refusal(1, RefuseAllocation::Way::kNothingLeft, label);
      EXPECT_EQ(makeHandle(), 0);
      EXPECT_TRUE(refusal.fired());
    }
    EXPECT_FALSE(jni.pending().has_value());
    EXPECT_EQ(Books::now().blocks, before.blocks + 2) << "table header and one bucket array";
    auto* table = static_cast<MapHeader*>(tracedAddress("Backing MapHeader="));
    setLevels(0);
    ASSERT_NE(table, nullptr);
    hashtable_destroy(env, table);
    EXPECT_EQ(Books::now(), before);
  }
}

TEST_F(MapCreation, AMapLockThatCannotBeMadeIsLogged) {
  const Books before = Books::now();
  setLevels(kErrorLevel);
  {
    FailLock failure(LockRank::map, LockOp::init, 1);
    EXPECT_EQ(allocateLuOffHeapMap(env, map->map), nullptr);
    EXPECT_TRUE(failure.fired());
  }
  EXPECT_THAT(jni.lines(), ElementsAre(std::string("errorGeneric|") + kLockErrorKey +
                                       "|Failed to initialize LuMap [lum2] lock in Nimbra "
                                       "library."));
  EXPECT_EQ(Books::now(), before);
}

// ---- Deletion ----------------------------------------------------------------------------

TEST_F(MapDeletion, DeletingNoMapIsFalse) {
  EXPECT_FALSE(natives::deleteLuOffHeapMap(env, caller, 0));
}

TEST_F(MapDeletion, DeletionTrace) {
  LuOffHeapMap* other = natives::asMap(makeHandle());
  const std::string address = printed(other);
  const std::string queue = printed(other->revisionQueue[0]);
  setLevels(kDebugLevel | kEntryLevel);
  EXPECT_TRUE(natives::deleteLuOffHeapMap(env, caller, natives::handle(other)));
  std::vector<std::string> own;
  for (const std::string& line : jni.lines()) {
    if (line.find("LuOffHeapMap:") != std::string::npos ||
        line.find(":freeQueue:") != std::string::npos) {
      own.push_back(line.substr(0, line.find('|')) + " " + line.substr(line.rfind(':') + 1));
    }
  }
  EXPECT_THAT(own,
              ElementsAre("debug luMap=" + address, "entry queue=" + queue,
                          "debug freeQueue is freed. " + queue, "exit queue=" + queue,
                          "debug Requesting free=" + address, "debug Completed free=" + address));
  setLevels(0);
}

// Deliberate: a map is cleared before it is deleted; otherwise its entries stay behind.
TEST_F(MapDeletion, DeletingAFullMapLeavesTheQueuesPinsOnItsEntries) {
  LuOffHeapValue* entry = insert("key", "value");
  EXPECT_TRUE(natives::deleteLuOffHeapMap(env, caller, natives::handle(map)));
  map = nullptr;
  EXPECT_EQ(entry->pins, 2);
  EXPECT_EQ(unpinValue(entry, REVISION_QUEUE_FIRST_PIN), 1U);
  EXPECT_EQ(unpinValue(entry, REVISION_QUEUE_LAST_PIN), 0U);
}

TEST_F(MapDeletion, ADeletionThatCannotLockKeepsTheQueues) {
  {
    FailLock failure(LockRank::map, LockOp::writeLock, 1);
    EXPECT_FALSE(natives::deleteLuOffHeapMap(env, caller, natives::handle(map)));
  }
  EXPECT_THAT(jni.takePending()->message, HasSubstr("wrlock failure for luMap"));
  expectEveryLockFree();
  freeQueue(env, map->revisionQueue[0], kRevisionQueue);
  freeLuOffHeapMap(env, map);
  map = nullptr;
}

TEST_F(MapDeletion, ADeletionThatCannotUnlockKeepsTheMapRecord) {
  {
    FailThisLock failure(&map->lock, LockOp::unlock);
    EXPECT_FALSE(natives::deleteLuOffHeapMap(env, caller, natives::handle(map)));
    EXPECT_EQ(failure.fired(), 1);
  }
  EXPECT_THAT(jni.takePending()->message, HasSubstr("unlock failure for luMap"));
  EXPECT_EQ(heldLockCount(), 1);
  EXPECT_EQ(unlock(env, map), 0);
  freeLuOffHeapMap(env, map);
  map = nullptr;
}

// ---- The map lock ------------------------------------------------------------------------

TEST_F(MapLock, LockingNoMapAnswersOneAndRaisesNothing) {
  EXPECT_EQ(rdlock(env, nullptr), 1);
  EXPECT_EQ(wrlock(env, nullptr), 1);
  EXPECT_EQ(unlock(env, nullptr), 1);
  EXPECT_EQ(heldLockCount(), 0);
}

TEST_F(MapLock, ReadersShareAndWritersExclude) {
  EXPECT_EQ(rdlock(env, map), 0);
  std::thread([this] {
    EXPECT_EQ(pthread_rwlock_tryrdlock(&map->lock), 0);
    pthread_rwlock_unlock(&map->lock);
    EXPECT_EQ(pthread_rwlock_trywrlock(&map->lock), EBUSY);
  }).join();
  EXPECT_EQ(unlock(env, map), 0);
  EXPECT_EQ(wrlock(env, map), 0);
  std::thread([this] { EXPECT_EQ(pthread_rwlock_tryrdlock(&map->lock), EBUSY); }).join();
  EXPECT_EQ(unlock(env, map), 0);
  EXPECT_TRUE(isFree(&map->lock));
}

TEST_F(MapLock, AFailedMapLockIsReturnedAndWithAnEnvironmentRaised) {
  {
    FailThisLock failure(&map->lock, LockOp::readLock, EAGAIN);
    EXPECT_EQ(rdlock(nullptr, map), EAGAIN);
    EXPECT_EQ(rdlock(env, map), EAGAIN);
  }
  const std::string reason =
      std::string(": ") + std::strerror(EAGAIN) + " (" + std::to_string(EAGAIN) + ")";
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState, "[rdlock] rdlock failure for luMap" + reason}));
  {
    FailThisLock failure(&map->lock, LockOp::writeLock, EAGAIN);
    EXPECT_EQ(wrlock(nullptr, map), EAGAIN);
    EXPECT_FALSE(jni.pending().has_value());
    EXPECT_EQ(wrlock(env, map), EAGAIN);
  }
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState, "[wrlock] wrlock failure for luMap" + reason}));
  EXPECT_EQ(heldLockCount(), 0);
  ASSERT_EQ(rdlock(env, map), 0);
  {
    FailThisLock failure(&map->lock, LockOp::unlock, EAGAIN);
    EXPECT_EQ(unlock(nullptr, map), EAGAIN);
    EXPECT_FALSE(jni.pending().has_value());
    EXPECT_EQ(unlock(env, map), EAGAIN);
  }
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState, "[unlock] unlock failure for luMap" + reason}));
  EXPECT_EQ(unlock(env, map), 0);
}

// ---- Queues ------------------------------------------------------------------------------

TEST_F(QueueAllocation, QueuesOfBothKindsAreAccountedAndFreed) {
  for (const uint8_t kind : {uint8_t{kRevisionQueue}, uint8_t{kEvictionQueue}}) {
    const Books before = Books::now();
    setLevels(kDebugLevel);
    LuOffHeapQueue* queue = allocateQueue(env, kind);
    ASSERT_NE(queue, nullptr);
    EXPECT_THAT(
        jni.lines(),
        Contains("debug|JNI:allocateQueue:sub-allocation has finished. queue=" + printed(queue)));
    EXPECT_THAT(jni.lines(), Contains(HasSubstr("type=LuOffHeapQueue")));
    setLevels(0);
    EXPECT_EQ(queue->first, nullptr);
    EXPECT_EQ(queue->last, nullptr);
    EXPECT_EQ(queue->count, 0U);
    EXPECT_EQ(queue->maxCount, 0U);
    if (kind == kRevisionQueue) {
      EXPECT_EQ(static_cast<LuOffHeapRevisionOrderQueue*>(queue)->bookmarks, nullptr);
      EXPECT_EQ(static_cast<LuOffHeapRevisionOrderQueue*>(queue)->numBookmarks, 0U);
    }
    EXPECT_EQ(Books::now().metadata, before.metadata + static_cast<int64_t>(getUsableSize(queue)));
    freeQueue(env, queue, kind);
    EXPECT_EQ(Books::now(), before);
  }
}

TEST_F(QueueAllocation, FreeingAQueueReturnsItsBookmarks) {
  const Books before = Books::now();
  auto* queue = static_cast<LuOffHeapRevisionOrderQueue*>(allocateQueue(env, kRevisionQueue));
  lockQueue(queue);
  add_bookmark(env, queue, nullptr, 9);
  unlockQueue(queue);
  EXPECT_EQ(Books::now().blocks, before.blocks + 2);
  setLevels(kDebugLevel | kEntryLevel);
  const std::string address = printed(queue);
  freeQueue(env, queue, kRevisionQueue);
  EXPECT_THAT(jni.lines(), Contains("entry|JNI:freeQueue:queue=" + address));
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:freeQueue:freeQueue is freed. " + address));
  EXPECT_EQ(jni.lines().back(), "exit|JNI:freeQueue:queue=" + address);
  setLevels(0);
  EXPECT_EQ(Books::now(), before);
}

TEST_F(QueueAllocation, AnUnknownQueueKindIsNotAllocated) {
  const Books before = Books::now();
  EXPECT_EQ(allocateQueue(env, 2), nullptr);
  EXPECT_EQ(Books::now(), before);
}

// Deliberate: only a programming error gets here, and it leaves the mutex locked.
TEST_F(QueueAllocation, FreeingAnUnknownKindLeavesTheQueueLocked) {
  LuOffHeapQueue* queue = allocateQueue(env, kRevisionQueue);
  const Books before = Books::now();
  freeQueue(env, queue, 2);
  EXPECT_EQ(Books::now(), before);
  EXPECT_TRUE(holdsLock(&queue->mutex));
  EXPECT_EQ(unlockQueue(queue), 0);
  freeQueue(env, queue, kRevisionQueue);
}

TEST_F(QueueAllocation, AQueueWithoutMemoryOrMutexIsNull) {
  const Books before = Books::now();
  {
    RefuseAllocation refusal(1);
    EXPECT_EQ(allocateQueue(env, kRevisionQueue), nullptr);
  }
  setLevels(kErrorLevel);
  {
    FailLock failure(LockRank::queue, LockOp::init, 1);
    EXPECT_EQ(allocateQueue(env, kRevisionQueue), nullptr);
  }
  EXPECT_THAT(jni.lines(), ElementsAre(std::string("errorGeneric|") + kLockErrorKey +
                                       "|Failed to initialize Queue [lum1] lock in Nimbra "
                                       "library."));
  setLevels(0);
  EXPECT_EQ(Books::now(), before);
}

template <typename Queue>
void lockFailsAloudOnlyAtDebug(Queue* queue) {
  for (const bool debug : {false, true}) {
    logInfo.debug = debug;
    ::testing::internal::CaptureStdout();
    {
      FailThisLock failure(&queue->mutex, LockOp::lock, EDEADLK);
      EXPECT_EQ(lockQueue(queue), EDEADLK);
    }
    EXPECT_EQ(lockQueue(queue), 0);
    {
      FailThisLock failure(&queue->mutex, LockOp::unlock, EPERM);
      EXPECT_EQ(unlockQueue(queue), EPERM);
    }
    EXPECT_EQ(unlockQueue(queue), 0);
    std::fflush(stdout);
    const std::string expected = "pthread lock error: " + std::to_string(EDEADLK) +
                                 "pthread unlock error: " + std::to_string(EPERM);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), debug ? expected : "");
  }
  logInfo.debug = false;
}

TEST_F(QueueAllocation, QueueLocksReturnTheirErrorAndPrintItAtDebugLevel) {
  auto* revisions = static_cast<LuOffHeapRevisionOrderQueue*>(allocateQueue(env, kRevisionQueue));
  auto* evictions = static_cast<LuOffHeapEvictionDataQueue*>(allocateQueue(env, kEvictionQueue));
  lockFailsAloudOnlyAtDebug<LuOffHeapQueue>(revisions);
  lockFailsAloudOnlyAtDebug(revisions);
  lockFailsAloudOnlyAtDebug(evictions);
  freeQueue(env, revisions, kRevisionQueue);
  freeQueue(env, evictions, kEvictionQueue);
}

// ---- All locks at once -------------------------------------------------------------------

TEST_F(AllLocks, AllLocksAreTakenAndGivenBack) {
  growQueues(3);
  for (const bool exclusive : {true, false}) {
    EXPECT_EQ(lockMapAndQueues(map, exclusive), 0);
    EXPECT_EQ(heldLockCount(), 5);
    std::thread([this, exclusive] {
      EXPECT_EQ(pthread_rwlock_trywrlock(&map->lock), EBUSY);
      const int shared = pthread_rwlock_tryrdlock(&map->lock);
      EXPECT_EQ(shared, exclusive ? EBUSY : 0);
      if (shared == 0) pthread_rwlock_unlock(&map->lock);
      for (uint32_t i = 0; i < map->numQueues; ++i) {
        EXPECT_EQ(pthread_mutex_trylock(&map->revisionQueue[i]->mutex), EBUSY);
      }
    }).join();
    EXPECT_EQ(unlockMapAndQueues(map), 0);
    expectEveryLockFree();
  }
}

TEST_F(AllLocks, AQueueThatCannotBeLockedLeavesEveryLockFree) {
  growQueues(3);
  for (uint32_t failing = 0; failing < 4; ++failing) {
    for (const bool exclusive : {true, false}) {
      {
        FailThisLock failure(&map->revisionQueue[failing]->mutex, LockOp::lock, EAGAIN);
        EXPECT_EQ(lockMapAndQueues(map, exclusive), EAGAIN);
        EXPECT_EQ(failure.fired(), 1);
      }
      expectEveryLockFree();
    }
  }
  EXPECT_FALSE(jni.pending().has_value());
}

TEST_F(AllLocks, AMapThatCannotBeLockedLeavesEveryLockFree) {
  growQueues(2);
  {
    FailThisLock failure(&map->lock, LockOp::writeLock);
    EXPECT_NE(lockMapAndQueues(map, true), 0);
  }
  {
    FailThisLock failure(&map->lock, LockOp::readLock);
    EXPECT_NE(lockMapAndQueues(map, false), 0);
  }
  EXPECT_FALSE(jni.pending().has_value()) << "no environment, no exception";
  expectEveryLockFree();
}

TEST_F(AllLocks, UnlockingAllReturnsTheMapsResult) {
  growQueues(1);
  ASSERT_EQ(lockMapAndQueues(map, true), 0);
  {
    FailThisLock failure(&map->lock, LockOp::unlock, EPERM);
    EXPECT_EQ(unlockMapAndQueues(map), EPERM);
  }
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_EQ(heldLockCount(), 1);
  EXPECT_EQ(unlock(env, map), 0);
  expectEveryLockFree();
}

// ---- High water --------------------------------------------------------------------------

TEST_F(HighWater, MaxSizeIsTheHighWaterMark) {
  insert("one", "1");
  insert("two", "2");
  insert("three", "3");
  EXPECT_TRUE(remove("one"));
  EXPECT_TRUE(remove("two"));
  EXPECT_EQ(maxSize(), 3);
  EXPECT_EQ(natives::size(env, caller, natives::handle(map)), 1);
  insert("four", "4");
  EXPECT_EQ(maxSize(), 3);
}

TEST_F(HighWater, MaxSizeAddsTheOwnersMarksUp) {
  insert("one", "1", 0);
  insert("two", "2", 2);
  insert("three", "3", 2);
  EXPECT_EQ(maxSize(), 3);
  EXPECT_TRUE(update("three", "3", 0));
  EXPECT_EQ(map->revisionQueue[0]->maxCount, 2U);
  EXPECT_EQ(map->revisionQueue[2]->maxCount, 2U);
  EXPECT_EQ(maxSize(), 4) << "a move raises the new owner's mark and lowers none";
  clearMap(map);
  EXPECT_EQ(maxSize(), 4);
  checkMap(env, map);
}

TEST_F(HighWater, MaxSizeIgnoresItsLockResults) {
  insert("one", "1");
  {
    FailThisLock failure(&map->revisionQueue[0]->mutex, LockOp::unlock);
    EXPECT_EQ(maxSize(), 1);
  }
  EXPECT_EQ(unlockQueue(map->revisionQueue[0]), 0);
  EXPECT_EQ(heldLockCount(), 0);
}

}  // namespace
}  // namespace nimbra::test
