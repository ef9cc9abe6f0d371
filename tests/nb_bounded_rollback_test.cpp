// The natives of bounded maps with memory or a lock refused at every point in turn: what they
// answer, what stays, that the bound's figures are right at once, and that nothing is left behind.

#include <algorithm>
#include <functional>

#include "bounded_support.h"
#include "refusal_support.h"

namespace nimbra::test::bounded {
namespace {

// Where in an operation a lock was refused.
std::string siteOf(const FailAcquisition& guard, const Partition& partition) {
  if (!guard.fired()) return "none";
  switch (guard.rank()) {
    case LockRank::map: return guard.isMapWrite() ? "map write" : "map read";
    case LockRank::bucketSet: return "set";
    default: break;
  }
  if (guard.lock() == &natives::asEvictionQueue(partition.queue)->mutex) return "use queue";
  if (guard.lock() == &natives::asEvictionQueue(partition.ttl)->mutex) return "time queue";
  return "revision queue";
}

// What there is: key=value of each entry, the order of the two eviction queues, the entries in the
// revision queue.
struct State {
  const char* contents;
  const char* use;
  const char* time;
  uint32_t revisions;
};

// Where every test begins; "stale" is expired.
constexpr State kBefore{"first=f here=old last=l stale=s", "first here stale last",
                        "stale first here last", 4};
// The expired entry has been taken away before anything else could fail.
constexpr State kStaleGone{"first=f here=old last=l", "first here last", "first here last", 3};

constexpr State using_(State state, const char* use) {
  state.use = use;
  return state;
}
constexpr State timing(State state, const char* time) {
  state.time = time;
  return state;
}
constexpr State revising(State state, uint32_t revisions) {
  state.revisions = revisions;
  return state;
}

enum Kept { kNothing, kRecord };

// What one refused acquisition does.
struct LockCase {
  const char* site;
  const char* result;
  const char* exceptionClass;
  State after;
  // The insert below keeps its record, with key and value, when it cannot have the map lock.
  Kept kept = kNothing;
};

struct Operation {
  const char* name;
  std::function<std::string(BoundedTest&, Caller&)> run;
  const char* result;  // when nothing is refused
  State after;
  int allocations;        // each of which, refused, makes it answer -1
  int allocationsBefore;  // of these, the ones before the expired entry is taken away
  std::vector<LockCase> locks;
};

std::ostream& operator<<(std::ostream& out, const Operation& operation) {
  return out << operation.name;
}

std::string joined(const Keys& keys) {
  std::string result;
  for (const std::string& key : keys) result += (result.empty() ? "" : " ") + key;
  return result;
}

jint hashed(std::string_view key) { return static_cast<jint>(key.size() * 31 + 7); }

std::string putOf(Caller& c, std::string_view key, Mode mode) {
  return std::to_string(c.put(key, hashed(key), "n", 9, 1000, 7000, mode));
}

constexpr State kNewStored{"first=f here=old last=l new=n stale=s", "first here stale last new",
                           "stale first here last new", 5};
constexpr State kHereStored{"first=f here=n last=l stale=s", "first stale last here",
                            "stale first last here", 4};
constexpr State kHereTouched{"first=f here=old last=l stale=s", "first stale last here",
                             "stale first last here", 4};
constexpr State kStaleStored{"first=f here=old last=l stale=n", "first here last stale",
                             "first here last stale", 4};
constexpr State kHereGone{"first=f last=l stale=s", "first stale last", "stale first last", 3};
constexpr State kFirstGone{"here=old last=l stale=s", "here stale last", "stale here last", 3};
constexpr State kTwoGone{"last=l stale=s", "stale last", "stale last", 2};

// Where a queue of the policy cannot be had, the entry keeps its place in it, an insert leaves the
// entry outside, and a removal leaves the record behind until the queue is cleared: the operation
// itself has been done by then. Where a removal cannot have the revision queue, the entry is gone
// for every reader, and that queue frees it when it is cleared.
const std::vector<Operation>& operations() {
  static const std::vector<Operation> kOperations = {
      {"PutNew",
       [](BoundedTest&, Caller& c) { return putOf(c, "new", kPut); },
       "1",
       kNewStored,
       5,
       5,
       {{"set", "-1", kIllegalState, kBefore},
        {"map write", "-1", kIllegalState, kBefore, kRecord},
        {"set", "-1", kSilent, kBefore},
        {"use queue", "1", kSilent, using_(kNewStored, kBefore.use)},
        {"time queue", "1", kSilent, timing(kNewStored, kBefore.time)},
        // Taken back from all queues.
        {"revision queue", "-1", kIllegalState, kBefore}}},
      {"PutLive",
       [](BoundedTest&, Caller& c) { return putOf(c, "here", kPut); },
       "0",
       kHereStored,
       1,
       1,
       {{"set", "-1", kIllegalState, kBefore},
        {"map write", "-1", kIllegalState, kBefore},
        {"set", "-1", kSilent, kBefore},
        {"revision queue", "-1", kIllegalState, kBefore},
        {"revision queue", "-1", kIllegalState, revising(kBefore, 3)},
        {"revision queue", "-1", kSilent, kBefore},
        {"use queue", "0", kSilent, using_(kHereStored, kBefore.use)},
        {"time queue", "0", kSilent, timing(kHereStored, kBefore.time)}}},
      {"PutExpired",
       [](BoundedTest&, Caller& c) { return putOf(c, "stale", kPut); },
       "1",
       kStaleStored,
       5,
       1,
       {{"set", "-1", kIllegalState, kBefore},
        {"set", "-1", kIllegalState, kBefore},
        {"use queue", "1", kSilent, using_(kStaleStored, "first here stale last stale")},
        {"time queue", "1", kSilent, timing(kStaleStored, "stale first here last stale")},
        {"map read", "-1", kIllegalState, revising(kStaleGone, 4)},
        {"revision queue", "-1", kSilent, revising(kStaleGone, 4)},
        {"set", "-1", kIllegalState, kStaleGone},
        {"map write", "-1", kIllegalState, kStaleGone, kRecord},
        {"set", "-1", kSilent, kStaleGone},
        {"use queue", "1", kSilent, using_(kStaleStored, kStaleGone.use)},
        {"time queue", "1", kSilent, timing(kStaleStored, kStaleGone.time)},
        {"revision queue", "-1", kIllegalState, kStaleGone}}},
      {"PutIfAbsentLive",
       [](BoundedTest&, Caller& c) { return putOf(c, "here", kPutIfAbsent); },
       "0",
       kBefore,
       1,
       1,
       {{"set", "-1", kIllegalState, kBefore}}},
      {"ReplaceAbsent",
       [](BoundedTest&, Caller& c) { return putOf(c, "new", kReplace); },
       "0",
       kBefore,
       1,
       1,
       {{"set", "-1", kIllegalState, kBefore}}},
      {"ReplaceExpired",
       [](BoundedTest&, Caller& c) { return putOf(c, "stale", kReplace); },
       "0",
       kStaleGone,
       1,
       1,
       {{"set", "-1", kIllegalState, kBefore},
        {"set", "-1", kIllegalState, kBefore},
        {"use queue", "0", kSilent, using_(kStaleGone, kBefore.use)},
        {"time queue", "0", kSilent, timing(kStaleGone, kBefore.time)},
        {"map read", "-1", kIllegalState, revising(kStaleGone, 4)},
        {"revision queue", "-1", kSilent, revising(kStaleGone, 4)},
        {"set", "-1", kIllegalState, kStaleGone}}},
      {"Get",
       [](BoundedTest&, Caller& c) {
         return c.get("here", hashed("here"), 1000, 7000).value_or("null");
       },
       "old",
       kHereTouched,
       0,
       0,
       {{"set", "null", kIllegalState, kBefore},
        {"use queue", "old", kSilent, using_(kHereTouched, kBefore.use)},
        {"time queue", "old", kSilent, timing(kHereTouched, kBefore.time)}}},
      {"Pin",
       [](BoundedTest&, Caller& c) -> std::string {
         std::vector<jlong> words;
         const jlong pinned = c.pin("here", hashed("here"), 1000, 7000, &words);
         if (pinned == 0) return "0";
         const std::string value(face::placeAt(words, 0).text());
         c.unpin(pinned);
         return value;
       },
       "old",
       kHereTouched,
       0,
       0,
       {{"set", "0", kIllegalState, kBefore},
        {"use queue", "old", kSilent, using_(kHereTouched, kBefore.use)},
        {"time queue", "old", kSilent, timing(kHereTouched, kBefore.time)}}},
      {"ContainsKey",
       [](BoundedTest&, Caller& c) {
         return std::to_string(c.containsKey("here", hashed("here"), 1000));
       },
       "1",
       kBefore,
       0,
       0,
       {{"set", "0", kIllegalState, kBefore}}},
      {"RemoveLive",
       [](BoundedTest&, Caller& c) {
         return std::to_string(c.remove("here", hashed("here"), 1000));
       },
       "1",
       kHereGone,
       0,
       0,
       {{"set", "-1", kIllegalState, kBefore},
        {"use queue", "1", kSilent, using_(kHereGone, kBefore.use)},
        {"time queue", "1", kSilent, timing(kHereGone, kBefore.time)},
        {"map read", "-1", kIllegalState, revising(kHereGone, 4)},
        {"revision queue", "-1", kSilent, revising(kHereGone, 4)}}},
      {"RemoveExpired",
       [](BoundedTest&, Caller& c) {
         return std::to_string(c.remove("stale", hashed("stale"), 1000));
       },
       "0",
       kStaleGone,
       0,
       0,
       {{"set", "-1", kIllegalState, kBefore},
        {"use queue", "0", kSilent, using_(kStaleGone, kBefore.use)},
        {"time queue", "0", kSilent, timing(kStaleGone, kBefore.time)},
        {"map read", "-1", kIllegalState, revising(kStaleGone, 4)},
        {"revision queue", "-1", kSilent, revising(kStaleGone, 4)}}},
      {"EvictByUse",
       [](BoundedTest&, Caller& c) { return joined(c.evict(1, false, 1000, 4)->keys()); },
       "first",
       kFirstGone,
       0,
       0,
       {{"use queue", "", kSilent, kBefore},
        // The next attempt succeeds.
        {"set", "first", kSilent, kFirstGone},
        {"use queue", "first", kSilent, using_(kFirstGone, kBefore.use)},
        {"time queue", "first", kSilent, timing(kFirstGone, kBefore.time)},
        // No further attempt beside an exception.
        {"map read", "", kIllegalState, revising(kFirstGone, 4)},
        {"revision queue", "here", kSilent, revising(kTwoGone, 3)}}},
      {"EvictByDeadline",
       [](BoundedTest&, Caller& c) { return joined(c.evict(2, true, 1000, 4)->keys()); },
       "stale",
       kStaleGone,
       0,
       0,
       {{"time queue", "", kSilent, kBefore},
        {"set", "stale", kSilent, kStaleGone},
        {"use queue", "stale", kSilent, using_(kStaleGone, kBefore.use)},
        // The next attempt finds the record that stayed behind.
        {"time queue", "stale", kSilent, kStaleGone},
        {"map read", "", kIllegalState, revising(kStaleGone, 4)},
        {"revision queue", "", kSilent, revising(kStaleGone, 4)},
        {"time queue", "stale", kSilent, kStaleGone}}},
      {"Query",
       [](BoundedTest&, Caller& c) {
         return joined(Queried(c.jni(), c.partition(), 0, 1, 3).keys());
       },
       "here stale",
       kBefore,
       0,
       0,
       {{"map write", "", kIllegalState, kBefore},
        // Without a place to resume from, from the start.
        {"revision queue", "here stale", kSilent, kBefore},
        {"map read", "", kIllegalState, kBefore},
        {"revision queue", "", kIllegalState, kBefore}}},
  };
  return kOperations;
}

using Parameter = std::tuple<Kind, Operation>;

class BoundedRollback : public BoundedTest {
 protected:
  void SetUp() override {
    BoundedTest::SetUp();
    empty_ = emptied();
  }

  // One bucket for all, which does not grow.
  void refill(const Kind& kind) {
    open(kind.policy, kind.timed, 0, 0, 1, 1, 1000);
    jlong number = 0;
    for (const auto& [key, value, deadline] : {std::tuple{"first", "f", 5000},
                                               {"here", "old", 5000},
                                               {"stale", "s", 1000},
                                               {"last", "l", 6000}}) {
      ASSERT_EQ(calls->put(key, hashed(key), value, ++number, 1, deadline, kPut), 1);
    }
    expectState(kBefore);
    check();
  }

  void expectState(const State& state) {
    EXPECT_EQ(heldLockCount(), 0);
    checkFigures();
    std::string contents;
    for (const auto& [key, row] : contentsOf(map)) {
      contents += (contents.empty() ? "" : " ") + key + "=" + row.value;
    }
    EXPECT_EQ(contents, state.contents);
    EXPECT_EQ(joined(order()), state.use);
    EXPECT_EQ(joined(timeOrder()), state.time);
    EXPECT_EQ(map->revisionQueue[0]->count, state.revisions);
  }

  // Whatever happened before, nothing is left when everything has been cleared.
  void expectNothingLeft(int64_t raisedBlocks = 0) {
    const Books now = emptied();
    EXPECT_EQ(now, (Books{empty_.blocks + raisedBlocks, empty_.metadata}));
    empty_ = now;
    expectedBlocksDelta += raisedBlocks;
  }

 private:
  Books emptied() {
    close();
    deleteMap(map);
    map = makeMap();
    return Books::now();
  }

  Books empty_{};
};

class BoundedRefusals : public BoundedRollback, public ::testing::WithParamInterface<Parameter> {
 protected:
  const Operation& operation() const { return std::get<Operation>(GetParam()); }
  void refill() { BoundedRollback::refill(std::get<Kind>(GetParam())); }
  std::string run() { return operation().run(*this, *calls); }
};

TEST_P(BoundedRefusals, MemoryRefusedAtEveryPoint) {
  for (const Refusal& refusal : kRefusals) {
    SCOPED_TRACE(refusal.exceptionClass);
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE("allocation " + std::to_string(nth));
      ASSERT_LE(nth, 10);
      refill();
      const bool isRefused = nth <= operation().allocations;
      std::optional<Refuse> guard(std::in_place, jni, nth, refusal);
      const std::string result = run();
      const bool fired = guard->fired();
      guard.reset();
      if (!isRefused) {
        EXPECT_EQ(result, operation().result);
        EXPECT_EQ(raised(jni), kSilent);
        expectState(operation().after);
        check();
        expectNothingLeft(fired ? refusal.blocks : 0);
        break;
      }
      EXPECT_TRUE(fired);
      EXPECT_EQ(result, "-1");
      EXPECT_EQ(raised(jni), refusal.exceptionClass);
      expectState(nth <= operation().allocationsBefore ? kBefore : kStaleGone);
      check();
      expectNothingLeft(refusal.blocks);
    }
  }
}

TEST_P(BoundedRefusals, LocksRefusedAtEveryPoint) {
  for (size_t site = 0;; ++site) {
    refill();
    LuOffHeapValue* kept = nullptr;
    std::string result;
    std::string name;
    bool fired = false;
    {
      const WatchRecords records(jni);
      const FailAcquisition guard(static_cast<int>(site) + 1);
      result = run();
      fired = guard.fired();
      name = siteOf(guard, partition());
      if (fired && site < operation().locks.size() && operation().locks[site].kept == kRecord) {
        kept = records.last();
      }
    }
    SCOPED_TRACE("acquisition " + std::to_string(site + 1) + ": " + name);
    if (!fired) {
      EXPECT_EQ(site, operation().locks.size());
      EXPECT_EQ(result, operation().result);
      EXPECT_EQ(raised(jni), kSilent);
      expectState(operation().after);
      check();
      expectNothingLeft();
      return;
    }
    ASSERT_LT(site, operation().locks.size());
    const LockCase& expected = operation().locks[site];
    EXPECT_EQ(name, expected.site);
    EXPECT_EQ(result, expected.result);
    EXPECT_EQ(raised(jni), expected.exceptionClass);
    expectState(expected.after);
    if (kept != nullptr) {
      EXPECT_EQ(unpinValue(kept), 0U);
    }
    expectNothingLeft();
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, BoundedRefusals,
                         ::testing::Combine(::testing::Values(kKinds[4], kKinds[5]),
                                            ::testing::ValuesIn(operations())),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) +
                                  std::get<1>(info.param).name;
                         });

// ---- What goes on afterwards -------------------------------------------------------------------

TEST_F(BoundedRollback, ABoundWithoutMemory) {
  for (const Refusal& refusal : kRefusals) {
    for (int nth = 1; nth <= 2; ++nth) {
      const Books before = Books::now();
      std::optional<Refuse> guard(std::in_place, jni, nth, refusal);
      EXPECT_EQ(allocateBound(env, nullptr, 1, 1), 0);
      EXPECT_TRUE(guard->fired());
      guard.reset();
      EXPECT_EQ(raised(jni), refusal.exceptionClass);
      EXPECT_EQ(Books::now(), (Books{before.blocks + refusal.blocks, before.metadata}));
      expectedBlocksDelta += refusal.blocks;
    }
  }
}

// A set that cannot grow stays slower, and the write that asked for it succeeds.
TEST_F(BoundedRollback, AnInsertWhoseSetCannotGrowSucceeds) {
  constexpr int kGrowth = 6;  // behind value, key, two records for the queues and the entry's
  for (const Refusal& refusal : kRefusals) {
    open(kLru, true, 0, 0, 1, 1, 1000);
    const std::string key = std::to_string(refusal.way);
    open(kLru, true);
    std::optional<Refuse> guard(std::in_place, jni, kGrowth, refusal);
    EXPECT_EQ(put(key, "value"), 1);
    EXPECT_TRUE(guard->fired());
    guard.reset();
    EXPECT_FALSE(jni.pending().has_value());
    expectedBlocksDelta += refusal.blocks;
    check();
  }
}

TEST_F(BoundedRollback, AQueryWithoutMemoryForItsBookmarkStillAnswers) {
  open(kLru, true);
  put("a", "v");
  {
    const RefuseAllocation guard(1);
    EXPECT_EQ(Queried(jni, partition(), 3, 0, 1).keys(), (Keys{"a"}));
    EXPECT_TRUE(guard.fired());
  }
  EXPECT_EQ(Queried(jni, partition(), 3, 0, 1).keys(), (Keys{"a"}));
}

TEST_F(BoundedRollback, ReadsAllocateNothing) {
  open(kLru, true);
  put("k", "value", 5000);
  put("l", "value", 5000);
  const RefuseAllocation guard(1);
  EXPECT_EQ(get("k", 6000), "value");
  EXPECT_TRUE(containsKey("k"));
  pinAndUnpin("k", 7000);
  EXPECT_EQ(evictKeys(1), (Keys{"l"}));
  now = 7000;
  EXPECT_EQ(evictKeys(1, true), (Keys{"k"}));
  EXPECT_EQ(guard.seen(), 0);
}

// An entry that an insert could not put into a queue is an ordinary one for everything else.
TEST_F(BoundedRollback, AnEntryOutsideAQueueCanBeUsedAndRemoved) {
  for (int nth = 1; nth <= 2; ++nth) {
    open(kLru, true);
    put("a", "v", 5000);
    {
      const FailLock guard(LockRank::queue, LockOp::lock, nth);
      EXPECT_EQ(put("k", "v", 5000), 1);
      EXPECT_TRUE(guard.fired());
    }
    EXPECT_EQ(get("k", 6000), "v");
    pinAndUnpin("k", 7000);
    EXPECT_EQ(put("k", "w", 8000), 0);
    EXPECT_EQ(remove("k"), 1);
    EXPECT_FALSE(jni.pending().has_value());
    check();
    expectNothingLeft();
  }
}

// A removal that could not reach the queue leaves the record behind, at the head sooner or later.
TEST_F(BoundedRollback, ARecordWithoutAnEntryDoesNotStopEviction) {
  for (const bool byDeadline : {false, true}) {
    SCOPED_TRACE(byDeadline);
    refill(kKinds[4]);
    {
      const FailLock guard(LockRank::queue, LockOp::lock, byDeadline ? 2 : 1);
      EXPECT_EQ(calls->remove("first", hashed("first"), 1), 1);
      EXPECT_TRUE(guard.fired());
    }
    Keys evicted;
    for (int round = 0; round < 8; ++round) {
      const Keys some = calls->evict(1, byDeadline, kNever - 1, 1)->keys();
      evicted.insert(evicted.end(), some.begin(), some.end());
    }
    std::sort(evicted.begin(), evicted.end());
    EXPECT_EQ(evicted, (Keys{"here", "last", "stale"}));
    checkFigures();
    expectNothingLeft();
  }
}

// The answer says that something stayed, the figures are right all the same, and a second call
// does the rest.
TEST_F(BoundedRollback, AClearMeetsAFailure) {
  for (int nth = 1;; ++nth) {
    SCOPED_TRACE("acquisition " + std::to_string(nth));
    ASSERT_LE(nth, 20);
    refill(kKinds[4]);
    bool fired = false;
    bool cleared = false;
    {
      const FailAcquisition guard(nth);
      cleared = calls->clear();
      fired = guard.fired();
    }
    jni.clearPending();
    checkFigures();
    EXPECT_EQ(heldLockCount(), 0);
    EXPECT_EQ(cleared, !fired);
    EXPECT_TRUE(calls->clear());
    EXPECT_EQ(boundBytes(), 0);
    EXPECT_EQ(boundEntries(), 0);
    check();
    expectNothingLeft();
    if (!fired) break;
  }
}

// Several entries in one call, the failure behind the first ones.
TEST_F(BoundedRollback, AnEvictionOfSeveralMeetsAFailure) {
  for (int nth = 1;; ++nth) {
    SCOPED_TRACE("acquisition " + std::to_string(nth));
    refill(kKinds[4]);
    Keys evicted;
    std::string failure;
    bool fired = false;
    {
      const FailAcquisition guard(nth);
      const auto taken = calls->evict(3, false, 1000, 4);
      fired = guard.fired();
      failure = raised(jni);
      evicted = taken->keys();
    }
    checkFigures();
    // Java sees no result beside an exception: what was taken out could not be released.
    if (!failure.empty()) {
      EXPECT_EQ(evicted, Keys{});
    }
    for (const std::string& key : evicted) EXPECT_EQ(contentsOf(map).count(key), 0U);
    expectNothingLeft();
    if (!fired) break;
    ASSERT_LE(nth, 40);
  }
}

}  // namespace
}  // namespace nimbra::test::bounded
