// The overflow natives: the state and the locks of single entries, page-out and page-in, the sweep.
//
// State: the profile of page-outs. Every native takes an entry as its record's address, which is
// not checked; the caller has pinned it. Lock order: node before bucket set where both are tried or
// the node can be let go, bucket set before node where one is waited for.
#include "overflow_jni.h"

#include "cacheiter.h"
#include "com_velt_rz_corvane_io_offheap_overflow_CacheIter.h"
#include "com_velt_rz_corvane_io_offheap_overflow_NOFStruct.h"
#include "com_velt_rz_corvane_io_offheap_overflow_Overflow.h"
#include "com_velt_rz_corvane_io_offheap_overflow_Utils.h"
#include "nb_alloc.h"
#include "nb_hashtable.h"
#include "nb_jni.h"
#include "nb_logging.h"
#include "nb_prof.h"
#include "overflow.h"

namespace nimbra {

namespace {

constexpr jsize kStateWords = 6;
constexpr jsize kChunkWords = 4;

ProfileSlot evictProfile;
// Only the first and the last point are stored by page-outs; the blank is part of its label.
constexpr const char* kEvictLabels[] = {
    "allocAndInit",   " lockAndSetFields",          "updateAndPinMapEntry",
    "pointerSwizzle", "cacheiter_replace_metadata", "updateRevisionQueue",
    "unpinAndReturn"};

void* asPointer(uint64_t number) { return reinterpret_cast<void*>(number); }

BucketSet* setOf(LuOffHeapValue* value) {
  return getBucketSet(nodeOf(value)->mapHeader, static_cast<uint32_t>(value->hashCode));
}

jlongArray newLongs(JNIEnv* env, const jlong* words, jsize count) {
  const jlongArray array = env->NewLongArray(count);
  if (array != nullptr) env->SetLongArrayRegion(array, 0, count, words);
  return array;
}

// Lets a node go whose failure to unlock Java is not told of.
void unlockQuietly(JNIEnv* env, const char* function, overflow_metadata* node,
                   const char* failure) {
  if (overflow_metadata_unlock(env, function, node)) return;
  catch_exception(env, function, true);
  NB_ERROR_GENERIC(env, kOverflowErrorKey, "%s", failure);
}

}  // namespace

void pageOut(JNIEnv* env, LuOffHeapValue* value, int64_t chunkPtrOffset, int32_t chunkSize,
             int64_t nextChunkPtrOffset) {
  constexpr char kFunction[] = "evictedToDisk";
  overflow_metadata* node = nodeOf(value);
  const ProfiledRun run(evictProfile, 500, "evictToDisk", kEvictLabels);
  NB_EVENT_AS(env, kFunction, "nof-evict. luValue=%p luValue->flags=%p offheapSizeBeforeEvict=%lu",
              static_cast<void*>(value), asPointer(value->flags),
              static_cast<unsigned long>(getCurrentSize(env)));
  NB_DEBUG_AS(env, kFunction, "Usage before eviction: %d", static_cast<int>(getCurrentSize(env)));
  NB_DEBUG_AS(env, kFunction, "old_metadata = %p", static_cast<void*>(node));
  node->chunkPtrOffset = chunkPtrOffset;
  node->chunkSize = chunkSize;
  node->nextChunkPtrOffset = nextChunkPtrOffset;
  clearFlag(in_memory, node);
  setFlag(on_disk, node);
  value->flags = static_cast<uint16_t>(value->flags & ~HAS_VALUE);
  run.point(1);
  ByteBufferHeader* buffer = value->value;
  const uint64_t size = buffer == nullptr ? 0 : sizeofByteBufferHeader(buffer);
  const uint64_t dataSize = buffer == nullptr ? 0 : buffer->dataSize;
  value->value = nullptr;
  if (buffer != nullptr) unpinToFree(env, buffer, LUOFFHEAPMAPVALUE_VALUE_PIN);
  NB_DEBUG_AS(env, kFunction,
              "nof-evict completed. luValue=%p luValue->value=%p prevValue_size=%lu "
              "prevValue_dataSize=%lu luValue->flags=%p metadata->flags=%p chunkptr_offset=%lu "
              "chunkptr_size=%lu chunkptr_next=%lu",
              static_cast<void*>(value), static_cast<void*>(value->value), size, dataSize,
              asPointer(value->flags), asPointer(node->flags),
              static_cast<unsigned long>(chunkPtrOffset), static_cast<unsigned long>(chunkSize),
              static_cast<unsigned long>(nextChunkPtrOffset));
  run.point(6);
}

void pageIn(JNIEnv* env, LuOffHeapValue* value, ByteBufferHeader* buffer) {
  constexpr char kFunction[] = "valueToLuOffHeapValue";
  // Deliberate: without event or debug tracing the entry's pin stays recorded as the allocation's.
  // The count is the same. The contract with Java says so.
  // Pinned by PageIn.PinReasonDependsOnTheTraceLevel.
  if (logInfo.event || logInfo.debug) {
    pin(env, buffer, LUOFFHEAPMAPVALUE_VALUE_PIN);
    unpin(env, buffer, ALLOCATION_PIN);
  }
  overflow_metadata* node = nodeOf(value);
  value->value = buffer;
  setFlag(in_memory | recently_used, node);
  value->flags = static_cast<uint16_t>(value->flags | HAS_VALUE);
  NB_DEBUG_AS(env, kFunction,
              "Paged-in luValue=%p luValue->key=%p luValue->value=%p luValue->flags=%p "
              "metadata->flags=%p",
              static_cast<void*>(value), static_cast<void*>(value->key),
              static_cast<void*>(value->value), asPointer(value->flags), asPointer(node->flags));
}

int64_t lockBucketSetAndNode(JNIEnv* env, const char* tag, LuOffHeapValue* value) {
  overflow_metadata* node = nodeOf(value);
  if (!overflow_metadata_lock(env, tag, node)) return 1;
  BucketSet* set = setOf(value);
  if (trylockBucketSet(set) == 0) return 0;
  const auto depth = static_cast<uint16_t>(overflow_metadata_get_hold_count(env, node));
  for (uint16_t i = 0; i < depth; i++) {
    if (!overflow_metadata_unlock(env, tag, node)) return 1;
  }
  if (lockBucketSet(set) != 0) {
    NB_ERROR_GENERIC(env, kLockErrorKey, kAcquireLockText, "BucketSet [of1]");
    return 1;
  }
  if (!overflow_metadata_lock(env, "from lockBucket after trylock failure", node)) {
    unlockBucketSet(set);
    return 1;
  }
  const uint16_t before = replaceHoldCount(node, depth);
  NB_DEBUG_AS(env, "lockBucketSetAndMetadata",
              "updating metadata=%p old_lock_depth=%d new_lock_depth=%p", static_cast<void*>(node),
              before, asPointer(depth));
  return static_cast<int64_t>(reinterpret_cast<uintptr_t>(node));
}

int32_t unlockBucketSetAndNode(JNIEnv* env, const char* tag, LuOffHeapValue* value) {
  // Found before the node is let go: afterwards another thread may free the record.
  BucketSet* set = setOf(value);
  if (!overflow_metadata_unlock(env, tag, nodeOf(value))) return 1;
  return unlockBucketSet(set);
}

}  // namespace nimbra

using namespace nimbra;

// ---- NOFStruct -----------------------------------------------------------------------------

jintArray Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_getOverflowState(JNIEnv* env,
                                                                                  jclass,
                                                                                  jlong handle) {
  const NativeScope scope(env);
  constexpr char kName[] = "getOverflowState";
  auto* value = fromHandle<LuOffHeapValue>(handle);
  NB_ENTRY_AS(env, kName, "getOverflowState, address=%p", static_cast<void*>(value));
  if (value == nullptr) {
    NB_DEBUG_AS(env, kName, "luValue=%p NULL! Bailing out.", static_cast<void*>(value));
    return nullptr;
  }
  overflow_metadata* node = nodeOf(value);
  if (!overflow_metadata_lock(env, kName, node)) return nullptr;
  NB_DEBUG_AS(env, kName,
              "luValue=%p luValue->key=%p luValue->value=%p luValue->flags=%hx "
              "luValue->value_size=%lu metadata->flags=%hx",
              static_cast<void*>(value), static_cast<void*>(value->key),
              static_cast<void*>(value->value), value->flags,
              static_cast<unsigned long>(value->valueLength), node->flags);
  const jint words[kStateWords] = {static_cast<jint>(getSize_LuValue(env, value)),
                                   node->flags,
                                   node->mapHeader->map_id,
                                   node->mapHeader->map_set_id,
                                   static_cast<jint>(value->valueLength),
                                   static_cast<jint>(toHandle(value->hashNext))};
  if (!overflow_metadata_unlock(env, kName, node)) return nullptr;
  const jintArray state = env->NewIntArray(kStateWords);
  if (state != nullptr) env->SetIntArrayRegion(state, 0, kStateWords, words);
  NB_EXIT_AS(env, kName, "getOverflowState");
  return state;
}

jlongArray Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_getChunkPtrAndSize(JNIEnv* env,
                                                                                     jclass,
                                                                                     jlong handle) {
  const NativeScope scope(env);
  auto* value = fromHandle<LuOffHeapValue>(handle);
  NB_ENTRY(env, "luOffHeapValueAddress = %p", static_cast<void*>(value));
  overflow_metadata* node = nodeOf(value);
  if (!overflow_metadata_lock(env, __func__, node)) return nullptr;
  const bool onDisk = isFlagSet(on_disk, node);
  const jlong words[kChunkWords] = {onDisk ? node->chunkPtrOffset : 0, onDisk ? node->chunkSize : 0,
                                    onDisk ? node->nextChunkPtrOffset : 0,
                                    static_cast<jlong>(value->valueLength)};
  if (!overflow_metadata_unlock(env, __func__, node)) return nullptr;
  NB_EXIT(env, "exit with return values %ld, %ld, %ld, %ld", words[0], words[1], words[2],
          words[3]);
  return newLongs(env, words, kChunkWords);
}

jlong Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_evictedToDisk(
    JNIEnv* env, jclass, jlong handle, jlong chunkPtrOffset, jint chunkSize,
    jlong nextChunkPtrOffset) {
  const NativeScope scope(env);
  pageOut(env, fromHandle<LuOffHeapValue>(handle), chunkPtrOffset, chunkSize, nextChunkPtrOffset);
  return handle;
}

void Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_valueToLuOffHeapValue(JNIEnv* env,
                                                                                  jclass,
                                                                                  jobject buffer,
                                                                                  jlong handle) {
  const NativeScope scope(env);
  ByteBufferHeader* header = headerOfBuffer(env, buffer);
  if (header == nullptr) {
    throw_exception(env, __func__, "Error from GetDirectBufferAddress (returned NULL)");
    return;
  }
  pageIn(env, fromHandle<LuOffHeapValue>(handle), header);
}

jlongArray Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_lockValidAndGetChunkPtr(
    JNIEnv* env, jclass, jlong handle) {
  const NativeScope scope(env);
  auto* value = fromHandle<LuOffHeapValue>(handle);
  overflow_metadata* node = nodeOf(value);
  jlong words[kChunkWords] = {};
  if (!overflow_metadata_trylock(env, __func__, node)) {
    NB_DEBUG(env, "Couldn't get metadata lock on %p", static_cast<void*>(node));
  } else if (isFlagSet(is_invalid, node)) {
    unlockQuietly(env, __func__, node, "failed to unlock INVALID metadata during compaction");
    NB_DEBUG(env, "metadata marked INVALID: %p", static_cast<void*>(node));
  } else if (BucketSet* set = setOf(value); trylockBucketSet(set) != 0) {
    unlockQuietly(env, __func__, node,
                  "failed to unlock valid node after a BucketSet trylock failure");
    NB_DEBUG(env, "Couldn't get buckset lock on %p", static_cast<void*>(set));
  } else {
    words[0] = 1;
    words[1] = node->chunkPtrOffset;
    words[2] = node->chunkSize;
    words[3] = node->nextChunkPtrOffset;
  }
  const jlongArray result = newLongs(env, words, kChunkWords);
  if (result == nullptr && words[0] == 1) {
    // Java would never learn that both are held.
    unlockBucketSet(setOf(value));
    overflow_metadata_unlock(env, __func__, node);
  }
  return result;
}

jlong Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_setChunkPtrOffset(JNIEnv*, jclass,
                                                                               jlong handle,
                                                                               jlong offset) {
  overflow_metadata* node = nodeOf(fromHandle<LuOffHeapValue>(handle));
  node->chunkPtrOffset = offset;
  return toHandle(node);
}

jlong Java_com_velt_rz_corvane_io_offheap_overflow_NOFStruct_setNextChunkPtrOffset(JNIEnv*, jclass,
                                                                                   jlong handle,
                                                                                   jlong offset) {
  overflow_metadata* node = nodeOf(fromHandle<LuOffHeapValue>(handle));
  node->nextChunkPtrOffset = offset;
  return toHandle(node);
}

// ---- Overflow ------------------------------------------------------------------------------

jlong Java_com_velt_rz_corvane_io_offheap_overflow_Overflow_lockBucketSetAndMetadata(JNIEnv* env,
                                                                                     jclass,
                                                                                     jlong handle) {
  const NativeScope scope(env);
  return lockBucketSetAndNode(env, __func__, fromHandle<LuOffHeapValue>(handle));
}

jint Java_com_velt_rz_corvane_io_offheap_overflow_Overflow_unlockBucketSetAndMetadata(
    JNIEnv* env, jclass, jlong handle) {
  const NativeScope scope(env);
  return unlockBucketSetAndNode(env, __func__, fromHandle<LuOffHeapValue>(handle));
}

jboolean Java_com_velt_rz_corvane_io_offheap_overflow_Overflow_unlockMetadata(JNIEnv* env, jclass,
                                                                              jlong handle) {
  const NativeScope scope(env);
  const bool unlocked =
      overflow_metadata_unlock(env, __func__, nodeOf(fromHandle<LuOffHeapValue>(handle)));
  return unlocked ? JNI_TRUE : JNI_FALSE;
}

// ---- Utils ---------------------------------------------------------------------------------

void Java_com_velt_rz_corvane_io_offheap_overflow_Utils_printPthreadID(JNIEnv* env, jclass) {
  const NativeScope scope(env);
  NB_DEBUG(env, "pthread_self() = %d", static_cast<int>(pthread_self()));
}

// ---- CacheIter -----------------------------------------------------------------------------

void Java_com_velt_rz_corvane_io_offheap_overflow_CacheIter_init(JNIEnv* env, jclass,
                                                                 jlong onEntryNumItems,
                                                                 jlong maxNumItems,
                                                                 jboolean trackStats) {
  const NativeScope scope(env);
  cacheiter_init(env, onEntryNumItems, maxNumItems, trackStats == JNI_TRUE);
}

jlong Java_com_velt_rz_corvane_io_offheap_overflow_CacheIter_advanceAndNextEvictable(JNIEnv* env,
                                                                                     jclass) {
  const NativeScope scope(env);
  return toHandle(cacheiter_next_evictable(env));
}

void Java_com_velt_rz_corvane_io_offheap_overflow_CacheIter_dispose(JNIEnv* env, jclass) {
  const NativeScope scope(env);
  cacheiter_dispose(env);
}

jlongArray Java_com_velt_rz_corvane_io_offheap_overflow_CacheIter_getSweepState(JNIEnv* env,
                                                                                jclass) {
  const NativeScope scope(env);
  jlong words[kSweepStateWords];
  cacheiter_state(env, words);
  return newLongs(env, words, kSweepStateWords);
}
