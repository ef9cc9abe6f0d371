// What the hashtable tests share: tables, buffers and entries with known pins, traces turned into
// readable lines, and the walk that checks a table's invariants.

#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "nb_hashtable.h"
#include "test_support.h"

namespace nimbra::test::hashtable {

using Bytes = std::vector<uint8_t>;

inline Bytes textBytes(std::string_view text) { return {text.begin(), text.end()}; }

// A number in the machine's own order, as number keys are stored.
template <typename Number>
Bytes numberBytes(Number number) {
  Bytes bytes(sizeof number);
  std::memcpy(bytes.data(), &number, sizeof number);
  return bytes;
}

// UTF-16 units, high byte first, as string keys are stored.
inline Bytes stringBytes(std::u16string_view units) {
  Bytes bytes;
  for (const char16_t unit : units) {
    bytes.push_back(static_cast<uint8_t>(unit >> 8));
    bytes.push_back(static_cast<uint8_t>(unit & 0xff));
  }
  return bytes;
}

// --- Traces -----------------------------------------------------------------------------

// Gives addresses names, so that a recorded line reads the same in every run. An address without a
// name becomes "?".
class Names {
 public:
  Names& name(const void* address, const std::string& label) {
    labels_[printed(address)] = label;
    return *this;
  }

  std::string apply(const std::string& text) const {
    std::string result;
    for (size_t at = 0; at < text.size();) {
      if (text.compare(at, 2, "0x") != 0) {
        result += text[at++];
        continue;
      }
      size_t end = at + 2;
      while (end < text.size() && std::isxdigit(static_cast<unsigned char>(text[end])) != 0) ++end;
      const auto found = labels_.find(text.substr(at, end - at));
      result += found == labels_.end() ? "?" : found->second;
      at = end;
    }
    return result;
  }

 private:
  std::map<std::string, std::string> labels_;
};

// "level function: text", or "level text" for the levels that carry no function name, with every
// address named. Records of the allocator and the lines of pin backtraces are left out.
inline std::vector<std::string> traceOf(const ScriptedJni& jni, const Names& names) {
  static const std::set<std::string> kLeftOut = {"malloc_nb", "free_nb", "pin backtrace",
                                                 "unpin backtrace"};
  std::vector<std::string> lines;
  for (const LogRecord& record : jni.records()) {
    if (!record.text.starts_with("JNI:")) {
      const std::string key = record.key.empty() ? "" : " " + record.key;
      lines.push_back(record.level + key + " " + names.apply(record.text));
      continue;
    }
    const size_t colon = record.text.find(':', 4);
    const std::string function = record.text.substr(4, colon - 4);
    if (kLeftOut.contains(function)) continue;
    lines.push_back(record.level + " " + function + ": " +
                    names.apply(record.text.substr(colon + 1)));
  }
  return lines;
}

// "*" in the pattern stands for any text.
inline bool matches(std::string_view pattern, std::string_view text) {
  if (pattern.empty()) return text.empty();
  if (pattern[0] == '*') {
    for (size_t skipped = 0; skipped <= text.size(); ++skipped) {
      if (matches(pattern.substr(1), text.substr(skipped))) return true;
    }
    return false;
  }
  return !text.empty() && text[0] == pattern[0] && matches(pattern.substr(1), text.substr(1));
}

inline void expectTrace(const std::vector<std::string>& actual,
                        const std::vector<std::string>& expected) {
  bool same = actual.size() == expected.size();
  for (size_t i = 0; same && i < expected.size(); ++i) same = matches(expected[i], actual[i]);
  if (same) return;
  std::ostringstream report;
  report << "the trace differs\n";
  for (size_t i = 0; i < std::max(actual.size(), expected.size()); ++i) {
    const std::string wanted = i < expected.size() ? expected[i] : "(nothing)";
    const std::string found = i < actual.size() ? actual[i] : "(nothing)";
    if (i < expected.size() && i < actual.size() && matches(wanted, found)) {
      report << "    " << found << "\n";
    } else {
      report << "  - " << wanted << "\n  + " << found << "\n";
    }
  }
  ADD_FAILURE() << report.str();
}

// The pins and unpins of a trace in order: "+REASON object" and "-REASON object".
inline std::vector<std::string> pinsOf(const ScriptedJni& jni, const Names& names) {
  std::vector<std::string> moves;
  for (const LogRecord& record : jni.records()) {
    const bool pinned = record.text.starts_with("JNI:pin:enter pin: header=");
    const bool unpinned = record.text.starts_with("JNI:unpin:enter unpin: header=");
    if (!pinned && !unpinned) continue;
    const size_t header = record.text.find("header=") + 7;
    const size_t comma = record.text.find(',', header);
    const size_t reason = record.text.find("reason=") + 7;
    moves.push_back((pinned ? "+" : "-") + record.text.substr(reason) + " " +
                    names.apply(record.text.substr(header, comma - header)));
  }
  return moves;
}

// The blocks of one type that the allocator's records say were handed out.
inline std::vector<void*> allocatedBlocks(const ScriptedJni& jni, const std::string& type) {
  std::vector<void*> blocks;
  for (const LogRecord& record : jni.records()) {
    if (!record.text.ends_with(" type=" + type)) continue;
    for (const std::string start : {"JNI:malloc_nb:malloc=", "JNI:malloc_nb:jemalloc="}) {
      if (!record.text.starts_with(start)) continue;
      const char* address = record.text.c_str() + start.size();
      blocks.push_back(reinterpret_cast<void*>(std::strtoull(address, nullptr, 16)));
    }
  }
  return blocks;
}

// --- Tables and entries -----------------------------------------------------------------

struct Shape {
  uint32_t capacity = 1;
  uint32_t concurrency = 1;
  float loadFactor = 1000;  // one bucket a set, and no growth in the way of a test
};

// Destroys its table at the end of the scope.
class Table {
 public:
  Table(JNIEnv* env, MapHeader* header) : env_(env), header_(header) {}
  ~Table() {
    if (header_ != nullptr) hashtable_destroy(env_, header_);
  }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
  operator MapHeader*() const { return header_; }  // NOLINT(google-explicit-constructor)
  MapHeader* operator->() const { return header_; }
  BucketSet* set(uint32_t index = 0) const { return getBucketSetByIndex(header_, index); }
  // Destroys the table now.
  void destroy() {
    hashtable_destroy(env_, header_);
    header_ = nullptr;
  }
  void release() { header_ = nullptr; }

 private:
  JNIEnv* const env_;
  MapHeader* header_;
};

// Holds the set of a hash for the length of a scope.
class SetLock {
 public:
  SetLock(MapHeader* header, uint32_t hash) : set_(getBucketSet(header, hash)) {
    EXPECT_EQ(lockBucketSet(set_), 0);
  }
  ~SetLock() { EXPECT_EQ(unlockBucketSet(set_), 0); }
  SetLock(const SetLock&) = delete;
  SetLock& operator=(const SetLock&) = delete;
  BucketSet* set() const { return set_; }

 private:
  BucketSet* const set_;
};

// What a caller makes to carry key, hash and (for an update) value. It is no member of any table
// and holds no pin.
inline DefaultEntry searchEntry(ByteBufferHeader* key, uint32_t hash,
                                ByteBufferHeader* value = nullptr) {
  DefaultEntry entry{};
  entry.key = key;
  entry.value = value;
  entry.hash = hash;
  return entry;
}

// A buffer without a pin.
inline ByteBufferHeader* newBuffer(JNIEnv* env, const Bytes& bytes,
                                   uint8_t type = DESERIALIZED_TYPE_BINARY) {
  ByteBufferHeader* buffer = allocateByteBufferData(env, bytes.size(), "Key Data");
  if (buffer == nullptr) return nullptr;
  if (!bytes.empty()) std::memcpy(bufferData(buffer), bytes.data(), bytes.size());
  buffer->deserializedType = type;
  return buffer;
}

// An entry with one ALLOCATION_PIN, whose key and value each hold the entry's pin.
inline DefaultEntry* newEntry(JNIEnv* env, const Bytes& key, uint32_t hash,
                              uint8_t type = DESERIALIZED_TYPE_BINARY,
                              const Bytes& value = {1, 2, 3}) {
  DefaultEntry* entry = allocateMapEntry(env);
  entry->next = nullptr;
  entry->key = newBuffer(env, key, type);
  entry->value = newBuffer(env, value);
  entry->hash = hash;
  pin(env, entry->key, MAPENTRY_KEY_PIN);
  pin(env, entry->value, MAPENTRY_VALUE_PIN);
  return entry;
}

inline MapHeader* newTable(JNIEnv* env, const Shape& shape, UnpinEntryFn unpin = nullptr,
                           SizeofEntryFn sizeofEntry = nullptr) {
  return initializeMap(env, shape.capacity, shape.concurrency, shape.loadFactor, false, 7, 3,
                       nullptr, nullptr, nullptr, nullptr, unpin, nullptr, sizeofEntry, nullptr,
                       deserialize, compare, allocateDirectFromPhantom);
}

// Inserts and keeps only the chain's pin. The entry, or null when an equal key was there (the new
// entry is then freed).
inline DefaultEntry* insertOwned(JNIEnv* env, MapHeader* header, DefaultEntry* entry,
                                 int32_t keyType = OBJECT_TYPE_JBYTE_BUFFER) {
  int32_t inserted = -1;
  Pinnable* result =
      hashtable_insertAndPin(env, nullptr, header, nullptr, keyType, entry, &inserted, true);
  EXPECT_EQ(inserted, result == nullptr ? 0 : 1);
  if (result != nullptr) unpinEntry(env, entry, JNI_INSERTED_PIN);
  unpinEntry(env, entry, ALLOCATION_PIN);
  return result == nullptr ? nullptr : entry;
}

// The chain of the bucket that the hash selects.
inline std::vector<Pinnable*> chainOf(JNIEnv* env, MapHeader* header, uint32_t hash) {
  BucketSet* set = nullptr;
  Bucket* bucket = nullptr;
  std::vector<Pinnable*> chain;
  const SetLock lock(header, hash);
  for (Pinnable* entry = getFirstEntryByHashCode(header, hash, &set, &bucket); entry != nullptr;
       entry = header->getNext(env, entry)) {
    chain.push_back(entry);
  }
  return chain;
}

// Every entry lies where its hash says, every count is the length of its chains, and bytesUsed is
// the sum of the entries' sizes. Call it while nothing writes. Returns the number of entries.
inline int64_t checkTable(JNIEnv* env, MapHeader* header) {
  int64_t entries = 0;
  int64_t bytes = 0;
  EXPECT_EQ(header->bucketSetMask, header->numBucketSets - 1);
  for (uint32_t index = 0; index < header->numBucketSets; ++index) {
    BucketSet* set = getBucketSetByIndex(header, index);
    EXPECT_EQ(set->bucketMask, set->bucketCount - 1);
    EXPECT_EQ(set->bucketCount & set->bucketMask, 0U);
    uint32_t count = 0;
    for (uint32_t bucket = 0; bucket < set->bucketCount; ++bucket) {
      for (Pinnable* entry = set->buckets[bucket]; entry != nullptr;
           entry = header->getNext(env, entry)) {
        const uint32_t hash = header->getHash(env, entry);
        EXPECT_EQ(getBucketSet(header, hash), set);
        EXPECT_EQ(hashFn32(hash) & set->bucketMask, bucket);
        EXPECT_GE(lockRead(&entry->pins), 1);
        bytes += static_cast<int64_t>(header->sizeofEntry(env, entry));
        ++count;
      }
    }
    EXPECT_EQ(set->size, count) << "set " << index;
    entries += count;
  }
  EXPECT_EQ(hashtable_bytesUsed(env, header), bytes);
  EXPECT_EQ(hashtable_size(env, header), entries);
  return entries;
}

class HashtableTest : public LibraryTest {
 protected:
  MapHeader* newTable(const Shape& shape = {}) { return hashtable::newTable(env, shape); }
  DefaultEntry* add(MapHeader* header, const Bytes& key, uint32_t hash,
                    uint8_t type = DESERIALIZED_TYPE_BINARY, const Bytes& value = {1, 2, 3}) {
    DefaultEntry* entry = insertOwned(env, header, newEntry(env, key, hash, type, value));
    EXPECT_NE(entry, nullptr) << "an equal key is in the table";
    return entry;
  }
  ByteBufferHeader* newBuffer(const Bytes& bytes, uint8_t type = DESERIALIZED_TYPE_BINARY) {
    return hashtable::newBuffer(env, bytes, type);
  }
  // A key to search with; freed at the end of the test.
  ByteBufferHeader* newKey(const Bytes& bytes, uint8_t type = DESERIALIZED_TYPE_BINARY) {
    ByteBufferHeader* key = hashtable::newBuffer(env, bytes, type);
    keys_.push_back(key);
    return key;
  }
  void TearDown() override {
    for (ByteBufferHeader* key : keys_) freeByteBufferData(env, key);
    LibraryTest::TearDown();
  }
  std::vector<std::string> trace() const { return traceOf(jni, names); }
  std::vector<std::string> pins() const { return pinsOf(jni, names); }

  Names names;

 private:
  std::vector<ByteBufferHeader*> keys_;
};

inline std::string lockErrorLine(const std::string& site) {
  return "errorGeneric OFFHEAP_GENERIC_LOCK_ERROR_KTZAR7928 Error acquiring BucketSet [" + site +
         "] lock in Nimbra library.";
}

}  // namespace nimbra::test::hashtable
