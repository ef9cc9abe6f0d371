// Revision queries: what they report and pin, where they resume, and what a failing lock leaves.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "map_natives.h"
#include "map_support.h"
#include "record_locks.h"

namespace nimbra::test {
namespace {

using natives::asValue;
using natives::handle;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint32_t kTransport = JAVA_TRANSPORT_PIN | JNI_CONVERT_FROM_JAVA_PIN;
constexpr int64_t kUntouched = 0x5A5A5A5A5A5A5A5A;

class QueryTest : public MapTest {
 protected:
  jlong mapHandle() { return handle(map); }

  // One reported entry.
  struct Found {
    LuOffHeapValue* entry;
    int owner;
    int64_t revision;
    bool operator==(const Found&) const = default;
  };

  // Calls the native with an area for `room` entries; the words stay in `words`.
  void call(jint bookmark, const std::vector<jlong>& starts, const std::vector<jlong>& ends,
            std::size_t room = 64) {
    words.assign(2 + 9 * room, kUntouched);
    EXPECT_EQ(natives::queryRevisionAndPinWithBounds(
                  env, caller, mapHandle(),
                  jni.newDirectBuffer(words.data(), static_cast<jlong>(8 * words.size())), bookmark,
                  jni.newLongArray(starts), jni.newLongArray(ends)),
              0);
  }
  // The entries of the last call, each compared word by word. Drops Java's pins.
  std::vector<Found> take() {
    std::vector<Found> result;
    const auto count = static_cast<std::size_t>(words[0]);
    for (std::size_t i = 0; i < count; ++i) {
      const int64_t* at = &words[1 + 9 * i];
      LuOffHeapValue* entry = asValue(at[0]);
      const bool inMemory = (entry->flags & HAS_VALUE) != 0;
      EXPECT_EQ(at[1], handle(bufferData(entry->key)));
      EXPECT_EQ(at[2], static_cast<int64_t>(entry->key->dataSize));
      EXPECT_EQ(at[3], inMemory ? handle(bufferData(entry->value)) : 0);
      EXPECT_EQ(at[4], inMemory ? static_cast<int64_t>(entry->value->dataSize) : 0);
      EXPECT_EQ(at[5], entry->revisionOwner);
      EXPECT_EQ(at[6], entry->revisionNumber);
      EXPECT_EQ(at[7], entry->key->deserializedType);
      EXPECT_EQ(at[8], inMemory ? entry->value->deserializedType : 0);
      result.push_back({entry, static_cast<int>(at[5]), at[6]});
    }
    EXPECT_EQ(words[1 + 9 * count], kUntouched) << "nothing is written behind the last entry";
    for (const Found& found : result) letGo(found.entry);
    return result;
  }
  std::vector<Found> query(jint bookmark, const std::vector<jlong>& starts,
                           const std::vector<jlong>& ends) {
    call(bookmark, starts, ends);
    return take();
  }
  std::vector<int64_t> revisionsAfter(jint bookmark, jlong start, jlong end) {
    std::vector<int64_t> result;
    for (const Found& found : query(bookmark, {start}, {end})) result.push_back(found.revision);
    return result;
  }
  void letGo(LuOffHeapValue* entry) {
    if ((entry->flags & HAS_VALUE) != 0) unpinToFree(env, entry->value, kTransport);
    unpinToFree(env, entry->key, kTransport);
    natives::unpinLuOffHeapValue_native(env, manager, handle(entry),
                                        static_cast<jint>(JNI_QUERYREVISION_PIN));
  }
  // Drops whatever an unfinished query left pinned; returns the number of such entries.
  int letGoOfAll() {
    int held = 0;
    for (LuOffHeapValue* entry : entriesOf(map)) {
      if (entry->pins == 3) continue;
      EXPECT_EQ(entry->pins, 4);
      EXPECT_EQ(entry->key->pins, 2);
      EXPECT_EQ(entry->value->pins, 2);
      letGo(entry);
      ++held;
    }
    return held;
  }

  LuOffHeapRevisionOrderQueue* queue(uint32_t owner) { return map->revisionQueue[owner]; }
  std::vector<LuOffHeapValue*> bookmarksOf(uint32_t owner) {
    return {queue(owner)->bookmarks, queue(owner)->bookmarks + queue(owner)->numBookmarks};
  }
  // Entries "a", "b", ... of owner 0 with these revisions.
  std::vector<LuOffHeapValue*> fill(const std::vector<int64_t>& revisions) {
    std::vector<LuOffHeapValue*> made;
    for (const int64_t revision : revisions) {
      made.push_back(
          insert(std::string(1, static_cast<char>('a' + made.size())), "value", 0, revision));
    }
    return made;
  }

  std::vector<int64_t> words;
};

class RevisionQuery : public QueryTest {};

// ---- What is reported --------------------------------------------------------------------

TEST_F(RevisionQuery, WritesNineWordsForEachEntryAndPinsWhatTheyName) {
  ByteBufferHeader* key = buffer("the key", DESERIALIZED_TYPE_JSTRING);
  ByteBufferHeader* value = buffer("the value", DESERIALIZED_TYPE_OTHER);
  LuOffHeapValue* entry = asValue(natives::insertAndGetNewAndPin(
      env, caller, mapHandle(), javaBuffer(key), javaBuffer(value), 2, 8));
  drop(key);
  drop(value);
  unpinValue(entry, JNI_INSERTED_PIN);

  call(0, {0, 0, 0}, {10, 10, 10});
  EXPECT_EQ(words[0], 1);
  EXPECT_EQ(std::vector<int64_t>(words.begin() + 1, words.begin() + 11),
            (std::vector<int64_t>{handle(entry), handle(bufferData(entry->key)), 7,
                                  handle(bufferData(entry->value)), 9, 2, 8,
                                  DESERIALIZED_TYPE_JSTRING, DESERIALIZED_TYPE_OTHER, kUntouched}));
  EXPECT_EQ(entry->pins, 4);
  EXPECT_EQ(entry->key->pins, 2);
  EXPECT_EQ(entry->value->pins, 2);
  EXPECT_EQ(take().size(), 1U);
  checkMap(env, map);
}

TEST_F(RevisionQuery, AnEntryThatIsRemovedMeanwhileStaysReadable) {
  insert("key", "value", 0, 5);
  call(0, {0}, {10});
  EXPECT_TRUE(remove("key"));
  LuOffHeapValue* entry = asValue(words[1]);
  EXPECT_EQ(bytesOf(entry->key), "key");
  EXPECT_EQ(bytesOf(entry->value), "value");
  EXPECT_EQ(take().size(), 1U) << "the last pins free it";
}

TEST_F(RevisionQuery, StartsAboveTheFirstBoundAndEndsAtTheSecond) {
  fill({1, 2, 3, 4, 5});
  EXPECT_THAT(revisionsAfter(-1, 2, 4), ElementsAre(3, 4));
  EXPECT_THAT(revisionsAfter(-1, 0, 1), ElementsAre(1));
  EXPECT_THAT(revisionsAfter(-1, 5, 100), IsEmpty());
  EXPECT_THAT(revisionsAfter(-1, INT64_MIN, INT64_MAX), ElementsAre(1, 2, 3, 4, 5));
  checkMap(env, map);
}

TEST_F(RevisionQuery, EqualRevisionsComeInTheirOrder) {
  const std::vector<LuOffHeapValue*> made = fill({5, 5, 3, 5});
  const std::vector<Found> found = query(0, {0}, {5});
  ASSERT_EQ(found.size(), 4U);
  EXPECT_EQ(found[0].entry, made[2]);
  EXPECT_EQ(found[1].entry, made[0]);
  EXPECT_EQ(found[2].entry, made[1]);
  EXPECT_EQ(found[3].entry, made[3]);
}

TEST_F(RevisionQuery, NegativeRevisionsAreReportedWhenTheEndIsPositive) {
  fill({-5, -1, 0, 1});
  EXPECT_THAT(revisionsAfter(-1, -3, 1), ElementsAre(-1, 0, 1));
  EXPECT_THAT(revisionsAfter(-1, -9, 0), IsEmpty()) << "an end below one skips the owner";
  EXPECT_THAT(revisionsAfter(-1, INT64_MIN, -1), IsEmpty());
}

TEST_F(RevisionQuery, SkipsOwnersWithoutARange) {
  for (uint16_t owner = 0; owner < 4; ++owner) {
    insert("key" + std::to_string(owner), "value", owner, 5);
  }
  const auto owners = [&](const std::vector<jlong>& starts, const std::vector<jlong>& ends) {
    std::vector<int> result;
    for (const Found& found : query(0, starts, ends)) result.push_back(found.owner);
    return result;
  };
  EXPECT_THAT(owners({0, 0, 0, 0}, {9, 9, 9, 9}), ElementsAre(0, 1, 2, 3));
  EXPECT_THAT(owners({9, 0, 0, 0}, {9, 9, 9, 9}), ElementsAre(1, 2, 3)) << "start at the end";
  EXPECT_THAT(owners({0, 10, 0, 0}, {9, 9, 9, 9}), ElementsAre(0, 2, 3)) << "start beyond it";
  EXPECT_THAT(owners({0, 0, -5, 0}, {9, 9, 0, 9}), ElementsAre(0, 1, 3)) << "end below one";
  EXPECT_THAT(owners({0, 0}, {9, 9}), ElementsAre(0, 1)) << "fewer bounds than queues";
  EXPECT_THAT(owners({0, 0, 0, 0, 0, 0}, {9, 9, 9, 9, 9, 9}), ElementsAre(0, 1, 2, 3));
  EXPECT_EQ(map->numQueues, 4U) << "a query makes no queue";
  checkMap(env, map);
}

TEST_F(RevisionQuery, ASkippedOwnersBookmarkStays) {
  const std::vector<LuOffHeapValue*> made = fill({1, 2, 3});
  EXPECT_THAT(revisionsAfter(0, 0, 2), ElementsAre(1, 2));
  EXPECT_THAT(revisionsAfter(0, 9, 9), IsEmpty());
  EXPECT_THAT(bookmarksOf(0), ElementsAre(made[1]));
}

TEST_F(RevisionQuery, AnEmptyMapHasNothing) {
  EXPECT_TRUE(query(0, {0}, {10}).empty());
  EXPECT_EQ(words[0], 0);
  EXPECT_THAT(bookmarksOf(0), ElementsAre(nullptr));
}

TEST_F(RevisionQuery, AValueThatIsNotInMemoryHasZeros) {
  LuOffHeapValue* entry = insert("key", "value", 0, 5);
  entry->flags = static_cast<uint16_t>(entry->flags & ~HAS_VALUE);
  call(0, {0}, {10});
  EXPECT_EQ(words[0], 1);
  EXPECT_EQ(words[4], 0);
  EXPECT_EQ(words[5], 0);
  EXPECT_EQ(words[9], 0);
  EXPECT_EQ(entry->value->pins, 1) << "not pinned";
  take();
  entry->flags |= HAS_VALUE;
  checkMap(env, map);
}

TEST_F(RevisionQuery, AThousandEntries) {
  for (int i = 0; i < 1000; ++i) insert("key" + std::to_string(i), "value", 0, i + 1);
  call(0, {0}, {1000}, 1000);
  const std::vector<Found> found = take();
  ASSERT_EQ(found.size(), 1000U);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(found[static_cast<std::size_t>(i)].revision, i + 1);
  checkMap(env, map);
}

// ---- Arguments ---------------------------------------------------------------------------

TEST_F(RevisionQuery, EmptyArraysFindNothingAndTouchNothing) {
  insert("key", "value", 0, 5);
  setLevels(kDebugLevel);
  RecordLocks locks;
  call(3, {}, {});
  EXPECT_EQ(words[0], 0);
  EXPECT_TRUE(locks.operations().empty());
  EXPECT_THAT(jni.lines(),
              Contains(HasSubstr("Passed in bounds are invalid. numOwners=0 startRevsNative=")));
  EXPECT_EQ(queue(0)->numBookmarks, 0U);
}

TEST_F(RevisionQuery, ANullMapFindsNothing) {
  setLevels(kDebugLevel);
  words.assign(4, kUntouched);
  EXPECT_EQ(
      natives::queryRevisionAndPinWithBounds(env, caller, 0, jni.newDirectBuffer(words.data(), 32),
                                             0, jni.newLongArray({0}), jni.newLongArray({9})),
      0);
  EXPECT_EQ(words[0], 0);
  EXPECT_EQ(words[1], kUntouched);
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("Passed in luMapAddress is null.")));
}

TEST_F(RevisionQuery, ArrayElementsThatCannotBeHadFindNothing) {
  insert("key", "value", 0, 5);
  for (const int nth : {1, 2}) {
    setLevels(kDebugLevel);
    jni.failCall("GetLongArrayElements", nth);
    RecordLocks locks;
    jni.clearReleases();
    call(0, {0}, {9});
    EXPECT_EQ(words[0], 0);
    EXPECT_TRUE(locks.operations().empty());
    EXPECT_EQ(jni.liveElements(), 0U) << "what was obtained is released";
    EXPECT_THAT(jni.lines(),
                Contains(HasSubstr("Passed in bounds are invalid. numOwners=1 startRevsNative=")));
  }
}

TEST_F(RevisionQuery, NoElementsAreAskedForWhileAnExceptionIsPending) {
  insert("key", "value", 0, 5);
  jni.failCall("GetLongArrayElements", 1, Thrown{kOutOfMemory, "no room"});
  call(0, {0}, {9});
  EXPECT_EQ(words[0], 0);
  EXPECT_TRUE(jni.takePending().has_value());
}

TEST_F(RevisionQuery, BothArraysAreReleasedWithoutCopyingBack) {
  insert("key", "value", 0, 5);
  for (const bool copies : {false, true}) {
    jni.handOutCopies(copies);
    jni.clearReleases();
    EXPECT_EQ(query(0, {0}, {9}).size(), 1U);
    ASSERT_EQ(jni.releases().size(), 2U);
    for (const ReleaseCall& release : jni.releases()) EXPECT_EQ(release.mode, JNI_ABORT);
  }
}

// ---- Bookmarks ---------------------------------------------------------------------------

TEST_F(RevisionQuery, SuccessiveQueriesReportEachEntryOnce) {
  for (int i = 1; i <= 20; ++i) insert("key" + std::to_string(i), "value", 0, i);
  const std::vector<int64_t> first = revisionsAfter(0, 0, 10);
  const std::vector<int64_t> second = revisionsAfter(0, 10, 20);
  ASSERT_EQ(first.size(), 10U);
  ASSERT_EQ(second.size(), 10U);
  EXPECT_EQ(first.front(), 1);
  EXPECT_EQ(first.back(), 10);
  EXPECT_EQ(second.front(), 11);
  EXPECT_EQ(second.back(), 20);
  EXPECT_THAT(revisionsAfter(0, 20, 30), IsEmpty());
}

TEST_F(RevisionQuery, TheBookmarkIsTheLastEntryPassed) {
  const std::vector<LuOffHeapValue*> made = fill({1, 2, 3});
  revisionsAfter(0, 0, 2);
  EXPECT_THAT(bookmarksOf(0), ElementsAre(made[1])) << "before the first beyond the end";
  revisionsAfter(0, 2, 9);
  EXPECT_THAT(bookmarksOf(0), ElementsAre(made[2])) << "the last of the queue";
  revisionsAfter(0, -1, 1);
  EXPECT_THAT(bookmarksOf(0), ElementsAre(made[0])) << "it also goes back";
  insert("z", "value", 0, 10);
  for (const char* key : {"a", "b", "c"}) remove(key);
  revisionsAfter(0, 0, 5);
  EXPECT_THAT(bookmarksOf(0), ElementsAre(nullptr)) << "nothing stands before the first";
}

TEST_F(RevisionQuery, ABookmarkBeyondTheStartIsNotUsed) {
  fill({1, 2, 3});
  revisionsAfter(0, 0, 3);
  EXPECT_THAT(revisionsAfter(0, 0, 3), ElementsAre(1, 2, 3));
  EXPECT_THAT(revisionsAfter(0, 2, 3), ElementsAre(3)) << "bookmark at 3, start 2";
}

TEST_F(RevisionQuery, EqualRevisionsBehindTheBookmarkAreNotMissed) {
  fill({1, 2});
  revisionsAfter(0, 0, 2);
  insert("late", "value", 0, 2);
  EXPECT_THAT(revisionsAfter(0, 1, 2), ElementsAre(2, 2));
  insert("later", "value", 0, 3);
  EXPECT_THAT(revisionsAfter(0, 2, 3), ElementsAre(3));
}

TEST_F(RevisionQuery, EachReaderHasItsOwnBookmark) {
  const std::vector<LuOffHeapValue*> made = fill({1, 2, 3});
  revisionsAfter(0, 0, 1);
  revisionsAfter(1, 0, 3);
  EXPECT_THAT(bookmarksOf(0), ElementsAre(made[0], made[2]));
  EXPECT_THAT(revisionsAfter(0, 1, 3), ElementsAre(2, 3));
  EXPECT_THAT(revisionsAfter(1, 3, 9), IsEmpty());
}

// The cost of a query that resumes is in proportion to what follows its bookmark. An entry before
// the bookmark is given a revision inside the range: who walked past it would report it.
TEST_F(RevisionQuery, TheWalkStartsAtTheBookmark) {
  const std::vector<LuOffHeapValue*> made = fill({1, 2, 3, 4});
  revisionsAfter(0, 0, 3);
  made[0]->revisionNumber = 4;
  EXPECT_THAT(revisionsAfter(0, 3, 4), ElementsAre(4));
  EXPECT_THAT(revisionsAfter(-1, 3, 4), ElementsAre(4, 4)) << "without a bookmark it is met";
  EXPECT_THAT(revisionsAfter(1, 3, 4), ElementsAre(4, 4)) << "a new reader starts in front";
  made[0]->revisionNumber = 1;
  checkMap(env, map);
}

TEST_F(RevisionQuery, TheWalkEndsAtTheFirstEntryBeyondTheEnd) {
  const std::vector<LuOffHeapValue*> made = fill({1, 2, 3, 4});
  made[3]->revisionNumber = 1;
  EXPECT_THAT(revisionsAfter(0, 0, 2), ElementsAre(1, 2)) << "the fourth is never met";
  made[3]->revisionNumber = 4;
}

TEST_F(RevisionQuery, AnUpdatedBookmarkMovesToItsPredecessor) {
  const std::vector<LuOffHeapValue*> made = fill({1, 2, 3});
  revisionsAfter(0, 0, 2);
  EXPECT_TRUE(update("b", "new", 0, 9));
  EXPECT_THAT(bookmarksOf(0), ElementsAre(made[0]));
  EXPECT_THAT(revisionsAfter(0, 2, 9), ElementsAre(3, 9));
  EXPECT_TRUE(update("b", "newer", 1, 9)) << "to another owner";
  EXPECT_THAT(bookmarksOf(0), ElementsAre(made[2]));
  EXPECT_THAT(revisionsAfter(0, 3, 9), IsEmpty());
}

TEST_F(RevisionQuery, ATouchedBookmarkMovesToItsPredecessor) {
  const std::vector<LuOffHeapValue*> made = fill({1, 2, 3});
  revisionsAfter(0, 0, 2);
  ByteBufferHeader* key = buffer("b");
  LuOffHeapValue* found = asValue(natives::getLuValue_ByteBuffer(
      env, caller, mapHandle(), javaBuffer(key), hashOf("b"), 0, JNI_TRUE, 7));
  drop(key);
  unpinValue(found, NATIVE_TRANSIENT_GET_PIN);
  EXPECT_THAT(bookmarksOf(0), ElementsAre(made[0]));
  EXPECT_THAT(revisionsAfter(0, 2, 9), ElementsAre(3, 7));
}

TEST_F(RevisionQuery, ARemovedBookmarkMovesToItsPredecessor) {
  const std::vector<LuOffHeapValue*> made = fill({1, 2, 3});
  revisionsAfter(0, 0, 2);
  revisionsAfter(1, 0, 9);
  EXPECT_TRUE(remove("c"));
  EXPECT_TRUE(remove("b"));
  EXPECT_THAT(bookmarksOf(0), ElementsAre(made[0], made[0]));
  EXPECT_TRUE(remove("a"));
  EXPECT_THAT(bookmarksOf(0), ElementsAre(nullptr, nullptr));
  insert("d", "value", 0, 4);
  EXPECT_THAT(revisionsAfter(0, 2, 9), ElementsAre(4));
}

TEST_F(RevisionQuery, ClearForgetsEveryBookmark) {
  fill({1, 2, 3});
  revisionsAfter(2, 0, 2);
  EXPECT_TRUE(natives::clear(env, caller, mapHandle()));
  EXPECT_THAT(bookmarksOf(0), ElementsAre(nullptr, nullptr, nullptr)) << "the array is kept";
  insert("a", "value", 0, 1);
  EXPECT_THAT(revisionsAfter(2, 0, 2), ElementsAre(1));
}

TEST_F(RevisionQuery, AnIndexBeyondEveryArrayGrowsThemAll) {
  const std::vector<LuOffHeapValue*> made = fill({1, 2, 3});
  insert("other", "value", 2, 1);
  revisionsAfter(0, 0, 2);
  EXPECT_EQ(queue(2)->numBookmarks, 1U) << "also where no range was given";
  const int64_t before = Books::now().metadata;
  EXPECT_THAT(revisionsAfter(4, 1, 3), ElementsAre(2, 3));
  EXPECT_THAT(bookmarksOf(0), ElementsAre(made[1], nullptr, nullptr, nullptr, made[2]));
  for (const uint32_t owner : {1U, 2U}) {
    EXPECT_THAT(bookmarksOf(owner), ElementsAre(nullptr, nullptr, nullptr, nullptr, nullptr));
  }
  EXPECT_GT(Books::now().metadata, before);
  revisionsAfter(3, 0, 1);
  EXPECT_EQ(queue(0)->numBookmarks, 5U) << "a lower index grows nothing";
}

TEST_F(RevisionQuery, AQueueOfALaterOwnerGetsItsBookmarksLater) {
  fill({1});
  revisionsAfter(2, 0, 1);
  insert("new", "value", 3, 7);
  EXPECT_EQ(queue(3)->numBookmarks, 0U);
  EXPECT_EQ(query(2, {1, 0, 0, 0}, {9, 9, 9, 9}).size(), 1U);
  EXPECT_EQ(queue(3)->numBookmarks, 3U);
}

TEST_F(RevisionQuery, ANegativeIndexMeansNoBookmark) {
  fill({1, 2, 3});
  for (const jint index : {-1, INT32_MIN}) {
    EXPECT_THAT(revisionsAfter(index, 0, 2), ElementsAre(1, 2));
    EXPECT_THAT(revisionsAfter(index, 2, 9), ElementsAre(3));
    EXPECT_EQ(queue(0)->numBookmarks, 0U);
  }
}

TEST_F(RevisionQuery, RefusedBookmarkMemoryCostsTheResumePointOnly) {
  fill({1, 2, 3});
  insert("other", "value", 1, 2);
  for (const int nth : {1, 2}) {
    const Books before = Books::now();
    {
      RefuseAllocation refusal(nth, RefuseAllocation::Way::kNothingLeft, "Bookmarks");
      EXPECT_EQ(query(0, {0, 0}, {9, 9}).size(), 4U);
      EXPECT_TRUE(refusal.fired());
    }
    EXPECT_EQ(Books::now().blocks, before.blocks + 1);
    checkMap(env, map);
    EXPECT_EQ(query(0, {0, 0}, {9, 9}).size(), 4U);
    EXPECT_EQ(queue(0)->numBookmarks, 1U);
    EXPECT_EQ(queue(1)->numBookmarks, 1U);
    deleteMap(map);
    map = makeMap();
    fill({1, 2, 3});
    insert("other", "value", 1, 2);
  }
}

// ---- Locks -------------------------------------------------------------------------------

TEST_F(RevisionQuery, LocksTheMapForWritingThenForReadingAndOneQueueAtATime) {
  fill({1});
  insert("other", "value", 2, 1);
  using Operation = RecordLocks::Operation;
  std::vector<Operation> expected = {{&map->lock, LockOp::writeLock}};
  for (uint32_t owner = 0; owner < 3; ++owner) {
    expected.push_back({&queue(owner)->mutex, LockOp::lock});
    expected.push_back({&queue(owner)->mutex, LockOp::unlock});
  }
  expected.push_back({&map->lock, LockOp::unlock});
  expected.push_back({&map->lock, LockOp::readLock});
  for (const uint32_t owner : {0U, 2U}) {  // owner 1 has no range
    expected.push_back({&queue(owner)->mutex, LockOp::lock});
    expected.push_back({&queue(owner)->mutex, LockOp::unlock});
  }
  expected.push_back({&map->lock, LockOp::unlock});
  std::vector<Operation> seen;
  {
    RecordLocks locks;
    call(0, {0, 9, 0}, {9, 9, 9});
    seen = locks.operations();
  }
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(take().size(), 2U);
}

TEST_F(RevisionQuery, EachFailingLockEndsTheQueryWithItsPinsLeft) {
  fill({1, 2});
  insert("other", "value", 1, 1);
  query(0, {0, 0}, {9, 9});  // the bookmarks exist
  struct Step {
    const char* site;
    int64_t reported;  // word 0
    int pinned;
    const char* raised;
  };
  const std::vector<Step> steps = {
      {"map writeLock", 0, 0, "wrlock failure for luMap"},
      {"queue lock", 3, 3, nullptr},  // growing: that queue does without
      {nullptr, 0, 0, nullptr},       // its unlock: the query itself would wait for it
      {"queue lock", 3, 3, nullptr},
      {nullptr, 0, 0, nullptr},
      {"map unlock", 0, 0, "unlock failure for luMap"},
      {"map readLock", 0, 0, "rdlock failure for luMap"},
      {"queue lock", 0, 0, nullptr},
      {"queue unlock", 0, 2, nullptr},
      {"queue lock", 0, 2, nullptr},
      {"queue unlock", 0, 3, nullptr},
      {"map unlock", 3, 3, "unlock failure for luMap"},
  };
  for (std::size_t nth = 1; nth <= steps.size(); ++nth) {
    const Step& step = steps[nth - 1];
    if (step.site == nullptr) continue;
    SCOPED_TRACE(std::to_string(nth) + " " + step.site);
    jni.clearReleases();
    {
      FailNthLock failure(static_cast<int>(nth));
      underFailingLock([&] {
        call(0, {0, 0}, {9, 9});
        return 0;
      });
      EXPECT_TRUE(failure.fired());
      EXPECT_EQ(failure.site(), step.site);
      failure.release();
    }
    EXPECT_EQ(words[0], step.reported);
    EXPECT_EQ(jni.releases().size(), 2U) << "both arrays";
    const std::optional<Thrown> thrown = jni.takePending();
    EXPECT_EQ(thrown.has_value(), step.raised != nullptr);
    if (thrown.has_value() && step.raised != nullptr) {
      EXPECT_THAT(thrown->message, HasSubstr(step.raised));
    }
    EXPECT_EQ(letGoOfAll(), step.pinned);
    checkMap(env, map);
  }
  EXPECT_EQ(query(0, {0, 0}, {9, 9}).size(), 3U) << "nothing is left behind";
}

// ---- Trace -------------------------------------------------------------------------------

TEST_F(RevisionQuery, TraceOfAQuery) {
  LuOffHeapValue* entry = insert("key", "value", 0, 5);
  setLevels(kAllLevels);
  call(0, {0}, {9});
  const char* function = "queryRevisionAndPinWithBounds";
  Script script;
  script.entry(function, "luMapAddress=%p", static_cast<void*>(map));
  script.allocates("Bookmarks");
  script.pins(entry, JNI_QUERYREVISION_PIN, 4);
  script.pins(entry->key, kTransport, 2);
  script.pins(entry->value, kTransport, 2);
  script.debug(function, "found %ld entries for luMap=%p", 1L, static_cast<void*>(map));
  script.expectIn(jni);
  setLevels(0);
  take();
}

// ---- Random queries beside an oracle -----------------------------------------------------

TEST_F(RevisionQuery, RandomQueriesBesideAnOracle) {
  const char* given = std::getenv("NIMBRA_TEST_SEED");
  const uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device{}();
  std::cout << "RandomQueriesBesideAnOracle: NIMBRA_TEST_SEED=" << seed << std::endl;
  std::mt19937_64 random(seed);
  const auto below = [&random](uint64_t bound) { return random() % bound; };
  constexpr uint16_t kOwners = 3;
  std::map<std::string, std::pair<int, int64_t>> oracle;  // key: owner and revision
  std::vector<std::vector<std::string>> orders(kOwners);
  const auto dequeue = [&](const std::string& key) {
    auto& order = orders[static_cast<std::size_t>(oracle[key].first)];
    order.erase(std::find(order.begin(), order.end(), key));
  };
  const auto enqueue = [&](const std::string& key, int owner, int64_t revision) {
    auto& order = orders[static_cast<std::size_t>(owner)];
    auto at = order.begin();
    while (at != order.end() && oracle[*at].second <= revision) ++at;
    order.insert(at, key);
    oracle[key] = {owner, revision};
  };
  int64_t clock = 0;
  for (int step = 0; step < 4000 && !HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    const std::string key = "key" + std::to_string(below(30));
    const auto owner = static_cast<uint16_t>(below(kOwners));
    // Mostly new revisions, sometimes old or equal ones.
    const int64_t revision =
        below(4) != 0 ? ++clock : static_cast<int64_t>(below(static_cast<uint64_t>(clock + 3))) - 2;
    const bool present = oracle.contains(key);
    switch (below(8)) {
      case 0:
      case 1:
        ASSERT_EQ(insert(key, "value", owner, revision) != nullptr, !present);
        if (!present) enqueue(key, owner, revision);
        break;
      case 2:
      case 3:
        ASSERT_EQ(update(key, "new", owner, revision), present);
        if (present) {
          dequeue(key);
          enqueue(key, owner, revision);
        }
        break;
      case 4:
        ASSERT_EQ(remove(key), present);
        if (present) {
          dequeue(key);
          oracle.erase(key);
        }
        break;
      case 5:
        if (below(60) != 0) break;
        ASSERT_TRUE(natives::clear(env, caller, mapHandle()));
        oracle.clear();
        for (auto& order : orders) order.clear();
        break;
      default: {
        std::vector<jlong> starts;
        std::vector<jlong> ends;
        const uint64_t bounds = 1 + below(kOwners + 1);
        for (uint64_t i = 0; i < bounds; ++i) {
          starts.push_back(static_cast<jlong>(below(static_cast<uint64_t>(clock + 2))) - 1);
          ends.push_back(starts.back() + static_cast<jlong>(below(40)) - 2);
        }
        std::vector<std::string> expected;
        for (std::size_t i = 0; i < std::min<std::size_t>(starts.size(), kOwners); ++i) {
          if (starts[i] >= ends[i] || ends[i] < 1) continue;
          for (const std::string& one : orders[i]) {
            const int64_t at = oracle[one].second;
            if (at > starts[i] && at <= ends[i]) expected.push_back(one);
          }
        }
        std::vector<std::string> found;
        call(static_cast<jint>(below(5)) - 1, starts, ends);
        for (int64_t i = 0; i < words[0]; ++i) {
          found.push_back(bytesOf(asValue(words[static_cast<std::size_t>(1 + 9 * i)])->key));
        }
        take();
        ASSERT_EQ(found, expected);
        checkMap(env, map);
      }
    }
    for (uint32_t i = 0; i < map->numQueues; ++i) {
      const std::vector<LuOffHeapValue*> queued = valuesOf(queue(i));
      for (LuOffHeapValue* bookmark : bookmarksOf(i)) {
        if (bookmark == nullptr) continue;
        ASSERT_NE(std::find(queued.begin(), queued.end(), bookmark), queued.end())
            << "a bookmark dangles";
      }
    }
  }
}

}  // namespace
}  // namespace nimbra::test
