// Eviction records: allocation and release with their figures, the two slots of a value, and the
// natives over both.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test {
namespace {

using natives::asEvictionData;
using natives::handle;
using ::testing::ElementsAre;

class EvictionRecord : public MapTest {
 protected:
  void SetUp() override {
    MapTest::SetUp();
    key = buffer("the key", DESERIALIZED_TYPE_JSTRING);
  }
  void TearDown() override {
    setLevels(0);
    if (key != nullptr) {
      EXPECT_EQ(key->pins, 1) << "every record gave its pin back";
      drop(key);
    }
    MapTest::TearDown();
  }

  LuOffHeapEvictionData* allocate(bool countKeyHeader = false) {
    return allocateEvictionData(env, key, countKeyHeader);
  }
  uint32_t unpinRecord(LuOffHeapEvictionData* record, uint32_t reason = ALLOCATION_PIN) {
    return unpinLuOffHeapEvictionData(env, record, reason);
  }

  ByteBufferHeader* key = nullptr;
};

// ---- Allocation and release --------------------------------------------------------------

TEST_F(EvictionRecord, StartsOutsideEveryQueueWithOnePinAndItsKeyPinned) {
  for (const bool counted : {false, true}) {
    LuOffHeapEvictionData* record = allocate(counted);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->pins, 1);
    EXPECT_EQ(record->prev, nullptr);
    EXPECT_EQ(record->next, nullptr);
    EXPECT_EQ(record->key, key);
    EXPECT_EQ(key->pins, 2);
    EXPECT_EQ(record->metadata, 0);
    EXPECT_EQ(record->keyHeaderCounted, counted);
    EXPECT_EQ(unpinRecord(record), 0U);
    EXPECT_EQ(key->pins, 1);
  }
}

TEST_F(EvictionRecord, CountsItsBytesAndOnRequestItsKeys) {
  const Books before = Books::now();
  LuOffHeapEvictionData* plain = allocate(false);
  const Books withPlain = Books::now();
  EXPECT_EQ(withPlain.blocks, before.blocks + 1);
  EXPECT_EQ(withPlain.metadata, before.metadata + static_cast<int64_t>(alignSize(plain)));
  LuOffHeapEvictionData* counted = allocate(true);
  EXPECT_EQ(Books::now().blocks, before.blocks + 2);
  EXPECT_EQ(
      Books::now().metadata,
      withPlain.metadata + static_cast<int64_t>(alignSize(counted) + sizeofByteBufferHeader(key)));
  unpinRecord(plain);
  unpinRecord(counted);
  EXPECT_EQ(Books::now(), before);
}

TEST_F(EvictionRecord, ReleaseTakesOffWhatItsOwnAllocationAdded) {
  const Books before = Books::now();
  LuOffHeapEvictionData* counted = allocate(true);
  counted->keyHeaderCounted = false;
  unpinRecord(counted);
  const auto keySize = static_cast<int64_t>(sizeofByteBufferHeader(key));
  EXPECT_EQ(Books::now().metadata, before.metadata + keySize) << "the flag in the record decides";
  LuOffHeapEvictionData* plain = allocate(false);
  plain->keyHeaderCounted = true;
  unpinRecord(plain);
  EXPECT_EQ(Books::now(), before);
}

TEST_F(EvictionRecord, FreeingTakesTheExtraSizeOff) {
  const Books before = Books::now();
  LuOffHeapEvictionData* record = allocate(false);
  unpinToFree(env, key, LUOFFHEAPEVICTIONDATA_KEY_PIN);
  freeEvictionData(env, record, 1000);
  EXPECT_EQ(Books::now().blocks, before.blocks);
  EXPECT_EQ(Books::now().metadata, before.metadata - 1000);
  expectedMetadataDelta = -1000;
}

// The code for the allocation of eviction data exists and is not used.
TEST_F(EvictionRecord, IsPinnedWithTheGeneralReasonOfAllocations) {
  setLevels(kAllLevels);
  LuOffHeapEvictionData* record = allocate();
  Script script;
  script.debug("allocateEvictionData", "starting sub-allocation.");
  script.allocates("LuOffHeapEvictionData");
  script.pins(record, ALLOCATION_PIN, 1);
  script.pins(key, LUOFFHEAPEVICTIONDATA_KEY_PIN, 2);
  script.debug("allocateEvictionData", "sub-allocation was finished. allocated=%p",
               static_cast<void*>(record));
  script.expectIn(jni);
  setLevels(0);
  unpinRecord(record);
}

TEST_F(EvictionRecord, UnpinWithOtherPinsLeftFreesNothing) {
  LuOffHeapEvictionData* record = allocate();
  pin(env, static_cast<Pinnable*>(record), JNI_GET_PIN);
  pin(env, static_cast<Pinnable*>(record), JNI_GET_PIN);
  setLevels(kAllLevels);
  EXPECT_EQ(unpinRecord(record, JNI_GET_PIN), 2U);
  Script script;
  script.unpins(record, JNI_GET_PIN, 2);
  script.debug("unpinLuOffHeapEvictionData", "evictData=%p, refCount=%d",
               static_cast<void*>(record), 2);
  script.expectIn(jni);
  setLevels(0);
  EXPECT_EQ(record->key, key);
  EXPECT_EQ(key->pins, 2);
  EXPECT_EQ(unpinRecord(record, JNI_GET_PIN), 1U);
  EXPECT_EQ(unpinRecord(record), 0U);
}

TEST_F(EvictionRecord, TheLastUnpinReleasesTheKeyAndTheRecord) {
  LuOffHeapEvictionData* record = allocate(true);
  const char* function = "unpinLuOffHeapEvictionData";
  setLevels(kAllLevels);
  EXPECT_EQ(unpinRecord(record), 0U);
  Script script;
  script.unpins(record, ALLOCATION_PIN, 0);
  script.debug(function, "evictData=%p, refCount=%d", static_cast<void*>(record), 0);
  script.debug(function, "evictData to be removed. Unpinning evictData->key=%p",
               static_cast<void*>(key));
  script.releasesBuffer(key, LUOFFHEAPEVICTIONDATA_KEY_PIN, 1);
  script.debug(function, "unpinned value->key=%p, refCount=%d", static_cast<void*>(key), 1);
  script.frees(record);
  script.expectIn(jni);
}

TEST_F(EvictionRecord, TheLastUnpinFreesAKeyThatNobodyElseHolds) {
  const Books before = Books::now();
  ByteBufferHeader* own = buffer("own key");
  LuOffHeapEvictionData* record = allocateEvictionData(env, own, true);
  drop(own);
  EXPECT_EQ(own->pins, 1);
  const char* function = "unpinLuOffHeapEvictionData";
  setLevels(kAllLevels);
  EXPECT_EQ(unpinRecord(record), 0U);
  Script script;
  script.unpins(record, ALLOCATION_PIN, 0);
  script.debug(function, "evictData=%p, refCount=%d", static_cast<void*>(record), 0);
  script.debug(function, "evictData to be removed. Unpinning evictData->key=%p",
               static_cast<void*>(own));
  script.releasesBuffer(own, LUOFFHEAPEVICTIONDATA_KEY_PIN, 0);
  script.debug(function, "freed value->key=%p, refCount=%d", static_cast<void*>(own), 0);
  script.frees(record);
  script.expectIn(jni);
  EXPECT_EQ(Books::now(), before) << "also while nothing traces:";
  setLevels(0);
  own = buffer("own key");
  record = allocateEvictionData(env, own, true);
  drop(own);
  EXPECT_EQ(unpinRecord(record), 0U);
  EXPECT_EQ(Books::now(), before);
}

TEST_F(EvictionRecord, ARecordWithoutAKeyIsReleasedAllTheSame) {
  const Books before = Books::now();
  LuOffHeapEvictionData* record = allocate(false);
  unpinToFree(env, key, LUOFFHEAPEVICTIONDATA_KEY_PIN);
  record->key = nullptr;
  EXPECT_EQ(unpinRecord(record), 0U);
  EXPECT_EQ(Books::now(), before);
}

TEST_F(EvictionRecord, RefusedMemoryChangesNothing) {
  using Way = RefuseAllocation::Way;
  for (const bool counted : {false, true}) {
    const Books before = Books::now();
    for (const Way way : {Way::kNothingLeft, Way::kOverMaximum}) {
      RefuseAllocation refusal(1, way, "LuOffHeapEvictionData");
      EXPECT_EQ(natives::allocateAndPinEvictionData(env, caller, 0, javaBuffer(key),
                                                    static_cast<jboolean>(counted)),
                0);
      EXPECT_TRUE(refusal.fired());
      EXPECT_EQ(jni.takePending().has_value(), way == Way::kOverMaximum);
    }
    EXPECT_EQ(Books::now(), before);
    EXPECT_EQ(key->pins, 1);
  }
}

// ---- The two slots of a value ------------------------------------------------------------

class EvictionSlots : public EvictionRecord {
 protected:
  void SetUp() override {
    EvictionRecord::SetUp();
    value = insert("entry", "value");
  }
  int32_t set(LuOffHeapEvictionData* record, bool forTTL = false) {
    return setEvictionDataToLuOffHeapValue(env, value, record, forTTL);
  }
  LuOffHeapValue* value = nullptr;
};

TEST_F(EvictionSlots, HoldOnePinEach) {
  LuOffHeapEvictionData* record = allocate();
  EXPECT_EQ(set(record), 1);
  EXPECT_EQ(value->evictionData, record);
  EXPECT_EQ(value->ttlEvictionData, nullptr);
  EXPECT_EQ(record->pins, 2);
  EXPECT_EQ(set(record, true), 1) << "the slots are independent";
  EXPECT_EQ(value->ttlEvictionData, record);
  EXPECT_EQ(record->pins, 3);
  EXPECT_EQ(set(nullptr), 1);
  EXPECT_EQ(value->evictionData, nullptr);
  EXPECT_EQ(value->ttlEvictionData, record);
  EXPECT_EQ(record->pins, 2);
  unpinRecord(record);
  EXPECT_EQ(record->pins, 1) << "the slot keeps it";
  EXPECT_EQ(set(nullptr, true), 1) << "and frees it";
  EXPECT_EQ(key->pins, 1);
}

TEST_F(EvictionSlots, TheSameRecordTwiceChangesNothing) {
  LuOffHeapEvictionData* record = allocate();
  for (const bool forTTL : {false, true}) {
    EXPECT_EQ(set(nullptr, forTTL), 0) << "empty already";
    EXPECT_EQ(set(record, forTTL), 1);
    EXPECT_EQ(set(record, forTTL), 0);
    EXPECT_EQ(record->pins, 2);
    EXPECT_EQ(set(nullptr, forTTL), 1);
  }
  unpinRecord(record);
}

TEST_F(EvictionSlots, ANewRecordIsPinnedBeforeTheOldOneGoes) {
  LuOffHeapEvictionData* first = allocate();
  LuOffHeapEvictionData* second = allocate();
  set(first);
  unpinRecord(first);  // the slot holds the last pin
  const char* unpin = "unpinLuOffHeapEvictionData";
  setLevels(kAllLevels);
  EXPECT_EQ(set(second), 1);
  Script script;
  script.debug("setEvictionDataToLuOffHeapValue", "luValue=%p, evictData=%p, forTTL? %d",
               static_cast<void*>(value), static_cast<void*>(second), 0);
  script.pins(second, LUOFFHEAPMAPVALUE_EVICTION_PIN, 2);
  script.unpins(first, LUOFFHEAPMAPVALUE_EVICTION_PIN, 0);
  script.debug(unpin, "evictData=%p, refCount=%d", static_cast<void*>(first), 0);
  script.debug(unpin, "evictData to be removed. Unpinning evictData->key=%p",
               static_cast<void*>(key));
  script.releasesBuffer(key, LUOFFHEAPEVICTIONDATA_KEY_PIN, 2);
  script.debug(unpin, "unpinned value->key=%p, refCount=%d", static_cast<void*>(key), 2);
  script.frees(first);
  script.expectIn(jni);
  setLevels(0);
  EXPECT_EQ(value->evictionData, second);
  unpinRecord(second);
  set(nullptr);
}

TEST_F(EvictionSlots, TraceOfTheTtlSlot) {
  LuOffHeapEvictionData* record = allocate();
  setLevels(kAllLevels);
  EXPECT_EQ(set(record, true), 1);
  EXPECT_EQ(set(record, true), 0);
  Script script;
  const char* function = "setEvictionDataToLuOffHeapValue";
  const char* text = "luValue=%p, evictData=%p, forTTL? %d";
  script.debug(function, text, static_cast<void*>(value), static_cast<void*>(record), 1);
  script.pins(record, LUOFFHEAPMAPVALUE_EVICTION_PIN, 2);
  script.debug(function, text, static_cast<void*>(value), static_cast<void*>(record), 1);
  script.expectIn(jni);
  setLevels(0);
  set(nullptr, true);
  unpinRecord(record);
}

TEST_F(EvictionSlots, TheEndOfAValueReleasesBoth) {
  LuOffHeapEvictionData* ordinary = allocate();
  LuOffHeapEvictionData* ttl = allocate(true);
  set(ordinary);
  set(ttl, true);
  unpinRecord(ordinary);
  EXPECT_EQ(ttl->pins, 2) << "somebody else holds this one";
  LuOffHeapValue* removed = removePinned("entry");
  ASSERT_EQ(removed, value);
  setLevels(kDebugLevel);
  EXPECT_EQ(unpinValue(removed, JNI_REMOVED_PIN), 0U);
  std::vector<std::string> slots;
  for (const std::string& line : withoutAddresses(traceOf(jni))) {
    const std::size_t at = line.find("unpinLuOffHeapMapValue:");
    if (at != std::string::npos && line.find("victionData") != std::string::npos) {
      slots.push_back(line.substr(line.find(':', at) + 1));
    }
  }
  setLevels(0);
  EXPECT_THAT(slots, ElementsAre("Unpinning luValue->evictionData=@",
                                 "Freed luValue->evictionData=@, refCount=0",
                                 "Unpinning luValue->ttlEvictionData=@",
                                 "Unpinned luValue->ttlEvictionData=@, refCount=1"));
  EXPECT_EQ(ttl->pins, 1);
  EXPECT_EQ(unpinRecord(ttl), 0U);
}

TEST_F(EvictionSlots, OneRecordInBothSlotsOutlivesTheFirstRelease) {
  LuOffHeapEvictionData* record = allocate();
  set(record);
  set(record, true);
  unpinRecord(record);
  EXPECT_EQ(record->pins, 2);
  EXPECT_TRUE(remove("entry"));
  EXPECT_EQ(key->pins, 1) << "freed with the value";
}

// ---- Natives -----------------------------------------------------------------------------

class EvictionNatives : public EvictionSlots {
 protected:
  LuOffHeapEvictionData* allocateByNative(jboolean countKeyHeader) {
    return asEvictionData(natives::allocateAndPinEvictionData(env, caller, 0x7FFF'FFFF'FFFF'FFFF,
                                                              javaBuffer(key), countKeyHeader));
  }
};

TEST_F(EvictionNatives, AllocateStepsBackToTheKeysHeader) {
  for (const jboolean counted : {JNI_FALSE, JNI_TRUE}) {
    LuOffHeapEvictionData* record = allocateByNative(counted);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->key, key);
    EXPECT_EQ(record->pins, 1);
    EXPECT_EQ(record->keyHeaderCounted, counted == JNI_TRUE);
    EXPECT_EQ(unpinRecord(record), 0U);
  }
}

TEST_F(EvictionNatives, TheKeyComesAsANewBufferWithoutAPin) {
  LuOffHeapEvictionData* record = allocateByNative(JNI_FALSE);
  const jobject javaKey = jni.adopt(natives::getEvictionKey(env, caller, -1, handle(record)));
  EXPECT_EQ(jni.bufferAddress(javaKey), bufferData(key));
  EXPECT_EQ(jni.bufferCapacity(javaKey), 7);
  EXPECT_EQ(key->pins, 2);
  EXPECT_EQ(record->pins, 1);
  unpinRecord(record);
}

TEST_F(EvictionNatives, FieldsKeepWhatJavaStores) {
  LuOffHeapEvictionData* record = allocateByNative(JNI_FALSE);
  const jlong address = handle(record);
  EXPECT_EQ(natives::getMetadata(env, caller, -1, address), 0);
  for (const jlong number : {INT64_MIN, int64_t{-1}, int64_t{0}, int64_t{7}, INT64_MAX}) {
    EXPECT_TRUE(natives::setMetadata(env, caller, -1, address, number));
    EXPECT_EQ(natives::getMetadata(env, caller, 0, address), number);
    EXPECT_TRUE(natives::setExpiration(env, caller, -1, address, number / 2));
    EXPECT_EQ(natives::getExpiration(env, caller, 0, address), number / 2);
    const auto timeout = static_cast<jint>(number);
    EXPECT_TRUE(natives::setTimeout(env, caller, address, timeout));
    EXPECT_EQ(natives::getTimeout(env, caller, address), timeout);
    EXPECT_EQ(natives::getMetadata(env, caller, 0, address), number) << "fields are apart";
  }
  EXPECT_EQ(record->pins, 1);
  unpinRecord(record);
}

TEST_F(EvictionNatives, OnlyTwoTestForNull) {
  EXPECT_FALSE(natives::setTimeout(env, caller, 0, 7));
  EXPECT_EQ(natives::getEvictionData_native(env, manager, 0, JNI_FALSE), 0);
  EXPECT_EQ(natives::getEvictionData_native(env, manager, 0, JNI_TRUE), 0);
  EXPECT_FALSE(jni.pending().has_value());
}

TEST_F(EvictionNatives, TheReferenceCountIsTheWholeWord) {
  LuOffHeapEvictionData* record = allocateByNative(JNI_FALSE);
  EXPECT_EQ(natives::getEvictionReferenceCount(env, caller, handle(record)), 1);
  record->pins = 0x0123'4567'89AB'CDEF;
  EXPECT_EQ(natives::getEvictionReferenceCount(env, caller, handle(record)), 0x0123'4567'89AB'CDEF);
  record->pins = 1;
  unpinRecord(record);
}

TEST_F(EvictionNatives, SlotsAreSetAndRead) {
  LuOffHeapEvictionData* record = allocateByNative(JNI_FALSE);
  const jlong at = handle(value);
  for (const jboolean forTTL : {JNI_FALSE, JNI_TRUE}) {
    EXPECT_EQ(natives::getEvictionData_native(env, manager, at, forTTL), 0) << "empty";
    EXPECT_TRUE(natives::setEvictionData_native(env, manager, at, handle(record), forTTL));
    EXPECT_FALSE(natives::setEvictionData_native(env, manager, at, handle(record), forTTL));
    EXPECT_EQ(record->pins, 2);
    setLevels(kAllLevels);
    EXPECT_EQ(natives::getEvictionData_native(env, manager, at, forTTL), handle(record));
    Script script;
    script.pins(record, JNI_GET_PIN, 3);
    script.expectIn(jni);
    setLevels(0);
    unpinRecord(record, JNI_GET_PIN);
    EXPECT_TRUE(natives::setEvictionData_native(env, manager, at, 0, forTTL));
    EXPECT_FALSE(natives::setEvictionData_native(env, manager, at, 0, forTTL));
  }
  unpinRecord(record);
}

TEST_F(EvictionNatives, PinsCarryJavasMark) {
  LuOffHeapEvictionData* record = allocateByNative(JNI_FALSE);
  const uint32_t marked = JAVA_EVICTLIST_PIN | JNI_CONVERT_FROM_JAVA_PIN;
  setLevels(kAllLevels);
  EXPECT_EQ(natives::pinLuEvictionData_native(env, manager, handle(record), JAVA_EVICTLIST_PIN), 2);
  EXPECT_EQ(natives::unpinLuEvictionData_native(env, manager, handle(record), JAVA_EVICTLIST_PIN),
            1);
  Script script;
  script.pins(record, marked, 2);
  script.unpins(record, marked, 1);
  script.debug("unpinLuOffHeapEvictionData", "evictData=%p, refCount=%d",
               static_cast<void*>(record), 1);
  script.expectIn(jni);
  setLevels(0);
  EXPECT_EQ(natives::unpinLuEvictionData_native(env, manager, handle(record),
                                                static_cast<jint>(ALLOCATION_PIN)),
            0)
      << "the last one frees";
}

TEST_F(EvictionNatives, ALifeFromAllocationToRemoval) {
  const Books before = Books::now();
  LuOffHeapEvictionData* record = allocateByNative(JNI_TRUE);
  natives::setEvictionData_native(env, manager, handle(value), handle(record), JNI_FALSE);
  natives::unpinLuEvictionData_native(env, manager, handle(record),
                                      static_cast<jint>(ALLOCATION_PIN));
  EXPECT_EQ(record->pins, 1);
  EXPECT_EQ(natives::getEvictionData_native(env, manager, handle(value), JNI_FALSE),
            handle(record));
  EXPECT_TRUE(remove("entry"));
  EXPECT_EQ(record->pins, 1) << "Java still reads it";
  EXPECT_EQ(bytesOf(record->key), "the key");
  EXPECT_EQ(natives::unpinLuEvictionData_native(env, manager, handle(record),
                                                static_cast<jint>(JNI_GET_PIN)),
            0);
  EXPECT_EQ(Books::now().metadata, before.metadata);
  EXPECT_EQ(Books::now().blocks, before.blocks - 3) << "the entry with its key and value";
}

}  // namespace
}  // namespace nimbra::test
