#include "native_stores.h"

#include <cstring>
#include <utility>

#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl.h"
#include "com_velt_rz_corvane_nimbra_MapNatives.h"
#include "nb_alloc_backend.h"
#include "nb_jni.h"

namespace nimbra::bench {

namespace {

constexpr uint16_t kOwner = 0;
constexpr jint kBucketSets = 256;
constexpr jfloat kLoadFactor = 0.75F;

// A key in the form that a search takes, on the caller's stack.
struct SearchKey {
  ByteBufferHeader header = {};
  uint64_t bytes[2];
  int32_t hash;
  explicit SearchKey(const Request& request)
      : bytes{request.key[0], request.key[1]}, hash(static_cast<int32_t>(request.hash)) {
    header.dataSize = kKeyBytes;
    header.deserializedType = DESERIALIZED_TYPE_BINARY;
  }
  LuOffHeapValue record() {
    LuOffHeapValue record = {};
    record.key = &header;
    record.hashCode = hash;
    return record;
  }
};
static_assert(sizeof(SearchKey) >= kBufferDataOffset + kKeyBytes);

ScriptedArray keyArray(const Request& request) {
  return {kKeyBytes, const_cast<jbyte*>(reinterpret_cast<const jbyte*>(request.key))};
}

ByteBufferHeader* pinnedBuffer(const void* bytes, uint32_t length) {
  JNIEnv* env = scriptedEnvironment();
  ByteBufferHeader* buffer = allocateByteBufferData(env, length, "benchmark");
  if (buffer == nullptr) giveUp("no memory for a buffer");
  pin(env, buffer, ALLOCATION_PIN);
  std::memcpy(bufferData(buffer), bytes, length);
  return buffer;
}

}  // namespace

// ---- The map -------------------------------------------------------------------------------

EntryMap::EntryMap(uint32_t valueBytes) : valueBytes_(valueBytes) {
  map_ = fromHandle<LuOffHeapMap>(
      Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_allocateLuOffHeapMap(
          scriptedEnvironment(), nullptr, 0, kBucketSets, kLoadFactor, 1, 0));
  if (map_ == nullptr) giveUp("no memory for the map");
}

EntryMap::~EntryMap() {
  Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_clear(scriptedEnvironment(), nullptr,
                                                                  toHandle(map_));
  Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_deleteLuOffHeapMap(
      scriptedEnvironment(), nullptr, toHandle(map_));
}

uint64_t EntryMap::bucketCount() const {
  uint64_t count = 0;
  for (uint32_t i = 0; i < map_->map->numBucketSets; i++) {
    count += getBucketSetByIndex(map_->map, i)->bucketCount;
  }
  return count;
}

// ---- The face's natives --------------------------------------------------------------------

FaceRoad::FaceRoad(std::shared_ptr<EntryMap> map)
    : map_(std::move(map)),
      source_(map_->valueBytes(), 1),
      value_{static_cast<jint>(source_.size()), source_.data()} {}

void FaceRoad::getHit(const Request& request) {
  const ScriptedArray key = keyArray(request);
  const jbyteArray copy = Java_com_velt_rz_corvane_nimbra_MapNatives_get(
      scriptedEnvironment(), nullptr, toHandle(map_->handle()), key.asJava(),
      static_cast<jint>(request.hash), nullptr);
  if (copy == nullptr) giveUp("a key is missing");
}

void FaceRoad::getMiss(const Request& request) {
  const ScriptedArray key = keyArray(request);
  const jbyteArray copy = Java_com_velt_rz_corvane_nimbra_MapNatives_get(
      scriptedEnvironment(), nullptr, toHandle(map_->handle()), key.asJava(),
      static_cast<jint>(request.hash), nullptr);
  if (copy != nullptr) giveUp("a key is there that should not be");
}

void FaceRoad::insert(const Request& request) {
  const ScriptedArray key = keyArray(request);
  const jint outcome = Java_com_velt_rz_corvane_nimbra_MapNatives_put(
      scriptedEnvironment(), nullptr, toHandle(map_->handle()), key.asJava(),
      static_cast<jint>(request.hash), value_.asJava(), map_->nextRevision());
  if (outcome != 1) giveUp("an insert failed");
}

void FaceRoad::update(const Request& request) {
  const ScriptedArray key = keyArray(request);
  const jint outcome = Java_com_velt_rz_corvane_nimbra_MapNatives_put(
      scriptedEnvironment(), nullptr, toHandle(map_->handle()), key.asJava(),
      static_cast<jint>(request.hash), value_.asJava(), map_->nextRevision());
  if (outcome != 0) giveUp("an update failed");
}

void FaceRoad::remove(const Request& request) {
  const ScriptedArray key = keyArray(request);
  const jint outcome = Java_com_velt_rz_corvane_nimbra_MapNatives_remove(
      scriptedEnvironment(), nullptr, toHandle(map_->handle()), key.asJava(),
      static_cast<jint>(request.hash));
  if (outcome != 1) giveUp("a removal failed");
}

// ---- The contract's operations -------------------------------------------------------------

ContractRoad::ContractRoad(std::shared_ptr<EntryMap> map)
    : map_(std::move(map)), source_(map_->valueBytes(), 1) {}

void ContractRoad::getHit(const Request& request) {
  JNIEnv* env = scriptedEnvironment();
  SearchKey key(request);
  LuOffHeapValue search = key.record();
  auto* entry = static_cast<LuOffHeapValue*>(hashtable_getAndPin(env, nullptr, map_->handle()->map,
                                                                 nullptr, OBJECT_TYPE_VALUEHEADER,
                                                                 &search, true, JNI_GET_PIN));
  if (entry == nullptr) giveUp("a key is missing");
  std::memcpy(scratchArray().bytes, bufferData(entry->value), map_->valueBytes());
  unpinLuOffHeapMapValue(env, entry, JNI_GET_PIN);
}

void ContractRoad::getMiss(const Request& request) {
  SearchKey key(request);
  LuOffHeapValue search = key.record();
  const Pinnable* entry =
      hashtable_getAndPin(scriptedEnvironment(), nullptr, map_->handle()->map, nullptr,
                          OBJECT_TYPE_VALUEHEADER, &search, true, JNI_GET_PIN);
  if (entry != nullptr) giveUp("a key is there that should not be");
}

void ContractRoad::insert(const Request& request) {
  JNIEnv* env = scriptedEnvironment();
  ByteBufferHeader* key = pinnedBuffer(request.key, kKeyBytes);
  ByteBufferHeader* value = pinnedBuffer(source_.data(), map_->valueBytes());
  LuOffHeapValue* created =
      insertAndPin(env, nullptr, map_->handle(), nullptr, OBJECT_TYPE_JBYTE_ARRAY, key,
                   static_cast<int32_t>(request.hash), true, value, kOwner, map_->nextRevision());
  if (created == nullptr) giveUp("an insert failed");
  unpinLuOffHeapMapValue(env, created, JNI_INSERTED_PIN);
  unpinToFree(env, value, ALLOCATION_PIN);
  unpinToFree(env, key, ALLOCATION_PIN);
}

void ContractRoad::update(const Request& request) {
  JNIEnv* env = scriptedEnvironment();
  SearchKey key(request);
  ByteBufferHeader* value = pinnedBuffer(source_.data(), map_->valueBytes());
  LuOffHeapValue* snapshot =
      updateAndPin(env, nullptr, map_->handle(), nullptr, OBJECT_TYPE_JBYTE_ARRAY, &key.header,
                   key.hash, true, value, kOwner, map_->nextRevision());
  if (snapshot == nullptr) giveUp("an update failed");
  unpinLuOffHeapMapValue(env, snapshot, ALLOCATION_PIN);
  unpinToFree(env, value, ALLOCATION_PIN);
}

void ContractRoad::remove(const Request& request) {
  JNIEnv* env = scriptedEnvironment();
  SearchKey key(request);
  LuOffHeapValue* removed = removeAndPin(env, nullptr, map_->handle(), nullptr,
                                         OBJECT_TYPE_JBYTE_ARRAY, &key.header, key.hash, true);
  if (removed == nullptr) giveUp("a removal failed");
  unpinLuOffHeapMapValue(env, removed, JNI_REMOVED_PIN);
}

// ---- The floor -----------------------------------------------------------------------------

namespace {

class Locked {
 public:
  explicit Locked(pthread_mutex_t* mutex) : mutex_(mutex) {
    if (pthread_mutex_lock(mutex_) != 0) giveUp("a lock failed");
  }
  ~Locked() { pthread_mutex_unlock(mutex_); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

void* allocated(size_t size) {
  void* block = backend::allocate(size);
  if (block == nullptr) giveUp("no memory for the floor");
  return block;
}

bool hasKey(const LuOffHeapValue* record, const Request& request) {
  return record->hashCode == static_cast<int32_t>(request.hash) &&
         std::memcmp(bufferData(record->key), request.key, kKeyBytes) == 0;
}

}  // namespace

Floor::Floor(uint32_t valueBytes, uint64_t bucketCount)
    : valueBytes_(valueBytes), buckets_(bucketCount), source_(valueBytes, 1) {
  ends_.next = &ends_;
  ends_.prev = &ends_;
}

Floor::~Floor() {
  while (ends_.next != &ends_) {
    auto* record = static_cast<LuOffHeapValue*>(ends_.next);
    unlink(record);
    backend::release(record->key);
    backend::release(record->value);
    backend::release(record);
  }
}

ByteBufferHeader* Floor::filledBuffer(const void* bytes, uint32_t length) {
  auto* buffer = static_cast<ByteBufferHeader*>(allocated(kBufferDataOffset + length));
  buffer->dataSize = length;
  std::memcpy(bufferData(buffer), bytes, length);
  return buffer;
}

void Floor::append(LuOffHeapValue* record) {
  record->prev = ends_.prev;
  record->next = &ends_;
  ends_.prev->next = record;
  ends_.prev = record;
}

void Floor::unlink(LuOffHeapValue* record) {
  record->prev->next = record->next;
  record->next->prev = record->prev;
}

void Floor::getHit(const Request& request) {
  const Locked locked(&mutex_);
  const LuOffHeapValue* record = *bucketOf(request);
  while (record != nullptr && !hasKey(record, request)) record = record->hashNext;
  if (record == nullptr) giveUp("a key of the floor is missing");
  std::memcpy(scratchArray().bytes, bufferData(record->value), valueBytes_);
}

void Floor::getMiss(const Request& request) {
  const Locked locked(&mutex_);
  const LuOffHeapValue* record = *bucketOf(request);
  while (record != nullptr && !hasKey(record, request)) record = record->hashNext;
  if (record != nullptr) giveUp("a key of the floor is there that should not be");
}

void Floor::insert(const Request& request) {
  auto* record = static_cast<LuOffHeapValue*>(allocated(sizeof(LuOffHeapValue)));
  record->key = filledBuffer(request.key, kKeyBytes);
  record->value = filledBuffer(source_.data(), valueBytes_);
  record->hashCode = static_cast<int32_t>(request.hash);
  const Locked locked(&mutex_);
  LuOffHeapValue** bucket = bucketOf(request);
  for (const LuOffHeapValue* other = *bucket; other != nullptr; other = other->hashNext) {
    if (hasKey(other, request)) giveUp("a key of the floor is there already");
  }
  record->hashNext = *bucket;
  *bucket = record;
  append(record);
}

void Floor::update(const Request& request) {
  ByteBufferHeader* value = filledBuffer(source_.data(), valueBytes_);
  {
    const Locked locked(&mutex_);
    LuOffHeapValue* record = *bucketOf(request);
    while (record != nullptr && !hasKey(record, request)) record = record->hashNext;
    if (record == nullptr) giveUp("a key of the floor is missing");
    std::swap(record->value, value);
    unlink(record);
    append(record);
  }
  backend::release(value);
}

void Floor::remove(const Request& request) {
  LuOffHeapValue* record;
  {
    const Locked locked(&mutex_);
    LuOffHeapValue** link = bucketOf(request);
    while (*link != nullptr && !hasKey(*link, request)) link = &(*link)->hashNext;
    record = *link;
    if (record == nullptr) giveUp("a key of the floor is missing");
    *link = record->hashNext;
    unlink(record);
  }
  backend::release(record->key);
  backend::release(record->value);
  backend::release(record);
}

}  // namespace nimbra::bench
