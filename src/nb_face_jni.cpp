// The map face's own natives: one crossing an operation, on the same internal operations.
//
// Keys and values are opaque bytes. A value is copied, or its buffer pinned, while the bucket set
// is held, so no reader meets a buffer that an update has freed. The face keeps handles valid: a
// map is deleted only after the last call has left it.
#include "com_velt_rz_corvane_nimbra_MapNatives.h"
#include "nb_face.h"
#include "nb_logging.h"

using namespace nimbra;
using namespace nimbra::face;

namespace {

WriteOutcome insert(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key,
                    ByteBufferHeader* keyBuffer, ByteBufferHeader* value, jlong revision) {
  WriteOutcome outcome;
  LuOffHeapValue* created =
      insertAndPin(env, nullptr, map, key.object(), OBJECT_TYPE_JBYTE_ARRAY, keyBuffer, key.hash(),
                   true, value, kOwner, revision, &outcome);
  if (created != nullptr) unpinLuOffHeapMapValue(env, created, JNI_INSERTED_PIN);
  return outcome;
}

// Pins the key's value; nothing when absent.
Found pinValue(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, const char* function) {
  Found found;
  BucketSet* set = key.setIn(map);
  if (!lockOrRaise(env, set, function)) return found;
  if (LuOffHeapValue* value = key.findIn(env, map)) {
    found = pinFound(env, value);
    markUsed(env, value);
  }
  unlockBucketSet(set);
  return found;
}

}  // namespace

jint Java_com_velt_rz_corvane_nimbra_MapNatives_put(JNIEnv* env, jclass, jlong handle,
                                                    jbyteArray keyArray, jint hash,
                                                    jbyteArray valueArray, jlong revision) {
  const NativeScope scope(env);
  auto* map = fromHandle<LuOffHeapMap>(handle);
  const SearchKey key(env, keyArray, hash);
  const ArrayCopy value(env, valueArray, "Value Data");
  if (value.get() == nullptr) return kFailed;
  // Each half is atomic; a key that comes or goes between them sends us round again.
  for (;;) {
    const WriteOutcome updated = update(env, map, key, value.get(), revision);
    if (updated != WriteOutcome::none) return updated == WriteOutcome::done ? 0 : kFailed;
    if (env->ExceptionCheck()) return kFailed;  // the search itself could not be made
    const ArrayCopy keyBuffer(env, keyArray, "Key Data");
    if (keyBuffer.get() == nullptr) return kFailed;
    const WriteOutcome inserted = insert(env, map, key, keyBuffer.get(), value.get(), revision);
    if (inserted != WriteOutcome::none) return inserted == WriteOutcome::done ? 1 : kFailed;
  }
}

jint Java_com_velt_rz_corvane_nimbra_MapNatives_putIfAbsent(JNIEnv* env, jclass, jlong handle,
                                                            jbyteArray keyArray, jint hash,
                                                            jbyteArray valueArray, jlong revision) {
  const NativeScope scope(env);
  auto* map = fromHandle<LuOffHeapMap>(handle);
  const SearchKey key(env, keyArray, hash);
  BucketSet* set = key.setIn(map);
  if (!lockOrRaise(env, set, __func__)) return kFailed;
  const bool present = key.findIn(env, map) != nullptr;
  unlockBucketSet(set);
  if (present) return 0;
  if (env->ExceptionCheck()) return kFailed;  // the search itself could not be made
  const ArrayCopy keyBuffer(env, keyArray, "Key Data");
  if (keyBuffer.get() == nullptr) return kFailed;
  const ArrayCopy value(env, valueArray, "Value Data");
  if (value.get() == nullptr) return kFailed;
  switch (insert(env, map, key, keyBuffer.get(), value.get(), revision)) {
    case WriteOutcome::done: return 1;
    case WriteOutcome::none: return 0;
    default: return kFailed;
  }
}

jint Java_com_velt_rz_corvane_nimbra_MapNatives_replace(JNIEnv* env, jclass, jlong handle,
                                                        jbyteArray keyArray, jint hash,
                                                        jbyteArray valueArray, jlong revision) {
  const NativeScope scope(env);
  auto* map = fromHandle<LuOffHeapMap>(handle);
  const SearchKey key(env, keyArray, hash);
  const ArrayCopy value(env, valueArray, "Value Data");
  if (value.get() == nullptr) return kFailed;
  switch (update(env, map, key, value.get(), revision)) {
    case WriteOutcome::done: return 1;
    case WriteOutcome::none: return 0;
    default: return kFailed;
  }
}

jbyteArray Java_com_velt_rz_corvane_nimbra_MapNatives_get(JNIEnv* env, jclass, jlong handle,
                                                          jbyteArray keyArray, jint hash,
                                                          jlongArray onDisk) {
  const NativeScope scope(env);
  const SearchKey key(env, keyArray, hash);
  return copyFound(env, pinValue(env, fromHandle<LuOffHeapMap>(handle), key, __func__), onDisk);
}

jint Java_com_velt_rz_corvane_nimbra_MapNatives_remove(JNIEnv* env, jclass, jlong handle,
                                                       jbyteArray keyArray, jint hash) {
  const NativeScope scope(env);
  const SearchKey key(env, keyArray, hash);
  WriteOutcome outcome;
  LuOffHeapValue* removed =
      removeAndPin(env, nullptr, fromHandle<LuOffHeapMap>(handle), key.object(),
                   OBJECT_TYPE_JBYTE_ARRAY, key.buffer(), hash, true, &outcome);
  if (removed != nullptr) {
    forgetUntold(env, removed);
    unpinLuOffHeapMapValue(env, removed, JNI_REMOVED_PIN);
  }
  switch (outcome) {
    case WriteOutcome::done: return 1;
    case WriteOutcome::none: return 0;
    default: return kFailed;
  }
}

jboolean Java_com_velt_rz_corvane_nimbra_MapNatives_containsKey(JNIEnv* env, jclass, jlong handle,
                                                                jbyteArray keyArray, jint hash) {
  const NativeScope scope(env);
  auto* map = fromHandle<LuOffHeapMap>(handle);
  const SearchKey key(env, keyArray, hash);
  BucketSet* set = key.setIn(map);
  if (!lockOrRaise(env, set, __func__)) return JNI_FALSE;
  const bool present = key.findIn(env, map) != nullptr;
  unlockBucketSet(set);
  return present ? JNI_TRUE : JNI_FALSE;
}

jlong Java_com_velt_rz_corvane_nimbra_MapNatives_pin(JNIEnv* env, jclass, jlong handle,
                                                     jbyteArray keyArray, jint hash,
                                                     jlongArray out) {
  const NativeScope scope(env);
  const SearchKey key(env, keyArray, hash);
  return handOverPinned(env, pinValue(env, fromHandle<LuOffHeapMap>(handle), key, __func__), out);
}

void Java_com_velt_rz_corvane_nimbra_MapNatives_unpin(JNIEnv* env, jclass, jlong handle) {
  const NativeScope scope(env);
  unpinToFree(env, fromHandle<ByteBufferHeader>(handle), JNI_GET_PIN);
}

jlong Java_com_velt_rz_corvane_nimbra_MapNatives_hardCapLimit(JNIEnv*, jclass) {
  return static_cast<jlong>(getHardCapLimit());
}

// ---- Walk over all entries -----------------------------------------------------------------
// The position in a set's bucket array counts from the highest bit of the mask downward. A bucket
// that splits when the set grows yields buckets that stand next to each other in that order, so a
// walk neither misses nor repeats an entry while sets grow between its steps. (The counting is
// Pieter Noordhuis's, known from hash tables that are scanned in steps.)

namespace {

uint32_t reverseBits(uint32_t bits) {
  bits = ((bits >> 1) & 0x55555555U) | ((bits & 0x55555555U) << 1);
  bits = ((bits >> 2) & 0x33333333U) | ((bits & 0x33333333U) << 2);
  bits = ((bits >> 4) & 0x0F0F0F0FU) | ((bits & 0x0F0F0F0FU) << 4);
  return __builtin_bswap32(bits);
}

// The next bucket position, 0 behind the last.
uint32_t nextPosition(uint32_t position, uint32_t mask) {
  return reverseBits(reverseBits(position | ~mask) + 1);
}

jsize chainLength(const LuOffHeapValue* value) {
  jsize length = 0;
  for (; value != nullptr; value = value->hashNext) length++;
  return length;
}

// REQUIRES: the bucket set. Pins key and value buffers of a chain and writes their places.
void writeChain(JNIEnv* env, LuOffHeapValue* value, jlongArray out, jsize index) {
  for (; value != nullptr; value = value->hashNext) pinForWalk(env, value, out, index++);
}

}  // namespace

jint Java_com_velt_rz_corvane_nimbra_MapNatives_scan(JNIEnv* env, jclass, jlong handle,
                                                     jlongArray cursorArray, jlongArray out) {
  const NativeScope scope(env);
  MapHeader* table = fromHandle<LuOffHeapMap>(handle)->map;
  jlong cursor[2];
  env->GetLongArrayRegion(cursorArray, 0, 2, cursor);
  if (env->ExceptionCheck()) return 0;
  const jsize capacity = env->GetArrayLength(out) / kScanWords;
  auto setIndex = static_cast<uint32_t>(cursor[0]);
  auto position = static_cast<uint32_t>(cursor[1]);
  jsize written = 0;
  jsize needed = 0;
  bool full = false;
  while (!full && setIndex < table->numBucketSets) {
    BucketSet* set = getBucketSetByIndex(table, setIndex);
    if (lockBucketSet(set) != 0) {
      // With entries already pinned for Java the failure waits for the next step.
      if (written > 0) break;
      raiseLockFailure(env, __func__);
      return 0;
    }
    do {
      auto* first = static_cast<LuOffHeapValue*>(set->buckets[position & set->bucketMask]);
      const jsize length = chainLength(first);
      if (length > capacity - written) {
        full = true;
        needed = length;
        break;
      }
      writeChain(env, first, out, written);
      written += length;
      position = nextPosition(position, set->bucketMask);
    } while (position != 0);
    unlockBucketSet(set);
    if (!full) setIndex++;
  }
  if (full && written == 0) return -needed;
  const jlong next[2] = {setIndex < table->numBucketSets ? static_cast<jlong>(setIndex) : -1,
                         static_cast<jlong>(position)};
  env->SetLongArrayRegion(cursorArray, 0, 2, next);
  return written;
}

void Java_com_velt_rz_corvane_nimbra_MapNatives_unpinAll(JNIEnv* env, jclass, jlongArray out,
                                                         jint from, jint count) {
  const NativeScope scope(env);
  for (jint i = from; i < from + count; i++) {
    jlong words[kScanWords];
    env->GetLongArrayRegion(out, i * kScanWords, kScanWords, words);
    if (env->ExceptionCheck()) return;
    unpinToFree(env, headerOfData(fromHandle<void>(words[0])), JNI_GET_PIN);
    if (words[2] != 0) {
      unpinToFree(env, headerOfData(fromHandle<void>(words[2])), JNI_GET_PIN);
    } else if (words[3] != 0) {
      unpinLuOffHeapMapValue(env, fromHandle<LuOffHeapValue>(words[3]), JNI_GET_PIN);
    }
  }
}
