// Random operations on one table beside a heap map, on one thread and on many.
//
// The seed is printed and can be set with NIMBRA_TEST_SEED, which repeats a run of one thread
// exactly and gives each of many threads the same decisions.

#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <unordered_map>

#include "hashtable_support.h"

namespace nimbra::test::hashtable {
namespace {

constexpr uint8_t kFormat = OBJECT_TYPE_JBYTE_BUFFER;

uint64_t testSeed() {
  const char* given = std::getenv("NIMBRA_TEST_SEED");
  const uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device{}();
  std::printf("NIMBRA_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
  return seed;
}

using Random = std::mt19937_64;

uint32_t below(Random& random, uint32_t limit) { return static_cast<uint32_t>(random() % limit); }

Bytes keyOf(uint32_t number) {
  // Lengths from 0 to 6: keys that are prefixes of others, and keys of one length.
  Bytes key(number % 7);
  const uint64_t digits = number / 7;
  for (size_t i = 0; i < key.size(); ++i) key[i] = static_cast<uint8_t>(digits >> (8 * i));
  return key;
}

// A value that says which key it belongs to, so that a foreign or freed value shows.
Bytes valueOf(uint32_t key, uint32_t version) {
  Bytes value(8 + version % 57, static_cast<uint8_t>(key * 31 + version));
  std::memcpy(value.data(), &key, 4);
  std::memcpy(value.data() + 4, &version, 4);
  return value;
}

bool isValueOf(const ByteBufferHeader* value, uint32_t key) {
  if (value->dataSize < 8) return false;
  uint32_t parts[2];
  std::memcpy(parts, bufferData(value), sizeof parts);
  const Bytes expected = valueOf(key, parts[1]);
  return parts[0] == key && value->dataSize == expected.size() &&
         std::memcmp(bufferData(value), expected.data(), expected.size()) == 0;
}

uint64_t wholeSize(JNIEnv*, Pinnable* entry) {
  auto* record = static_cast<DefaultEntry*>(entry);
  // The key never changes; the value only under the set's mutex, where this is called.
  return entrySize(record->key, record, record->value);
}

// One thread's view of a shared table: operations that return what they found, with every pin given
// back.
class Actor {
 public:
  Actor(MapHeader* header, uint32_t hashes) : env_(jni_.env()), header_(header), hashes_(hashes) {}

  // Equal keys have equal hashes; few hashes make long chains.
  uint32_t hashOf(uint32_t key) const { return (key % hashes_) * 0x9e3779b9U; }

  bool insert(uint32_t key, uint32_t version) {
    DefaultEntry* entry =
        newEntry(env_, keyOf(key), hashOf(key), DESERIALIZED_TYPE_BINARY, valueOf(key, version));
    int32_t inserted = -1;
    Pinnable* result =
        hashtable_insertAndPin(env_, nullptr, header_, nullptr, kFormat, entry, &inserted, true);
    EXPECT_EQ(inserted, result == nullptr ? 0 : 1);
    if (result != nullptr) {
      EXPECT_EQ(result, entry);
      header_->unpinEntry(env_, result, JNI_INSERTED_PIN);
    }
    header_->unpinEntry(env_, entry, ALLOCATION_PIN);
    return result != nullptr;
  }

  // Through updateAndPin, with the old value handed over or dropped.
  bool replace(uint32_t key, uint32_t version, bool keepPrevious) {
    const SearchKey search(env_, key, hashOf(key), valueOf(key, version));
    if (keepPrevious) {
      ByteBufferHeader* previous = nullptr;
      Pinnable* entry = hashtable_updateAndPin(env_, nullptr, header_, nullptr, kFormat,
                                               search.entry(), &previous, true);
      if (entry == nullptr) return false;
      EXPECT_TRUE(isValueOf(previous, key));
      unpinToFree(env_, previous, MAPENTRY_VALUE_PIN);
      header_->unpinEntry(env_, entry, JNI_UPDATED_PIN);
      return true;
    }
    Pinnable* entry = nullptr;
    {
      const SetLock lock(header_, hashOf(key));
      ByteBufferHeader* old = pinnedValue(key);
      entry = hashtable_updateAndPin(env_, nullptr, header_, nullptr, kFormat, search.entry(),
                                     nullptr, false);
      EXPECT_EQ(entry == nullptr, old == nullptr);
      if (old != nullptr) unpinToFree(env_, old, TRANSPORT_PIN);
    }
    if (entry != nullptr) header_->unpinEntry(env_, entry, JNI_UPDATED_PIN);
    return entry != nullptr;
  }

  // Through hashtable_update on the entry itself.
  bool update(uint32_t key, uint32_t version) {
    ByteBufferHeader* value = newBuffer(env_, valueOf(key, version));
    bool present = false;
    {
      const SetLock lock(header_, hashOf(key));
      ByteBufferHeader* old = pinnedValue(key);
      present = old != nullptr;
      if (present) {
        const SearchKey search(env_, key, hashOf(key));
        Pinnable* entry = _getMapEntry(env_, nullptr, header_, nullptr, kFormat, search.key(),
                                       static_cast<int32_t>(hashOf(key)));
        EXPECT_EQ(hashtable_update(env_, nullptr, header_, entry, value, false), entry);
        unpinToFree(env_, old, TRANSPORT_PIN);
      }
    }
    if (!present) freeByteBufferData(env_, value);
    return present;
  }

  // The value's bytes, or nothing.
  std::optional<Bytes> get(uint32_t key) {
    ByteBufferHeader* value = nullptr;
    {
      const SetLock lock(header_, hashOf(key));
      value = pinnedValue(key);
    }
    if (value == nullptr) return std::nullopt;
    EXPECT_TRUE(isValueOf(value, key));
    Bytes bytes(bufferData(value), bufferData(value) + value->dataSize);
    unpinToFree(env_, value, TRANSPORT_PIN);
    return bytes;
  }

  // Pins the entry through the table's own lock; the key cannot change and is read without it.
  bool getAndPin(uint32_t key) {
    const SearchKey search(env_, key, hashOf(key));
    Pinnable* entry = hashtable_getAndPin(env_, nullptr, header_, nullptr, kFormat, search.entry(),
                                          true, JNI_GET_PIN);
    if (entry == nullptr) return false;
    const ByteBufferHeader* stored = header_->getKey(env_, entry);
    EXPECT_EQ(Bytes(bufferData(stored), bufferData(stored) + stored->dataSize), keyOf(key));
    header_->unpinEntry(env_, entry, JNI_GET_PIN);
    return true;
  }

  bool contains(uint32_t key) {
    const SearchKey search(env_, key, hashOf(key));
    return hashtable_containsKey(env_, nullptr, header_, nullptr, kFormat, search.entry()) == 1;
  }

  bool remove(uint32_t key, bool locked) {
    const SearchKey search(env_, key, hashOf(key));
    Pinnable* entry = nullptr;
    if (locked) {
      entry =
          hashtable_removeAndPin(env_, nullptr, header_, nullptr, kFormat, search.entry(), true);
    } else {
      const SetLock lock(header_, hashOf(key));
      entry =
          hashtable_removeAndPin(env_, nullptr, header_, nullptr, kFormat, search.entry(), false);
    }
    if (entry == nullptr) return false;
    EXPECT_TRUE(isValueOf(header_->getValue(env_, entry), key));
    header_->unpinEntry(env_, entry, JNI_REMOVED_PIN);
    return true;
  }

  JNIEnv* env() const { return env_; }
  ScriptedJni& jni() { return jni_; }

 private:
  // A key to search with and, for an update, the new value. The value is pinned meanwhile, so that
  // it is freed here when no entry took it.
  class SearchKey {
   public:
    SearchKey(JNIEnv* env, uint32_t key, uint32_t hash, const Bytes& value = {}) : env_(env) {
      ByteBufferHeader* buffer = value.empty() ? nullptr : newBuffer(env, value);
      if (buffer != nullptr) pin(env, buffer, TRANSPORT_PIN);
      entry_ = searchEntry(newBuffer(env, keyOf(key)), hash, buffer);
    }
    ~SearchKey() {
      freeByteBufferData(env_, entry_.key);
      if (entry_.value != nullptr) unpinToFree(env_, entry_.value, TRANSPORT_PIN);
    }
    SearchKey(const SearchKey&) = delete;
    SearchKey& operator=(const SearchKey&) = delete;
    Pinnable* entry() const { return &entry_; }
    ByteBufferHeader* key() const { return entry_.key; }

   private:
    JNIEnv* const env_;
    mutable DefaultEntry entry_;
  };

  // REQUIRES: the set of the key is held. The value with a pin of ours, or null.
  ByteBufferHeader* pinnedValue(uint32_t key) {
    const SearchKey search(env_, key, hashOf(key));
    Pinnable* entry = _getMapEntry(env_, nullptr, header_, nullptr, kFormat, search.key(),
                                   static_cast<int32_t>(hashOf(key)));
    if (entry == nullptr) return nullptr;
    ByteBufferHeader* value = header_->getValue(env_, entry);
    pin(env_, value, TRANSPORT_PIN);
    return value;
  }

  ScriptedJni jni_;
  JNIEnv* const env_;
  MapHeader* const header_;
  const uint32_t hashes_;
};

using TableStress = HashtableTest;

struct Geometry {
  uint32_t sets;
  float loadFactor;
  uint32_t keys;
  uint32_t hashes;
};

class TableOracle : public HashtableTest, public ::testing::WithParamInterface<Geometry> {};

TEST_P(TableOracle, AgreesWithAHeapMap) {
  const Geometry& geometry = GetParam();
  Random random(testSeed());
  Table table(
      env, hashtable::newTable(env, {1, geometry.sets, geometry.loadFactor}, nullptr, wholeSize));
  Actor actor(table, geometry.hashes);
  std::unordered_map<uint32_t, Bytes> oracle;
  // keyOf is not injective for numbers of length 0: let one number stand for its key.
  std::map<Bytes, uint32_t> byKey;
  const auto pickKey = [&] {
    const uint32_t number = below(random, geometry.keys);
    return byKey.emplace(keyOf(number), number).first->second;
  };
  for (uint32_t step = 0; step < 20000 && !HasFailure(); ++step) {
    const uint32_t key = pickKey();
    const bool present = oracle.contains(key);
    switch (below(random, 16)) {
      case 0:
      case 1:
      case 2:
      case 3:
      case 4:
        EXPECT_EQ(actor.insert(key, step), !present);
        if (!present) oracle[key] = valueOf(key, step);
        break;
      case 5:
      case 6:
        EXPECT_EQ(actor.replace(key, step, below(random, 2) == 0), present);
        if (present) oracle[key] = valueOf(key, step);
        break;
      case 7:
        EXPECT_EQ(actor.update(key, step), present);
        if (present) oracle[key] = valueOf(key, step);
        break;
      case 8:
      case 9:
      case 10:
        EXPECT_EQ(actor.remove(key, below(random, 2) == 0), present);
        oracle.erase(key);
        break;
      case 11: EXPECT_EQ(actor.contains(key), present); break;
      case 12: EXPECT_EQ(actor.getAndPin(key), present); break;
      default: {
        const std::optional<Bytes> value = actor.get(key);
        EXPECT_EQ(value.has_value(), present);
        if (present && value.has_value()) {
          EXPECT_EQ(*value, oracle.at(key));
        }
        break;
      }
    }
    if (below(random, 2500) == 0) {
      hashtable_clear(env, table);
      oracle.clear();
    }
    if (below(random, 500) == 0) {
      EXPECT_EQ(checkTable(env, table), static_cast<int64_t>(oracle.size())) << "step " << step;
    }
  }
  for (const auto& [key, value] : oracle) EXPECT_EQ(actor.get(key), value);
  EXPECT_EQ(checkTable(env, table), static_cast<int64_t>(oracle.size()));
}

INSTANTIATE_TEST_SUITE_P(Shapes, TableOracle,
                         ::testing::Values(Geometry{1, 0.75F, 300, 300},   // growing
                                           Geometry{8, 0.75F, 2000, 997},  // many sets
                                           Geometry{1, 1000, 60, 5},       // one chain
                                           Geometry{4, 0.1F, 500, 16}),    // large, few hashes
                         [](const auto& info) {
                           return "Sets" + std::to_string(info.param.sets) + "Hashes" +
                                  std::to_string(info.param.hashes);
                         });

// Runs one body per thread until the time is over, and lets gtest see what failed in them.
template <typename Body>
void onThreads(uint32_t threads, std::chrono::milliseconds time, const Body& body) {
  const auto end = std::chrono::steady_clock::now() + time;
  std::vector<std::thread> running;
  for (uint32_t index = 0; index < threads; ++index) {
    running.emplace_back(
        [&, index] { body(index, [end] { return std::chrono::steady_clock::now() < end; }); });
  }
  for (std::thread& thread : running) thread.join();
}

// Each thread owns some keys, which it compares with a map of its own; all keys share two sets and
// a few hashes, so that every operation meets the others' chains and growth.
TEST_F(TableStress, ThreadsWithKeysOfTheirOwn) {
  const uint64_t seed = testSeed();
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kKeys = 64;
  Table table(env, hashtable::newTable(env, {1, 2, 0.75F}, nullptr, wholeSize));
  std::atomic<int64_t> left{0};
  onThreads(kThreads, std::chrono::milliseconds(1000), [&](uint32_t index, const auto& more) {
    Random random(seed + index);
    Actor actor(table, 16);
    std::unordered_map<uint32_t, uint32_t> oracle;
    for (uint32_t step = 0; more() && !HasFailure(); ++step) {
      // 5 modulo 7: keys of five bytes, all different.
      const uint32_t key = (below(random, kKeys) * kThreads + index) * 7 + 5;
      const bool present = oracle.contains(key);
      switch (below(random, 8)) {
        case 0:
        case 1:
        case 2:
          EXPECT_EQ(actor.insert(key, step), !present);
          if (!present) oracle[key] = step;
          break;
        case 3:
          EXPECT_EQ(actor.replace(key, step, below(random, 2) == 0), present);
          if (present) oracle[key] = step;
          break;
        case 4:
          EXPECT_EQ(actor.update(key, step), present);
          if (present) oracle[key] = step;
          break;
        case 5:
          EXPECT_EQ(actor.remove(key, below(random, 2) == 0), present);
          oracle.erase(key);
          break;
        case 6:
          EXPECT_EQ(actor.contains(key), present);
          EXPECT_EQ(actor.getAndPin(key), present);
          EXPECT_GE(hashtable_size(actor.env(), table), static_cast<int64_t>(oracle.size()));
          break;
        default: {
          const std::optional<Bytes> value = actor.get(key);
          EXPECT_EQ(value.has_value(), present);
          if (present && value.has_value()) {
            EXPECT_EQ(*value, valueOf(key, oracle[key]));
          }
          // Another thread's key: whatever is found must be that key's own.
          actor.get(key + 7);
          break;
        }
      }
    }
    left += static_cast<int64_t>(oracle.size());
  });
  EXPECT_EQ(checkTable(env, table), left);
}

// Every thread works on the same few keys, and the table is cleared in between.
TEST_F(TableStress, ThreadsOnTheSameKeys) {
  const uint64_t seed = testSeed();
  Table table(env, hashtable::newTable(env, {1, 2, 0.75F}, nullptr, wholeSize));
  std::atomic<int64_t> inserts{0};
  std::atomic<int64_t> removes{0};
  std::atomic<int64_t> clears{0};
  onThreads(4, std::chrono::milliseconds(1000), [&](uint32_t index, const auto& more) {
    Random random(seed + index);
    Actor actor(table, 6);
    for (uint32_t step = 0; more() && !HasFailure(); ++step) {
      const uint32_t key = below(random, 24) * 7 + 3;
      switch (below(random, 10)) {
        case 0:
        case 1:
        case 2: inserts += actor.insert(key, step) ? 1 : 0; break;
        case 3:
        case 4: actor.replace(key, step, below(random, 2) == 0); break;
        case 5: actor.update(key, step); break;
        case 6: removes += actor.remove(key, below(random, 2) == 0) ? 1 : 0; break;
        case 7:
          actor.contains(key);
          actor.getAndPin(key);
          hashtable_bytesUsed(actor.env(), table);
          break;
        case 8:
          if (below(random, 64) == 0) {
            hashtable_clear(actor.env(), table);
            ++clears;
          } else {
            const int64_t size = hashtable_size(actor.env(), table);
            EXPECT_GE(size, 0);
            EXPECT_LE(size, 24);
          }
          break;
        default: actor.get(key); break;
      }
    }
  });
  EXPECT_GT(inserts, 0);
  const int64_t entries = checkTable(env, table);
  EXPECT_LE(entries, 24);
  EXPECT_LE(entries, inserts - removes);
  if (clears == 0) {
    EXPECT_EQ(entries, inserts - removes);
  }
}

// Every record of every level is written while others change what the records name: no record may
// read what its thread no longer guards.
TEST_F(TableStress, ThreadsUnderFullTracing) {
  const uint64_t seed = testSeed();
  setLevels(kDebugLevel | kEventLevel | kEntryLevel | kInfoLevel | kErrorLevel);
  Table table(env, hashtable::newTable(env, {1, 2, 0.75F}, nullptr, wholeSize));
  onThreads(3, std::chrono::milliseconds(500), [&](uint32_t index, const auto& more) {
    Random random(seed + index);
    Actor actor(table, 4);
    for (uint32_t step = 0; more() && !HasFailure(); ++step) {
      const uint32_t key = below(random, 8) * 7 + 3;
      switch (below(random, 5)) {
        case 0:
        case 1: actor.insert(key, step); break;
        case 2: actor.replace(key, step, below(random, 2) == 0); break;
        case 3: actor.remove(key, below(random, 2) == 0); break;
        default: actor.contains(key); break;
      }
      actor.jni().clearRecords();
      actor.jni().clearCalls();
    }
  });
  setLevels(0);
  checkTable(env, table);
}

}  // namespace
}  // namespace nimbra::test::hashtable
