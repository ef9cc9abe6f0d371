// The profiles of the map's operations: when they are made, what they are called, how many runs
// they count, and which phase a wait falls into.
//
// A profile lives as long as the process and counts every run in it, so each test has a process of
// its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"
#include "fresh_process.h"
#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test {
namespace {

using natives::asValue;
using natives::handle;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr jint kProfilingLevel = 0x400;
constexpr jint kProfiled = kProfilingLevel | kInfoLevel;
constexpr uint32_t kTransport = JAVA_TRANSPORT_PIN | JNI_CONVERT_FROM_JAVA_PIN;

using Labels = std::vector<std::string>;
const Labels kInsertLabels = {"allcLuV", "initOvf", "lockBS",  "ht_in",   "lockOvf",
                              "linkOvf", "ulckOvf", "updRevQ", "unpnLuV", "ulckBS"};
const Labels kUpdateLabels = {"lockLuMp", "lockBS",  "getNewQ",  "ht_get",
                              "getOldQ",  "unlLuMp", "allocCpy", "unpinUnlock"};
const Labels kRemoveLabels = {
    "getAndLockBS", "removeMapEntry",     "unpinME", "lockDec", "deletingNativeJava",
    "unlockMeta",   "removeFromRevQueue", "unlockBS"};
const Labels kQueueLabels = {"growGetQue", "lockQue1", "repBkmk",  "remOld",
                             "swpQueLck",  "addNew",   "unlckQue2"};
const Labels kQueryLabels = {"getArrayElems", "wrlockMap", "growBmkLst", "unlockMap",
                             "rdlockMap",     "mainLoop",  "buildRet",   "unlkAndRel"};
const Labels kClearLabels = {"computeSizeClearIndex", "nofComplete", "unpinMapEntry"};

// A phase of a ready profile, as the report shows it.
struct Phase {
  std::string label;
  uint64_t increment;
  uint64_t average;
};

// Makes the first operation of a kind on any lock of a rank take so long more.
class SlowLock {
 public:
  SlowLock(LockRank rank, LockOp operation, std::chrono::milliseconds delay) {
    EXPECT_EQ(faults::failLock, nullptr) << "one guard at a time";
    rank_ = rank;
    operation_ = operation;
    delay_ = delay;
    faults::failLock = &SlowLock::hook;
  }
  ~SlowLock() {
    faults::failLock = nullptr;
    EXPECT_EQ(delay_.count(), 0) << "no such lock was taken";
  }
  SlowLock(const SlowLock&) = delete;
  SlowLock& operator=(const SlowLock&) = delete;

 private:
  static int hook(LockRank rank, const void* /*lock*/, LockOp operation) {
    if (rank != rank_ || operation != operation_) return 0;
    const auto until = std::chrono::system_clock::now() + delay_;
    while (std::chrono::system_clock::now() < until) std::this_thread::yield();
    delay_ = {};
    return 0;
  }
  static inline LockRank rank_;
  static inline LockOp operation_;
  static inline std::chrono::milliseconds delay_;
};

class OperationProfileDeathTest : public MapTest {
 protected:
  std::vector<std::string> report() {
    jni.clearRecords();
    Java_com_velt_rz_corvane_io_offheap_OffHeapManager_printProfileStats(env, manager);
    return jni.lines();
  }
  static std::string skipped(const char* name, int highest, int positions) {
    return std::string("info|Profile ") + name +
           " was skipped because it is not yet ready (up to about " + std::to_string(highest) +
           "/" + std::to_string(positions) + " samples)";
  }
  // The line of one profile; empty when there is none, or more than one.
  std::string lineOf(const std::string& name) {
    std::vector<std::string> found;
    for (const std::string& line : report()) {
      if (line.starts_with("info|Profile " + name + " ")) found.push_back(line);
    }
    EXPECT_EQ(found.size(), 1U) << name;
    return found.size() == 1 ? found[0] : std::string();
  }
  // The phases of a ready profile; checks form, labels and differences.
  std::vector<Phase> phasesOf(const std::string& name, const Labels& labels) {
    const std::string line = lineOf(name);
    const std::string start = "info|Profile " + name + " ";
    std::vector<Phase> phases;
    if (!line.starts_with(start)) return phases;
    std::istringstream words(line.substr(start.size()));
    Labels seen;
    uint64_t before = 0;
    for (std::string word; words >> word;) {
      const std::size_t colon = word.find(':');
      const std::size_t bracket = word.find('(');
      if (colon == std::string::npos || bracket == std::string::npos || word.back() != ')') {
        ADD_FAILURE() << "not a ready profile: " << line;
        return {};
      }
      phases.push_back({word.substr(0, colon),
                        std::strtoull(word.substr(colon + 1).c_str(), nullptr, 10),
                        std::strtoull(word.substr(bracket + 1).c_str(), nullptr, 10)});
      seen.push_back(phases.back().label);
      EXPECT_EQ(phases.back().increment, phases.back().average - before) << line;
      before = phases.back().average;
    }
    EXPECT_EQ(seen, labels);
    return phases;
  }
  // The wait of a slowed lock falls into one phase: before it little time has passed, with it the
  // average over all positions carries the whole delay.
  void expectWaitIn(const std::string& phase, const std::vector<Phase>& phases,
                    std::chrono::milliseconds delay, uint64_t positions) {
    const auto share = static_cast<uint64_t>(delay.count()) * 1000 / positions * 1000;
    uint64_t before = 0;
    for (const Phase& at : phases) {
      if (at.label == phase) {
        EXPECT_LT(before, share) << "before " << phase;
        EXPECT_GE(at.average, share) << phase;
        return;
      }
      before = at.average;
    }
    ADD_FAILURE() << "no phase " << phase;
  }

  // The natives, as Java calls them; each gives back what it got. False when it answered null.
  bool nativeInsert(const std::string& key, uint16_t owner = 0, int64_t revision = 1) {
    ByteBufferHeader* keyBuffer = buffer(key);
    ByteBufferHeader* valueBuffer = buffer("value");
    LuOffHeapValue* made = asValue(natives::insertAndGetNewAndPin(
        env, caller, handle(map), javaBuffer(keyBuffer), javaBuffer(valueBuffer),
        static_cast<jshort>(owner), revision));
    return finish(keyBuffer, valueBuffer, made, JNI_INSERTED_PIN);
  }
  bool nativeUpdate(const std::string& key, uint16_t owner = 0, int64_t revision = 2) {
    ByteBufferHeader* keyBuffer = buffer(key);
    ByteBufferHeader* valueBuffer = buffer("other");
    LuOffHeapValue* snapshot = asValue(natives::updateAndGetNewAndPin(
        env, caller, handle(map), javaBuffer(keyBuffer), javaBuffer(valueBuffer),
        static_cast<jshort>(owner), revision));
    return finish(keyBuffer, valueBuffer, snapshot, ALLOCATION_PIN);
  }
  bool nativeRemove(const std::string& key) {
    ByteBufferHeader* keyBuffer = buffer(key);
    LuOffHeapValue* removed =
        asValue(natives::removeAndGetAndPin(env, caller, handle(map), javaBuffer(keyBuffer)));
    return finish(keyBuffer, nullptr, removed, JNI_REMOVED_PIN);
  }
  bool nativeTouch(const std::string& key, int64_t revision) {
    ByteBufferHeader* keyBuffer = buffer(key);
    LuOffHeapValue* found = asValue(natives::getLuValue_ByteBuffer(
        env, caller, handle(map), javaBuffer(keyBuffer), hashOf(key), 0, JNI_TRUE, revision));
    return finish(keyBuffer, nullptr, found, NATIVE_TRANSIENT_GET_PIN);
  }
  bool nativeClear() { return natives::clear(env, caller, handle(map)) == JNI_TRUE; }
  // Answers the number of entries found.
  int64_t nativeQuery(const std::vector<jlong>& starts, const std::vector<jlong>& ends) {
    std::vector<int64_t> words(2 + 9 * 16);
    natives::queryRevisionAndPinWithBounds(
        env, caller, handle(map),
        jni.newDirectBuffer(words.data(), static_cast<jlong>(8 * words.size())), 0,
        jni.newLongArray(starts), jni.newLongArray(ends));
    for (int64_t at = 0; at < words[0]; ++at) {
      LuOffHeapValue* entry = asValue(words[1 + 9 * at]);
      unpinToFree(env, entry->value, kTransport);
      unpinToFree(env, entry->key, kTransport);
      unpinValue(entry, JNI_QUERYREVISION_PIN);
    }
    return words[0];
  }
  void insertMany(int count, const std::string& prefix = "key") {
    for (int number = 0; number < count; ++number) {
      ASSERT_TRUE(nativeInsert(prefix + std::to_string(number)));
    }
  }

 private:
  bool finish(ByteBufferHeader* key, ByteBufferHeader* value, LuOffHeapValue* result,
              uint32_t reason) {
    drop(key);
    if (value != nullptr) drop(value);
    if (result != nullptr) unpinValue(result, reason);
    return result != nullptr;
  }
};

// ---- Which profiles are made, and when ---------------------------------------------------

TEST_F(OperationProfileDeathTest, NoneIsMadeWhileTheLevelIsOff) {
  inFreshProcess([this] {
    setLevels(kInfoLevel);
    EXPECT_TRUE(nativeInsert("key"));
    EXPECT_TRUE(nativeUpdate("key"));
    EXPECT_TRUE(nativeTouch("key", 5));
    EXPECT_EQ(nativeQuery({0}, {10}), 1);
    EXPECT_TRUE(nativeRemove("key"));
    EXPECT_TRUE(nativeInsert("key"));
    EXPECT_TRUE(nativeClear());
    EXPECT_THAT(report(), ElementsAre("info|No profiles are being tracked."));
    setLevels(kProfiled);
    EXPECT_THAT(report(), ElementsAre("info|No profiles are being tracked."))
        << "the level alone makes none either";
  });
}

TEST_F(OperationProfileDeathTest, EachIsMadeByTheFirstRunOfItsOperation) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    EXPECT_TRUE(nativeInsert("key"));
    const std::string insert = skipped("insertAndPin", 5, 1000);
    const std::string queue = skipped("updateRevQueue", 5, 100);
    EXPECT_THAT(report(), ElementsAre(queue, insert)) << "an insert enters its revision queue";
    EXPECT_TRUE(nativeUpdate("key"));
    const std::string update = skipped("updateAndGetNewAndPin", 5, 1000);
    EXPECT_THAT(report(), ElementsAre(update, queue, insert));
    EXPECT_EQ(nativeQuery({0}, {10}), 1);
    const std::string query = skipped("queryRevision", 5, 500);
    EXPECT_THAT(report(), ElementsAre(query, update, queue, insert));
    EXPECT_TRUE(nativeRemove("key"));
    const std::string remove = skipped("removeAndPin", 5, 1000);
    EXPECT_THAT(report(), ElementsAre(remove, query, update, queue, insert));
    EXPECT_TRUE(nativeInsert("key"));
    EXPECT_TRUE(nativeClear());
    EXPECT_THAT(report(),
                ElementsAre(skipped("clearEntry", 5, 500), remove, query, update,
                            skipped("updateRevQueue", 6, 100), skipped("insertAndPin", 6, 1000)));
    setLevels(kInfoLevel);
    EXPECT_TRUE(nativeInsert("another"));
    EXPECT_TRUE(nativeUpdate("another"));
    EXPECT_TRUE(nativeRemove("another"));
    EXPECT_EQ(lineOf("insertAndPin"), skipped("insertAndPin", 6, 1000)) << "counts no further";
    EXPECT_EQ(lineOf("updateAndGetNewAndPin"), update);
    EXPECT_EQ(lineOf("removeAndPin"), remove);
  });
}

TEST_F(OperationProfileDeathTest, EachServesAllMaps) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    insertMany(3);
    LuOffHeapMap* const first = map;
    map = makeMap();
    insertMany(4);
    EXPECT_EQ(lineOf("insertAndPin"), skipped("insertAndPin", 11, 1000));
    EXPECT_EQ(lineOf("updateRevQueue"), skipped("updateRevQueue", 11, 100));
    deleteMap(map);
    map = first;
  });
}

// ---- Each operation ----------------------------------------------------------------------

TEST_F(OperationProfileDeathTest, InsertIsReadyAfter995Runs) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    insertMany(994);
    EXPECT_EQ(lineOf("insertAndPin"), skipped("insertAndPin", 998, 1000));
    const SlowLock slow(LockRank::map, LockOp::writeLock, std::chrono::milliseconds(400));
    EXPECT_TRUE(nativeInsert("last"));
    expectWaitIn("lockBS", phasesOf("insertAndPin", kInsertLabels), std::chrono::milliseconds(400),
                 1000);
  });
}

TEST_F(OperationProfileDeathTest, InsertTimesItsQueuePhase) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    insertMany(994);
    const SlowLock slow(LockRank::queue, LockOp::lock, std::chrono::milliseconds(400));
    EXPECT_TRUE(nativeInsert("last"));
    expectWaitIn("updRevQ", phasesOf("insertAndPin", kInsertLabels), std::chrono::milliseconds(400),
                 1000);
  });
}

TEST_F(OperationProfileDeathTest, UpdateIsReadyAfter995Runs) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    EXPECT_TRUE(nativeInsert("key"));
    for (int turn = 0; turn < 994; ++turn) ASSERT_TRUE(nativeUpdate("key"));
    EXPECT_EQ(lineOf("updateAndGetNewAndPin"), skipped("updateAndGetNewAndPin", 998, 1000));
    const SlowLock slow(LockRank::map, LockOp::writeLock, std::chrono::milliseconds(400));
    EXPECT_TRUE(nativeUpdate("key"));
    expectWaitIn("lockLuMp", phasesOf("updateAndGetNewAndPin", kUpdateLabels),
                 std::chrono::milliseconds(400), 1000);
  });
}

TEST_F(OperationProfileDeathTest, UpdateTimesTheBucketSet) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    EXPECT_TRUE(nativeInsert("key"));
    for (int turn = 0; turn < 994; ++turn) ASSERT_TRUE(nativeUpdate("key"));
    const SlowLock slow(LockRank::bucketSet, LockOp::lock, std::chrono::milliseconds(400));
    EXPECT_TRUE(nativeUpdate("key"));
    expectWaitIn("lockBS", phasesOf("updateAndGetNewAndPin", kUpdateLabels),
                 std::chrono::milliseconds(400), 1000);
  });
}

TEST_F(OperationProfileDeathTest, RemoveIsReadyAfter995Runs) {
  inFreshProcess([this] {
    insertMany(995);
    setLevels(kProfiled);
    for (int number = 0; number < 994; ++number) {
      ASSERT_TRUE(nativeRemove("key" + std::to_string(number)));
    }
    EXPECT_EQ(lineOf("removeAndPin"), skipped("removeAndPin", 998, 1000));
    const SlowLock slow(LockRank::queue, LockOp::lock, std::chrono::milliseconds(400));
    EXPECT_TRUE(nativeRemove("key994"));
    expectWaitIn("removeFromRevQueue", phasesOf("removeAndPin", kRemoveLabels),
                 std::chrono::milliseconds(400), 1000);
  });
}

TEST_F(OperationProfileDeathTest, RemoveTimesTheBucketSet) {
  inFreshProcess([this] {
    insertMany(995);
    setLevels(kProfiled);
    for (int number = 0; number < 994; ++number) {
      ASSERT_TRUE(nativeRemove("key" + std::to_string(number)));
    }
    const SlowLock slow(LockRank::bucketSet, LockOp::lock, std::chrono::milliseconds(400));
    EXPECT_TRUE(nativeRemove("key994"));
    expectWaitIn("getAndLockBS", phasesOf("removeAndPin", kRemoveLabels),
                 std::chrono::milliseconds(400), 1000);
  });
}

TEST_F(OperationProfileDeathTest, QueueUpdateIsReadyAfter95Runs) {
  inFreshProcess([this] {
    EXPECT_TRUE(nativeInsert("key"));
    setLevels(kProfiled);
    for (int turn = 0; turn < 94; ++turn) ASSERT_TRUE(nativeTouch("key", 10 + turn));
    EXPECT_EQ(lineOf("updateRevQueue"), skipped("updateRevQueue", 98, 100));
    const SlowLock slow(LockRank::queue, LockOp::lock, std::chrono::milliseconds(400));
    EXPECT_TRUE(nativeTouch("key", 1000));
    expectWaitIn("lockQue1", phasesOf("updateRevQueue", kQueueLabels),
                 std::chrono::milliseconds(400), 100);
  });
}

TEST_F(OperationProfileDeathTest, QueryIsReadyAfter495Runs) {
  inFreshProcess([this] {
    EXPECT_TRUE(nativeInsert("key"));
    setLevels(kProfiled);
    for (int turn = 0; turn < 494; ++turn) ASSERT_EQ(nativeQuery({0}, {10}), 1);
    EXPECT_EQ(lineOf("queryRevision"), skipped("queryRevision", 498, 500));
    const SlowLock slow(LockRank::map, LockOp::readLock, std::chrono::milliseconds(400));
    EXPECT_EQ(nativeQuery({0}, {10}), 1);
    expectWaitIn("rdlockMap", phasesOf("queryRevision", kQueryLabels),
                 std::chrono::milliseconds(400), 500);
  });
}

TEST_F(OperationProfileDeathTest, QueryTimesTheWriteLock) {
  inFreshProcess([this] {
    EXPECT_TRUE(nativeInsert("key"));
    setLevels(kProfiled);
    for (int turn = 0; turn < 494; ++turn) ASSERT_EQ(nativeQuery({0}, {10}), 1);
    const SlowLock slow(LockRank::map, LockOp::writeLock, std::chrono::milliseconds(400));
    EXPECT_EQ(nativeQuery({0}, {10}), 1);
    expectWaitIn("wrlockMap", phasesOf("queryRevision", kQueryLabels),
                 std::chrono::milliseconds(400), 500);
  });
}

TEST_F(OperationProfileDeathTest, ClearRunsOnceForEachEntry) {
  inFreshProcess([this] {
    insertMany(3);
    setLevels(kProfiled);
    EXPECT_TRUE(nativeClear());
    EXPECT_THAT(report(), ElementsAre(skipped("clearEntry", 7, 500)));
    EXPECT_TRUE(nativeClear());
    EXPECT_THAT(report(), ElementsAre(skipped("clearEntry", 7, 500))) << "nothing is left";
    setLevels(0);
    insertMany(491);
    setLevels(kProfiled);
    EXPECT_TRUE(nativeClear());
    EXPECT_EQ(lineOf("clearEntry"), skipped("clearEntry", 498, 500));
    setLevels(0);
    insertMany(1);
    setLevels(kProfiled);
    EXPECT_TRUE(nativeClear());
    const std::vector<Phase> phases = phasesOf("clearEntry", kClearLabels);
    ASSERT_EQ(phases.size(), 3U);
    EXPECT_LE(phases[0].average, phases[2].average);
  });
}

TEST_F(OperationProfileDeathTest, ClearOfAnEmptyMapMakesItsProfile) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    EXPECT_TRUE(nativeClear());
    EXPECT_THAT(report(), ElementsAre(skipped("clearEntry", 4, 500)));
  });
}

// ---- Failures ----------------------------------------------------------------------------

// More runs than there are slots: one that did not end would keep its slot and stop the count.
constexpr int kFailures = 12;

TEST_F(OperationProfileDeathTest, FailedInsertEndsItsRun) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    EXPECT_TRUE(nativeInsert("key"));
    for (int turn = 0; turn < kFailures; ++turn) EXPECT_FALSE(nativeInsert("key"));
    EXPECT_EQ(lineOf("insertAndPin"), skipped("insertAndPin", 5 + kFailures, 1000));
    EXPECT_EQ(lineOf("updateRevQueue"), skipped("updateRevQueue", 5, 100));
    for (int turn = 0; turn < kFailures; ++turn) {
      const RefuseAllocation refused(1, RefuseAllocation::Way::kNothingLeft, "LuOffHeapMapValue");
      ByteBufferHeader* key = buffer("another");
      EXPECT_EQ(natives::insertAndGetNewAndPin(env, caller, handle(map), javaBuffer(key),
                                               javaBuffer(key), 0, 1),
                0);
      jni.clearPending();
      drop(key);
    }
    EXPECT_EQ(lineOf("insertAndPin"), skipped("insertAndPin", 5 + 2 * kFailures, 1000));
    EXPECT_TRUE(nativeInsert("third"));
    EXPECT_EQ(lineOf("insertAndPin"), skipped("insertAndPin", 6 + 2 * kFailures, 1000));
  });
}

TEST_F(OperationProfileDeathTest, FailedUpdateEndsItsRun) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    for (int turn = 0; turn < kFailures; ++turn) EXPECT_FALSE(nativeUpdate("missing"));
    EXPECT_EQ(lineOf("updateAndGetNewAndPin"),
              skipped("updateAndGetNewAndPin", 4 + kFailures, 1000));
    for (int turn = 0; turn < kFailures; ++turn) {
      const FailLock failure(LockRank::map, LockOp::writeLock, 1);
      EXPECT_FALSE(nativeUpdate("missing"));
      jni.clearPending();
    }
    EXPECT_EQ(lineOf("updateAndGetNewAndPin"),
              skipped("updateAndGetNewAndPin", 4 + 2 * kFailures, 1000));
    EXPECT_TRUE(nativeInsert("key"));
    EXPECT_TRUE(nativeUpdate("key"));
    EXPECT_EQ(lineOf("updateAndGetNewAndPin"),
              skipped("updateAndGetNewAndPin", 5 + 2 * kFailures, 1000));
  });
}

TEST_F(OperationProfileDeathTest, FailedRemoveEndsItsRun) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    for (int turn = 0; turn < kFailures; ++turn) EXPECT_FALSE(nativeRemove("missing"));
    EXPECT_EQ(lineOf("removeAndPin"), skipped("removeAndPin", 4 + kFailures, 1000));
    for (int turn = 0; turn < kFailures; ++turn) {
      const FailLock failure(LockRank::bucketSet, LockOp::lock, 1);
      EXPECT_FALSE(nativeRemove("missing"));
      jni.clearPending();
    }
    EXPECT_EQ(lineOf("removeAndPin"), skipped("removeAndPin", 4 + 2 * kFailures, 1000));
  });
}

TEST_F(OperationProfileDeathTest, FailedQueueUpdateEndsItsRun) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    EXPECT_TRUE(nativeInsert("key"));
    for (int turn = 0; turn < kFailures; ++turn) {
      const FailLock failure(LockRank::queue, LockOp::lock, 1);
      EXPECT_FALSE(nativeInsert("another"));
      jni.clearPending();
    }
    EXPECT_EQ(lineOf("updateRevQueue"), skipped("updateRevQueue", 5 + kFailures, 100));
    EXPECT_EQ(lineOf("insertAndPin"), skipped("insertAndPin", 5 + kFailures, 1000));
    EXPECT_TRUE(nativeInsert("another"));
    EXPECT_EQ(lineOf("updateRevQueue"), skipped("updateRevQueue", 6 + kFailures, 100));
  });
}

TEST_F(OperationProfileDeathTest, FailedQueryEndsItsRun) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    EXPECT_TRUE(nativeInsert("key"));
    EXPECT_EQ(nativeQuery({0}, {10}), 1);
    for (int turn = 0; turn < kFailures; ++turn) {
      const FailLock failure(LockRank::map, LockOp::readLock, 1);
      EXPECT_EQ(nativeQuery({0}, {10}), 0);
      jni.clearPending();
    }
    EXPECT_EQ(lineOf("queryRevision"), skipped("queryRevision", 5 + kFailures, 500));
    // Whether a query without bounds counts as a run is not fixed; that it keeps no slot is.
    for (int turn = 0; turn < kFailures; ++turn) EXPECT_EQ(nativeQuery({}, {}), 0);
    const std::string before = lineOf("queryRevision");
    EXPECT_EQ(nativeQuery({0}, {10}), 1);
    EXPECT_NE(lineOf("queryRevision"), before);
  });
}

// ---- Threads -----------------------------------------------------------------------------

TEST_F(OperationProfileDeathTest, FiveThreadsAreTimedInOneProfile) {
  inFreshProcess([this] {
    setLevels(kProfiled);
    EXPECT_TRUE(nativeInsert("key"));
    constexpr int kThreads = 5;
    constexpr int kTurns = 60;
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
      threads.emplace_back([this, number] {
        ScriptedJni mine;
        const jobject self = mine.newMapObject();
        for (int turn = 0; turn < kTurns; ++turn) {
          const std::string text = std::to_string(number) + ":" + std::to_string(turn);
          ByteBufferHeader* key = allocateByteBufferData(mine.env(), text.size(), "Key Data");
          std::copy(text.begin(), text.end(), bufferData(key));
          pin(mine.env(), key, ALLOCATION_PIN);
          const jobject javaKey =
              mine.newDirectBuffer(bufferData(key), static_cast<jlong>(text.size()));
          LuOffHeapValue* made = asValue(natives::insertAndGetNewAndPin(
              mine.env(), self, handle(map), javaKey, javaKey, 0, turn + 1));
          EXPECT_NE(made, nullptr);
          if (made != nullptr) unpinLuOffHeapMapValue(mine.env(), made, JNI_INSERTED_PIN);
          unpinToFree(mine.env(), key, ALLOCATION_PIN);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_THAT(lineOf("insertAndPin"), ::testing::HasSubstr(" was skipped because "))
        << "no slot can be through after so few runs";
    checkMap(env, map);
    // All slots are free again: the runs of one thread take the first to the last position.
    insertMany(995);
    phasesOf("insertAndPin", kInsertLabels);
    phasesOf("updateRevQueue", kQueueLabels);
  });
}

}  // namespace
}  // namespace nimbra::test
