// The map face's walk: every entry exactly once, whatever happens between two steps.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>
#include <tuple>

#include "face_support.h"

namespace nimbra::test::face {
namespace {

std::string keyName(int number) { return "key " + std::to_string(number); }
std::string valueName(int number) { return "value of " + std::to_string(number); }

class FaceWalk : public FaceTest {
 protected:
  // Entries of one bucket: the load factor keeps a set from growing.
  void fillOneBucket(int entries, jint hash) {
    for (int i = 0; i < entries; ++i) {
      ASSERT_EQ(calls->put(keyName(i), hash, valueName(i), i), 1);
    }
  }
  void fill(int from, int to) {
    for (int i = from; i < to; ++i) ASSERT_EQ(put(keyName(i), valueName(i), i), 1);
  }

  // A step that fits: as the face does, a bucket that does not fit makes the array grow.
  jint stepThatFits(Walk& walk) {
    for (;;) {
      const std::vector<jlong> cursor = walk.cursor();
      const jint count = walk.step();
      if (count >= 0) return count;
      EXPECT_FALSE(walk.ended());
      walk.setCapacity(-count);
    }
  }

  // Notes the entries of a step, compares them with what `fill` made, and drops their pins.
  void take(Walk& walk, Seen& seen) {
    for (const Walk::Entry& entry : walk.entries()) {
      const std::string key(entry.key.text());
      ++seen[key];
      EXPECT_EQ(entry.value.text(), valueName(static_cast<int>(entry.revision)));
      EXPECT_EQ(key, keyName(static_cast<int>(entry.revision)));
    }
    walk.release();
  }

  Seen wholeWalk(jint capacity) {
    Seen seen;
    Walk walk(*calls, capacity);
    while (!walk.ended()) {
      stepThatFits(walk);
      take(walk, seen);
    }
    return seen;
  }

  uint32_t bucketCount(uint32_t set) { return getBucketSetByIndex(map->map, set)->bucketCount; }

  // A hash that selects this set.
  jint hashInSet(uint32_t index, jint from = 1) {
    for (jint hash = from;; ++hash) {
      if (getBucketSet(map->map, static_cast<uint32_t>(hash)) ==
          getBucketSetByIndex(map->map, index)) {
        return hash;
      }
    }
  }
};

// ---- A table that stays as it is ---------------------------------------------------------------

struct Shape {
  jint sets;
  float loadFactor;
  int entries;
};

class FaceWalkStable : public FaceWalk, public ::testing::WithParamInterface<Shape> {};

TEST_P(FaceWalkStable, EveryEntryOnceForEveryCapacity) {
  remakeMap(GetParam().sets, GetParam().loadFactor);
  fill(0, GetParam().entries);
  const Books before = Books::now();
  for (const jint capacity : {1, 2, 3, 4, 5, 7, 16, 100, 5000}) {
    SCOPED_TRACE(capacity);
    const Seen seen = wholeWalk(capacity);
    EXPECT_EQ(seen.size(), static_cast<size_t>(GetParam().entries));
    for (const auto& [key, times] : seen) EXPECT_EQ(times, 1) << key;
    EXPECT_EQ(Books::now(), before);
  }
  checkFaceMap();
}

INSTANTIATE_TEST_SUITE_P(Shapes, FaceWalkStable,
                         ::testing::Values(Shape{1, 0.75F, 0}, Shape{8, 0.75F, 0},
                                           Shape{1, 0.75F, 1}, Shape{8, 0.75F, 1},
                                           Shape{1, 0.75F, 2}, Shape{1, 0.75F, 700},
                                           Shape{2, 0.75F, 700}, Shape{16, 0.75F, 700},
                                           Shape{16, 3, 900}, Shape{4, 1000, 60}),
                         [](const auto& info) {
                           return "Sets" + std::to_string(info.param.sets) + "Entries" +
                                  std::to_string(info.param.entries) +
                                  (info.param.loadFactor > 1 ? "Dense" : "");
                         });

TEST_F(FaceWalk, AnEmptyTableEndsInOneStep) {
  for (const jint sets : {1, 8}) {
    remakeMap(sets);
    for (const jint capacity : {0, 1, 10}) {
      Walk walk(*calls, capacity);
      EXPECT_EQ(walk.step(), 0);
      EXPECT_TRUE(walk.ended());
      EXPECT_EQ(walk.step(), 0) << "a step behind the end shows nothing";
      EXPECT_TRUE(walk.ended());
    }
  }
}

TEST_F(FaceWalk, OneStepTakesAsMuchAsFits) {
  remakeMap(4);
  fill(0, 200);
  Walk walk(*calls, 200);
  EXPECT_EQ(walk.step(), 200);
  EXPECT_TRUE(walk.ended());
  walk.release();
}

TEST_F(FaceWalk, SpareLongsHoldNoEntry) {
  fill(0, 40);
  Walk walk(*calls, 1);
  walk.setCapacity(8, 4);
  Seen seen;
  while (!walk.ended()) {
    EXPECT_LE(stepThatFits(walk), 8);
    take(walk, seen);
  }
  EXPECT_EQ(seen.size(), 40U);
}

TEST_F(FaceWalk, KeysAndValuesOfEveryLength) {
  const std::vector<size_t> lengths = {0, 1, 511, 512, 513, 65535};
  for (const size_t length : lengths) {
    EXPECT_EQ(
        put(std::string(length, 'k'), std::string(2 * length, 'v'), static_cast<jlong>(length)), 1);
  }
  Walk walk(*calls, 100);
  EXPECT_EQ(walk.step(), static_cast<jint>(lengths.size()));
  for (const Walk::Entry& entry : walk.entries()) {
    const auto length = static_cast<size_t>(entry.revision);
    EXPECT_EQ(entry.key.text(), std::string(length, 'k'));
    EXPECT_EQ(entry.value.text(), std::string(2 * length, 'v'));
  }
  walk.release();
  checkFaceMap();
}

// ---- Buckets that do not fit -------------------------------------------------------------------

TEST_F(FaceWalk, ABucketThatDoesNotFitSaysHowMuchItNeeds) {
  remakeMap(1, 1000);
  constexpr int kEntries = 23;
  fillOneBucket(kEntries, 5);
  const Books before = Books::now();
  for (jint capacity = 0; capacity < kEntries; ++capacity) {
    Walk walk(*calls, capacity);
    walk.setCapacity(capacity, kWordsPerEntry - 1);
    EXPECT_EQ(walk.step(), -kEntries);
    EXPECT_EQ(walk.cursor(), (std::vector<jlong>{0, 0})) << "the cursor stays";
    checkFaceMap();
  }
  EXPECT_EQ(Books::now(), before);
  Walk walk(*calls, kEntries);
  EXPECT_EQ(walk.step(), kEntries);
  EXPECT_TRUE(walk.ended());
  Seen seen;
  take(walk, seen);
  EXPECT_EQ(seen.size(), static_cast<size_t>(kEntries));
}

// The bucket is met in the middle of a walk: what came before is delivered first.
TEST_F(FaceWalk, ALongBucketBehindShortOnes) {
  remakeMap(4, 1000);
  ASSERT_EQ(calls->put(keyName(100), hashInSet(0), valueName(100), 100), 1);
  const jint crowded = hashInSet(2);
  fillOneBucket(9, crowded);
  ASSERT_EQ(calls->put(keyName(101), hashInSet(3), valueName(101), 101), 1);
  Seen seen;
  Walk walk(*calls, 4);
  EXPECT_EQ(walk.step(), 1);
  take(walk, seen);
  const std::vector<jlong> cursor = walk.cursor();
  EXPECT_EQ(walk.step(), -9);
  EXPECT_EQ(walk.cursor(), cursor);
  checkFaceMap();
  EXPECT_EQ(walk.step(), -9) << "and again, as long as the array is too small";
  EXPECT_EQ(walk.cursor(), cursor);
  walk.setCapacity(9);
  EXPECT_EQ(walk.step(), 9);
  take(walk, seen);
  EXPECT_EQ(walk.step(), 1);
  take(walk, seen);
  EXPECT_TRUE(walk.ended());
  EXPECT_EQ(seen.size(), 11U);
  for (const auto& [key, times] : seen) EXPECT_EQ(times, 1) << key;
}

// Sets of no entries in front of it change nothing.
TEST_F(FaceWalk, ALongBucketBehindEmptyOnes) {
  remakeMap(8, 1000);
  fillOneBucket(6, hashInSet(5));
  Walk walk(*calls, 5);
  EXPECT_EQ(walk.step(), -6);
  EXPECT_EQ(walk.cursor(), (std::vector<jlong>{0, 0})) << "the cursor stays";
  checkFaceMap();
  walk.setCapacity(6);
  EXPECT_EQ(walk.step(), 6);
  EXPECT_TRUE(walk.ended());
  Seen seen;
  take(walk, seen);
  EXPECT_EQ(seen.size(), 6U);
}

// ---- Pins of a step ----------------------------------------------------------------------------

TEST_F(FaceWalk, AStepPinsKeyAndValueOfEachEntryOnce) {
  fill(0, 10);
  Walk walk(*calls, 10);
  ASSERT_EQ(walk.step(), 10);
  std::map<const ByteBufferHeader*, int> pinned;
  for (const LuOffHeapValue* entry : entriesOf(map)) {
    pinned[entry->key] = 1;
    pinned[entry->value] = 1;
  }
  checkFaceMap(pinned);
  // Piece by piece, as an iteration that ends early does it.
  const std::vector<Walk::Entry> entries = walk.entries();
  const auto drop = [&](jint from, jint count) {
    walk.release(from, count);
    for (jint i = from; i < from + count; ++i) {
      const LuOffHeapValue* entry = find(map, entries[static_cast<size_t>(i)].key.text());
      pinned.erase(entry->key);
      pinned.erase(entry->value);
    }
    checkFaceMap(pinned);
  };
  drop(0, 1);
  drop(7, 3);
  drop(4, 0);
  drop(1, 6);
  walk.released();
}

TEST_F(FaceWalk, TwoWalksAtOnce) {
  fill(0, 50);
  Walk first(*calls, 50);
  Walk second(*calls, 50);
  ASSERT_EQ(first.step(), 50);
  ASSERT_EQ(second.step(), 50);
  first.release();
  Seen seen;
  take(second, seen);
  EXPECT_EQ(seen.size(), 50U);
  checkFaceMap();
}

TEST_F(FaceWalk, AStepStaysReadableWhateverHappensToTheMap) {
  fill(0, 30);
  Walk walk(*calls, 30);
  ASSERT_EQ(walk.step(), 30);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(put(keyName(i), "other", 100), 0);
  for (int i = 10; i < 20; ++i) EXPECT_EQ(calls->remove(keyName(i), hashOf(keyName(i))), 1);
  deleteMap(map);
  map = nullptr;
  // Memory that was given back would be used again by these.
  std::vector<ByteBufferHeader*> others;
  for (int i = 0; i < 200; ++i) others.push_back(buffer(std::string(12, 'z')));
  Seen seen;
  take(walk, seen);
  EXPECT_EQ(seen.size(), 30U);
  for (ByteBufferHeader* other : others) drop(other);
}

// ---- A table that changes between the steps ----------------------------------------------------

class FaceWalkGrowing : public FaceWalk,
                        public ::testing::WithParamInterface<std::tuple<jint, int>> {};

// Entries that are there from start to end are seen exactly once; newcomers at most once.
TEST_P(FaceWalkGrowing, SetsThatGrowHideAndRepeatNothing) {
  const auto [sets, capacity] = GetParam();
  constexpr int kBase = 150;
  constexpr int kBurst = 400;
  constexpr int kBursts = 10;
  remakeMap(sets);
  fill(0, kBase);
  const uint32_t bucketsBefore = bucketCount(0);
  Seen seen;
  {
    Walk walk(*calls, capacity);
    int bursts = 0;
    while (!walk.ended()) {
      stepThatFits(walk);
      take(walk, seen);
      if (bursts < kBursts) {
        fill(kBase + bursts * kBurst, kBase + (bursts + 1) * kBurst);
        ++bursts;
      }
    }
    EXPECT_GT(bursts, 0);
  }
  EXPECT_GT(bucketCount(0), bucketsBefore);
  for (int i = 0; i < kBase; ++i) EXPECT_EQ(seen[keyName(i)], 1) << keyName(i);
  for (const auto& [key, times] : seen) EXPECT_EQ(times, 1) << key;
  checkFaceMap();
}

INSTANTIATE_TEST_SUITE_P(SetsAndCapacities, FaceWalkGrowing,
                         ::testing::Combine(::testing::Values(1, 2, 8),
                                            ::testing::Values(1, 2, 3, 10, 64)),
                         [](const auto& info) {
                           return "Sets" + std::to_string(std::get<0>(info.param)) + "Capacity" +
                                  std::to_string(std::get<1>(info.param));
                         });

// A step stands in the middle of a set when that set doubles several times.
TEST_F(FaceWalk, EveryPositionSurvivesGrowth) {
  constexpr int kBase = 48;
  for (int stop = 0; stop < kBase; ++stop) {
    remakeMap(1);
    fill(0, kBase);
    Seen seen;
    {
      Walk walk(*calls, 1);
      for (int i = 0; i < stop && !walk.ended(); ++i) {
        stepThatFits(walk);
        take(walk, seen);
      }
      const uint32_t before = bucketCount(0);
      fill(kBase, 10 * kBase);
      EXPECT_GE(bucketCount(0), 4 * before);
      while (!walk.ended()) {
        stepThatFits(walk);
        take(walk, seen);
      }
    }
    for (int i = 0; i < kBase; ++i) ASSERT_EQ(seen[keyName(i)], 1) << "stopped after " << stop;
    for (const auto& [key, times] : seen) ASSERT_EQ(times, 1) << key;
  }
}

TEST_F(FaceWalk, AnEmptiedTableEndsTheWalk) {
  fill(0, 100);
  Seen seen;
  Walk walk(*calls, 3);
  stepThatFits(walk);
  take(walk, seen);
  EXPECT_EQ(natives::clear(env, caller, calls->handle()), JNI_TRUE);
  EXPECT_EQ(walk.step(), 0);
  EXPECT_TRUE(walk.ended());
}

// Random writes between the steps, beside a record of what was there the whole time.
TEST_F(FaceWalk, RandomChangesBetweenSteps) {
  const char* given = std::getenv("NIMBRA_TEST_SEED");
  const uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device{}();
  std::printf("NIMBRA_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
  std::mt19937_64 random(seed);
  const auto below = [&](uint64_t limit) { return static_cast<int>(random() % limit); };
  for (int round = 0; round < 60 && !HasFailure(); ++round) {
    remakeMap(1 << below(4), below(4) == 0 ? 5.0F : 0.75F);
    const int keys = 1 + below(400);
    std::set<int> present;
    const auto change = [&](int key) {
      if (present.contains(key) && below(2) == 0) {
        EXPECT_EQ(calls->remove(keyName(key), hashOf(keyName(key))), 1);
        present.erase(key);
      } else {
        EXPECT_EQ(put(keyName(key), valueName(key), key), present.contains(key) ? 0 : 1);
        present.insert(key);
      }
    };
    for (int i = below(400); i > 0; --i) change(below(static_cast<uint64_t>(keys)));
    std::set<int> always = present;
    Seen seen;
    Walk walk(*calls, 1 + below(20));
    while (!walk.ended()) {
      stepThatFits(walk);
      take(walk, seen);
      for (int i = below(30); i > 0; --i) {
        const int key = below(static_cast<uint64_t>(2 * keys));
        change(key);
        if (!present.contains(key)) always.erase(key);
      }
    }
    for (const int key : always) EXPECT_EQ(seen[keyName(key)], 1) << keyName(key);
    for (const auto& [key, times] : seen) EXPECT_LE(times, 1) << key;
    checkFaceMap();
  }
}

// ---- Locks that cannot be had ------------------------------------------------------------------

void expectLockFailure(ScriptedJni& jni) {
  const std::optional<Thrown> thrown = jni.takePending();
  ASSERT_TRUE(thrown.has_value());
  EXPECT_EQ(thrown->className, kIllegalState);
  EXPECT_TRUE(thrown->message.ends_with("] Error acquiring BucketSet lock in Nimbra library."))
      << thrown->message;
}

TEST_F(FaceWalk, ALockFailureAtTheStartOfAStepRaises) {
  remakeMap(4, 1000);
  fill(0, 40);
  const Books before = Books::now();
  Walk walk(*calls, 100);
  {
    const FailThisLock failing(&getBucketSetByIndex(map->map, 0)->mutex, LockOp::lock);
    EXPECT_EQ(walk.step(), 0);
    expectLockFailure(jni);
    EXPECT_EQ(walk.cursor(), (std::vector<jlong>{0, 0}));
  }
  checkFaceMap();
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(walk.step(), 40);
  EXPECT_TRUE(walk.ended());
  walk.release();
}

TEST_F(FaceWalk, ALockFailureInTheMiddleOfAStepWaitsForTheNext) {
  remakeMap(4, 1000);
  fill(0, 40);
  const uint32_t inFront =
      getBucketSetByIndex(map->map, 0)->size + getBucketSetByIndex(map->map, 1)->size;
  ASSERT_GT(inFront, 0U);
  ASSERT_LT(inFront, 40U);
  Seen seen;
  Walk walk(*calls, 100);
  {
    const FailThisLock failing(&getBucketSetByIndex(map->map, 2)->mutex, LockOp::lock);
    EXPECT_EQ(walk.step(), static_cast<jint>(inFront));
    EXPECT_FALSE(jni.pending().has_value()) << "Java has to learn what it holds pinned";
    EXPECT_FALSE(walk.ended());
    take(walk, seen);
    EXPECT_EQ(walk.step(), 0);
    expectLockFailure(jni);
    EXPECT_FALSE(walk.ended());
    EXPECT_EQ(failing.fired(), 2);
  }
  EXPECT_EQ(walk.step(), 40 - static_cast<jint>(inFront));
  take(walk, seen);
  EXPECT_TRUE(walk.ended());
  EXPECT_EQ(seen.size(), 40U);
  for (const auto& [key, times] : seen) EXPECT_EQ(times, 1) << key;
  checkFaceMap();
}

}  // namespace
}  // namespace nimbra::test::face
