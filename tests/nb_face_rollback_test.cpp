// The map face's natives and the write operations below them, with memory or a lock refused at
// every point in turn: what they answer, what stays, and that nothing is left behind.

#include <algorithm>
#include <functional>
#include <optional>

#include "face_support.h"
#include "nb_map_private.h"
#include "refusal_support.h"

namespace nimbra::test::face {
namespace {

// Where in an operation a lock was refused.
std::string siteOf(const FailAcquisition& guard) {
  if (!guard.fired()) return "none";
  switch (guard.rank()) {
    case LockRank::map: return guard.isMapWrite() ? "map write" : "map read";
    case LockRank::bucketSet: return "set";
    default: return "queue";
  }
}

enum class After {
  kUnchanged,
  // The insert below kept its record, and with it the key and the value: it could not have the map
  // lock.
  kRecordKept,
  // The operation above gave up between two of its steps, and what it had done stays.
  kOutOfQueue,   // the entry is in no queue; the next write of the key puts it back
  kNewRevision,  // the entry has the new revision and the old value
  kOnlyQueued,   // the entry is gone for every reader; its queue frees it when it is cleared
};

// What one refused acquisition does.
struct LockCase {
  const char* site;
  const char* exceptionClass;
  After after = After::kUnchanged;
};

struct Operation {
  const char* name;
  std::function<jint(Caller&, jint hash)> run;
  jint result;      // when nothing is refused
  int allocations;  // that can be refused, each of which makes it answer -1
  std::vector<LockCase> locks;
};

std::ostream& operator<<(std::ostream& out, const Operation& operation) {
  return out << operation.name;
}

std::string longKey(std::string_view start) { return std::string(start) + std::string(600, '-'); }

// The keys "here" and its long form are in the map, between two others; "new" is not.
const std::vector<Operation>& operations() {
  static const LockCase kInsertMapLock{"map write", kIllegalState, After::kRecordKept};
  static const std::vector<Operation> kOperations = {
      {"PutNew",
       [](Caller& c, jint hash) { return c.put("new", hash, "new value", 7); },
       1,
       3,
       {{"map write", kIllegalState},
        {"set", kSilent},
        kInsertMapLock,
        {"set", kSilent},
        {"queue", kIllegalState}}},
      {"PutNewLongKey",
       [](Caller& c, jint hash) { return c.put(longKey("new"), hash, "new value", 7); },
       1,
       3,
       {{"map write", kIllegalState},
        {"set", kSilent},
        kInsertMapLock,
        {"set", kSilent},
        {"queue", kIllegalState}}},
      {"PutPresent",
       [](Caller& c, jint hash) { return c.put("here", hash, "new value", 7); },
       0,
       1,
       {{"map write", kIllegalState},
        {"set", kSilent},
        {"queue", kIllegalState},
        {"queue", kIllegalState, After::kOutOfQueue},
        {"queue", kSilent, After::kNewRevision}}},
      {"PutIfAbsentNew",
       [](Caller& c, jint hash) { return c.putIfAbsent("new", hash, "new value", 7); },
       1,
       3,
       {{"set", kIllegalState}, kInsertMapLock, {"set", kSilent}, {"queue", kIllegalState}}},
      {"PutIfAbsentPresent",
       [](Caller& c, jint hash) { return c.putIfAbsent("here", hash, "new value", 7); },
       0,
       0,
       {{"set", kIllegalState}}},
      {"ReplacePresent",
       [](Caller& c, jint hash) { return c.replace(longKey("here"), hash, "new value", 7); },
       1,
       1,
       {{"map write", kIllegalState},
        {"set", kSilent},
        {"queue", kIllegalState},
        {"queue", kIllegalState, After::kOutOfQueue},
        {"queue", kSilent, After::kNewRevision}}},
      {"ReplaceAbsent",
       [](Caller& c, jint hash) { return c.replace("new", hash, "new value", 7); },
       0,
       1,
       {{"map write", kIllegalState}, {"set", kSilent}}},
      {"RemovePresent",
       [](Caller& c, jint hash) { return c.remove("here", hash); },
       1,
       0,
       {{"set", kSilent},
        {"map read", kIllegalState, After::kOnlyQueued},
        {"queue", kSilent, After::kOnlyQueued}}},
      {"RemoveAbsent",
       [](Caller& c, jint hash) { return c.remove("new", hash); },
       0,
       0,
       {{"set", kSilent}}},
  };
  return kOperations;
}

constexpr jint kHash = 4711;

class FaceRollback : public FaceTest, public ::testing::WithParamInterface<Operation> {
 protected:
  // One bucket for all, which does not grow.
  void SetUp() override {
    FaceTest::SetUp();
    refill();
  }
  void refill() {
    remakeMap(1, 1000);
    ASSERT_EQ(calls->put("first", kHash, "f", 1), 1);
    ASSERT_EQ(calls->put("here", kHash, "old value", 5), 1);
    ASSERT_EQ(calls->put(longKey("here"), kHash, "old value", 5), 1);
    ASSERT_EQ(calls->put("last", kHash, "l", 9), 1);
  }
  jint run() { return GetParam().run(*calls, kHash); }

  // Exactly one entry is in no queue, and it does not name former neighbours: these may be freed
  // before the next write takes the entry out of "its" queue again.
  bool isOutOfQueue() {
    const std::vector<LuOffHeapValue*> queued = valuesOf(map->revisionQueue[0]);
    bool clean = true;
    int outside = 0;
    for (const LuOffHeapValue* entry : entriesOf(map)) {
      if (std::find(queued.begin(), queued.end(), entry) != queued.end()) continue;
      ++outside;
      clean = clean && entry->prev == nullptr && entry->next == nullptr;
    }
    EXPECT_EQ(outside, 1);
    EXPECT_TRUE(clean) << "an entry in no queue has links";
    return clean;
  }

  // The key that the operation changes.
  std::string changedKey(const Rows& before) {
    const Rows now = contentsOf(map);
    for (const auto& [key, row] : before) {
      if (!now.contains(key) || !(now.at(key) == row)) return key;
    }
    return "";
  }
};

TEST_P(FaceRollback, MemoryRefusedAtEveryPoint) {
  for (const Refusal& refusal : kRefusals) {
    SCOPED_TRACE(refusal.exceptionClass);
    refill();
    const Rows rows = contentsOf(map);
    int refused = 0;
    for (;; ++refused) {
      SCOPED_TRACE("allocation " + std::to_string(refused + 1));
      ASSERT_LE(refused, 10);
      const Books before = Books::now();
      std::optional<Refuse> guard(std::in_place, jni, refused + 1, refusal);
      const jint result = run();
      const bool fired = guard->fired();
      guard.reset();
      if (!fired) {
        EXPECT_EQ(result, GetParam().result);
        EXPECT_EQ(raised(jni), kSilent);
        break;
      }
      EXPECT_EQ(result, -1);
      EXPECT_EQ(raised(jni), refusal.exceptionClass);
      EXPECT_EQ(contentsOf(map), rows);
      EXPECT_EQ(Books::now(), (Books{before.blocks + refusal.blocks, before.metadata}));
      expectedBlocksDelta += refusal.blocks;
      checkFaceMap();
    }
    EXPECT_EQ(refused, GetParam().allocations);
    checkFaceMap();
  }
}

TEST_P(FaceRollback, LocksRefusedAtEveryPoint) {
  for (size_t site = 0;; ++site) {
    refill();
    const Rows rows = contentsOf(map);
    const Books before = Books::now();
    const WatchRecords records(jni);
    std::optional<FailAcquisition> guard(std::in_place, static_cast<int>(site) + 1);
    const jint result = run();
    const bool fired = guard->fired();
    const std::string name = siteOf(*guard);
    guard.reset();
    SCOPED_TRACE("acquisition " + std::to_string(site + 1) + ": " + name);
    EXPECT_EQ(heldLockCount(), 0);
    if (!fired) {
      EXPECT_EQ(site, GetParam().locks.size());
      EXPECT_EQ(result, GetParam().result);
      EXPECT_EQ(raised(jni), kSilent);
      checkFaceMap();
      return;
    }
    ASSERT_LT(site, GetParam().locks.size());
    const LockCase& expected = GetParam().locks[site];
    EXPECT_EQ(name, expected.site);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(raised(jni), expected.exceptionClass);
    if (expected.after == After::kRecordKept) {
      EXPECT_EQ(Books::now(), (Books{before.blocks + 3, before.metadata}));
      EXPECT_EQ(unpinValue(records.last()), 0U);
    }
    EXPECT_EQ(Books::now(), before);
    const std::string changed = changedKey(rows);
    switch (expected.after) {
      case After::kUnchanged:
      case After::kRecordKept:
        EXPECT_EQ(contentsOf(map), rows);
        checkFaceMap();
        break;
      case After::kOutOfQueue:
        EXPECT_EQ(contentsOf(map), rows);
        EXPECT_EQ(map->revisionQueue[0]->count, rows.size() - 1);
        if (!isOutOfQueue()) continue;  // the next write would follow stale links
        break;
      case After::kNewRevision: {
        Rows changedRows = rows;
        changedRows[changed].revision = 7;
        EXPECT_EQ(contentsOf(map), changedRows);
        checkFaceMap();
        break;
      }
      case After::kOnlyQueued:
        EXPECT_EQ(contentsOf(map).size(), rows.size() - 1);
        EXPECT_EQ(map->revisionQueue[0]->count, rows.size());
        EXPECT_FALSE(calls->containsKey(changed, kHash));
        continue;  // the queue keeps the record until the map is cleared
    }
    // The map goes on: the same operation succeeds now, and leaves everything in order.
    EXPECT_EQ(run(), GetParam().result);
    checkFaceMap();
    EXPECT_EQ(calls->get("first", kHash), "f");
    EXPECT_EQ(calls->get("last", kHash), "l");
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, FaceRollback, ::testing::ValuesIn(operations()),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- Growth ------------------------------------------------------------------------------------

// A set that cannot grow stays slower, and the write that asked for it succeeds without an
// exception.
TEST_F(FaceTest, AnInsertWhoseSetCannotGrowSucceeds) {
  constexpr int kGrowth = 4;  // behind the copies of key and value and the record
  int inserted = 0;
  for (const Refusal& refusal : kRefusals) {
    for (int i = 0; i < 6; ++i) {
      const std::string key = std::to_string(inserted);
      std::optional<Refuse> guard(std::in_place, jni, kGrowth, refusal);
      const jint result = i % 2 == 0 ? calls->put(key, inserted, "value", 1)
                                     : calls->putIfAbsent(key, inserted, "value", 1);
      // The first bucket stays the only one, so every insert asks again.
      EXPECT_TRUE(guard->fired());
      guard.reset();
      EXPECT_EQ(result, 1);
      EXPECT_FALSE(jni.pending().has_value());
      EXPECT_EQ(getBucketSetByIndex(map->map, 0)->bucketCount, 1U);
      expectedBlocksDelta += refusal.blocks;
      ++inserted;
      checkFaceMap();
    }
  }
  EXPECT_EQ(contentsOf(map).size(), static_cast<size_t>(inserted));
}

// ---- Reads -------------------------------------------------------------------------------------

TEST_F(FaceTest, ReadsAllocateNothing) {
  put("k", "value");
  const RefuseAllocation guard(1);
  EXPECT_EQ(get("k"), "value");
  EXPECT_TRUE(calls->containsKey("k", hashOf("k")));
  std::vector<jlong> words;
  calls->unpin(calls->pin("k", hashOf("k"), &words));
  {
    Walk walk(*calls, 1);
    EXPECT_EQ(walk.step(), 1);
    walk.release();
  }
  EXPECT_EQ(guard.seen(), 0);
}

// Each takes its bucket set and no other lock.
TEST_F(FaceTest, ReadsTakeOneLock) {
  put("k", "value");
  std::vector<jlong> words;
  const std::vector<std::function<void()>> reads = {
      [&] { EXPECT_EQ(get("k"), "value"); },
      [&] { EXPECT_TRUE(calls->containsKey("k", hashOf("k"))); },
      [&] { calls->unpin(calls->pin("k", hashOf("k"), &words)); },
      [&] { EXPECT_EQ(calls->putIfAbsent("k", hashOf("k"), "other", 2), 0); },
  };
  for (const auto& read : reads) {
    const FailAcquisition second(2);
    read();
    EXPECT_FALSE(second.fired());
  }
  checkFaceMap();
}

// ---- The outcome of the write operations -------------------------------------------------------

class WriteOutcomes : public FaceTest {
 protected:
  void SetUp() override {
    FaceTest::SetUp();
    remakeMap(1, 1000);
    insert("here", "old value", 0, 5);
    key_ = buffer("here");
    absent_ = buffer("absent");
    value_ = buffer("new value");
  }
  void TearDown() override {
    drop(key_);
    drop(absent_);
    drop(value_);
    FaceTest::TearDown();
  }

  // Each drops the pin that is left for the caller and compares outcome and answer.
  WriteOutcome insertOf(ByteBufferHeader* key) {
    const jobject javaKey = javaBuffer(key);
    auto outcome = static_cast<WriteOutcome>(-1);
    LuOffHeapValue* made = insertAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key,
                                        hashFn(key), false, value_, 0, 7, &outcome);
    EXPECT_EQ(outcome == WriteOutcome::done, made != nullptr);
    if (made != nullptr) unpinValue(made, JNI_INSERTED_PIN);
    return outcome;
  }
  WriteOutcome updateOf(ByteBufferHeader* key, uint16_t owner = 0) {
    const jobject javaKey = javaBuffer(key);
    auto outcome = static_cast<WriteOutcome>(-1);
    LuOffHeapValue* snapshot = updateAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER,
                                            key, hashFn(key), false, value_, owner, 7, &outcome);
    EXPECT_EQ(outcome == WriteOutcome::done, snapshot != nullptr);
    if (snapshot != nullptr) unpinValue(snapshot);
    return outcome;
  }
  WriteOutcome removeOf(ByteBufferHeader* key) {
    const jobject javaKey = javaBuffer(key);
    auto outcome = static_cast<WriteOutcome>(-1);
    LuOffHeapValue* removed = removeAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER,
                                           key, hashFn(key), false, &outcome);
    EXPECT_EQ(outcome == WriteOutcome::done, removed != nullptr);
    if (removed != nullptr) unpinValue(removed, JNI_REMOVED_PIN);
    return outcome;
  }

  ByteBufferHeader* key_ = nullptr;
  ByteBufferHeader* absent_ = nullptr;
  ByteBufferHeader* value_ = nullptr;
};

TEST_F(WriteOutcomes, DoneOrNone) {
  EXPECT_EQ(insertOf(key_), WriteOutcome::none);
  EXPECT_EQ(updateOf(absent_), WriteOutcome::none);
  EXPECT_EQ(removeOf(absent_), WriteOutcome::none);
  EXPECT_EQ(contentsOf(map), (Rows{{"here", {"old value", 0, 5}}}));
  EXPECT_EQ(updateOf(key_), WriteOutcome::done);
  EXPECT_EQ(insertOf(absent_), WriteOutcome::done);
  EXPECT_EQ(removeOf(key_), WriteOutcome::done);
  EXPECT_EQ(removeOf(key_), WriteOutcome::none);
  EXPECT_EQ(contentsOf(map), (Rows{{"absent", {"new value", 0, 7}}}));
  EXPECT_FALSE(jni.pending().has_value());
}

TEST_F(WriteOutcomes, TheParameterMayBeLeftOut) {
  const jobject javaKey = javaBuffer(absent_);
  LuOffHeapValue* made = insertAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, absent_,
                                      hashFn(absent_), false, value_, 0, 7);
  ASSERT_NE(made, nullptr);
  unpinValue(made, JNI_INSERTED_PIN);
  EXPECT_EQ(removeAndPin(env, caller, map, &javaKey, OBJECT_TYPE_JBYTE_BUFFER, key_, 1, false),
            nullptr);
}

TEST_F(WriteOutcomes, FailedWhereMemoryIsRefused) {
  {
    const RefuseAllocation guard(1);
    EXPECT_EQ(insertOf(absent_), WriteOutcome::failed);
  }
  {
    const RefuseAllocation guard(1);
    EXPECT_EQ(updateOf(key_), WriteOutcome::failed);
  }
  for (int nth = 1; nth <= 2; ++nth) {  // the queue list and the queue of a new owner
    const RefuseAllocation guard(nth);
    EXPECT_EQ(updateOf(key_, 1), WriteOutcome::failed);
    EXPECT_TRUE(guard.fired());
  }
  {
    const RefuseAllocation guard(1, RefuseAllocation::Way::kOverMaximum);
    EXPECT_EQ(insertOf(absent_), WriteOutcome::failed);
    EXPECT_EQ(raised(jni), kIllegalState);
  }
  EXPECT_EQ(contentsOf(map), (Rows{{"here", {"old value", 0, 5}}}));
  checkFaceMap();
}

// Also where an insert would have found the key in its way, or a removal would have missed it.
TEST_F(WriteOutcomes, FailedWhereALockIsRefused) {
  const auto expectFailed = [&](const char* what, int acquisitions,
                                const std::function<WriteOutcome()>& operation) {
    const Books before = Books::now();
    for (int nth = 1; nth <= acquisitions; ++nth) {
      SCOPED_TRACE(std::string(what) + ", acquisition " + std::to_string(nth));
      const WatchRecords records(jni);
      const FailAcquisition guard(nth);
      EXPECT_EQ(operation(), WriteOutcome::failed);
      EXPECT_TRUE(guard.fired());
      jni.clearPending();
      // An insert without the map lock keeps its record.
      if (Books::now().blocks == before.blocks + 1) {
        EXPECT_EQ(unpinValue(records.last()), 0U);
      }
      EXPECT_EQ(Books::now(), before);
    }
    EXPECT_EQ(contentsOf(map), (Rows{{"here", {"old value", 0, 5}}}));
    checkFaceMap();
  };
  expectFailed("insert", 3, [&] { return insertOf(absent_); });
  expectFailed("insert of a present key", 2, [&] { return insertOf(key_); });
  expectFailed("update", 3, [&] { return updateOf(key_); });
  expectFailed("update of an absent key", 2, [&] { return updateOf(absent_); });
  expectFailed("removal", 1, [&] { return removeOf(key_); });
  expectFailed("removal of an absent key", 1, [&] { return removeOf(absent_); });
}

TEST_F(WriteOutcomes, FailedWhereARemovalCannotReachTheQueue) {
  const FailLock guard(LockRank::queue, LockOp::lock, 1);
  EXPECT_EQ(removeOf(key_), WriteOutcome::failed);
  EXPECT_TRUE(guard.fired());
}

}  // namespace
}  // namespace nimbra::test::face
