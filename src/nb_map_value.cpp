// Value records: the table's view of them, their birth and their release.
//
// State: none. The accessors read fields without locks: callers hold the bucket set or a pin. The
// last unpin may run under any of the caller's locks; with disk overflow it takes the entry's node,
// and without it no lock.
#include "nb_jni.h"
#include "nb_map_private.h"
#include "overflow.h"

namespace nimbra {

Pinnable* getNext_LuValue(JNIEnv* /*env*/, Pinnable* entry) {
  return static_cast<LuOffHeapValue*>(entry)->hashNext;
}

Pinnable* setNext_LuValue(JNIEnv* /*env*/, Pinnable* entry, Pinnable* next) {
  static_cast<LuOffHeapValue*>(entry)->hashNext = static_cast<LuOffHeapValue*>(next);
  return entry;
}

ByteBufferHeader* getKey_LuValue(JNIEnv* /*env*/, Pinnable* entry) {
  return static_cast<LuOffHeapValue*>(entry)->key;
}

ByteBufferHeader* getValue_LuValue(JNIEnv* /*env*/, Pinnable* entry) {
  return static_cast<LuOffHeapValue*>(entry)->value;
}

Pinnable* setValue_LuValue(JNIEnv* /*env*/, Pinnable* entry, ByteBufferHeader* value) {
  static_cast<LuOffHeapValue*>(entry)->value = value;
  return entry;
}

uint32_t getHash_LuValue(JNIEnv* /*env*/, Pinnable* entry) {
  return static_cast<uint32_t>(static_cast<LuOffHeapValue*>(entry)->hashCode);
}

uint64_t sizeofLuOffHeapMapValue(JNIEnv* /*env*/, const LuOffHeapValue* value) {
  if (value == nullptr) return 0;
  uint64_t size = usableSizeOfRequest(value, valueRecordSize());
  if (value->key != nullptr) size += sizeofByteBufferHeader(value->key);
  if ((value->flags & HAS_VALUE) != 0 && value->value != nullptr) {
    size += sizeofByteBufferHeader(value->value);
  }
  return size;
}

uint64_t getSize_LuValue(JNIEnv* env, Pinnable* entry) {
  const auto* value = static_cast<LuOffHeapValue*>(entry);
  const uint64_t size = sizeofLuOffHeapMapValue(env, value);
  if (value == nullptr || (value->flags & HAS_VALUE) != 0) return size;
  NB_DEBUG(env, "HAS_VALUE flag not set (value has been offloaded to disk)");
  return size + value->valueLength;
}

LuOffHeapValue* newLuOffHeapValue(JNIEnv* env, ByteBufferHeader* key, int32_t hashCode,
                                  bool isHashCodeGiven, ByteBufferHeader* value,
                                  uint16_t revisionOwner, int64_t revisionNumber) {
  LuOffHeapValue* record = nullptr;
  if (_isDiskOverflowEnabled) {
    NB_DEBUG_AS(env, "allocateLuOffHeapMapValue", "NOF: adding %ld to malloc_size",
                static_cast<long>(sizeof(overflow_metadata)));
    auto* variant = static_cast<LuOffHeapOverflowValue*>(
        malloc_nb(env, sizeof(LuOffHeapOverflowValue), "LuOffHeapMapValue (Overflow Enabled)"));
    if (variant == nullptr) return nullptr;
    variant->metadata.mapHeader = nullptr;
    variant->metadata.flags = 0;
    record = variant;
  } else {
    record =
        static_cast<LuOffHeapValue*>(malloc_nb(env, sizeof(LuOffHeapValue), "LuOffHeapMapValue"));
    if (record == nullptr) return nullptr;
  }
  record->pins = 0;
  record->prev = nullptr;
  record->next = nullptr;
  record->key = key;
  record->value = value;
  record->hashNext = nullptr;
  record->revisionNumber = revisionNumber;
  record->evictionData = nullptr;
  record->ttlEvictionData = nullptr;
  record->valueLength = value == nullptr ? 0 : sizeofByteBufferHeader(value);
  record->hashCode = hashCode;
  record->revisionOwner = revisionOwner;
  record->flags = static_cast<uint16_t>(clientDirty | (value == nullptr ? 0 : HAS_VALUE) |
                                        (isHashCodeGiven ? hashCodeGiven : 0));
  return record;
}

LuOffHeapValue* allocateLuOffHeapMapValue(JNIEnv* env, ByteBufferHeader* key, int32_t hashCode,
                                          bool isHashCodeGiven, ByteBufferHeader* value,
                                          uint16_t revisionOwner, int64_t revisionNumber) {
  NB_DEBUG(env, "key=%p, hashCode=%d, isHashCode=%d, value=%p, revisionOwner=%d,revisionNumber=%d",
           static_cast<void*>(key), hashCode, isHashCodeGiven, static_cast<void*>(value),
           revisionOwner, static_cast<int>(revisionNumber));
  LuOffHeapValue* record =
      newLuOffHeapValue(env, key, hashCode, isHashCodeGiven, value, revisionOwner, revisionNumber);
  if (record == nullptr) return nullptr;
  if (key != nullptr) {
    pin(env, key, LUOFFHEAPMAPVALUE_KEY_PIN);
  } else {
    NB_DEBUG(env, "New LuValue was created without a valid key.");
  }
  if (value != nullptr) pin(env, value, LUOFFHEAPMAPVALUE_VALUE_PIN);
  pin(env, static_cast<Pinnable*>(record), ALLOCATION_PIN);
  NB_DEBUG(env, "luValue=%p luValue->key=%p luValue->value=%p luValue->flags=%d",
           static_cast<void*>(record), static_cast<void*>(record->key),
           static_cast<void*>(record->value), record->flags);
  return record;
}

void freeLuOffHeapValue(JNIEnv* env, LuOffHeapMap* /*map*/, LuOffHeapValue* value) {
  free_nb(env, value, valueRecordSize());
}

namespace {

constexpr char kRelease[] = "unpinLuOffHeapMapValue";  // the name in the records of the release
constexpr uint32_t kReverseMapPin = JAVA_NOF_REVERSEMAP_PIN | JNI_CONVERT_FROM_JAVA_PIN;

void releaseKey(JNIEnv* env, LuOffHeapValue* value) {
  if (value->key == nullptr) return;
  ByteBufferHeader* key = value->key;
  NB_DEBUG_AS(env, kRelease, "Unpinning luValue->key=%p", static_cast<void*>(key));
  const int32_t left = unpinToFree(env, key, LUOFFHEAPMAPVALUE_KEY_PIN);
  if (left != 0) {
    NB_DEBUG_AS(env, kRelease, "unpinned value->key=%p, refCount=%d", static_cast<void*>(key),
                left);
  } else if (logInfo.debug) {
    debug(env, kRelease, "freed value->key=%p, refCount=%d", static_cast<void*>(key), left);
    value->key = nullptr;  // under debug only; the record is freed below in any case
  }
}

// `slot` is the field's name, as the records print it.
void releaseEvictionData(JNIEnv* env, LuOffHeapEvictionData* record, const char* slot) {
  if (record == nullptr) return;
  NB_DEBUG_AS(env, kRelease, "Unpinning luValue->%s=%p", slot, static_cast<void*>(record));
  const uint32_t left = unpinLuOffHeapEvictionData(env, record, LUOFFHEAPMAPVALUE_EVICTION_PIN);
  NB_DEBUG_AS(env, kRelease, "%s luValue->%s=%p, refCount=%d", left != 0 ? "Unpinned" : "Freed",
              slot, static_cast<void*>(record), static_cast<int>(left));
}

void releaseValueBuffer(JNIEnv* env, LuOffHeapValue* value) {
  ByteBufferHeader* buffer = value->value;
  NB_DEBUG_AS(env, kRelease, "Unpinning luValue->value=%p", static_cast<void*>(buffer));
  if (buffer == nullptr) return;
  if (lockRead(&buffer->pins) == 0) {
    NB_DEBUG_AS(env, kRelease, "refcount already == 0! For LuValue->value=%p",
                static_cast<void*>(buffer));
  }
  const int32_t left = unpinToFree(env, buffer, LUOFFHEAPMAPVALUE_VALUE_PIN);
  if (left != 0) {
    NB_DEBUG_AS(env, kRelease, "Unpinned value->value=%p, refCount=%d", static_cast<void*>(buffer),
                left);
  } else {
    NB_DEBUG_AS(env, kRelease, "Freed value->value=%p, refCount=%d", static_cast<void*>(buffer),
                left);
  }
}

enum class Retirement { done, keptByJava, failed };

// Takes the node of a value that nobody holds any more out of use. Java is told once; when it has a
// copy on disk, the value lives on until Java drops its reverse-map pin.
Retirement retireNode(JNIEnv* env, LuOffHeapValue* value) {
  overflow_metadata* node = nodeOf(value);
  // One that has lived on for Java's copy may have outlived its table, which the line would show.
  const bool mayHaveNoTable = isFlagSet(is_invalid | on_disk, node);
  if (logInfo.debug && !mayHaveNoTable) {
    char* text = to_string(env, kRelease, node);
    debug(env, kRelease, "luOffHeapValue=%p => %s", static_cast<void*>(value), text);
    release_string(env, text);
  }
  if (!overflow_metadata_lock(env, "remove splice-out", node)) return Retirement::failed;
  // Deliberate: a failed splice-out leaves the node locked. The contract with Java says so.
  // Pinned by ValueRetirement.FailedSpliceOutLeavesTheNodeLocked.
  if (!overflow_metadata_splice_out(env, node, true)) return Retirement::failed;
  if (!isFlagSet(is_invalid, node)) {
    const bool onDisk = isFlagSet(on_disk, node);
    if (onDisk) pin(env, static_cast<Pinnable*>(value), kReverseMapPin);
    if (!invoke_deleting(env, value)) {
      overflow_metadata_unlock(env, "remove splice-out", node);
      return Retirement::failed;
    }
    setFlag(is_invalid, node);
    if (onDisk) {
      const bool unlocked = overflow_metadata_unlock(env, "remove splice-out", node);
      return unlocked ? Retirement::keptByJava : Retirement::failed;
    }
  }
  if (!overflow_metadata_unlock(env, "remove splice-out", node)) return Retirement::failed;
  if (const int32_t code = overflow_metadata_uninit(env, node)) {
    NB_DEBUG_AS(env, kRelease,
                "Failed to free overflow metadata for an Nimbra entry. Return code %d", code);
    NB_ERROR_GENERIC(env, kOverflowErrorKey,
                     "Failed to free overflow metadata for an Nimbra entry. Return code %d", code);
  }
  return Retirement::done;
}

}  // namespace

uint32_t unpinLuOffHeapMapValue(JNIEnv* env, Pinnable* entry, uint32_t reason) {
  auto* value = static_cast<LuOffHeapValue*>(entry);
  NB_ENTRY(env, "luValue=%p", static_cast<void*>(value));
  const int32_t pins = unpin(env, static_cast<Pinnable*>(value), reason);
  if (pins > 0) {
    if (_isDiskOverflowEnabled) {
      NB_EXIT(env, "luValue=%p  remaining pins=%d", static_cast<void*>(value), pins);
    } else {
      NB_EXIT(env, "luValue=%p remaining pins=%d", static_cast<void*>(value), pins);
    }
    return static_cast<uint32_t>(pins);
  }
  NB_DEBUG(env, "luValue=%p pins <= 0, freeing constituent members", static_cast<void*>(value));
  NB_EVENT(env, "luValue=%p pins <= 0, freeing constituent members", static_cast<void*>(value));
  // A node that was never initialised has no lock that could be taken.
  if (_isDiskOverflowEnabled && nodeOf(value)->mapHeader != nullptr) {
    // Java is told of the deletion, so an exception of the operation that failed has to wait.
    const ExceptionAside aside(env);
    const Retirement retirement = retireNode(env, value);
    if (retirement != Retirement::done) return retirement == Retirement::keptByJava ? 1 : kNoCount;
  }
  releaseKey(env, value);
  releaseEvictionData(env, value->evictionData, "evictionData");
  releaseEvictionData(env, value->ttlEvictionData, "ttlEvictionData");
  releaseValueBuffer(env, value);
  if ((value->flags & HAS_VALUE) == 0 && value->value != nullptr) {
    NB_WARNING(env, "LuValue->valueLength was 0, the pointer was not NULL. Found value=%p",
               static_cast<void*>(value->value));
  }
  freeLuOffHeapValue(env, nullptr, value);
  NB_EXIT(env, "completed and freed LuValue=%p", static_cast<void*>(value));
  return 0;
}

uint32_t unpinLuQueueEntry(JNIEnv* env, LuQueueEntry* entry, uint8_t kind, uint32_t reason) {
  switch (kind) {
    case kRevisionQueue: return unpinLuOffHeapMapValue(env, entry, reason);
    case kEvictionQueue:
      return unpinLuOffHeapEvictionData(env, static_cast<LuOffHeapEvictionData*>(entry), reason);
    default: return kNoCount;
  }
}

void luoffheap_map_sizes(JNIEnv* env) {
  NB_DEBUG(env, "LuOffHeapEvictionData=%zu", sizeof(LuOffHeapEvictionData));
  NB_DEBUG(env, "LuOffHeapMap=%zu", sizeof(LuOffHeapMap));
  NB_DEBUG(env, "LuOffHeapValue(NO_OVERFLOW)=%zu", sizeof(LuOffHeapValue));
  NB_DEBUG(env, "LuOffHeapValue(OVERFLOW)=%zu", sizeof(LuOffHeapOverflowValue));
  NB_DEBUG(env, "overflow_metadata=%zu", sizeof(overflow_metadata));
  NB_DEBUG(env, "pthread_mutex_t=%zu", sizeof(pthread_mutex_t));
  NB_DEBUG(env, "pthread_t=%zu", sizeof(pthread_t));
  NB_DEBUG(env, "pthread_cond_t=%zu", sizeof(pthread_cond_t));
}

overflow_metadata* allocateOverflowMetadata(JNIEnv* env, uint32_t count) {
  NB_DEBUG(env, "starting sub-allocation.");
  auto* block = static_cast<overflow_metadata*>(malloc_nb(
      env, static_cast<uint64_t>(count) * sizeof(overflow_metadata), "overflow_metadata_t"));
  if (block == nullptr) return nullptr;
  addMetadata(sizeofOverflowMetadata(block, count));
  NB_DEBUG(env, "sub-allocation has finished. overflow_metadata=%p", static_cast<void*>(block));
  return block;
}

uint64_t sizeofOverflowMetadata(const overflow_metadata* block, uint32_t /*count*/) {
  return usableSizeOf(block);
}

void freeOverflowMetadata(JNIEnv* env, overflow_metadata* block, uint32_t count) {
  const uint64_t size = sizeofOverflowMetadata(block, count);
  subtractMetadata(size);
  free_nb(env, block, size);
}

}  // namespace nimbra
