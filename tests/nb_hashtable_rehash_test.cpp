// Growth and clear: when a set doubles, when it may not, and how a table empties.

#include <gmock/gmock.h>

#include <memory>

#include "hashtable_support.h"

namespace nimbra::test::hashtable {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TableGrowth : public HashtableTest {
 protected:
  // Inserts the number as its own key and hash.
  DefaultEntry* addNumber(MapHeader* header, uint32_t number) {
    return add(header, numberBytes(number), number);
  }
  std::vector<std::string> growthTrace(const Table& table) {
    names.name(table.set(), "{set}");
    std::vector<std::string> lines;
    for (const std::string& line : trace()) {
      if (line.starts_with("debug rehashMapEntriesIfNecessary")) lines.push_back(line);
    }
    return lines;
  }
};

TEST_F(TableGrowth, GrowthSequence) {
  Table table(env, newTable({1, 1, 0.75F}));
  BucketSet* set = table.set();
  const std::pair<uint32_t, uint32_t> afterSize[] = {
      // buckets, threshold after this many entries
      {2, 1}, {4, 3}, {8, 6}, {8, 6}, {8, 6}, {16, 12}, {16, 12}, {16, 12},
  };
  EXPECT_EQ(set->threshold, 1U);
  for (uint32_t size = 1; size <= std::size(afterSize); ++size) {
    addNumber(table, size);
    EXPECT_EQ(set->bucketCount, afterSize[size - 1].first) << "at size " << size;
    EXPECT_EQ(set->threshold, afterSize[size - 1].second) << "at size " << size;
    EXPECT_EQ(set->bucketMask, set->bucketCount - 1);
    EXPECT_EQ(checkTable(env, table), size);
  }
}

TEST_F(TableGrowth, OneDoublingPerInsert) {
  // With this load factor a set of up to eight buckets is over its threshold at once, again and
  // again.
  Table table(env, newTable({1, 1, 0.125F}));
  const std::pair<uint32_t, uint32_t> afterSize[] = {{2, 0}, {4, 0}, {8, 1}, {16, 2}, {32, 4}};
  for (uint32_t size = 1; size <= std::size(afterSize); ++size) {
    addNumber(table, size);
    EXPECT_EQ(table.set()->bucketCount, afterSize[size - 1].first);
    EXPECT_EQ(table.set()->threshold, afterSize[size - 1].second) << "no lower limit after growth";
  }
  EXPECT_EQ(checkTable(env, table), 5);
}

TEST_F(TableGrowth, OnlyTheSetThatIsFullGrows) {
  Table table(env, newTable({1, 2, 2}));
  // 0 mixes to 0 (set 0), 0xffffffff to 0xf6e7e656 (set 1).
  for (uint8_t i = 0; i < 6; ++i) add(table, {i}, 0);
  add(table, {0}, 0xffffffffU);
  EXPECT_EQ(table.set(0)->bucketCount, 4U);
  EXPECT_EQ(table.set(1)->bucketCount, 1U);
  EXPECT_EQ(checkTable(env, table), 7);
}

TEST_F(TableGrowth, BelowTheThresholdNothingHappens) {
  Table table(env, newTable({1, 1, 3}));
  addNumber(table, 1);
  addNumber(table, 2);
  const Bucket* buckets = table.set()->buckets;
  setLevels(kDebugLevel);
  {
    const SetLock lock(table, 0);
    rehashMapEntriesIfNecessary(env, table, table.set(), 0);
  }
  EXPECT_THAT(trace(), IsEmpty());
  EXPECT_EQ(table.set()->buckets, buckets);
  setLevels(0);
}

TEST_F(TableGrowth, MovesKeepPinsAndReverseChains) {
  Table table(env, newTable({1, 1, 1000}));
  std::vector<Pinnable*> chain;
  for (uint8_t i = 0; i < 5; ++i) chain.insert(chain.begin(), add(table, {i}, 9));
  ASSERT_EQ(chainOf(env, table, 9), chain);
  table.set()->threshold = 5;
  const int64_t metadata = getCurrentInternalMetadataSize(env);
  const uint64_t oldArray = getUsableSize(table.set()->buckets);
  setLevels(kEventLevel);
  {
    const SetLock lock(table, 9);
    rehashMapEntriesIfNecessary(env, table, table.set(), 12345);
  }
  EXPECT_THAT(pins(), IsEmpty());
  setLevels(0);
  EXPECT_EQ(
      getCurrentInternalMetadataSize(env) - metadata,
      static_cast<int64_t>(getUsableSize(table.set()->buckets)) - static_cast<int64_t>(oldArray));
  std::reverse(chain.begin(), chain.end());
  EXPECT_EQ(chainOf(env, table, 9), chain);
  for (Pinnable* entry : chain) EXPECT_EQ(entry->pins, 1);
  EXPECT_EQ(checkTable(env, table), 5);
}

TEST_F(TableGrowth, Trace) {
  Table table(env, newTable({1, 1, 0.75F}));
  setLevels(kDebugLevel);
  addNumber(table, 1);
  EXPECT_THAT(growthTrace(table),
              ElementsAre("debug rehashMapEntriesIfNecessary: start rehash. bucketSet={set}, "
                          "threshold=1",
                          "debug rehashMapEntriesIfNecessary: finish rehash. bucketSet={set}, "
                          "bucketCount=2, oldThreshold=1, newThreshold=1"));
  jni.clearRecords();
  addNumber(table, 2);
  EXPECT_THAT(growthTrace(table),
              ElementsAre("debug rehashMapEntriesIfNecessary: start rehash. bucketSet={set}, "
                          "threshold=1",
                          "debug rehashMapEntriesIfNecessary: finish rehash. bucketSet={set}, "
                          "bucketCount=4, oldThreshold=1, newThreshold=3"));
  setLevels(0);
}

// Growth happens inside an insert: after the chain pin, before the bytes are counted.
TEST_F(TableGrowth, GrowthStandsInTheMiddleOfTheInsert) {
  Table table(env, newTable({1, 1, 0.75F}));
  DefaultEntry* entry = newEntry(env, {1}, 1);
  int32_t inserted = 0;
  setLevels(kDebugLevel);
  hashtable_insertAndPin(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER, entry, &inserted,
                         true);
  std::vector<std::string> seams;
  for (const std::string& line : trace()) {
    for (const char* seam : {"BUCKET_FIRST_PIN", "start rehash", "finish rehash",
                             "incremented bucketSize", ": inserted.", "JNI_INSERTED_PIN"}) {
      if (line.find(seam) != std::string::npos) seams.emplace_back(seam);
    }
  }
  EXPECT_THAT(seams, ElementsAre("BUCKET_FIRST_PIN", "start rehash", "finish rehash",
                                 "incremented bucketSize", ": inserted.", "JNI_INSERTED_PIN"));
  setLevels(0);
  unpinEntry(env, entry, JNI_INSERTED_PIN);
  unpinEntry(env, entry, ALLOCATION_PIN);
}

TEST_F(TableGrowth, GrowthWithoutMemoryLeavesTheTableAsItIs) {
  Table table(env, newTable({1, 1, 1}));
  uint32_t number = 0;
  // An insert that grows the set, and that does not get the new array.
  const auto insertRefused = [&](const auto& makeRefusal) {
    const Bucket* buckets = table.set()->buckets;
    ++number;
    DefaultEntry* entry = newEntry(env, numberBytes(number), number);
    const int64_t metadata = getCurrentInternalMetadataSize(env);
    setLevels(kDebugLevel);
    int32_t inserted = 0;
    {
      const auto refusal = makeRefusal();
      EXPECT_EQ(hashtable_insertAndPin(env, nullptr, table, nullptr, OBJECT_TYPE_JBYTE_BUFFER,
                                       entry, &inserted, true),
                entry);
      EXPECT_TRUE(refusal->fired());
    }
    EXPECT_EQ(inserted, 1);
    EXPECT_EQ(jni.pending(), std::nullopt) << "a successful insert leaves no exception behind";
    expectTrace(growthTrace(table),
                {"debug rehashMapEntriesIfNecessary: start rehash. bucketSet={set}, threshold=1"});
    EXPECT_THAT(pins(), ::testing::Contains(::testing::HasSubstr("+JNI_INSERTED_PIN")))
        << "records flow again after the refusal";
    setLevels(0);
    EXPECT_EQ(table.set()->buckets, buckets);
    EXPECT_EQ(table.set()->bucketCount, 1U);
    EXPECT_EQ(table.set()->bucketMask, 0U);
    EXPECT_EQ(table.set()->threshold, 1U);
    EXPECT_EQ(getCurrentInternalMetadataSize(env), metadata);
    unpinEntry(env, entry, JNI_INSERTED_PIN);
    unpinEntry(env, entry, ALLOCATION_PIN);
    EXPECT_EQ(checkTable(env, table), number);
  };
  using Way = RefuseAllocation::Way;
  for (const Way way : {Way::kNothingLeft, Way::kOverMaximum}) {
    insertRefused([&] { return std::make_unique<RefuseAllocation>(1, way, "Bucket[]"); });
  }
  insertRefused([&] { return std::make_unique<RefuseAfterwards>(jni); });
  ++expectedBlocksDelta;  // the last refusal stays counted
  addNumber(table, ++number);
  EXPECT_EQ(table.set()->bucketCount, 2U) << "the next insert tries again";
  EXPECT_EQ(checkTable(env, table), number);
}

// With 2^16 sets the low and the high half of the mixed hash meet at 2^16 buckets a set. A load
// factor of 0 makes every insert double.
TEST_F(TableGrowth, BucketBitsNeverReachTheSetBits) {
  Table table(env, newTable({1, 65536, 0}));
  BucketSet* set = getBucketSet(table, 0);
  ASSERT_EQ(set, table.set(0));
  for (uint8_t i = 0; i < 20; ++i) {
    add(table, {i}, 0);
    EXPECT_EQ(set->bucketCount, i < 16 ? 2U << i : 65536U);
  }
  EXPECT_EQ(set->size, 20U);
  EXPECT_EQ(set->threshold, 0U);
  EXPECT_EQ(table.set(1)->bucketCount, 1U);
  EXPECT_EQ(chainOf(env, table, 0).size(), 20U);
}

// A set that claims to be as large as a set may be: neither an array nor a change.
TEST_F(TableGrowth, LargestBucketCount) {
  Table table(env, newTable({1, 1, 1}));
  BucketSet* set = table.set();
  const BucketSet saved = *set;
  set->size = 5;
  set->bucketCount = MAX_BUCKET_SIZE;
  set->bucketMask = MAX_BUCKET_SIZE - 1;
  {
    const SetLock lock(table, 0);
    const RefuseAllocation refusal(1);
    rehashMapEntriesIfNecessary(env, table, set, 0);
    EXPECT_EQ(refusal.seen(), 0);
  }
  EXPECT_EQ(set->bucketCount, MAX_BUCKET_SIZE);
  EXPECT_EQ(set->bucketMask, MAX_BUCKET_SIZE - 1);
  EXPECT_EQ(set->buckets, saved.buckets);
  EXPECT_EQ(set->threshold, saved.threshold);

  // One doubling below it, 2^31 buckets are asked for: 16 GiB.
  set->bucketCount = MAX_BUCKET_SIZE / 2;
  set->bucketMask = MAX_BUCKET_SIZE / 2 - 1;
  setLevels(kDebugLevel);
  {
    const SetLock lock(table, 0);
    const RefuseAllocation refusal(1);
    rehashMapEntriesIfNecessary(env, table, set, 0);
    EXPECT_EQ(refusal.seen(), 1);
  }
  bool asked = false;
  for (const LogRecord& record : jni.records()) {
    asked |= record.text.starts_with("JNI:malloc_nb:allocating size=17179869184 ");
  }
  EXPECT_TRUE(asked);
  setLevels(0);
  EXPECT_EQ(set->bucketCount, MAX_BUCKET_SIZE / 2);
  set->bucketCount = saved.bucketCount;
  set->bucketMask = saved.bucketMask;
  set->size = saved.size;
}

// --- Clear ------------------------------------------------------------------------------

std::vector<std::pair<Pinnable*, uint32_t>> clearCalls;
const void* heldSet = nullptr;
uint32_t clearUnpin(JNIEnv* env, Pinnable* entry, uint32_t reason) {
  clearCalls.emplace_back(entry, reason);
  EXPECT_EQ(heldLockCount(), 1);
  if (heldSet != nullptr) {
    EXPECT_TRUE(holdsLock(heldSet));
  }
  return unpinEntry(env, entry, reason);
}

class TableClear : public TableGrowth {
 protected:
  void SetUp() override {
    TableGrowth::SetUp();
    clearCalls.clear();
    heldSet = nullptr;
  }
  void TearDown() override {
    heldSet = nullptr;
    TableGrowth::TearDown();
  }
};

TEST_F(TableClear, EmptiesEverySetAndKeepsItsArray) {
  const int64_t blocks = lockRead(&allocatingOffHeapBlocks);
  Table table(env, newTable({1, 4, 0.75F}));
  for (uint32_t i = 0; i < 200; ++i) addNumber(table, i);
  const int64_t metadata = getCurrentInternalMetadataSize(env);
  std::vector<BucketSet> before;
  for (uint32_t i = 0; i < 4; ++i) before.push_back(*table.set(i));
  hashtable_clear(env, table);
  EXPECT_EQ(hashtable_size(env, table), 0);
  EXPECT_EQ(hashtable_bytesUsed(env, table), 0);
  EXPECT_EQ(checkTable(env, table), 0);
  EXPECT_EQ(getCurrentInternalMetadataSize(env), metadata);
  EXPECT_EQ(lockRead(&allocatingOffHeapBlocks), blocks + 5);
  for (uint32_t i = 0; i < 4; ++i) {
    EXPECT_EQ(table.set(i)->buckets, before[i].buckets);
    EXPECT_EQ(table.set(i)->bucketCount, before[i].bucketCount);
    EXPECT_EQ(table.set(i)->threshold, before[i].threshold);
  }
  addNumber(table, 7);
  EXPECT_EQ(checkTable(env, table), 1);
}

TEST_F(TableClear, ReleasesChainPinsInOrderUnderTheSetsLock) {
  Table table(env, hashtable::newTable(env, {1, 1, 1000}, clearUnpin));
  for (uint8_t i = 0; i < 4; ++i) add(table, {i}, 3);
  clearCalls.clear();
  std::vector<Pinnable*> chain = chainOf(env, table, 3);
  pin(env, chain[1], TRANSPORT_PIN);
  heldSet = &table.set()->mutex;
  hashtable_clear(env, table);
  heldSet = nullptr;
  std::vector<std::pair<Pinnable*, uint32_t>> expected;
  for (Pinnable* entry : chain) expected.emplace_back(entry, BUCKET_FIRST_PIN);
  EXPECT_EQ(clearCalls, expected);
  EXPECT_EQ(chain[1]->pins, 1) << "still held by another";
  EXPECT_EQ(hashtable_bytesUsed(env, table), 0);
  unpinEntry(env, chain[1], TRANSPORT_PIN);
}

// Entries that debug tracing labelled as followers are released under the first label all the same.
TEST_F(TableClear, ReleasesEveryLabelAsFirst) {
  Table table(env, newTable({1, 1, 1000}));
  setLevels(kDebugLevel);
  DefaultEntry* first = add(table, {1}, 3);
  DefaultEntry* second = add(table, {2}, 3);
  names.name(first, "{e1}").name(second, "{e2}");
  setLevels(kEventLevel);
  hashtable_clear(env, table);
  std::vector<std::string> moves;
  for (const std::string& move : pins()) {
    if (move.ends_with("{e1}") || move.ends_with("{e2}")) moves.push_back(move);
  }
  EXPECT_THAT(moves, ElementsAre("-BUCKET_FIRST_PIN {e2}", "-BUCKET_FIRST_PIN {e1}"));
  setLevels(0);
}

TEST_F(TableClear, EmptyTableStillLogsStartAndFinish) {
  Table table(env, newTable({1, 2, 1}));
  names.name(table, "{map}").name(table.set(0), "{set0}").name(table.set(1), "{set1}");
  const std::string start =
      "hashtable_clear: clearAllEntries starting to clear all entries for "
      "map={map}";
  const std::string finish =
      "hashtable_clear: clearAllEntries finished clearing all entries for "
      "map={map}";
  setLevels(kEntryLevel | kEventLevel);
  hashtable_clear(env, table);
  EXPECT_THAT(trace(), ElementsAre("entry " + start, "exit " + finish));
  setLevels(kEventLevel);
  hashtable_clear(env, table);
  EXPECT_THAT(trace(), ElementsAre("event " + start, "event " + finish));
  setLevels(kEntryLevel | kDebugLevel);
  hashtable_clear(env, table);
  EXPECT_THAT(trace(),
              ElementsAre("entry " + start,
                          "debug hashtable_clear: bucket is cleared. map={map}, bucket={set0}",
                          "debug hashtable_clear: bucket is cleared. map={map}, bucket={set1}",
                          "exit " + finish));
  setLevels(kInfoLevel | kErrorLevel);
  hashtable_clear(env, table);
  EXPECT_THAT(trace(), IsEmpty());
  EXPECT_EQ(checkTable(env, table), 0);
  setLevels(0);
}

TEST_F(TableClear, ASetThatCannotBeLockedKeepsItsEntries) {
  for (int nth = 1; nth <= 4; ++nth) {
    SCOPED_TRACE(nth);
    Table table(env, newTable({1, 4, 1000}));
    for (uint32_t i = 0; i < 64; ++i) addNumber(table, i);
    const auto failed = static_cast<uint32_t>(nth - 1);
    const uint32_t kept = table.set(failed)->size;
    ASSERT_GT(kept, 0U);
    ASSERT_LT(kept, 64U);
    names.name(table, "{map}");
    for (const jint level : {kErrorLevel | kEntryLevel, kEntryLevel}) {
      setLevels(level);
      {
        const FailLock failure(LockRank::bucketSet, LockOp::lock, nth);
        hashtable_clear(env, table);
        EXPECT_TRUE(failure.fired());
      }
      EXPECT_EQ(jni.takePending(),
                (Thrown{kIllegalState,
                        "[hashtable_clear] Clear all entries failed to lock an internal "
                        "BucketSet."}));
      std::vector<std::string> expected = {
          "entry hashtable_clear: clearAllEntries starting to clear all entries for map={map}"};
      if ((level & kErrorLevel) != 0) expected.push_back(lockErrorLine("om6"));
      // Nothing reaches the logger while the exception is pending, the last record included.
      EXPECT_EQ(trace(), expected);
      setLevels(0);
      EXPECT_EQ(checkTable(env, table), kept);
      EXPECT_EQ(table.set(failed)->size, kept);
      EXPECT_EQ(heldLockCount(), 0);
    }
    hashtable_clear(env, table);
    EXPECT_EQ(checkTable(env, table), 0);
  }
}

TEST_F(TableClear, TheFirstOfTwoFailuresIsReported) {
  Table table(env, newTable({1, 4, 1000}));
  for (uint32_t i = 0; i < 64; ++i) addNumber(table, i);
  setLevels(kErrorLevel);
  faults::failLock = [](LockRank rank, const void*, LockOp op) {
    return rank == LockRank::bucketSet && op == LockOp::lock ? EINVAL : 0;
  };
  hashtable_clear(env, table);
  faults::failLock = nullptr;
  EXPECT_NE(jni.takePending(), std::nullopt);
  EXPECT_THAT(trace(), ElementsAre(lockErrorLine("om6"))) << "the others find it pending";
  EXPECT_EQ(checkTable(env, table), 64);
  setLevels(0);
}

uint64_t largeSize(JNIEnv*, Pinnable* entry) {
  return 1000 + static_cast<DefaultEntry*>(entry)->hash;
}

TEST_F(TableClear, BytesUsedDropsByTheSumOfTheSizes) {
  Table table(env, hashtable::newTable(env, {1, 2, 1}, nullptr, largeSize));
  for (uint32_t i = 0; i < 10; ++i) addNumber(table, i);
  EXPECT_EQ(hashtable_bytesUsed(env, table), 10 * 1000 + 45);
  lockIncrement(&table->bytesUsed, 17);
  hashtable_clear(env, table);
  EXPECT_EQ(hashtable_bytesUsed(env, table), 17) << "a subtraction, not a reset";
  lockDecrement(&table->bytesUsed, 17);
}

}  // namespace
}  // namespace nimbra::test::hashtable
