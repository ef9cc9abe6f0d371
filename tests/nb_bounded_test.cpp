// The natives of bounded maps: limits that hold at every step, the order in which each policy lets
// entries go, deadlines, evictions with their pins, clearing and queries by revision.

#include <algorithm>
#include <functional>

#include "bounded_support.h"

namespace nimbra::test::bounded {
namespace {

constexpr jlong kLater = 2000;  // a deadline that lies ahead of the fixture's clock

// ---- Bounds ------------------------------------------------------------------------------------

TEST_F(BoundedTest, ABoundStartsAtNothingAndLeavesNothing) {
  const Books before = Books::now();
  const jlong bound = allocateBound(env, nullptr, 10, 20);
  ASSERT_NE(bound, 0);
  EXPECT_EQ(Books::now().blocks, before.blocks + 1);
  EXPECT_GT(Books::now().metadata, before.metadata);
  EXPECT_EQ(bytes(env, nullptr, bound), 0);
  EXPECT_EQ(entries(env, nullptr, bound), 0);
  freeBound(env, nullptr, bound);
  EXPECT_EQ(Books::now(), before);
}

TEST_F(BoundedTest, NoLimitIsWrittenInTwoWays) {
  for (const jlong unlimited : {jlong{0}, kNever}) {
    open(kLru, false, unlimited, unlimited);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(put(std::to_string(i), std::string(100, 'v')), 1);
    check();
  }
}

TEST_F(BoundedTest, TheBytesOfAnEntryAreThoseOfRecordKeyAndValue) {
  open(kLru, true);
  ASSERT_EQ(put("key", std::string(300, 'v')), 1);
  const LuOffHeapValue* entry = find(map, "key");
  EXPECT_EQ(static_cast<uint64_t>(boundBytes()), sizeofLuOffHeapMapValue(env, entry));
  EXPECT_EQ(put("key", ""), 0);
  EXPECT_EQ(static_cast<uint64_t>(boundBytes()), sizeofLuOffHeapMapValue(env, entry));
  check();
}

TEST_F(BoundedTest, NoMoreEntriesThanTheLimit) {
  open(kLru, true, 0, 2);
  EXPECT_EQ(put("a", "1"), 1);
  EXPECT_EQ(put("b", "2"), 1);
  const Rows rows = contentsOf(map);
  const Books books = Books::now();
  for (const Mode mode : {kPut, kPutIfAbsent}) {
    EXPECT_EQ(put("c", "3", kNever, mode), kNoRoom);
    EXPECT_EQ(contentsOf(map), rows);
    EXPECT_EQ(Books::now(), books);
    EXPECT_EQ(order(), (Keys{"a", "b"}));
    EXPECT_EQ(timeOrder(), (Keys{"a", "b"}));
    check();
  }
  EXPECT_EQ(put("a", "4"), 0);
  EXPECT_EQ(put("c", "3", kNever, kReplace), 0);
  EXPECT_EQ(remove("b"), 1);
  EXPECT_EQ(put("c", "3"), 1);
  EXPECT_EQ(order(), (Keys{"a", "c"}));
  check();
}

TEST_F(BoundedTest, NoMoreBytesThanTheLimit) {
  open(kLru, true);
  ASSERT_EQ(put("a", std::string(100, '1')), 1);
  const jlong one = boundBytes();
  for (const jlong spare : {jlong{0}, jlong{1}, one - 1}) {
    open(kLru, true, 2 * one + spare);
    EXPECT_EQ(put("a", std::string(100, '1')), 1);
    EXPECT_EQ(put("b", std::string(100, '2')), 1);
    EXPECT_EQ(boundBytes(), 2 * one);
    const Rows rows = contentsOf(map);
    const Books books = Books::now();
    EXPECT_EQ(put("c", std::string(100, '3')), kNoRoom);
    EXPECT_EQ(contentsOf(map), rows);
    EXPECT_EQ(Books::now(), books);
    EXPECT_EQ(order(), (Keys{"a", "b"}));
    check();
    EXPECT_EQ(remove("a"), 1);
    EXPECT_EQ(put("c", std::string(100, '3')), 1);
    check();
  }
  open(kLru, true, one - 1);
  EXPECT_EQ(put("a", std::string(100, '1')), kNoRoom);
  EXPECT_EQ(boundBytes(), 0);
}

// The old value lives until the new one has taken its place, so both have to fit for a moment.
TEST_F(BoundedTest, AReplacementNeedsRoomBesideTheOldValue) {
  open(kLru, true);
  ASSERT_EQ(put("a", std::string(100, '1')), 1);
  const jlong small = boundBytes();
  ASSERT_EQ(put("a", std::string(1000, '1')), 0);
  const jlong growth = boundBytes() - small;
  open(kLru, true, small + growth - 1);
  ASSERT_EQ(put("a", std::string(100, '1'), kLater), 1);
  ASSERT_EQ(put("b", "", kLater), growth > small ? 1 : kNoRoom);
  const Rows rows = contentsOf(map);
  const Keys order = this->order();
  for (const Mode mode : {kPut, kReplace}) {
    EXPECT_EQ(put("a", std::string(1000, '2'), kNever, mode), kNoRoom);
    EXPECT_EQ(contentsOf(map), rows);
    EXPECT_EQ(this->order(), order);
    EXPECT_EQ(find(map, "a")->ttlEvictionData->metadata, kLater);
    check();
  }
  remove("b");
  EXPECT_EQ(put("a", "", kNever, kReplace), 1);
  check();
}

TEST_F(BoundedTest, PartitionsShareOneBound) {
  open(kLru, true, 0, 3, 2);
  Caller other(jni, partitions[1]);
  EXPECT_EQ(put("a", "1"), 1);
  EXPECT_EQ(other.put("a", 1, "2", 2, now, kNever, kPut), 1);
  EXPECT_EQ(other.put("b", 1, "3", 3, now, kNever, kPut), 1);
  EXPECT_EQ(put("c", "4"), kNoRoom);
  EXPECT_EQ(other.put("c", 1, "4", 4, now, kNever, kPut), kNoRoom);
  check();
  EXPECT_EQ(evictKeys(5), (Keys{"a"}));
  EXPECT_EQ(other.put("c", 1, "4", 5, now, kNever, kPut), 1);
  check();
  EXPECT_TRUE(other.clear());
  EXPECT_EQ(boundEntries(), 0);
  check();
}

// ---- Every kind of bounded map -----------------------------------------------------------------

class BoundedKinds : public BoundedTest, public ::testing::WithParamInterface<Kind> {
 protected:
  void SetUp() override {
    BoundedTest::SetUp();
    open(GetParam());
  }
  bool used() const { return GetParam().policy != kNone; }
  bool timed() const { return GetParam().timed; }
};

TEST_P(BoundedKinds, WritesOfAbsentKeys) {
  EXPECT_EQ(put("r", "v", kNever, kReplace), 0);
  EXPECT_EQ(contentsOf(map), Rows{});
  check();
  EXPECT_EQ(put("p", "v1"), 1);
  check();
  EXPECT_EQ(put("i", "v2", kNever, kPutIfAbsent), 1);
  check();
  EXPECT_EQ(contentsOf(map), (Rows{{"p", {"v1", 0, 2}}, {"i", {"v2", 0, 3}}}));
}

TEST_P(BoundedKinds, WritesOfLiveKeys) {
  put("k", "v", now + 1);
  EXPECT_EQ(put("k", "other", kNever, kPutIfAbsent), 0);
  EXPECT_EQ(contentsOf(map), (Rows{{"k", {"v", 0, 1}}}));
  check();
  EXPECT_EQ(put("k", "v2", now + 1), 0);
  EXPECT_EQ(contentsOf(map), (Rows{{"k", {"v2", 0, 3}}}));
  check();
  EXPECT_EQ(put("k", "v3", now + 1, kReplace), 1);
  EXPECT_EQ(contentsOf(map), (Rows{{"k", {"v3", 0, 4}}}));
  check();
  EXPECT_EQ(boundEntries(), 1);
}

TEST_P(BoundedKinds, WritesOfExpiredKeys) {
  for (const Mode mode : {kPut, kPutIfAbsent, kReplace}) {
    SCOPED_TRACE(mode);
    put("k", "old", now + 5);
    now += 5;
    const jint result = put("k", "new", now + 5, mode);
    if (!timed()) {
      EXPECT_EQ(result, mode == kReplace ? 1 : 0);
      EXPECT_EQ(get("k"), mode == kPutIfAbsent ? "old" : "new");
    } else if (mode == kReplace) {
      EXPECT_EQ(result, 0);
      EXPECT_EQ(get("k"), std::nullopt);
    } else {
      EXPECT_EQ(result, 1);
      EXPECT_EQ(get("k"), "new");
    }
    check();
    remove("k");
    check();
  }
}

TEST_P(BoundedKinds, ReadsOfAbsentKeys) {
  std::vector<jlong> words;
  EXPECT_EQ(get("k"), std::nullopt);
  EXPECT_EQ(calls->pin("k", hashOf("k"), now, kKeep, &words), 0);
  EXPECT_EQ(words, (std::vector<jlong>{0, 0, 0}));
  EXPECT_FALSE(containsKey("k"));
  EXPECT_EQ(remove("k"), 0);
  EXPECT_EQ(evictKeys(5), Keys{});
  EXPECT_EQ(evictKeys(5, true), Keys{});
  check();
}

TEST_P(BoundedKinds, ReadsOfLiveKeys) {
  put("k", "value", now + 1);
  EXPECT_EQ(get("k"), "value");
  EXPECT_TRUE(containsKey("k"));
  std::vector<jlong> words;
  const jlong pinned = calls->pin("k", hashOf("k"), now, kKeep, &words, 4);
  ASSERT_NE(pinned, 0);
  EXPECT_EQ(face::placeAt(words, 0).text(), "value");
  EXPECT_EQ(words[2], revision);
  EXPECT_EQ(words[3], 0);
  EXPECT_EQ(put("k", "other", now + 1), 0);
  EXPECT_EQ(face::placeAt(words, 0).text(), "value");
  calls->unpin(pinned);
  check();
  EXPECT_EQ(remove("k"), 1);
  EXPECT_EQ(remove("k"), 0);
  check();
}

TEST_P(BoundedKinds, ReadsOfExpiredKeys) {
  put("k", "value", now + 5);
  now += 4;
  EXPECT_EQ(get("k"), "value");
  now += 1;
  if (timed()) {
    std::vector<jlong> words;
    EXPECT_EQ(get("k", kNever), std::nullopt);
    EXPECT_EQ(calls->pin("k", hashOf("k"), now, kNever, &words), 0);
    EXPECT_FALSE(containsKey("k"));
    EXPECT_EQ(boundEntries(), 1);
    check();
    EXPECT_EQ(remove("k"), 0);
    EXPECT_EQ(boundEntries(), 0);
  } else {
    EXPECT_EQ(get("k"), "value");
    EXPECT_TRUE(containsKey("k"));
    EXPECT_EQ(remove("k"), 1);
  }
  check();
}

TEST_P(BoundedKinds, EmptyAndLongKeysAndValues) {
  const Keys keys = {"", "k", std::string(512, 'a'), std::string(513, 'b'),
                     std::string(65535, 'c')};
  for (const std::string& key : keys) EXPECT_EQ(put(key, "of " + key), 1);
  check();
  for (const std::string& key : keys) {
    EXPECT_EQ(get(key), "of " + key);
    EXPECT_TRUE(containsKey(key));
    EXPECT_EQ(put(key, ""), 0);
    EXPECT_EQ(get(key), "");
    pinAndUnpin(key);
  }
  check();
  if (used()) {
    EXPECT_EQ(evictKeys(2).size(), 2U);
  }
  check();
  for (const std::string& key : keys) remove(key);
  EXPECT_EQ(boundBytes(), 0);
  check();
}

TEST_P(BoundedKinds, ManyKeysInOneBucket) {
  open(GetParam().policy, timed(), 0, 0, 1, 1, 1000);
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(calls->put(std::to_string(i), 7, "v", ++revision, now, now + 1 + i % 3, kPut), 1);
  }
  check();
  for (int i = 0; i < 40; i += 2) EXPECT_EQ(calls->remove(std::to_string(i), 7, now), 1);
  check();
  for (int i = 1; i < 40; i += 2) EXPECT_TRUE(calls->containsKey(std::to_string(i), 7, now));
  if (used()) {
    EXPECT_EQ(evictKeys(7).size(), 7U);
  }
  check();
}

TEST_P(BoundedKinds, ClearLeavesNothing) {
  const Books before = Books::now();
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 10; ++i) put(std::to_string(i), "v", now + i);
    get("3");
    EXPECT_TRUE(calls->clear());
    EXPECT_EQ(Books::now().blocks, before.blocks);
    EXPECT_EQ(boundBytes(), 0);
    EXPECT_EQ(boundEntries(), 0);
    EXPECT_EQ(order(), Keys{});
    EXPECT_EQ(timeOrder(), Keys{});
    check();
  }
  EXPECT_TRUE(calls->clear());
  EXPECT_EQ(put("k", "v"), 1);
  check();
}

TEST_P(BoundedKinds, WhatWasClearedWhilePinnedStaysReadable) {
  put("k", "value");
  std::vector<jlong> words;
  const jlong pinned = calls->pin("k", hashOf("k"), now, kKeep, &words);
  EXPECT_TRUE(calls->clear());
  EXPECT_EQ(face::placeAt(words, 0).text(), "value");
  calls->unpin(pinned);
}

TEST_P(BoundedKinds, APinThatJavaWouldNotSeeIsDropped) {
  put("k", "value");
  std::vector<jlong> words;
  EXPECT_EQ(calls->pin("k", hashOf("k"), now, kKeep, &words, 2), 0);
  EXPECT_TRUE(jni.takePending().has_value());
  check();
}

TEST_P(BoundedKinds, GetWithoutMemoryForTheArrayLeavesNoPin) {
  put("k", "value");
  jni.failCall("NewByteArray", 1, Thrown{kOutOfMemory, "Java heap space"});
  EXPECT_EQ(get("k"), std::nullopt);
  EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory, "Java heap space"}));
  check();
  EXPECT_EQ(get("k"), "value");
}

// No copy of the array to compare with: the probe counts as a miss, the insert finds the key by
// its buffer, and the next round succeeds.
TEST_P(BoundedKinds, ALongKeyThatCannotBeComparedOnce) {
  const std::string key(600, 'k');
  put(key, "old");
  jni.failCall("GetPrimitiveArrayCritical");
  EXPECT_EQ(put(key, "new"), 0);
  EXPECT_EQ(get(key), "new");
  check();
}

TEST_P(BoundedKinds, QueriesByRevision) {
  for (int i = 1; i <= 6; ++i) put("k" + std::to_string(i), "v" + std::to_string(i));
  put("k2", "again");  // revision 7
  remove("k4");
  {
    Queried all(jni, partition(), -1, 0, 7);
    EXPECT_EQ(all.keys(), (Keys{"k1", "k3", "k5", "k6", "k2"}));
    EXPECT_EQ(all.list[4].value.text(), "again");
    EXPECT_EQ(all.list[4].revision, 7);
    EXPECT_EQ(all.list[0].owner, 0);
    EXPECT_EQ(all.list[0].record, natives::handle(find(map, "k1")));
    // What a query shows stays readable whatever becomes of the entry.
    put("k1", "other");
    remove("k3");
    if (used()) evictKeys(16);
    EXPECT_EQ(all.list[0].value.text(), "v1");
    EXPECT_EQ(all.list[1].key.text(), "k3");
    EXPECT_EQ(all.list[1].value.text(), "v3");
  }
  check();
}

TEST_P(BoundedKinds, QueriesResumeAtTheirBookmarks) {
  for (int i = 1; i <= 4; ++i) put("k" + std::to_string(i), "v");
  EXPECT_EQ(Queried(jni, partition(), 0, 0, 2).keys(), (Keys{"k1", "k2"}));
  EXPECT_EQ(Queried(jni, partition(), 1, 0, 1).keys(), (Keys{"k1"}));
  EXPECT_EQ(remove("k2"), 1);  // the first reader's place
  put("k1", "v");              // the second one's, revision 5
  EXPECT_EQ(Queried(jni, partition(), 0, 2, 9).keys(), (Keys{"k3", "k4", "k1"}));
  EXPECT_EQ(Queried(jni, partition(), 1, 1, 4).keys(), (Keys{"k3", "k4"}));
  EXPECT_EQ(Queried(jni, partition(), 0, 9, 12).keys(), Keys{});
  EXPECT_EQ(Queried(jni, partition(), -1, 3, 4).keys(), (Keys{"k4"}));
  check();
}

INSTANTIATE_TEST_SUITE_P(Kinds, BoundedKinds, ::testing::ValuesIn(kKinds),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- Order by use ------------------------------------------------------------------------------

TEST_F(BoundedTest, LruMovesAnEntryWhenItIsUsed) {
  open(kLru, false);
  for (const char* key : {"a", "b", "c", "d"}) put(key, "v");
  EXPECT_EQ(order(), (Keys{"a", "b", "c", "d"}));
  get("a");
  EXPECT_EQ(order(), (Keys{"b", "c", "d", "a"}));
  pinAndUnpin("c");
  EXPECT_EQ(order(), (Keys{"b", "d", "a", "c"}));
  put("d", "v2");
  EXPECT_EQ(order(), (Keys{"b", "a", "c", "d"}));
  put("b", "v2", kNever, kReplace);
  EXPECT_EQ(order(), (Keys{"a", "c", "d", "b"}));
  // None of these is a use.
  containsKey("a");
  put("a", "v2", kNever, kPutIfAbsent);
  EXPECT_EQ(Queried(jni, partition(), -1, 0, revision).list.size(), 4U);
  get("missing");
  EXPECT_EQ(order(), (Keys{"a", "c", "d", "b"}));
  get("b");  // the last one stays the last
  EXPECT_EQ(order(), (Keys{"a", "c", "d", "b"}));
  check();
  EXPECT_EQ(evictKeys(3), (Keys{"a", "c", "d"}));
  EXPECT_EQ(evictKeys(3), (Keys{"b"}));
  check();
}

TEST_F(BoundedTest, LruOfASingleEntry) {
  open(kLru, true);
  put("a", "v", kLater);
  get("a", kLater + 1);
  pinAndUnpin("a", kLater - 1);
  EXPECT_EQ(order(), (Keys{"a"}));
  EXPECT_EQ(timeOrder(), (Keys{"a"}));
  check();
  EXPECT_EQ(remove("a"), 1);
  check();
}

TEST_F(BoundedTest, LfuCountsUses) {
  open(kLfu, false);
  for (const char* key : {"a", "b", "c", "d"}) put(key, "v");
  EXPECT_EQ(order(), (Keys{"a", "b", "c", "d"}));
  get("a");
  pinAndUnpin("a");
  get("b");
  EXPECT_EQ(order(), (Keys{"c", "d", "b", "a"}));
  put("c", "v2");
  EXPECT_EQ(order(), (Keys{"d", "b", "c", "a"})) << "behind its equals";
  put("c", "v2", kNever, kReplace);
  EXPECT_EQ(order(), (Keys{"d", "b", "a", "c"}));
  containsKey("d");
  put("d", "v2", kNever, kPutIfAbsent);
  EXPECT_EQ(order(), (Keys{"d", "b", "a", "c"}));
  put("e", "v");
  EXPECT_EQ(order(), (Keys{"d", "e", "b", "a", "c"}));
  EXPECT_EQ(find(map, "c")->evictionData->metadata, 2);
  check();
  EXPECT_EQ(evictKeys(4), (Keys{"d", "e", "b", "a"}));
  // A key that comes back starts again.
  put("a", "v");
  EXPECT_EQ(find(map, "a")->evictionData->metadata, 0);
  EXPECT_EQ(order(), (Keys{"a", "c"}));
  check();
}

// ---- Order by deadline -------------------------------------------------------------------------

TEST_F(BoundedTest, DeadlinesInOrderAreAppended) {
  open(kNone, true);
  put("a", "v", 2000);
  put("b", "v", 2000);
  put("c", "v", 2001);
  EXPECT_EQ(timeOrder(), (Keys{"a", "b", "c"}));
  put("a", "v", 2001);
  EXPECT_EQ(timeOrder(), (Keys{"b", "c", "a"}));
  check();
}

TEST_F(BoundedTest, DeadlinesOutOfOrderAreSorted) {
  open(kNone, true);
  put("a", "v", 2000);
  put("b", "v", 4000);
  put("c", "v", 3000);
  put("d", "v", 1500);
  put("e", "v", 3000);
  put("f", "v", 2000);
  EXPECT_EQ(timeOrder(), (Keys{"d", "a", "f", "c", "e", "b"}));
  put("b", "v", 1200);
  EXPECT_EQ(timeOrder(), (Keys{"b", "d", "a", "f", "c", "e"}));
  put("a", "v", 2500, kReplace);
  EXPECT_EQ(timeOrder(), (Keys{"b", "d", "f", "a", "c", "e"}));
  put("b", "v", kNever);
  put("d", "v", kNever);
  EXPECT_EQ(timeOrder(), (Keys{"f", "a", "c", "e", "b", "d"}));
  check();
  now = 3000;
  EXPECT_EQ(evictKeys(16, true), (Keys{"f", "a", "c", "e"}));
  check();
}

TEST_F(BoundedTest, AccessMovesTheDeadline) {
  open(kLru, true);
  put("a", "v", 2000);
  put("b", "v", 2100);
  get("a", 2200);
  EXPECT_EQ(timeOrder(), (Keys{"b", "a"}));
  pinAndUnpin("b", 2050);  // back in time is possible, too
  EXPECT_EQ(timeOrder(), (Keys{"b", "a"}));
  now = 2050;
  EXPECT_EQ(get("b", 9000), std::nullopt) << "what is expired stays so";
  EXPECT_EQ(get("a", 9000), "v");
  EXPECT_EQ(find(map, "a")->ttlEvictionData->metadata, 9000);
  containsKey("a");
  put("a", "v", 9999, kPutIfAbsent);
  EXPECT_EQ(find(map, "a")->ttlEvictionData->metadata, 9000);
  check();
}

TEST_F(BoundedTest, ADeadlineCanBeKept) {
  open(kLru, true);
  put("a", "v", 2000);
  put("b", "v", 2000);
  get("a", kKeep);
  pinAndUnpin("a", kKeep);
  EXPECT_EQ(timeOrder(), (Keys{"a", "b"}));
  EXPECT_EQ(order(), (Keys{"b", "a"}));
  EXPECT_EQ(find(map, "a")->ttlEvictionData->metadata, 2000);
  now = 1999;
  EXPECT_EQ(get("a", kKeep), "v");
  now = 2000;
  EXPECT_EQ(get("a", kKeep), std::nullopt);
  check();
}

TEST_F(BoundedTest, DeadlinesOfATickerBelowZero) {
  open(kLru, true);
  now = -5000;
  put("a", "v", -4000);
  put("b", "v", 10);
  EXPECT_EQ(get("a", -3000), "v");
  now = -3001;
  EXPECT_TRUE(containsKey("a"));
  now = -3000;
  EXPECT_FALSE(containsKey("a"));
  EXPECT_TRUE(containsKey("b"));
  EXPECT_EQ(evictKeys(5, true), (Keys{"a"}));
  check();
}

// ---- Eviction ----------------------------------------------------------------------------------

TEST_F(BoundedTest, EvictionIsLimitedByCountAndByRoom) {
  open(kLru, true);
  for (const char* key : {"a", "b", "c", "d", "e", "f"}) put(key, "v", now);
  EXPECT_EQ(evictKeys(0), Keys{});
  EXPECT_EQ(evictKeys(-1), Keys{});
  EXPECT_EQ(evictKeys(5, false, 0), Keys{});
  EXPECT_EQ(evictKeys(5, true, 0), Keys{});
  EXPECT_EQ(evictKeys(1), (Keys{"a"}));
  EXPECT_EQ(evictKeys(5, false, 2), (Keys{"b", "c"}));
  EXPECT_EQ(calls->evict(5, true, now, 1, 4)->keys(), (Keys{"d"}));
  check();
  EXPECT_EQ(evictKeys(5), (Keys{"e", "f"}));
  check();
}

TEST_F(BoundedTest, EvictionOfAsManyAsThereAre) {
  open(kLru, true);
  for (const char* key : {"a", "b", "c"}) put(key, "v", now);
  EXPECT_EQ(evictKeys(INT32_MAX, false, 2), (Keys{"a", "b"}));
  EXPECT_EQ(evictKeys(INT32_MAX, true, 2), (Keys{"c"}));
  check();
}

TEST_F(BoundedTest, EvictionByDeadlineTakesOnlyWhatIsExpired) {
  open(kLfu, true);
  put("c", "v", 1002);
  put("a", "v", 1000);
  put("b", "v", 1001);
  now = 999;
  EXPECT_EQ(evictKeys(5, true), Keys{});
  now = 1001;
  EXPECT_EQ(evictKeys(1, true), (Keys{"a"}));
  EXPECT_EQ(evictKeys(5, true), (Keys{"b"}));
  EXPECT_EQ(evictKeys(5, true), Keys{});
  EXPECT_EQ(order(), (Keys{"c"}));
  check();
}

TEST_F(BoundedTest, EvictionByUseTakesExpiredEntriesLikeOthers) {
  open(kLru, true);
  put("a", "v", 5000);
  put("b", "v", 1000);
  now = 1001;
  EXPECT_EQ(evictKeys(1), (Keys{"a"}));
  EXPECT_EQ(evictKeys(1), (Keys{"b"}));
  check();
}

TEST_F(BoundedTest, EvictedEntriesStayReadableUntilTheirPinsAreDropped) {
  open(kLru, true);
  put("a", "first", now);
  put("b", "second");
  const Books before = Books::now();
  {
    const auto evicted = calls->evict(2, false, now, 2);
    EXPECT_EQ(boundBytes(), 0);
    EXPECT_EQ(boundEntries(), 0);
    EXPECT_EQ(put("a", "other"), 1);
    EXPECT_TRUE(calls->clear());
    ASSERT_EQ(evicted->keys(), (Keys{"a", "b"}));
    EXPECT_EQ(evicted->list[0].value.text(), "first");
    EXPECT_EQ(evicted->list[1].value.text(), "second");
    EXPECT_EQ(evicted->list[0].revision, 1);
    EXPECT_EQ(evicted->list[1].revision, 2);
    // Key and value of both; records and eviction records went with the entries.
    EXPECT_EQ(Books::now().blocks, before.blocks - 2 * 5 + 2 * 2);
  }
  EXPECT_EQ(Books::now().blocks, before.blocks - 2 * 5);
  check();
}

TEST_F(BoundedTest, APinnedValueOutlivesTheEvictionOfItsEntry) {
  open(kLru, true);
  put("a", "value");
  std::vector<jlong> words;
  const jlong pinned = calls->pin("a", hashOf("a"), now, kKeep, &words);
  EXPECT_EQ(evictKeys(1), (Keys{"a"}));
  EXPECT_EQ(get("a"), std::nullopt);
  EXPECT_EQ(put("a", "other"), 1);
  EXPECT_EQ(face::placeAt(words, 0).text(), "value");
  calls->unpin(pinned);
  check();
}

// ---- Steps between which another thread acts ---------------------------------------------------

// Runs `act` once, in an environment of its own, when the library writes a record that contains
// `text`; only for records that are written without a lock held.
class WhenTraced {
 public:
  WhenTraced(ScriptedJni& jni, std::string text, std::function<void(ScriptedJni&)> act)
      : jni_(jni) {
    logInfo.debug = true;
    logInfo.entryExit = true;
    jni_.onRecord([this, text = std::move(text), act = std::move(act)](const LogRecord& record) {
      if (fired_ || record.text.find(text) == std::string::npos) return;
      fired_ = true;
      logInfo.debug = false;
      logInfo.entryExit = false;
      EXPECT_EQ(heldLockCount(), 0);
      ScriptedJni other;
      act(other);
    });
  }
  ~WhenTraced() {
    EXPECT_TRUE(fired_);
    logInfo.debug = false;
    logInfo.entryExit = false;
    jni_.onRecord(nullptr);
    jni_.clearRecords();
  }
  WhenTraced(const WhenTraced&) = delete;
  WhenTraced& operator=(const WhenTraced&) = delete;

 private:
  ScriptedJni& jni_;
  bool fired_ = false;
};

constexpr const char* kReplaced = "updated LuValue=";
constexpr const char* kInserted = "return new value. newLuValue=";

class BoundedSteps : public BoundedTest {
 protected:
  void SetUp() override {
    BoundedTest::SetUp();
    open(kLru, true);
  }
};

// A value that has been stored lives until its own deadline, also when the one that it replaces
// expires at this very moment.
TEST_F(BoundedSteps, AReplacementIsNotLostToTheOldDeadline) {
  put("k", "old", 2000);
  now = 1999;
  jint result = -1;
  {
    const WhenTraced collector(jni, kReplaced, [&](ScriptedJni& other) {
      Caller(other, partition()).evict(5, true, 2000, 5);
    });
    result = put("k", "new", 5000);
  }
  check();
  now = 2001;
  EXPECT_EQ(result, 0);
  EXPECT_EQ(get("k"), "new");
}

// The deadline of an entry is that of the write whose value it holds.
TEST_F(BoundedSteps, AReplacementRightBehindAnInsertKeepsItsDeadline) {
  {
    const WhenTraced writer(jni, kInserted, [&](ScriptedJni& other) {
      EXPECT_EQ(Caller(other, partition()).put("k", hashOf("k"), "second", 2, now, 9000, kPut), 0);
    });
    EXPECT_EQ(put("k", "first", 2000), 1);
  }
  check();
  now = 2000;
  EXPECT_EQ(get("k"), "second");
}

TEST_F(BoundedSteps, AnEntryThatGoesRightBehindItsInsertLeavesNoRecords) {
  {
    const WhenTraced remover(jni, kInserted, [&](ScriptedJni& other) {
      EXPECT_EQ(Caller(other, partition()).remove("k", hashOf("k"), now), 1);
    });
    EXPECT_EQ(put("k", "v"), 1);
  }
  EXPECT_EQ(boundEntries(), 0);
  EXPECT_EQ(boundBytes(), 0);
  EXPECT_EQ(order(), Keys{});
  EXPECT_EQ(timeOrder(), Keys{});
  check();
}

TEST_F(BoundedSteps, AnEntryThatIsReplacedByAnotherInsertKeepsItsOwnRecords) {
  {
    const WhenTraced others(jni, kInserted, [&](ScriptedJni& other) {
      Caller second(other, partition());
      EXPECT_EQ(second.remove("k", hashOf("k"), now), 1);
      EXPECT_EQ(second.put("k", hashOf("k"), "theirs", 9, now, 7000, kPut), 1);
    });
    EXPECT_EQ(put("k", "mine", 2000), 1);
  }
  EXPECT_EQ(get("k"), "theirs");
  EXPECT_EQ(find(map, "k")->ttlEvictionData->metadata, 7000);
  check();
}

// An entry that has just been evicted and stored again is not the one that was written.
TEST_F(BoundedSteps, AReplacedEntryMayBeEvictedAtOnce) {
  put("k", "old");
  {
    const WhenTraced evictor(jni, kReplaced, [&](ScriptedJni& other) {
      EXPECT_EQ(Caller(other, partition()).evict(1, false, now, 1)->keys(), (Keys{"k"}));
    });
    EXPECT_EQ(put("k", "new"), 0);
  }
  EXPECT_EQ(get("k"), std::nullopt);
  EXPECT_EQ(boundBytes(), 0);
  check();
}

// Runs `act` once at the first allocation with this label.
class AtAllocation {
 public:
  AtAllocation(const char* label, std::function<void()> act) : label_(label), act_(std::move(act)) {
    active_ = this;
    faults::refuseAllocation = &AtAllocation::hook;
  }
  ~AtAllocation() {
    EXPECT_FALSE(act_) << "the moment did not come";
    faults::refuseAllocation = nullptr;
  }
  AtAllocation(const AtAllocation&) = delete;
  AtAllocation& operator=(const AtAllocation&) = delete;

 private:
  static bool hook(uint64_t, const char* label) {
    if (active_->act_ && label == std::string_view(active_->label_)) {
      const auto act = std::exchange(active_->act_, nullptr);
      act();
    }
    return false;
  }
  static inline AtAllocation* active_ = nullptr;

  const char* const label_;
  std::function<void()> act_;
};

TEST_F(BoundedSteps, AKeyThatComesBetweenProbeAndInsert) {
  for (const Mode mode : {kPut, kPutIfAbsent}) {
    {
      const AtAllocation other("Key Data", [&] {
        EXPECT_EQ(calls->put("k", hashOf("k"), "theirs", ++revision, now, kLater, kPut), 1);
      });
      EXPECT_EQ(put("k", "mine", kNever, mode), 0);
    }
    EXPECT_EQ(get("k"), mode == kPut ? "mine" : "theirs");
    check();
    remove("k");
  }
}

TEST_F(BoundedSteps, TheRoomThatAnotherThreadTakesFirst) {
  open(kLru, true, 0, 1);
  {
    const AtAllocation other("Key Data", [&] { EXPECT_EQ(put("other", "v"), 1); });
    EXPECT_EQ(put("k", "v"), kNoRoom);
  }
  EXPECT_EQ(order(), (Keys{"other"}));
  check();
}

}  // namespace
}  // namespace nimbra::test::bounded
