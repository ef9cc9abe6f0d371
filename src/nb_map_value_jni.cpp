// LuOffHeapMapValueImpl's natives: what Java reads of a value record in place.
//
// No locks: Java holds a pin on the record, and asks for value information only while the value is
// in memory. The accessors check nothing beyond what their results say.
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl.h"
#include "nb_jni.h"
#include "nb_logging.h"
#include "nb_map_private.h"
#include "overflow.h"

using namespace nimbra;

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getKeyHashCode(JNIEnv*, jobject,
                                                                                   jlong value) {
  return fromHandle<LuOffHeapValue>(value)->hashCode;
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_isValueInMemory(JNIEnv* env,
                                                                                    jobject,
                                                                                    jlong handle) {
  const NativeScope scope(env);
  const auto* value = fromHandle<LuOffHeapValue>(handle);
  if (value == nullptr) return -1;
  NB_DEBUG(env, "luValue=%p luValue->flags=%hx luValue->key=%p luValue->value=%p",
           static_cast<const void*>(value), value->flags, static_cast<void*>(value->key),
           static_cast<void*>(value->value));
  return (value->flags & HAS_VALUE) != 0 ? 1 : 0;
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getRevisionOwner(JNIEnv*,
                                                                                     jobject,
                                                                                     jlong value) {
  return fromHandle<LuOffHeapValue>(value)->revisionOwner;
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getRevisionNumber(
    JNIEnv*, jobject, jlong value) {
  return fromHandle<LuOffHeapValue>(value)->revisionNumber;
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getReferenceCount(
    JNIEnv* env, jobject, jlong handle) {
  const NativeScope scope(env);
  auto* value = fromHandle<LuOffHeapValue>(handle);
  const int64_t pins = lockRead(&value->pins);
  NB_DEBUG(env, "value=%p, refCount=%d", static_cast<void*>(value), static_cast<int>(pins));
  return pins;
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getKeyInfo(JNIEnv* env, jobject,
                                                                               jlong handle,
                                                                               jlongArray out) {
  const NativeScope scope(env);
  const auto* value = fromHandle<LuOffHeapValue>(handle);
  const jlong words[3] = {toHandle(bufferData(value->key)),
                          static_cast<jlong>(value->key->dataSize), value->hashCode};
  env->SetLongArrayRegion(out, 0, 3, words);
  return 1;
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getKeyType(JNIEnv*, jobject,
                                                                               jlong value) {
  return fromHandle<LuOffHeapValue>(value)->key->deserializedType;
}

namespace {

jint writeValueInfo(JNIEnv* env, jlong handle, jlongArray out) {
  const auto* value = fromHandle<LuOffHeapValue>(handle);
  if (value == nullptr) return 0;
  const jlong words[2] = {toHandle(bufferData(value->value)),
                          static_cast<jlong>(value->value->dataSize)};
  env->SetLongArrayRegion(out, 0, 2, words);
  return 1;
}

}  // namespace

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getValueInfo(
    JNIEnv* env, jobject, jlong value, jint /*unused*/, jlongArray out) {
  const NativeScope scope(env);
  return writeValueInfo(env, value, out);
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_staticGetValueInfo(
    JNIEnv* env, jclass, jlong value, jlongArray out) {
  const NativeScope scope(env);
  NB_DEBUG(env, "value = %p", fromHandle<void>(value));
  return writeValueInfo(env, value, out);
}

jint Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getValueType(JNIEnv*, jobject,
                                                                                 jlong handle) {
  const auto* value = fromHandle<LuOffHeapValue>(handle);
  return value == nullptr ? -1 : value->value->deserializedType;
}

// The flag word is changed without a lock or an atomic; Java orders these calls.

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_markClientDirty(
    JNIEnv* env, jobject self, jlong handle) {
  const NativeScope scope(env);
  const jboolean before =
      Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_isClientDirty(env, self,
                                                                                   handle);
  auto* value = fromHandle<LuOffHeapValue>(handle);
  value->flags = static_cast<uint16_t>(value->flags | clientDirty);
  return before;
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_unmarkClientDirty(
    JNIEnv* env, jobject self, jlong handle) {
  const NativeScope scope(env);
  const jboolean before =
      Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_isClientDirty(env, self,
                                                                                   handle);
  auto* value = fromHandle<LuOffHeapValue>(handle);
  value->flags = static_cast<uint16_t>(value->flags & ~clientDirty);
  return before;
}

jboolean Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_isClientDirty(JNIEnv*,
                                                                                      jobject,
                                                                                      jlong value) {
  return (fromHandle<LuOffHeapValue>(value)->flags & clientDirty) != 0 ? JNI_TRUE : JNI_FALSE;
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getSize(JNIEnv* env, jobject,
                                                                             jlong value) {
  const NativeScope scope(env);
  auto* record = fromHandle<LuOffHeapValue>(value);
  const bool locked =
      _isDiskOverflowEnabled && overflow_metadata_lock(env, "getSize", nodeOf(record));
  const uint64_t size = getSize_LuValue(env, record);
  if (locked) overflow_metadata_unlock(env, "getSize", nodeOf(record));
  return static_cast<jlong>(size);
}
