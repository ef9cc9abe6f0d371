// LuOffHeapMapImpl's natives that query by revision, walk the queues, and lock a map as a whole;
// and its character helpers.
#include <unistd.h>

#include <algorithm>

#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl.h"
#include "nb_jni.h"
#include "nb_logging.h"
#include "nb_map_private.h"

using namespace nimbra;

namespace {

// The elements of a long array for reading, released without copying back; none of a null array.
class LongElements {
 public:
  LongElements(JNIEnv* env, jlongArray array)
      : env_(env),
        array_(array),
        elements_(array != nullptr ? env->GetLongArrayElements(array, nullptr) : nullptr) {}
  ~LongElements() {
    if (elements_ != nullptr) env_->ReleaseLongArrayElements(array_, elements_, JNI_ABORT);
  }
  LongElements(const LongElements&) = delete;
  LongElements& operator=(const LongElements&) = delete;
  jlong* get() const { return elements_; }

 private:
  JNIEnv* env_;
  jlongArray array_;
  jlong* elements_;
};

}  // namespace

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_queryRevisionAndPinWithBounds(
    JNIEnv* env, jobject, jlong handle, jobject resultBuffer, jint bookmarkIndex,
    jlongArray startRevisions, jlongArray endRevisions) {
  const NativeScope scope(env);
  auto* map = fromHandle<LuOffHeapMap>(handle);
  NB_ENTRY_AS(env, "queryRevisionAndPinWithBounds", "luMapAddress=%p", static_cast<void*>(map));
  auto* result = static_cast<int64_t*>(env->GetDirectBufferAddress(resultBuffer));
  result[0] = 0;
  if (map == nullptr) {
    NB_DEBUG_AS(env, "queryRevisionAndPinWithBounds", "Passed in luMapAddress is null.");
    return 0;
  }
  const ProfiledRun run(qnp, kQueryPositions, kQueryProfile, kQueryLabels);
  const jsize numOwners = env->GetArrayLength(startRevisions);
  const LongElements starts(env, startRevisions);
  // After a failure an exception may be pending, with which no further elements may be asked for.
  const LongElements ends(env, starts.get() != nullptr ? endRevisions : nullptr);
  if (numOwners < 1 || starts.get() == nullptr || ends.get() == nullptr) {
    NB_DEBUG_AS(env, "queryRevisionAndPinWithBounds",
                "Passed in bounds are invalid. numOwners=%d startRevsNative=%p endRevsNative=%p",
                numOwners, static_cast<void*>(starts.get()), static_cast<void*>(ends.get()));
    return 0;
  }
  run.point(0);
  queryRevision(env, map, result, bookmarkIndex, starts.get(), ends.get(),
                std::min(numOwners, env->GetArrayLength(endRevisions)), run);
  run.point(7);
  return 0;
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getAndPinFirstInQueue(
    JNIEnv* env, jobject, jlong map, jint reason, jboolean lock) {
  const NativeScope scope(env);
  return toHandle(getAndPinFirstInRevisionQueue(env, fromHandle<LuOffHeapMap>(map),
                                                javaReason(reason), lock == JNI_TRUE));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getAndPinNextInQueue(
    JNIEnv* env, jobject, jlong map, jlong value, jint reason, jboolean lock) {
  const NativeScope scope(env);
  return toHandle(getAndPinNextInRevisionQueue(env, fromHandle<LuOffHeapMap>(map),
                                               fromHandle<LuOffHeapValue>(value),
                                               javaReason(reason), lock == JNI_TRUE));
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getAndPinNextKeyWithAttributes(
    JNIEnv* env, jobject, jlong map, jlong value, jlongArray attributes, jint reason) {
  const NativeScope scope(env);
  LuOffHeapValue* next =
      getAndPinNextInRevisionQueue(env, fromHandle<LuOffHeapMap>(map),
                                   fromHandle<LuOffHeapValue>(value), javaReason(reason), false);
  if (next == nullptr) return 0;
  if (next->key == nullptr) return -1;  // the value stays pinned
  pin(env, next->key, javaReason(reason));
  const jlong words[6] = {toHandle(bufferData(next->key)),
                          static_cast<jlong>(next->key->dataSize),
                          next->revisionOwner,
                          next->revisionNumber,
                          next->key->deserializedType,
                          toHandle(next->key)};
  env->SetLongArrayRegion(attributes, 0, 6, words);
  if (!env->ExceptionCheck()) return toHandle(next);
  unpinToFree(env, next->key, javaReason(reason));  // Java would never see the address
  unpinLuOffHeapMapValue(env, next, javaReason(reason));
  return 0;
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_lockMapAndQueues(JNIEnv* env,
                                                                                jobject,
                                                                                jlong handle) {
  const NativeScope scope(env);
  auto* map = fromHandle<LuOffHeapMap>(handle);
  if (wrlock(env, map) != 0) return 1;
  for (uint32_t i = 0; i < map->numQueues; i++) {
    if (lockQueueAscending(map->revisionQueue[i]) == 0) continue;
    while (i-- > 0) unlockQueue(map->revisionQueue[i]);
    // Deliberate: the unwinding has no end and the map lock is never released. The contract with
    // Java says so. Pinned by MapWideLock.FailedQueueLockNeverReturns.
    for (;;) pause();
  }
  return 0;
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_unlockMapAndQueues(JNIEnv*, jobject,
                                                                                  jlong map) {
  return unlockMapAndQueues(fromHandle<LuOffHeapMap>(map));
}

void Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getChars(JNIEnv* env, jobject,
                                                                        jobject source, jint, jint,
                                                                        jint, jcharArray target,
                                                                        jint count) {
  const NativeScope scope(env);
  const auto* data = static_cast<const uint8_t*>(env->GetDirectBufferAddress(source));
  jboolean isCopy = JNI_FALSE;
  auto* characters = static_cast<jchar*>(env->GetPrimitiveArrayCritical(target, &isCopy));
  if (characters == nullptr) return;
  for (jint i = 0; i < count; i++, data += 2) {
    characters[i] = static_cast<jchar>((data[0] << 8) + data[1]);
  }
  // Deliberate: the is-copy flag is the release mode, here and below. The contract with Java says
  // so. Pinned by CharacterHelpers.ReleaseWithTheCopyFlag.
  env->ReleasePrimitiveArrayCritical(target, characters, isCopy);
}

void Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_getFullCharBytesFromString(
    JNIEnv* env, jobject, jstring source, jint count, jbyteArray target, jint) {
  const NativeScope scope(env);
  const jchar* characters = env->GetStringCritical(source, nullptr);
  if (characters == nullptr) return;
  jboolean isCopy = JNI_FALSE;
  auto* bytes = static_cast<uint8_t*>(env->GetPrimitiveArrayCritical(target, &isCopy));
  if (bytes != nullptr) {
    for (jint i = 0; i < count; i++) {
      bytes[2 * static_cast<size_t>(i)] = static_cast<uint8_t>(characters[i] >> 8);
      bytes[2 * static_cast<size_t>(i) + 1] = static_cast<uint8_t>(characters[i]);
    }
    env->ReleasePrimitiveArrayCritical(target, bytes, isCopy);
  }
  env->ReleaseStringCritical(source, characters);
}
