// Sequences of table operations against a standard map: insert, get, update, remove, clear and
// growth, with keys in every bitwise form, colliding hashes, and growth that gets no memory.

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "fuzz_support.h"
#include "hashtable_support.h"
#include "targets.h"

namespace nimbra::fuzz {
namespace {

using test::RefuseAllocation;
using test::hashtable::Bytes;

struct Row {
  Bytes value;
  uint8_t type;
};

// How a search brings its key.
enum class Form { kBuffer, kArray, kString };

class HashtableRun : public Run<test::hashtable::HashtableTest> {
  void play(Input& input) override {
    static constexpr uint32_t kMasks[] = {0, 1, 0x7, 0xf0000000, 0xffff, 0xffffffff};
    static constexpr float kLoadFactors[] = {0.25F, 0.5F, 0.75F, 1, 3, 1000};
    mask_ = kMasks[input.below(std::size(kMasks))];
    const test::hashtable::Shape shape{1U << input.below(6), 1U << input.below(5),
                                       kLoadFactors[input.below(std::size(kLoadFactors))]};
    test::hashtable::Table table(env, newTable(shape));
    ASSERT_NE(static_cast<MapHeader*>(table), nullptr);
    table_ = table;
    while (!input.atEnd()) {
      switch (input.below(12)) {
        case 0:
        case 1:
        case 2:
        case 3: insert(input); break;
        case 4:
        case 5: get(input); break;
        case 6: contains(input); break;
        case 7: updateByKey(input); break;
        case 8: updateEntry(input); break;
        case 9:
        case 10: remove(input); break;
        default:
          if (input.oneIn(8)) clear();
          check();
          break;
      }
      ASSERT_FALSE(jni.pending().has_value());
    }
    check();
    clear();
    check();
  }

  // Few enough keys that they meet, of every length up to 5.
  static Bytes key(Input& input) {
    Bytes bytes = input.bytes(5);
    for (uint8_t& one : bytes) one &= 0x83;
    return bytes;
  }
  uint32_t hashOf(const Bytes& key) const {
    uint32_t hash = 17;
    for (const uint8_t one : key) hash = hash * 0x9e3779b1 + one;
    return hash & mask_;
  }
  static std::string nameOf(const Bytes& key) { return {key.begin(), key.end()}; }

  void insert(Input& input) {
    const Bytes bytes = key(input);
    const uint8_t type = input.oneIn(2) ? DESERIALIZED_TYPE_JSTRING : DESERIALIZED_TYPE_BINARY;
    const Row row{input.bytes(12), type};
    static constexpr int32_t kForms[] = {OBJECT_TYPE_JBYTE_BUFFER, OBJECT_TYPE_JSTRING,
                                         OBJECT_TYPE_JBYTE_ARRAY};
    const int32_t form = kForms[input.below(std::size(kForms))];
    DefaultEntry* entry = test::hashtable::newEntry(env, bytes, hashOf(bytes), row.type, row.value);
    const bool isNew = !rows_.contains(nameOf(bytes));
    int32_t inserted = -1;
    Pinnable* result = nullptr;
    {
      std::optional<RefuseAllocation> refusal;
      if (input.oneIn(4)) {
        refusal.emplace(1, input.oneIn(2) ? RefuseAllocation::Way::kNothingLeft
                                          : RefuseAllocation::Way::kOverMaximum);
      }
      result = hashtable_insertAndPin(env, nullptr, table_, nullptr, form, entry, &inserted, true);
    }
    EXPECT_EQ(inserted, isNew ? 1 : 0);
    EXPECT_EQ(result, isNew ? entry : nullptr);
    if (result != nullptr) unpinEntry(env, entry, JNI_INSERTED_PIN);
    unpinEntry(env, entry, ALLOCATION_PIN);
    if (isNew) rows_[nameOf(bytes)] = row;
  }

  // A key in one of its forms, and whether a search with it has to find the row.
  struct Search {
    Bytes bytes;
    Form form;
    DefaultEntry entry;
    jobject reference;
    Row* row;

    const void* key() const { return form == Form::kBuffer ? nullptr : &reference; }
    uint8_t format() const {
      switch (form) {
        case Form::kArray: return OBJECT_TYPE_JBYTE_ARRAY;
        case Form::kString: return OBJECT_TYPE_JSTRING;
        default: return OBJECT_TYPE_JBYTE_BUFFER;
      }
    }
  };
  Search search(Input& input) {
    Search result{key(input), static_cast<Form>(input.below(3)), {}, nullptr, nullptr};
    if (result.form == Form::kString && result.bytes.size() % 2 != 0) result.bytes.pop_back();
    const Bytes& bytes = result.bytes;
    const auto found = rows_.find(nameOf(bytes));
    if (found != rows_.end()) result.row = &found->second;
    ByteBufferHeader* buffer = nullptr;
    switch (result.form) {
      case Form::kBuffer: buffer = newKey(bytes, input.byte() % 2 == 0 ? 0 : 20); break;
      case Form::kArray: result.reference = jni.newByteArray(bytes); break;
      case Form::kString: {
        std::u16string units;
        for (size_t i = 0; i < bytes.size(); i += 2) {
          units.push_back(static_cast<char16_t>(bytes[i] << 8 | bytes[i + 1]));
        }
        result.reference = jni.newString(units);
        // Only a stored string equals a string.
        if (result.row != nullptr && result.row->type != DESERIALIZED_TYPE_JSTRING) {
          result.row = nullptr;
        }
        break;
      }
    }
    result.entry = test::hashtable::searchEntry(buffer, hashOf(bytes));
    return result;
  }

  void expectRow(Pinnable* found, const Search& wanted) {
    ASSERT_EQ(found != nullptr, wanted.row != nullptr) << "key " << nameOf(wanted.bytes);
    if (found == nullptr) return;
    auto* entry = static_cast<DefaultEntry*>(found);
    EXPECT_EQ(test::bytesOf(entry->key), nameOf(wanted.bytes));
    EXPECT_EQ(test::bytesOf(entry->value), nameOf(wanted.row->value));
    EXPECT_EQ(entry->key->deserializedType, wanted.row->type);
    EXPECT_EQ(entry->value->pins, 1);
  }

  void get(Input& input) {
    Search wanted = search(input);
    Pinnable* found = hashtable_getAndPin(env, nullptr, table_, wanted.key(), wanted.format(),
                                          &wanted.entry, true, JNI_GET_PIN);
    expectRow(found, wanted);
    if (found != nullptr) {
      EXPECT_EQ(found->pins, 2);
      unpinEntry(env, found, JNI_GET_PIN);
    }
  }

  void contains(Input& input) {
    Search wanted = search(input);
    EXPECT_EQ(
        hashtable_containsKey(env, nullptr, table_, wanted.key(), wanted.format(), &wanted.entry),
        wanted.row != nullptr ? 1 : 0);
  }

  void updateByKey(Input& input) {
    Search wanted = search(input);
    const Bytes bytes = input.bytes(12);
    ByteBufferHeader* value = newBuffer(bytes);
    wanted.entry.value = value;
    ByteBufferHeader* previous = nullptr;
    const bool wantsPrevious = input.oneIn(2);
    ByteBufferHeader* before = currentValue(wanted);
    Pinnable* found =
        hashtable_updateAndPin(env, nullptr, table_, wanted.key(), wanted.format(), &wanted.entry,
                               wantsPrevious ? &previous : nullptr, true);
    ASSERT_EQ(found != nullptr, wanted.row != nullptr);
    if (found == nullptr) {
      EXPECT_EQ(previous, nullptr);
      freeByteBufferData(env, value);
      return;
    }
    unpinEntry(env, found, JNI_UPDATED_PIN);
    ASSERT_NE(before, nullptr);
    if (wantsPrevious) {
      EXPECT_EQ(previous, before);
      EXPECT_EQ(unpinToFree(env, previous, MAPENTRY_VALUE_PIN), 0);
    } else {
      EXPECT_EQ(before->pins, 0) << "nobody else holds the old value";
      freeByteBufferData(env, before);
    }
    wanted.row->value = bytes;
  }

  ByteBufferHeader* currentValue(Search& wanted) {
    if (wanted.row == nullptr) return nullptr;
    Pinnable* found = hashtable_getAndPin(env, nullptr, table_, wanted.key(), wanted.format(),
                                          &wanted.entry, true, JNI_GET_PIN);
    if (found == nullptr) return nullptr;
    ByteBufferHeader* value = static_cast<DefaultEntry*>(found)->value;
    unpinEntry(env, found, JNI_GET_PIN);
    return value;
  }

  void updateEntry(Input& input) {
    Search wanted = search(input);
    Pinnable* found = hashtable_getAndPin(env, nullptr, table_, wanted.key(), wanted.format(),
                                          &wanted.entry, true, JNI_GET_PIN);
    expectRow(found, wanted);
    if (found == nullptr) return;
    const Bytes bytes = input.bytes(12);
    ByteBufferHeader* before = static_cast<DefaultEntry*>(found)->value;
    EXPECT_EQ(hashtable_update(env, nullptr, table_, found, newBuffer(bytes), true), found);
    EXPECT_EQ(before->pins, 0);
    freeByteBufferData(env, before);
    unpinEntry(env, found, JNI_GET_PIN);
    wanted.row->value = bytes;
  }

  void remove(Input& input) {
    Search wanted = search(input);
    Pinnable* found = hashtable_removeAndPin(env, nullptr, table_, wanted.key(), wanted.format(),
                                             &wanted.entry, true);
    expectRow(found, wanted);
    if (found == nullptr) return;
    EXPECT_EQ(found->pins, 1) << "the caller's pin is the last one";
    unpinEntry(env, found, JNI_REMOVED_PIN);
    rows_.erase(nameOf(wanted.bytes));
  }

  void clear() {
    hashtable_clear(env, table_);
    rows_.clear();
  }

  // The table holds what the model holds, and every entry lies where it belongs.
  void check() {
    EXPECT_EQ(test::hashtable::checkTable(env, table_), static_cast<int64_t>(rows_.size()));
    for (uint32_t i = 0; i < table_->numBucketSets; ++i) {
      const BucketSet* set = getBucketSetByIndex(table_, i);
      for (uint32_t bucket = 0; bucket < set->bucketCount; ++bucket) {
        for (Pinnable* at = set->buckets[bucket]; at != nullptr; at = table_->getNext(env, at)) {
          const auto* entry = static_cast<DefaultEntry*>(at);
          const auto row = rows_.find(test::bytesOf(entry->key));
          ASSERT_NE(row, rows_.end()) << "an entry that was never put, or was removed";
          EXPECT_EQ(test::bytesOf(entry->value), nameOf(row->second.value));
        }
      }
    }
  }

  std::unordered_map<std::string, Row> rows_;
  MapHeader* table_ = nullptr;
  uint32_t mask_ = 0;
};

}  // namespace

void fuzzHashtable(Input& input) {
  HashtableRun run;
  run(input);
}

}  // namespace nimbra::fuzz
