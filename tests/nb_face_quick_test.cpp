// The face's writes with the trace levels off against the same writes with a level on, through
// arrays and through memory of the thread: same answers, same map down to every pin. And what the
// quick road leaves to the ordinary one: locks that it cannot have, and entries that are not where
// it looks for them.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "quick_support.h"
#include "stress_support.h"

namespace nimbra::test::quick {
namespace {

using Kind = RoadMap::Kind;
using Step = RoadMap::Step;

constexpr jint kHash = 4711;

class QuickRoad : public MapTest {
 protected:
  void SetUp() override {
    MapTest::SetUp();
    remake(1, 1000);
  }
  void TearDown() override {
    drop();
    MapTest::TearDown();
  }
  void drop() {
    if (roads.has_value()) {
      for (const auto& each : roads->maps()) deleteMap(each->map());
    }
    roads.reset();
  }
  void remake(jint bucketSets, float loadFactor) {
    drop();
    roads.emplace(jni);
    for (const Road road : kRoads) roads->add(makeMap(bucketSets, loadFactor), road);
  }
  // A resume point in the queue of every map.
  void mark(uint32_t index, std::string_view key) {
    for (const auto& each : roads->maps()) {
      LuOffHeapRevisionOrderQueue* queue = each->map()->revisionQueue[0];
      ASSERT_EQ(lockQueue(queue), 0);
      add_bookmark(env, queue, find(each->map(), key), index);
      ASSERT_EQ(unlockQueue(queue), 0);
    }
  }
  void checkAll() {
    for (const auto& each : roads->maps()) {
      SCOPED_TRACE(nameOf(each->road()));
      checkMap(env, each->map());
    }
  }
  std::string put(std::string key, std::string value, jlong revision, jint hash = kHash) {
    return roads->run({Kind::kPut, std::move(key), hash, std::move(value), revision});
  }
  std::string remove(std::string key, jint hash = kHash) {
    return roads->run({Kind::kRemove, std::move(key), hash});
  }

  std::optional<Roads> roads;
};

// ---- The same as the ordinary road -------------------------------------------------------

// Any entry of a short queue gets any place, with resume points on every entry.
TEST_F(QuickRoad, EveryMoveOfEveryEntry) {
  for (int entries = 1; entries <= 4; ++entries) {
    for (int moved = 1; moved <= entries; ++moved) {
      for (jlong revision = 5; revision <= entries * 10 + 5; revision += 5) {
        SCOPED_TRACE("entry " + std::to_string(moved) + " of " + std::to_string(entries) + " to " +
                     std::to_string(revision));
        remake(1, 1000);
        for (int i = 1; i <= entries; ++i) put(std::to_string(i), "value", i * 10);
        for (int i = 1; i <= entries; ++i) mark(static_cast<uint32_t>(i), std::to_string(i));
        EXPECT_EQ(put(std::to_string(moved), "another value", revision), "0");
        EXPECT_EQ(put(std::to_string(moved), "", revision), "0");
        checkAll();
        if (::testing::Test::HasFailure()) return;
      }
    }
  }
}

// The entries form one chain as well: the first, one within, the last go, and the rest after them.
TEST_F(QuickRoad, EveryRemovalOfEveryEntry) {
  for (int entries = 1; entries <= 4; ++entries) {
    for (int removed = 1; removed <= entries; ++removed) {
      SCOPED_TRACE("entry " + std::to_string(removed) + " of " + std::to_string(entries));
      remake(1, 1000);
      for (int i = 1; i <= entries; ++i) put(std::to_string(i), "value", 100 - i * 10);
      for (int i = 1; i <= entries; ++i) mark(static_cast<uint32_t>(i), std::to_string(i));
      EXPECT_EQ(remove(std::to_string(removed)), "1");
      EXPECT_EQ(remove(std::to_string(removed)), "0");
      checkAll();
      for (int i = 1; i <= entries; ++i) remove(std::to_string(i));
      EXPECT_EQ(put("new", "value", 1), "1");
      checkAll();
      if (::testing::Test::HasFailure()) return;
    }
  }
}

TEST_F(QuickRoad, ANewEntryAmongOlderOnesOfTheSameRevision) {
  int made = 0;
  for (const jlong revision : {5, 5, 9, 5, 1, 9, 1, 7}) {
    EXPECT_EQ(put("key " + std::to_string(++made), "value", revision), "1");
  }
  checkAll();
}

struct Shape {
  const char* name;
  jint bucketSets;
  float loadFactor;
  int hashes;  // that the keys share
  int newest;  // revisions: 0 ascending, -1 descending, otherwise any up to this
};
std::ostream& operator<<(std::ostream& out, const Shape& shape) { return out << shape.name; }

class RandomSteps : public QuickRoad, public ::testing::WithParamInterface<Shape> {};

TEST_P(RandomSteps, AllRoadsAgree) {
  const Shape& shape = GetParam();
  std::mt19937_64 random(stress::testSeed());
  const auto below = [&random](int limit) {
    return static_cast<int>(random() % static_cast<uint64_t>(limit));
  };
  remake(shape.bucketSets, shape.loadFactor);
  constexpr int kKeys = 24;
  constexpr int kSteps = 600;
  for (int i = 0; i < kSteps && !HasFailure(); ++i) {
    const int key = below(kKeys);
    const std::string name =
        key == 0 ? std::string() : std::to_string(key) + std::string(key == 1 ? 511 : 0, 'k');
    // As many writes as all others, so that the map is neither empty nor full for long.
    const Kind kind = below(3) == 0 ? Kind::kPut : static_cast<Kind>(below(RoadMap::kKinds));
    const jlong revision =
        shape.newest == 0 ? i : (shape.newest < 0 ? kSteps - i : below(shape.newest));
    const int length = below(8) == 0 ? 4096 : below(100);
    if (below(3) == 0) mark(static_cast<uint32_t>(below(3)), name);
    roads->run({kind, name, (key % shape.hashes) * 977,
                std::string(static_cast<size_t>(length), 'v'), revision});
  }
  checkAll();
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, RandomSteps,
    ::testing::Values(Shape{"OneChain", 1, 1000, 1, 0}, Shape{"Chains", 1, 1000, 4, 9},
                      Shape{"Growing", 1, 0.75F, 24, 0}, Shape{"GrowingFewHashes", 1, 0.75F, 5, 30},
                      Shape{"Sets", 4, 0.75F, 24, -1}, Shape{"Descending", 1, 1000, 24, -1},
                      Shape{"EqualRevisions", 1, 0.75F, 24, 1},
                      Shape{"AnyRevision", 4, 1000, 24, 1000}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- Locks that it cannot have -----------------------------------------------------------

// The locks of each write, in the order in which they are taken.
struct Write {
  const char* name;
  Kind kind;
  const char* key;
  std::string locks;
  int blocks;  // that the ordinary road has made when it takes its first lock
  const char* answer;
};
std::ostream& operator<<(std::ostream& out, const Write& write) { return out << write.name; }

class QuickLocks : public MapTest, public ::testing::WithParamInterface<Write> {
 protected:
  void SetUp() override {
    MapTest::SetUp();
    refill();
  }
  void refill() {
    calls.reset();
    deleteMap(map);
    map = makeMap(1, 1000);
    calls.emplace(jni, map, Road::kQuick);
    for (const auto& [key, revision] : {std::pair{"first", 1}, {"here", 5}, {"last", 9}}) {
      ASSERT_EQ(calls->run({Kind::kPut, key, kHash, "value", revision}), "1");
    }
  }
  std::string run() { return calls->run({GetParam().kind, GetParam().key, kHash, "new value", 7}); }
  std::optional<RoadMap> calls;
};

TEST_P(QuickLocks, TakesThemInOrder) {
  LockTrace locks;
  EXPECT_EQ(run(), GetParam().answer);
  EXPECT_EQ(locks.taken(), GetParam().locks);
  EXPECT_EQ(heldLockCount(), 0);
}

// Each acquisition in turn is refused once: the quick road lets everything go with nothing changed,
// and the ordinary one does the work.
TEST_P(QuickLocks, RefusedOneByOne) {
  run();
  const std::string done = wholeState(env, map);
  for (int nth = 1;; ++nth) {
    SCOPED_TRACE("acquisition " + std::to_string(nth));
    ASSERT_LE(nth, 20);
    refill();
    const std::string before = wholeState(env, map);
    const Books books = Books::now();
    int met = 0;
    int heldAfter = -1;
    std::string after;
    Books booksAfter{};
    std::string taken;
    std::string answer;
    {
      // What stands at the first acquisition behind the refused one.
      LockTrace locks([&](LockRank, const void*, LockOp operation) {
        if (!LockTrace::isAcquisition(operation)) return 0;
        if (++met == nth + 1) {
          heldAfter = heldLockCount();
          after = wholeState(env, map);
          booksAfter = Books::now();
        }
        return met == nth ? EINVAL : 0;
      });
      answer = run();
      taken = locks.taken();
    }
    EXPECT_EQ(heldLockCount(), 0);
    if (met < nth) break;
    if (taken.find("set!") == 0 && GetParam().kind == Kind::kPutIfAbsent) {
      // The look before the insert is the ordinary one, and fails.
      EXPECT_EQ(answer, std::string("-1 raised ") + kIllegalState);
      EXPECT_EQ(wholeState(env, map), before);
      EXPECT_EQ(Books::now(), books);
      continue;
    }
    EXPECT_EQ(answer, GetParam().answer);
    EXPECT_EQ(after, before) << "the quick road left something undone after " << taken;
    EXPECT_EQ(heldAfter, 0) << taken;
    EXPECT_EQ(booksAfter.metadata, books.metadata);
    EXPECT_LE(booksAfter.blocks, books.blocks + GetParam().blocks);
    EXPECT_GT(taken.size(), GetParam().locks.size())
        << "the ordinary road was not taken: " << taken;
    EXPECT_EQ(wholeState(env, map), done);
    checkMap(env, map);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Writes, QuickLocks,
    ::testing::Values(
        Write{"PutPresent", Kind::kPut, "here", "map read, set, queue", 1, "0"},
        Write{"PutNew", Kind::kPut, "new", "map read, set, queue", 3, "1"},
        Write{"PutIfAbsentNew", Kind::kPutIfAbsent, "new", "set, map read, set, queue", 3, "1"},
        Write{"ReplacePresent", Kind::kReplace, "first", "map read, set, queue", 1, "1"},
        Write{"RemovePresent", Kind::kRemove, "last", "map read, set, queue", 0, "1"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- Writers that need the map alone -----------------------------------------------------

// The quick writes hold the map lock for reading while they wait for the queue, so that it is never
// free: whoever wants it for writing, as each revision query does, must get it all the same.
TEST_F(MapTest, QuickWritesDoNotKeepTheOwnerOfTheMapOut) {
  constexpr int kWriters = 8;
  constexpr int kTimes = 50;
  std::atomic<bool> done{false};
  std::atomic<int> writing{0};
  std::vector<std::thread> writers;
  for (int i = 0; i < kWriters; ++i) {
    writers.emplace_back([&, i] {
      ScriptedJni mine;
      area::Caller calls(mine, map);
      const std::string key = std::to_string(i);
      for (jlong revision = 1; !done; ++revision) {
        EXPECT_GE(calls.put(key, hashOf(key), "value", revision), 0);
        if (revision == 1) ++writing;
      }
    });
  }
  while (writing < kWriters) std::this_thread::yield();
  for (int i = 0; i < kTimes; ++i) {
    EXPECT_EQ(wrlock(env, map), 0);
    EXPECT_EQ(unlock(env, map), 0);
  }
  done = true;
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(contentsOf(map).size(), static_cast<size_t>(kWriters));
  checkMap(env, map);
}

// ---- Entries that it leaves to the ordinary road -----------------------------------------

class QuickLeaves : public MapTest {
 protected:
  void SetUp() override {
    MapTest::SetUp();
    deleteMap(map);
    map = makeMap(1, 1000);
    calls.emplace(jni, map, Road::kQuick);
  }
  std::string run(Kind kind, std::string_view key, std::string value = "new value",
                  jlong revision = 7) {
    const LockTrace locks;
    std::string answer =
        calls->run({kind, std::string(key), hashOf(key), std::move(value), revision});
    taken = locks.taken();
    return answer;
  }
  std::optional<RoadMap> calls;
  std::string taken;
};

TEST_F(QuickLeaves, AnEntryOfAnotherOwner) {
  ASSERT_NE(insert("key", "value", 2, 5), nullptr);
  EXPECT_EQ(run(Kind::kPut, "key"), "0");
  EXPECT_EQ(taken,
            "map read, set, queue, map read, set, queue, map write, set, queue, queue, queue");
  EXPECT_EQ(contentsOf(map), (Rows{{"key", {"new value", 0, 7}}}));
  EXPECT_EQ(map->revisionQueue[2]->count, 0U);
  checkMap(env, map);
  // From now on it is the face's own.
  EXPECT_EQ(run(Kind::kPut, "key", "newer", 8), "0");
  EXPECT_EQ(taken, "map read, set, queue");
  checkMap(env, map);
}

TEST_F(QuickLeaves, TheRemovalOfAnEntryOfAnotherOwner) {
  ASSERT_NE(insert("other", "value", 2, 4), nullptr);
  ASSERT_NE(insert("key", "value", 2, 5), nullptr);
  EXPECT_EQ(run(Kind::kRemove, "key"), "1");
  EXPECT_EQ(taken, "map read, set, queue, set, map read, queue");
  EXPECT_EQ(contentsOf(map).size(), 1U);
  EXPECT_EQ(map->revisionQueue[2]->count, 1U);
  checkMap(env, map);
}

// An update that failed between leaving its queue and entering it again leaves such an entry.
TEST_F(QuickLeaves, AnEntryInNoQueue) {
  ASSERT_NE(insert("other", "value", 0, 4), nullptr);
  for (const Kind kind : {Kind::kPut, Kind::kRemove}) {
    SCOPED_TRACE(static_cast<int>(kind));
    if (find(map, "key") == nullptr) {
      ASSERT_NE(insert("key", "value", 0, 5), nullptr);
    }
    LuOffHeapValue* key = find(map, "key");
    LuOffHeapRevisionOrderQueue* queue = map->revisionQueue[0];
    ASSERT_EQ(lockQueue(queue), 0);
    pin(env, static_cast<Pinnable*>(key), JNI_GET_PIN);
    ASSERT_TRUE(removeFromQueue(env, queue, key));
    key->prev = nullptr;
    key->next = nullptr;
    ASSERT_EQ(unlockQueue(queue), 0);
    EXPECT_EQ(queue->count, 1U);
    run(kind, "key");
    unpinLuOffHeapMapValue(env, key, JNI_GET_PIN);
    EXPECT_TRUE(taken.starts_with("map read, set, queue, ")) << taken;
    if (kind == Kind::kPut) {
      EXPECT_EQ(contentsOf(map).at("key").value, "new value");
      checkMap(env, map);
    } else {
      EXPECT_EQ(find(map, "key"), nullptr);
    }
  }
}

// Of the first entry alone neither neighbour nor queue end tells that it is in the queue.
TEST_F(QuickLeaves, NotTheOnlyEntry) {
  ASSERT_NE(insert("key", "value", 0, 5), nullptr);
  EXPECT_EQ(run(Kind::kPut, "key"), "0");
  EXPECT_EQ(taken, "map read, set, queue");
  EXPECT_EQ(run(Kind::kRemove, "key"), "1");
  EXPECT_EQ(taken, "map read, set, queue");
  checkMap(env, map);
}

TEST_F(QuickLeaves, LongKeys) {
  const std::string key(513, 'k');
  EXPECT_EQ(run(Kind::kPut, key), "1");
  EXPECT_EQ(taken.find("map read"), std::string::npos) << taken;
  EXPECT_EQ(run(Kind::kPut, std::string(512, 'k')), "1");
  EXPECT_EQ(taken, "map read, set, queue");
  checkMap(env, map);
}

// An allocation may call Java, as with disk overflow, though none of these comes near the limits.
class AllocationsMayCallJava {
 public:
  AllocationsMayCallJava() {
    static int method;
    _moreMainMemoryNeededID = reinterpret_cast<jmethodID>(&method);
  }
  ~AllocationsMayCallJava() { _moreMainMemoryNeededID = nullptr; }
  AllocationsMayCallJava(const AllocationsMayCallJava&) = delete;
  AllocationsMayCallJava& operator=(const AllocationsMayCallJava&) = delete;
};

TEST_F(QuickLeaves, NoAllocationThatMayCallJavaUnderTheBucketSet) {
  const AllocationsMayCallJava allocations;
  EXPECT_EQ(run(Kind::kPut, "key"), "1");
  EXPECT_EQ(taken, "map read, set, map read, set, queue");
  checkMap(env, map);
}

// ---- Keys that come and go between the halves of a put -----------------------------------

TEST_F(QuickLeaves, AKeyThatComesBetweenIsUpdated) {
  const AllocationsMayCallJava allocations;  // with both halves apart
  face::Caller other(jni, map);
  int met = 0;
  {
    const LockTrace locks([&](LockRank rank, const void*, LockOp operation) {
      if (rank == LockRank::map && operation == LockOp::readLock && ++met == 2) {
        EXPECT_EQ(other.put("key", hashOf("key"), "other value", 6), 1);
      }
      return 0;
    });
    EXPECT_EQ(calls->run({Kind::kPut, "key", hashOf("key"), "value", 7}), "0");
  }
  EXPECT_EQ(contentsOf(map), (Rows{{"key", {"value", 0, 7}}}));
  checkMap(env, map);
}

TEST_F(QuickLeaves, AKeyThatComesBeforeTheInsertStays) {
  face::Caller other(jni, map);
  int met = 0;
  const Books before = Books::now();
  {
    const LockTrace locks([&](LockRank rank, const void*, LockOp operation) {
      if (rank == LockRank::map && operation == LockOp::readLock && ++met == 1) {
        EXPECT_EQ(other.put("key", hashOf("key"), "other value", 6), 1);
      }
      return 0;
    });
    EXPECT_EQ(calls->run({Kind::kPutIfAbsent, "key", hashOf("key"), "value", 7}), "0");
  }
  EXPECT_EQ(contentsOf(map), (Rows{{"key", {"other value", 0, 6}}}));
  EXPECT_EQ(Books::now().blocks, before.blocks + 3);
  checkMap(env, map);
}

// ---- Memory of the thread ----------------------------------------------------------------

class AreaCalls : public MapTest {
 protected:
  void SetUp() override {
    MapTest::SetUp();
    calls.emplace(jni, map);
  }
  std::optional<area::Caller> calls;
};

TEST_F(AreaCalls, AnAddressIsTheBuffers) {
  std::array<char, 16> bytes{};
  EXPECT_EQ(area::address(env, nullptr, jni.newDirectBuffer(bytes.data(), 16)),
            natives::handle(bytes.data()));
}

TEST_F(AreaCalls, ValuesUpToTheAreasSize) {
  face::Caller arrays(jni, map);
  for (const int length : {0, 1, 4095, 4096}) {
    const std::string value(static_cast<size_t>(length), 'v');
    ASSERT_EQ(arrays.put("key", 1, value, length), length == 0 ? 1 : 0);
    EXPECT_EQ(calls->find("key", 1), length);
    EXPECT_EQ(calls->found(length), value);
  }
  ASSERT_EQ(arrays.put("key", 1, std::string(4097, 'v'), 5000), 0);
  EXPECT_EQ(calls->find("key", 1), area::kOrdinary);
  EXPECT_EQ(calls->get("key", 1), std::string(4097, 'v'));
  EXPECT_EQ(calls->find("other", 1), area::kAbsent);
}

TEST_F(AreaCalls, AGetWithoutItsLockIsLeftToTheArrays) {
  ASSERT_EQ(calls->put("key", 1, "value", 1), 1);
  {
    const FailLock failure(LockRank::bucketSet, LockOp::lock, 1);
    EXPECT_EQ(calls->find("key", 1), area::kOrdinary);
  }
  EXPECT_FALSE(jni.takePending().has_value());
  EXPECT_EQ(calls->find("key", 1), 5);
}

// A logger that uses the thread's area in the middle of a write: nothing is done, and the call is
// made again with arrays.
TEST_F(AreaCalls, AnAreaUsedMeanwhileIsLeftToTheArrays) {
  using Write = jint (*)(JNIEnv*, jclass, jlong, jlong, jint, jint, jint, jlong);
  ASSERT_EQ(calls->put("present", 1, "old value", 1), 1);
  setLevels(kDebugLevel);
  for (const auto& [write, key] : {std::pair<Write, const char*>{&area::put, "present"},
                                   {&area::put, "new"},
                                   {&area::putIfAbsent, "new"},
                                   {&area::replace, "present"}}) {
    SCOPED_TRACE(key);
    const Rows rows = contentsOf(map);
    const Books books = Books::now();
    bool done = false;
    jni.onRecord([&](const LogRecord& record) {
      if (done || record.text.find("Value Data") == std::string::npos) return;
      done = true;
      calls->memory().with("another key", "another value");
    });
    EXPECT_EQ(write(env, nullptr, natives::handle(map), calls->memory().with(key, "value"),
                    area::lengthOf(key), 1, 5, 2),
              area::kOrdinary);
    EXPECT_TRUE(done);
    jni.onRecord(nullptr);
    EXPECT_EQ(contentsOf(map), rows);
    EXPECT_EQ(Books::now(), books);
  }
  setLevels(0);
}

// The key is read before anything can call Java.
TEST_F(AreaCalls, AnAreaUsedMeanwhileDoesNotChangeTheKey) {
  ASSERT_EQ(calls->put("key", 1, "value", 1), 1);
  setLevels(kDebugLevel);
  bool done = false;
  jni.onRecord([&](const LogRecord&) {
    done = true;
    calls->memory().with("nokey", "another value");
  });
  EXPECT_EQ(calls->find("key", 1), 5);
  EXPECT_EQ(calls->found(5), "value");
  std::vector<jlong> words;
  const jlong pinned = calls->pin("key", 1, &words);
  EXPECT_EQ(face::placeAt(words, 0).text(), "value");
  face::unpin(env, nullptr, pinned);
  EXPECT_TRUE(calls->containsKey("key", 1));
  EXPECT_EQ(calls->remove("key", 1), 1);
  EXPECT_TRUE(done);
  jni.onRecord(nullptr);
  setLevels(0);
}

}  // namespace
}  // namespace nimbra::test::quick
