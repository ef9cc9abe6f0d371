// The natives of the overflow manager: the inner loop of a sweep, and the way back into memory.
//
// A payload is what goes to disk: the end of the buffer's header, whose first byte is the value's
// type, and the data behind it, so that it is written from where it stands.
#include "cacheiter.h"
#include "com_velt_rz_corvane_nimbra_OverflowNatives.h"
#include "nb_face.h"
#include "nb_logging.h"
#include "overflow_jni.h"

using namespace nimbra;
using namespace nimbra::face;

namespace {

constexpr size_t kPayloadHeader = 8;  // type and reserved bytes, the end of a buffer's header
constexpr jint kInMemory = 1;
constexpr jint kOnDisk = 2;

// A buffer with the payload's value and type and one ALLOCATION_PIN; null when refused.
ByteBufferHeader* bufferOf(JNIEnv* env, jbyteArray payload) {
  const jsize length = env->GetArrayLength(payload) - static_cast<jsize>(kPayloadHeader);
  ByteBufferHeader* buffer = allocateByteBufferData(
      env, static_cast<uint64_t>(length), "Value (Paged-in from NOF Eviction) DirectByteBuffer");
  if (buffer == nullptr) return nullptr;
  pin(env, buffer, ALLOCATION_PIN);
  jbyte type = 0;
  env->GetByteArrayRegion(payload, 0, 1, &type);
  buffer->deserializedType = static_cast<uint8_t>(type);
  env->GetByteArrayRegion(payload, kPayloadHeader, length,
                          reinterpret_cast<jbyte*>(bufferData(buffer)));
  return buffer;
}

// Gives the entry the buffer, and its ALLOCATION_PIN, when its value is still the one that was
// read.
bool install(JNIEnv* env, LuOffHeapValue* value, ByteBufferHeader* buffer, jlong chunkPosition,
             jlong revision) {
  constexpr char kTag[] = "page-in";
  if (lockBucketSetAndNode(env, kTag, value) == 1) return false;
  const overflow_metadata* node = nodeOf(value);
  const bool unchanged = isFlagSet(on_disk, node) && !isFlagSet(in_memory, node) &&
                         node->chunkPtrOffset == chunkPosition && revisionOf(value) == revision;
  if (unchanged) pageIn(env, value, buffer);
  unlockBucketSetAndNode(env, kTag, value);
  return unchanged;
}

}  // namespace

jlong Java_com_velt_rz_corvane_nimbra_OverflowNatives_nextEvictable(JNIEnv* env, jclass,
                                                                    jlongArray out) {
  const NativeScope scope(env);
  LuOffHeapValue* value = cacheiter_next_evictable(env);
  if (value == nullptr) return 0;
  const overflow_metadata* node = nodeOf(value);
  ByteBufferHeader* buffer = value->value;
  const jlong words[] = {toHandle(bufferData(buffer) - kPayloadHeader),
                         static_cast<jlong>(buffer->dataSize + kPayloadHeader),
                         node->chunkPtrOffset,
                         node->chunkSize,
                         node->nextChunkPtrOffset,
                         isFlagSet(on_disk, node) ? 1 : 0,
                         static_cast<jlong>(sizeofByteBufferHeader(buffer))};
  env->SetLongArrayRegion(out, 0, sizeof words / sizeof words[0], words);
  if (!env->ExceptionCheck()) return toHandle(value);
  unpinLuOffHeapMapValue(env, value, JNI_OVERFLOW_EVICTED_PIN);  // Java would never see the handle
  return 0;
}

void Java_com_velt_rz_corvane_nimbra_OverflowNatives_evicted(JNIEnv* env, jclass, jlong record,
                                                             jlong chunkPosition, jint chunkSize,
                                                             jlong nextChunk) {
  const NativeScope scope(env);
  auto* value = fromHandle<LuOffHeapValue>(record);
  pageOut(env, value, chunkPosition, chunkSize, nextChunk);
  unpinLuOffHeapMapValue(env, value, JNI_OVERFLOW_EVICTED_PIN);
}

void Java_com_velt_rz_corvane_nimbra_OverflowNatives_keep(JNIEnv* env, jclass, jlong record) {
  const NativeScope scope(env);
  unpinLuOffHeapMapValue(env, fromHandle<LuOffHeapValue>(record), JNI_OVERFLOW_EVICTED_PIN);
}

jint Java_com_velt_rz_corvane_nimbra_OverflowNatives_beginRead(JNIEnv* env, jclass, jlong record,
                                                               jlongArray out) {
  const NativeScope scope(env);
  auto* value = fromHandle<LuOffHeapValue>(record);
  overflow_metadata* node = nodeOf(value);
  BucketSet* set = getBucketSet(node->mapHeader, static_cast<uint32_t>(value->hashCode));
  // An update changes the revision before the value, all inside its hold of the bucket set.
  if (lockBucketSetAndNode(env, "read", value) == 1) return kFailed;
  if (ByteBufferHeader* buffer = value->value) {
    pin(env, buffer, JNI_GET_PIN);
    const jlong words[] = {toHandle(buffer), toHandle(bufferData(buffer)),
                           static_cast<jlong>(buffer->dataSize), revisionOf(value)};
    unlockBucketSetAndNode(env, "read", value);
    env->SetLongArrayRegion(out, 0, 4, words);
    if (!env->ExceptionCheck()) return kInMemory;
    unpinToFree(env, buffer, JNI_GET_PIN);
    return kFailed;
  }
  const jlong words[] = {node->chunkPtrOffset, node->chunkSize, node->nextChunkPtrOffset,
                         revisionOf(value)};
  unlockBucketSet(set);
  env->SetLongArrayRegion(out, 0, 4, words);
  if (!env->ExceptionCheck()) return kOnDisk;
  overflow_metadata_unlock(env, "read", node);
  return kFailed;
}

jlong Java_com_velt_rz_corvane_nimbra_OverflowNatives_pageIn(JNIEnv* env, jclass, jlong record,
                                                             jbyteArray payload,
                                                             jlong chunkPosition, jlong revision,
                                                             jlongArray out) {
  const NativeScope scope(env);
  ByteBufferHeader* buffer = bufferOf(env, payload);
  if (buffer == nullptr) {
    // Without a view to hand over, the value has been read all the same.
    if (out == nullptr && env->ExceptionCheck()) env->ExceptionClear();
    return 0;
  }
  if (out != nullptr) {
    pin(env, buffer, JNI_GET_PIN);
    const jlong words[] = {toHandle(bufferData(buffer)), static_cast<jlong>(buffer->dataSize)};
    env->SetLongArrayRegion(out, 0, 2, words);
    if (env->ExceptionCheck()) {
      unpinToFree(env, buffer, JNI_GET_PIN);
      unpinToFree(env, buffer, ALLOCATION_PIN);
      return 0;
    }
  }
  const bool installed =
      install(env, fromHandle<LuOffHeapValue>(record), buffer, chunkPosition, revision);
  if (!installed) unpinToFree(env, buffer, ALLOCATION_PIN);
  if (out != nullptr) return toHandle(buffer);
  return installed ? 1 : 0;
}

void Java_com_velt_rz_corvane_nimbra_OverflowNatives_unpinRecord(JNIEnv* env, jclass,
                                                                 jlong record) {
  const NativeScope scope(env);
  unpinLuOffHeapMapValue(env, fromHandle<LuOffHeapValue>(record), JNI_GET_PIN);
}
