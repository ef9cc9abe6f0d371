// What the map face's entry points share: keys to search for, copies of arrays, single writes.
//
// Keys and values are opaque bytes. The face keeps handles valid: a map is deleted only after the
// last call has left it.
#pragma once

#include <cstdint>

#include "nb_jni.h"
#include "nb_map_private.h"
#include "overflow.h"

namespace nimbra::face {

inline constexpr uint16_t kOwner = 0;  // the face writes all its revisions under one owner
inline constexpr jsize kStackKeyBytes =
    512;                                // longer keys are compared in place, in the Java array
inline constexpr jsize kScanWords = 5;  // longs that the walk writes for one entry
inline constexpr jint kFailed = -1;

// A key to search for. A short one is copied once, so that comparisons need no crossing.
class SearchKey {
 public:
  SearchKey(JNIEnv* env, jbyteArray key, jint hash) : key_(key), hash_(hash) {
    const jsize length = env->GetArrayLength(key);
    if (length > kStackKeyBytes) return;
    copy_.header.dataSize = static_cast<uint64_t>(length);
    copy_.header.deserializedType = DESERIALIZED_TYPE_BINARY;
    env->GetByteArrayRegion(key, 0, length, reinterpret_cast<jbyte*>(copy_.bytes));
    buffer_ = &copy_.header;
  }
  SearchKey(const SearchKey&) = delete;
  SearchKey& operator=(const SearchKey&) = delete;

  const void* object() const { return &key_; }
  ByteBufferHeader* buffer() const { return buffer_; }
  jint hash() const { return hash_; }
  BucketSet* setIn(LuOffHeapMap* map) const {
    return getBucketSet(map->map, static_cast<uint32_t>(hash_));
  }
  // REQUIRES: the bucket set of setIn.
  LuOffHeapValue* findIn(JNIEnv* env, LuOffHeapMap* map) const {
    return static_cast<LuOffHeapValue*>(
        _getMapEntry(env, nullptr, map->map, &key_, OBJECT_TYPE_JBYTE_ARRAY, buffer_, hash_));
  }

 private:
  struct {
    ByteBufferHeader header = {};
    uint8_t bytes[kStackKeyBytes];
  } copy_;
  ByteBufferHeader* buffer_ = nullptr;
  jbyteArray key_;
  jint hash_;
};

// A copy of an array in a buffer of ours, which holds one ALLOCATION_PIN for this scope.
class ArrayCopy {
 public:
  ArrayCopy(JNIEnv* env, jbyteArray source, const char* label) : env_(env) {
    const jsize length = env->GetArrayLength(source);
    header_ = allocateByteBufferData(env, static_cast<uint64_t>(length), label);
    if (header_ == nullptr) return;
    pin(env, header_, ALLOCATION_PIN);
    env->GetByteArrayRegion(source, 0, length, reinterpret_cast<jbyte*>(bufferData(header_)));
  }
  ~ArrayCopy() {
    if (header_ != nullptr) unpinToFree(env_, header_, ALLOCATION_PIN);
  }
  ArrayCopy(const ArrayCopy&) = delete;
  ArrayCopy& operator=(const ArrayCopy&) = delete;
  ByteBufferHeader* get() const { return header_; }

 private:
  JNIEnv* env_;
  ByteBufferHeader* header_ = nullptr;
};

inline void raiseLockFailure(JNIEnv* env, const char* function) {
  throw_exception(env, function, "Error acquiring BucketSet lock in Nimbra library.");
}

inline bool lockOrRaise(JNIEnv* env, BucketSet* set, const char* function) {
  if (lockBucketSet(set) == 0) return true;
  raiseLockFailure(env, function);
  return false;
}

// Replaces the value of a present key. With `released`, the usable bytes of the old value are
// stored.
inline WriteOutcome update(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key,
                           ByteBufferHeader* value, jlong revision, uint64_t* released = nullptr,
                           const EntryHook* hook = nullptr) {
  return updateInPlace(env, nullptr, map, key.object(), OBJECT_TYPE_JBYTE_ARRAY, key.buffer(),
                       key.hash(), value, kOwner, revision, released, hook);
}

// Java has been told: our own side wants to know of deletions only to free copies on disk. Saves a
// call into Java for every entry without one. REQUIRES: a pin on a record that is in no table.
inline void forgetUntold(JNIEnv* env, LuOffHeapValue* removed) {
  if (!_isDiskOverflowEnabled) return;
  overflow_metadata* node = nodeOf(removed);
  if (!overflow_metadata_lock(env, "remove", node)) return;
  if (!isFlagSet(on_disk, node)) setFlag(is_invalid, node);
  overflow_metadata_unlock(env, "remove", node);
}

// What a lookup found. At most one of the two is set, and holds one JNI_GET_PIN: the value's
// buffer, or the record of an entry whose value is on disk.
struct Found {
  ByteBufferHeader* buffer = nullptr;
  LuOffHeapValue* record = nullptr;
  jlong revision = 0;
};

// The entry's revision. A touch by the contract's natives moves it without the bucket set.
inline jlong revisionOf(const LuOffHeapValue* value) {
  return __atomic_load_n(&value->revisionNumber, __ATOMIC_RELAXED);
}

// Pins what the entry has. REQUIRES: the bucket set.
inline Found pinFound(JNIEnv* env, LuOffHeapValue* value) {
  Found found;
  found.revision = revisionOf(value);
  if (value->value != nullptr) {
    found.buffer = value->value;
    pin(env, found.buffer, JNI_GET_PIN);
  } else {
    found.record = value;
    pin(env, static_cast<Pinnable*>(value), JNI_GET_PIN);
  }
  return found;
}

// Lets the sweep pass the entry over once. A node that is busy is left as it is: a lookup does not
// wait for a page-out beside it.
inline void markUsed(JNIEnv* env, LuOffHeapValue* value) {
  if (!_isDiskOverflowEnabled) return;
  overflow_metadata* node = nodeOf(value);
  if (!overflow_metadata_trylock(env, "get", node)) return;
  setFlag(recently_used, node);
  overflow_metadata_unlock(env, "get", node);
}

// A new array with the buffer's bytes, whose JNI_GET_PIN is dropped; null for no buffer.
inline jbyteArray copyAndUnpin(JNIEnv* env, ByteBufferHeader* buffer) {
  if (buffer == nullptr) return nullptr;
  const auto length = static_cast<jsize>(buffer->dataSize);
  const jbyteArray copy = env->NewByteArray(length);
  if (copy != nullptr) {
    env->SetByteArrayRegion(copy, 0, length, reinterpret_cast<const jbyte*>(bufferData(buffer)));
  }
  unpinToFree(env, buffer, JNI_GET_PIN);
  return copy;
}

// A new array with the value's bytes; null when there is none. For a value on disk null, and the
// record's handle, whose pin passes to Java, in `onDisk`.
inline jbyteArray copyFound(JNIEnv* env, const Found& found, jlongArray onDisk) {
  if (found.record == nullptr) return copyAndUnpin(env, found.buffer);
  const jlong handle = toHandle(found.record);
  env->SetLongArrayRegion(onDisk, 0, 1, &handle);
  if (env->ExceptionCheck()) unpinLuOffHeapMapValue(env, found.record, JNI_GET_PIN);
  return nullptr;
}

// The buffer's handle, its JNI_GET_PIN passing to Java with data address, length and revision in
// `out`; minus the record's handle, pinned likewise, for a value on disk; 0 for nothing, or when
// Java would never see the handle.
inline jlong handOverPinned(JNIEnv* env, const Found& found, jlongArray out) {
  if (found.record != nullptr) return -toHandle(found.record);
  ByteBufferHeader* buffer = found.buffer;
  if (buffer == nullptr) return 0;
  const jlong words[3] = {toHandle(bufferData(buffer)), static_cast<jlong>(buffer->dataSize),
                          found.revision};
  env->SetLongArrayRegion(out, 0, 3, words);
  if (!env->ExceptionCheck()) return toHandle(buffer);
  unpinToFree(env, buffer, JNI_GET_PIN);
  return 0;
}

// Pins the entry's key and value buffers for Java (JNI_GET_PIN) and writes their places at `index`;
// for a value on disk, its record is pinned, and 0 and the record's handle are written. REQUIRES:
// the bucket set, or a pin on an entry that is in no table.
inline void pinForWalk(JNIEnv* env, LuOffHeapValue* value, jlongArray out, jsize index) {
  pin(env, value->key, JNI_GET_PIN);
  const Found found = pinFound(env, value);
  const bool inMemory = found.buffer != nullptr;
  const jlong words[kScanWords] = {
      toHandle(bufferData(value->key)), static_cast<jlong>(value->key->dataSize),
      inMemory ? toHandle(bufferData(found.buffer)) : 0,
      inMemory ? static_cast<jlong>(found.buffer->dataSize) : toHandle(found.record),
      found.revision};
  env->SetLongArrayRegion(out, index * kScanWords, kScanWords, words);
}

}  // namespace nimbra::face
