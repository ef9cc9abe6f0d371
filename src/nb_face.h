// What the map face's entry points share: keys to search for, copies of arrays, single writes.
//
// Keys and values are opaque bytes. The face keeps handles valid: a map is deleted only after the
// last call has left it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "nb_jni.h"
#include "nb_map_private.h"
#include "overflow.h"

namespace nimbra::face {

inline constexpr uint16_t kOwner = 0;  // the face writes all its revisions under one owner
inline constexpr jsize kStackKeyBytes =
    512;                                // longer keys are compared in place, in the Java array
inline constexpr jsize kScanWords = 5;  // longs that the walk writes for one entry
inline constexpr jint kFailed = -1;

// The calling thread's memory for short keys and values; Java's CallMemory has the same layout.
// Read before anything can call Java, written after the last such call: Java may use it again in
// between.
struct CallArea {
  uint8_t key[kStackKeyBytes];
  jlong results[3];
  jlong use;  // changes with every call that the thread prepares
  uint8_t value[4096];
};
static_assert(offsetof(CallArea, results) == 512 && offsetof(CallArea, value) == 544);

// Bytes that Java passes: an array, or a part of the calling thread's area.
class JavaBytes {
 public:
  JavaBytes(JNIEnv* env, jbyteArray array)
      : env_(env), array_(array), length_(env->GetArrayLength(array)) {}
  JavaBytes(const uint8_t* bytes, jsize length) : bytes_(bytes), length_(length) {}
  // Null for bytes of an area.
  jbyteArray array() const { return array_; }
  jsize length() const { return length_; }
  void copyTo(uint8_t* target) const {
    if (env_ == nullptr) {
      std::memcpy(target, bytes_, static_cast<size_t>(length_));
    } else {
      env_->GetByteArrayRegion(array_, 0, length_, reinterpret_cast<jbyte*>(target));
    }
  }

 private:
  JNIEnv* env_ = nullptr;
  jbyteArray array_ = nullptr;
  const uint8_t* bytes_ = nullptr;
  jsize length_;
};

// A key to search for. A short one is copied once, so that comparisons need no crossing.
class SearchKey {
 public:
  SearchKey(const JavaBytes& key, jint hash) : array_(key.array()), hash_(hash) {
    if (key.length() > kStackKeyBytes) return;
    copy_.header.dataSize = static_cast<uint64_t>(key.length());
    copy_.header.deserializedType = DESERIALIZED_TYPE_BINARY;
    key.copyTo(copy_.bytes);
    buffer_ = &copy_.header;
  }
  SearchKey(JNIEnv* env, jbyteArray key, jint hash) : SearchKey(JavaBytes(env, key), hash) {}
  SearchKey(const SearchKey&) = delete;
  SearchKey& operator=(const SearchKey&) = delete;

  const void* object() const { return &array_; }
  ByteBufferHeader* buffer() const { return buffer_; }
  // The bytes of a short key.
  JavaBytes bytes() const { return {copy_.bytes, static_cast<jsize>(copy_.header.dataSize)}; }
  jint hash() const { return hash_; }
  BucketSet* setIn(LuOffHeapMap* map) const {
    return getBucketSet(map->map, static_cast<uint32_t>(hash_));
  }
  // REQUIRES: the bucket set of setIn.
  LuOffHeapValue* findIn(JNIEnv* env, LuOffHeapMap* map) const {
    return static_cast<LuOffHeapValue*>(
        _getMapEntry(env, nullptr, map->map, &array_, OBJECT_TYPE_JBYTE_ARRAY, buffer_, hash_));
  }

 private:
  struct {
    ByteBufferHeader header = {};
    uint8_t bytes[kStackKeyBytes];
  } copy_;
  ByteBufferHeader* buffer_ = nullptr;
  jbyteArray array_;
  jint hash_;
};

// A copy of bytes in a buffer of ours, which holds one ALLOCATION_PIN for this scope.
class BufferCopy {
 public:
  BufferCopy(JNIEnv* env, const JavaBytes& source, const char* label) : env_(env) {
    header_ = allocateByteBufferData(env, static_cast<uint64_t>(source.length()), label);
    if (header_ == nullptr) return;
    pin(env, header_, ALLOCATION_PIN);
    source.copyTo(bufferData(header_));
  }
  BufferCopy(JNIEnv* env, jbyteArray source, const char* label)
      : BufferCopy(env, JavaBytes(env, source), label) {}
  ~BufferCopy() {
    if (header_ != nullptr) unpinToFree(env_, header_, ALLOCATION_PIN);
  }
  BufferCopy(const BufferCopy&) = delete;
  BufferCopy& operator=(const BufferCopy&) = delete;
  ByteBufferHeader* get() const { return header_; }
  // The buffer's pin becomes the caller's.
  ByteBufferHeader* passOn() { return std::exchange(header_, nullptr); }

 private:
  JNIEnv* env_;
  ByteBufferHeader* header_ = nullptr;
};

inline void raiseLockFailure(JNIEnv* env, const char* function) {
  throw_exception(env, function, "Error acquiring BucketSet lock in Nimbra library.");
}

inline bool lockOrRaise(JNIEnv* env, BucketSet* set, const char* function,
                        int (*lock)(BucketSet*) = lockBucketSet) {
  if (lock(set) == 0) return true;
  raiseLockFailure(env, function);
  return false;
}

// Replaces the value of a present key; the buffer's pin may pass to the entry. With `released`, the
// usable bytes of the old value are stored.
WriteOutcome update(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, BufferCopy& value,
                    jlong revision, uint64_t* released = nullptr, const EntryHook* hook = nullptr);

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

// Drops the pin of pinFound.
inline void letGo(JNIEnv* env, const Found& found) {
  if (found.buffer != nullptr) unpinToFree(env, found.buffer, JNI_GET_PIN);
  if (found.record != nullptr) unpinLuOffHeapMapValue(env, found.record, JNI_GET_PIN);
}

// Lets the sweep pass the entry over once. A node that is busy is left as it is: a lookup does not
// wait for a page-out beside it.
inline void markUsed(LuOffHeapValue* value) {
  if (!_isDiskOverflowEnabled) return;
  overflow_metadata* node = nodeOf(value);
  if (!tryBriefly(node)) return;
  setFlag(recently_used, node);
  endBriefly(node);
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

// Pins the entry's key for Java (JNI_GET_PIN) and writes the places of key and value at `index`, or
// for a value on disk 0 and the record's handle. The pin in `found` passes to Java, too.
inline void handOverForWalk(JNIEnv* env, LuOffHeapValue* value, const Found& found, jlongArray out,
                            jsize index) {
  pin(env, value->key, JNI_GET_PIN);
  const bool inMemory = found.buffer != nullptr;
  const jlong words[kScanWords] = {
      toHandle(bufferData(value->key)), static_cast<jlong>(value->key->dataSize),
      inMemory ? toHandle(bufferData(found.buffer)) : 0,
      inMemory ? static_cast<jlong>(found.buffer->dataSize) : toHandle(found.record),
      found.revision};
  env->SetLongArrayRegion(out, index * kScanWords, kScanWords, words);
}

}  // namespace nimbra::face
