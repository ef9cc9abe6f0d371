// Disk overflow in the operations of a map: the nodes of new, replaced, removed and cleared
// entries, what Java is told of them, and entries whose values are on disk.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "overflow_natives.h"
#include "record_locks.h"

namespace nimbra::test {
namespace {

using natives::handle;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint32_t kFailed = 4294967295U;
constexpr uint16_t kLive = in_memory | recently_used;

class MapOverflow : public PagingTest {
 protected:
  std::string thrown() {
    const std::optional<Thrown> found = jni.takePending();
    return found.has_value() ? found->message : std::string();
  }
  // What Java is told when an entry goes.
  std::vector<jlong> deletionOf(LuOffHeapValue* value) {
    const overflow_metadata* node = nodeOf(value);
    return {static_cast<jlong>(getSize_LuValue(env, value)),
            node->flags,
            7,
            9,
            handle(value),
            node->chunkPtrOffset,
            node->chunkSize,
            node->nextChunkPtrOffset,
            static_cast<jlong>(value->valueLength)};
  }
};

// ---- Insert ------------------------------------------------------------------------------

class OverflowInsert : public MapOverflow {};

TEST_F(OverflowInsert, LinksTheNodeAndTakesItIntoUse) {
  LuOffHeapValue* value = insertInto(12, "key");
  const overflow_metadata* node = nodeOf(value);
  EXPECT_THAT(checkList(12), ElementsAre(node));
  EXPECT_EQ(node->flags, kLive);
  EXPECT_EQ(node->mapHeader, map->map);
  EXPECT_EQ(node->chunkPtrOffset, 0);
  EXPECT_EQ(node->chunkSize, 0);
  EXPECT_EQ(node->nextChunkPtrOffset, 0);
  EXPECT_THAT(calls.deleting, IsEmpty());
  EXPECT_THAT(calls.accesses, IsEmpty());
  checkMap(env, map);
}

TEST_F(OverflowInsert, SpreadsOverTheLists) {
  nextList(998);
  std::vector<overflow_metadata*> nodes;
  for (int i = 0; i < 4; ++i) nodes.push_back(nodeOf(insert("key" + std::to_string(i), "value")));
  EXPECT_THAT(checkList(998), ElementsAre(nodes[0]));
  EXPECT_THAT(checkList(999), ElementsAre(nodes[1]));
  EXPECT_THAT(checkList(0), ElementsAre(nodes[2]));
  EXPECT_THAT(checkList(1), ElementsAre(nodes[3]));
}

TEST_F(OverflowInsert, AllocatesTheRecordWithItsNode) {
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("value");
  const jobject javaKey = javaBuffer(key);
  const Books before = Books::now();
  {
    const RefuseAllocation refusal(1, RefuseAllocation::Way::kNothingLeft,
                                   "LuOffHeapMapValue (Overflow Enabled)");
    EXPECT_EQ(insertAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key, hashFn(key),
                           false, value, 0, 1),
              nullptr);
    EXPECT_TRUE(refusal.fired());
  }
  EXPECT_EQ(Books::now(), before);
  drop(key);
  drop(value);
  EXPECT_EQ(natives::getSize_LuValue(env, manager), 232);
  _isDiskOverflowEnabled = false;
  EXPECT_EQ(natives::getSize_LuValue(env, manager), 88);
  _isDiskOverflowEnabled = true;
}

TEST_F(OverflowInsert, NewRecordHasAnUninitialisedNode) {
  setLevels(kDebugLevel);
  LuOffHeapValue* made = record("key", "value");
  EXPECT_EQ(nodeOf(made)->mapHeader, nullptr);
  EXPECT_EQ(nodeOf(made)->flags, 0);
  EXPECT_EQ(recordsEnding(":NOF: adding 144 to malloc_size"), 1);
  setLevels(0);
  ASSERT_TRUE(initialize_overflow_metadata(env, nodeOf(made), map->map));
  dropRecord(made);
}

TEST_F(OverflowInsert, PresentKeyChangesNothing) {
  LuOffHeapValue* present = insertInto(3, "key", "first");
  const Books before = Books::now();
  EXPECT_EQ(insertInto(4, "key", "second"), nullptr);
  EXPECT_EQ(Books::now(), before);
  EXPECT_THAT(checkLists(), ElementsAre(nodeOf(present)));
  EXPECT_THAT(calls.deleting, IsEmpty()) << "Java never saw the record";
  EXPECT_EQ(bytesOf(present->value), "first");
  checkMap(env, map);
}

TEST_F(OverflowInsert, IsTraced) {
  setLevels(kDebugLevel);
  insertInto(3, "key");
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("KLOR filling in offheap_metadata struct")));
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("KLOR linking metadata to header")));
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("(insert link) locked=")));
  setLevels(0);
}

// ---- Update ------------------------------------------------------------------------------

class OverflowUpdate : public MapOverflow {
 protected:
  // Lets go what an update has left for Java.
  void release(LuOffHeapValue* snapshot) {
    LuOffHeapValue* entry = snapshot->hashNext;
    EXPECT_EQ(natives::unlockMetadata(env, nullptr, handle(entry)), JNI_TRUE);
    unpinValue(snapshot);
  }
};

TEST_F(OverflowUpdate, LeavesTheNodeLockedForTheCaller) {
  LuOffHeapValue* entry = insertInto(3, "key", "first");
  LuOffHeapValue* snapshot = updatePinned("key", "second", 2, 8);
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(holdCount(nodeOf(entry)), 1U);
  EXPECT_EQ(depthOf(nodeOf(snapshot)), 0);
  EXPECT_TRUE(isFree(&setOf("key")->mutex));
  EXPECT_TRUE(isFree(&map->lock));
  release(snapshot);
  EXPECT_EQ(contentsOf(map), (Rows{{"key", {"second", 2, 8}}}));
  EXPECT_THAT(checkLists(), ElementsAre(nodeOf(entry)));
  checkMap(env, map);
}

TEST_F(OverflowUpdate, SnapshotOfAValueInMemory) {
  LuOffHeapValue* entry = insertInto(3, "key", "first");
  changeFlags(entry, 0, recently_used);
  ByteBufferHeader* old = entry->value;
  const uint64_t length = entry->valueLength;
  LuOffHeapValue* snapshot = updatePinned("key", "the second", 0, 8);
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(snapshot->hashNext, entry);
  EXPECT_EQ(natives::getOriginalLuValue(env, manager, handle(snapshot)), handle(entry));
  EXPECT_EQ(nodeOf(snapshot)->flags, kSnapshot | kLive);
  EXPECT_EQ(nodeOf(snapshot)->mapHeader, map->map);
  EXPECT_EQ(nodeOf(snapshot)->prev, nullptr);
  EXPECT_EQ(nodeOf(snapshot)->next, nullptr);
  EXPECT_EQ(snapshot->value, old);
  EXPECT_EQ(snapshot->valueLength, length);
  EXPECT_TRUE(snapshot->flags & HAS_VALUE);
  EXPECT_EQ(snapshot->revisionNumber, 1);
  EXPECT_EQ(old->pins, 1);
  EXPECT_EQ(nodeOf(entry)->flags, kLive) << "in memory and used again";
  EXPECT_EQ(bytesOf(entry->value), "the second");
  EXPECT_EQ(bytesUsed(), sumOfSizes());
  release(snapshot);
}

TEST_F(OverflowUpdate, WithOverflowOffThereIsNoOriginal) {
  LuOffHeapValue* entry = insertInto(3, "key", "first");
  LuOffHeapValue* snapshot = updatePinned("key", "second");
  _isDiskOverflowEnabled = false;
  EXPECT_EQ(natives::getOriginalLuValue(env, manager, handle(snapshot)), 0);
  _isDiskOverflowEnabled = true;
  EXPECT_EQ(snapshot->hashNext, entry);
  release(snapshot);
}

TEST_F(OverflowUpdate, SnapshotOfAValueOnDiskTakesItsPlaceOver) {
  LuOffHeapValue* entry = insertInto(3, "key", "first");
  insertInto(4, "other", "other value");
  const uint64_t length = entry->valueLength;
  pageOutValue(entry, {LLONG_MAX, -5, LLONG_MIN});
  setLevels(kDebugLevel);
  LuOffHeapValue* snapshot = updatePinned("key", std::string(300, 'x'), 0, 8);
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("copied an evicted entry. copiedEntry->flags=")));
  setLevels(0);
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(bytesUsed(), sumOfSizes());
  EXPECT_EQ(nodeOf(snapshot)->flags, 0x2205);
  EXPECT_EQ(nodeOf(snapshot)->chunkPtrOffset, LLONG_MAX);
  EXPECT_EQ(nodeOf(snapshot)->chunkSize, -5);
  EXPECT_EQ(nodeOf(snapshot)->nextChunkPtrOffset, LLONG_MIN);
  EXPECT_EQ(snapshot->value, nullptr);
  EXPECT_EQ(snapshot->valueLength, length);
  EXPECT_FALSE(snapshot->flags & HAS_VALUE);
  EXPECT_EQ(nodeOf(entry)->flags, kLive);
  EXPECT_EQ(nodeOf(entry)->chunkPtrOffset, 0);
  EXPECT_EQ(nodeOf(entry)->chunkSize, 0);
  EXPECT_EQ(nodeOf(entry)->nextChunkPtrOffset, 0);
  EXPECT_EQ(entry->valueLength, sizeofByteBufferHeader(entry->value));
  EXPECT_TRUE(entry->flags & HAS_VALUE);
  release(snapshot);
  // The snapshot carries the copy on disk, and Java lets go of it later.
  ASSERT_EQ(calls.deleting.size(), 1U);
  EXPECT_EQ(calls.deleting[0].at(1), 0x2205);
  EXPECT_EQ(calls.deleting[0].at(4), handle(snapshot));
  EXPECT_EQ(calls.deleting[0].at(5), LLONG_MAX);
  EXPECT_EQ(bytesUsed(), sumOfSizes());
  checkMap(env, map);
}

TEST_F(OverflowUpdate, SnapshotOfAValueInMemoryAndOnDisk) {
  LuOffHeapValue* entry = insertInto(3, "key", "first");
  pageOutValue(entry, {1, 2, 3});
  pageInValue(entry, "first");
  LuOffHeapValue* snapshot = updatePinned("key", "second", 0, 8);
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(nodeOf(snapshot)->flags, kSnapshot | on_disk | kLive);
  EXPECT_EQ(nodeOf(snapshot)->chunkSize, 2);
  EXPECT_EQ(bytesOf(snapshot->value), "first");
  EXPECT_EQ(nodeOf(entry)->flags, kLive);
  EXPECT_EQ(bytesUsed(), sumOfSizes());
  release(snapshot);
  checkMap(env, map);
}

TEST_F(OverflowUpdate, ReleasedSnapshotIsReportedOnce) {
  LuOffHeapValue* entry = insertInto(3, "key", "first");
  LuOffHeapValue* snapshot = updatePinned("key", "second");
  const std::vector<jlong> expected = deletionOf(snapshot);
  EXPECT_EQ(natives::unlockMetadata(env, nullptr, handle(entry)), JNI_TRUE);
  EXPECT_EQ(unpinValue(snapshot), 0U);
  EXPECT_THAT(calls.deleting, ElementsAre(expected));
  EXPECT_THAT(calls.updating, IsEmpty());
}

TEST_F(OverflowUpdate, EntryOnDiskIsRemovedAndInsertedAgain) {
  LuOffHeapValue* entry = insertInto(3, "key", "first");
  pageOutValue(entry);
  const jlong before = bytesUsed();
  EXPECT_TRUE(remove("key"));
  EXPECT_EQ(bytesUsed(), 0);
  EXPECT_NE(insertInto(4, "key", "first"), nullptr);
  EXPECT_EQ(bytesUsed(), before);
  EXPECT_EQ(bytesUsed(), sumOfSizes());
}

TEST_F(OverflowUpdate, MissingKeyLocksNothing) {
  LuOffHeapValue* entry = insertInto(3, "key", "first");
  EXPECT_EQ(updatePinned("missing", "value"), nullptr);
  expectFree(entry);
  EXPECT_THAT(checkLists(), ElementsAre(nodeOf(entry)));
}

// ---- Remove, clear, delete ---------------------------------------------------------------

class OverflowRemove : public MapOverflow {};

TEST_F(OverflowRemove, TakesTheNodeOutOfItsList) {
  LuOffHeapValue* behind = insertInto(3, "behind");
  LuOffHeapValue* entry = insertInto(3, "key");
  LuOffHeapValue* before = insertInto(3, "before");
  LuOffHeapValue* removed = removePinned("key");
  EXPECT_EQ(removed, entry);
  EXPECT_EQ(nodeOf(entry)->prev, nullptr);
  EXPECT_EQ(nodeOf(entry)->next, nullptr);
  EXPECT_THAT(checkList(3), ElementsAre(nodeOf(before), nodeOf(behind)));
  EXPECT_THAT(calls.deleting, IsEmpty()) << "Java still holds the record";
  EXPECT_FALSE(isFlagSet(is_invalid, nodeOf(entry)));
  const std::vector<jlong> expected = deletionOf(entry);
  EXPECT_EQ(unpinValue(removed, JNI_REMOVED_PIN), 0U);
  EXPECT_THAT(calls.deleting, ElementsAre(expected));
  checkMap(env, map);
}

TEST_F(OverflowRemove, ClearTakesEveryNodeOutAndTellsJava) {
  std::vector<std::vector<jlong>> expected;
  for (int i = 0; i < 5; ++i) {
    LuOffHeapValue* value = insertInto(i / 2, "key" + std::to_string(i));
    if (i == 3) pageOutValue(value, {1, 2, 3});
    expected.push_back(deletionOf(value));
  }
  EXPECT_TRUE(natives::clear(env, caller, handle(map)));
  EXPECT_THAT(checkLists(), IsEmpty());
  EXPECT_THAT(calls.deleting, ::testing::UnorderedElementsAreArray(expected));
  EXPECT_EQ(bytesUsed(), 0);
  dropReverseMapPins();
  EXPECT_EQ(calls.deleting.size(), 5U) << "nothing is reported twice";
  checkMap(env, map);
}

TEST_F(OverflowRemove, ClearedEntryThatJavaPinsIsOutOfItsList) {
  LuOffHeapValue* value = insertInto(3, "key");
  pin(env, value, JNI_GET_PIN);
  EXPECT_TRUE(natives::clear(env, caller, handle(map)));
  EXPECT_THAT(checkLists(), IsEmpty());
  EXPECT_THAT(calls.deleting, IsEmpty());
  expectFree(value);
  EXPECT_EQ(unpinValue(value, JNI_GET_PIN), 0U);
  EXPECT_EQ(calls.deleting.size(), 1U);
}

TEST_F(OverflowRemove, DeletedMapTakesItsNodesAlong) {
  LuOffHeapMap* kept = map;
  LuOffHeapValue* stays = insertInto(3, "stays");
  map = makeMap();
  std::vector<LuOffHeapValue*> leaked;
  for (int i = 0; i < 3; ++i) leaked.push_back(insertInto(3, "key" + std::to_string(i)));
  EXPECT_TRUE(natives::deleteLuOffHeapMap(env, caller, handle(map)));
  map = kept;
  EXPECT_THAT(checkLists(), ElementsAre(nodeOf(stays)));
  // What the deletion leaves: records, keys and values.
  for (LuOffHeapValue* value : leaked) {
    EXPECT_EQ(nodeOf(value)->next, nullptr);
    EXPECT_EQ(depthOf(nodeOf(value)), 0);
    freeByteBufferData(env, value->key);
    freeByteBufferData(env, value->value);
    EXPECT_TRUE(overflow_metadata_uninit_metadata(env, nodeOf(value)));
    freeLuOffHeapValue(env, map, value);
  }
}

// ---- The last pin ------------------------------------------------------------------------

// A record in list 3 with one pin of the test.
class ValueRetirement : public MapOverflow {
 protected:
  void SetUp() override {
    MapOverflow::SetUp();
    value = linkedRecord(3, "key", "the value");
    ASSERT_NE(value, nullptr);
    node = nodeOf(value);
  }
  // Frees a record that a failure has left, without another word to Java.
  void freeLeft() {
    while (holdCount(node) > 0) EXPECT_TRUE(overflow_metadata_unlock(env, "test", node));
    changeFlags(value, is_invalid);
    pin(env, value, ALLOCATION_PIN);
    EXPECT_EQ(unpinValue(value), 0U);
  }
  void putOnDisk() {
    natives::evictedToDisk(env, nullptr, handle(value), LLONG_MIN, -9, LLONG_MAX);
  }

  LuOffHeapValue* value = nullptr;
  overflow_metadata* node = nullptr;
};

TEST_F(ValueRetirement, TellsJavaNineElements) {
  const auto size = static_cast<jlong>(getSize_LuValue(env, value));
  const auto length = static_cast<jlong>(value->valueLength);
  EXPECT_EQ(unpinValue(value), 0U);
  EXPECT_THAT(calls.deleting,
              ElementsAre(ElementsAre(size, 0x0005, 7, 9, handle(value), 0, 0, 0, length)));
  EXPECT_THAT(checkLists(), IsEmpty());
}

TEST_F(ValueRetirement, EarlierPinsTellNothing) {
  pin(env, value, JNI_GET_PIN);
  setLevels(kEntryLevel);
  EXPECT_EQ(unpinValue(value), 1U);
  EXPECT_EQ(recordsEnding(":luValue=" + printed(value) + "  remaining pins=1"), 1);
  setLevels(0);
  EXPECT_THAT(calls.deleting, IsEmpty());
  EXPECT_THAT(checkList(3), ElementsAre(node));
  EXPECT_EQ(unpinValue(value, JNI_GET_PIN), 0U);
}

TEST_F(ValueRetirement, CopyOnDiskKeepsTheRecordForJava) {
  const auto size = static_cast<jlong>(getSize_LuValue(env, value));
  const auto length = static_cast<jlong>(value->valueLength);
  putOnDisk();
  EXPECT_EQ(unpinValue(value), 1U);
  EXPECT_THAT(calls.deleting, ElementsAre(ElementsAre(size, 0x0204, 7, 9, handle(value), LLONG_MIN,
                                                      -9, LLONG_MAX, length)));
  EXPECT_EQ(value->pins, 1);
  EXPECT_EQ(node->flags, 0x0206);
  EXPECT_EQ(bytesOf(value->key), "key");
  EXPECT_THAT(checkLists(), IsEmpty());
  EXPECT_EQ(depthOf(node), 0);
  EXPECT_EQ(natives::unpinLuOffHeapValue_native(env, manager, handle(value),
                                                static_cast<jint>(JAVA_NOF_REVERSEMAP_PIN)),
            0);
  EXPECT_EQ(calls.deleting.size(), 1U) << "told once";
  calls.deleting.clear();
}

TEST_F(ValueRetirement, CopyOnDiskOfAValueInMemoryKeepsBoth) {
  putOnDisk();
  natives::valueToLuOffHeapValue(env, nullptr, javaBuffer(buffer("the value")), handle(value));
  EXPECT_EQ(unpinValue(value), 1U);
  EXPECT_EQ(calls.deleting.at(0).at(1), 0x0205);
  EXPECT_EQ(bytesOf(value->value), "the value");
}

// Java lets go of a copy on disk at a time of its own: the table may be gone by then.
TEST_F(ValueRetirement, ReverseMapPinMayOutliveTheMap) {
  LuOffHeapMap* kept = map;
  map = makeMap();
  pageOutValue(insertInto(5, "key"));
  deleteMap(map);
  map = kept;
  ASSERT_EQ(calls.deleting.size(), 1U);
  for (const jint levels : {kAllLevels, 0}) {
    setLevels(levels);
    dropReverseMapPins();
  }
  EXPECT_EQ(calls.deleting.size(), 1U) << "told once";
  setLevels(0);
  dropRecord(value);
}

TEST_F(ValueRetirement, UnlinkedNodeIsReportedAllTheSame) {
  EXPECT_TRUE(overflow_metadata_splice_out(env, node, false));
  EXPECT_EQ(unpinValue(value), 0U);
  EXPECT_EQ(calls.deleting.size(), 1U);
}

TEST_F(ValueRetirement, NodeThatJavaKnowsToBeGoneIsNotReported) {
  changeFlags(value, is_invalid);
  EXPECT_EQ(unpinValue(value), 0U);
  EXPECT_THAT(calls.deleting, IsEmpty());
  EXPECT_THAT(checkLists(), IsEmpty());
}

TEST_F(ValueRetirement, IsTraced) {
  setLevels(kDebugLevel | kEventLevel);
  unpinValue(value);
  const std::string dying =
      ":luValue=" + printed(value) + " pins <= 0, freeing constituent members";
  EXPECT_EQ(recordsEnding(dying), 2) << "a debug record and an event";
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("luOffHeapValue=" + printed(value) + " => KLOR ")));
  EXPECT_EQ(recordsEnding(":chunkptr = [offset 0, size 0, next 0]"), 1);
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("(remove splice-out) locked=" + printed(node))));
  setLevels(0);
}

TEST_F(ValueRetirement, JavasExceptionIsClearedAndKeepsTheRecord) {
  calls.onDeleting = [](ScriptedJni& running) {
    running.throwNew("java/lang/RuntimeException", "no");
  };
  EXPECT_EQ(unpinValue(value), kFailed);
  EXPECT_EQ(jni.pending(), std::nullopt);
  EXPECT_EQ(bytesOf(value->key), "key");
  EXPECT_EQ(bytesOf(value->value), "the value");
  EXPECT_EQ(node->next, nullptr);
  calls.onDeleting = nullptr;
  freeLeft();
  EXPECT_EQ(calls.deleting.size(), 1U);
}

TEST_F(ValueRetirement, ArgumentArrayThatCannotBeMadeKeepsTheRecord) {
  jni.failCall("NewLongArray", 1, Thrown{kOutOfMemory, "Java heap space"});
  EXPECT_EQ(unpinValue(value), kFailed);
  EXPECT_EQ(jni.pending(), std::nullopt);
  EXPECT_THAT(calls.deleting, IsEmpty());
  freeLeft();
}

TEST_F(ValueRetirement, FailedNodeLockKeepsTheRecord) {
  {
    const FailThisLock failure(&node->mutex, LockOp::lock);
    EXPECT_EQ(unpinValue(value), kFailed);
  }
  EXPECT_THAT(thrown(), HasSubstr("pthread_mutex_lock() failed"));
  EXPECT_THAT(checkList(3), ElementsAre(node));
  EXPECT_THAT(calls.deleting, IsEmpty());
  freeLeft();
}

TEST_F(ValueRetirement, FailedSpliceOutLeavesTheNodeLocked) {
  // The end of the try on the header, which stands on both sides. What follows is out of order: the
  // header's inner mutex stays locked.
  void (*const handler)(const LockViolation&) = lockViolationHandler;
  lockViolationHandler = [](const LockViolation&) {};
  {
    const FailThisLock failure(&headerOf(3)->mutex, LockOp::unlock);
    EXPECT_EQ(underFailingLock([&] { return unpinValue(value); }), kFailed);
    EXPECT_EQ(failure.fired(), 1);
  }
  lockViolationHandler = handler;
  EXPECT_FALSE(thrown().empty());
  EXPECT_EQ(mutexUnlock(&headerOf(3)->mutex, LockRank::node), 0);
  EXPECT_EQ(holdCount(node), 1U);
  EXPECT_EQ(node->next, headerOf(3));
  EXPECT_THAT(calls.deleting, IsEmpty());
  while (holdCount(headerOf(3)) > 0) {
    EXPECT_TRUE(overflow_metadata_unlock(env, "test", headerOf(3)));
  }
  freeLeft();
}

// ---- Reads -------------------------------------------------------------------------------

class OverflowGet : public MapOverflow {
 protected:
  void SetUp() override {
    MapOverflow::SetUp();
    attributes = jni.newLongArray({-1, -1, -1, -1});
    value = insertInto(3, "key", "the value");
    changeFlags(value, 0, recently_used);
  }
  jbyteArray array(std::string_view bytes) {
    return jni.newByteArray(std::vector<uint8_t>(bytes.begin(), bytes.end()));
  }
  LuOffHeapValue* getByArray(jboolean touch = JNI_FALSE) {
    LuOffHeapValue* found = natives::asValue(natives::getLuValue_ByteArray(
        env, caller, handle(map), attributes, array("key"), hashOf("key"), 0, touch, 5));
    if (found != nullptr) unpinValue(found, JNI_GET_PIN);
    return found;
  }

  jlongArray attributes = nullptr;
  LuOffHeapValue* value = nullptr;
};

TEST_F(OverflowGet, ValueInMemoryIsReportedAndMarked) {
  EXPECT_EQ(getByArray(), value);
  EXPECT_THAT(calls.accesses, ElementsAre(ElementsAre(7, 1)));
  EXPECT_EQ(nodeOf(value)->flags, kLive);
  const std::vector<jlong> words = jni.longsOf(attributes);
  EXPECT_EQ(words.at(2), handle(bufferData(value->value)));
  EXPECT_EQ(words.at(3), 9);
  expectFree(value);
}

TEST_F(OverflowGet, ValueOnDiskIsReportedWithZeros) {
  pageOutValue(value);
  EXPECT_EQ(getByArray(), value);
  EXPECT_THAT(calls.accesses, ElementsAre(ElementsAre(7, 0)));
  EXPECT_EQ(nodeOf(value)->flags, on_disk | recently_used);
  EXPECT_THAT(jni.longsOf(attributes), ElementsAre(handle(bufferData(value->key)), 3, 0, 0));
}

TEST_F(OverflowGet, TouchReportsOnceAndMovesTheEntry) {
  EXPECT_EQ(getByArray(JNI_TRUE), value);
  EXPECT_EQ(calls.accesses.size(), 1U);
  EXPECT_EQ(value->revisionNumber, 5);
  checkMap(env, map);
}

TEST_F(OverflowGet, MissingKeyIsNotReported) {
  EXPECT_EQ(natives::getLuValue_ByteArray(env, caller, handle(map), attributes, array("missing"),
                                          hashOf("missing"), 0, JNI_FALSE, 0),
            0);
  EXPECT_THAT(calls.accesses, IsEmpty());
}

TEST_F(OverflowGet, EveryGetterReports) {
  constexpr jint kHash = 77;
  ByteBufferHeader* text = buffer(std::string("\0t\0x", 4), DESERIALIZED_TYPE_JSTRING);
  const double number = 2.5;
  const std::string numberBytes(reinterpret_cast<const char*>(&number), sizeof number);
  ByteBufferHeader* numeric = buffer(numberBytes, DESERIALIZED_TYPE_JDOUBLE);
  for (ByteBufferHeader* key : {text, numeric}) {
    ByteBufferHeader* stored = buffer("v");
    const jobject javaKey = javaBuffer(key);
    LuOffHeapValue* made = insertAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key,
                                        kHash, true, stored, 0, 1);
    ASSERT_NE(made, nullptr);
    unpinValue(made, JNI_INSERTED_PIN);
    drop(stored);
  }
  drop(text);
  drop(numeric);
  calls.accesses.clear();

  const auto take = [&](jlong found) {
    ASSERT_NE(found, 0);
    unpinValue(natives::asValue(found), NATIVE_TRANSIENT_GET_PIN);
  };
  take(natives::getLuValue_String(env, caller, handle(map), attributes, jni.newString(u"tx"), 0,
                                  kHash, 0, JNI_FALSE, 0));
  EXPECT_EQ(calls.accesses.size(), 1U);
  take(natives::getLuValue_Number(env, caller, handle(map), kHash, 0, JNI_FALSE, 0, number));
  EXPECT_EQ(calls.accesses.size(), 2U);
  ByteBufferHeader* key = buffer("key");
  take(natives::getLuValue_ByteBuffer(env, caller, handle(map), javaBuffer(key), -1, 0, JNI_FALSE,
                                      0));
  drop(key);
  EXPECT_THAT(calls.accesses, ElementsAre(ElementsAre(7, 1), ElementsAre(7, 1), ElementsAre(7, 1)));
}

TEST_F(OverflowGet, JavasExceptionIsCleared) {
  calls.onAccess = [](ScriptedJni& running) {
    running.throwNew("java/lang/RuntimeException", "no");
  };
  setLevels(kErrorLevel);
  EXPECT_EQ(getByArray(), value);
  EXPECT_EQ(jni.pending(), std::nullopt);
  EXPECT_THAT(jni.lines(), Contains("errorGeneric|OFFHEAP_GENERIC_ERROR_KTZAR7929|caught exception "
                                    "in invoked_get_occured"));
}

TEST_F(OverflowGet, FailedNodeLockReportsNothing) {
  {
    const FailThisLock failure(&nodeOf(value)->mutex, LockOp::lock);
    EXPECT_EQ(
        natives::asValue(natives::getLuValue_ByteArray(
            env, caller, handle(map), attributes, array("key"), hashOf("key"), 0, JNI_FALSE, 0)),
        value);
  }
  EXPECT_THAT(calls.accesses, IsEmpty());
  jni.clearPending();
  unpinValue(value, JNI_GET_PIN);
}

TEST_F(OverflowGet, ContainmentIsNoAccess) {
  EXPECT_TRUE(
      natives::containsKeyWithHashCodeBA(env, caller, handle(map), array("key"), hashOf("key")));
  EXPECT_THAT(calls.accesses, IsEmpty());
  EXPECT_EQ(nodeOf(value)->flags, in_memory);
}

TEST_F(OverflowGet, SizeIsReadUnderTheNodesLock) {
  const auto size = static_cast<jlong>(getSize_LuValue(env, value));
  setLevels(kDebugLevel);
  EXPECT_EQ(natives::getSize(env, nullptr, handle(value)), size);
  EXPECT_EQ(recordsEnding(":(getSize) locked=" + printed(nodeOf(value)) + " lock_depth=1"), 1);
  EXPECT_EQ(recordsEnding(":decrement. locked=" + printed(nodeOf(value)) + " lock_depth=0"), 1);
  setLevels(0);
  expectFree(value);
}

TEST_F(OverflowGet, SizeOfAValueOnDiskSaysSo) {
  pageOutValue(value);
  setLevels(kDebugLevel);
  natives::getSize(env, nullptr, handle(value));
  EXPECT_EQ(recordsEnding(":HAS_VALUE flag not set (value has been offloaded to disk)"), 1);
  setLevels(0);
}

// ---- Revision queries --------------------------------------------------------------------

class OverflowQuery : public MapOverflow {
 protected:
  // The words of a query over everything of owner 0.
  std::vector<int64_t> query() {
    std::vector<int64_t> words(1 + 9 * 8, -1);
    EXPECT_EQ(natives::queryRevisionAndPinWithBounds(
                  env, caller, handle(map),
                  jni.newDirectBuffer(words.data(), static_cast<jlong>(8 * words.size())), 0,
                  jni.newLongArray({0}), jni.newLongArray({100})),
              0);
    return words;
  }
  void drop(LuOffHeapValue* value, ByteBufferHeader* held) {
    const uint32_t transport = JAVA_TRANSPORT_PIN | JNI_CONVERT_FROM_JAVA_PIN;
    unpinToFree(env, value->key, transport);
    if (held != nullptr) unpinToFree(env, held, transport);
    unpinValue(value, JNI_QUERYREVISION_PIN);
  }
};

TEST_F(OverflowQuery, LeavesEveryReportedNodeLocked) {
  LuOffHeapValue* first = insert("first", "1", 0, 1);
  LuOffHeapValue* gone = insert("gone", "2", 0, 2);
  pageOutValue(gone);
  setLevels(kDebugLevel);
  const std::vector<int64_t> words = query();
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("(QueryRevision) locked=" + printed(nodeOf(first)))));
  setLevels(0);
  ASSERT_EQ(words[0], 2);
  EXPECT_EQ(words[1], handle(first));
  EXPECT_EQ(words[1 + 3], handle(bufferData(first->value)));
  EXPECT_EQ(words[1 + 4], 1);
  EXPECT_EQ(words[10], handle(gone));
  EXPECT_EQ(words[10 + 1], handle(bufferData(gone->key)));
  EXPECT_EQ(words[10 + 3], 0);
  EXPECT_EQ(words[10 + 4], 0);
  EXPECT_EQ(words[10 + 6], 2);
  EXPECT_EQ(words[10 + 8], 0);
  for (LuOffHeapValue* value : {first, gone}) {
    EXPECT_EQ(holdCount(nodeOf(value)), 1U);
    EXPECT_EQ(value->pins, 4);
    EXPECT_EQ(natives::unlockMetadata(env, nullptr, handle(value)), JNI_TRUE);
    drop(value, value->value);
  }
  EXPECT_EQ(heldLockCount(), 0);
}

TEST_F(OverflowQuery, FailedNodeLockEndsItWithNothingFound) {
  LuOffHeapValue* first = insert("first", "1", 0, 1);
  LuOffHeapValue* second = insert("second", "2", 0, 2);
  std::vector<int64_t> words;
  {
    const FailThisLock failure(&nodeOf(second)->mutex, LockOp::lock);
    words = query();
    EXPECT_EQ(failure.fired(), 1);
  }
  jni.clearPending();
  EXPECT_EQ(words[0], 0);
  EXPECT_EQ(heldLockCount(), 0) << "queue and map are let go";
  EXPECT_EQ(holdCount(nodeOf(first)), 1U) << "what was taken stays";
  EXPECT_EQ(holdCount(nodeOf(second)), 0U);
  EXPECT_EQ(natives::unlockMetadata(env, nullptr, handle(first)), JNI_TRUE);
  drop(first, first->value);
  drop(second, nullptr);
  checkMap(env, map);
}

}  // namespace
}  // namespace nimbra::test
