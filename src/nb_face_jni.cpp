// The map face's own natives: one crossing an operation, on the same internal operations.
//
// Keys and values are opaque bytes. A value is copied, or its buffer pinned, while the bucket set
// is held, so no reader meets a buffer that an update has freed. The face keeps handles valid: a
// map is deleted only after the last call has left it.
#include "com_velt_rz_corvane_nimbra_CallNatives.h"
#include "com_velt_rz_corvane_nimbra_MapNatives.h"
#include "nb_alloc_backend.h"
#include "nb_face_quick.h"
#include "nb_logging.h"
#include "nb_stamp.h"

using namespace nimbra;
using namespace nimbra::face;

namespace {

// Answers of CallNatives that are no length.
constexpr jint kAbsent = -1;
constexpr jint kOrdinaryRoad = -2;  // nothing done: to be called again with arrays

// What Java's UnlockedReads knows of the layouts.
#if defined(__x86_64__)
constexpr bool kJavaKnowsLayouts = true;
static_assert(sizeof(BucketSet) == 64 && offsetof(BucketSet, buckets) == 40 &&
              offsetof(BucketSet, bucketMask) == 56);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"  // records that inherit; both compilers know
static_assert(offsetof(LuOffHeapValue, key) == 24 && offsetof(LuOffHeapValue, value) == 32 &&
              offsetof(LuOffHeapValue, hashNext) == 40 && offsetof(LuOffHeapValue, hashCode) == 80);
static_assert(offsetof(ByteBufferHeader, dataSize) == 8 && kBufferDataOffset == 24);
#pragma GCC diagnostic pop
static_assert(offsetof(LogInfo, entryExit) == 2 && offsetof(LogInfo, profiling) == 10 &&
              offsetof(LogInfo, pinTracking) == 11);
static_assert(sizeof(SetStamp) == 64 && kSetStamps == 1024);
#else
constexpr bool kJavaKnowsLayouts = false;
#endif

WriteOutcome insert(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, BufferCopy& keyBuffer,
                    BufferCopy& value, jlong revision) {
  if (isQuiet() && key.buffer() != nullptr) {
    switch (insertQuickly(env, map, key, keyBuffer, value, revision)) {
      case Quick::done: return WriteOutcome::done;
      case Quick::none: return WriteOutcome::none;
      case Quick::failed: return WriteOutcome::failed;
      default: break;
    }
  }
  WriteOutcome outcome;
  LuOffHeapValue* created =
      insertAndPin(env, nullptr, map, key.object(), OBJECT_TYPE_JBYTE_ARRAY, keyBuffer.get(),
                   key.hash(), true, value.get(), kOwner, revision, &outcome);
  if (created != nullptr) unpinLuOffHeapMapValue(env, created, JNI_INSERTED_PIN);
  return outcome;
}

// Pins the key's value; nothing when absent.
Found pinValue(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, const char* function) {
  Found found;
  BucketSet* set = key.setIn(map);
  if (!lockOrRaise(env, set, function, lockBucketSetToRead)) return found;
  if (LuOffHeapValue* value = key.findIn(env, map)) {
    found = pinFound(env, value);
    markUsed(value);
  }
  unlockReadBucketSet(set);
  return found;
}

bool isPresent(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, bool* locked,
               const char* function) {
  BucketSet* set = key.setIn(map);
  *locked = lockOrRaise(env, set, function, lockBucketSetToRead);
  if (!*locked) return false;
  const bool present = key.findIn(env, map) != nullptr;
  unlockReadBucketSet(set);
  return present;
}

jint put(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, const JavaBytes& keyBytes,
         BufferCopy& value, jlong revision) {
  if (isQuiet() && key.buffer() != nullptr && _moreMainMemoryNeededID == nullptr) {
    bool inserted = false;
    switch (putQuickly(env, map, key, keyBytes, value, revision, &inserted)) {
      case Quick::done: return inserted ? 1 : 0;
      case Quick::failed: return kFailed;
      default: break;
    }
  }
  // Each half is atomic; a key that comes or goes between them sends us round again.
  for (;;) {
    const WriteOutcome updated = update(env, map, key, value, revision);
    if (updated != WriteOutcome::none) return updated == WriteOutcome::done ? 0 : kFailed;
    if (env->ExceptionCheck()) return kFailed;  // the search itself could not be made
    BufferCopy keyBuffer(env, keyBytes, "Key Data");
    if (keyBuffer.get() == nullptr) return kFailed;
    const WriteOutcome inserted = insert(env, map, key, keyBuffer, value, revision);
    if (inserted != WriteOutcome::none) return inserted == WriteOutcome::done ? 1 : kFailed;
  }
}

// 1 for a write that was made, 0 for one that the key's presence or absence forbids.
jint answer(WriteOutcome outcome) {
  switch (outcome) {
    case WriteOutcome::done: return 1;
    case WriteOutcome::none: return 0;
    default: return kFailed;
  }
}

jint insertNew(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, const JavaBytes& keyBytes,
               BufferCopy& value, jlong revision) {
  BufferCopy keyBuffer(env, keyBytes, "Key Data");
  if (keyBuffer.get() == nullptr) return kFailed;
  return answer(insert(env, map, key, keyBuffer, value, revision));
}

jint remove(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key) {
  LuOffHeapValue* removed = nullptr;
  if (isQuiet() && key.buffer() != nullptr) {
    switch (removeQuickly(map, key, &removed)) {
      case Quick::none: return 0;
      case Quick::done:
        if (_isDiskOverflowEnabled) overflow_metadata_splice_out(env, nodeOf(removed), false);
        forgetUntold(env, removed);
        unpinLuOffHeapMapValue(env, removed, JNI_REMOVED_PIN);
        return 1;
      default: break;
    }
  }
  WriteOutcome outcome;
  removed = removeAndPin(env, nullptr, map, key.object(), OBJECT_TYPE_JBYTE_ARRAY, key.buffer(),
                         key.hash(), true, &outcome);
  if (removed != nullptr) {
    forgetUntold(env, removed);
    unpinLuOffHeapMapValue(env, removed, JNI_REMOVED_PIN);
  }
  return answer(outcome);
}

}  // namespace

// ---- Calls with arrays -----------------------------------------------------------------------

jint Java_com_velt_rz_corvane_nimbra_MapNatives_put(JNIEnv* env, jclass, jlong handle,
                                                    jbyteArray keyArray, jint hash,
                                                    jbyteArray valueArray, jlong revision) {
  const NativeScope scope(env);
  const JavaBytes keyBytes(env, keyArray);
  const SearchKey key(keyBytes, hash);
  BufferCopy value(env, valueArray, "Value Data");
  if (value.get() == nullptr) return kFailed;
  return put(env, fromHandle<LuOffHeapMap>(handle), key, keyBytes, value, revision);
}

jint Java_com_velt_rz_corvane_nimbra_MapNatives_putIfAbsent(JNIEnv* env, jclass, jlong handle,
                                                            jbyteArray keyArray, jint hash,
                                                            jbyteArray valueArray, jlong revision) {
  const NativeScope scope(env);
  auto* map = fromHandle<LuOffHeapMap>(handle);
  const JavaBytes keyBytes(env, keyArray);
  const SearchKey key(keyBytes, hash);
  bool locked;
  const bool present = isPresent(env, map, key, &locked, __func__);
  if (!locked) return kFailed;
  if (present) return 0;
  if (env->ExceptionCheck()) return kFailed;  // the search itself could not be made
  BufferCopy value(env, valueArray, "Value Data");
  if (value.get() == nullptr) return kFailed;
  return insertNew(env, map, key, keyBytes, value, revision);
}

jint Java_com_velt_rz_corvane_nimbra_MapNatives_replace(JNIEnv* env, jclass, jlong handle,
                                                        jbyteArray keyArray, jint hash,
                                                        jbyteArray valueArray, jlong revision) {
  const NativeScope scope(env);
  const SearchKey key(env, keyArray, hash);
  BufferCopy value(env, valueArray, "Value Data");
  if (value.get() == nullptr) return kFailed;
  return answer(update(env, fromHandle<LuOffHeapMap>(handle), key, value, revision));
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
  return remove(env, fromHandle<LuOffHeapMap>(handle), SearchKey(env, keyArray, hash));
}

jboolean Java_com_velt_rz_corvane_nimbra_MapNatives_containsKey(JNIEnv* env, jclass, jlong handle,
                                                                jbyteArray keyArray, jint hash) {
  const NativeScope scope(env);
  const SearchKey key(env, keyArray, hash);
  bool locked;
  return isPresent(env, fromHandle<LuOffHeapMap>(handle), key, &locked, __func__) ? JNI_TRUE
                                                                                  : JNI_FALSE;
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

// ---- Calls through the thread's own memory ---------------------------------------------------

namespace {

// A call's key and map.
struct ShortCall {
  ShortCall(jlong mapHandle, jlong areaHandle, jint keyLength, jint hash)
      : map(fromHandle<LuOffHeapMap>(mapHandle)),
        area(fromHandle<CallArea>(areaHandle)),
        key({area->key, keyLength}, hash),
        use(area->use) {
    prefetchBucket(map->map, static_cast<uint32_t>(hash));
  }
  LuOffHeapMap* map;
  CallArea* area;
  SearchKey key;
  jlong use;
};

// The value of a write. Null when memory was refused. Its allocation may have called Java, and Java
// may have used the area: then it holds something else, and `ordinary` says so.
struct ShortValue {
  ShortValue(JNIEnv* env, const ShortCall& call, jint length)
      : copy(env, {call.area->value, length}, "Value Data"), ordinary(call.area->use != call.use) {}
  BufferCopy copy;
  bool ordinary;
};

}  // namespace

jlong Java_com_velt_rz_corvane_nimbra_CallNatives_address(JNIEnv* env, jclass, jobject memory) {
  return toHandle(env->GetDirectBufferAddress(memory));
}

jlong Java_com_velt_rz_corvane_nimbra_CallNatives_stamps(JNIEnv*, jclass) {
  return kJavaKnowsLayouts && backend::keepsAddresses() ? toHandle(setStamps) : 0;
}

jlong Java_com_velt_rz_corvane_nimbra_CallNatives_traceLevels(JNIEnv*, jclass) {
  return toHandle(&logInfo);
}

jlong Java_com_velt_rz_corvane_nimbra_CallNatives_bucketSets(JNIEnv*, jclass, jlong handle) {
  return toHandle(getBucketSetByIndex(fromHandle<LuOffHeapMap>(handle)->map, 0));
}

jint Java_com_velt_rz_corvane_nimbra_CallNatives_get(JNIEnv* env, jclass, jlong handle,
                                                     jlong areaHandle, jint keyLength, jint hash) {
  const NativeScope scope(env);
  const ShortCall call(handle, areaHandle, keyLength, hash);
  BucketSet* set = call.key.setIn(call.map);
  if (lockBucketSetToRead(set) != 0) return kOrdinaryRoad;
  jint length = kAbsent;
  if (LuOffHeapValue* value =
          isQuiet() ? findQuickly(set, call.key) : call.key.findIn(env, call.map)) {
    const ByteBufferHeader* buffer = value->value;
    if (buffer == nullptr || buffer->dataSize > sizeof call.area->value) {
      length = kOrdinaryRoad;
    } else {
      markUsed(value);
      length = static_cast<jint>(buffer->dataSize);
      std::memcpy(call.area->value, bufferData(buffer), buffer->dataSize);
    }
  }
  unlockReadBucketSet(set);
  return length;
}

jlong Java_com_velt_rz_corvane_nimbra_CallNatives_pin(JNIEnv* env, jclass, jlong handle,
                                                      jlong areaHandle, jint keyLength, jint hash) {
  const NativeScope scope(env);
  const ShortCall call(handle, areaHandle, keyLength, hash);
  const Found found = pinValue(env, call.map, call.key, __func__);
  if (found.record != nullptr) return -toHandle(found.record);
  if (found.buffer == nullptr) return 0;
  call.area->results[0] = toHandle(bufferData(found.buffer));
  call.area->results[1] = static_cast<jlong>(found.buffer->dataSize);
  call.area->results[2] = found.revision;
  return toHandle(found.buffer);
}

jboolean Java_com_velt_rz_corvane_nimbra_CallNatives_containsKey(JNIEnv* env, jclass, jlong handle,
                                                                 jlong areaHandle, jint keyLength,
                                                                 jint hash) {
  const NativeScope scope(env);
  const ShortCall call(handle, areaHandle, keyLength, hash);
  bool locked;
  return isPresent(env, call.map, call.key, &locked, __func__) ? JNI_TRUE : JNI_FALSE;
}

jint Java_com_velt_rz_corvane_nimbra_CallNatives_remove(JNIEnv* env, jclass, jlong handle,
                                                        jlong areaHandle, jint keyLength,
                                                        jint hash) {
  const NativeScope scope(env);
  const ShortCall call(handle, areaHandle, keyLength, hash);
  return remove(env, call.map, call.key);
}

jint Java_com_velt_rz_corvane_nimbra_CallNatives_put(JNIEnv* env, jclass, jlong handle,
                                                     jlong areaHandle, jint keyLength, jint hash,
                                                     jint valueLength, jlong revision) {
  const NativeScope scope(env);
  const ShortCall call(handle, areaHandle, keyLength, hash);
  ShortValue value(env, call, valueLength);
  if (value.copy.get() == nullptr) return kFailed;
  if (value.ordinary) return kOrdinaryRoad;
  return put(env, call.map, call.key, call.key.bytes(), value.copy, revision);
}

jint Java_com_velt_rz_corvane_nimbra_CallNatives_putIfAbsent(JNIEnv* env, jclass, jlong handle,
                                                             jlong areaHandle, jint keyLength,
                                                             jint hash, jint valueLength,
                                                             jlong revision) {
  const NativeScope scope(env);
  const ShortCall call(handle, areaHandle, keyLength, hash);
  bool locked;
  const bool present = isPresent(env, call.map, call.key, &locked, __func__);
  if (!locked) return kFailed;
  if (present) return 0;
  ShortValue value(env, call, valueLength);
  if (value.copy.get() == nullptr) return kFailed;
  if (value.ordinary) return kOrdinaryRoad;
  return insertNew(env, call.map, call.key, call.key.bytes(), value.copy, revision);
}

jint Java_com_velt_rz_corvane_nimbra_CallNatives_replace(JNIEnv* env, jclass, jlong handle,
                                                         jlong areaHandle, jint keyLength,
                                                         jint hash, jint valueLength,
                                                         jlong revision) {
  const NativeScope scope(env);
  const ShortCall call(handle, areaHandle, keyLength, hash);
  ShortValue value(env, call, valueLength);
  if (value.copy.get() == nullptr) return kFailed;
  if (value.ordinary) return kOrdinaryRoad;
  return answer(update(env, call.map, call.key, value.copy, revision));
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
  for (; value != nullptr; value = value->hashNext) {
    handOverForWalk(env, value, pinFound(env, value), out, index++);
  }
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
