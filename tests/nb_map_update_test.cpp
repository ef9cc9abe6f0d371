// Insert, update and remove: results, pins, queue moves, key formats, and each way to fail.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string lockError(const char* tag) {
  return std::string("errorGeneric|") + kLockErrorKey + "|Error acquiring " + tag +
         " lock in Nimbra library.";
}

class MapWrite : public MapTest {
 protected:
  int64_t bytesUsed() { return hashtable_bytesUsed(env, map->map); }
  std::vector<int64_t> revisions(uint16_t owner = 0) {
    return revisionsOf(map->revisionQueue[owner]);
  }
};

// ---- Insert ------------------------------------------------------------------------------

class MapInsert : public MapWrite {};

TEST_F(MapInsert, ANewEntryIsHeldByChainQueueAndCaller) {
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("value");
  const jobject javaKey = javaBuffer(key);
  WriteOutcome outcome = WriteOutcome::failed;
  LuOffHeapValue* made = insertAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, 17,
                                      true, value, 0, 5, &outcome);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(outcome, WriteOutcome::done);
  EXPECT_EQ(made->pins, 4);
  EXPECT_EQ(made->flags, 7);
  EXPECT_EQ(made->hashCode, 17);
  EXPECT_EQ(key->pins, 2);
  EXPECT_EQ(value->pins, 2);
  drop(key);
  drop(value);
  checkMap(env, map, {{made, 1}});
  EXPECT_EQ(unpinValue(made, JNI_INSERTED_PIN), 3U);
  EXPECT_EQ(contentsOf(map), (Rows{{"key", {"value", 0, 5}}}));
}

TEST_F(MapInsert, OfAPresentKeyChangesNothing) {
  LuOffHeapValue* present = insert("key", "value", 0, 5);
  insert("other", "value", 0, 6);
  const Books before = Books::now();
  const int64_t bytes = bytesUsed();
  const Rows rows = contentsOf(map);
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("new value");
  const jobject javaKey = javaBuffer(key);
  WriteOutcome outcome = WriteOutcome::done;
  EXPECT_EQ(insertAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, hashFn(key),
                         false, value, 3, 9, &outcome),
            nullptr);
  EXPECT_EQ(outcome, WriteOutcome::none);
  EXPECT_EQ(key->pins, 1);
  EXPECT_EQ(value->pins, 1);
  drop(key);
  drop(value);
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(bytesUsed(), bytes);
  EXPECT_EQ(contentsOf(map), rows);
  EXPECT_EQ(find(map, "key"), present);
  EXPECT_EQ(map->numQueues, 1U) << "a refused insert brings no queue into being";
  checkMap(env, map);
}

TEST_F(MapInsert, OwnersQueuesComeIntoBeing) {
  EXPECT_NE(insert("a", "1", 3, 7), nullptr);
  EXPECT_EQ(map->numQueues, 4U);
  EXPECT_EQ(revisions(3), (std::vector<int64_t>{7}));
  EXPECT_THAT(revisions(0), IsEmpty());
  checkMap(env, map);
}

TEST_F(MapInsert, MinusOneIsAnOrdinaryRevision) {
  LuOffHeapValue* made = insert("key", "value", 0, -1);
  EXPECT_EQ(made->revisionNumber, -1);
  insert("second", "value", 0, -2);
  EXPECT_EQ(revisions(), (std::vector<int64_t>{-2, -1}));
}

TEST_F(MapInsert, ManyEntriesStayInOrderAndInStep) {
  for (int i = 0; i < 300; ++i) {
    insert("key" + std::to_string(i), "value" + std::to_string(i), static_cast<uint16_t>(i % 3),
           (i * 7919) % 311);
  }
  checkMap(env, map);
  EXPECT_EQ(hashtable_size(env, map->map), 300);
  for (int i = 0; i < 300; ++i) {
    LuOffHeapValue* found = find(map, "key" + std::to_string(i));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(bytesOf(found->value), "value" + std::to_string(i));
  }
}

TEST_F(MapInsert, ArrayAndStringKeysAreComparedByTheirBytes) {
  const auto insertAs = [this](const void* key, uint8_t format, ByteBufferHeader* keyBuffer) {
    ByteBufferHeader* value = buffer("value");
    LuOffHeapValue* made =
        insertAndPin(env, caller, map, key, format, keyBuffer, 5, true, value, 0, 1);
    drop(value);
    drop(keyBuffer);
    if (made != nullptr) unpinValue(made, JNI_INSERTED_PIN);
    return made != nullptr;
  };
  const jbyteArray array = jni.newByteArray({'a', 'b'});
  EXPECT_TRUE(insertAs(&array, OBJECT_TYPE_JBYTE_ARRAY, buffer("ab")));
  EXPECT_FALSE(insertAs(&array, OBJECT_TYPE_JBYTE_ARRAY, buffer("ab")));
  const jstring string = jni.newString(u"ab");
  const std::string units("\0a\0b", 4);
  EXPECT_TRUE(insertAs(&string, OBJECT_TYPE_JSTRING, buffer(units, DESERIALIZED_TYPE_JSTRING)));
  EXPECT_FALSE(insertAs(&string, OBJECT_TYPE_JSTRING, buffer(units, DESERIALIZED_TYPE_JSTRING)));
  checkMap(env, map);
}

TEST_F(MapInsert, NumbersAreEqualAcrossWidths) {
  const auto insertNumber = [this](std::string_view bytes, uint8_t type) {
    ByteBufferHeader* key = buffer(bytes, type);
    ByteBufferHeader* value = buffer("value");
    LuOffHeapValue* made = insertAndPin(env, caller, map, nullptr, type, key, 7, true, value, 0, 1);
    drop(key);
    drop(value);
    if (made != nullptr) unpinValue(made, JNI_INSERTED_PIN);
    return made != nullptr;
  };
  EXPECT_TRUE(insertNumber(std::string("\7\0\0\0", 4), DESERIALIZED_TYPE_JINT));
  EXPECT_FALSE(insertNumber(std::string("\7\0\0\0\0\0\0\0", 8), DESERIALIZED_TYPE_JLONG));
  EXPECT_FALSE(insertNumber("\7", DESERIALIZED_TYPE_JBYTE));
  EXPECT_TRUE(insertNumber(std::string("\10\0", 2), DESERIALIZED_TYPE_JSHORT));
  // Booleans have no search: two equal ones live side by side.
  EXPECT_TRUE(insertNumber("\1", DESERIALIZED_TYPE_JBOOLEAN));
  EXPECT_TRUE(insertNumber("\1", DESERIALIZED_TYPE_JBOOLEAN));
  EXPECT_EQ(hashtable_size(env, map->map), 4);
  checkMap(env, map);
}

TEST_F(MapInsert, KeysThatOnlyJavaComparesAreRefusedWhenTheirBufferCannotBeMade) {
  const auto insertOther = [this] {
    ByteBufferHeader* key = buffer("ab", DESERIALIZED_TYPE_OTHER);
    ByteBufferHeader* value = buffer("value");
    const jbyteArray array = jni.newByteArray({'a', 'b'});
    WriteOutcome outcome = WriteOutcome::done;
    LuOffHeapValue* made = insertAndPin(env, caller, map, &array, OBJECT_TYPE_JBYTE_ARRAY, key, 5,
                                        true, value, 0, 1, &outcome);
    drop(key);
    drop(value);
    if (made != nullptr) unpinValue(made, JNI_INSERTED_PIN);
    return outcome;
  };
  jni.failCall("NewDirectByteBuffer", 1, Thrown{kOutOfMemory, "no buffer"});
  EXPECT_EQ(insertOther(), WriteOutcome::failed);
  EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory, "no buffer"}));
  EXPECT_THAT(contentsOf(map), IsEmpty());
  EXPECT_EQ(insertOther(), WriteOutcome::done);
  EXPECT_EQ(insertOther(), WriteOutcome::none) << "Java says equal";
  checkMap(env, map);
}

TEST_F(MapInsert, BeginsWithOneRecordAtEntryOrElseEventLevel) {
  const auto begin = [this](jint level) {
    setLevels(level);
    insertPinned("key", "value", 2, 8);
    const std::string first = jni.lines().at(0);
    setLevels(0);
    return withoutAddresses(first);
  };
  const std::string text =
      "JNI:insertAndPin:luMap=@ key=@ hashCode=" + std::to_string(hashOf("key")) +
      " value=@ revisionOwner=2 revisionNumber=8 withHashCode=false";
  // The test's own buffers are made at event level, too: look for the record itself.
  EXPECT_EQ(begin(kEntryLevel), "entry|" + text);
  unpinValue(find(map, "key"), JNI_INSERTED_PIN);
  setLevels(kEventLevel);
  EXPECT_EQ(insertPinned("key", "value", 2, 8), nullptr);
  std::vector<std::string> own;
  for (const std::string& line : jni.lines()) {
    if (line.find("JNI:insertAndPin:") != std::string::npos) own.push_back(withoutAddresses(line));
  }
  setLevels(0);
  EXPECT_THAT(own, ElementsAre("event|" + text));
}

// ---- Insert's failures -------------------------------------------------------------------

class InsertRollback : public MapWrite {
 protected:
  // The last record that the allocator handed out.
  LuOffHeapValue* lastRecord() {
    void* record = nullptr;
    for (const LogRecord& line : jni.records()) {
      if (line.text.find("type=LuOffHeapMapValue") == std::string::npos) continue;
      const std::size_t at = line.text.find("malloc=");
      EXPECT_EQ(std::sscanf(line.text.c_str() + at, "malloc=%p", &record), 1);
    }
    return static_cast<LuOffHeapValue*>(record);
  }
};

TEST_F(InsertRollback, RefusedRecord) {
  insert("present", "value");
  const Rows rows = contentsOf(map);
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("value");
  const jobject javaKey = javaBuffer(key);
  setLevels(kDebugLevel);
  {
    RefuseAllocation refusal(1);
    EXPECT_EQ(insertAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, 3, true,
                           value, 0, 1),
              nullptr);
  }
  EXPECT_EQ(jni.lines().back(), "debug|JNI:insertAndPin:fail allocating a LuOffHeapValue. key=" +
                                    printed(key) + ", hashCode=3, value=" + printed(value));
  setLevels(0);
  drop(key);
  drop(value);
  EXPECT_EQ(contentsOf(map), rows);
  checkMap(env, map);
}

// Deliberate: the new value stays as it is when the map lock cannot be had.
TEST_F(InsertRollback, MapLockFailureLeavesTheValue) {
  const Books before = Books::now();
  setLevels(kEventLevel);
  {
    FailThisLock failure(&map->lock, LockOp::writeLock);
    EXPECT_EQ(insertPinned("key", "value"), nullptr);
  }
  EXPECT_THAT(jni.takePending()->message, HasSubstr("wrlock failure for luMap"));
  LuOffHeapValue* left = lastRecord();
  setLevels(0);
  ASSERT_NE(left, nullptr);
  EXPECT_EQ(Books::now().blocks, before.blocks + 3) << "record, key and value";
  EXPECT_EQ(left->pins, 1);
  EXPECT_EQ(bytesOf(left->key), "key");
  EXPECT_EQ(unpinValue(left), 0U);
  EXPECT_EQ(Books::now(), before);
  checkMap(env, map);
}

TEST_F(InsertRollback, BucketSetLockFailure) {
  insert("present", "value");
  const Books before = Books::now();
  setLevels(kErrorLevel);
  {
    FailThisLock failure(&setOf("key")->mutex, LockOp::lock);
    EXPECT_EQ(insertPinned("key", "value"), nullptr);
  }
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_THAT(jni.lines(), ElementsAre(lockError("BucketSet lum[7]")));
  setLevels(0);
  EXPECT_EQ(Books::now(), before);
  checkMap(env, map);
}

TEST_F(InsertRollback, QueueLockFailureTakesTheEntryOutAgain) {
  insert("present", "value");
  const Rows rows = contentsOf(map);
  const Books before = Books::now();
  const int64_t bytes = bytesUsed();
  {
    FailThisLock failure(&map->revisionQueue[0]->mutex, LockOp::lock);
    EXPECT_EQ(insertPinned("key", "value"), nullptr);
  }
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState,
                    "[updateRevisionQueue] Error acquiring internal queue lock in Nimbra library. "
                    "Queue=Entry Revision Queue"}));
  EXPECT_EQ(contentsOf(map), rows);
  EXPECT_EQ(bytesUsed(), bytes);
  EXPECT_EQ(Books::now().blocks, before.blocks);
  checkMap(env, map);
}

TEST_F(InsertRollback, TakesOutTheNewEntryAndNotItsEqual) {
  // Two boolean keys are equal in their bytes, and the first has no part in the failure.
  const auto insertBoolean = [this] {
    ByteBufferHeader* key = buffer("\1", DESERIALIZED_TYPE_JBOOLEAN);
    ByteBufferHeader* value = buffer("value");
    LuOffHeapValue* made =
        insertAndPin(env, caller, map, nullptr, OBJECT_TYPE_JBOOLEAN, key, 1, true, value, 0, 1);
    drop(key);
    drop(value);
    if (made != nullptr) unpinValue(made, JNI_INSERTED_PIN);
    return made;
  };
  LuOffHeapValue* first = insertBoolean();
  {
    FailThisLock failure(&map->revisionQueue[0]->mutex, LockOp::lock);
    EXPECT_EQ(insertBoolean(), nullptr);
  }
  jni.clearPending();
  EXPECT_EQ(entriesOf(map), std::vector<LuOffHeapValue*>{first});
  checkMap(env, map);
}

TEST_F(InsertRollback, MapUnlockFailureLeavesTheEntryWithItsPins) {
  ByteBufferHeader* key = buffer("key");
  {
    FailThisLock failure(&map->lock, LockOp::unlock);
    EXPECT_EQ(insertPinned("key", "value"), nullptr);
  }
  EXPECT_THAT(jni.takePending()->message, HasSubstr("unlock failure for luMap"));
  EXPECT_EQ(unlock(env, map), 0);
  LuOffHeapValue* left = find(map, "key");
  ASSERT_NE(left, nullptr);
  checkMap(env, map, {{left, 2}});
  unpinValue(left, JNI_INSERTED_PIN);
  unpinValue(left, ALLOCATION_PIN);
  drop(key);
}

// ---- Update ------------------------------------------------------------------------------

class MapUpdate : public MapWrite {};

TEST_F(MapUpdate, TheSnapshotCarriesThePreviousState) {
  LuOffHeapValue* entry = insert("key", "old value", 0, 5);
  const int64_t bytes = bytesUsed();
  const uint64_t oldSize = nimbra::getSize_LuValue(env, entry);
  ByteBufferHeader* oldValue = entry->value;
  const uint64_t oldLength = entry->valueLength;
  LuOffHeapValue* snapshot =
      updatePinned("key", "a new and considerably longer value than the old one was", 2, 9);
  ASSERT_NE(snapshot, nullptr);
  EXPECT_NE(snapshot, entry);
  EXPECT_EQ(snapshot->pins, 1);
  EXPECT_EQ(snapshot->key, entry->key);
  EXPECT_EQ(snapshot->value, oldValue);
  EXPECT_EQ(oldValue->pins, 1);
  EXPECT_EQ(snapshot->valueLength, oldLength);
  EXPECT_EQ(snapshot->hashCode, entry->hashCode);
  EXPECT_EQ(snapshot->flags, clientDirty | hashCodeGiven | HAS_VALUE);
  EXPECT_EQ(snapshot->revisionOwner, 0);
  EXPECT_EQ(snapshot->revisionNumber, 5);
  EXPECT_EQ(snapshot->hashNext, nullptr);
  EXPECT_EQ(snapshot->prev, nullptr);
  EXPECT_EQ(snapshot->next, nullptr);

  EXPECT_EQ(find(map, "key"), entry) << "the table keeps its record";
  EXPECT_EQ(entry->revisionOwner, 2);
  EXPECT_EQ(entry->revisionNumber, 9);
  EXPECT_EQ(entry->value->pins, 1);
  EXPECT_EQ(bytesUsed() - bytes, static_cast<int64_t>(nimbra::getSize_LuValue(env, entry)) -
                                     static_cast<int64_t>(oldSize));
  EXPECT_THAT(revisions(0), IsEmpty());
  EXPECT_EQ(revisions(2), (std::vector<int64_t>{9}));
  checkMap(env, map);
  EXPECT_EQ(bytesOf(snapshot->value), "old value");
  EXPECT_EQ(unpinValue(snapshot), 0U);
  checkMap(env, map);
}

TEST_F(MapUpdate, MinusOneIsAnOrdinaryRevision) {
  insert("key", "value", 0, 5);
  EXPECT_TRUE(update("key", "new", 0, -1));
  EXPECT_EQ(revisions(), (std::vector<int64_t>{-1}));
  checkMap(env, map);
}

TEST_F(MapUpdate, MovesTheEntryWithinItsQueue) {
  insert("one", "1", 0, 1);
  insert("two", "2", 0, 2);
  insert("three", "3", 0, 3);
  EXPECT_TRUE(update("two", "2", 0, 9));
  EXPECT_EQ(revisions(), (std::vector<int64_t>{1, 3, 9}));
  EXPECT_TRUE(update("one", "1", 0, 4));
  EXPECT_EQ(revisions(), (std::vector<int64_t>{3, 4, 9}));
  EXPECT_TRUE(update("two", "2", 0, 0));
  EXPECT_EQ(revisions(), (std::vector<int64_t>{0, 3, 4}));
  checkMap(env, map);
  EXPECT_EQ(map->revisionQueue[0]->maxCount, 3U);
}

TEST_F(MapUpdate, OfAMissingKeyChangesNothing) {
  insert("one", "1", 0, 1);
  const Rows rows = contentsOf(map);
  const Books before = Books::now();
  WriteOutcome outcome = WriteOutcome::done;
  ByteBufferHeader* key = buffer("two");
  ByteBufferHeader* value = buffer("value");
  const jobject javaKey = javaBuffer(key);
  EXPECT_EQ(updateAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, hashFn(key),
                         false, value, 0, 7, &outcome),
            nullptr);
  EXPECT_EQ(outcome, WriteOutcome::none);
  drop(key);
  drop(value);
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_EQ(contentsOf(map), rows);
  EXPECT_EQ(Books::now(), before);
  checkMap(env, map);
}

TEST_F(MapUpdate, OfAMissingKeyForANewOwnerMayGrowTheQueueList) {
  insert("one", "1", 0, 1);
  EXPECT_FALSE(update("two", "2", 4, 7));
  EXPECT_EQ(map->numQueues, 5U);
  EXPECT_EQ(contentsOf(map), (Rows{{"one", {"1", 0, 1}}}));
  checkMap(env, map);
}

TEST_F(MapUpdate, BookmarksMoveToThePredecessor) {
  LuOffHeapValue* one = insert("one", "1", 0, 1);
  LuOffHeapValue* two = insert("two", "2", 0, 2);
  LuOffHeapRevisionOrderQueue* queue = map->revisionQueue[0];
  lockQueue(queue);
  add_bookmark(env, queue, two, 0);
  unlockQueue(queue);
  EXPECT_TRUE(update("two", "2", 0, 5));
  EXPECT_EQ(queue->bookmarks[0], one);
  EXPECT_TRUE(update("one", "1", 0, 6));
  EXPECT_EQ(queue->bookmarks[0], nullptr);
}

TEST_F(MapUpdate, APinnedOldValueOutlivesItsSnapshot) {
  LuOffHeapValue* entry = insert("key", "old", 0, 1);
  ByteBufferHeader* old = entry->value;
  pin(env, old, JNI_GET_PIN);
  EXPECT_TRUE(update("key", "new", 0, 2));
  EXPECT_EQ(old->pins, 1);
  EXPECT_EQ(bytesOf(old), "old");
  EXPECT_EQ(unpinToFree(env, old, JNI_GET_PIN), 0);
  checkMap(env, map);
}

TEST_F(MapUpdate, OfAnEntryWithoutAValueSnapshotsNone) {
  LuOffHeapValue* entry = insert("key", "old", 0, 1);
  // As disk overflow leaves an entry whose value was written out.
  ByteBufferHeader* old = entry->value;
  const uint64_t length = entry->valueLength;
  entry->value = nullptr;
  entry->flags &= static_cast<uint16_t>(~HAS_VALUE);
  LuOffHeapValue* snapshot = updatePinned("key", "new", 0, 2);
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(snapshot->value, nullptr);
  EXPECT_EQ(snapshot->flags, clientDirty | hashCodeGiven);
  EXPECT_EQ(snapshot->valueLength, length);
  EXPECT_EQ(entry->flags & HAS_VALUE, HAS_VALUE);
  EXPECT_EQ(bytesOf(entry->value), "new");
  unpinValue(snapshot);
  freeByteBufferData(env, old);
}

TEST_F(MapUpdate, FindsTheKeyInEachFormatWithoutAKeyBuffer) {
  const auto updateAs = [this](const void* key, uint8_t format, int32_t hash) {
    ByteBufferHeader* value = buffer("new");
    LuOffHeapValue* snapshot =
        updateAndPin(env, caller, map, key, format, nullptr, hash, true, value, 0, 2);
    drop(value);
    if (snapshot != nullptr) unpinValue(snapshot);
    return snapshot != nullptr;
  };
  insert("ab", "old");
  const jbyteArray array = jni.newByteArray({'a', 'b'});
  const jbyteArray other = jni.newByteArray({'a', 'c'});
  EXPECT_TRUE(updateAs(&array, OBJECT_TYPE_JBYTE_ARRAY, hashOf("ab")));
  EXPECT_FALSE(updateAs(&other, OBJECT_TYPE_JBYTE_ARRAY, hashOf("ab")));
  EXPECT_FALSE(updateAs(&array, OBJECT_TYPE_JBYTE_ARRAY, 1)) << "the hash decides first";
  EXPECT_EQ(contentsOf(map), (Rows{{"ab", {"new", 0, 2}}}));
  checkMap(env, map);
}

TEST_F(MapUpdate, BeginsWithOneRecordAtEntryOrElseDebugLevel) {
  insert("key", "value");
  for (const jint level : {kEntryLevel, kDebugLevel, kEventLevel}) {
    setLevels(level);
    EXPECT_TRUE(update("key", "new", 2, 8));
    std::vector<std::string> own;
    for (const std::string& line : jni.lines()) {
      if (line.find("JNI:updateAndPin:luMap=") != std::string::npos) {
        own.push_back(withoutAddresses(line));
      }
    }
    setLevels(0);
    const std::string text =
        "|JNI:updateAndPin:luMap=@ key=@ hashCode=" + std::to_string(hashOf("key")) +
        " value=@ revisionOwner=2 revisionNumber=8 withHashCode=false";
    if (level == kEventLevel) {
      EXPECT_THAT(own, IsEmpty());
    } else {
      EXPECT_THAT(own, ElementsAre((level == kEntryLevel ? "entry" : "debug") + text));
    }
  }
}

// ---- Update's failures -------------------------------------------------------------------

class UpdateRollback : public MapWrite {
 protected:
  void SetUp() override {
    MapWrite::SetUp();
    insert("other", "value", 1, 1);
    entry = insert("key", "old", 0, 5);
    rows = contentsOf(map);
    before = Books::now();
  }
  // The entry left its queue and found no other: as the failure leaves it, then mended.
  void expectUnqueuedThenMend(uint16_t owner) {
    EXPECT_EQ(entry->pins, 1) << "the chain's pin";
    EXPECT_EQ(bytesOf(entry->value), "old");
    EXPECT_EQ(entry->revisionOwner, owner);
    for (uint32_t i = 0; i < map->numQueues; ++i) {
      for (const LuOffHeapValue* queued : valuesOf(map->revisionQueue[i])) {
        EXPECT_NE(queued, entry);
      }
    }
    ASSERT_EQ(wrlock(env, map), 0);
    EXPECT_TRUE(updateRevisionQueue(env, map, nullptr, entry));
    ASSERT_EQ(unlock(env, map), 0);
    EXPECT_EQ(Books::now(), before);
    checkMap(env, map);
  }
  LuOffHeapValue* entry = nullptr;
  Rows rows;
  Books before{};
};

TEST_F(UpdateRollback, MapLockFailure) {
  {
    FailThisLock failure(&map->lock, LockOp::writeLock);
    EXPECT_EQ(updatePinned("key", "new"), nullptr);
  }
  EXPECT_THAT(jni.takePending()->message, HasSubstr("wrlock failure for luMap"));
  EXPECT_EQ(contentsOf(map), rows);
  checkMap(env, map);
}

TEST_F(UpdateRollback, BucketSetLockFailure) {
  setLevels(kErrorLevel);
  {
    FailThisLock failure(&setOf("key")->mutex, LockOp::lock);
    EXPECT_EQ(updatePinned("key", "new"), nullptr);
  }
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_THAT(jni.lines(), ElementsAre(lockError("BucketSet lum[6]")));
  setLevels(0);
  EXPECT_EQ(contentsOf(map), rows);
  checkMap(env, map);
}

TEST_F(UpdateRollback, RefusedSnapshot) {
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("new");
  const jobject javaKey = javaBuffer(key);
  {
    RefuseAllocation refusal(1);
    EXPECT_EQ(updateAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, hashFn(key),
                           false, value, 1, 7),
              nullptr);
  }
  drop(key);
  drop(value);
  EXPECT_EQ(contentsOf(map), rows);
  EXPECT_EQ(Books::now(), before);
  checkMap(env, map);
}

TEST_F(UpdateRollback, AnEntryThatIsInNoQueueIsTolerated) {
  EXPECT_TRUE(removeFromRevisionQueue(env, map, entry));
  EXPECT_TRUE(update("key", "new", 1, 9));
  EXPECT_FALSE(jni.pending().has_value()) << "the removal's exception is cleared";
  EXPECT_EQ(revisions(1), (std::vector<int64_t>{1, 9}));
  checkMap(env, map);
}

TEST_F(UpdateRollback, OldQueueUnlockFailure) {
  {
    FailThisLock failure(&map->revisionQueue[0]->mutex, LockOp::unlock);
    EXPECT_EQ(updatePinned("key", "new", 1, 9), nullptr);
  }
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState,
                    "[updateAndPin] Unlock queue during update's removal from queue failed."}));
  EXPECT_EQ(unlockQueue(map->revisionQueue[0]), 0);
  expectUnqueuedThenMend(1);
}

TEST_F(UpdateRollback, NewQueueUnlockFailure) {
  // The queue is locked twice: the first unlock fails, the one after the removal succeeds.
  {
    FailLock failure(LockRank::queue, LockOp::unlock, 2);
    EXPECT_EQ(updatePinned("key", "new", 1, 9), nullptr);
    EXPECT_TRUE(failure.fired());
  }
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState,
                    "[updateAndPin] Unlocking queue during update's appending to queue failed."}));
  expectUnqueuedThenMend(1);
}

TEST_F(UpdateRollback, MapUnlockFailure) {
  {
    FailLock failure(LockRank::map, LockOp::unlock, 1);
    EXPECT_EQ(updatePinned("key", "new", 1, 9), nullptr);
  }
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState,
                    "[updateAndPin] Unlocking map during update's appending to queue failed."}));
  expectUnqueuedThenMend(1);
}

// ---- Remove ------------------------------------------------------------------------------

class MapRemove : public MapWrite {};

TEST_F(MapRemove, LeavesOnlyTheCallersPin) {
  insert("one", "1", 0, 1);
  LuOffHeapValue* two = insert("two", "2", 0, 2);
  insert("three", "3", 0, 3);
  const int64_t bytes = bytesUsed();
  const auto size = static_cast<int64_t>(nimbra::getSize_LuValue(env, two));
  EXPECT_EQ(removePinned("two"), two);
  EXPECT_EQ(two->pins, 1);
  EXPECT_EQ(bytesOf(two->value), "2") << "readable until the pin goes";
  EXPECT_EQ(bytesUsed(), bytes - size);
  EXPECT_EQ(revisions(), (std::vector<int64_t>{1, 3}));
  EXPECT_EQ(unpinValue(two, JNI_REMOVED_PIN), 0U);
  checkMap(env, map);
  EXPECT_EQ(map->revisionQueue[0]->maxCount, 3U);
}

TEST_F(MapRemove, OfAMissingKeyIsNull) {
  insert("one", "1");
  const Books before = Books::now();
  ByteBufferHeader* key = buffer("two");
  const jobject javaKey = javaBuffer(key);
  WriteOutcome outcome = WriteOutcome::done;
  EXPECT_EQ(removeAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, hashFn(key),
                         false, &outcome),
            nullptr);
  EXPECT_EQ(outcome, WriteOutcome::none);
  drop(key);
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_EQ(Books::now(), before);
  checkMap(env, map);
}

TEST_F(MapRemove, OfTheSameKeyTwiceFindsItOnce) {
  insert("one", "1");
  EXPECT_TRUE(remove("one"));
  EXPECT_FALSE(remove("one"));
  EXPECT_NE(insert("one", "again"), nullptr);
  checkMap(env, map);
}

TEST_F(MapRemove, BookmarksMoveToThePredecessor) {
  LuOffHeapValue* one = insert("one", "1", 0, 1);
  LuOffHeapValue* two = insert("two", "2", 0, 2);
  LuOffHeapRevisionOrderQueue* queue = map->revisionQueue[0];
  lockQueue(queue);
  add_bookmark(env, queue, two, 0);
  unlockQueue(queue);
  EXPECT_TRUE(remove("two"));
  EXPECT_EQ(queue->bookmarks[0], one);
}

TEST_F(MapRemove, FindsTheKeyInEachFormatWithoutAKeyBuffer) {
  insert("ab", "1");
  const jbyteArray array = jni.newByteArray({'a', 'b'});
  const auto removeAs = [this](const void* key, uint8_t format, int32_t hash) {
    LuOffHeapValue* removed = removeAndPin(env, caller, map, key, format, nullptr, hash, true);
    if (removed != nullptr) unpinValue(removed, JNI_REMOVED_PIN);
    return removed != nullptr;
  };
  EXPECT_TRUE(removeAs(&array, OBJECT_TYPE_JBYTE_ARRAY, hashOf("ab")));
  EXPECT_FALSE(removeAs(&array, OBJECT_TYPE_JBYTE_ARRAY, hashOf("ab")));
  checkMap(env, map);
}

TEST_F(MapRemove, ThatCannotLockTheBucketSetChangesNothing) {
  insert("one", "1");
  setLevels(kErrorLevel);
  {
    FailThisLock failure(&setOf("one")->mutex, LockOp::lock);
    EXPECT_EQ(removePinned("one"), nullptr);
  }
  EXPECT_FALSE(jni.pending().has_value());
  EXPECT_THAT(jni.lines(), ElementsAre(lockError("BucketSet lum[8]")));
  setLevels(0);
  EXPECT_EQ(hashtable_size(env, map->map), 1);
  checkMap(env, map);
}

TEST_F(MapRemove, ThatCannotReachTheQueueSaysThatTheMapIsInconsistent) {
  LuOffHeapValue* one = insert("one", "1");
  setLevels(kErrorLevel);
  {
    FailThisLock failure(&map->revisionQueue[0]->mutex, LockOp::lock);
    EXPECT_EQ(removePinned("one"), nullptr);
  }
  ASSERT_EQ(jni.lines().size(), 1U);
  EXPECT_EQ(withoutAddresses(jni.lines()[0]),
            std::string("errorGeneric|") + kLockErrorKey +
                "|error to get lock for the queue. Now, LuOffHeapMap becomes inconsistent. "
                "key=@, hashCode=" +
                std::to_string(hashOf("one")) + ", removedEntry=@ ");
  EXPECT_THAT(jni.lines()[0], HasSubstr("removedEntry=" + printed(one) + " "));
  setLevels(0);
  EXPECT_EQ(hashtable_size(env, map->map), 0);
  EXPECT_EQ(one->pins, 2) << "the queue still holds it";
  EXPECT_TRUE(removeFromRevisionQueue(env, map, one));
  checkMap(env, map);
}

// ---- Copying arrays ----------------------------------------------------------------------

TEST_F(MapWrite, ArrayBytesAreCopiedUpToTheLength) {
  ByteBufferHeader* target = buffer("......");
  const jbyteArray source = jni.newByteArray({'a', 'b', 'c', 'd'});
  EXPECT_TRUE(copyBAToBB(env, target, source, 3));
  EXPECT_EQ(bytesOf(target), "abc...");
  EXPECT_TRUE(copyBAToBB(env, target, source, 0));
  EXPECT_EQ(bytesOf(target), "abc...");
  EXPECT_FALSE(copyBAToBB(env, target, source, 5));
  EXPECT_TRUE(jni.takePending().has_value());
  drop(target);
}

}  // namespace
}  // namespace nimbra::test
