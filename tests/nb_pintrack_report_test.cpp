// The report of tracked pins: its lines under every combination of levels, its order, what it
// discards, and a leak in a map that it names.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "map_natives.h"
#include "map_support.h"
#include "pintrack_support.h"

namespace nimbra::test {
namespace {

using natives::asValue;
using natives::handle;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Pair;
using ::testing::StartsWith;

constexpr uint32_t kJava = JNI_CONVERT_FROM_JAVA_PIN;
constexpr jint kOutstanding = kPinTrackLevel | kInfoLevel;
constexpr jint kBalancedToo = kPinTrackAllLevel | kInfoLevel;

class PinReport : public PinTracking<LibraryTest> {
 protected:
  // The lines of one object, stacks included.
  static std::vector<std::string> linesOf(const Pinnable* object) {
    const PinTracker* record = recordOf(object);
    std::vector<std::string> lines{headerLine(object, record->eventCount, record->balance)};
    int sum = 0;
    for (int at = 0; at < record->eventCount; ++at) {
      const Pin* event = record->events[at];
      sum += event->isPin ? 1 : -1;
      lines.push_back(eventLine(event, sum));
      for (int line = 0; line < event->frameCount; ++line) {
        lines.push_back(std::string("info|    ") + event->backtrace[line]);
      }
    }
    return lines;
  }

  Pinnable object{0};
};

// ---- Lines -------------------------------------------------------------------------------

TEST_F(PinReport, ListsTheEventsOfAnObjectWithTheirRunningSum) {
  setLevels(kOutstanding);
  pin(env, &object, ALLOCATION_PIN);
  pin(env, &object, kJava | JAVA_GET_PIN);
  unpin(env, &object, kJava | JAVA_FREE_PIN);
  const auto thread = std::to_string(static_cast<int32_t>(recordOf(&object)->events[0]->thread));
  EXPECT_THAT(withoutStacks(report()),
              ElementsAre("info|Address=" + printed(&object) + " AllPins=3 CurrentPins=1",
                          "info|  +ALLOCATION_PIN Thread=" + thread + " PinSum=1",
                          "info|  +JAVA_GET_PIN Thread=" + thread + " PinSum=2",
                          "info|  -JAVA_FREE_PIN Thread=0 PinSum=1", "info|Total current pins: 1"));
}

TEST_F(PinReport, WritesTheStackBelowEachEvent) {
  setLevels(kOutstanding);
  pin(env, &object, ALLOCATION_PIN);
  pin(env, &object, TRANSPORT_PIN);
  unpin(env, &object, TRANSPORT_PIN);
  std::vector<std::string> expected = linesOf(&object);
  ASSERT_GT(expected.size(), 7U) << "each event has frames";
  expected.push_back(totalLine(1));
  EXPECT_EQ(report(), expected);
}

TEST_F(PinReport, MayBeRepeated) {
  setLevels(kOutstanding);
  pin(env, &object, ALLOCATION_PIN);
  const std::vector<std::string> first = report();
  EXPECT_EQ(report(), first);
  unpin(env, &object, ALLOCATION_PIN);
  EXPECT_THAT(report(), ElementsAre(totalLine(0)));
  pin(env, &object, ALLOCATION_PIN);
  EXPECT_EQ(withoutStacks(report()).front(), headerLine(&object, 3, 1))
      << "what a report left out is still recorded";
}

TEST_F(PinReport, ShowsSumsBelowZero) {
  setLevels(kOutstanding);
  pin(env, &object, ALLOCATION_PIN);
  unpin(env, &object, TRANSPORT_PIN);
  unpin(env, &object, TRANSPORT_PIN);
  unpin(env, &object, TRANSPORT_PIN);
  const PinTracker* record = recordOf(&object);
  EXPECT_THAT(
      withoutStacks(report()),
      ElementsAre(headerLine(&object, 4, -2), eventLine(record->events[0], 1),
                  "info|  -TRANSPORT_PIN Thread=0 PinSum=0",
                  "info|  -TRANSPORT_PIN Thread=0 PinSum=-1",
                  "info|  -TRANSPORT_PIN Thread=0 PinSum=-2", "info|Total current pins: -2"));
}

TEST_F(PinReport, AddsTheBalancesUp) {
  Pinnable other{0};
  Pinnable below{0};
  setLevels(kOutstanding);
  for (int turn = 0; turn < 5; ++turn) pin(env, &object, ALLOCATION_PIN);
  for (int turn = 0; turn < 3; ++turn) pin(env, &other, ALLOCATION_PIN);
  pin(env, &below, ALLOCATION_PIN);
  unpin(env, &below, ALLOCATION_PIN);
  unpin(env, &below, ALLOCATION_PIN);
  EXPECT_EQ(report().back(), totalLine(5 + 3 - 1));
}

TEST_F(PinReport, GoesThroughTheChainsInOrder) {
  CollidingObjects objects;
  const std::vector<Pinnable*> inOrder = objects.ofEachChain();
  ASSERT_GT(inOrder.size(), 100U);
  setLevels(kOutstanding);
  // Tracked in another order than reported.
  for (auto at = inOrder.rbegin(); at != inOrder.rend(); ++at) pin(env, *at, TRANSPORT_PIN);
  std::vector<std::string> expected;
  for (const Pinnable* one : inOrder) expected.push_back(headerLine(one, 1, 1));
  std::vector<std::string> headers;
  for (const std::string& line : report()) {
    if (line.starts_with("info|Address=")) headers.push_back(line);
  }
  EXPECT_EQ(headers, expected);
}

TEST_F(PinReport, GoesThroughAChainFromTheLatestToTheFirst) {
  CollidingObjects objects;
  const std::vector<Pinnable*> chain = objects.ofOneChain(3);
  ASSERT_EQ(chain.size(), 3U);
  setLevels(kOutstanding);
  for (Pinnable* one : chain) pin(env, one, TRANSPORT_PIN);
  std::vector<std::string> expected;
  for (const int at : {2, 1, 0}) {
    const std::vector<std::string> lines = linesOf(chain[at]);
    expected.insert(expected.end(), lines.begin(), lines.end());
  }
  expected.push_back(totalLine(3));
  EXPECT_EQ(report(), expected);
  EXPECT_THAT(chainOf(getTracker(chain[0])), ElementsAre(chain[2], chain[1], chain[0]))
      << "a report moves nothing";
}

// ---- Levels ------------------------------------------------------------------------------

struct Combination {
  jint levels;
  bool outstanding;  // objects with a balance appear
  bool balanced;     // objects without one do
};

class PinReportLevels : public PinReport, public ::testing::WithParamInterface<Combination> {};

TEST_P(PinReportLevels, ChooseWhatAppears) {
  Pinnable held{0};
  Pinnable balanced{0};
  setLevels(kOutstanding);
  pin(env, &held, ALLOCATION_PIN);
  pin(env, &held, TRANSPORT_PIN);
  pin(env, &balanced, JNI_GET_PIN);
  unpin(env, &balanced, JNI_GET_PIN);
  const std::vector<std::string> heldLines = linesOf(&held);
  const std::vector<std::string> balancedLines = linesOf(&balanced);
  const bool heldFirst =
      bucketOf(&held) < bucketOf(&balanced) ||
      (bucketOf(&held) == bucketOf(&balanced) && chainOf(getTracker(&held)).front() == &held);

  const Combination& combination = GetParam();
  const bool tracking = (combination.levels & (kPinTrackLevel | kPinTrackAllLevel)) != 0;
  setLevels(combination.levels);
  if (!tracking) remember(_tracker.load());
  std::vector<std::string> expected;
  const auto append = [&expected](const std::vector<std::string>& lines) {
    expected.insert(expected.end(), lines.begin(), lines.end());
  };
  if (!heldFirst && combination.balanced) append(balancedLines);
  if (combination.outstanding) append(heldLines);
  if (heldFirst && combination.balanced) append(balancedLines);
  if ((combination.levels & kInfoLevel) != 0) {
    expected.push_back(totalLine(combination.outstanding ? 2 : 0));
  }
  EXPECT_EQ(report(), expected);
  EXPECT_EQ(recordCount(), tracking ? 2U : 0U);
}

INSTANTIATE_TEST_SUITE_P(
    All, PinReportLevels,
    ::testing::Values(Combination{kPinTrackLevel | kInfoLevel, true, false},
                      Combination{kPinTrackAllLevel | kInfoLevel, true, true},
                      Combination{kPinTrackLevel | kPinTrackAllLevel | kInfoLevel, true, true},
                      Combination{kInfoLevel, false, false},
                      Combination{kPinTrackLevel, false, false},
                      Combination{kPinTrackAllLevel, false, false},
                      Combination{kPinTrackLevel | kPinTrackAllLevel, false, false},
                      Combination{0, false, false}),
    [](const auto& info) {
      const jint levels = info.param.levels;
      std::string name;
      if ((levels & kPinTrackLevel) != 0) name += "Outstanding";
      if ((levels & kPinTrackAllLevel) != 0) name += "Balanced";
      if (name.empty()) name = "Off";
      return name + ((levels & kInfoLevel) != 0 ? "WithInfo" : "WithoutInfo");
    });

TEST_F(PinReport, LeavesABalancedObjectOutOrShowsIt) {
  setLevels(kOutstanding);
  pin(env, &object, ALLOCATION_PIN);
  unpin(env, &object, ALLOCATION_PIN);
  EXPECT_THAT(report(), ElementsAre("info|Total current pins: 0"));
  setLevels(kBalancedToo);
  const std::vector<std::string> lines = withoutStacks(report());
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0], headerLine(&object, 2, 0));
  EXPECT_EQ(lines[2], "info|  -ALLOCATION_PIN Thread=0 PinSum=0");
  EXPECT_EQ(lines[3], totalLine(0));
}

TEST_F(PinReport, IsSentAtInfoLevelAlone) {
  setLevels(kAllLevels & ~kInfoLevel);
  logInfo.pinTracking = true;
  logInfo.pinTrackingBalanced = true;
  recordPin(&object, TRANSPORT_PIN);
  jni.clearCalls();
  EXPECT_THAT(report(), IsEmpty());
  EXPECT_EQ(jni.callCount("CallStaticVoidMethod"), 0);
}

// ---- Before the first pin ----------------------------------------------------------------

TEST_F(PinReport, IsNothingAtAllBeforeTheFirstTrackedPin) {
  _tracker = nullptr;
  for (const jint levels :
       {kOutstanding, kBalancedToo, kOutstanding | kBalancedToo, kInfoLevel, jint{0}}) {
    setLevels(levels);
    EXPECT_THAT(report(), IsEmpty()) << levels;
    EXPECT_EQ(_tracker.load(), nullptr) << levels;
  }
}

TEST_F(PinReport, IsTheTotalAloneOfAnEmptyTable) {
  setLevels(kBalancedToo);
  EXPECT_THAT(report(), ElementsAre("info|Total current pins: 0"));
}

// ---- Discarding --------------------------------------------------------------------------

TEST_F(PinReport, DiscardsEverythingWhenTrackingIsOff) {
  CollidingObjects objects;
  const std::vector<Pinnable*> chain = objects.ofOneChain(3);
  ASSERT_EQ(chain.size(), 3U);
  setLevels(kOutstanding);
  for (Pinnable* one : chain) {
    pin(env, one, TRANSPORT_PIN);
    pin(env, one, ALLOCATION_PIN);
    unpin(env, one, ALLOCATION_PIN);
  }
  pin(env, &object, TRANSPORT_PIN);
  EXPECT_EQ(recordCount(), 4U);
  setLevels(0);
  EXPECT_EQ(recordCount(), 4U) << "turning the level off discards nothing";

  EXPECT_THAT(discard(), ElementsAre("info|Total current pins: 0"));
  EXPECT_EQ(recordCount(), 0U);
  for (uint32_t at = 0; at < kTrackerBuckets; ++at) {
    EXPECT_EQ(_tracker.load()[at]->next, nullptr);
  }
  setLevels(kOutstanding | kBalancedToo);
  EXPECT_THAT(report(), ElementsAre("info|Total current pins: 0"));
}

TEST_F(PinReport, DiscardsWithoutTheInfoLevelToo) {
  setLevels(kOutstanding);
  pin(env, &object, TRANSPORT_PIN);
  setLevels(0);
  remember(_tracker.load());
  EXPECT_THAT(report(), IsEmpty());
  EXPECT_EQ(recordCount(), 0U);
}

TEST_F(PinReport, StartsAnewAfterADiscard) {
  setLevels(kOutstanding);
  pin(env, &object, TRANSPORT_PIN);
  pin(env, &object, TRANSPORT_PIN);
  discard();
  setLevels(kOutstanding);
  pin(env, &object, ALLOCATION_PIN);
  EXPECT_EQ(recordOf(&object)->eventCount, 1);
  EXPECT_EQ(withoutStacks(report()).front(), headerLine(&object, 1, 1))
      << "pins from before the discard are forgotten";
}

TEST_F(PinReport, MayDiscardTwice) {
  setLevels(kOutstanding);
  pin(env, &object, TRANSPORT_PIN);
  discard();
  EXPECT_THAT(discard(), ElementsAre("info|Total current pins: 0"));
}

// ---- Locks -------------------------------------------------------------------------------

TEST_F(PinReport, HoldsOneChainAtATime) {
  CollidingObjects objects;
  std::vector<Pinnable*> tracked = objects.ofEachChain();
  tracked.resize(3);
  setLevels(kOutstanding);
  for (Pinnable* one : tracked) pin(env, one, TRANSPORT_PIN);

  std::map<std::string, std::vector<bool>> busyAt;  // by the line that is being written
  jni.onRecord([&](const LogRecord& record) {
    if (isStackLine(record.line())) return;
    std::vector<bool> busy;
    std::thread([&] {
      for (const Pinnable* one : tracked) {
        PinTracker* head = getTracker(one);
        busy.push_back(pthread_rwlock_trywrlock(&head->lock) != 0);
        if (!busy.back()) pthread_rwlock_unlock(&head->lock);
      }
    }).join();
    busyAt[record.line()] = busy;
  });
  report();
  jni.onRecord(nullptr);
  using Busy = std::vector<bool>;
  EXPECT_EQ(busyAt[headerLine(tracked[0], 1, 1)], (Busy{true, false, false}));
  EXPECT_EQ(busyAt[headerLine(tracked[1], 1, 1)], (Busy{false, true, false}));
  EXPECT_EQ(busyAt[headerLine(tracked[2], 1, 1)], (Busy{false, false, true}));
  EXPECT_EQ(busyAt[totalLine(3)], (Busy{false, false, false}));
  EXPECT_EQ(heldLockCount(), 0);
}

// ---- A leak in a map ---------------------------------------------------------------------

class PinLeak : public PinTracking<MapTest> {
 protected:
  struct Reported {
    int all = 0;
    int current = 0;
    std::map<std::string, int> byReason;  // pins minus unpins; reasons in balance are left out
  };
  // The report as a person reads it.
  std::map<std::string, Reported> readReport() {
    std::map<std::string, Reported> found;
    Reported* at = nullptr;
    int total = 0;
    const std::regex header("info\\|Address=(0x[0-9a-f]+) AllPins=(-?\\d+) CurrentPins=(-?\\d+)");
    const std::regex event("info\\|  ([+-])(.+) Thread=-?\\d+ PinSum=(-?\\d+)");
    for (const std::string& line : withoutStacks(report())) {
      std::smatch parts;
      if (std::regex_match(line, parts, header)) {
        at = &found[parts[1]];
        *at = Reported{std::stoi(parts[2]), std::stoi(parts[3]), {}};
        total += at->current;
      } else if (std::regex_match(line, parts, event)) {
        int& net = at->byReason[parts[2]];
        net += parts[1] == "+" ? 1 : -1;
        if (net == 0) at->byReason.erase(parts[2]);
      } else {
        EXPECT_EQ(line, totalLine(total));
      }
    }
    return found;
  }

  LuOffHeapValue* insertPinnedByNative(std::string_view key, std::string_view value,
                                       int64_t revision) {
    ByteBufferHeader* keyBuffer = buffer(key);
    ByteBufferHeader* valueBuffer = buffer(value);
    LuOffHeapValue* made = asValue(natives::insertAndGetNewAndPin(
        env, caller, handle(map), javaBuffer(keyBuffer), javaBuffer(valueBuffer), 0, revision));
    drop(keyBuffer);
    drop(valueBuffer);
    return made;
  }
  LuOffHeapValue* getPinnedByNative(std::string_view key) {
    ByteBufferHeader* keyBuffer = buffer(key);
    LuOffHeapValue* found = asValue(natives::getLuValue_ByteBuffer(
        env, caller, handle(map), javaBuffer(keyBuffer), hashOf(key), 0, JNI_FALSE, -1));
    drop(keyBuffer);
    return found;
  }
  // Java's releases carry Java's reasons.
  void releaseByNative(LuOffHeapValue* value, uint32_t javaReason) {
    natives::unpinLuOffHeapValue_native(env, manager, handle(value), static_cast<jint>(javaReason));
  }
};

TEST_F(PinLeak, OfARemovedEntryIsNamedWithItsReason) {
  setLevels(kOutstanding);
  LuOffHeapValue* leaked = nullptr;
  for (const char* key : {"one", "two", "three"}) {
    releaseByNative(insertPinnedByNative(key, "value", 1), JAVA_PUTINTOMAP_PIN);
    LuOffHeapValue* found = getPinnedByNative(key);
    if (std::string_view(key) == "two") {
      leaked = found;  // and never released
    } else {
      releaseByNative(found, JAVA_GET_PIN);
    }
  }
  for (const char* key : {"one", "two", "three"}) EXPECT_TRUE(remove(key));

  const std::map<std::string, Reported> found = readReport();
  // The entry, and its buffers, which it keeps alive.
  ASSERT_EQ(found.size(), 3U);
  ASSERT_TRUE(found.contains(printed(leaked)));
  const Reported& entry = found.at(printed(leaked));
  EXPECT_EQ(entry.current, 1);
  EXPECT_GT(entry.all, 9) << "with all that the map pinned and released";
  EXPECT_THAT(entry.byReason, ::testing::Contains(Pair("NATIVE_TRANSIENT_GET_PIN", 1)));
  EXPECT_EQ(found.at(printed(leaked->key)).current, 1);
  EXPECT_THAT(found.at(printed(leaked->key)).byReason,
              ::testing::Contains(Pair(getReason(LUOFFHEAPMAPVALUE_KEY_PIN), 1)));
  EXPECT_EQ(found.at(printed(leaked->value)).current, 1);

  releaseByNative(leaked, JAVA_GET_PIN);
  EXPECT_THAT(report(), ElementsAre(totalLine(0))) << "the leak was all there was";
}

TEST_F(PinLeak, OfAnEntryInTheMapStandsBesideTheMapsOwnPins) {
  setLevels(kOutstanding);
  LuOffHeapValue* kept = insertPinnedByNative("kept", "value", 1);
  LuOffHeapValue* leaked = insertPinnedByNative("leaked", "value", 2);
  releaseByNative(kept, JAVA_PUTINTOMAP_PIN);

  std::map<std::string, Reported> found = readReport();
  EXPECT_EQ(found.size(), 6U);
  EXPECT_EQ(found[printed(kept)].current, 3) << "one of the chain, two of the queue";
  EXPECT_EQ(found[printed(kept)].byReason["JNI_INSERTED_PIN"], 1);
  EXPECT_EQ(found[printed(kept)].byReason["JAVA_PUTINTOMAP_PIN"], -1);
  EXPECT_EQ(found[printed(leaked)].current, 4);
  EXPECT_EQ(found[printed(leaked)].byReason["JNI_INSERTED_PIN"], 1);
  EXPECT_FALSE(found[printed(leaked)].byReason.contains("JAVA_PUTINTOMAP_PIN")) << "never released";
  for (LuOffHeapValue* entry : {kept, leaked}) {
    EXPECT_EQ(entry->pins, found[printed(entry)].current) << "as counted in the entry itself";
    EXPECT_EQ(found[printed(entry->key)].current, entry->key->pins);
    EXPECT_EQ(found[printed(entry->value)].current, entry->value->pins);
  }

  releaseByNative(leaked, JAVA_PUTINTOMAP_PIN);
  EXPECT_EQ(report().back(), totalLine(2 * 5));
  EXPECT_EQ(natives::clear(env, caller, handle(map)), JNI_TRUE);
  EXPECT_THAT(report(), ElementsAre(totalLine(0)));
}

TEST_F(PinLeak, IsNotThereAfterUpdatesAndQueriesThatGiveAllBack) {
  setLevels(kOutstanding);
  for (int turn = 0; turn < 8; ++turn) insert("key" + std::to_string(turn), "value", 0, turn + 1);
  for (int turn = 0; turn < 8; ++turn) {
    EXPECT_TRUE(update("key" + std::to_string(turn), "longer value", 1, 20 + turn));
  }
  std::vector<int64_t> words(2 + 9 * 8);
  natives::queryRevisionAndPinWithBounds(
      env, caller, handle(map),
      jni.newDirectBuffer(words.data(), static_cast<jlong>(8 * words.size())), 0,
      jni.newLongArray({0, 0}), jni.newLongArray({100, 100}));
  ASSERT_EQ(words[0], 8);
  constexpr uint32_t kTransport = kJava | JAVA_TRANSPORT_PIN;
  std::map<std::string, Reported> found = readReport();
  for (int at = 0; at < 8; ++at) {
    LuOffHeapValue* entry = asValue(words[1 + 9 * at]);
    EXPECT_EQ(found[printed(entry)].byReason["JNI_QUERYREVISION_PIN"], 1);
    EXPECT_EQ(found[printed(entry->key)].byReason["JAVA_TRANSPORT_PIN"], 1);
    unpinToFree(env, entry->value, kTransport);
    unpinToFree(env, entry->key, kTransport);
    releaseByNative(entry, JAVA_QUERYREVISION_STANDARD_PIN);
  }
  for (int turn = 0; turn < 8; ++turn) EXPECT_TRUE(remove("key" + std::to_string(turn)));
  EXPECT_THAT(report(), ElementsAre(totalLine(0)));
}

// Every diagnosis at once: the locks of all of them nest inside those of the map.
TEST_F(PinLeak, IsFoundWithEveryOtherLevelOnAsWell) {
  setLevels(0x7fffffff);
  LuOffHeapValue* leaked = insertPinnedByNative("leaked", "value", 1);
  for (int turn = 0; turn < 3; ++turn) insert("key" + std::to_string(turn), "value", 0, turn + 2);
  for (int turn = 0; turn < 3; ++turn) {
    EXPECT_TRUE(update("key" + std::to_string(turn), "other", 1, turn + 5));
  }
  EXPECT_TRUE(remove("leaked"));
  EXPECT_EQ(natives::clear(env, caller, handle(map)), JNI_TRUE);
  setLevels(kOutstanding);
  EXPECT_EQ(readReport()[printed(leaked)].current, 1);
  releaseByNative(leaked, JAVA_PUTINTOMAP_PIN);
  EXPECT_THAT(report(), ElementsAre(totalLine(0)));
}

TEST_F(PinLeak, IsNotSeenWithTheLevelsOff) {
  setLevels(kInfoLevel);
  LuOffHeapValue* leaked = insertPinnedByNative("key", "value", 1);
  EXPECT_EQ(recordCount(), 0U);
  EXPECT_THAT(report(), ElementsAre(totalLine(0)));
  releaseByNative(leaked, JAVA_PUTINTOMAP_PIN);
}

}  // namespace
}  // namespace nimbra::test
