// The table's records and sizing, its creation and release, the index rules, and the callbacks that
// a table uses when it is given none.

#include <gmock/gmock.h>

#include <cstddef>

#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"
#include "hashtable_support.h"

namespace nimbra::test::hashtable {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using TableStructure = HashtableTest;
using TableCreation = HashtableTest;

// --- Layout -----------------------------------------------------------------------------

static_assert(offsetof(MapHeader, bytesUsed) == 0);
static_assert(offsetof(MapHeader, getNext) == 8);
static_assert(offsetof(MapHeader, setNext) == 16);
static_assert(offsetof(MapHeader, getKey) == 24);
static_assert(offsetof(MapHeader, getValue) == 32);
static_assert(offsetof(MapHeader, setValue) == 40);
static_assert(offsetof(MapHeader, sizeofEntry) == 48);
static_assert(offsetof(MapHeader, getHash) == 56);
static_assert(offsetof(MapHeader, unpinEntry) == 64);
static_assert(offsetof(MapHeader, deserialize) == 72);
static_assert(offsetof(MapHeader, compare) == 80);
static_assert(offsetof(MapHeader, allocateDirectFromPhantom) == 88);
static_assert(offsetof(MapHeader, loadFactor) == 96);
static_assert(offsetof(MapHeader, initCapacity) == 100);
static_assert(offsetof(MapHeader, numBucketSets) == 104);
static_assert(offsetof(MapHeader, bucketSetMask) == 108);
static_assert(offsetof(MapHeader, bucketSetShift) == 112);
static_assert(offsetof(MapHeader, map_id) == 116);
static_assert(offsetof(MapHeader, map_set_id) == 120);
static_assert(sizeof(MapHeader) == 128);
static_assert(sizeof(Bucket) == 8);
static_assert(offsetof(BucketSet, mutex) == 0);
#if defined(__x86_64__)
static_assert(offsetof(BucketSet, buckets) == 40);
static_assert(offsetof(BucketSet, size) == 48);
static_assert(offsetof(BucketSet, bucketCount) == 52);
static_assert(offsetof(BucketSet, bucketMask) == 56);
static_assert(offsetof(BucketSet, threshold) == 60);
static_assert(sizeof(BucketSet) == 64);
#endif
static_assert(MAX_BUCKET_SIZE == 2147483648U);

template <typename Field>
std::ptrdiff_t offsetIn(const DefaultEntry& entry, const Field& field) {
  return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&entry);
}

TEST_F(TableStructure, DefaultEntryFieldsLieWhereTheyAreDrawn) {
  const DefaultEntry entry{};
  EXPECT_EQ(offsetIn(entry, entry.pins), 0);
  EXPECT_EQ(offsetIn(entry, entry.next), 8);
  EXPECT_EQ(offsetIn(entry, entry.key), 16);
  EXPECT_EQ(offsetIn(entry, entry.value), 24);
  EXPECT_EQ(offsetIn(entry, entry.hash), 32);
  EXPECT_EQ(sizeof entry, 40U);
}

TEST_F(TableStructure, JavaIsToldTheEntrySize) {
  EXPECT_EQ(Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSize_1DefaultEntry(env, nullptr),
            40);
}

TEST_F(TableStructure, SizeDumpNamesTheHeader) {
  setLevels(kDebugLevel);
  offheap_map_sizes(env);
  EXPECT_THAT(trace(), ElementsAre("debug offheap_map_sizes: MapHeader=128"));
  setLevels(kEventLevel | kEntryLevel | kInfoLevel);
  offheap_map_sizes(env);
  EXPECT_THAT(trace(), IsEmpty());
}

// --- Mixed hashes -----------------------------------------------------------------------

TEST_F(TableStructure, MixedHashKnownValues) {
  // Computed apart from the library, step by step, with arbitrary-precision integers.
  const std::pair<uint32_t, uint32_t> known[] = {
      {0x0U, 0x0U},
      {0x1U, 0xc8afaff5U},
      {0x2U, 0xd49f48aaU},
      {0x3U, 0x3f1f927bU},
      {0x1fU, 0x1ebb584eU},
      {0x2aU, 0xf267748dU},
      {0x12345678U, 0x8fac6c7eU},
      {0x7fffffffU, 0xe11de3a8U},
      {0x80000000U, 0xe3e238f8U},
      {0xdeadbeefU, 0x261d3ed7U},
      {0xffffffffU, 0xf6e7e656U},
  };
  for (const auto& [hash, mixed] : known) EXPECT_EQ(hashFn32(hash), mixed) << hash;
}

TEST_F(TableStructure, MixedHash64KnownValues) {
  const std::pair<uint64_t, uint64_t> known[] = {
      {0x0ULL, 0x0ULL},
      {0x1ULL, 0xc43c310ff76ba004ULL},
      {0xffffffffULL, 0xc92c0d8446c809a1ULL},
      {0x100000000ULL, 0xc92c0d85403793f1ULL},
      {0x0123456789abcdefULL, 0x727542287b89abd9ULL},
      {0x8000000000000000ULL, 0xe3e238f880000000ULL},
      {0xffffffffffffffffULL, 0xf6e7e656ULL},
  };
  for (const auto& [hash, mixed] : known) EXPECT_EQ(hashFn64(hash), mixed) << hash;
}

// --- Sizing -----------------------------------------------------------------------------

struct Sizing {
  uint32_t capacity;
  uint32_t concurrency;
  float loadFactor;
  uint32_t sets;
  uint32_t shift;
  uint32_t buckets;
  uint32_t threshold;
};

class TableSizing : public HashtableTest, public ::testing::WithParamInterface<Sizing> {};

TEST_P(TableSizing, FollowsCapacityAndConcurrency) {
  const Sizing& sizing = GetParam();
  Table table(env, newTable({sizing.capacity, sizing.concurrency, sizing.loadFactor}));
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->initCapacity, sizing.capacity);
  EXPECT_EQ(table->loadFactor, sizing.loadFactor);
  EXPECT_EQ(table->numBucketSets, sizing.sets);
  EXPECT_EQ(table->bucketSetMask, sizing.sets - 1);
  EXPECT_EQ(table->bucketSetShift, sizing.shift);
  EXPECT_EQ(table->bytesUsed, 0);
  for (uint32_t index = 0; index < sizing.sets; ++index) {
    const BucketSet& set = *table.set(index);
    EXPECT_EQ(set.bucketCount, sizing.buckets);
    EXPECT_EQ(set.bucketMask, sizing.buckets - 1);
    EXPECT_EQ(set.threshold, sizing.threshold);
    EXPECT_EQ(set.size, 0U);
    for (uint32_t bucket = 0; bucket < set.bucketCount; ++bucket) {
      EXPECT_EQ(set.buckets[bucket], nullptr);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, TableSizing,
    ::testing::Values(Sizing{1, 0, 0.75F, 1, 32, 1, 1},      // no concurrency: one set
                      Sizing{1, 1, 0.75F, 1, 32, 1, 1},      // the threshold is never 0
                      Sizing{0, 1, 1.0F, 1, 32, 1, 1},       //
                      Sizing{1, 2, 1.0F, 2, 31, 1, 1},       //
                      Sizing{1, 3, 1.0F, 4, 30, 1, 1},       //
                      Sizing{1, 5, 1.0F, 8, 29, 1, 1},       // one bucket a set
                      Sizing{1, 8, 1.0F, 8, 29, 1, 1},       //
                      Sizing{1, 9, 1.0F, 16, 28, 1, 1},      //
                      Sizing{100, 8, 0.75F, 8, 29, 16, 12},  //
                      Sizing{8, 8, 1.0F, 8, 29, 1, 1},       //
                      Sizing{9, 8, 1.0F, 8, 29, 2, 2},       //
                      Sizing{64, 1, 0.75F, 1, 32, 64, 48},   //
                      Sizing{65, 1, 0.75F, 1, 32, 128, 96},  //
                      Sizing{3, 1, 0.9F, 1, 32, 4, 3},       // 3.6, cut
                      Sizing{1, 1, 2.5F, 1, 32, 1, 2},       // 2.5, cut
                      Sizing{1, 1, 0.0F, 1, 32, 1, 1},       //
                      Sizing{1, 1, -3.0F, 1, 32, 1, 1},      //
                      Sizing{1, 1024, 1.0F, 1024, 22, 1, 1}));

TEST_F(TableStructure, OneBlockForHeaderAndSetsAndOneArrayASet) {
  setLevels(kEventLevel);
  Table table(env, newTable({64, 4, 1}));
  ASSERT_EQ(allocatedBlocks(jni, "MapHeader"), std::vector<void*>{table});
  std::vector<void*> arrays;
  for (uint32_t index = 0; index < 4; ++index) {
    BucketSet* set = table.set(index);
    arrays.push_back(set->buckets);
    EXPECT_EQ(reinterpret_cast<char*>(set),
              reinterpret_cast<char*>(static_cast<MapHeader*>(table)) + 128 + 64 * index);
  }
  EXPECT_EQ(allocatedBlocks(jni, "Bucket[]"), arrays);
  int headers = 0;
  int buckets = 0;
  for (const LogRecord& record : jni.records()) {
    headers += record.text.find(" requested=384 ") != std::string::npos &&
               record.text.ends_with(" type=MapHeader");
    buckets += record.text.find(" requested=128 ") != std::string::npos &&
               record.text.ends_with(" type=Bucket[]");
  }
  EXPECT_EQ(headers, 1);
  EXPECT_EQ(buckets, 4);
}

TEST_F(TableStructure, BookkeepingBytesAreUsableSizes) {
  const int64_t before = getCurrentInternalMetadataSize(env);
  Table table(env, newTable({5, 4, 1}));
  uint64_t expected = getUsableSize(static_cast<MapHeader*>(table));
  EXPECT_EQ(sizeofMapHeader(table, 1, 4), expected);
  EXPECT_GE(expected, 6U * 64);
  for (uint32_t index = 0; index < 4; ++index) {
    const uint64_t array = getUsableSize(table.set(index)->buckets);
    EXPECT_EQ(sizeofBuckets(table.set(index)->buckets, 2), array);
    EXPECT_EQ(sizeofBuckets(table.set(index)->buckets, 1000), array) << "the count is not used";
    expected += array;
  }
  EXPECT_EQ(sizeofMapHeader(table, 9, 9), getUsableSize(static_cast<MapHeader*>(table)));
  EXPECT_EQ(getCurrentInternalMetadataSize(env) - before, static_cast<int64_t>(expected));
  table.destroy();
  EXPECT_EQ(getCurrentInternalMetadataSize(env), before);
}

TEST_F(TableStructure, IdentifiersAreKept) {
  Table table(env, newTable());
  EXPECT_EQ(table->map_id, 7);
  EXPECT_EQ(table->map_set_id, 3);
}

// --- Callbacks --------------------------------------------------------------------------

TEST_F(TableStructure, MissingCallbacksTakeTheDefaults) {
  Table table(env, newTable());
  EXPECT_EQ(table->getNext, static_cast<GetNextFn>(nimbra::getNext));
  EXPECT_EQ(table->getKey, static_cast<GetBufferFn>(nimbra::getKey));
  EXPECT_EQ(table->getValue, static_cast<GetBufferFn>(nimbra::getValue));
  EXPECT_EQ(table->getHash, static_cast<GetHashFn>(nimbra::getHash));
  EXPECT_EQ(table->unpinEntry, static_cast<UnpinEntryFn>(nimbra::unpinEntry));
  EXPECT_EQ(table->setNext, static_cast<SetNextFn>(nimbra::setNext));
  EXPECT_EQ(table->sizeofEntry, static_cast<SizeofEntryFn>(nimbra::sizeofDefaultEntry));
  EXPECT_EQ(table->setValue, static_cast<SetValueFn>(nimbra::setValue));
}

Pinnable* otherNext(JNIEnv* env, Pinnable* entry) { return nimbra::getNext(env, entry); }
ByteBufferHeader* otherKey(JNIEnv* env, Pinnable* entry) { return nimbra::getKey(env, entry); }
ByteBufferHeader* otherValue(JNIEnv* env, Pinnable* entry) { return nimbra::getValue(env, entry); }
uint32_t otherHash(JNIEnv* env, Pinnable* entry) { return nimbra::getHash(env, entry); }
uint32_t otherUnpin(JNIEnv* env, Pinnable* entry, uint32_t reason) {
  return nimbra::unpinEntry(env, entry, reason);
}
Pinnable* otherSetNext(JNIEnv* env, Pinnable* entry, Pinnable* next) {
  return nimbra::setNext(env, entry, next);
}
uint64_t otherSize(JNIEnv* env, Pinnable* entry) { return sizeofDefaultEntry(env, entry); }
Pinnable* otherSetValue(JNIEnv* env, Pinnable* entry, ByteBufferHeader* value) {
  return nimbra::setValue(env, entry, value);
}

TEST_F(TableStructure, GivenCallbacksAreKept) {
  Table table(env, initializeMap(env, 1, 1, 1, true, 0, 0, otherNext, otherKey, otherValue,
                                 otherHash, otherUnpin, otherSetNext, otherSize, otherSetValue,
                                 deserialize, compare, allocateDirectFromPhantom));
  EXPECT_EQ(table->getNext, otherNext);
  EXPECT_EQ(table->getKey, otherKey);
  EXPECT_EQ(table->getValue, otherValue);
  EXPECT_EQ(table->getHash, otherHash);
  EXPECT_EQ(table->unpinEntry, otherUnpin);
  EXPECT_EQ(table->setNext, otherSetNext);
  EXPECT_EQ(table->sizeofEntry, otherSize);
  EXPECT_EQ(table->setValue, otherSetValue);
  EXPECT_EQ(table->deserialize, static_cast<DeserializeFn>(deserialize));
  EXPECT_EQ(table->compare, static_cast<CompareFn>(compare));
  EXPECT_EQ(table->allocateDirectFromPhantom,
            static_cast<AllocatePhantomFn>(allocateDirectFromPhantom));
}

TEST_F(TableStructure, DefaultCallbacksReachTheFields) {
  DefaultEntry entry{};
  DefaultEntry next{};
  ByteBufferHeader key{};
  ByteBufferHeader value{};
  entry.key = &key;
  entry.hash = 0xfedcba98U;
  nimbra::setNext(env, &entry, &next);
  nimbra::setValue(env, &entry, &value);
  EXPECT_EQ(entry.next, &next);
  EXPECT_EQ(entry.value, &value);
  EXPECT_EQ(nimbra::getNext(env, &entry), &next);
  EXPECT_EQ(nimbra::getKey(env, &entry), &key);
  EXPECT_EQ(nimbra::getValue(env, &entry), &value);
  EXPECT_EQ(nimbra::getHash(env, &entry), 0xfedcba98U);
  nimbra::setNext(env, &entry, nullptr);
  EXPECT_EQ(nimbra::getNext(env, &entry), nullptr);
}

// Each of the three Java callbacks is required. The header is not released then: the test does.
TEST_F(TableCreation, MissingCallbacksLeaveTheHeader) {
  for (int missing = 0; missing < 3; ++missing) {
    setLevels(kEventLevel);
    EXPECT_EQ(initializeMap(env, 8, 2, 1, false, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, missing == 0 ? nullptr : deserialize,
                            missing == 1 ? nullptr : compare,
                            missing == 2 ? nullptr : allocateDirectFromPhantom),
              nullptr);
    EXPECT_EQ(jni.takePending(),
              (Thrown{kIllegalState,
                      "[initializeMap] User failed to provide any key comparison routines."}));
    const std::vector<void*> headers = allocatedBlocks(jni, "MapHeader");
    ASSERT_EQ(headers.size(), 1U);
    EXPECT_THAT(allocatedBlocks(jni, "Bucket[]"), IsEmpty());
    freeMapHeader(env, static_cast<MapHeader*>(headers[0]), 1, 2);
  }
}

// --- Creation: traces, mutexes, failures ------------------------------------------------

TEST_F(TableCreation, Trace) {
  setLevels(kDebugLevel | kEventLevel);
  Table table(env, newTable({4, 2, 1}));
  names.name(table, "{map}").name(table.set(0), "{set0}").name(table.set(1), "{set1}");
  expectTrace(trace(),
              {
                  "event initializeMap: new offheap map.initCapacity=4, concurrency=2",
                  "debug initializeMap: bucketSet mutex initialized. bucketSet->mutex={set0}",
                  "debug initializeMap: bucketSet mutex initialized. bucketSet->mutex={set1}",
                  "debug initializeMap: an offheap map is successfully initialized. "
                  "offheapMap={map}, numBucketSets=2",
                  "debug initializeMap: NOF map_id=7, map_set_id=3",
              });
  setLevels(0);
}

TEST_F(TableStructure, QuietWithoutLevels) {
  jni.clearCalls();
  Table table(env, newTable({4, 2, 1}));
  add(table, {1}, 1);
  EXPECT_EQ(hashtable_size(env, table), 1);
  EXPECT_EQ(hashtable_bytesUsed(env, table),
            static_cast<int64_t>(getUsableSize(chainOf(env, table, 1).at(0))));
  table.destroy();
  EXPECT_THAT(jni.calls(), IsEmpty());
}

TEST_F(TableCreation, MutexNestsUnlessMadeWhileDebugTracing) {
  Table nesting(env, newTable());
  setLevels(kDebugLevel);
  Table checking(env, newTable());
  setLevels(0);
  EXPECT_EQ(pthread_mutex_lock(&nesting.set()->mutex), 0);
  EXPECT_EQ(pthread_mutex_lock(&nesting.set()->mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(&nesting.set()->mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(&nesting.set()->mutex), 0);
  EXPECT_EQ(pthread_mutex_lock(&checking.set()->mutex), 0);
  EXPECT_EQ(pthread_mutex_lock(&checking.set()->mutex), EDEADLK);
  EXPECT_EQ(pthread_mutex_unlock(&checking.set()->mutex), 0);
}

TEST_F(TableStructure, LockReturnsTheMutexCallsResult) {
  Table table(env, newTable());
  {
    const FailLock failure(LockRank::bucketSet, LockOp::lock, 1, EOWNERDEAD);
    EXPECT_EQ(lockBucketSet(table.set()), EOWNERDEAD);
  }
  EXPECT_EQ(heldLockCount(), 0);
  EXPECT_EQ(lockBucketSet(table.set()), 0);
  EXPECT_TRUE(holdsLock(&table.set()->mutex));
  EXPECT_EQ(unlockBucketSet(table.set()), 0);
  EXPECT_FALSE(holdsLock(&table.set()->mutex));
}

// Frees the arrays that a failed creation left behind, as it is meant to. Returns how many.
int freeArraysLeft(JNIEnv* env, const ScriptedJni& jni) {
  int count = 0;
  for (void* array : allocatedBlocks(jni, "Bucket[]")) {
    if (array == nullptr) continue;  // the refused one
    freeBuckets(env, static_cast<Bucket*>(array), 1);
    ++count;
  }
  return count;
}

// The nth allocation is the header for n = 1 and the array of set n - 2 after that. The header is
// given back, the arrays of earlier sets stay allocated.
TEST_F(TableCreation, SurvivesEachRefusedAllocation) {
  using Way = RefuseAllocation::Way;
  for (int nth = 1; nth <= 5; ++nth) {
    SCOPED_TRACE(nth);
    for (const Way way : {Way::kNothingLeft, Way::kOverMaximum}) {
      setLevels(kEventLevel);
      {
        const RefuseAllocation refusal(nth, way);
        EXPECT_EQ(newTable({1, 4, 1}), nullptr);
        EXPECT_TRUE(refusal.fired());
        EXPECT_EQ(refusal.seen(), nth);
      }
      const std::optional<Thrown> thrown = jni.takePending();
      if (way == Way::kNothingLeft) {
        EXPECT_EQ(thrown, std::nullopt);
      } else {
        EXPECT_EQ(thrown, (Thrown{kIllegalState,
                                  "[malloc_nb] Allocation by the Nimbra library failed. All "
                                  "available memory is used."}));
      }
      EXPECT_EQ(freeArraysLeft(env, jni), nth <= 2 ? 0 : nth - 2);
    }
    setLevels(0);
    jni.clearRecords();
    {
      const RefuseAfterwards refusal(jni, nth);
      EXPECT_EQ(newTable({1, 4, 1}), nullptr);
      EXPECT_TRUE(refusal.fired());
    }
    EXPECT_EQ(jni.takePending(), (Thrown{kOutOfMemory,
                                         "[malloc_nb] Allocation by the Nimbra library failed. All "
                                         "available memory is used."}));
    EXPECT_EQ(freeArraysLeft(env, jni), nth <= 2 ? 0 : nth - 2);
    ++expectedBlocksDelta;  // such a refusal stays counted
  }
}

TEST_F(TableCreation, SurvivesEachFailedMutex) {
  const int64_t blocks = lockRead(&allocatingOffHeapBlocks);
  const int64_t metadata = getCurrentInternalMetadataSize(env);
  for (int nth = 1; nth <= 4; ++nth) {
    SCOPED_TRACE(nth);
    setLevels(kErrorLevel);
    {
      const FailLock failure(LockRank::bucketSet, LockOp::init, nth, ENOMEM);
      EXPECT_EQ(newTable({8, 4, 1}), nullptr);
      EXPECT_TRUE(failure.fired());
    }
    EXPECT_EQ(jni.pending(), std::nullopt);
    EXPECT_THAT(trace(), ElementsAre("errorGeneric OFFHEAP_GENERIC_LOCK_ERROR_KTZAR7928 Failed to "
                                     "initialize BucketSet [om1] lock in Nimbra library."));
    EXPECT_EQ(lockRead(&allocatingOffHeapBlocks), blocks);
    EXPECT_EQ(getCurrentInternalMetadataSize(env), metadata);
  }
}

// --- Index rules ------------------------------------------------------------------------

TEST_F(TableStructure, SetComesFromTheTopBitsAndBucketFromTheLowBits) {
  Table table(env, newTable({8 * 16, 8, 1}));
  ASSERT_EQ(table.set()->bucketCount, 16U);
  // 0xdeadbeef mixes to 0x261d3ed7: the top three bits are 1, the low four 7.
  BucketSet* set = nullptr;
  Bucket* bucket = nullptr;
  EXPECT_EQ(getBucketSet(table, 0xdeadbeefU), table.set(1));
  {
    const SetLock lock(table, 0xdeadbeefU);
    EXPECT_EQ(getFirstEntryByHashCode(table, 0xdeadbeefU, &set, &bucket), nullptr);
    EXPECT_EQ(getBucketInBucketSet(table.set(1), 0xdeadbeefU), table.set(1)->buckets + 7);
  }
  EXPECT_EQ(set, table.set(1));
  EXPECT_EQ(bucket, table.set(1)->buckets + 7);
  // 0x1 mixes to 0xc8afaff5 and 0x2 to 0xd49f48aa: set 6 for both.
  EXPECT_EQ(getBucketSet(table, 1), table.set(6));
  EXPECT_EQ(getBucketSet(table, 2), table.set(6));
  EXPECT_EQ(getBucketSet(table, 0), table.set(0));
  EXPECT_EQ(getBucketSet(table, 0xffffffffU), table.set(7));
  DefaultEntry* first = add(table, {1}, 0xdeadbeefU);
  DefaultEntry* second = add(table, {2}, 0xdeadbeefU);
  const SetLock lock(table, 0xdeadbeefU);
  EXPECT_EQ(getFirstEntryByHashCode(table, 0xdeadbeefU, &set, &bucket), second);
  EXPECT_EQ(*bucket, second);
  EXPECT_EQ(second->next, first);
}

TEST_F(TableStructure, OneSetTakesEveryHash) {
  Table table(env, newTable({4, 1, 1}));
  for (const uint32_t hash : {0U, 1U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
    EXPECT_EQ(getBucketSet(table, hash), table.set(0));
  }
}

// --- Entries ----------------------------------------------------------------------------

TEST_F(TableStructure, NewEntryHoldsItsAllocationPin) {
  setLevels(kDebugLevel);
  DefaultEntry* entry = allocateMapEntry(env);
  names.name(entry, "{entry}");
  EXPECT_EQ(entry->pins, 1);
  EXPECT_THAT(pins(), ElementsAre("+ALLOCATION_PIN {entry}"));
  const std::vector<std::string> lines = trace();
  EXPECT_THAT(lines, ::testing::Contains("debug allocateMapEntry: start sub-allocation."));
  EXPECT_THAT(lines, ::testing::Contains(
                         "debug allocateMapEntry: sub-allocation complete. MapEntry={entry}"));
  EXPECT_EQ(lines.front(), "debug allocateMapEntry: start sub-allocation.");
  setLevels(0);
  EXPECT_GE(getUsableSize(entry), 40U);
  freeDefaultEntry(env, entry);
}

TEST_F(TableStructure, RefusedEntryIsNull) {
  for (const auto way :
       {RefuseAllocation::Way::kNothingLeft, RefuseAllocation::Way::kOverMaximum}) {
    const RefuseAllocation refusal(1, way, "MapEntry");
    EXPECT_EQ(allocateMapEntry(env), nullptr);
    EXPECT_TRUE(refusal.fired());
    EXPECT_EQ(jni.takePending().has_value(), way == RefuseAllocation::Way::kOverMaximum);
  }
}

TEST_F(TableStructure, RefusedArraysAndHeadersAreNullAndUncounted) {
  const int64_t metadata = getCurrentInternalMetadataSize(env);
  {
    const RefuseAllocation refusal(1, RefuseAllocation::Way::kNothingLeft, "Bucket[]");
    EXPECT_EQ(allocateBuckets(env, 16), nullptr);
  }
  {
    const RefuseAllocation refusal(1, RefuseAllocation::Way::kNothingLeft, "MapHeader");
    EXPECT_EQ(allocateMapHeader(env, 1, 16), nullptr);
  }
  EXPECT_EQ(getCurrentInternalMetadataSize(env), metadata);
}

TEST_F(TableStructure, ArraysAndHeadersBalance) {
  const int64_t metadata = getCurrentInternalMetadataSize(env);
  MapHeader* header = allocateMapHeader(env, 1, 16);
  EXPECT_EQ(header->numBucketSets, 16U);
  EXPECT_GE(getUsableSize(header), 18U * 64);
  Bucket* buckets = allocateBuckets(env, 33);
  EXPECT_GE(getUsableSize(buckets), 33U * 8);
  EXPECT_EQ(getCurrentInternalMetadataSize(env) - metadata,
            static_cast<int64_t>(getUsableSize(header) + getUsableSize(buckets)));
  // The counts given to the release are not what is subtracted.
  freeBuckets(env, buckets, 1);
  freeMapHeader(env, header, 1, 1);
  EXPECT_EQ(getCurrentInternalMetadataSize(env), metadata);
}

TEST_F(TableStructure, EntrySizeCountsKeyEntryAndValue) {
  DefaultEntry* entry = newEntry(env, Bytes(100), 1, DESERIALIZED_TYPE_BINARY, Bytes(1000));
  EXPECT_EQ(sizeofDefaultEntry(env, entry), getUsableSize(entry));
  EXPECT_EQ(entrySize(entry->key, entry, entry->value),
            getUsableSize(entry) + getUsableSize(entry->key) + getUsableSize(entry->value));
  // A null entry answers what the first measured entry had; every entry has the same size.
  EXPECT_EQ(sizeofDefaultEntry(env, nullptr), getUsableSize(entry));
  unpinEntry(env, entry, ALLOCATION_PIN);
}

// The remembered size belongs to the process, so its start needs a process of its own.
TEST(TableStructureDeathTest, NoEntryMeasuredYetMeansSizeZero) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ScriptedJni jni;
        maxOffHeapSize = kAmpleMaximum;
        const bool zeroBefore = sizeofDefaultEntry(jni.env(), nullptr) == 0;
        DefaultEntry* entry = allocateMapEntry(jni.env());
        const bool stillZero = sizeofDefaultEntry(jni.env(), nullptr) == 0;
        const uint64_t measured = sizeofDefaultEntry(jni.env(), entry);
        const bool remembered = sizeofDefaultEntry(jni.env(), nullptr) == measured;
        freeDefaultEntry(jni.env(), entry);
        std::_Exit(zeroBefore && stillZero && measured >= 40 && remembered ? 17 : 1);
      },
      ::testing::ExitedWithCode(17), "");
}

TEST_F(TableStructure, UnpinEntryKeepsWhatIsStillHeld) {
  DefaultEntry* entry = newEntry(env, {1}, 1);
  pin(env, entry, JNI_GET_PIN);
  setLevels(kDebugLevel | kEventLevel | kInfoLevel);
  names.name(entry, "{entry}");
  EXPECT_EQ(unpinEntry(env, entry, JNI_GET_PIN), 1U);
  expectTrace(trace(), {
                           "debug unpinEntry: >entry",
                           "debug unpin: enter unpin: header={entry}, reason=JNI_GET_PIN",
                           "debug unpin: exit unpin: header={entry}, pins=1",
                           "event unpinEntry: p={entry} pins=1 reason=JNI_GET_PIN",
                           "debug unpinEntry: <exit currentRefCount=1",
                       });
  setLevels(0);
  EXPECT_EQ(unpinEntry(env, entry, ALLOCATION_PIN), 0U);
}

TEST_F(TableStructure, LastUnpinReleasesKeyValueAndEntry) {
  DefaultEntry* entry = newEntry(env, {1}, 1);
  names.name(entry, "{entry}").name(entry->key, "{key}").name(entry->value, "{value}");
  setLevels(kDebugLevel | kEventLevel | kInfoLevel);
  EXPECT_EQ(unpinEntry(env, entry, ALLOCATION_PIN), 0U);
  expectTrace(
      trace(),
      {
          "debug unpinEntry: >entry",
          "debug unpin: enter unpin: header={entry}, reason=ALLOCATION_PIN",
          "debug unpin: exit unpin: header={entry}, pins=0",
          "event unpinEntry: p={entry} pins=0 reason=ALLOCATION_PIN",
          "debug unpinEntry: unpin Entry key={key}",
          "debug unpinToFree: >entry",
          "debug unpin: enter unpin: header={key}, reason=MAPENTRY_KEY_PIN or "
          "TREEENTRY_ATTRIBUTE_PIN",
          "debug unpin: exit unpin: header={key}, pins=0",
          "event unpinToFree: p={key} pins=0 reason=MAPENTRY_KEY_PIN or TREEENTRY_ATTRIBUTE_PIN",
          "debug unpinToFree: <exit currentRefCount=0",
          "debug unpinEntry: unpin MapEntry valueBB={value}",
          "debug unpinToFree: >entry",
          "debug unpin: enter unpin: header={value}, reason=MAPENTRY_VALUE_PIN or "
          "TREEENTRY_INDEX_PIN",
          "debug unpin: exit unpin: header={value}, pins=0",
          "event unpinToFree: p={value} pins=0 reason=MAPENTRY_VALUE_PIN or TREEENTRY_INDEX_PIN",
          "debug unpinToFree: <exit currentRefCount=0",
          "info Freed a MapEntry's value BB, but not sure if we freed all constituent parts.",
          "debug unpinEntry: <exit currentRefCount=0",
      });
}

TEST_F(TableStructure, LastUnpinLeavesBuffersThatOthersHold) {
  DefaultEntry* entry = newEntry(env, {1, 2}, 1);
  ByteBufferHeader* key = entry->key;
  ByteBufferHeader* value = entry->value;
  pin(env, key, TRANSPORT_PIN);
  pin(env, value, TRANSPORT_PIN);
  setLevels(kInfoLevel);
  EXPECT_EQ(unpinEntry(env, entry, ALLOCATION_PIN), 0U);
  EXPECT_THAT(trace(), IsEmpty()) << "nothing was freed but the entry";
  EXPECT_EQ(key->pins, 1);
  EXPECT_EQ(value->pins, 1);
  EXPECT_EQ(unpinToFree(env, key, TRANSPORT_PIN), 0);
  EXPECT_EQ(unpinToFree(env, value, TRANSPORT_PIN), 0);
}

// --- Figures and release ----------------------------------------------------------------

TEST_F(TableStructure, SizeSumsTheSets) {
  Table table(env, newTable({1, 4, 100}));
  EXPECT_EQ(hashtable_size(env, table), 0);
  for (uint8_t i = 0; i < 40; ++i) add(table, {i}, i * 0x9e3779b9U);
  EXPECT_EQ(checkTable(env, table), 40);
  names.name(table, "{map}");
  setLevels(kDebugLevel);
  EXPECT_EQ(hashtable_size(env, table), 40);
  EXPECT_THAT(trace(), ElementsAre("debug hashtable_size: start to get a map entry. map={map}",
                                   "debug hashtable_size: size=40"));
  setLevels(0);
}

TEST_F(TableStructure, SizeIsMinusOneWhenASetCannotBeLocked) {
  Table table(env, newTable({1, 4, 100}));
  add(table, {1}, 1);
  for (int nth = 1; nth <= 4; ++nth) {
    for (const jint level : {kErrorLevel, jint{0}}) {
      setLevels(level);
      const FailLock failure(LockRank::bucketSet, LockOp::lock, nth);
      EXPECT_EQ(hashtable_size(env, table), -1);
      EXPECT_TRUE(failure.fired());
      EXPECT_EQ(trace(), level == 0 ? std::vector<std::string>{}
                                    : std::vector<std::string>{lockErrorLine("om7")});
      EXPECT_EQ(jni.pending(), std::nullopt);
      EXPECT_EQ(heldLockCount(), 0);
    }
  }
}

TEST_F(TableStructure, BytesUsedIsTheHeadersFigure) {
  Table table(env, newTable());
  EXPECT_EQ(hashtable_bytesUsed(env, table), 0);
  table->bytesUsed = -12345678901LL;
  EXPECT_EQ(hashtable_bytesUsed(env, table), -12345678901LL);
  table->bytesUsed = 0;
}

TEST_F(TableStructure, BucketSetsAreFreedEvenWhenTheyCannotBeLocked) {
  MapHeader* header = newTable({1, 2, 1});
  {
    const FailLock failure(LockRank::bucketSet, LockOp::lock, 1);
    freeBucketSets(env, header);
    EXPECT_TRUE(failure.fired());
  }
  freeMapHeader(env, header, 1, 2);
  EXPECT_EQ(heldLockCount(), 0);
  EXPECT_EQ(jni.pending(), std::nullopt);
}

TEST_F(TableStructure, DestroyGivesBackEveryBlockAndByte) {
  const int64_t blocks = lockRead(&allocatingOffHeapBlocks);
  const int64_t metadata = getCurrentInternalMetadataSize(env);
  for (const uint32_t concurrency : {1U, 4U, 64U}) {
    Table table(env, newTable({1, concurrency, 0.75F}));
    for (uint32_t i = 0; i < 500; ++i) add(table, numberBytes(i), i);
    checkTable(env, table);
    EXPECT_GT(getCurrentInternalMetadataSize(env), metadata);
    table.destroy();
    EXPECT_EQ(lockRead(&allocatingOffHeapBlocks), blocks);
    EXPECT_EQ(getCurrentInternalMetadataSize(env), metadata);
  }
}

TEST_F(TableStructure, DestroyLeavesEntriesThatOthersHold) {
  Table table(env, newTable());
  DefaultEntry* entry = add(table, {1}, 1);
  pin(env, entry, JNI_GET_PIN);
  table.destroy();
  EXPECT_EQ(entry->pins, 1);
  EXPECT_EQ(bufferData(entry->key)[0], 1);
  EXPECT_EQ(unpinEntry(env, entry, JNI_GET_PIN), 0U);
}

}  // namespace
}  // namespace nimbra::test::hashtable
