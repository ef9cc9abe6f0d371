// Revision queues: sorted insertion, removal from every place, the pins that the links hold, the
// per-owner list, bookmarks, moves between owners, and clearing. Eviction records share the queue.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// Every place in a queue holds exactly two pins: one for each pointer that leads to the entry.
constexpr int kQueuePins = 2;

class RevisionQueue : public MapTest {
 protected:
  void SetUp() override {
    MapTest::SetUp();
    queue = map->revisionQueue[0];
    ASSERT_EQ(lockQueue(queue), 0);
  }

  void TearDown() override {
    while (queue->last != nullptr) {
      ASSERT_TRUE(removeFromQueue(env, queue, static_cast<LuOffHeapValue*>(queue->last)));
    }
    EXPECT_EQ(unlockQueue(queue), 0);
    MapTest::TearDown();
  }

  // A record that only the queue holds.
  LuOffHeapValue* append(int64_t revision, LuOffHeapRevisionOrderQueue* target = nullptr) {
    LuOffHeapValue* value = record("key", "value", 0, revision);
    EXPECT_TRUE(appendToQueue(env, target == nullptr ? queue : target, value));
    unpinValue(value);
    return value;
  }

  void expectQueue(const std::vector<LuOffHeapValue*>& expected) {
    EXPECT_EQ(valuesOf(queue), expected);
    EXPECT_EQ(queue->count, expected.size());
    EXPECT_EQ(queue->first, expected.empty() ? nullptr : expected.front());
    EXPECT_EQ(queue->last, expected.empty() ? nullptr : expected.back());
    const LuQueueEntry* before = nullptr;
    for (const LuOffHeapValue* value : expected) {
      EXPECT_EQ(value->prev, before);
      EXPECT_EQ(value->pins, kQueuePins) << "revision " << value->revisionNumber;
      before = value;
    }
    if (!expected.empty()) {
      EXPECT_EQ(expected.back()->next, nullptr);
    }
  }

  LuOffHeapRevisionOrderQueue* queue = nullptr;
};

// ---- Appending ---------------------------------------------------------------------------

TEST_F(RevisionQueue, EqualRevisionsKeepTheirArrivalOrder) {
  LuOffHeapValue* five = append(5);
  LuOffHeapValue* three = append(3);
  LuOffHeapValue* fiveAgain = append(5);
  LuOffHeapValue* seven = append(7);
  expectQueue({three, five, fiveAgain, seven});
  EXPECT_EQ(revisionsOf(queue), (std::vector<int64_t>{3, 5, 5, 7}));
  EXPECT_EQ(queue->maxCount, 4U);
}

TEST_F(RevisionQueue, RevisionsAreSigned) {
  append(0);
  append(INT64_MAX);
  append(INT64_MIN);
  append(-1);
  EXPECT_EQ(revisionsOf(queue), (std::vector<int64_t>{INT64_MIN, -1, 0, INT64_MAX}));
}

TEST_F(RevisionQueue, AFirstEntryIsPinnedAsFirstAndLast) {
  LuOffHeapValue* value = record("key", "value", 0, 5);
  setLevels(kAllLevels);
  EXPECT_TRUE(appendToQueue(env, queue, value));
  const void* self = value;
  const char* function = "appendToQueue";
  Script script;
  script.entry(function, "queue=%p, new entry=%p of type %s", static_cast<void*>(queue), self,
               "LuValue");
  script.pins(self, NATIVE_TRANSIENT_GET_PIN, 2);
  script.debug(function,
               "RevisionNumber search result: my revisionNum=%d. node->next=%p node->prev=%p", 5,
               static_cast<void*>(nullptr), static_cast<void*>(nullptr));
  script.pins(self, REVISION_QUEUE_FIRST_PIN, 3);
  script.debug(function, "%p is now queue->first", self);
  script.pins(self, REVISION_QUEUE_LAST_PIN, 4);
  script.debug(function, "%p is now queue->last", self);
  script.releasesValue(self, NATIVE_TRANSIENT_GET_PIN, 3);
  script.exit(function,
              "queue=%p, new entry=%p, entry->prev=%p, entry->next=%p, queue->first=%p, "
              "queue->last=%p",
              static_cast<void*>(queue), self, static_cast<void*>(nullptr),
              static_cast<void*>(nullptr), self, self);
  script.expectIn(jni);
  setLevels(0);
  unpinValue(value);
  expectQueue({value});
}

TEST_F(RevisionQueue, AppendingBehindTheLastTrace) {
  LuOffHeapValue* last = append(5);
  LuOffHeapValue* value = record("key", "value", 0, 6);
  setLevels(kAllLevels);
  EXPECT_TRUE(appendToQueue(env, queue, value));
  const void* self = value;
  const void* before = last;
  const void* none = nullptr;
  const char* function = "appendToQueue";
  Script script;
  script.entry(function, "queue=%p, new entry=%p of type %s", static_cast<void*>(queue), self,
               "LuValue");
  script.pins(self, NATIVE_TRANSIENT_GET_PIN, 2);
  script.debug(function,
               "RevisionNumber search result: my revisionNum=%d. node->next=%p node->prev=%p", 6,
               none, before);
  script.debug(function, "  Prev metadata: %d", 5);
  script.pins(self, REVISION_QUEUE_NEXT_PIN, 3);
  script.debug(function, "%p has new prev->%p", self, before);
  script.pins(self, REVISION_QUEUE_LAST_PIN, 4);
  script.debug(function, "%p is now queue->last", self);
  script.releasesValue(self, NATIVE_TRANSIENT_GET_PIN, 3);
  script.exit(function,
              "queue=%p, new entry=%p, entry->prev=%p, entry->next=%p, queue->first=%p, "
              "queue->last=%p",
              static_cast<void*>(queue), self, before, none, before, self);
  script.expectIn(jni);
  setLevels(0);
  unpinValue(value);
  expectQueue({last, value});
}

TEST_F(RevisionQueue, AppendingBeforeTheFirstTrace) {
  LuOffHeapValue* first = append(5);
  LuOffHeapValue* value = record("key", "value", 0, 4);
  setLevels(kAllLevels);
  EXPECT_TRUE(appendToQueue(env, queue, value));
  const void* self = value;
  const void* after = first;
  const void* none = nullptr;
  const char* function = "appendToQueue";
  Script script;
  script.entry(function, "queue=%p, new entry=%p of type %s", static_cast<void*>(queue), self,
               "LuValue");
  script.pins(self, NATIVE_TRANSIENT_GET_PIN, 2);
  script.debug(function,
               "RevisionNumber search result: my revisionNum=%d. node->next=%p node->prev=%p", 4,
               after, none);
  script.debug(function, "  Next metadata: %d", 5);
  script.pins(self, REVISION_QUEUE_FIRST_PIN, 3);
  script.debug(function, "%p is now queue->first", self);
  script.pins(after, REVISION_QUEUE_NEXT_PIN, 3);
  script.pins(self, REVISION_QUEUE_PREV_PIN, 4);
  script.releasesValue(after, REVISION_QUEUE_FIRST_PIN, 2);
  script.debug(function, "%p has new next->%p", self, after);
  script.releasesValue(self, NATIVE_TRANSIENT_GET_PIN, 3);
  script.exit(function,
              "queue=%p, new entry=%p, entry->prev=%p, entry->next=%p, queue->first=%p, "
              "queue->last=%p",
              static_cast<void*>(queue), self, none, after, self, after);
  script.expectIn(jni);
  setLevels(0);
  unpinValue(value);
  expectQueue({value, first});
}

TEST_F(RevisionQueue, AppendingInTheMiddleTrace) {
  LuOffHeapValue* first = append(3);
  LuOffHeapValue* last = append(9);
  LuOffHeapValue* value = record("key", "value", 0, 6);
  setLevels(kAllLevels);
  EXPECT_TRUE(appendToQueue(env, queue, value));
  const void* self = value;
  const void* before = first;
  const void* after = last;
  const char* function = "appendToQueue";
  Script script;
  script.entry(function, "queue=%p, new entry=%p of type %s", static_cast<void*>(queue), self,
               "LuValue");
  script.pins(self, NATIVE_TRANSIENT_GET_PIN, 2);
  script.debug(function,
               "RevisionNumber search result: my revisionNum=%d. node->next=%p node->prev=%p", 6,
               after, before);
  script.debug(function, "  Next metadata: %d", 9);
  script.debug(function, "  Prev metadata: %d", 3);
  script.pins(self, REVISION_QUEUE_NEXT_PIN, 3);
  script.debug(function, "%p has new prev->%p", self, before);
  script.pins(self, REVISION_QUEUE_PREV_PIN, 4);
  script.debug(function, "%p has new next->%p", self, after);
  script.releasesValue(self, NATIVE_TRANSIENT_GET_PIN, 3);
  script.exit(function,
              "queue=%p, new entry=%p, entry->prev=%p, entry->next=%p, queue->first=%p, "
              "queue->last=%p",
              static_cast<void*>(queue), self, before, after, before, after);
  script.expectIn(jni);
  setLevels(0);
  unpinValue(value);
  expectQueue({first, value, last});
}

TEST_F(RevisionQueue, AppendingNothingIsFalse) {
  setLevels(kEntryLevel);
  EXPECT_FALSE(appendToQueue(env, queue, static_cast<LuOffHeapValue*>(nullptr)));
  EXPECT_THAT(jni.lines(), ElementsAre("entry|JNI:appendToQueue:queue=" + printed(queue) +
                                       ", new entry=(nil) of type LuValue"));
  setLevels(0);
  expectQueue({});
}

// ---- Removal -----------------------------------------------------------------------------

class RevisionQueueRemoval : public RevisionQueue {
 protected:
  void expectEntryTrace(Script& script, const LuOffHeapValue* entry) {
    script.entry("removeFromQueue",
                 "Queue=%p, queue->first=%p, queue->last=%p. Entry to Remove: entry=%p, "
                 "entry->next=%p, entry->prev=%p.",
                 static_cast<void*>(queue), static_cast<void*>(queue->first),
                 static_cast<void*>(queue->last), static_cast<const void*>(entry),
                 entry == nullptr ? nullptr : static_cast<void*>(entry->next),
                 entry == nullptr ? nullptr : static_cast<void*>(entry->prev));
  }
  void expectExitTrace(Script& script, const void* entry, int removed) {
    script.exit("removeFromQueue", "Queue=%p, first=%p, last=%p. Entry=%p, Did remove? %d.",
                static_cast<void*>(queue), static_cast<void*>(queue->first),
                static_cast<void*>(queue->last), entry, removed);
  }
};

TEST_F(RevisionQueueRemoval, OfTheOnlyEntry) {
  LuOffHeapValue* only = append(5);
  pin(env, only, JNI_GET_PIN);
  Script script;
  expectEntryTrace(script, only);
  setLevels(kAllLevels);
  EXPECT_TRUE(removeFromQueue(env, queue, only));
  script.debug("removeFromQueue", "Entry was the last in the queue, first and last point to it.");
  script.releasesValue(only, REVISION_QUEUE_FIRST_PIN, 2);
  script.releasesValue(only, REVISION_QUEUE_LAST_PIN, 1);
  expectExitTrace(script, only, 1);
  script.expectIn(jni);
  setLevels(0);
  expectQueue({});
  EXPECT_EQ(queue->maxCount, 1U) << "the mark stays";
  EXPECT_EQ(unpinValue(only, JNI_GET_PIN), 0U);
}

TEST_F(RevisionQueueRemoval, OfTheFirst) {
  LuOffHeapValue* first = append(1);
  LuOffHeapValue* second = append(2);
  LuOffHeapValue* third = append(3);
  pin(env, first, JNI_GET_PIN);
  Script script;
  expectEntryTrace(script, first);
  setLevels(kAllLevels);
  EXPECT_TRUE(removeFromQueue(env, queue, first));
  script.debug("removeFromQueue", "Entry had a next");
  script.releasesValue(first, REVISION_QUEUE_PREV_PIN, 2);
  script.debug("removeFromQueue",
               "Entry was the first in the queue. Assigning first pin to next entry.");
  script.pins(second, REVISION_QUEUE_FIRST_PIN, 3);
  script.releasesValue(first, REVISION_QUEUE_FIRST_PIN, 1);
  script.releasesValue(second, REVISION_QUEUE_NEXT_PIN, 2);
  expectExitTrace(script, first, 1);
  script.expectIn(jni);
  setLevels(0);
  expectQueue({second, third});
  EXPECT_EQ(first->next, nullptr);
  unpinValue(first, JNI_GET_PIN);
}

TEST_F(RevisionQueueRemoval, OfTheLast) {
  LuOffHeapValue* first = append(1);
  LuOffHeapValue* second = append(2);
  LuOffHeapValue* third = append(3);
  pin(env, third, JNI_GET_PIN);
  Script script;
  expectEntryTrace(script, third);
  setLevels(kAllLevels);
  EXPECT_TRUE(removeFromQueue(env, queue, third));
  script.debug("removeFromQueue", "Entry had a previous");
  script.releasesValue(third, REVISION_QUEUE_NEXT_PIN, 2);
  script.debug("removeFromQueue",
               "Entry was the last in the queue. Assigning last pin to previous entry.");
  script.pins(second, REVISION_QUEUE_LAST_PIN, 3);
  script.releasesValue(third, REVISION_QUEUE_LAST_PIN, 1);
  script.releasesValue(second, REVISION_QUEUE_PREV_PIN, 2);
  expectExitTrace(script, third, 1);
  script.expectIn(jni);
  setLevels(0);
  expectQueue({first, second});
  EXPECT_EQ(third->prev, nullptr);
  unpinValue(third, JNI_GET_PIN);
}

TEST_F(RevisionQueueRemoval, FromTheMiddleKeepsTheEntrysLinks) {
  LuOffHeapValue* first = append(1);
  LuOffHeapValue* second = append(2);
  LuOffHeapValue* third = append(3);
  pin(env, second, JNI_GET_PIN);
  Script script;
  expectEntryTrace(script, second);
  setLevels(kAllLevels);
  EXPECT_TRUE(removeFromQueue(env, queue, second));
  script.debug("removeFromQueue", "Entry had a previous");
  script.releasesValue(second, REVISION_QUEUE_NEXT_PIN, 2);
  script.debug("removeFromQueue", "Entry had a next");
  script.releasesValue(second, REVISION_QUEUE_PREV_PIN, 1);
  expectExitTrace(script, second, 1);
  script.expectIn(jni);
  setLevels(0);
  expectQueue({first, third});
  EXPECT_EQ(second->prev, first);
  EXPECT_EQ(second->next, third);
  unpinValue(second, JNI_GET_PIN);
}

TEST_F(RevisionQueueRemoval, FreesAnEntryThatNobodyElseHolds) {
  append(1);
  append(2);
  append(3);
  setLevels(kDebugLevel);
  const int64_t before = Books::now().blocks;
  EXPECT_TRUE(removeFromQueue(env, queue, static_cast<LuOffHeapValue*>(queue->first)));
  EXPECT_TRUE(removeFromQueue(env, queue, static_cast<LuOffHeapValue*>(queue->last)));
  EXPECT_TRUE(removeFromQueue(env, queue, static_cast<LuOffHeapValue*>(queue->last)));
  EXPECT_EQ(Books::now().blocks, before - 9) << "record, key and value of each";
  int announced = 0;
  for (const std::string& line : jni.lines()) {
    announced += line == "debug|JNI:removeFromQueue:Remove freed 1 LuValues." ? 1 : 0;
  }
  EXPECT_EQ(announced, 3);
  setLevels(0);
  expectQueue({});
}

TEST_F(RevisionQueueRemoval, OfNothingIsFalse) {
  append(1);
  setLevels(kAllLevels);
  Script script;
  expectEntryTrace(script, nullptr);
  EXPECT_FALSE(removeFromQueue(env, queue, static_cast<LuOffHeapValue*>(nullptr)));
  expectExitTrace(script, nullptr, 0);
  script.expectIn(jni);
  setLevels(0);
  EXPECT_EQ(queue->count, 1U);
}

TEST_F(RevisionQueueRemoval, OfAnEntryThatIsNotQueuedThrows) {
  append(1);
  LuOffHeapValue* stranger = record("key", "value");
  EXPECT_FALSE(removeFromQueue(env, queue, stranger));
  EXPECT_EQ(jni.takePending(),
            (Thrown{kIllegalState,
                    "[removeFromQueue] Node=" + printed(stranger) + " not found in queue."}));
  EXPECT_EQ(queue->count, 1U);
  EXPECT_EQ(stranger->pins, 1);
  unpinValue(stranger);
}

TEST_F(RevisionQueueRemoval, RandomOrderLeavesOnlyWholeQueues) {
  std::mt19937 random(20);
  for (int round = 0; round < 50; ++round) {
    std::vector<LuOffHeapValue*> expected;
    for (int i = 0; i < 12; ++i) {
      LuOffHeapValue* value = append(static_cast<int64_t>(random() % 6));
      auto at = expected.begin();
      while (at != expected.end() && (*at)->revisionNumber <= value->revisionNumber) ++at;
      expected.insert(at, value);
      expectQueue(expected);
    }
    while (!expected.empty()) {
      const auto at = expected.begin() + static_cast<std::ptrdiff_t>(random() % expected.size());
      EXPECT_TRUE(removeFromQueue(env, queue, *at));
      expected.erase(at);
      expectQueue(expected);
    }
  }
}

// ---- Eviction records --------------------------------------------------------------------

class EvictionOrder : public MapTest {
 protected:
  void SetUp() override {
    MapTest::SetUp();
    queue = static_cast<LuOffHeapEvictionDataQueue*>(allocateQueue(env, kEvictionQueue));
    key = buffer("key");
    ASSERT_EQ(lockQueue(queue), 0);
  }
  void TearDown() override {
    while (queue->first != nullptr) {
      ASSERT_TRUE(removeFromQueue(env, queue, queue->first, kEvictionQueue));
    }
    EXPECT_EQ(unlockQueue(queue), 0);
    freeQueue(env, queue, kEvictionQueue);
    drop(key);
    MapTest::TearDown();
  }
  LuOffHeapEvictionData* append(int64_t metadata) {
    LuOffHeapEvictionData* made = allocateEvictionData(env, key, false);
    made->metadata = metadata;
    EXPECT_TRUE(appendToQueue(env, queue, made));
    unpinLuOffHeapEvictionData(env, made, ALLOCATION_PIN);
    return made;
  }
  std::vector<LuOffHeapEvictionData*> order() {
    std::vector<LuOffHeapEvictionData*> result;
    for (LuQueueEntry* at = queue->first; at != nullptr; at = at->next) {
      result.push_back(static_cast<LuOffHeapEvictionData*>(at));
      EXPECT_EQ(at->pins, kQueuePins);
    }
    return result;
  }
  LuOffHeapEvictionDataQueue* queue = nullptr;
  ByteBufferHeader* key = nullptr;
};

TEST_F(EvictionOrder, EqualOrderingValuesKeepTheirArrivalOrder) {
  LuOffHeapEvictionData* five = append(5);
  LuOffHeapEvictionData* three = append(3);
  LuOffHeapEvictionData* fiveAgain = append(5);
  LuOffHeapEvictionData* seven = append(7);
  EXPECT_THAT(order(), ElementsAre(three, five, fiveAgain, seven));
  EXPECT_EQ(queue->count, 4U);
  EXPECT_EQ(queue->maxCount, 4U);
  EXPECT_TRUE(removeFromQueue(env, queue, five, kEvictionQueue));
  EXPECT_THAT(order(), ElementsAre(three, fiveAgain, seven));
  EXPECT_TRUE(removeFromQueue(env, queue, seven, kEvictionQueue));
  EXPECT_THAT(order(), ElementsAre(three, fiveAgain));
  EXPECT_TRUE(removeFromQueue(env, queue, three, kEvictionQueue));
  EXPECT_THAT(order(), ElementsAre(fiveAgain));
}

TEST_F(EvictionOrder, AppendTraceNamesTheKind) {
  LuOffHeapEvictionData* first = append(1);
  LuOffHeapEvictionData* last = append(9);
  LuOffHeapEvictionData* middle = allocateEvictionData(env, key, false);
  middle->metadata = 4;
  setLevels(kDebugLevel | kEntryLevel);
  EXPECT_TRUE(appendToQueue(env, queue, middle));
  std::vector<std::string> own;
  const std::string prefix = "JNI:appendToQueue:";
  for (const LogRecord& record : jni.records()) {
    if (record.text.starts_with(prefix)) own.push_back(record.text.substr(prefix.size()));
  }
  EXPECT_THAT(
      own, ElementsAre("queue=" + printed(queue) + ", new entry=" + printed(middle) +
                           " of type EvictionData",
                       "Metadata search result: my metadata=4. node->next=" + printed(last) +
                           " node->prev=" + printed(first),
                       "  Next metadata: 9", "  Prev metadata: 1",
                       printed(middle) + " has new prev->" + printed(first),
                       printed(middle) + " has new next->" + printed(last),
                       "queue=" + printed(queue) + ", new entry=" + printed(middle) +
                           ", entry->prev=" + printed(first) + ", entry->next=" + printed(last) +
                           ", queue->first=" + printed(first) + ", queue->last=" + printed(last)));
  setLevels(0);
  unpinLuOffHeapEvictionData(env, middle, ALLOCATION_PIN);
}

// ---- Bookmarks ---------------------------------------------------------------------------

class Bookmarks : public RevisionQueue {
 protected:
  std::vector<LuOffHeapValue*> bookmarks() {
    return {queue->bookmarks, queue->bookmarks + queue->numBookmarks};
  }
};

TEST_F(Bookmarks, GrowToTheIndexAndHoldNoPin) {
  LuOffHeapValue* one = append(1);
  LuOffHeapValue* two = append(2);
  const Books before = Books::now();
  add_bookmark(env, queue, one, 2);
  EXPECT_THAT(bookmarks(), ElementsAre(nullptr, nullptr, one));
  EXPECT_EQ(Books::now().blocks, before.blocks + 1);
  EXPECT_EQ(Books::now().metadata,
            before.metadata + static_cast<int64_t>(getUsableSize(queue->bookmarks)));
  add_bookmark(env, queue, two, 0);
  EXPECT_THAT(bookmarks(), ElementsAre(two, nullptr, one));
  add_bookmark(env, queue, two, 40);
  EXPECT_EQ(queue->numBookmarks, 41U);
  EXPECT_EQ(queue->bookmarks[0], two);
  EXPECT_EQ(queue->bookmarks[2], one);
  EXPECT_EQ(queue->bookmarks[40], two);
  EXPECT_EQ(Books::now().blocks, before.blocks + 1);
  EXPECT_EQ(Books::now().metadata,
            before.metadata + static_cast<int64_t>(getUsableSize(queue->bookmarks)));
  EXPECT_EQ(one->pins, kQueuePins);
  EXPECT_EQ(two->pins, kQueuePins);
}

TEST_F(Bookmarks, AreAllocatedWithoutTheLimit) {
  maxOffHeapSize = 0;
  setLevels(kDebugLevel);
  add_bookmark(env, queue, nullptr, 0);
  maxOffHeapSize = kAmpleMaximum;
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("type=Bookmarks")));
  setLevels(0);
  EXPECT_EQ(queue->numBookmarks, 1U);
  EXPECT_FALSE(jni.pending().has_value());
}

TEST_F(Bookmarks, AllThatPointAtAValueAreReplaced) {
  LuOffHeapValue* one = append(1);
  LuOffHeapValue* two = append(2);
  add_bookmark(env, queue, two, 0);
  add_bookmark(env, queue, one, 1);
  add_bookmark(env, queue, two, 2);
  setLevels(kDebugLevel);
  replace_bookmark(env, queue, two, one);
  EXPECT_THAT(bookmarks(), ElementsAre(one, one, one));
  const std::string text = "debug|JNI:replace_bookmark:Replaced bookmark=" + printed(two) +
                           " for new=" + printed(one) + " in queue=" + printed(queue);
  EXPECT_THAT(jni.lines(), ElementsAre(text, text));
  jni.clearRecords();
  replace_bookmark(env, queue, two, nullptr);
  EXPECT_THAT(jni.lines(), IsEmpty());
  replace_bookmark(env, queue, one, nullptr);
  EXPECT_THAT(bookmarks(), ElementsAre(nullptr, nullptr, nullptr));
  setLevels(0);
}

}  // namespace
}  // namespace nimbra::test
