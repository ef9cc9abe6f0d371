// Four natives that are exported as C++ symbols only, so that the virtual machine cannot bind them.
//
// Deliberate: the contract with Java declares them and leaves them unbound. No generated header is
// included here, since it would give them C linkage. Pinned by SymbolTableTest on the Java side.
#include "nb.h"
#include "nb_hashtable.h"
#include "nb_jni.h"
#include "nb_logging.h"
#include "nb_map.h"

using namespace nimbra;

JNIEXPORT jint JNICALL
Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSize_1Pinnable(JNIEnv*, jclass) {
  return static_cast<jint>(sizeof(Pinnable));
}

// The new record holds one ALLOCATION_PIN for the caller.
JNIEXPORT jlong JNICALL
Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_allocateLuOffHeapMapValue(
    JNIEnv* env, jobject, jobject key, jobject value, jshort revisionOwner, jlong revisionNumber) {
  const NativeScope scope(env);
  ByteBufferHeader* keyHeader = headerOfBuffer(env, key);
  return toHandle(allocateLuOffHeapMapValue(env, keyHeader, hashFn(keyHeader), false,
                                            headerOfBuffer(env, value),
                                            static_cast<uint16_t>(revisionOwner), revisionNumber));
}

JNIEXPORT jlong JNICALL
Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapImpl_allocateLuOffHeapMapValueWithHashCode(
    JNIEnv* env, jobject, jobject key, jint hashCode, jobject value, jshort revisionOwner,
    jlong revisionNumber) {
  const NativeScope scope(env);
  return toHandle(allocateLuOffHeapMapValue(env, headerOfBuffer(env, key), hashCode, true,
                                            headerOfBuffer(env, value),
                                            static_cast<uint16_t>(revisionOwner), revisionNumber));
}

JNIEXPORT jint JNICALL Java_com_velt_rz_corvane_io_offheap_impl_LuOffHeapMapValueImpl_getKeyLength(
    JNIEnv*, jobject, jlong value) {
  const auto* record = fromHandle<LuOffHeapValue>(value);
  if (record == nullptr || record->key == nullptr) return -1;
  return static_cast<jint>(record->key->dataSize);
}
