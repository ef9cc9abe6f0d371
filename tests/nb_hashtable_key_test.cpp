// Key comparison: every search format against every stored type, the tolerance of floating-point
// keys, strings, byte arrays, the byte hash, and the three calls into Java.

#include <gmock/gmock.h>

#include <cmath>
#include <limits>

#include "hashtable_support.h"

namespace nimbra::test::hashtable {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

class KeyCompare : public HashtableTest {
 protected:
  int32_t raw(const Bytes& search, const Bytes& stored) {
    return keycmp(env, newKey(search), newKey(stored));
  }
  int32_t array(const Bytes& search, const Bytes& stored, uint8_t type = DESERIALIZED_TYPE_BINARY) {
    return keycmp(env, jni.newByteArray(search), newKey(stored, type));
  }
  int32_t string(const std::u16string& search, const Bytes& stored,
                 uint8_t type = DESERIALIZED_TYPE_JSTRING) {
    return keycmp(env, jni.newString(search), newKey(stored, type));
  }
  template <typename Stored>
  int32_t number(double search, Stored stored, uint8_t type) {
    return keycmp(env, search, newKey(numberBytes(stored), type));
  }
  int32_t againstFloat(double search, float stored) {
    return number(search, stored, DESERIALIZED_TYPE_JFLOAT);
  }
  int32_t againstDouble(double search, double stored) {
    return number(search, stored, DESERIALIZED_TYPE_JDOUBLE);
  }
};

// --- Buffer against buffer --------------------------------------------------------------

TEST_F(KeyCompare, RawSizesDiffer) {
  EXPECT_EQ(raw({1, 2, 3}, {1, 2, 3, 4, 5}), 2);
  EXPECT_EQ(raw({1, 2, 3, 4, 5}, {1, 2, 3}), -2);
  EXPECT_EQ(raw({}, {0}), 1);
  EXPECT_EQ(raw({0}, {}), -1);
}

TEST_F(KeyCompare, RawBytesDecide) {
  EXPECT_EQ(raw({}, {}), 0);
  EXPECT_EQ(raw({0x80, 0, 0xff}, {0x80, 0, 0xff}), 0);
  EXPECT_NE(raw({1, 2, 3}, {1, 2, 4}), 0);
  EXPECT_NE(raw({0, 2, 3}, {1, 2, 3}), 0);
  // A zero byte ends nothing.
  EXPECT_NE(raw({1, 0, 2}, {1, 0, 3}), 0);
}

TEST_F(KeyCompare, RawIgnoresTypes) {
  EXPECT_EQ(keycmp(env, newKey({1}, DESERIALIZED_TYPE_JBYTE), newKey({1}, DESERIALIZED_TYPE_OTHER)),
            0);
}

TEST_F(KeyCompare, LongKeysCompareToTheirLastByte) {
  Bytes left(65535);
  for (size_t i = 0; i < left.size(); ++i) left[i] = static_cast<uint8_t>(i * 7 + 3);
  Bytes right = left;
  EXPECT_EQ(raw(left, right), 0);
  EXPECT_EQ(array(left, right), 0);
  right.back() ^= 1;
  EXPECT_NE(raw(left, right), 0);
  EXPECT_NE(array(left, right), 0);
  right.pop_back();
  EXPECT_EQ(raw(left, right), -1);
  EXPECT_EQ(array(left, right), -1);
}

TEST_F(KeyCompare, RawTraces) {
  ByteBufferHeader* three = newKey({1, 2, 3});
  ByteBufferHeader* five = newKey({1, 2, 3, 4, 5});
  setLevels(kDebugLevel);
  keycmp(env, three, five);
  keycmp(env, three, three);
  EXPECT_THAT(trace(),
              ElementsAre("debug keycmp: raw. sizes: 3 , 5", "debug keycmp: size not same",
                          "debug keycmp: raw. sizes: 3 , 3", "debug keycmp: memcmp result: 0"));
  setLevels(0);
}

// --- Byte arrays ------------------------------------------------------------------------

TEST_F(KeyCompare, ByteArrays) {
  EXPECT_EQ(array({}, {}), 0);
  EXPECT_EQ(array({1, 2, 3}, {1, 2, 3}), 0);
  EXPECT_EQ(array({1, 2, 3}, {1, 2, 3}, DESERIALIZED_TYPE_JSTRING), 0) << "types are not compared";
  EXPECT_NE(array({1, 2, 3}, {1, 2, 4}), 0);
  EXPECT_EQ(array({1, 2, 3}, {1, 2, 3, 4, 5}), 2);
  EXPECT_EQ(array({1, 2, 3, 4}, {1}), -3);
}

TEST_F(KeyCompare, ByteArrayTraces) {
  const jbyteArray search = jni.newByteArray({1, 2});
  ByteBufferHeader* same = newKey({1, 2});
  ByteBufferHeader* longer = newKey({1, 2, 3});
  setLevels(kDebugLevel);
  keycmp(env, search, same);
  keycmp(env, search, longer);
  EXPECT_THAT(
      trace(),
      ElementsAre("debug keycmp: jbyteArray. sizes: 2 , 2", "debug keycmp: memcmp result: 0",
                  "debug keycmp: jbyteArray. sizes: 2 , 3", "debug keycmp: size not same"));
  setLevels(0);
}

// The flag that the access reported serves as the release mode.
TEST_F(KeyCompare, ByteArrayReleasesWithTheCopyFlag) {
  for (const bool copies : {false, true}) {
    jni.handOutCopies(copies);
    jni.clearReleases();
    EXPECT_EQ(array({4, 5}, {4, 5}), 0);
    EXPECT_NE(array({4, 5}, {4, 6}), 0);
    ASSERT_EQ(jni.releases().size(), 2U);
    for (const ReleaseCall& release : jni.releases()) {
      EXPECT_EQ(release.mode, copies ? JNI_TRUE : JNI_FALSE);
      EXPECT_EQ(release.copied, copies);
    }
    EXPECT_EQ(jni.liveCriticals(), 0U);
  }
  jni.handOutCopies(false);
}

TEST_F(KeyCompare, SizeMismatchTakesNoCriticalAccess) {
  jni.clearCalls();
  EXPECT_NE(array({1}, {1, 2}), 0);
  EXPECT_NE(string(u"a", {0}), 0);
  EXPECT_NE(string(u"a", stringBytes(u"a"), DESERIALIZED_TYPE_BINARY), 0);
  EXPECT_EQ(jni.callCount("GetPrimitiveArrayCritical"), 0);
  EXPECT_EQ(jni.callCount("GetStringCritical"), 0);
}

TEST_F(KeyCompare, RefusedCriticalAccessIsNoMatch) {
  jni.failCall("GetPrimitiveArrayCritical");
  EXPECT_NE(array({1, 2}, {1, 2}), 0);
  jni.failCall("GetStringCritical");
  EXPECT_NE(string(u"ab", stringBytes(u"ab")), 0);
}

// --- Strings ----------------------------------------------------------------------------

TEST_F(KeyCompare, Strings) {
  EXPECT_EQ(string(u"ab", {0x00, 0x61, 0x00, 0x62}), 0);
  EXPECT_EQ(string(u"ab", {0x00, 0x61, 0x00, 0x62}, DESERIALIZED_TYPE_BINARY), 1);
  EXPECT_EQ(string(u"", {}), 0);
  EXPECT_EQ(string(u"", {}, DESERIALIZED_TYPE_BINARY), 1);
  EXPECT_EQ(string(u"ab", {0x61, 0x00, 0x62, 0x00}), 1) << "the high byte comes first";
  EXPECT_EQ(string(u"ab", {0x00, 0x61, 0x00, 0x63}), 1);
  EXPECT_EQ(string(u"ab", {0x01, 0x61, 0x00, 0x62}), 1) << "a difference in a high byte alone";
}

TEST_F(KeyCompare, StringSizesDiffer) {
  EXPECT_EQ(string(u"ab", {0, 0x61}), -2);
  EXPECT_EQ(string(u"a", {0, 0x61, 0}), 1);
  EXPECT_EQ(string(u"a", {0, 0x61, 0, 0x62, 0, 0x63}), 4);
  // The size is looked at before the type.
  EXPECT_EQ(string(u"ab", {0, 0x61}, DESERIALIZED_TYPE_BINARY), -2);
}

TEST_F(KeyCompare, StringsOutsideTheBasicPlane) {
  const std::u16string face = u"\xD83D\xDE00";
  EXPECT_EQ(string(face, {0xD8, 0x3D, 0xDE, 0x00}), 0);
  EXPECT_EQ(string(face, {0xD8, 0x3D, 0xDE, 0x01}), 1);
  EXPECT_EQ(string(u"a\xDE00", {0x00, 0x61, 0xDE, 0x00}), 0) << "a surrogate on its own";
  EXPECT_EQ(string(std::u16string(u"\0\xFFFF", 2), {0, 0, 0xff, 0xff}), 0);
  EXPECT_EQ(string(u"\xFFFF", {0xff, 0xfe}), 1);
}

TEST_F(KeyCompare, LongStrings) {
  std::u16string units(32767, u'\x8001');
  Bytes stored = stringBytes(units);
  EXPECT_EQ(string(units, stored), 0);
  stored.back() ^= 0x80;
  EXPECT_EQ(string(units, stored), 1);
}

TEST_F(KeyCompare, StringAccessIsReleased) {
  for (const bool copies : {false, true}) {
    jni.handOutCopies(copies);
    EXPECT_EQ(string(u"key", stringBytes(u"key")), 0);
    EXPECT_EQ(string(u"key", stringBytes(u"kez")), 1);
    EXPECT_EQ(jni.liveCriticals(), 0U);
  }
  jni.handOutCopies(false);
}

TEST_F(KeyCompare, StringTraces) {
  const jstring search = jni.newString(u"ab");
  ByteBufferHeader* same = newKey(stringBytes(u"ab"), DESERIALIZED_TYPE_JSTRING);
  ByteBufferHeader* other = newKey(stringBytes(u"ac"), DESERIALIZED_TYPE_JSTRING);
  ByteBufferHeader* binary = newKey(stringBytes(u"ab"));
  ByteBufferHeader* shorter = newKey(stringBytes(u"a"), DESERIALIZED_TYPE_JSTRING);
  names.name(binary, "{binary}");
  setLevels(kDebugLevel);
  for (ByteBufferHeader* stored : {same, other, binary, shorter}) keycmp(env, search, stored);
  EXPECT_THAT(
      trace(),
      ElementsAre("debug keycmp: jstring. sizes: 4 , 4",  //
                  "debug keycmp: entry comparison result: 0", "debug keycmp: jstring. sizes: 4 , 4",
                  "debug keycmp: entry comparison result: 1", "debug keycmp: jstring. sizes: 4 , 4",
                  "debug keycmp: key {binary} is not of type jstring so not equal",
                  "debug keycmp: jstring. sizes: 4 , 2",  //
                  "debug keycmp: size not same"));
  setLevels(0);
}

// --- Numbers ----------------------------------------------------------------------------

TEST_F(KeyCompare, NumbersCompareAcrossWidths) {
  for (const double value : {0.0, 1.0, 7.0, -1.0, -128.0, 127.0}) {
    EXPECT_EQ(number(value, static_cast<int8_t>(value), DESERIALIZED_TYPE_JBYTE), 0) << value;
    EXPECT_EQ(number(value, static_cast<int16_t>(value), DESERIALIZED_TYPE_JSHORT), 0) << value;
    EXPECT_EQ(number(value, static_cast<int32_t>(value), DESERIALIZED_TYPE_JINT), 0) << value;
    EXPECT_EQ(number(value, static_cast<int64_t>(value), DESERIALIZED_TYPE_JLONG), 0) << value;
    EXPECT_EQ(againstFloat(value, static_cast<float>(value)), 0) << value;
    EXPECT_EQ(againstDouble(value, value), 0) << value;

    EXPECT_EQ(number(value + 1, static_cast<int8_t>(value), DESERIALIZED_TYPE_JBYTE), -1);
    EXPECT_EQ(number(value + 1, static_cast<int16_t>(value), DESERIALIZED_TYPE_JSHORT), -1);
    EXPECT_EQ(number(value + 1, static_cast<int32_t>(value), DESERIALIZED_TYPE_JINT), -1);
    EXPECT_EQ(number(value + 1, static_cast<int64_t>(value), DESERIALIZED_TYPE_JLONG), -1);
    EXPECT_EQ(againstFloat(value + 1, static_cast<float>(value)), -1);
    EXPECT_EQ(againstDouble(value + 1, value), -1);
  }
}

TEST_F(KeyCompare, StoredIntegersAreSigned) {
  EXPECT_EQ(number(-1, uint8_t{0xff}, DESERIALIZED_TYPE_JBYTE), 0);
  EXPECT_EQ(number(255, uint8_t{0xff}, DESERIALIZED_TYPE_JBYTE), -1);
  EXPECT_EQ(number(-1, uint16_t{0xffff}, DESERIALIZED_TYPE_JSHORT), 0);
  EXPECT_EQ(number(-32768, int16_t{-32768}, DESERIALIZED_TYPE_JSHORT), 0);
  EXPECT_EQ(number(-2147483648.0, uint32_t{0x80000000U}, DESERIALIZED_TYPE_JINT), 0);
  EXPECT_EQ(number(2147483648.0, uint32_t{0x80000000U}, DESERIALIZED_TYPE_JINT), -1);
  EXPECT_EQ(number(2147483647.0, int32_t{2147483647}, DESERIALIZED_TYPE_JINT), 0);
  EXPECT_EQ(number(-9223372036854775808.0, uint64_t{1} << 63, DESERIALIZED_TYPE_JLONG), 0);
}

TEST_F(KeyCompare, StoredIntegersAreExactAfterConversion) {
  constexpr int64_t kExact = int64_t{1} << 53;
  EXPECT_EQ(number(0x1p53, kExact, DESERIALIZED_TYPE_JLONG), 0);
  // 2^53 + 1 has no double of its own: it converts to 2^53.
  EXPECT_EQ(number(0x1p53, kExact + 1, DESERIALIZED_TYPE_JLONG), 0);
  EXPECT_EQ(number(0x1p53, kExact + 2, DESERIALIZED_TYPE_JLONG), -1);
  EXPECT_EQ(number(0x1p63, std::numeric_limits<int64_t>::max(), DESERIALIZED_TYPE_JLONG), 0);
  // No tolerance for integers.
  EXPECT_EQ(number(7 * (1 + 1e-15), int32_t{7}, DESERIALIZED_TYPE_JINT), -1);
  EXPECT_EQ(number(1e15 + 1, int64_t{1000000000000000}, DESERIALIZED_TYPE_JLONG), -1);
  EXPECT_EQ(number(1.5, int8_t{1}, DESERIALIZED_TYPE_JBYTE), -1);
}

TEST_F(KeyCompare, DoublesHaveARelativeTolerance) {
  EXPECT_EQ(againstDouble(1e20, 1e20 + 1e5), 0);
  EXPECT_EQ(againstDouble(1e20, 1e20 - 1e5), 0);
  EXPECT_EQ(againstDouble(-1e20, -1e20 - 1e5), 0);
  EXPECT_EQ(againstDouble(-1e20, -1e20 + 1e5), 0);
  EXPECT_EQ(againstDouble(1e20, 1e20 * (1 + 1e-13)), -1);
  EXPECT_EQ(againstDouble(1e20, 1e20 * (1 - 1e-13)), -1);
  EXPECT_EQ(againstDouble(1e20, -1e20), -1);
  // Steps of 2^-52 from 1.0: 45 lie inside 1e-14, 46 outside; below 1.0 a step is half as wide.
  EXPECT_EQ(againstDouble(1.0, 1.0 + 45 * 0x1p-52), 0);
  EXPECT_EQ(againstDouble(1.0, 1.0 + 46 * 0x1p-52), -1);
  EXPECT_EQ(againstDouble(1.0, 1.0 - 90 * 0x1p-53), 0);
  EXPECT_EQ(againstDouble(1.0, 1.0 - 91 * 0x1p-53), -1);
  // The smallest numbers have a tolerance that rounds to nothing.
  EXPECT_EQ(againstDouble(5e-324, 5e-324), 0);
  EXPECT_EQ(againstDouble(5e-324, 1e-323), -1);
  EXPECT_EQ(againstDouble(1e-300, 0.0), -1);
}

TEST_F(KeyCompare, FloatsCompareWithTheDifferenceRoundedToFloat) {
  EXPECT_EQ(againstFloat(0.1F, 0.1F), 0);
  EXPECT_EQ(againstFloat(0.1, 0.1F), -1) << "the float nearest to 0.1 is 1.5e-9 away";
  EXPECT_EQ(againstFloat(16777216.0, 16777216.0F), 0);
  EXPECT_EQ(againstFloat(16777217.0, 16777216.0F), -1);
  EXPECT_EQ(againstFloat(1.0 + 1e-15, 1.0F), 0);
  EXPECT_EQ(againstFloat(1.0 - 1e-15, 1.0F), 0);
  EXPECT_EQ(againstFloat(1.0 + 1e-13, 1.0F), -1);
  EXPECT_EQ(againstFloat(1.0 - 1e-13, 1.0F), -1);
  // A difference that no float can show counts as none; a stored double shows it.
  EXPECT_EQ(againstFloat(1e-50, 0.0F), 0);
  EXPECT_EQ(againstDouble(1e-50, 0.0), -1);
  // A difference that overflows a float is infinite.
  EXPECT_EQ(againstFloat(1e300, 1.0F), -1);
}

TEST_F(KeyCompare, ZeroIsExactAndHasNoSign) {
  for (const double zero : {0.0, -0.0}) {
    EXPECT_EQ(againstDouble(zero, 0.0), 0);
    EXPECT_EQ(againstDouble(zero, -0.0), 0);
    EXPECT_EQ(againstFloat(zero, 0.0F), 0);
    EXPECT_EQ(againstFloat(zero, -0.0F), 0);
    EXPECT_EQ(number(zero, int8_t{0}, DESERIALIZED_TYPE_JBYTE), 0);
    EXPECT_EQ(number(zero, int64_t{0}, DESERIALIZED_TYPE_JLONG), 0);
    EXPECT_EQ(againstDouble(zero, 5e-324), -1);
    EXPECT_EQ(againstFloat(zero, 1e-45F), -1);
    EXPECT_EQ(againstDouble(zero, kNan), -1);
    EXPECT_EQ(againstFloat(zero, static_cast<float>(kNan)), -1);
  }
}

TEST_F(KeyCompare, NanEqualsNothing) {
  for (const double other : {kNan, 0.0, 1.0, kInfinity, -kInfinity}) {
    EXPECT_EQ(againstDouble(kNan, other), -1);
    EXPECT_EQ(againstDouble(other, kNan), -1);
    EXPECT_EQ(againstFloat(kNan, static_cast<float>(other)), -1);
    EXPECT_EQ(againstFloat(other, static_cast<float>(kNan)), -1);
  }
  EXPECT_EQ(number(kNan, int64_t{0}, DESERIALIZED_TYPE_JLONG), -1);
  EXPECT_EQ(number(kNan, int8_t{0}, DESERIALIZED_TYPE_JBYTE), -1);
}

// The tolerance of an infinite search number is infinite as well: it equals every stored float and
// double whose distance to it is a number, which leaves out NaN and the same infinity.
TEST_F(KeyCompare, InfinityFollowsTheToleranceFormula) {
  for (const double sign : {1.0, -1.0}) {
    const double search = sign * kInfinity;
    for (const double stored : {0.0, 1.0, -1e300, 1e300, -search}) {
      EXPECT_EQ(againstDouble(search, stored), 0) << search << " " << stored;
    }
    for (const float stored : {0.0F, 1.0F, -3e38F, 3e38F}) {
      EXPECT_EQ(againstFloat(search, stored), 0) << search << " " << stored;
    }
    EXPECT_EQ(againstFloat(search, static_cast<float>(-search)), 0);
    EXPECT_EQ(againstDouble(search, search), -1);
    EXPECT_EQ(againstFloat(search, static_cast<float>(search)), -1);
    EXPECT_EQ(number(search, std::numeric_limits<int64_t>::max(), DESERIALIZED_TYPE_JLONG), -1);
    // A finite search number never equals a stored infinity.
    EXPECT_EQ(againstDouble(sign * 1.7e308, search), -1);
    EXPECT_EQ(againstFloat(sign * 3e38, static_cast<float>(search)), -1);
  }
}

TEST_F(KeyCompare, NumbersEqualNoOtherType) {
  for (const uint8_t type :
       {DESERIALIZED_TYPE_BINARY, DESERIALIZED_TYPE_JBOOLEAN, DESERIALIZED_TYPE_JCHAR,
        DESERIALIZED_TYPE_JSTRING, DESERIALIZED_TYPE_OTHER, uint8_t{7}, uint8_t{255}}) {
    EXPECT_EQ(number(1, 1.0F, type), -1) << int{type};
    EXPECT_EQ(number(1, int64_t{1}, type), -1) << int{type};
    EXPECT_EQ(number(0, int64_t{0}, type), -1) << int{type};
  }
}

TEST_F(KeyCompare, NumberTraces) {
  ByteBufferHeader* stored[] = {newKey(numberBytes(int8_t{2}), DESERIALIZED_TYPE_JBYTE),
                                newKey(numberBytes(2.0F), DESERIALIZED_TYPE_JFLOAT),
                                newKey(numberBytes(2.5), DESERIALIZED_TYPE_JDOUBLE),
                                newKey(numberBytes(2.0), DESERIALIZED_TYPE_BINARY)};
  setLevels(kDebugLevel);
  for (ByteBufferHeader* key : stored) keycmp(env, 2.0, key);
  EXPECT_THAT(trace(),
              ElementsAre("debug keycmp: cmp result: 0",  //
                          "debug keycmp: jfloat. 2.000000, 2.000000", "debug keycmp: cmp result: 0",
                          "debug keycmp: jdouble. 2.000000, 2.500000",
                          "debug keycmp: cmp result: -1",  //
                          "debug keycmp: cmp result: -1"));
  setLevels(0);
}

// --- Every search format against every stored type --------------------------------------

struct StoredKey {
  uint8_t type;
  Bytes bytes;
};

// One, as each type stores it.
std::vector<StoredKey> storedOnes() {
  return {
      {DESERIALIZED_TYPE_BINARY, {1}},
      {DESERIALIZED_TYPE_JBYTE, {1}},
      {DESERIALIZED_TYPE_JBOOLEAN, {1}},
      {DESERIALIZED_TYPE_JCHAR, numberBytes(uint16_t{1})},
      {DESERIALIZED_TYPE_JSHORT, numberBytes(int16_t{1})},
      {DESERIALIZED_TYPE_JINT, numberBytes(int32_t{1})},
      {DESERIALIZED_TYPE_JLONG, numberBytes(int64_t{1})},
      {DESERIALIZED_TYPE_JFLOAT, numberBytes(1.0F)},
      {DESERIALIZED_TYPE_JDOUBLE, numberBytes(1.0)},
      {DESERIALIZED_TYPE_JSTRING, stringBytes(u"1")},
      {DESERIALIZED_TYPE_OTHER, {1}},
      {7, {1}},  // no such type
  };
}

bool isNumber(uint8_t type) {
  return type >= DESERIALIZED_TYPE_JBYTE && type <= DESERIALIZED_TYPE_JDOUBLE &&
         type != DESERIALIZED_TYPE_JBOOLEAN && type != DESERIALIZED_TYPE_JCHAR;
}

class KeyMatrix : public KeyCompare {
 protected:
  // Does a table that holds only `stored` answer a search without a key buffer?
  bool finds(const StoredKey& stored, const void* search, uint8_t format) {
    Table table(env, newTable());
    DefaultEntry* entry = add(table, stored.bytes, 5, stored.type);
    BucketSet* set = nullptr;
    Bucket* bucket = nullptr;
    const SetLock lock(table, 5);
    Pinnable* direct = search_memcmp(env, table, search, format, 5, &set, &bucket);
    EXPECT_EQ(_getMapEntry(env, nullptr, table, search, format, nullptr, 5), direct);
    EXPECT_TRUE(direct == nullptr || direct == entry);
    return direct != nullptr;
  }
  // The same with the key in a buffer of its own.
  bool findsBuffer(const StoredKey& stored, ByteBufferHeader* search, uint8_t format) {
    Table table(env, newTable());
    DefaultEntry* entry = add(table, stored.bytes, 5, stored.type);
    const SetLock lock(table, 5);
    Pinnable* found = _getMapEntry(env, nullptr, table, nullptr, format, search, 5);
    EXPECT_TRUE(found == nullptr || found == entry);
    return found != nullptr;
  }
};

TEST_F(KeyMatrix, NumberSearchesFindEveryNumberType) {
  const int8_t byteOne = 1;
  const int16_t shortOne = 1;
  const int32_t intOne = 1;
  const int64_t longOne = 1;
  const float floatOne = 1;
  const double doubleOne = 1;
  const std::pair<uint8_t, const void*> searches[] = {
      {OBJECT_TYPE_JBYTE, &byteOne},   {OBJECT_TYPE_JSHORT, &shortOne},
      {OBJECT_TYPE_JINT, &intOne},     {OBJECT_TYPE_JLONG, &longOne},
      {OBJECT_TYPE_JFLOAT, &floatOne}, {OBJECT_TYPE_JDOUBLE, &doubleOne},
  };
  for (const auto& [format, search] : searches) {
    for (const StoredKey& stored : storedOnes()) {
      EXPECT_EQ(finds(stored, search, format), isNumber(stored.type))
          << "format " << int{format} << ", stored type " << int{stored.type};
    }
  }
}

TEST_F(KeyMatrix, BufferSearchesFindTheSameBytesOfAnyType) {
  for (const StoredKey& search : storedOnes()) {
    ByteBufferHeader* key = newKey(search.bytes, search.type);
    for (const StoredKey& stored : storedOnes()) {
      EXPECT_EQ(finds(stored, key, OBJECT_TYPE_VALUEHEADER), stored.bytes == search.bytes)
          << "search type " << int{search.type} << ", stored type " << int{stored.type};
    }
  }
}

TEST_F(KeyMatrix, ArraySearchesFindTheSameBytesOfAnyType) {
  for (const StoredKey& search : storedOnes()) {
    jbyteArray array = jni.newByteArray(search.bytes);
    for (const StoredKey& stored : storedOnes()) {
      EXPECT_EQ(finds(stored, &array, OBJECT_TYPE_JBYTE_ARRAY), stored.bytes == search.bytes);
    }
  }
}

TEST_F(KeyMatrix, StringSearchesFindStringsOnly) {
  jstring string = jni.newString(u"1");
  for (StoredKey stored : storedOnes()) {
    EXPECT_EQ(finds(stored, &string, OBJECT_TYPE_JSTRING),
              stored.type == DESERIALIZED_TYPE_JSTRING);
    stored.bytes = stringBytes(u"1");
    EXPECT_EQ(finds(stored, &string, OBJECT_TYPE_JSTRING),
              stored.type == DESERIALIZED_TYPE_JSTRING);
  }
}

TEST_F(KeyMatrix, OtherFormatsFindNothing) {
  const uint64_t one = 1;
  for (const int format : {OBJECT_TYPE_JBOOLEAN + 0, OBJECT_TYPE_JCHAR + 0,
                           OBJECT_TYPE_JBYTE_BUFFER + 0, OBJECT_TYPE_OTHER + 0, 0, 10, 21, 255}) {
    for (const StoredKey& stored : storedOnes()) {
      EXPECT_FALSE(finds(stored, &one, static_cast<uint8_t>(format))) << format;
    }
  }
}

// With a key buffer a number format reads the number from the buffer's data, a boolean or char
// format finds nothing, and every other format compares the bytes.
TEST_F(KeyMatrix, KeyBuffersWithEveryFormat) {
  const std::map<uint8_t, Bytes> numbers = {
      {OBJECT_TYPE_JBYTE, numberBytes(int8_t{1})}, {OBJECT_TYPE_JSHORT, numberBytes(int16_t{1})},
      {OBJECT_TYPE_JINT, numberBytes(int32_t{1})}, {OBJECT_TYPE_JLONG, numberBytes(int64_t{1})},
      {OBJECT_TYPE_JFLOAT, numberBytes(1.0F)},     {OBJECT_TYPE_JDOUBLE, numberBytes(1.0)},
  };
  for (const auto& [format, bytes] : numbers) {
    ByteBufferHeader* key = newKey(bytes, format);
    for (const StoredKey& stored : storedOnes()) {
      EXPECT_EQ(findsBuffer(stored, key, format), isNumber(stored.type))
          << "format " << int{format} << ", stored type " << int{stored.type};
    }
  }
  ByteBufferHeader* eight = newKey(numberBytes(int64_t{1}));
  for (const StoredKey& stored : storedOnes()) {
    EXPECT_FALSE(findsBuffer(stored, eight, OBJECT_TYPE_JBOOLEAN));
    EXPECT_FALSE(findsBuffer(stored, eight, OBJECT_TYPE_JCHAR));
  }
  for (const StoredKey& search : storedOnes()) {
    ByteBufferHeader* key = newKey(search.bytes, search.type);
    for (const int format :
         {OBJECT_TYPE_VALUEHEADER + 0, OBJECT_TYPE_JSTRING + 0, OBJECT_TYPE_JBYTE_ARRAY + 0,
          OBJECT_TYPE_JBYTE_BUFFER + 0, OBJECT_TYPE_OTHER + 0, 0, 255}) {
      for (const StoredKey& stored : storedOnes()) {
        EXPECT_EQ(findsBuffer(stored, key, static_cast<uint8_t>(format)),
                  stored.bytes == search.bytes)
            << "format " << format << ", types " << int{search.type} << " " << int{stored.type};
      }
    }
  }
}

TEST_F(KeyMatrix, NumberSearchesCarrySignAndFraction) {
  const int8_t minusOne = -1;
  EXPECT_TRUE(
      finds({DESERIALIZED_TYPE_JLONG, numberBytes(int64_t{-1})}, &minusOne, OBJECT_TYPE_JBYTE));
  const float half = 0.5F;
  EXPECT_TRUE(finds({DESERIALIZED_TYPE_JDOUBLE, numberBytes(0.5)}, &half, OBJECT_TYPE_JFLOAT));
  EXPECT_FALSE(finds({DESERIALIZED_TYPE_JINT, numberBytes(int32_t{0})}, &half, OBJECT_TYPE_JFLOAT));
  const int16_t low = -32768;
  EXPECT_TRUE(
      finds({DESERIALIZED_TYPE_JINT, numberBytes(int32_t{-32768})}, &low, OBJECT_TYPE_JSHORT));
  const int64_t huge = (int64_t{1} << 53) + 1;
  EXPECT_TRUE(
      finds({DESERIALIZED_TYPE_JLONG, numberBytes(int64_t{1} << 53)}, &huge, OBJECT_TYPE_JLONG))
      << "both become the same double";
}

// --- The byte hash ----------------------------------------------------------------------

TEST_F(KeyCompare, ByteHash) {
  EXPECT_EQ(hashFn(newKey({})), 0);
  EXPECT_EQ(hashFn(newKey({0xff})), -1);
  EXPECT_EQ(hashFn(newKey({0x80})), -128);
  EXPECT_EQ(hashFn(newKey({0x7f})), 127);
  EXPECT_EQ(hashFn(newKey(textBytes("abc"))), 96354);
  EXPECT_EQ(hashFn(newKey(textBytes("hello, world"))), -640608884);
  EXPECT_EQ(hashFn(newKey(Bytes(8, 0xff))), 1635069824);
  Bytes everyByte(256);
  for (size_t i = 0; i < everyByte.size(); ++i) everyByte[i] = static_cast<uint8_t>(i);
  EXPECT_EQ(hashFn(newKey(everyByte)), -369688448);
  Bytes longKey(65535);
  for (size_t i = 0; i < longKey.size(); ++i) longKey[i] = static_cast<uint8_t>(i * 7 + 3);
  EXPECT_EQ(hashFn(newKey(longKey)), -857837700);
  EXPECT_EQ(hashFn(newKey({1}, DESERIALIZED_TYPE_OTHER)), 1) << "the type is no part of it";
}

// --- Calls into Java --------------------------------------------------------------------

class KeyCalls : public KeyCompare {
 protected:
  void SetUp() override {
    KeyCompare::SetUp();
    compare_ = compareMethod;
    deserialize_ = deserializeMethod;
    phantom_ = allocateDirectFromPhantomMethod;
    ASSERT_NE(compare_, nullptr);
    ASSERT_NE(deserialize_, nullptr);
    ASSERT_NE(phantom_, nullptr);
  }
  void TearDown() override {
    compareMethod = compare_;
    deserializeMethod = deserialize_;
    allocateDirectFromPhantomMethod = phantom_;
    KeyCompare::TearDown();
  }

 private:
  jmethodID compare_ = nullptr;
  jmethodID deserialize_ = nullptr;
  jmethodID phantom_ = nullptr;
};

TEST_F(KeyCalls, ArgumentsAndResultsPass) {
  jobject map = jni.newMapObject();
  Bytes data = {1, 2, 3};
  jobject buffer = jni.newDirectBuffer(data.data(), 3);
  jobject object = jni.newObject();
  jni.onDeserialize([&](jobject given) {
    EXPECT_TRUE(jni.sameObject(given, buffer));
    return object;
  });
  jobject result = deserialize(env, map, buffer);
  EXPECT_FALSE(env->ExceptionCheck());
  EXPECT_TRUE(jni.sameObject(jni.adopt(result), object));

  bool answer = true;
  jni.onCompare([&](jobject key, jobject given) {
    EXPECT_TRUE(jni.sameObject(key, object));
    EXPECT_TRUE(jni.sameObject(given, buffer));
    return answer;
  });
  EXPECT_EQ(compare(env, map, object, buffer), JNI_TRUE);
  EXPECT_FALSE(env->ExceptionCheck());
  answer = false;
  EXPECT_EQ(compare(env, map, object, buffer), JNI_FALSE);
  EXPECT_FALSE(env->ExceptionCheck());

  jni.onAllocateDirectFromPhantom([&](jlong address, jint length) {
    EXPECT_EQ(address, reinterpret_cast<jlong>(data.data()));
    EXPECT_EQ(length, 3);
    return buffer;
  });
  result = allocateDirectFromPhantom(env, map, data.data(), 3);
  EXPECT_FALSE(env->ExceptionCheck());
  EXPECT_TRUE(jni.sameObject(jni.adopt(result), buffer));
}

TEST_F(KeyCalls, NullMethodsAnswerWithoutACall) {
  jobject map = jni.newMapObject();
  jobject object = jni.newObject();
  compareMethod = nullptr;
  deserializeMethod = nullptr;
  allocateDirectFromPhantomMethod = nullptr;
  jni.clearCalls();
  EXPECT_EQ(deserialize(env, map, object), nullptr);
  EXPECT_EQ(compare(env, map, object, object), JNI_FALSE);
  EXPECT_EQ(allocateDirectFromPhantom(env, map, &object, 8), nullptr);
  EXPECT_THAT(jni.calls(), IsEmpty());
}

TEST_F(KeyCalls, NullResultsPass) {
  jobject map = jni.newMapObject();
  jni.onDeserialize([](jobject) -> jobject { return nullptr; });
  jni.onAllocateDirectFromPhantom([](jlong, jint) -> jobject { return nullptr; });
  EXPECT_EQ(deserialize(env, map, jni.newHeapBuffer()), nullptr);
  EXPECT_FALSE(env->ExceptionCheck());
  EXPECT_EQ(allocateDirectFromPhantom(env, map, map, 8), nullptr);
  EXPECT_FALSE(env->ExceptionCheck());
}

}  // namespace
}  // namespace nimbra::test::hashtable
