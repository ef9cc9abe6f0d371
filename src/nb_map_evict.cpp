// Eviction records: what an evictor needs of an entry, as a pinned record of its own.
//
// State: none. No locks: a record's links and sort key belong to the queue that holds it.
#include "nb_map_private.h"

namespace nimbra {

LuOffHeapEvictionData* allocateEvictionData(JNIEnv* env, ByteBufferHeader* key,
                                            bool countKeyHeader) {
  NB_DEBUG(env, "starting sub-allocation.");
  auto* record = static_cast<LuOffHeapEvictionData*>(
      malloc_nb(env, sizeof(LuOffHeapEvictionData), "LuOffHeapEvictionData"));
  if (record == nullptr) return nullptr;
  addMetadata(usableSizeOf(record) + (countKeyHeader ? sizeofByteBufferHeader(key) : 0));
  record->pins = 0;
  pin(env, static_cast<Pinnable*>(record), ALLOCATION_PIN);
  record->prev = nullptr;
  record->next = nullptr;
  record->keyHeaderCounted = countKeyHeader;
  record->metadata = 0;
  record->key = key;
  pin(env, key, LUOFFHEAPEVICTIONDATA_KEY_PIN);
  NB_DEBUG(env, "sub-allocation was finished. allocated=%p", static_cast<void*>(record));
  return record;
}

uint32_t unpinLuOffHeapEvictionData(JNIEnv* env, LuOffHeapEvictionData* record, uint32_t reason) {
  const auto left = static_cast<uint32_t>(unpin(env, static_cast<Pinnable*>(record), reason));
  NB_DEBUG(env, "evictData=%p, refCount=%d", static_cast<void*>(record), static_cast<int>(left));
  if (left != 0) return left;
  uint64_t extra = 0;
  if (ByteBufferHeader* key = record->key; key != nullptr) {
    if (record->keyHeaderCounted) extra = sizeofByteBufferHeader(key);
    NB_DEBUG(env, "evictData to be removed. Unpinning evictData->key=%p", static_cast<void*>(key));
    const int32_t keyPins = unpinToFree(env, key, LUOFFHEAPEVICTIONDATA_KEY_PIN);
    if (keyPins != 0) {
      NB_DEBUG(env, "unpinned value->key=%p, refCount=%d", static_cast<void*>(key), keyPins);
    } else if (logInfo.debug) {
      debug(env, __func__, "freed value->key=%p, refCount=%d", static_cast<void*>(key), keyPins);
      record->key = nullptr;  // under debug only; the record is freed next in any case
    }
  }
  freeEvictionData(env, record, extra);
  return 0;
}

void freeEvictionData(JNIEnv* env, LuOffHeapEvictionData* record, uint64_t extraSize) {
  const uint64_t size = usableSizeOf(record);
  free_nb(env, record, size);
  subtractMetadata(size + extraSize);
}

int32_t setEvictionDataToLuOffHeapValue(JNIEnv* env, LuOffHeapValue* value,
                                        LuOffHeapEvictionData* record, bool forTTL) {
  NB_DEBUG(env, "luValue=%p, evictData=%p, forTTL? %d", static_cast<void*>(value),
           static_cast<void*>(record), forTTL);
  LuOffHeapEvictionData*& slot = forTTL ? value->ttlEvictionData : value->evictionData;
  if (slot == record) return 0;
  if (record != nullptr) pin(env, static_cast<Pinnable*>(record), LUOFFHEAPMAPVALUE_EVICTION_PIN);
  if (slot != nullptr) unpinLuOffHeapEvictionData(env, slot, LUOFFHEAPMAPVALUE_EVICTION_PIN);
  slot = record;
  return 1;
}

}  // namespace nimbra
