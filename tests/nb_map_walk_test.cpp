// The walks over a map's queues, the lock of a whole map, and the character helpers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "map_natives.h"
#include "map_support.h"
#include "record_locks.h"

namespace nimbra::test {
namespace {

using natives::asValue;
using natives::handle;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class WalkTest : public MapTest {
 protected:
  jlong mapHandle() { return handle(map); }
  LuOffHeapRevisionOrderQueue* queue(uint32_t owner) { return map->revisionQueue[owner]; }
};

// ---- Walks -------------------------------------------------------------------------------

class QueueWalk : public WalkTest {
 protected:
  static constexpr jint kReason = static_cast<jint>(JAVA_LUOFFHEAPMAPVALUE_ITERATOR_PIN);

  LuOffHeapValue* first(jboolean lock) {
    return asValue(natives::getAndPinFirstInQueue(env, caller, mapHandle(), kReason, lock));
  }
  LuOffHeapValue* next(LuOffHeapValue* value, jboolean lock) {
    return asValue(
        natives::getAndPinNextInQueue(env, caller, mapHandle(), handle(value), kReason, lock));
  }
  void letGo(LuOffHeapValue* value) {
    unpinValue(value, static_cast<uint32_t>(kReason) | JNI_CONVERT_FROM_JAVA_PIN);
  }
};

TEST_F(QueueWalk, GoesThroughEveryQueueInOrder) {
  for (const jboolean lock : {JNI_FALSE, JNI_TRUE}) {
    LuOffHeapValue* b = insert("b", "value", 1, 5);
    LuOffHeapValue* a = insert("a", "value", 1, 3);
    LuOffHeapValue* d = insert("d", "value", 4, 1);
    LuOffHeapValue* c = insert("c", "value", 1, 9);
    std::vector<LuOffHeapValue*> seen;
    for (LuOffHeapValue* at = first(lock); at != nullptr; at = next(at, lock)) {
      EXPECT_EQ(at->pins, 4);
      seen.push_back(at);
    }
    EXPECT_THAT(seen, ElementsAre(a, b, c, d)) << "empty queues are passed over";
    seen.clear();
    for (LuOffHeapValue* at = next(nullptr, lock); at != nullptr; at = next(at, lock)) {
      seen.push_back(at);
    }
    EXPECT_THAT(seen, ElementsAre(a, b, c, d)) << "no value means the first";
    for (LuOffHeapValue* value : seen) {
      EXPECT_EQ(value->pins, 5);
      letGo(value);
      letGo(value);
    }
    checkMap(env, map);
    clearMap(map);
  }
}

TEST_F(QueueWalk, OfAnEmptyMapEndsAtOnce) {
  for (const jboolean lock : {JNI_FALSE, JNI_TRUE}) {
    EXPECT_EQ(first(lock), nullptr);
    EXPECT_EQ(next(nullptr, lock), nullptr);
  }
}

TEST_F(QueueWalk, PinsWithJavasReason) {
  LuOffHeapValue* entry = insert("a", "value");
  setLevels(kAllLevels);
  letGo(first(JNI_TRUE));
  const uint32_t reason = static_cast<uint32_t>(kReason) | JNI_CONVERT_FROM_JAVA_PIN;
  Script script;
  script.pins(entry, reason, 4);
  script.releasesValue(entry, reason, 3);
  script.expectIn(jni);
  setLevels(0);
}

TEST_F(QueueWalk, LocksOnlyForExactlyTrue) {
  insert("a", "value", 0, 1);
  LuOffHeapValue* entry = insert("b", "value", 1, 1);
  using Operation = RecordLocks::Operation;
  const auto operationsOf = [&](jboolean lock, bool isNext) {
    RecordLocks locks;
    letGo(isNext ? next(find(map, "a"), lock) : first(lock));
    return locks.operations();
  };
  for (const bool isNext : {false, true}) {
    EXPECT_TRUE(operationsOf(JNI_FALSE, isNext).empty());
    EXPECT_TRUE(operationsOf(2, isNext).empty());
    EXPECT_TRUE(operationsOf(0xFF, isNext).empty());
  }
  EXPECT_EQ(operationsOf(JNI_TRUE, false),
            (std::vector<Operation>{{&map->lock, LockOp::readLock},
                                    {&queue(0)->mutex, LockOp::lock},
                                    {&queue(0)->mutex, LockOp::unlock},
                                    {&map->lock, LockOp::unlock}}));
  EXPECT_EQ(operationsOf(JNI_TRUE, true),
            (std::vector<Operation>{{&map->lock, LockOp::readLock},
                                    {&queue(0)->mutex, LockOp::lock},
                                    {&queue(0)->mutex, LockOp::unlock},
                                    {&queue(1)->mutex, LockOp::lock},
                                    {&queue(1)->mutex, LockOp::unlock},
                                    {&map->lock, LockOp::unlock}}));
  EXPECT_EQ(entry->pins, 3);
}

TEST_F(QueueWalk, AMapLockThatCannotBeHadEndsTheWalk) {
  LuOffHeapValue* entry = insert("a", "value");
  for (const bool isNext : {false, true}) {
    FailLock failure(LockRank::map, LockOp::readLock, 1);
    EXPECT_EQ(isNext ? next(nullptr, JNI_TRUE) : first(JNI_TRUE), nullptr);
    EXPECT_TRUE(failure.fired());
    ASSERT_TRUE(jni.pending().has_value());
    EXPECT_THAT(jni.takePending()->message, HasSubstr("rdlock failure for luMap"));
    EXPECT_EQ(entry->pins, 3);
  }
  checkMap(env, map);
}

TEST_F(QueueWalk, FailedMapUnlockKeepsThePin) {
  LuOffHeapValue* entry = insert("a", "value");
  for (const bool isNext : {false, true}) {
    {
      FailNthLock failure(4);
      EXPECT_EQ(
          underFailingLock([&] { return isNext ? next(nullptr, JNI_TRUE) : first(JNI_TRUE); }),
          nullptr);
      EXPECT_EQ(failure.site(), "map unlock");
      failure.release();
    }
    EXPECT_TRUE(jni.takePending().has_value());
    EXPECT_EQ(entry->pins, 4) << "nobody can release it";
    letGo(entry);
  }
  checkMap(env, map);
}

TEST_F(QueueWalk, KeysWithTheirAttributes) {
  ByteBufferHeader* key = buffer("the key", DESERIALIZED_TYPE_JSTRING);
  ByteBufferHeader* value = buffer("value");
  LuOffHeapValue* entry = asValue(natives::insertAndGetNewAndPin(
      env, caller, mapHandle(), javaBuffer(key), javaBuffer(value), 2, -8));
  drop(key);
  drop(value);
  unpinValue(entry, JNI_INSERTED_PIN);
  const jlongArray out = jni.newLongArray({-1, -1, -1, -1, -1, -1});
  RecordLocks locks;
  EXPECT_EQ(natives::getAndPinNextKeyWithAttributes(env, caller, mapHandle(), 0, out, kReason),
            handle(entry));
  EXPECT_EQ(jni.longsOf(out), (std::vector<jlong>{handle(bufferData(entry->key)), 7, 2, -8,
                                                  DESERIALIZED_TYPE_JSTRING, handle(entry->key)}));
  EXPECT_EQ(entry->pins, 4);
  EXPECT_EQ(entry->key->pins, 2);
  EXPECT_EQ(natives::getAndPinNextKeyWithAttributes(env, caller, mapHandle(), handle(entry), out,
                                                    kReason),
            0)
      << "the last entry of the last queue that has any";
  EXPECT_TRUE(locks.operations().empty()) << "never a lock";
  EXPECT_EQ(entry->pins, 4);
  unpinToFree(env, entry->key, static_cast<uint32_t>(kReason) | JNI_CONVERT_FROM_JAVA_PIN);
  letGo(entry);
}

TEST_F(QueueWalk, KeysPinRecordAndKeyWithTheSameReason) {
  LuOffHeapValue* entry = insert("a", "value");
  const jlongArray out = jni.newLongArray({0, 0, 0, 0, 0, 0});
  setLevels(kAllLevels);
  natives::getAndPinNextKeyWithAttributes(env, caller, mapHandle(), 0, out, kReason);
  const uint32_t reason = static_cast<uint32_t>(kReason) | JNI_CONVERT_FROM_JAVA_PIN;
  Script script;
  script.pins(entry, reason, 4);
  script.pins(entry->key, reason, 2);
  script.expectIn(jni);
  setLevels(0);
  unpinToFree(env, entry->key, reason);
  letGo(entry);
}

TEST_F(QueueWalk, AValueWithoutAKeyIsMinusOneAndStaysPinned) {
  LuOffHeapValue* bare = record(nullptr, "value");
  ASSERT_EQ(wrlock(env, map), 0);
  ASSERT_TRUE(updateRevisionQueue(env, map, nullptr, bare));
  ASSERT_EQ(unlock(env, map), 0);
  const jlongArray out = jni.newLongArray({-1, -1, -1, -1, -1, -1});
  EXPECT_EQ(natives::getAndPinNextKeyWithAttributes(env, caller, mapHandle(), 0, out, kReason), -1);
  EXPECT_EQ(bare->pins, 4) << "creation, two places in the queue, Java";
  EXPECT_THAT(jni.longsOf(out), ::testing::Each(-1));
  letGo(bare);
  EXPECT_TRUE(removeFromRevisionQueue(env, map, bare));
  EXPECT_EQ(unpinValue(bare), 0U);
}

// A removal takes no map lock before it reaches the queue: between the queue's release and the pin
// it could free the record.
TEST_F(QueueWalk, PinsWhileTheQueueIsHeld) {
  LuOffHeapValue* entry = insert("a", "value");
  for (const bool isNext : {false, true}) {
    setLevels(kDebugLevel);
    bool pinned = false;
    bool held = false;
    jni.onRecord([&](const LogRecord& record) {
      if (record.text.find("enter pin: ") == std::string::npos) return;
      pinned = true;
      held = holdsLock(&queue(0)->mutex);
    });
    LuOffHeapValue* found = isNext ? next(nullptr, JNI_TRUE) : first(JNI_TRUE);
    jni.onRecord(nullptr);
    setLevels(0);
    EXPECT_EQ(found, entry);
    EXPECT_TRUE(pinned);
    EXPECT_TRUE(held);
    letGo(found);
  }
}

// ---- The lock of a whole map -------------------------------------------------------------

class MapWideLock : public WalkTest {
 protected:
  void SetUp() override {
    WalkTest::SetUp();
    insert("key", "value", 3, 1);
    ASSERT_EQ(map->numQueues, 4U);
  }
};

TEST_F(MapWideLock, TakesTheMapThenEveryQueueUpward) {
  using Operation = RecordLocks::Operation;
  std::vector<Operation> taken = {{&map->lock, LockOp::writeLock}};
  std::vector<Operation> released;
  for (uint32_t owner = 0; owner < 4; ++owner) {
    taken.push_back({&queue(owner)->mutex, LockOp::lock});
    released.push_back({&queue(owner)->mutex, LockOp::unlock});
  }
  released.push_back({&map->lock, LockOp::unlock});
  {
    RecordLocks locks;
    EXPECT_EQ(natives::lockMapAndQueues(env, caller, mapHandle()), 0);
    EXPECT_EQ(locks.operations(), taken);
  }
  EXPECT_EQ(heldLockCount(), 5);
  EXPECT_TRUE(holdsLock(&map->lock));
  {
    RecordLocks locks;
    EXPECT_EQ(natives::unlockMapAndQueues(env, caller, mapHandle()), 0);
    EXPECT_EQ(locks.operations(), released);
  }
  checkMap(env, map);
}

TEST_F(MapWideLock, IsExclusive) {
  EXPECT_EQ(natives::lockMapAndQueues(env, caller, mapHandle()), 0);
  EXPECT_NE(pthread_rwlock_tryrdlock(&map->lock), 0) << "no shared mode";
  EXPECT_EQ(natives::unlockMapAndQueues(env, caller, mapHandle()), 0);
}

TEST_F(MapWideLock, AMapLockThatCannotBeHadIsOne) {
  {
    FailLock failure(LockRank::map, LockOp::writeLock, 1, EDEADLK);
    EXPECT_EQ(natives::lockMapAndQueues(env, caller, mapHandle()), 1);
    EXPECT_TRUE(failure.fired());
    jni.clearPending();
    EXPECT_EQ(heldLockCount(), 0);
  }
  EXPECT_EQ(natives::lockMapAndQueues(env, caller, 0), 1) << "a null map";
  jni.clearPending();
  checkMap(env, map);
}

TEST_F(MapWideLock, UnlockAnswersTheCodeOfTheMapLock) {
  EXPECT_EQ(natives::lockMapAndQueues(env, caller, mapHandle()), 0);
  {
    FailNthLock failure(5, EPERM);
    EXPECT_EQ(
        underFailingLock([&] { return natives::unlockMapAndQueues(env, caller, mapHandle()); }),
        EPERM);
    EXPECT_EQ(failure.site(), "map unlock");
    failure.release();
  }
  EXPECT_FALSE(jni.pending().has_value()) << "the code is only returned";
  checkMap(env, map);
}

// What the child of the next test did, in memory that both processes see.
struct ChildsLocks {
  std::size_t count;
  int returned;
  struct {
    LockOp operation;
    LockRank rank;
    const void* lock;
  } operations[64];
};
ChildsLocks* childsLocks = nullptr;
const void* refusedLock = nullptr;

int recordInChild(LockRank rank, const void* lock, LockOp operation) {
  if (childsLocks->count < 64)
    childsLocks->operations[childsLocks->count++] = {operation, rank, lock};
  return lock == refusedLock && operation == LockOp::lock ? EINVAL : 0;
}

// When a queue cannot be locked, those below are let go from the highest down, and then the call
// never returns and the map stays locked. A child process makes it and is ended by a timer.
TEST_F(MapWideLock, FailedQueueLockNeverReturns) {
  void* shared =
      mmap(nullptr, sizeof(ChildsLocks), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  childsLocks = static_cast<ChildsLocks*>(shared);
  refusedLock = &queue(2)->mutex;
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    signal(SIGALRM, SIG_DFL);
    const itimerval limit = {{0, 0}, {0, 500000}};
    setitimer(ITIMER_REAL, &limit, nullptr);
    faults::failLock = &recordInChild;
    natives::lockMapAndQueues(env, caller, mapHandle());
    childsLocks->returned = 1;
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(childsLocks->returned, 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) << "status " << status;
  std::vector<RecordLocks::Operation> seen;
  for (std::size_t i = 0; i < childsLocks->count; ++i) {
    seen.push_back({childsLocks->operations[i].lock, childsLocks->operations[i].operation});
  }
  EXPECT_EQ(seen, (std::vector<RecordLocks::Operation>{{&map->lock, LockOp::writeLock},
                                                       {&queue(0)->mutex, LockOp::lock},
                                                       {&queue(1)->mutex, LockOp::lock},
                                                       {&queue(2)->mutex, LockOp::lock},
                                                       {&queue(1)->mutex, LockOp::unlock},
                                                       {&queue(0)->mutex, LockOp::unlock}}));
  munmap(shared, sizeof(ChildsLocks));
}

// ---- Character helpers -------------------------------------------------------------------

class CharacterHelpers : public WalkTest {
 protected:
  void getChars(std::string_view source, jcharArray target, jint count) {
    ByteBufferHeader* bytes = buffer(source);
    natives::getChars(env, caller, javaBuffer(bytes), 11, 12, 13, target, count);
    drop(bytes);
  }
};

TEST_F(CharacterHelpers, ReadBigEndianUnits) {
  const jcharArray target = jni.newCharArray(u"......");
  getChars(std::string_view("\0a\xd8\x3d\xde\0\xff\xfe\0\0", 10), target, 5);
  EXPECT_EQ(jni.charsOf(target), std::u16string(u"a\xd83d\xde00\xfffe\0.", 6));
}

TEST_F(CharacterHelpers, ReadNoMoreThanTheCount) {
  const jcharArray target = jni.newCharArray(u"...");
  getChars(std::string_view("\0a\0b\0c", 6), target, 2);
  EXPECT_EQ(jni.charsOf(target), u"ab.");
  getChars(std::string_view("\0z", 2), target, 0);
  EXPECT_EQ(jni.charsOf(target), u"ab.");
}

TEST_F(CharacterHelpers, WriteBigEndianUnits) {
  const jbyteArray target = jni.newByteArray(std::vector<uint8_t>(8, 0x2E));
  natives::getFullCharBytesFromString(env, caller, jni.newString(u"a\xd83d\xde00\xfffe"), 3, target,
                                      99);
  EXPECT_EQ(jni.bytesOf(target),
            (std::vector<uint8_t>{0, 'a', 0xD8, 0x3D, 0xDE, 0x00, 0x2E, 0x2E}));
}

TEST_F(CharacterHelpers, AreInverse) {
  std::u16string text;
  for (int unit = 0; unit < 0x10000; unit += 251) text += static_cast<char16_t>(unit);
  const auto count = static_cast<jint>(text.size());
  const jbyteArray bytes = jni.newByteArray(std::vector<uint8_t>(2 * text.size()));
  natives::getFullCharBytesFromString(env, caller, jni.newString(text), count, bytes, 0);
  const std::vector<uint8_t> image = jni.bytesOf(bytes);
  const jcharArray target = jni.newCharArray(std::u16string(text.size(), u'.'));
  getChars({reinterpret_cast<const char*>(image.data()), image.size()}, target, count);
  EXPECT_EQ(jni.charsOf(target), text);
}

// A copied array is written back and not freed: the flag 1 is the mode that commits.
TEST_F(CharacterHelpers, ReleaseWithTheCopyFlag) {
  for (const bool copies : {false, true}) {
    jni.handOutCopies(copies);
    const jcharArray characters = jni.newCharArray(u"..");
    jni.clearReleases();
    getChars(std::string_view("\0a\0b", 4), characters, 2);
    ASSERT_EQ(jni.releases().size(), 1U);
    EXPECT_EQ(jni.releases()[0].mode, copies ? JNI_TRUE : JNI_FALSE);
    EXPECT_EQ(jni.charsOf(characters), u"ab") << "written either way";

    const jbyteArray bytes = jni.newByteArray({0, 0});
    jni.clearReleases();
    natives::getFullCharBytesFromString(env, caller, jni.newString(u"a"), 1, bytes, 0);
    int arrays = 0;
    for (const ReleaseCall& release : jni.releases()) {
      if (release.slot.find("String") != std::string::npos) continue;
      ++arrays;
      EXPECT_EQ(release.mode, copies ? JNI_TRUE : JNI_FALSE);
    }
    EXPECT_EQ(arrays, 1);
    EXPECT_EQ(jni.bytesOf(bytes), (std::vector<uint8_t>{0, 'a'}));
  }
}

TEST_F(CharacterHelpers, ArraysThatCannotBeHadStayAsTheyAre) {
  const jcharArray characters = jni.newCharArray(u"..");
  for (const char* slot : {"GetPrimitiveArrayCritical", "GetCharArrayElements"}) {
    jni.failCall(slot);
  }
  getChars(std::string_view("\0a\0b", 4), characters, 2);
  EXPECT_EQ(jni.charsOf(characters), u"..");
  jni.clearFailures();
  const jbyteArray bytes = jni.newByteArray({7, 7});
  for (const char* slot : {"GetStringCritical", "GetPrimitiveArrayCritical"}) {
    jni.failCall(slot);
    natives::getFullCharBytesFromString(env, caller, jni.newString(u"a"), 1, bytes, 0);
    jni.clearFailures();
    EXPECT_EQ(jni.bytesOf(bytes), (std::vector<uint8_t>{7, 7}));
    EXPECT_EQ(jni.liveCriticals(), 0U);
  }
}

}  // namespace
}  // namespace nimbra::test
