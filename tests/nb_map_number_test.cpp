// The natives of number keys, each key type against each form of search, and the natives that read
// and change single fields of a value.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "map_natives.h"
#include "map_support.h"

namespace nimbra::test {
namespace {

using natives::asValue;
using natives::handle;
using ::testing::Contains;
using ::testing::HasSubstr;

template <typename Number>
std::string imageOf(Number number) {
  return {reinterpret_cast<const char*>(&number), sizeof number};
}

// ---- The seven families ------------------------------------------------------------------

struct ByteKey {
  using Number = jbyte;
  static constexpr Number kSample = -7;
  static constexpr Number kOther = 8;
  static constexpr uint8_t kType = DESERIALIZED_TYPE_JBYTE;
  static constexpr auto& insert = natives::insertAndGetNewAndPinWithByte;
  static constexpr auto& insertBB = natives::insertAndGetNewAndPinWithByteBB;
  static constexpr auto& update = natives::updateAndGetNewAndPinWithByte;
  static constexpr auto& updateBB = natives::updateAndGetNewAndPinWithByteBB;
};
struct ShortKey {
  using Number = jshort;
  static constexpr Number kSample = -700;
  static constexpr Number kOther = 701;
  static constexpr uint8_t kType = DESERIALIZED_TYPE_JSHORT;
  static constexpr auto& insert = natives::insertAndGetNewAndPinWithShort;
  static constexpr auto& insertBB = natives::insertAndGetNewAndPinWithShortBB;
  static constexpr auto& update = natives::updateAndGetNewAndPinWithShort;
  static constexpr auto& updateBB = natives::updateAndGetNewAndPinWithShortBB;
};
struct IntKey {
  using Number = jint;
  static constexpr Number kSample = -70000;
  static constexpr Number kOther = 70001;
  static constexpr uint8_t kType = DESERIALIZED_TYPE_JINT;
  static constexpr auto& insert = natives::insertAndGetNewAndPinWithInt;
  static constexpr auto& insertBB = natives::insertAndGetNewAndPinWithIntBB;
  static constexpr auto& update = natives::updateAndGetNewAndPinWithInt;
  static constexpr auto& updateBB = natives::updateAndGetNewAndPinWithIntBB;
};
struct LongKey {
  using Number = jlong;
  static constexpr Number kSample = -7'000'000'000;
  static constexpr Number kOther = 7'000'000'001;
  static constexpr uint8_t kType = DESERIALIZED_TYPE_JLONG;
  static constexpr auto& insert = natives::insertAndGetNewAndPinWithLong;
  static constexpr auto& insertBB = natives::insertAndGetNewAndPinWithLongBB;
  static constexpr auto& update = natives::updateAndGetNewAndPinWithLong;
  static constexpr auto& updateBB = natives::updateAndGetNewAndPinWithLongBB;
};
struct FloatKey {
  using Number = jfloat;
  static constexpr Number kSample = -7.25F;
  static constexpr Number kOther = 7.5F;
  static constexpr uint8_t kType = DESERIALIZED_TYPE_JFLOAT;
  static constexpr auto& insert = natives::insertAndGetNewAndPinWithFloat;
  static constexpr auto& insertBB = natives::insertAndGetNewAndPinWithFloatBB;
  static constexpr auto& update = natives::updateAndGetNewAndPinWithFloat;
  static constexpr auto& updateBB = natives::updateAndGetNewAndPinWithFloatBB;
};
struct DoubleKey {
  using Number = jdouble;
  static constexpr Number kSample = -7.1;
  static constexpr Number kOther = 7.3;
  static constexpr uint8_t kType = DESERIALIZED_TYPE_JDOUBLE;
  static constexpr auto& insert = natives::insertAndGetNewAndPinWithDouble;
  static constexpr auto& insertBB = natives::insertAndGetNewAndPinWithDoubleBB;
  static constexpr auto& update = natives::updateAndGetNewAndPinWithDouble;
  static constexpr auto& updateBB = natives::updateAndGetNewAndPinWithDoubleBB;
};
struct BooleanKey {
  using Number = jboolean;
  static constexpr Number kSample = JNI_TRUE;
  static constexpr Number kOther = JNI_FALSE;
  static constexpr uint8_t kType = DESERIALIZED_TYPE_JBOOLEAN;
  static constexpr auto& insert = natives::insertAndGetNewAndPinWithBoolean;
  static constexpr auto& insertBB = natives::insertAndGetNewAndPinWithBooleanBB;
  static constexpr auto& update = natives::updateAndGetNewAndPinWithBoolean;
  static constexpr auto& updateBB = natives::updateAndGetNewAndPinWithBooleanBB;
};

constexpr jint kHash = 4242;

class NumberTest : public MapTest {
 protected:
  jlong mapHandle() { return handle(map); }
  jbyteArray array(std::string_view bytes) {
    return jni.newByteArray(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
  }

  template <typename Key>
  LuOffHeapValue* insertNumber(typename Key::Number key, std::string_view value = "value",
                               jshort owner = 0, jlong revision = 1) {
    return asValue(Key::insert(env, caller, mapHandle(), key, kHash, array(value),
                               static_cast<jint>(value.size()), DESERIALIZED_TYPE_OTHER, owner,
                               revision));
  }
  // The same, and only the map holds the record afterwards.
  template <typename Key>
  LuOffHeapValue* store(typename Key::Number key, std::string_view value = "value",
                        jshort owner = 0, jlong revision = 1) {
    LuOffHeapValue* made = insertNumber<Key>(key, value, owner, revision);
    EXPECT_NE(made, nullptr);
    if (made != nullptr) unpinValue(made, JNI_INSERTED_PIN);
    return made;
  }
  template <typename Key>
  LuOffHeapValue* updateNumber(typename Key::Number key, std::string_view value = "new",
                               jshort owner = 1, jlong revision = 8) {
    return asValue(Key::update(env, caller, mapHandle(), key, kHash, array(value),
                               static_cast<jint>(value.size()), DESERIALIZED_TYPE_OTHER, owner,
                               revision));
  }

  // What a search by a number finds; no pin stays.
  LuOffHeapValue* foundBy(double key) {
    LuOffHeapValue* found =
        asValue(natives::getLuValue_Number(env, caller, mapHandle(), kHash, 0, JNI_FALSE, 0, key));
    EXPECT_EQ(natives::containsKeyWithHashCodeNumber(env, caller, mapHandle(), kHash, key),
              found != nullptr ? JNI_TRUE : JNI_FALSE);
    if (found != nullptr) unpinValue(found, NATIVE_TRANSIENT_GET_PIN);
    return found;
  }
  LuOffHeapValue* foundBy(const std::u16string& key) {
    const jlongArray attributes = jni.newLongArray({0, 0, 0, 0});
    LuOffHeapValue* found = asValue(natives::getLuValue_String(
        env, caller, mapHandle(), attributes, jni.newString(key), 0, kHash, 0, JNI_FALSE, 0));
    EXPECT_EQ(
        natives::containsKeyWithHashCodeString(env, caller, mapHandle(), jni.newString(key), kHash),
        found != nullptr ? JNI_TRUE : JNI_FALSE);
    if (found != nullptr) unpinValue(found, NATIVE_TRANSIENT_GET_PIN);
    return found;
  }
  LuOffHeapValue* foundByArray(std::string_view key) {
    const jlongArray attributes = jni.newLongArray({0, 0, 0, 0});
    LuOffHeapValue* found = asValue(natives::getLuValue_ByteArray(
        env, caller, mapHandle(), attributes, array(key), kHash, 0, JNI_FALSE, 0));
    EXPECT_EQ(natives::containsKeyWithHashCodeBA(env, caller, mapHandle(), array(key), kHash),
              found != nullptr ? JNI_TRUE : JNI_FALSE);
    if (found != nullptr) unpinValue(found, JNI_GET_PIN);
    return found;
  }
  LuOffHeapValue* foundByBuffer(std::string_view key, uint8_t type = DESERIALIZED_TYPE_BINARY) {
    ByteBufferHeader* header = buffer(key, type);
    LuOffHeapValue* found = asValue(natives::getLuValue_ByteBuffer(
        env, caller, mapHandle(), javaBuffer(header), kHash, 0, JNI_FALSE, 0));
    EXPECT_EQ(natives::containsKeyWithHashCode(env, caller, mapHandle(), javaBuffer(header), kHash),
              found != nullptr ? JNI_TRUE : JNI_FALSE);
    drop(header);
    if (found != nullptr) unpinValue(found, NATIVE_TRANSIENT_GET_PIN);
    return found;
  }

  void removeAll() { clearMap(map); }
};

template <typename Key>
class NumberKeys : public NumberTest {};

using EveryKey =
    ::testing::Types<ByteKey, ShortKey, IntKey, LongKey, FloatKey, DoubleKey, BooleanKey>;
TYPED_TEST_SUITE(NumberKeys, EveryKey);

TYPED_TEST(NumberKeys, InsertByArrayStoresTheKeyInItsOwnWidth) {
  const std::string key = imageOf(TypeParam::kSample);
  LuOffHeapValue* made = asValue(TypeParam::insert(
      this->env, this->caller, this->mapHandle(), TypeParam::kSample, kHash,
      this->array("value and more"), 5, DESERIALIZED_TYPE_OTHER, static_cast<jshort>(2), 8));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(bytesOf(made->key), key);
  EXPECT_EQ(made->key->deserializedType, TypeParam::kType);
  EXPECT_EQ(made->key->pins, 1) << "the call keeps no pin";
  EXPECT_EQ(bytesOf(made->value), "value");
  EXPECT_EQ(made->value->deserializedType, DESERIALIZED_TYPE_OTHER);
  EXPECT_EQ(made->value->pins, 1);
  EXPECT_EQ(made->hashCode, kHash);
  EXPECT_EQ(made->flags, clientDirty | hashCodeGiven | HAS_VALUE);
  EXPECT_EQ(made->revisionOwner, 2);
  EXPECT_EQ(made->revisionNumber, 8);
  EXPECT_EQ(natives::getKeyType(this->env, this->caller, handle(made)), TypeParam::kType);
  EXPECT_EQ(natives::getKeyLength(this->env, this->caller, handle(made)),
            static_cast<jint>(sizeof(typename TypeParam::Number)));
  EXPECT_EQ(natives::getValueType(this->env, this->caller, handle(made)), DESERIALIZED_TYPE_OTHER);
  checkMap(this->env, this->map, {{made, 1}});
  EXPECT_EQ(this->unpinValue(made, JNI_INSERTED_PIN), 3U);
}

TYPED_TEST(NumberKeys, InsertByBufferLeavesTheCallersPinOnTheValue) {
  ByteBufferHeader* value = this->buffer("value", DESERIALIZED_TYPE_JSTRING);
  LuOffHeapValue* made =
      asValue(TypeParam::insertBB(this->env, this->caller, this->mapHandle(), TypeParam::kSample,
                                  kHash, this->javaBuffer(value), 2, 8));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->value, value) << "not copied";
  EXPECT_EQ(value->pins, 2) << "the caller's and the record's";
  EXPECT_EQ(value->deserializedType, DESERIALIZED_TYPE_JSTRING) << "the type byte stays";
  EXPECT_EQ(bytesOf(made->key), imageOf(TypeParam::kSample));
  EXPECT_EQ(made->key->deserializedType, TypeParam::kType);
  EXPECT_EQ(made->key->pins, 1);
  EXPECT_EQ(made->flags, clientDirty | hashCodeGiven | HAS_VALUE);
  this->drop(value);
  checkMap(this->env, this->map, {{made, 1}});
  EXPECT_EQ(this->unpinValue(made, JNI_INSERTED_PIN), 3U);
}

TYPED_TEST(NumberKeys, EveryTypeByteOfAValueIsKept) {
  for (const int type : {0, 12, 100, 127, -1, -128}) {
    LuOffHeapValue* made =
        asValue(TypeParam::insert(this->env, this->caller, this->mapHandle(), TypeParam::kSample,
                                  kHash, this->array("v"), 1, static_cast<jbyte>(type), 0, 1));
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->value->deserializedType, static_cast<uint8_t>(type));
    this->unpinValue(made, JNI_INSERTED_PIN);
    this->removeAll();
  }
}

TYPED_TEST(NumberKeys, AnEmptyValueIsAValue) {
  LuOffHeapValue* made = this->template store<TypeParam>(TypeParam::kSample, "");
  EXPECT_EQ(made->value->dataSize, 0U);
  EXPECT_TRUE(made->flags & HAS_VALUE);
  checkMap(this->env, this->map);
}

TYPED_TEST(NumberKeys, UpdateReplacesTheValueAndHandsOutASnapshot) {
  if (TypeParam::kType == DESERIALIZED_TYPE_JBOOLEAN) return;  // see BooleanKeys
  LuOffHeapValue* entry = this->template store<TypeParam>(TypeParam::kSample, "old", 0, 3);
  const ByteBufferHeader* key = entry->key;
  EXPECT_EQ(this->template updateNumber<TypeParam>(TypeParam::kOther), nullptr);
  for (const bool byBuffer : {false, true}) {
    const std::string before = bytesOf(entry->value);
    const std::string after = byBuffer ? "from a buffer" : "from an array";
    ByteBufferHeader* value = this->buffer(after, DESERIALIZED_TYPE_OTHER);
    LuOffHeapValue* snapshot =
        byBuffer
            ? asValue(TypeParam::updateBB(this->env, this->caller, this->mapHandle(),
                                          TypeParam::kSample, kHash, this->javaBuffer(value), 1, 8))
            : this->template updateNumber<TypeParam>(TypeParam::kSample, after);
    ASSERT_NE(snapshot, nullptr);
    EXPECT_EQ(bytesOf(snapshot->value), before);
    EXPECT_EQ(snapshot->key, key);
    EXPECT_EQ(snapshot->pins, 1);
    EXPECT_EQ(key->pins, 2) << "entry and snapshot; the search key's buffer is gone";
    EXPECT_EQ(this->unpinValue(snapshot), 0U);
    EXPECT_EQ(entry->key, key) << "the stored key stays";
    EXPECT_EQ(key->pins, 1);
    EXPECT_EQ(bytesOf(entry->value), after);
    EXPECT_EQ(entry->value->pins, byBuffer ? 2 : 1);
    EXPECT_EQ(entry->value == value, byBuffer);
    EXPECT_EQ(entry->value->deserializedType, DESERIALIZED_TYPE_OTHER);
    EXPECT_EQ(entry->revisionOwner, 1);
    EXPECT_EQ(entry->revisionNumber, 8);
    this->drop(value);
    checkMap(this->env, this->map);
  }
}

TYPED_TEST(NumberKeys, ADuplicateIsRefusedAndLeavesNothing) {
  if (TypeParam::kType == DESERIALIZED_TYPE_JBOOLEAN) return;  // see BooleanKeys
  this->template store<TypeParam>(TypeParam::kSample, "first");
  ByteBufferHeader* value = this->buffer("second");
  const Books before = Books::now();
  EXPECT_EQ(this->template insertNumber<TypeParam>(TypeParam::kSample, "second"), nullptr);
  EXPECT_EQ(TypeParam::insertBB(this->env, this->caller, this->mapHandle(), TypeParam::kSample,
                                kHash, this->javaBuffer(value), 0, 1),
            0);
  EXPECT_EQ(Books::now(), before);
  EXPECT_EQ(value->pins, 1);
  this->drop(value);
  EXPECT_EQ(contentsOf(this->map), (Rows{{imageOf(TypeParam::kSample), Row{"first", 0, 1}}}));
  checkMap(this->env, this->map);
}

TYPED_TEST(NumberKeys, OtherNumbersAndOtherHashesAreOtherKeys) {
  this->template store<TypeParam>(TypeParam::kSample, "one");
  LuOffHeapValue* other = this->template insertNumber<TypeParam>(TypeParam::kOther, "two");
  ASSERT_NE(other, nullptr);
  this->unpinValue(other, JNI_INSERTED_PIN);
  EXPECT_EQ(
      asValue(TypeParam::update(this->env, this->caller, this->mapHandle(), TypeParam::kSample,
                                kHash + 1, this->array("new"), 3, 0, 0, 1)),
      nullptr);
  EXPECT_EQ(natives::size(this->env, this->caller, this->mapHandle()), 2);
  checkMap(this->env, this->map);
}

TYPED_TEST(NumberKeys, AValueArrayThatIsTooShortChangesNothing) {
  LuOffHeapValue* entry = this->template store<TypeParam>(TypeParam::kSample, "old");
  const Books before = Books::now();
  for (const bool update : {false, true}) {
    const auto key = update ? TypeParam::kSample : TypeParam::kOther;
    auto& call = update ? TypeParam::update : TypeParam::insert;
    for (const jint length : {4, -1}) {
      EXPECT_EQ(call(this->env, this->caller, this->mapHandle(), key, kHash, this->array("new"),
                     length, 0, 0, 1),
                0);
      this->jni.takePending();
      EXPECT_EQ(Books::now(), before);
    }
  }
  EXPECT_EQ(bytesOf(entry->value), "old");
  checkMap(this->env, this->map);
}

TYPED_TEST(NumberKeys, OnlyAHeaderAddressOfZeroIsRefused) {
  const Books before = Books::now();
  // A data area right behind a header at address 0.
  const jobject value =
      this->jni.newDirectBuffer(reinterpret_cast<void*>(uintptr_t{kBufferDataOffset}), 8);
  EXPECT_EQ(TypeParam::insertBB(this->env, this->caller, this->mapHandle(), TypeParam::kSample,
                                kHash, value, 0, 1),
            0);
  EXPECT_EQ(TypeParam::updateBB(this->env, this->caller, this->mapHandle(), TypeParam::kSample,
                                kHash, value, 0, 1),
            0);
  EXPECT_FALSE(this->jni.pending().has_value());
  EXPECT_EQ(Books::now(), before) << "the key buffer is released";
  checkMap(this->env, this->map);
}

TYPED_TEST(NumberKeys, RefusedMemoryAnywhereLeavesNothing) {
  using Way = RefuseAllocation::Way;
  for (const Way way : {Way::kNothingLeft, Way::kOverMaximum}) {
    ByteBufferHeader* value = this->buffer("value");
    for (const bool byBuffer : {false, true}) {
      std::vector<std::string> labels = {"Key Data", "LuOffHeapMapValue"};
      if (!byBuffer) labels.insert(labels.begin() + 1, "Value Data");
      for (std::size_t nth = 1; nth <= labels.size(); ++nth) {
        SCOPED_TRACE(labels[nth - 1]);
        const jbyteArray bytes = this->array("value");
        const Books before = Books::now();
        RefuseAllocation refusal(static_cast<int>(nth), way);
        const jlong made =
            byBuffer ? TypeParam::insertBB(this->env, this->caller, this->mapHandle(),
                                           TypeParam::kSample, kHash, this->javaBuffer(value), 0, 1)
                     : TypeParam::insert(this->env, this->caller, this->mapHandle(),
                                         TypeParam::kSample, kHash, bytes, 5, 0, 0, 1);
        EXPECT_TRUE(refusal.fired());
        EXPECT_EQ(refusal.seen(), static_cast<int>(nth)) << "nothing is asked for afterwards";
        EXPECT_EQ(made, 0);
        EXPECT_EQ(this->jni.takePending().has_value(), way == Way::kOverMaximum);
        EXPECT_EQ(Books::now(), before);
        checkMap(this->env, this->map);
      }
    }
    this->drop(value);
  }
}

TYPED_TEST(NumberKeys, RefusedMemoryOfAnUpdateLeavesTheEntry) {
  if (TypeParam::kType == DESERIALIZED_TYPE_JBOOLEAN) return;  // see BooleanKeys
  LuOffHeapValue* entry = this->template store<TypeParam>(TypeParam::kSample, "old", 1, 3);
  for (int nth = 1; nth <= 3; ++nth) {  // key, value, snapshot
    const jbyteArray bytes = this->array("new");
    const Books before = Books::now();
    RefuseAllocation refusal(nth);
    EXPECT_EQ(TypeParam::update(this->env, this->caller, this->mapHandle(), TypeParam::kSample,
                                kHash, bytes, 3, 0, 1, 8),
              0);
    EXPECT_TRUE(refusal.fired());
    EXPECT_EQ(Books::now(), before);
    EXPECT_EQ(bytesOf(entry->value), "old");
    EXPECT_EQ(entry->revisionNumber, 3);
    checkMap(this->env, this->map);
  }
}

TYPED_TEST(NumberKeys, LocksThatFailLeaveNoBufferBehind) {
  LuOffHeapValue* entry = this->template store<TypeParam>(TypeParam::kSample, "old", 1, 3);
  const Books before = Books::now();
  this->setLevels(kErrorLevel);
  const auto calls = [&](LockRank rank, LockOp operation, bool insertToo) {
    for (const bool update : {false, true}) {
      if (!update && !insertToo) continue;
      FailLock failure(rank, operation, 1);
      auto& call = update ? TypeParam::update : TypeParam::insert;
      EXPECT_EQ(call(this->env, this->caller, this->mapHandle(),
                     update ? TypeParam::kSample : TypeParam::kOther, kHash, this->array("new"), 3,
                     0, 0, 1),
                0);
      EXPECT_TRUE(failure.fired());
      this->jni.takePending();
      EXPECT_EQ(Books::now(), before);
    }
  };
  calls(LockRank::bucketSet, LockOp::lock, true);
  // An insert that cannot lock the map leaks its record on purpose: InsertRollback tests that.
  calls(LockRank::map, LockOp::writeLock, false);
  EXPECT_EQ(bytesOf(entry->value), "old");
  this->setLevels(0);
  checkMap(this->env, this->map);
}

// ---- Exact trace -------------------------------------------------------------------------

class NumberTrace : public NumberTest {};

TEST_F(NumberTrace, KeyThenValueThenTheInsert) {
  setLevels(kAllLevels);
  LuOffHeapValue* made = insertNumber<IntKey>(7, "value", 0, 8);
  const std::vector<std::string> seen = traceOf(jni);
  setLevels(0);
  ASSERT_NE(made, nullptr);
  Script begin;
  begin.allocates("Key Data");
  begin.pins(made->key, ALLOCATION_PIN, 1);
  begin.allocates("Value Data");
  begin.pins(made->value, ALLOCATION_PIN, 1);
  begin.entry("insertAndPin",
              "luMap=%p key=%p hashCode=%d value=%p revisionOwner=%d revisionNumber=%lu "
              "withHashCode=%s",
              static_cast<void*>(map), static_cast<void*>(made->key), kHash,
              static_cast<void*>(made->value), 0, 8UL, "true");
  ASSERT_GT(seen.size(), begin.lines().size());
  EXPECT_EQ(std::vector<std::string>(
                seen.begin(), seen.begin() + static_cast<std::ptrdiff_t>(begin.lines().size())),
            begin.lines());
  // Afterwards the two creation pins go, whichever comes first.
  for (const ByteBufferHeader* header : {made->key, made->value}) {
    Script end;
    end.releasesBuffer(header, ALLOCATION_PIN, 1);
    EXPECT_NE(std::search(seen.begin(), seen.end(), end.lines().begin(), end.lines().end()),
              seen.end());
  }
  unpinValue(made, JNI_INSERTED_PIN);
}

TEST_F(NumberTrace, TheIntSevenIsFourBytesLowestFirst) {
  LuOffHeapValue* made = insertNumber<IntKey>(7);
  EXPECT_EQ(bytesOf(made->key), std::string("\x07\0\0\0", 4));
  EXPECT_EQ(natives::getKeyType(env, caller, handle(made)), 16);
  EXPECT_EQ(natives::getKeyLength(env, caller, handle(made)), 4);
  unpinValue(made, JNI_INSERTED_PIN);
}

TEST_F(NumberTrace, OnlyTheArrayGetterPinsWithTheReasonOfJavasGet) {
  unpinValue(insertNumber<IntKey>(7), JNI_INSERTED_PIN);
  const std::string key = imageOf(jint{7});
  const auto reasonOf = [this](const std::function<void()>& get) {
    setLevels(kDebugLevel);
    get();
    std::string reason;
    for (const std::string& line : jni.lines()) {
      const std::size_t at = line.find("pin:enter pin: ");
      if (at != std::string::npos) reason = line.substr(line.find("reason=") + 7);
    }
    setLevels(0);
    return reason;
  };
  EXPECT_EQ(reasonOf([&] {
              const jlongArray out = jni.newLongArray({0, 0, 0, 0});
              unpinValue(asValue(natives::getLuValue_ByteArray(env, caller, mapHandle(), out,
                                                               array(key), kHash, 0, JNI_FALSE, 0)),
                         JNI_GET_PIN);
            }),
            "JNI_GET_PIN");
  EXPECT_EQ(reasonOf([&] {
              unpinValue(asValue(natives::getLuValue_Number(env, caller, mapHandle(), kHash, 0,
                                                            JNI_FALSE, 0, 7.0)),
                         NATIVE_TRANSIENT_GET_PIN);
            }),
            "NATIVE_TRANSIENT_GET_PIN");
  ByteBufferHeader* header = buffer(key);
  EXPECT_EQ(reasonOf([&] {
              unpinValue(asValue(natives::getLuValue_ByteBuffer(
                             env, caller, mapHandle(), javaBuffer(header), kHash, 0, JNI_FALSE, 0)),
                         NATIVE_TRANSIENT_GET_PIN);
            }),
            "NATIVE_TRANSIENT_GET_PIN");
  drop(header);
}

// ---- Booleans ----------------------------------------------------------------------------

class BooleanKeys : public NumberTest {};

TEST_F(BooleanKeys, HaveNoComparisonSoNothingFindsThem) {
  LuOffHeapValue* first = store<BooleanKey>(JNI_TRUE, "first");
  EXPECT_EQ(updateNumber<BooleanKey>(JNI_TRUE), nullptr);
  EXPECT_EQ(foundBy(1.0), nullptr);
  EXPECT_EQ(natives::removeAndGetAndPinWithHashCodeNumber(env, caller, mapHandle(), kHash, 1.0), 0);
  LuOffHeapValue* second = store<BooleanKey>(JNI_TRUE, "second");
  EXPECT_NE(first, second) << "a second one counts as new";
  EXPECT_EQ(natives::size(env, caller, mapHandle()), 2);
  checkMap(env, map);
}

TEST_F(BooleanKeys, AreFoundByTheirBytes) {
  LuOffHeapValue* entry = store<BooleanKey>(JNI_TRUE);
  EXPECT_EQ(foundByArray("\x01"), entry);
  EXPECT_EQ(foundByBuffer("\x01"), entry);
  EXPECT_EQ(foundByArray(std::string(1, '\0')), nullptr);
}

// ---- Searches across widths --------------------------------------------------------------

class AcrossWidths : public NumberTest {
 protected:
  // One stored form of the number 7 (or minus 3, ...): how to make it and its key bytes.
  struct Form {
    const char* name;
    std::function<LuOffHeapValue*(double)> store;
    std::function<LuOffHeapValue*(double)> update;
    std::function<std::string(double)> image;
  };
  template <typename Key>
  Form form(const char* name) {
    using Number = typename Key::Number;
    return {name, [this](double key) { return store<Key>(static_cast<Number>(key)); },
            [this](double key) { return updateNumber<Key>(static_cast<Number>(key)); },
            [](double key) { return imageOf(static_cast<Number>(key)); }};
  }
  std::vector<Form> forms() {
    return {form<ByteKey>("byte"), form<ShortKey>("short"), form<IntKey>("int"),
            form<LongKey>("long"), form<FloatKey>("float"), form<DoubleKey>("double")};
  }
};

TEST_F(AcrossWidths, EveryWidthFindsEveryOther) {
  for (const double number : {7.0, -3.0, 0.0, 127.0, -128.0}) {
    for (const Form& stored : forms()) {
      SCOPED_TRACE(stored.name + std::string(" ") + std::to_string(number));
      LuOffHeapValue* entry = stored.store(number);
      EXPECT_EQ(foundBy(number), entry);
      EXPECT_EQ(foundBy(number + 1), nullptr);
      EXPECT_EQ(foundBy(-number - 1), nullptr);
      for (const Form& search : forms()) {
        SCOPED_TRACE(search.name);
        LuOffHeapValue* snapshot = search.update(number);
        ASSERT_NE(snapshot, nullptr);
        EXPECT_EQ(bytesOf(snapshot->key), stored.image(number)) << "the stored key keeps its width";
        EXPECT_EQ(snapshot->key->deserializedType, entry->key->deserializedType);
        unpinValue(snapshot);
        EXPECT_EQ(bytesOf(entry->value), "new");
      }
      checkMap(env, map);
      LuOffHeapValue* removed = asValue(
          natives::removeAndGetAndPinWithHashCodeNumber(env, caller, mapHandle(), kHash, number));
      EXPECT_EQ(removed, entry);
      EXPECT_EQ(unpinValue(removed, JNI_REMOVED_PIN), 0U);
    }
  }
}

TEST_F(AcrossWidths, AnInsertInAnotherWidthIsADuplicate) {
  store<IntKey>(7);
  EXPECT_EQ(insertNumber<ByteKey>(7), nullptr);
  EXPECT_EQ(insertNumber<ShortKey>(7), nullptr);
  EXPECT_EQ(insertNumber<LongKey>(7), nullptr);
  EXPECT_EQ(insertNumber<FloatKey>(7), nullptr);
  EXPECT_EQ(insertNumber<DoubleKey>(7), nullptr);
  checkMap(env, map);
}

TEST_F(AcrossWidths, BytesFindTheSameBytesOnly) {
  for (const Form& stored : forms()) {
    SCOPED_TRACE(stored.name);
    LuOffHeapValue* entry = stored.store(7);
    const std::string image = stored.image(7);
    EXPECT_EQ(foundByArray(image), entry) << "whatever the type byte says";
    EXPECT_EQ(foundByBuffer(image), entry);
    EXPECT_EQ(foundByBuffer(image, DESERIALIZED_TYPE_JSTRING), entry);
    EXPECT_EQ(foundByArray(image + '\0'), nullptr);
    std::string shorter = image;
    shorter.pop_back();
    EXPECT_EQ(foundByArray(shorter), nullptr);
    if (image.size() % 2 == 0) {
      std::u16string units;
      for (std::size_t i = 0; i < image.size(); i += 2) {
        units += static_cast<char16_t>((static_cast<uint8_t>(image[i]) << 8) |
                                       static_cast<uint8_t>(image[i + 1]));
      }
      EXPECT_EQ(foundBy(units), nullptr) << "a string finds strings only";
    }
    removeAll();
  }
}

TEST_F(AcrossWidths, NumbersDoNotFindStringsOrBytes) {
  const std::string image = imageOf(jint{7});
  ByteBufferHeader* key = buffer(image);  // binary
  ByteBufferHeader* value = buffer("value");
  LuOffHeapValue* made = asValue(natives::insertAndGetNewAndPinWithHashCode(
      env, caller, mapHandle(), javaBuffer(key), kHash, javaBuffer(value), 0, 1));
  drop(key);
  drop(value);
  unpinValue(made, JNI_INSERTED_PIN);
  EXPECT_EQ(foundBy(7.0), nullptr);
  EXPECT_EQ(foundByArray(image), made);
  EXPECT_EQ(updateNumber<IntKey>(7), nullptr);
  EXPECT_NE(store<IntKey>(7), made) << "equal bytes of another type are another key";
  EXPECT_EQ(natives::size(env, caller, mapHandle()), 2);
  checkMap(env, map);
}

TEST_F(AcrossWidths, DoublesMatchWithinTheRelativeTolerance) {
  LuOffHeapValue* entry = store<DoubleKey>(1e20 + 1e5);
  EXPECT_EQ(foundBy(1e20), entry);
  EXPECT_EQ(insertNumber<DoubleKey>(1e20), nullptr) << "a duplicate within the tolerance";
  removeAll();
  store<DoubleKey>(1e20 * (1 + 1e-13));
  EXPECT_EQ(foundBy(1e20), nullptr);
  removeAll();
  entry = store<DoubleKey>(0.1 + 0.2);
  EXPECT_EQ(foundBy(0.3), entry);
  EXPECT_EQ(foundBy(0.3000001), nullptr);
  removeAll();
  // The tolerance is relative to the search: at zero there is none.
  store<DoubleKey>(std::numeric_limits<double>::denorm_min());
  EXPECT_EQ(foundBy(0.0), nullptr);
}

TEST_F(AcrossWidths, IntegersHaveNoTolerance) {
  LuOffHeapValue* entry = store<LongKey>(1'000'000'000'000'000);
  EXPECT_EQ(foundBy(1e15), entry);
  EXPECT_EQ(foundBy(1e15 + 1), nullptr);
  EXPECT_EQ(foundBy(1e15 + 0.25), nullptr);
}

TEST_F(AcrossWidths, LongsBeyondTheMantissaMeetTheirNeighbour) {
  const jlong odd = (jlong{1} << 53) + 1;
  LuOffHeapValue* entry = store<LongKey>(odd);
  EXPECT_EQ(foundBy(static_cast<double>(odd - 1)), entry);
  EXPECT_EQ(insertNumber<LongKey>(odd - 1), nullptr) << "both are the same double";
  EXPECT_NE(store<LongKey>(odd + 1), entry);
  EXPECT_EQ(natives::size(env, caller, mapHandle()), 2);
}

TEST_F(AcrossWidths, FloatsCompareAsWidenedDoubles) {
  LuOffHeapValue* entry = store<FloatKey>(0.1F);
  EXPECT_EQ(foundBy(static_cast<double>(0.1F)), entry);
  EXPECT_EQ(foundBy(0.1), nullptr) << "the nearest double to a tenth is another number";
  removeAll();
  entry = store<FloatKey>(0.5F);
  EXPECT_EQ(foundBy(0.5), entry);
  EXPECT_EQ(insertNumber<DoubleKey>(0.5), nullptr);
}

TEST_F(AcrossWidths, NotANumberIsNeverFound) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  store<DoubleKey>(nan);
  EXPECT_EQ(foundBy(nan), nullptr);
  EXPECT_EQ(updateNumber<DoubleKey>(nan), nullptr);
  store<DoubleKey>(nan);
  store<FloatKey>(std::numeric_limits<float>::quiet_NaN());
  EXPECT_EQ(natives::size(env, caller, mapHandle()), 3) << "each counts as new";
  for (const Form& stored : forms()) {
    stored.store(7);
    EXPECT_EQ(foundBy(nan), nullptr) << stored.name;
    EXPECT_NE(foundBy(7), nullptr);
    LuOffHeapValue* removed =
        asValue(natives::removeAndGetAndPinWithHashCodeNumber(env, caller, mapHandle(), kHash, 7));
    unpinValue(removed, JNI_REMOVED_PIN);
  }
  checkMap(env, map);
}

TEST_F(AcrossWidths, SignedZerosAreOneKey) {
  for (const Form& stored : forms()) {
    for (const double zero : {0.0, -0.0}) {
      SCOPED_TRACE(stored.name);
      LuOffHeapValue* entry = stored.store(zero);
      EXPECT_EQ(foundBy(0.0), entry);
      EXPECT_EQ(foundBy(-0.0), entry);
      EXPECT_EQ(insertNumber<DoubleKey>(-0.0), nullptr);
      EXPECT_EQ(insertNumber<FloatKey>(0.0F), nullptr);
      removeAll();
    }
  }
  LuOffHeapValue* minus = store<DoubleKey>(-0.0);
  EXPECT_TRUE(std::signbit(*reinterpret_cast<const double*>(bufferData(minus->key))));
}

TEST_F(AcrossWidths, AnInfiniteSearchHasAnInfiniteTolerance) {
  const double infinity = std::numeric_limits<double>::infinity();
  LuOffHeapValue* entry = store<DoubleKey>(42.5);
  EXPECT_EQ(foundBy(infinity), entry);
  EXPECT_EQ(foundBy(-infinity), entry);
  removeAll();
  store<DoubleKey>(infinity);
  EXPECT_EQ(foundBy(infinity), nullptr) << "the difference is not a number";
  EXPECT_EQ(foundBy(1e308), nullptr);
  removeAll();
  store<LongKey>(42);
  EXPECT_EQ(foundBy(infinity), nullptr) << "integers compare exactly";
}

// ---- Strings, bytes and long keys --------------------------------------------------------

class StringKeys : public NumberTest {
 protected:
  static std::string stored(const std::u16string& units) {
    std::string bytes;
    for (const char16_t unit : units) {
      bytes += static_cast<char>(unit >> 8);
      bytes += static_cast<char>(unit & 0xFF);
    }
    return bytes;
  }
  LuOffHeapValue* storeString(const std::u16string& key) {
    LuOffHeapValue* made = asValue(natives::insertAndGetNewAndPinWithHashCodeAndString(
        env, caller, mapHandle(), jni.newString(key), kHash, array("value"), 5, 0, 0, 1));
    if (made != nullptr) unpinValue(made, JNI_INSERTED_PIN);
    return made;
  }
  LuOffHeapValue* storeArray(const std::string& key) {
    LuOffHeapValue* made = asValue(natives::insertAndGetNewAndPinWithHashCodeAndBA(
        env, caller, mapHandle(), array(key), static_cast<jint>(key.size()), 0, kHash,
        array("value"), 5, 0, 0, 1));
    if (made != nullptr) unpinValue(made, JNI_INSERTED_PIN);
    return made;
  }
};

TEST_F(StringKeys, OutsideTheBasicPlaneAreTheirSurrogates) {
  const std::u16string key = u"k\xd83d\xde00\xd834\xdd1e";
  LuOffHeapValue* entry = storeString(key);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(bytesOf(entry->key), stored(key));
  EXPECT_EQ(foundBy(key), entry);
  EXPECT_EQ(foundBy(std::u16string(u"k\xd83d\xde01\xd834\xdd1e")), nullptr) << "another low half";
  EXPECT_EQ(foundBy(std::u16string(u"k\xd83d\xde00\xd834")), nullptr) << "half a character less";
  EXPECT_EQ(foundByArray(stored(key)), entry);
  EXPECT_EQ(foundByBuffer(stored(key)), entry);
  EXPECT_EQ(storeString(key), nullptr);
  // A lone surrogate is a key like any other.
  LuOffHeapValue* lone = storeString(u"\xd83d");
  EXPECT_EQ(foundBy(std::u16string(u"\xd83d")), lone);
  EXPECT_EQ(foundBy(std::u16string(u"\xde00")), nullptr);
  EXPECT_EQ(foundBy(7.0), nullptr);
}

TEST_F(StringKeys, StringsAndEqualBytesMeetOneWayOnly) {
  LuOffHeapValue* bytes = storeArray(stored(u"ab"));
  EXPECT_EQ(foundBy(std::u16string(u"ab")), nullptr) << "the stored key is no string";
  EXPECT_EQ(foundByArray(stored(u"ab")), bytes);
  removeAll();
  LuOffHeapValue* string = storeString(u"ab");
  EXPECT_EQ(foundByArray(stored(u"ab")), string);
  EXPECT_EQ(foundByBuffer(stored(u"ab")), string);
  EXPECT_EQ(storeArray(stored(u"ab")), nullptr) << "raw bytes compare without types";
}

TEST_F(StringKeys, EmptyKeysOfEveryForm) {
  LuOffHeapValue* entry = storeString(u"");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->key->dataSize, 0U);
  EXPECT_EQ(foundBy(std::u16string()), entry);
  EXPECT_EQ(foundByArray(""), entry);
  EXPECT_EQ(foundByBuffer(""), entry);
  EXPECT_EQ(foundBy(0.0), nullptr);
  EXPECT_EQ(foundByArray(std::string(1, '\0')), nullptr);
  removeAll();
  entry = storeArray("");
  EXPECT_EQ(foundByArray(""), entry);
  EXPECT_EQ(foundByBuffer(""), entry);
  EXPECT_EQ(foundBy(std::u16string()), nullptr);
  checkMap(env, map);
}

TEST_F(StringKeys, KeysOfSixtyFiveThousandBytes) {
  std::string key(65535, 'x');
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<char>(i * 7 + i / 251);
  LuOffHeapValue* entry = storeArray(key);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(natives::getKeyLength(env, caller, handle(entry)), 65535);
  EXPECT_EQ(foundByArray(key), entry);
  EXPECT_EQ(foundByBuffer(key), entry);
  std::string other = key;
  other.back() ^= 1;
  EXPECT_EQ(foundByArray(other), nullptr) << "the last byte counts";
  EXPECT_EQ(foundByBuffer(other), nullptr);
  EXPECT_EQ(foundByArray(std::string_view(key).substr(1)), nullptr);
  LuOffHeapValue* second = storeArray(other);
  EXPECT_NE(second, nullptr);
  LuOffHeapValue* removed = asValue(
      natives::removeAndGetAndPinWithHashCodeBA(env, caller, mapHandle(), array(key), kHash));
  EXPECT_EQ(removed, entry);
  unpinValue(removed, JNI_REMOVED_PIN);
  EXPECT_EQ(foundByArray(other), second);
  removeAll();

  std::u16string units(65535, u'y');
  units.back() = u'\xde00';
  entry = storeString(units);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(natives::getKeyLength(env, caller, handle(entry)), 131070);
  EXPECT_EQ(foundBy(units), entry);
  units.back() = u'\xde01';
  EXPECT_EQ(foundBy(units), nullptr);
  checkMap(env, map);
}

// ---- Typed gets of typed inserts ---------------------------------------------------------

TEST_F(NumberTest, ATouchMovesANumbersRevision) {
  LuOffHeapValue* first = store<IntKey>(1, "value", 0, 1);
  store<IntKey>(2, "value", 0, 2);
  LuOffHeapValue* found =
      asValue(natives::getLuValue_Number(env, caller, mapHandle(), kHash, 0, JNI_TRUE, 9, 1.0));
  EXPECT_EQ(found, first);
  EXPECT_EQ(revisionsOf(map->revisionQueue[0]), (std::vector<int64_t>{2, 9}));
  checkMap(env, map, {{first, 1}});
  unpinValue(found, NATIVE_TRANSIENT_GET_PIN);
}

// ---- Flags and sizes of a value ----------------------------------------------------------

class ValueFields : public NumberTest {};

TEST_F(ValueFields, TheDirtyFlagIsSetAtFirstAndAnswersItsFormerState) {
  LuOffHeapValue* entry = store<IntKey>(7);
  const jlong value = handle(entry);
  EXPECT_TRUE(natives::isClientDirty(env, caller, value));
  EXPECT_TRUE(natives::markClientDirty(env, caller, value)) << "new values are dirty";
  EXPECT_TRUE(natives::unmarkClientDirty(env, caller, value));
  EXPECT_FALSE(natives::isClientDirty(env, caller, value));
  EXPECT_EQ(entry->flags, hashCodeGiven | HAS_VALUE) << "the other flags stay";
  EXPECT_FALSE(natives::unmarkClientDirty(env, caller, value));
  EXPECT_FALSE(natives::markClientDirty(env, caller, value));
  EXPECT_TRUE(natives::isClientDirty(env, caller, value));
  EXPECT_EQ(entry->flags, clientDirty | hashCodeGiven | HAS_VALUE);
  EXPECT_EQ(entry->pins, 3);
}

TEST_F(ValueFields, SizeIsTheRecordWithItsBuffers) {
  LuOffHeapValue* entry = store<IntKey>(7, std::string(1000, 'v'));
  const jlong size = natives::getSize(env, caller, handle(entry));
  EXPECT_EQ(size, static_cast<jlong>(alignSize(entry) + sizeofByteBufferHeader(entry->key) +
                                     sizeofByteBufferHeader(entry->value)));
  EXPECT_EQ(size, natives::getCurrentBytesUsed(env, caller, mapHandle()));

  // A value on disk counts with the length that it had.
  entry->flags = static_cast<uint16_t>(entry->flags & ~HAS_VALUE);
  setLevels(kDebugLevel);
  EXPECT_EQ(natives::getSize(env, caller, handle(entry)), size);
  EXPECT_THAT(jni.lines(),
              Contains(HasSubstr("HAS_VALUE flag not set (value has been offloaded to disk)")));
  setLevels(0);
  entry->flags |= HAS_VALUE;
  EXPECT_EQ(entry->pins, 3);
}

TEST_F(ValueFields, SizeWithoutAValueOrAKey) {
  LuOffHeapValue* bare = record(nullptr, nullptr);
  EXPECT_EQ(natives::getSize(env, caller, handle(bare)), static_cast<jlong>(alignSize(bare)));
  unpinValue(bare);
  LuOffHeapValue* keyed = record("key", nullptr);
  EXPECT_EQ(natives::getSize(env, caller, handle(keyed)),
            static_cast<jlong>(alignSize(keyed) + sizeofByteBufferHeader(keyed->key)));
  unpinValue(keyed);
}

TEST_F(ValueFields, TheSizeConstantsFollowTheOverflowSwitch) {
  EXPECT_EQ(natives::getSize_LuValue(env, manager), 88);
  EXPECT_EQ(natives::getSize_PerEntryMetadata(env, manager), 1);
  _isDiskOverflowEnabled = true;
  EXPECT_EQ(natives::getSize_LuValue(env, manager),
            static_cast<jint>(sizeof(LuOffHeapOverflowValue)));
#if defined(__x86_64__)
  EXPECT_EQ(natives::getSize_LuValue(env, manager), 232);
#endif
  EXPECT_EQ(natives::getSize_PerEntryMetadata(env, manager), 1);
  _isDiskOverflowEnabled = false;
}

TEST_F(ValueFields, NullHandles) {
  EXPECT_EQ(natives::getValueType(env, caller, 0), -1);
  EXPECT_EQ(static_cast<uint32_t>(natives::getKeyLength(env, caller, 0)), 0xFFFFFFFFU);
  const jlongArray out = jni.newLongArray({-1, -1});
  EXPECT_EQ(natives::getValueInfo(env, caller, 0, 0, out), 0);
  EXPECT_EQ(natives::staticGetValueInfo(env, nullptr, 0, out), 0);
  EXPECT_EQ(jni.longsOf(out), (std::vector<jlong>{-1, -1}));
  EXPECT_EQ(natives::isValueInMemory(env, caller, 0), -1);
}

}  // namespace
}  // namespace nimbra::test
