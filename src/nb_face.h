// What the map face's entry points share: keys to search for, copies of arrays, single writes.
//
// Keys and values are opaque bytes. The face keeps handles valid: a map is deleted only after the
// last call has left it.
#pragma once

#include <cstdint>

#include "nb_jni.h"
#include "nb_map_private.h"

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
  WriteOutcome outcome;
  LuOffHeapValue* snapshot =
      updateAndPin(env, nullptr, map, key.object(), OBJECT_TYPE_JBYTE_ARRAY, key.buffer(),
                   key.hash(), true, value, kOwner, revision, &outcome, hook);
  if (snapshot != nullptr) {
    if (released != nullptr) *released = sizeofByteBufferHeader(snapshot->value);
    unpinLuOffHeapMapValue(env, snapshot, ALLOCATION_PIN);
  }
  return outcome;
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

// The buffer's handle, its JNI_GET_PIN passing to Java with data address, length and revision in
// `out`; 0 for no buffer, or when Java would never see the handle.
inline jlong handOverPinned(JNIEnv* env, ByteBufferHeader* buffer, jlong revision, jlongArray out) {
  if (buffer == nullptr) return 0;
  const jlong words[3] = {toHandle(bufferData(buffer)), static_cast<jlong>(buffer->dataSize),
                          revision};
  env->SetLongArrayRegion(out, 0, 3, words);
  if (!env->ExceptionCheck()) return toHandle(buffer);
  unpinToFree(env, buffer, JNI_GET_PIN);
  return 0;
}

// Pins the entry's key and value buffers for Java (JNI_GET_PIN) and writes their places at `index`.
// REQUIRES: the bucket set, or a pin on an entry that is in no table.
inline void pinForWalk(JNIEnv* env, const LuOffHeapValue* value, jlongArray out, jsize index) {
  pin(env, value->key, JNI_GET_PIN);
  pin(env, value->value, JNI_GET_PIN);
  const jlong words[kScanWords] = {
      toHandle(bufferData(value->key)), static_cast<jlong>(value->key->dataSize),
      toHandle(bufferData(value->value)), static_cast<jlong>(value->value->dataSize),
      value->revisionNumber};
  env->SetLongArrayRegion(out, index * kScanWords, kScanWords, words);
}

}  // namespace nimbra::face
