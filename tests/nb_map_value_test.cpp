// Value records of the entry map: layout, creation, sizes, release, and the natives that read them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

// ---- Layout ------------------------------------------------------------------------------

// offsetof for records that inherit their head.
template <typename Record, typename Owner, typename Field>
std::size_t offsetIn(Field Owner::*field) {
  static Record record{};
  return static_cast<std::size_t>(reinterpret_cast<const char*>(&(record.*field)) -
                                  reinterpret_cast<const char*>(&record));
}

TEST(MapRecordLayout, ValueRecordFieldsLieWhereJavaExpectsThem) {
  EXPECT_EQ(sizeof(LuOffHeapValue), 88U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::pins), 0U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::prev), 8U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::next), 16U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::key), 24U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::value), 32U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::hashNext), 40U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::revisionNumber), 48U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::evictionData), 56U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::ttlEvictionData), 64U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::valueLength), 72U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::hashCode), 80U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::revisionOwner), 84U);
  EXPECT_EQ(offsetIn<LuOffHeapValue>(&LuOffHeapValue::flags), 86U);
}

TEST(MapRecordLayout, OverflowVariantAppendsTheNode) {
  EXPECT_EQ(sizeof(LuOffHeapOverflowValue), 232U);
  EXPECT_EQ(offsetIn<LuOffHeapOverflowValue>(&LuOffHeapOverflowValue::metadata), 88U);
  EXPECT_EQ(sizeof(overflow_metadata), 144U);
}

TEST(MapRecordLayout, EvictionRecordFields) {
  EXPECT_EQ(sizeof(LuOffHeapEvictionData), 56U);
  EXPECT_EQ(offsetIn<LuOffHeapEvictionData>(&LuOffHeapEvictionData::prev), 8U);
  EXPECT_EQ(offsetIn<LuOffHeapEvictionData>(&LuOffHeapEvictionData::next), 16U);
  EXPECT_EQ(offsetIn<LuOffHeapEvictionData>(&LuOffHeapEvictionData::key), 24U);
  EXPECT_EQ(offsetIn<LuOffHeapEvictionData>(&LuOffHeapEvictionData::expiration), 32U);
  EXPECT_EQ(offsetIn<LuOffHeapEvictionData>(&LuOffHeapEvictionData::metadata), 40U);
  EXPECT_EQ(offsetIn<LuOffHeapEvictionData>(&LuOffHeapEvictionData::timeout), 48U);
  EXPECT_EQ(offsetIn<LuOffHeapEvictionData>(&LuOffHeapEvictionData::keyHeaderCounted), 52U);
}

TEST(MapRecordLayout, QueueAndMapFieldOrder) {
  EXPECT_EQ(sizeof(LuQueueEntry), 24U);
  EXPECT_EQ(offsetIn<LuOffHeapQueue>(&LuOffHeapQueue::mutex), 0U);
  EXPECT_EQ(offsetIn<LuOffHeapQueue>(&LuOffHeapQueue::first), sizeof(pthread_mutex_t));
  EXPECT_EQ(offsetIn<LuOffHeapQueue>(&LuOffHeapQueue::last), sizeof(pthread_mutex_t) + 8);
  EXPECT_EQ(offsetIn<LuOffHeapQueue>(&LuOffHeapQueue::count), sizeof(pthread_mutex_t) + 16);
  EXPECT_EQ(offsetIn<LuOffHeapQueue>(&LuOffHeapQueue::maxCount), sizeof(pthread_mutex_t) + 20);
  EXPECT_EQ(offsetIn<LuOffHeapRevisionOrderQueue>(&LuOffHeapRevisionOrderQueue::bookmarks),
            sizeof(LuOffHeapQueue));
  EXPECT_EQ(offsetIn<LuOffHeapRevisionOrderQueue>(&LuOffHeapRevisionOrderQueue::numBookmarks),
            sizeof(LuOffHeapQueue) + 8);
  EXPECT_EQ(sizeof(LuOffHeapEvictionDataQueue), sizeof(LuOffHeapQueue));
  EXPECT_EQ(offsetIn<LuOffHeapMap>(&LuOffHeapMap::lock), 0U);
  EXPECT_EQ(offsetIn<LuOffHeapMap>(&LuOffHeapMap::map), sizeof(pthread_rwlock_t));
  EXPECT_EQ(offsetIn<LuOffHeapMap>(&LuOffHeapMap::revisionQueue), sizeof(pthread_rwlock_t) + 8);
  EXPECT_EQ(offsetIn<LuOffHeapMap>(&LuOffHeapMap::numQueues), sizeof(pthread_rwlock_t) + 16);
}

// ---- Creation ----------------------------------------------------------------------------

class ValueRecord : public MapTest {
 protected:
  void TearDown() override {
    _isDiskOverflowEnabled = false;
    MapTest::TearDown();
  }
};

TEST_F(ValueRecord, IsBornDirtyWithOnePinAndPinsItsBuffers) {
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("value");
  LuOffHeapValue* made = allocateLuOffHeapMapValue(env, key, 4711, false, value, 3, 99);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->pins, 1);
  EXPECT_EQ(key->pins, 2);
  EXPECT_EQ(value->pins, 2);
  EXPECT_EQ(made->key, key);
  EXPECT_EQ(made->value, value);
  EXPECT_EQ(made->prev, nullptr);
  EXPECT_EQ(made->next, nullptr);
  EXPECT_EQ(made->hashNext, nullptr);
  EXPECT_EQ(made->evictionData, nullptr);
  EXPECT_EQ(made->ttlEvictionData, nullptr);
  EXPECT_EQ(made->hashCode, 4711);
  EXPECT_EQ(made->revisionOwner, 3);
  EXPECT_EQ(made->revisionNumber, 99);
  EXPECT_EQ(made->valueLength, sizeofByteBufferHeader(value));
  EXPECT_EQ(made->flags, clientDirty | HAS_VALUE);
  EXPECT_EQ(unpinValue(made), 0U);
  EXPECT_EQ(key->pins, 1);
  EXPECT_EQ(value->pins, 1);
  drop(key);
  drop(value);
}

TEST_F(ValueRecord, FlagsTellWhoGaveTheHash) {
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("value");
  LuOffHeapValue* computed = allocateLuOffHeapMapValue(env, key, 1, false, value, 0, 0);
  LuOffHeapValue* given = allocateLuOffHeapMapValue(env, key, 1, true, value, 0, 0);
  EXPECT_EQ(computed->flags, 5);
  EXPECT_EQ(given->flags, 7);
  unpinValue(computed);
  unpinValue(given);
  drop(key);
  drop(value);
}

TEST_F(ValueRecord, WithoutAValueBufferHasNoValueAndNoLength) {
  LuOffHeapValue* made = record("key", nullptr);
  EXPECT_EQ(made->flags, clientDirty);
  EXPECT_EQ(made->valueLength, 0U);
  EXPECT_EQ(nimbra::getSize_LuValue(env, made), sizeofLuOffHeapMapValue(env, made));
  unpinValue(made);
}

TEST_F(ValueRecord, WithoutAKeyIsAllowedAndTraced) {
  setLevels(kDebugLevel);
  LuOffHeapValue* made = record(nullptr, "value");
  EXPECT_EQ(made->key, nullptr);
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:allocateLuOffHeapMapValue:New LuValue was created "
                                    "without a valid key."));
  EXPECT_EQ(sizeofLuOffHeapMapValue(env, made),
            getUsableSize(made) + sizeofByteBufferHeader(made->value));
  EXPECT_EQ(unpinValue(made), 0U);
}

TEST_F(ValueRecord, CreationTrace) {
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("value");
  setLevels(kAllLevels);
  LuOffHeapValue* made = allocateLuOffHeapMapValue(env, key, 11, true, value, 2, 77);
  Script script;
  script.debug("allocateLuOffHeapMapValue",
               "key=%p, hashCode=%d, isHashCode=%d, value=%p, revisionOwner=%d,revisionNumber=%d",
               static_cast<void*>(key), 11, 1, static_cast<void*>(value), 2, 77);
  script.allocates("LuOffHeapMapValue");
  script.pins(key, LUOFFHEAPMAPVALUE_KEY_PIN, 2);
  script.pins(value, LUOFFHEAPMAPVALUE_VALUE_PIN, 2);
  script.pins(made, ALLOCATION_PIN, 1);
  script.debug("allocateLuOffHeapMapValue",
               "luValue=%p luValue->key=%p luValue->value=%p luValue->flags=%d",
               static_cast<void*>(made), static_cast<void*>(key), static_cast<void*>(value), 7);
  script.expectIn(jni);
  setLevels(0);
  unpinValue(made);
  drop(key);
  drop(value);
}

TEST_F(ValueRecord, TheSwitchChoosesSizeAndLabel) {
  struct Request {
    uint64_t size;
    std::string label;
    bool operator==(const Request&) const = default;
  };
  static std::vector<Request> requests;
  requests.clear();
  ByteBufferHeader* key = buffer("key");
  faults::refuseAllocation = [](uint64_t size, const char* label) {
    requests.push_back({size, label});
    return false;
  };
  LuOffHeapValue* plain = allocateLuOffHeapMapValue(env, key, 0, false, nullptr, 0, 0);
  const uint64_t plainSize = sizeofLuOffHeapMapValue(env, plain);
  EXPECT_EQ(unpinValue(plain), 0U);
  _isDiskOverflowEnabled = true;
  setLevels(kDebugLevel);
  LuOffHeapValue* overflow = allocateLuOffHeapMapValue(env, key, 0, false, nullptr, 0, 0);
  faults::refuseAllocation = nullptr;
  EXPECT_EQ(requests, (std::vector<Request>{{88, "LuOffHeapMapValue"},
                                            {232, "LuOffHeapMapValue (Overflow Enabled)"}}));
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:allocateLuOffHeapMapValue:NOF: adding 144 to "
                                    "malloc_size"));
  setLevels(0);
  const auto& metadata = static_cast<LuOffHeapOverflowValue*>(overflow)->metadata;
  EXPECT_EQ(metadata.mapHeader, nullptr);
  EXPECT_EQ(metadata.flags, 0);
  EXPECT_GE(sizeofLuOffHeapMapValue(env, overflow), 232 + sizeofByteBufferHeader(key));
  EXPECT_LT(plainSize, 232 + sizeofByteBufferHeader(key));
  freeLuOffHeapValue(env, map, overflow);
  _isDiskOverflowEnabled = false;
  unpin(env, key, LUOFFHEAPMAPVALUE_KEY_PIN);
  drop(key);
}

TEST_F(ValueRecord, RefusedMemoryGivesNullAndPinsNothing) {
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("value");
  {
    RefuseAllocation refusal(1);
    EXPECT_EQ(allocateLuOffHeapMapValue(env, key, 0, false, value, 0, 0), nullptr);
    EXPECT_TRUE(refusal.fired());
  }
  EXPECT_FALSE(jni.pending().has_value());
  {
    RefuseAllocation refusal(1, RefuseAllocation::Way::kOverMaximum);
    EXPECT_EQ(allocateLuOffHeapMapValue(env, key, 0, false, value, 0, 0), nullptr);
  }
  EXPECT_EQ(jni.takePending()->className, kIllegalState);
  EXPECT_EQ(key->pins, 1);
  EXPECT_EQ(value->pins, 1);
  drop(key);
  drop(value);
}

// ---- Sizes and callbacks -----------------------------------------------------------------

TEST_F(ValueRecord, SizeIsRecordKeyAndValueInMemory) {
  EXPECT_EQ(sizeofLuOffHeapMapValue(env, nullptr), 0U);
  LuOffHeapValue* made = record("a key", "a value of some length");
  EXPECT_EQ(sizeofLuOffHeapMapValue(env, made), getUsableSize(made) +
                                                    sizeofByteBufferHeader(made->key) +
                                                    sizeofByteBufferHeader(made->value));
  EXPECT_EQ(nimbra::getSize_LuValue(env, made), sizeofLuOffHeapMapValue(env, made));
  unpinValue(made);
}

TEST_F(ValueRecord, SizeCountsAValueThatIsOnDisk) {
  LuOffHeapValue* made = record("a key", "a value of some length");
  const uint64_t inMemory = nimbra::getSize_LuValue(env, made);
  ByteBufferHeader* value = made->value;
  made->value = nullptr;
  made->flags &= static_cast<uint16_t>(~HAS_VALUE);
  setLevels(kDebugLevel);
  EXPECT_EQ(nimbra::getSize_LuValue(env, made), inMemory);
  EXPECT_EQ(sizeofLuOffHeapMapValue(env, made), inMemory - made->valueLength);
  EXPECT_THAT(jni.lines(),
              ElementsAre("debug|JNI:getSize_LuValue:HAS_VALUE flag not set (value has been "
                          "offloaded to disk)"));
  setLevels(0);
  made->value = value;
  made->flags |= HAS_VALUE;
  unpinValue(made);
}

TEST_F(ValueRecord, CallbacksReadAndWriteTheirFields) {
  LuOffHeapValue* one = record("one", "1");
  LuOffHeapValue* two = record("two", "2");
  one->hashCode = -5;
  EXPECT_EQ(getNext_LuValue(env, one), nullptr);
  EXPECT_EQ(setNext_LuValue(env, one, two), one);
  EXPECT_EQ(one->hashNext, two);
  EXPECT_EQ(getNext_LuValue(env, one), two);
  EXPECT_EQ(getKey_LuValue(env, one), one->key);
  EXPECT_EQ(getValue_LuValue(env, one), one->value);
  EXPECT_EQ(getHash_LuValue(env, one), static_cast<uint32_t>(-5));
  ByteBufferHeader* before = one->value;
  EXPECT_EQ(setValue_LuValue(env, one, two->value), one);
  EXPECT_EQ(one->value, two->value);
  EXPECT_EQ(two->value->pins, 1) << "the callback pins nothing";
  setValue_LuValue(env, one, before);
  unpinValue(one);
  unpinValue(two);
}

// ---- Release -----------------------------------------------------------------------------

TEST_F(ValueRecord, UnpinWithPinsLeftFreesNothing) {
  LuOffHeapValue* made = record("key", "value");
  pin(env, made, JNI_GET_PIN);
  pin(env, made, JNI_GET_PIN);
  const Books before = Books::now();
  setLevels(kAllLevels);
  EXPECT_EQ(unpinValue(made, JNI_GET_PIN), 2U);
  Script script;
  script.releasesValue(made, JNI_GET_PIN, 2);
  script.expectIn(jni);
  setLevels(0);
  EXPECT_EQ(Books::now(), before);
  unpinValue(made, JNI_GET_PIN);
  EXPECT_EQ(unpinValue(made), 0U);
}

TEST_F(ValueRecord, ExitTextHasTwoBlanksWithOverflow) {
  _isDiskOverflowEnabled = true;
  LuOffHeapValue* made = record(nullptr, nullptr);
  pin(env, made, JNI_GET_PIN);
  setLevels(kEntryLevel);
  EXPECT_EQ(unpinValue(made, JNI_GET_PIN), 1U);
  EXPECT_THAT(jni.lines(), ElementsAre("entry|JNI:unpinLuOffHeapMapValue:luValue=" + printed(made),
                                       "exit|JNI:unpinLuOffHeapMapValue:luValue=" + printed(made) +
                                           "  remaining pins=1"));
  setLevels(0);
  freeLuOffHeapValue(env, map, made);
}

TEST_F(ValueRecord, LastUnpinTrace) {
  LuOffHeapValue* made = record("key", "value");
  const void* self = made;
  const void* key = made->key;
  ByteBufferHeader* value = made->value;
  pin(env, value, JNI_GET_PIN);
  setLevels(kAllLevels);
  EXPECT_EQ(unpinValue(made), 0U);
  Script script;
  const char* function = "unpinLuOffHeapMapValue";
  script.entry(function, "luValue=%p", self);
  script.unpins(self, ALLOCATION_PIN, 0);
  script.debug(function, "luValue=%p pins <= 0, freeing constituent members", self);
  script.event(function, "luValue=%p pins <= 0, freeing constituent members", self);
  script.debug(function, "Unpinning luValue->key=%p", key);
  script.releasesBuffer(key, LUOFFHEAPMAPVALUE_KEY_PIN, 0);
  script.debug(function, "freed value->key=%p, refCount=%d", key, 0);
  script.debug(function, "Unpinning luValue->value=%p", static_cast<void*>(value));
  script.releasesBuffer(value, LUOFFHEAPMAPVALUE_VALUE_PIN, 1);
  script.debug(function, "Unpinned value->value=%p, refCount=%d", static_cast<void*>(value), 1);
  script.frees(self);
  script.exit(function, "completed and freed LuValue=%p", self);
  script.expectIn(jni);
  setLevels(0);
  unpinToFree(env, value, JNI_GET_PIN);
}

TEST_F(ValueRecord, LastUnpinLeavesAKeyThatOthersHold) {
  ByteBufferHeader* key = buffer("key");
  LuOffHeapValue* made = allocateLuOffHeapMapValue(env, key, 0, false, nullptr, 0, 0);
  setLevels(kDebugLevel);
  EXPECT_EQ(unpinValue(made), 0U);
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:unpinLuOffHeapMapValue:unpinned value->key=" +
                                    printed(key) + ", refCount=1"));
  setLevels(0);
  EXPECT_EQ(key->pins, 1);
  drop(key);
}

TEST_F(ValueRecord, LastUnpinReleasesBothEvictionRecords) {
  LuOffHeapValue* made = record("key", nullptr);
  LuOffHeapEvictionData* lru = allocateEvictionData(env, made->key, false);
  LuOffHeapEvictionData* ttl = allocateEvictionData(env, made->key, true);
  pin(env, lru, LUOFFHEAPMAPVALUE_EVICTION_PIN);
  unpinLuOffHeapEvictionData(env, lru, ALLOCATION_PIN);
  pin(env, ttl, LUOFFHEAPMAPVALUE_EVICTION_PIN);
  made->evictionData = lru;
  made->ttlEvictionData = ttl;
  setLevels(kDebugLevel);
  EXPECT_EQ(unpinValue(made), 0U);
  const std::string prefix = "debug|JNI:unpinLuOffHeapMapValue:";
  std::vector<std::string> own;
  for (const std::string& line : jni.lines()) {
    if (line.starts_with(prefix) && line.find("victionData") != std::string::npos) {
      own.push_back(line.substr(prefix.size()));
    }
  }
  EXPECT_THAT(own,
              ElementsAre("Unpinning luValue->evictionData=" + printed(lru),
                          "Freed luValue->evictionData=" + printed(lru) + ", refCount=0",
                          "Unpinning luValue->ttlEvictionData=" + printed(ttl),
                          "Unpinned luValue->ttlEvictionData=" + printed(ttl) + ", refCount=1"));
  setLevels(0);
  EXPECT_EQ(unpinLuOffHeapEvictionData(env, ttl, ALLOCATION_PIN), 0U);
}

TEST_F(ValueRecord, AValueWithoutPinsIsReportedAndStaysAllocated) {
  LuOffHeapValue* made = record("key", "value");
  ByteBufferHeader* value = made->value;
  unpin(env, value, LUOFFHEAPMAPVALUE_VALUE_PIN);
  setLevels(kDebugLevel);
  EXPECT_EQ(unpinValue(made), 0U);
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:unpinLuOffHeapMapValue:refcount already == 0! For "
                                    "LuValue->value=" +
                                    printed(value)));
  setLevels(0);
  EXPECT_EQ(value->pins, -1) << "unpinned all the same";
  freeByteBufferData(env, value);
}

TEST_F(ValueRecord, AValuePointerWithoutTheFlagIsWarnedAbout) {
  LuOffHeapValue* made = record("key", "value");
  const std::string value = printed(made->value);
  made->flags &= static_cast<uint16_t>(~HAS_VALUE);
  setLevels(kWarningLevel);
  EXPECT_EQ(unpinValue(made), 0U);
  EXPECT_THAT(jni.lines(), ElementsAre("warning|LuValue->valueLength was 0, the pointer was not "
                                       "NULL. Found value=" +
                                       value));
  setLevels(0);
}

TEST_F(ValueRecord, QueueEntriesAreUnpinnedByKind) {
  LuOffHeapValue* value = record("key", "value");
  LuOffHeapEvictionData* eviction = allocateEvictionData(env, value->key, false);
  pin(env, value, JNI_GET_PIN);
  pin(env, eviction, JNI_GET_PIN);
  EXPECT_EQ(unpinLuQueueEntry(env, value, kRevisionQueue, JNI_GET_PIN), 1U);
  EXPECT_EQ(unpinLuQueueEntry(env, eviction, kEvictionQueue, JNI_GET_PIN), 1U);
  EXPECT_EQ(unpinLuQueueEntry(env, value, 2, JNI_GET_PIN), 4294967295U);
  EXPECT_EQ(value->pins, 1);
  EXPECT_EQ(unpinLuQueueEntry(env, eviction, kEvictionQueue, ALLOCATION_PIN), 0U);
  EXPECT_EQ(unpinLuQueueEntry(env, value, kRevisionQueue, ALLOCATION_PIN), 0U);
}

// ---- Eviction records --------------------------------------------------------------------

TEST_F(ValueRecord, EvictionRecordCountsItselfAndOnRequestItsKey) {
  ByteBufferHeader* key = buffer("key");
  for (const bool counted : {false, true}) {
    const Books before = Books::now();
    LuOffHeapEvictionData* made = allocateEvictionData(env, key, counted);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->pins, 1);
    EXPECT_EQ(made->prev, nullptr);
    EXPECT_EQ(made->next, nullptr);
    EXPECT_EQ(made->metadata, 0);
    EXPECT_EQ(made->keyHeaderCounted, counted);
    EXPECT_EQ(key->pins, 2);
    const uint64_t accounted =
        alignSize(static_cast<const void*>(made)) + (counted ? sizeofByteBufferHeader(key) : 0);
    EXPECT_EQ(Books::now().metadata, before.metadata + static_cast<int64_t>(accounted));
    EXPECT_EQ(unpinLuOffHeapEvictionData(env, made, ALLOCATION_PIN), 0U);
    EXPECT_EQ(Books::now(), before);
    EXPECT_EQ(key->pins, 1);
  }
  drop(key);
}

TEST_F(ValueRecord, EvictionRecordTraces) {
  ByteBufferHeader* key = buffer("key");
  setLevels(kAllLevels);
  LuOffHeapEvictionData* made = allocateEvictionData(env, key, false);
  const void* self = made;
  EXPECT_EQ(unpinLuOffHeapEvictionData(env, made, ALLOCATION_PIN), 0U);
  Script script;
  script.debug("allocateEvictionData", "starting sub-allocation.");
  script.allocates("LuOffHeapEvictionData");
  script.pins(self, ALLOCATION_PIN, 1);
  script.pins(key, LUOFFHEAPEVICTIONDATA_KEY_PIN, 2);
  script.debug("allocateEvictionData", "sub-allocation was finished. allocated=%p", self);
  script.unpins(self, ALLOCATION_PIN, 0);
  script.debug("unpinLuOffHeapEvictionData", "evictData=%p, refCount=%d", self, 0);
  script.debug("unpinLuOffHeapEvictionData", "evictData to be removed. Unpinning evictData->key=%p",
               static_cast<void*>(key));
  script.releasesBuffer(key, LUOFFHEAPEVICTIONDATA_KEY_PIN, 1);
  script.debug("unpinLuOffHeapEvictionData", "unpinned value->key=%p, refCount=%d",
               static_cast<void*>(key), 1);
  script.frees(self);
  script.expectIn(jni);
  setLevels(0);
  drop(key);
}

TEST_F(ValueRecord, EvictionRecordWithoutMemoryChangesNothing) {
  ByteBufferHeader* key = buffer("key");
  const Books before = Books::now();
  {
    RefuseAllocation refusal(1);
    EXPECT_EQ(allocateEvictionData(env, key, true), nullptr);
  }
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(key->pins, 1);
  drop(key);
}

// ---- Overflow nodes and the size dump ----------------------------------------------------

TEST_F(ValueRecord, OverflowNodesAreAccountedByTheirBlock) {
  const Books before = Books::now();
  setLevels(kDebugLevel);
  overflow_metadata* block = allocateOverflowMetadata(env, 3);
  ASSERT_NE(block, nullptr);
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:allocateOverflowMetadata:starting sub-allocation."));
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:allocateOverflowMetadata:sub-allocation has "
                                    "finished. overflow_metadata=" +
                                    printed(block)));
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("type=overflow_metadata_t")));
  setLevels(0);
  EXPECT_EQ(sizeofOverflowMetadata(block, 1), getUsableSize(block));
  EXPECT_GE(getUsableSize(block), 3 * sizeof(overflow_metadata));
  EXPECT_EQ(Books::now().metadata, before.metadata + static_cast<int64_t>(getUsableSize(block)));
  freeOverflowMetadata(env, block, 3);
  EXPECT_EQ(Books::now(), before);

  RefuseAllocation refusal(1);
  EXPECT_EQ(allocateOverflowMetadata(env, 1), nullptr);
  EXPECT_EQ(Books::now(), before);
}

TEST_F(ValueRecord, SizeDumpNamesEveryRecord) {
  luoffheap_map_sizes(env);
  EXPECT_THAT(jni.lines(), ElementsAre());
  setLevels(kDebugLevel);
  luoffheap_map_sizes(env);
  std::vector<std::string> texts;
  for (const LogRecord& record : jni.records()) {
    texts.push_back(record.text.substr(record.text.rfind(':') + 1));
  }
  EXPECT_THAT(texts, ElementsAre("LuOffHeapEvictionData=56",
                                 "LuOffHeapMap=" + std::to_string(sizeof(LuOffHeapMap)),
                                 "LuOffHeapValue(NO_OVERFLOW)=88", "LuOffHeapValue(OVERFLOW)=232",
                                 "overflow_metadata=144",
                                 "pthread_mutex_t=" + std::to_string(sizeof(pthread_mutex_t)),
                                 "pthread_t=" + std::to_string(sizeof(pthread_t)),
                                 "pthread_cond_t=" + std::to_string(sizeof(pthread_cond_t))));
  setLevels(0);
}

// ---- Natives -----------------------------------------------------------------------------

TEST_F(ValueRecord, AllocationNativesWithCppNames) {
  ByteBufferHeader* key = buffer("key");
  ByteBufferHeader* value = buffer("value");
  LuOffHeapValue* computed = natives::asValue(
      natives::allocateLuOffHeapMapValue(env, caller, javaBuffer(key), javaBuffer(value), 4, 5));
  ASSERT_NE(computed, nullptr);
  EXPECT_EQ(computed->hashCode, hashFn(key));
  EXPECT_EQ(computed->flags, 5);
  EXPECT_EQ(computed->revisionOwner, 4);
  EXPECT_EQ(computed->revisionNumber, 5);
  EXPECT_EQ(computed->key, key);
  EXPECT_EQ(computed->value, value);
  LuOffHeapValue* given = natives::asValue(natives::allocateLuOffHeapMapValueWithHashCode(
      env, caller, javaBuffer(key), 12345, javaBuffer(value), 4, 5));
  ASSERT_NE(given, nullptr);
  EXPECT_EQ(given->hashCode, 12345);
  EXPECT_EQ(given->flags, 7);
  unpinValue(computed);
  unpinValue(given);
  drop(key);
  drop(value);
}

TEST_F(ValueRecord, AccessorsReadTheRecord) {
  LuOffHeapValue* made = record("key", "value", 65535, -3);
  const jlong handle = natives::handle(made);
  EXPECT_EQ(natives::getKeyHashCode(env, caller, handle), hashOf("key"));
  EXPECT_EQ(natives::getRevisionOwner(env, caller, handle), 65535);
  EXPECT_EQ(natives::getRevisionNumber(env, caller, handle), -3);
  setLevels(kDebugLevel);
  EXPECT_EQ(natives::getReferenceCount(env, caller, handle), 1);
  EXPECT_EQ(natives::isValueInMemory(env, caller, handle), 1);
  ASSERT_EQ(jni.records().size(), 2U);
  EXPECT_THAT(jni.records()[0].text, HasSubstr("value=" + printed(made) + ", refCount=1"));
  EXPECT_THAT(jni.records()[1].text,
              HasSubstr("luValue=" + printed(made) + " luValue->flags=5 luValue->key=" +
                        printed(made->key) + " luValue->value=" + printed(made->value)));
  setLevels(0);
  unpinValue(made);
}

TEST_F(ValueRecord, IsValueInMemoryAnswersThreeWays) {
  LuOffHeapValue* made = record("key", nullptr);
  EXPECT_EQ(natives::isValueInMemory(env, caller, 0), -1);
  EXPECT_EQ(natives::isValueInMemory(env, caller, natives::handle(made)), 0);
  unpinValue(made);
}

TEST_F(ValueRecord, JavasUnpinCarriesTheConvertedReason) {
  LuOffHeapValue* made = record("key", "value");
  pin(env, made, JNI_GET_PIN);
  setLevels(kDebugLevel);
  EXPECT_EQ(natives::unpinLuOffHeapValue_native(env, manager, natives::handle(made),
                                                static_cast<jint>(JAVA_GET_PIN)),
            1);
  EXPECT_THAT(jni.lines(), Contains("debug|JNI:unpin:enter unpin: header=" + printed(made) +
                                    ", reason=JAVA_GET_PIN"));
  setLevels(0);
  EXPECT_EQ(natives::unpinLuOffHeapValue_native(env, manager, natives::handle(made),
                                                static_cast<jint>(JAVA_REMOVE_PIN)),
            0);
}

TEST_F(ValueRecord, OriginalValueIsKnownOnlyWithOverflow) {
  LuOffHeapValue* made = record("key", "value");
  LuOffHeapValue* original = record("other", "value");
  made->hashNext = original;
  EXPECT_EQ(natives::getOriginalLuValue(env, manager, natives::handle(made)), 0);
  _isDiskOverflowEnabled = true;
  EXPECT_EQ(natives::getOriginalLuValue(env, manager, natives::handle(made)),
            natives::handle(original));
  _isDiskOverflowEnabled = false;
  unpinValue(made);
  unpinValue(original);
}

TEST_F(ValueRecord, KeyAccessors) {
  ByteBufferHeader* key = buffer("seven b", DESERIALIZED_TYPE_JSTRING);
  LuOffHeapValue* made = allocateLuOffHeapMapValue(env, key, -2, true, nullptr, 0, 0);
  const jlong handle = natives::handle(made);
  EXPECT_EQ(natives::getKeyLength(env, caller, handle), 7);
  EXPECT_EQ(natives::getKeyType(env, caller, handle), DESERIALIZED_TYPE_JSTRING);
  const jlongArray out = jni.newLongArray({-1, -1, -1, -1});
  EXPECT_EQ(natives::getKeyInfo(env, caller, handle, out), 1);
  EXPECT_THAT(jni.longsOf(out), ElementsAre(natives::handle(bufferData(key)), 7, -2, -1));
  unpinValue(made);
  drop(key);

  LuOffHeapValue* keyless = record(nullptr, nullptr);
  EXPECT_EQ(static_cast<uint32_t>(natives::getKeyLength(env, caller, natives::handle(keyless))),
            0xFFFFFFFFU);
  EXPECT_EQ(static_cast<uint32_t>(natives::getKeyLength(env, caller, 0)), 0xFFFFFFFFU);
  unpinValue(keyless);
}

TEST_F(ValueRecord, ValueAccessors) {
  LuOffHeapValue* made = record("key", "value");
  made->value->deserializedType = DESERIALIZED_TYPE_OTHER;
  const jlong handle = natives::handle(made);
  EXPECT_EQ(natives::getValueType(env, caller, handle), DESERIALIZED_TYPE_OTHER);
  EXPECT_EQ(natives::getValueType(env, caller, 0), -1);
  const jlongArray out = jni.newLongArray({-1, -1, -1});
  EXPECT_EQ(natives::getValueInfo(env, caller, 0, 0, out), 0);
  EXPECT_THAT(jni.longsOf(out), ElementsAre(-1, -1, -1));
  EXPECT_EQ(natives::getValueInfo(env, caller, handle, 0, out), 1);
  EXPECT_THAT(jni.longsOf(out), ElementsAre(natives::handle(bufferData(made->value)), 5, -1));

  const jlongArray again = jni.newLongArray({-1, -1});
  const auto mapValueClass = static_cast<jclass>(caller);
  EXPECT_EQ(natives::staticGetValueInfo(env, mapValueClass, 0, again), 0);
  EXPECT_THAT(jni.longsOf(again), ElementsAre(-1, -1));
  setLevels(kDebugLevel);
  EXPECT_EQ(natives::staticGetValueInfo(env, mapValueClass, handle, again), 1);
  EXPECT_THAT(jni.lines(), Contains(HasSubstr("value = " + printed(made))));
  EXPECT_THAT(jni.longsOf(again), ElementsAre(natives::handle(bufferData(made->value)), 5));
  setLevels(0);
  unpinValue(made);
}

}  // namespace
}  // namespace nimbra::test
