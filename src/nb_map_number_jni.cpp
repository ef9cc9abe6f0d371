// LuOffHeapMapImpl's natives that insert and update under number keys.
//
// Every number type has four: insert and update, with the value as an array or as a direct buffer.
// They share the two templates below and differ in the type of the key and its code, which is the
// same number for the search format and for the stored type.
#include "com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl.h"
#include "nb_jni.h"
#include "nb_logging.h"
#include "nb_map_buffers.h"

using namespace nimbra;

namespace {

using WriteOperation = LuOffHeapValue* (*)(JNIEnv*, jobject, LuOffHeapMap*, const void*, uint8_t,
                                           ByteBufferHeader*, int32_t, bool, ByteBufferHeader*,
                                           uint16_t, int64_t, WriteOutcome*, const EntryHook*);

// The result of the operation under a key buffer of its own, with a value that Java passes as an
// array.
template <uint8_t Type, typename Number>
jlong writeArray(WriteOperation operation, JNIEnv* env, jobject self, jlong map, Number key,
                 jint hashCode, jbyteArray value, jint valueLength, jbyte valueType,
                 jshort revisionOwner, jlong revisionNumber) {
  const NumberBuffer keyBuffer(env, key, Type);
  if (keyBuffer.get() == nullptr) return 0;
  const ArrayBuffer valueBuffer(env, value, valueLength, valueType, "Value Data");
  if (!valueBuffer.ok) return 0;
  return toHandle(operation(
      env, self, fromHandle<LuOffHeapMap>(map), nullptr, Type, keyBuffer.get(), hashCode, true,
      valueBuffer.get(), static_cast<uint16_t>(revisionOwner), revisionNumber, nullptr, nullptr));
}

// The same with a value that Java passes as a direct buffer, which gets no pin from us.
template <uint8_t Type, typename Number>
jlong writeBuffer(WriteOperation operation, JNIEnv* env, jobject self, jlong map, Number key,
                  jint hashCode, jobject value, jshort revisionOwner, jlong revisionNumber) {
  const NumberBuffer keyBuffer(env, key, Type);
  if (keyBuffer.get() == nullptr) return 0;
  ByteBufferHeader* valueHeader = headerOfBuffer(env, value);
  if (valueHeader == nullptr) return 0;
  return toHandle(operation(
      env, self, fromHandle<LuOffHeapMap>(map), nullptr, Type, keyBuffer.get(), hashCode, true,
      valueHeader, static_cast<uint16_t>(revisionOwner), revisionNumber, nullptr, nullptr));
}

static_assert(OBJECT_TYPE_JBYTE == DESERIALIZED_TYPE_JBYTE &&
              OBJECT_TYPE_JBOOLEAN == DESERIALIZED_TYPE_JBOOLEAN &&
              OBJECT_TYPE_JSHORT == DESERIALIZED_TYPE_JSHORT &&
              OBJECT_TYPE_JINT == DESERIALIZED_TYPE_JINT &&
              OBJECT_TYPE_JLONG == DESERIALIZED_TYPE_JLONG &&
              OBJECT_TYPE_JFLOAT == DESERIALIZED_TYPE_JFLOAT &&
              OBJECT_TYPE_JDOUBLE == DESERIALIZED_TYPE_JDOUBLE);

}  // namespace

// ---- Insert ------------------------------------------------------------------------------------

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithByte(
    JNIEnv* env, jobject self, jlong map, jbyte key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JBYTE>(insertAndPin, env, self, map, key, hashCode, value,
                                       valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithByteBB(
    JNIEnv* env, jobject self, jlong map, jbyte key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JBYTE>(insertAndPin, env, self, map, key, hashCode, value,
                                        revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithShort(
    JNIEnv* env, jobject self, jlong map, jshort key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JSHORT>(insertAndPin, env, self, map, key, hashCode, value,
                                        valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithShortBB(
    JNIEnv* env, jobject self, jlong map, jshort key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JSHORT>(insertAndPin, env, self, map, key, hashCode, value,
                                         revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithInt(
    JNIEnv* env, jobject self, jlong map, jint key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JINT>(insertAndPin, env, self, map, key, hashCode, value,
                                      valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithIntBB(
    JNIEnv* env, jobject self, jlong map, jint key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JINT>(insertAndPin, env, self, map, key, hashCode, value,
                                       revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithLong(
    JNIEnv* env, jobject self, jlong map, jlong key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JLONG>(insertAndPin, env, self, map, key, hashCode, value,
                                       valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithLongBB(
    JNIEnv* env, jobject self, jlong map, jlong key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JLONG>(insertAndPin, env, self, map, key, hashCode, value,
                                        revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithFloat(
    JNIEnv* env, jobject self, jlong map, jfloat key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JFLOAT>(insertAndPin, env, self, map, key, hashCode, value,
                                        valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithFloatBB(
    JNIEnv* env, jobject self, jlong map, jfloat key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JFLOAT>(insertAndPin, env, self, map, key, hashCode, value,
                                         revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithDouble(
    JNIEnv* env, jobject self, jlong map, jdouble key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JDOUBLE>(insertAndPin, env, self, map, key, hashCode, value,
                                         valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithDoubleBB(
    JNIEnv* env, jobject self, jlong map, jdouble key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JDOUBLE>(insertAndPin, env, self, map, key, hashCode, value,
                                          revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithBoolean(
    JNIEnv* env, jobject self, jlong map, jboolean key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JBOOLEAN>(insertAndPin, env, self, map, key, hashCode, value,
                                          valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_insertAndGetNewAndPinWithBooleanBB(
    JNIEnv* env, jobject self, jlong map, jboolean key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JBOOLEAN>(insertAndPin, env, self, map, key, hashCode, value,
                                           revisionOwner, revisionNumber);
}

// ---- Update ------------------------------------------------------------------------------------

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithByte(
    JNIEnv* env, jobject self, jlong map, jbyte key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JBYTE>(updateAndPin, env, self, map, key, hashCode, value,
                                       valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithByteBB(
    JNIEnv* env, jobject self, jlong map, jbyte key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JBYTE>(updateAndPin, env, self, map, key, hashCode, value,
                                        revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithShort(
    JNIEnv* env, jobject self, jlong map, jshort key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JSHORT>(updateAndPin, env, self, map, key, hashCode, value,
                                        valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithShortBB(
    JNIEnv* env, jobject self, jlong map, jshort key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JSHORT>(updateAndPin, env, self, map, key, hashCode, value,
                                         revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithInt(
    JNIEnv* env, jobject self, jlong map, jint key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JINT>(updateAndPin, env, self, map, key, hashCode, value,
                                      valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithIntBB(
    JNIEnv* env, jobject self, jlong map, jint key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JINT>(updateAndPin, env, self, map, key, hashCode, value,
                                       revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithLong(
    JNIEnv* env, jobject self, jlong map, jlong key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JLONG>(updateAndPin, env, self, map, key, hashCode, value,
                                       valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithLongBB(
    JNIEnv* env, jobject self, jlong map, jlong key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JLONG>(updateAndPin, env, self, map, key, hashCode, value,
                                        revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithFloat(
    JNIEnv* env, jobject self, jlong map, jfloat key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JFLOAT>(updateAndPin, env, self, map, key, hashCode, value,
                                        valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithFloatBB(
    JNIEnv* env, jobject self, jlong map, jfloat key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JFLOAT>(updateAndPin, env, self, map, key, hashCode, value,
                                         revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithDouble(
    JNIEnv* env, jobject self, jlong map, jdouble key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JDOUBLE>(updateAndPin, env, self, map, key, hashCode, value,
                                         valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithDoubleBB(
    JNIEnv* env, jobject self, jlong map, jdouble key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JDOUBLE>(updateAndPin, env, self, map, key, hashCode, value,
                                          revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithBoolean(
    JNIEnv* env, jobject self, jlong map, jboolean key, jint hashCode, jbyteArray value,
    jint valueLength, jbyte valueType, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeArray<OBJECT_TYPE_JBOOLEAN>(updateAndPin, env, self, map, key, hashCode, value,
                                          valueLength, valueType, revisionOwner, revisionNumber);
}

jlong Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_updateAndGetNewAndPinWithBooleanBB(
    JNIEnv* env, jobject self, jlong map, jboolean key, jint hashCode, jobject value,
    jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  return writeBuffer<OBJECT_TYPE_JBOOLEAN>(updateAndPin, env, self, map, key, hashCode, value,
                                           revisionOwner, revisionNumber);
}
