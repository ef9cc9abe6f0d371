// Entry map operations without a virtual machine, each beside a flat array that does the same
// without a search: the same locks, allocations, frees and copies, on slots whose place is known.
//
// Both walk their entries in one random order. A map and an array of each size are filled when
// their first benchmark runs and live until the process ends.
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <utility>

#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl.h"
#include "comparison.h"
#include "nb_alloc_backend.h"
#include "nb_jni.h"
#include "nb_map.h"

namespace nimbra::bench {

namespace {

constexpr uint32_t kKeyBytes = 16;
constexpr uint32_t kValueBytes = 256;
constexpr uint16_t kOwner = 0;
constexpr jint kBucketSets = 256;
constexpr jfloat kLoadFactor = 0.75F;

// The map asks the environment for one thing on these paths: whether an exception is pending.
JNIEnv* environment() {
  static JNINativeInterface_ table = [] {
    JNINativeInterface_ functions = {};
    functions.ExceptionCheck = [](JNIEnv*) -> jboolean { return JNI_FALSE; };
    return functions;
  }();
  static JNIEnv env = {&table};
  return &env;
}

[[noreturn]] void giveUp(const char* what) {
  std::fprintf(stderr, "map benchmark: %s\n", what);
  std::exit(1);
}

// The bytes of key i: random-looking, and different for every i.
std::array<uint64_t, 2> keyBytes(uint64_t i) {
  const uint64_t mixed = hashFn64(i + 0x9E3779B97F4A7C15U);
  return {mixed, i};
}

int32_t hashOf(uint64_t i) { return static_cast<int32_t>(hashFn64(i * 2 + 1) >> 32); }

// A key in the form that a search takes, on the caller's stack.
struct SearchKey {
  ByteBufferHeader header = {};
  std::array<uint64_t, 2> bytes;
  int32_t hash;
  explicit SearchKey(uint64_t i) : bytes(keyBytes(i)), hash(hashOf(i)) {
    header.dataSize = kKeyBytes;
    header.deserializedType = DESERIALIZED_TYPE_BINARY;
  }
};
static_assert(sizeof(SearchKey) >= kBufferDataOffset + kKeyBytes);

// The order in which operations visit `entries` keys.
std::vector<uint32_t> shuffled(uint32_t entries) {
  std::vector<uint32_t> order(entries);
  std::iota(order.begin(), order.end(), 0U);
  std::shuffle(order.begin(), order.end(), std::mt19937_64(entries));
  return order;
}

const uint8_t* sourceValue() {
  alignas(64) static const std::array<uint8_t, kValueBytes> bytes = {1, 2, 3};
  return bytes.data();
}

// ---- The map -------------------------------------------------------------------------------

class FilledMap {
 public:
  explicit FilledMap(uint32_t entries) : order_(shuffled(entries)) {
    map_ = fromHandle<LuOffHeapMap>(
        Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_allocateLuOffHeapMap(
            environment(), nullptr, 0, kBucketSets, kLoadFactor, 1, 0));
    if (map_ == nullptr) giveUp("no memory for the map");
    for (uint32_t i = 0; i < entries; i++) insert(i);
  }

  uint32_t next() {
    if (at_ == order_.size()) at_ = 0;
    return order_[at_++];
  }

  // Copies the value out, as a get does: found and pinned under the lock, copied outside it.
  void get(uint32_t i, uint8_t* target) {
    JNIEnv* env = environment();
    SearchKey key(i);
    LuOffHeapValue search = searchRecord(key);
    BucketSet* set = getBucketSet(map_->map, static_cast<uint32_t>(key.hash));
    if (lockBucketSet(set) != 0) giveUp("a lock failed");
    const auto* entry = static_cast<LuOffHeapValue*>(_getMapEntry(
        env, nullptr, map_->map, nullptr, OBJECT_TYPE_JBYTE_ARRAY, search.key, key.hash));
    if (entry == nullptr) giveUp("a key is missing");
    ByteBufferHeader* value = entry->value;
    pin(env, value, JNI_GET_PIN);
    unlockBucketSet(set);
    std::memcpy(target, bufferData(value), kValueBytes);
    unpinToFree(env, value, JNI_GET_PIN);
  }

  void insert(uint32_t i) {
    JNIEnv* env = environment();
    ByteBufferHeader* key = filledBuffer(keyBytes(i).data(), kKeyBytes);
    ByteBufferHeader* value = filledBuffer(sourceValue(), kValueBytes);
    LuOffHeapValue* created = insertAndPin(env, nullptr, map_, nullptr, OBJECT_TYPE_JBYTE_ARRAY,
                                           key, hashOf(i), true, value, kOwner, ++revision_);
    if (created == nullptr) giveUp("an insert failed");
    unpinLuOffHeapMapValue(env, created, JNI_INSERTED_PIN);
    unpinToFree(env, value, ALLOCATION_PIN);
    unpinToFree(env, key, ALLOCATION_PIN);
  }

  void update(uint32_t i) {
    JNIEnv* env = environment();
    SearchKey key(i);
    ByteBufferHeader* value = filledBuffer(sourceValue(), kValueBytes);
    LuOffHeapValue* snapshot =
        updateAndPin(env, nullptr, map_, nullptr, OBJECT_TYPE_JBYTE_ARRAY, &key.header, key.hash,
                     true, value, kOwner, ++revision_);
    if (snapshot == nullptr) giveUp("an update failed");
    unpinLuOffHeapMapValue(env, snapshot, ALLOCATION_PIN);
    unpinToFree(env, value, ALLOCATION_PIN);
  }

  void remove(uint32_t i) {
    JNIEnv* env = environment();
    SearchKey key(i);
    LuOffHeapValue* removed = removeAndPin(env, nullptr, map_, nullptr, OBJECT_TYPE_JBYTE_ARRAY,
                                           &key.header, key.hash, true);
    if (removed == nullptr) giveUp("a removal failed");
    unpinLuOffHeapMapValue(env, removed, JNI_REMOVED_PIN);
  }

 private:
  static LuOffHeapValue searchRecord(SearchKey& key) {
    LuOffHeapValue record = {};
    record.key = &key.header;
    record.hashCode = key.hash;
    return record;
  }

  static ByteBufferHeader* filledBuffer(const void* bytes, uint32_t length) {
    ByteBufferHeader* buffer = allocateByteBufferData(environment(), length, "benchmark");
    if (buffer == nullptr) giveUp("no memory for a buffer");
    pin(environment(), buffer, ALLOCATION_PIN);
    std::memcpy(bufferData(buffer), bytes, length);
    return buffer;
  }

  LuOffHeapMap* map_ = nullptr;
  std::vector<uint32_t> order_;
  size_t at_ = 0;
  int64_t revision_ = 0;
};

// ---- The floor -----------------------------------------------------------------------------

// Records of the same sizes behind an array of pointers, and locks of the same kinds.
class FlatArray {
 public:
  explicit FlatArray(uint32_t entries) : order_(shuffled(entries)), records_(entries) {
    for (uint32_t i = 0; i < entries; i++) insert(i);
  }

  uint32_t next() {
    if (at_ == order_.size()) at_ = 0;
    return order_[at_++];
  }

  void get(uint32_t i, uint8_t* target) {
    const auto wanted = keyBytes(i);
    locked(&set_);
    const Record* record = records_[i];
    if (std::memcmp(record->key->bytes(), wanted.data(), kKeyBytes) != 0) giveUp("a wrong key");
    Block* value = record->value;
    value->pins.fetch_add(1);
    pthread_mutex_unlock(&set_);
    std::memcpy(target, value->bytes(), kValueBytes);
    value->pins.fetch_sub(1);
  }

  void insert(uint32_t i) {
    Block* key = filledBlock(keyBytes(i).data(), kKeyBytes);
    Block* value = filledBlock(sourceValue(), kValueBytes);
    auto* record = static_cast<Record*>(allocated(sizeof(Record)));
    record->key = key;
    record->value = value;
    pthread_rwlock_wrlock(&map_);
    locked(&set_);
    records_[i] = record;
    pthread_mutex_unlock(&set_);
    locked(&queue_);
    record->number = ++number_;
    pthread_mutex_unlock(&queue_);
    pthread_rwlock_unlock(&map_);
  }

  void update(uint32_t i) {
    Block* value = filledBlock(sourceValue(), kValueBytes);
    void* snapshot = allocated(sizeof(Record));
    pthread_rwlock_wrlock(&map_);
    locked(&set_);
    Record* record = records_[i];
    std::memcpy(snapshot, record, sizeof(Record));
    locked(&queue_);  // out of the queue
    pthread_mutex_unlock(&queue_);
    locked(&queue_);  // into it again
    record->number = ++number_;
    pthread_mutex_unlock(&queue_);
    pthread_rwlock_unlock(&map_);
    locked(&queue_);  // the value's turn
    std::swap(record->value, value);
    pthread_mutex_unlock(&queue_);
    pthread_mutex_unlock(&set_);
    backend::release(value);
    backend::release(snapshot);
  }

  void remove(uint32_t i) {
    locked(&set_);
    Record* record = std::exchange(records_[i], nullptr);
    pthread_mutex_unlock(&set_);
    pthread_rwlock_rdlock(&map_);
    locked(&queue_);
    pthread_mutex_unlock(&queue_);
    pthread_rwlock_unlock(&map_);
    backend::release(record->key);
    backend::release(record->value);
    backend::release(record);
  }

 private:
  // The bytes follow.
  struct Block {
    std::atomic<int64_t> pins;
    uint64_t rest[2];
    uint8_t* bytes() { return reinterpret_cast<uint8_t*>(this + 1); }
  };
  static_assert(sizeof(Block) == kBufferDataOffset);
  struct Record {
    Block* key;
    Block* value;
    int64_t number;
    uint8_t rest[sizeof(LuOffHeapValue) - 24];
  };
  static_assert(sizeof(Record) == sizeof(LuOffHeapValue));

  static void* allocated(size_t size) {
    void* block = backend::allocate(size);
    if (block == nullptr) giveUp("no memory for the floor");
    return block;
  }

  static Block* filledBlock(const void* bytes, uint32_t length) {
    auto* block = static_cast<Block*>(allocated(sizeof(Block) + length));
    new (&block->pins) std::atomic<int64_t>(1);
    std::memcpy(block->bytes(), bytes, length);
    return block;
  }

  static void locked(pthread_mutex_t* mutex) {
    if (pthread_mutex_lock(mutex) != 0) giveUp("a lock failed");
  }

  std::vector<uint32_t> order_;
  std::vector<Record*> records_;
  size_t at_ = 0;
  int64_t number_ = 0;
  pthread_rwlock_t map_ = PTHREAD_RWLOCK_INITIALIZER;
  pthread_mutex_t set_ = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_t queue_ = PTHREAD_MUTEX_INITIALIZER;
};

// ---- Operations on either ------------------------------------------------------------------

// Fills its store when it is first asked for.
template <typename Store>
class Lazy {
 public:
  explicit Lazy(uint32_t entries) : entries_(entries) {}
  Store& get() {
    if (store_ == nullptr) store_ = std::make_unique<Store>(entries_);
    return *store_;
  }

 private:
  uint32_t entries_;
  std::unique_ptr<Store> store_;
};

template <typename Store>
Body getting(std::shared_ptr<Lazy<Store>> lazy) {
  return [lazy](benchmark::State& state) {
    Store& store = lazy->get();
    alignas(64) uint8_t target[kValueBytes];
    for (auto _ : state) {
      store.get(store.next(), target);
      benchmark::ClobberMemory();
    }
  };
}

template <typename Store>
Body updating(std::shared_ptr<Lazy<Store>> lazy) {
  return [lazy](benchmark::State& state) {
    Store& store = lazy->get();
    for (auto _ : state) store.update(store.next());
  };
}

template <typename Store>
Body removingAndInserting(std::shared_ptr<Lazy<Store>> lazy) {
  return [lazy](benchmark::State& state) {
    Store& store = lazy->get();
    for (auto _ : state) {
      const uint32_t i = store.next();
      store.remove(i);
      store.insert(i);
    }
  };
}

}  // namespace

void registerMapBenchmarks() {
  for (const uint32_t entries : {10'000U, 1'000'000U}) {
    const auto map = std::make_shared<Lazy<FilledMap>>(entries);
    const auto flat = std::make_shared<Lazy<FlatArray>>(entries);
    const std::string among =
        entries == 10'000U ? ", 256 B among 10,000" : ", 256 B among 1,000,000";
    measure({.operation = "get" + among,
             .body = getting(map),
             .floors = {{"lock, key comparison, copy on an array", getting(flat)}}});
    measure({.operation = "update" + among,
             .body = updating(map),
             .floors = {{"locks, allocations, copy on an array", updating(flat)}}});
    measure({.operation = "remove + insert" + among,
             .body = removingAndInserting(map),
             .floors = {{"locks, allocations, copies on an array", removingAndInserting(flat)}}});
  }
}

}  // namespace nimbra::bench
