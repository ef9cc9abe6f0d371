// Key comparisons and hashes against an oracle of their own: every form of a search key against
// every type of a stored one, directly and through a table.

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "hashtable_support.h"
#include "targets.h"

namespace nimbra::fuzz {
namespace {

using test::hashtable::Bytes;
using test::hashtable::numberBytes;

// ---- The oracle --------------------------------------------------------------------------------

// Wide enough to hold the product of two doubles without rounding.
#if defined(__SIZEOF_FLOAT128__)
__extension__ using Wide = __float128;
#else
using Wide = long double;
#endif

Wide magnitude(Wide number) { return number < 0 ? -number : number; }

template <typename Number>
std::optional<Number> read(const Bytes& bytes) {
  if (bytes.size() < sizeof(Number)) return std::nullopt;
  Number number;
  std::copy_n(bytes.begin(), sizeof number, reinterpret_cast<uint8_t*>(&number));
  return number;
}

template <typename Integer>
bool equalsInteger(double search, const Bytes& stored) {
  const std::optional<Integer> number = read<Integer>(stored);
  // A long double holds every 64-bit integer; the double nearest to it is what counts.
  return number && static_cast<double>(static_cast<long double>(*number)) == search;
}

// Both sides are rounded to what the comparison keeps of them: `Kept` is float or double.
template <typename Kept>
bool withinTolerance(double search, double stored) {
  if (std::isnan(search) || std::isnan(stored)) return false;
  if (search == 0) return stored == 0;
  if (std::isinf(search) && std::isinf(stored)) return std::signbit(search) != std::signbit(stored);
  if (std::isinf(search)) return true;  // an infinite number has an infinite tolerance
  if (std::isinf(stored)) return false;
  const auto tolerance = static_cast<double>(magnitude(search) * static_cast<Wide>(1e-14));
  const auto exact = static_cast<double>(magnitude(static_cast<Wide>(search) - stored));
  return static_cast<double>(static_cast<Kept>(exact)) <= tolerance;
}

bool equalsNumber(double search, uint8_t type, const Bytes& stored) {
  switch (type) {
    case 12: return equalsInteger<int8_t>(search, stored);
    case 15: return equalsInteger<int16_t>(search, stored);
    case 16: return equalsInteger<int32_t>(search, stored);
    case 17: return equalsInteger<int64_t>(search, stored);
    case 18: {
      const std::optional<float> number = read<float>(stored);
      return number && withinTolerance<float>(search, *number);
    }
    case 19: {
      const std::optional<double> number = read<double>(stored);
      return number && withinTolerance<double>(search, *number);
    }
    default: return false;
  }
}

int sign(int64_t number) { return (number > 0) - (number < 0); }

// The sign of a bytewise comparison, or the difference of the sizes as 32 bits.
int32_t compared(const Bytes& search, const Bytes& stored) {
  if (search.size() != stored.size()) {
    return static_cast<int32_t>(stored.size()) - static_cast<int32_t>(search.size());
  }
  const auto [ours, theirs] = std::mismatch(search.begin(), search.end(), stored.begin());
  return ours == search.end() ? 0 : (*ours < *theirs ? -1 : 1);
}

// The polynomial over signed bytes, term by term from the end.
int32_t hashOfBytes(const Bytes& bytes) {
  uint64_t hash = 0;
  uint64_t power = 1;
  for (auto at = bytes.rbegin(); at != bytes.rend(); ++at) {
    const int64_t signedByte = *at < 128 ? *at : *at - 256;
    hash += static_cast<uint64_t>(signedByte) * power;
    power *= 31;
  }
  return static_cast<int32_t>(static_cast<uint32_t>(hash));
}

// ---- The runs ----------------------------------------------------------------------------------

constexpr uint8_t kTypes[] = {0, 12, 13, 14, 15, 16, 17, 18, 19, 20, 100};
constexpr uint8_t kNumberFormats[] = {12, 15, 16, 17, 18, 19};

// A search number in its format.
struct SearchNumber {
  uint8_t format;
  Bytes bytes;
  double value;
};

template <typename Number>
SearchNumber searchNumber(uint8_t format, Number number) {
  return {format, numberBytes(number), static_cast<double>(number)};
}

class KeyCompareRun : public Run<test::hashtable::HashtableTest> {
  void play(Input& input) override {
    for (int round = 0; round < 16 && !input.atEnd(); ++round) {
      uint8_t type = kTypes[input.below(std::size(kTypes))];
      if (input.oneIn(16)) type = input.byte();
      const Bytes stored = storedBytes(input, type);
      ByteBufferHeader* key = newKey(stored, type);
      EXPECT_EQ(hashFn(key), hashOfBytes(stored));
      const uint32_t hash = input.oneIn(4) ? 0 : static_cast<uint32_t>(hashOfBytes(stored));
      // Unowned by the run: the table frees it.
      const test::hashtable::Table table(env, newTable());
      ASSERT_NE(add(table, stored, hash, type), nullptr);
      switch (input.below(4)) {
        case 0: searchBuffer(input, table, key, stored, hash); break;
        case 1: searchArray(input, table, key, stored, hash); break;
        case 2: searchString(input, table, key, stored, hash, type); break;
        default: searchByNumber(input, table, key, stored, hash, type); break;
      }
      EXPECT_FALSE(jni.pending().has_value());
    }
  }

  // Mostly as long as the type wants it.
  static Bytes storedBytes(Input& input, uint8_t type) {
    switch (type) {
      case 12: return input.oneIn(8) ? input.bytes(4) : numberBytes(input.number<int8_t>());
      case 15: return input.oneIn(8) ? input.bytes(4) : numberBytes(input.number<int16_t>());
      case 16: return input.oneIn(8) ? input.bytes(8) : numberBytes(input.number<int32_t>());
      case 17: return input.oneIn(8) ? input.bytes(12) : numberBytes(input.number<int64_t>());
      case 18: return input.oneIn(8) ? input.bytes(8) : numberBytes(input.number<float>());
      case 19: return input.oneIn(8) ? input.bytes(12) : numberBytes(input.number<double>());
      default: return input.bytes(24);
    }
  }
  // The stored bytes, the same with a change, or others.
  static Bytes near(Input& input, const Bytes& stored) {
    Bytes bytes = stored;
    switch (input.below(5)) {
      case 0: break;
      case 1:
        if (!bytes.empty()) bytes[input.below(256) % bytes.size()] ^= input.byte();
        break;
      case 2:
        if (!bytes.empty()) bytes.pop_back();
        break;
      case 3: bytes.push_back(input.byte()); break;
      default: bytes = input.bytes(24); break;
    }
    return bytes;
  }

  bool finds(MapHeader* table, const void* key, uint8_t format, ByteBufferHeader* keyBuffer,
             uint32_t hash) {
    DefaultEntry search = test::hashtable::searchEntry(keyBuffer, hash);
    return hashtable_containsKey(env, nullptr, table, key, format, &search) != 0;
  }

  void searchBuffer(Input& input, MapHeader* table, const ByteBufferHeader* key,
                    const Bytes& stored, uint32_t hash) {
    const Bytes bytes = near(input, stored);
    ByteBufferHeader* search = newKey(bytes, kTypes[input.below(std::size(kTypes))]);
    const int32_t expected = compared(bytes, stored);
    const int32_t result = keycmp(env, search, key);
    if (bytes.size() == stored.size()) {
      EXPECT_EQ(sign(result), expected);
    } else {
      EXPECT_EQ(result, expected);
    }
    // Every format without a search of its own compares the buffers.
    uint8_t format = input.oneIn(2) ? OBJECT_TYPE_JBYTE_BUFFER : OBJECT_TYPE_VALUEHEADER;
    if (input.oneIn(8)) format = input.byte();
    if (format >= OBJECT_TYPE_JBYTE && format <= OBJECT_TYPE_JDOUBLE) format = OBJECT_TYPE_OTHER;
    EXPECT_EQ(finds(table, nullptr, format, search, hash), expected == 0);
    EXPECT_FALSE(finds(table, nullptr, format, search, hash + 1)) << "another hash";
    EXPECT_FALSE(finds(table, nullptr, format, nullptr, hash)) << "no key at all";
  }

  void searchArray(Input& input, MapHeader* table, const ByteBufferHeader* key, const Bytes& stored,
                   uint32_t hash) {
    const Bytes bytes = near(input, stored);
    const jbyteArray search = jni.newByteArray(bytes);
    const int32_t expected = compared(bytes, stored);
    const bool refused = bytes.size() == stored.size() && input.oneIn(8);
    if (refused) jni.failCall("GetPrimitiveArrayCritical");
    const int32_t result = keycmp(env, search, key);
    if (refused) {
      EXPECT_NE(result, 0) << "a comparison without memory is no match";
    } else if (bytes.size() == stored.size()) {
      EXPECT_EQ(sign(result), expected);
    } else {
      EXPECT_EQ(result, expected);
    }
    jni.clearFailures();
    EXPECT_EQ(finds(table, &search, OBJECT_TYPE_JBYTE_ARRAY, nullptr, hash), expected == 0);
  }

  void searchString(Input& input, MapHeader* table, const ByteBufferHeader* key,
                    const Bytes& stored, uint32_t hash, uint8_t type) {
    Bytes bytes = near(input, stored);
    if (bytes.size() % 2 != 0) bytes.push_back(input.byte());
    std::u16string units;
    for (size_t i = 0; i < bytes.size(); i += 2) {
      units.push_back(static_cast<char16_t>(bytes[i] * 256 + bytes[i + 1]));
    }
    const jstring search = jni.newString(units);
    const bool sameSize = bytes.size() == stored.size();
    const bool expected = bytes == stored && type == 20;
    const bool refused = sameSize && type == 20 && input.oneIn(8);
    if (refused) jni.failCall("GetStringCritical");
    const int32_t result = keycmp(env, search, key);
    if (sameSize) {
      EXPECT_EQ(result == 0, expected && !refused);
    } else {
      EXPECT_EQ(result, compared(bytes, stored));
    }
    jni.clearFailures();
    EXPECT_EQ(finds(table, &search, OBJECT_TYPE_JSTRING, nullptr, hash), expected);
  }

  // The stored number in some format, perhaps a few steps beside it, or any number.
  static SearchNumber numberNear(Input& input, uint8_t type, const Bytes& stored) {
    const uint8_t format = kNumberFormats[input.below(std::size(kNumberFormats))];
    double value = 0;
    if (type == 12) value = read<int8_t>(stored).value_or(0);
    if (type == 15) value = read<int16_t>(stored).value_or(0);
    if (type == 16) value = read<int32_t>(stored).value_or(0);
    if (type == 17) value = static_cast<double>(read<int64_t>(stored).value_or(0));
    if (type == 18) value = read<float>(stored).value_or(0);
    if (type == 19) value = read<double>(stored).value_or(0);
    switch (input.below(4)) {
      case 0: break;
      case 1:
        // The tolerance is 45 to 90 steps wide.
        for (int steps = input.number<int8_t>(); steps != 0; steps += steps < 0 ? 1 : -1) {
          value = std::nextafter(value, steps < 0 ? -INFINITY : INFINITY);
        }
        break;
      case 2: value = std::fabs(value) < 1e300 ? -value : value; break;
      default: value = input.number<double>(); break;
    }
    // Only numbers that the format holds are converted to it.
    const bool fits = std::fabs(value) < 9e18;
    const int64_t whole = fits ? static_cast<int64_t>(value) : input.number<int64_t>();
    switch (format) {
      case 12: return searchNumber(format, static_cast<int8_t>(whole));
      case 15: return searchNumber(format, static_cast<int16_t>(whole));
      case 16: return searchNumber(format, static_cast<int32_t>(whole));
      case 17: return searchNumber(format, whole);
      case 18: return searchNumber(format, static_cast<float>(value));
      default: return searchNumber(format, value);
    }
  }

  void searchByNumber(Input& input, MapHeader* table, const ByteBufferHeader* key,
                      const Bytes& stored, uint32_t hash, uint8_t type) {
    const SearchNumber number = numberNear(input, type, stored);
    const bool expected = equalsNumber(number.value, type, stored);
    EXPECT_EQ(keycmp(env, number.value, key), expected ? 0 : -1)
        << "number " << number.value << " against type " << int{type};
    EXPECT_EQ(finds(table, number.bytes.data(), number.format, nullptr, hash), expected);
    // As the number natives search: by a buffer of their own.
    EXPECT_EQ(finds(table, nullptr, number.format, newKey(number.bytes, number.format), hash),
              expected);
    // No comparison is defined for these two.
    const uint8_t unsearchable = input.oneIn(2) ? OBJECT_TYPE_JBOOLEAN : OBJECT_TYPE_JCHAR;
    EXPECT_FALSE(finds(table, number.bytes.data(), unsearchable, nullptr, hash));
    EXPECT_FALSE(finds(table, nullptr, unsearchable, newKey(stored, type), hash));
  }
};

}  // namespace

void fuzzKeyCompare(Input& input) {
  KeyCompareRun run;
  run(input);
}

}  // namespace nimbra::fuzz
