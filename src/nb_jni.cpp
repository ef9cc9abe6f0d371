// OffHeapManager's natives over the allocator and the buffers.
//
// Buffers arrive as direct ByteBuffers; the header stands in front of their data. Reasons from Java
// gain the Java bit before they reach a pin. No locks; the array copies run in critical sections
// and call nothing in between.
#include "nb_jni.h"

#include <cstring>

#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"
#include "nb.h"
#include "nb_alloc.h"
#include "nb_hashtable.h"
#include "nb_logging.h"
#include "nb_map_private.h"
#include "nb_pintrack.h"

using namespace nimbra;

namespace {

constexpr jint kPhantomCapacity = 0x7fffffff;  // bytes

// The kinds of buffer that Java asks for.
enum BufferKind : jbyte {
  kPlainBuffer = 0,
  kKeyBuffer = 1,
  kValueBuffer = 2,
  kIteratorBuffer = 3,
  kPagedInBuffer = 4,
};

const char* labelOfKind(jbyte kind) {
  switch (kind) {
    case kPlainBuffer: return "DirectByteBuffer";
    case kKeyBuffer: return "Key DirectByteBuffer";
    case kValueBuffer: return "Value DirectByteBuffer";
    case kIteratorBuffer: return "QueryRevision Iterator DirectByteBuffer";
    case kPagedInBuffer: return "Value (Paged-in from NOF Eviction) DirectByteBuffer";
    default: return nullptr;
  }
}

}  // namespace

// ---- Accounting ----------------------------------------------------------------------------

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getAllocatingCountInOffHeap(JNIEnv*,
                                                                                     jobject) {
  return lockRead(&allocatingOffHeapBlocks);
}

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getAllocatingSizeInOffHeap(JNIEnv* env,
                                                                                    jobject) {
  const NativeScope scope(env);
  return getCurrentSize(env);
}

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getAllocatingInternalMetadataSize(
    JNIEnv* env, jobject) {
  const NativeScope scope(env);
  return getCurrentInternalMetadataSize(env);
}

void Java_com_velt_rz_corvane_io_offheap_OffHeapManager_setInternalTracking(JNIEnv* env, jobject,
                                                                            jboolean on) {
  const NativeScope scope(env);
  NB_INFO(env, "Internal use only: Using internal byte counting. Current OffHeapSize=%llu",
          static_cast<unsigned long long>(getCurrentSize(env)));
  trackReqSize_Internal = on != JNI_FALSE;
}

jstring Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getJemallocStats(JNIEnv* env, jobject) {
  const NativeScope scope(env);
  return jemallocStatistics(env);
}

// ---- Buffers -------------------------------------------------------------------------------

jobject Java_com_velt_rz_corvane_io_offheap_OffHeapManager_allocateDirectFromOffHeap(
    JNIEnv* env, jobject, jint size, jbyte unchecked, jbyte kind) {
  const NativeScope scope(env);
  NB_DEBUG(env, "start sub-allocation. size=%d", size);
  // Java asks for a paged-in value with the length of a stored header-and-data image.
  if (kind == kPagedInBuffer) {
    size = static_cast<jint>(static_cast<uint32_t>(size) - uint32_t{kBufferDataOffset});
  }
  ByteBufferHeader* header =
      allocateByteBufferData(env, static_cast<uint64_t>(static_cast<int64_t>(size)),
                             static_cast<uint8_t>(unchecked), labelOfKind(kind));
  if (header == nullptr) {
    NB_DEBUG(env, "memory allocation failed. size=%d", size);
    return nullptr;
  }
  const jobject buffer = newByteBuffer(env, header, size);
  if (buffer == nullptr) {
    NB_DEBUG(env,
             "An attempt to allocate a Java object backed by an Nimbra ByteBuffer has failed.");
    freeByteBufferData(env, header);
    return nullptr;
  }
  if (kind == kIteratorBuffer) {
    addMetadata(sizeofByteBufferHeader(header));
  } else {
    pin(env, header, ALLOCATION_PIN);
  }
  NB_DEBUG(env, "a new ByteBuffer was allocated. p=%p, size=%d", static_cast<void*>(header), size);
  return buffer;
}

jboolean Java_com_velt_rz_corvane_io_offheap_OffHeapManager_pinJavaByteBuffer(JNIEnv* env, jobject,
                                                                              jobject buffer,
                                                                              jint reason) {
  const NativeScope scope(env);
  NB_DEBUG_AS(env, "pin", "Start pinning on bytebuffer=%p", static_cast<void*>(buffer));
  ByteBufferHeader* header = headerOfBuffer(env, buffer);
  // Deliberate: the test stands behind the step back, so a buffer without an address passes it. The
  // contract with Java says so. Pinned by BufferPin.NullTestIsMadeOnTheHeader.
  if (header == nullptr) return JNI_FALSE;
  pin(env, header, javaReason(reason));
  NB_DEBUG_AS(env, "pin", "Pinned bytebuffer=%p", static_cast<void*>(buffer));
  return JNI_TRUE;
}

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_pin_1native(JNIEnv* env, jobject,
                                                                     jlong address, jint reason) {
  const NativeScope scope(env);
  return pin(env, fromHandle<Pinnable>(address), javaReason(reason));
}

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpin_1native(JNIEnv* env, jobject,
                                                                       jlong address, jint reason) {
  const NativeScope scope(env);
  return unpinToFree(env, fromHandle<ByteBufferHeader>(address), javaReason(reason));
}

namespace {

jboolean unpinJavaBuffer(JNIEnv* env, jobject buffer, jint reason) {
  constexpr char kName[] = "Java_unpinToFree";
  constexpr char kEventName[] = "Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinToFree";
  NB_DEBUG_AS(env, kName, "JavaBB=%p RefType=%d", static_cast<void*>(buffer),
              static_cast<int>(env->GetObjectRefType(buffer)));
  void* data = env->GetDirectBufferAddress(buffer);
  if (data == nullptr) {
    NB_DEBUG_AS(env, kName, "Failed to obtain valid address for JavaDBB=%p",
                static_cast<void*>(buffer));
    return JNI_FALSE;
  }
  ByteBufferHeader* header = headerOfData(data);
  const int32_t pins = unpin(env, header, javaReason(reason));
  // Without this thread's pin the header may be gone, so the count is the one that was left.
  NB_EVENT_AS(env, kEventName, "p=%p pins=%d reason=%s", static_cast<void*>(header), pins,
              getReason(javaReason(reason)));
  if (pins == 0) freeByteBufferData(env, header);
  NB_DEBUG_AS(env, kName, "completed. JavaBB=%p BB=%p", static_cast<void*>(buffer),
              static_cast<void*>(header));
  return JNI_TRUE;
}

}  // namespace

jboolean Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinToFree(JNIEnv* env, jobject,
                                                                        jobject buffer,
                                                                        jint reason) {
  const NativeScope scope(env);
  return unpinJavaBuffer(env, buffer, reason);
}

jboolean Java_com_velt_rz_corvane_io_offheap_OffHeapManager_freeAllToOffHeap(JNIEnv* env, jobject,
                                                                             jobjectArray buffers,
                                                                             jint reason) {
  const NativeScope scope(env);
  NB_DEBUG(env, "start freeing a sub-allocated byte buffer.");
  const jsize count = env->GetArrayLength(buffers);
  for (jsize i = 0; i < count; i++) {
    const LocalRef<jobject> buffer(env, env->GetObjectArrayElement(buffers, i));
    // A virtual machine need not survive the question for the address of no object.
    if (!buffer) {
      if (env->ExceptionCheck()) return JNI_FALSE;
      continue;
    }
    unpinJavaBuffer(env, buffer.get(), static_cast<jint>(javaReason(reason)));
  }
  return JNI_TRUE;
}

void Java_com_velt_rz_corvane_io_offheap_OffHeapManager_freeDirectInternal(JNIEnv* env, jobject,
                                                                           jobject buffer) {
  const NativeScope scope(env);
  constexpr char kName[] = "Java_freeDirectInternal";
  NB_DEBUG_AS(env, kName, "JavaBB=%p RefType=%d", static_cast<void*>(buffer),
              static_cast<int>(env->GetObjectRefType(buffer)));
  void* data = env->GetDirectBufferAddress(buffer);
  if (data == nullptr) {
    NB_DEBUG_AS(env, kName, "Failed to obtain valid address for JavaDBB=%p",
                static_cast<void*>(buffer));
    return;
  }
  ByteBufferHeader* header = headerOfData(data);
  subtractMetadata(sizeofByteBufferHeader(header));
  freeByteBufferData(env, header);
  // The second value is the data address although the text says otherwise; Java reads it so.
  NB_DEBUG_AS(env, kName, "completed. JavaBB=%p RefType=%d BB=%p", static_cast<void*>(buffer),
              static_cast<int>(reinterpret_cast<intptr_t>(data)), static_cast<void*>(header));
}

jint Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getOffHeapByteBufferDeserializedType(
    JNIEnv* env, jobject, jobject buffer) {
  const NativeScope scope(env);
  NB_ENTRY(env, "enter: dbb=%p", static_cast<void*>(buffer));
  void* data = env->GetDirectBufferAddress(buffer);
  const ByteBufferHeader* header = headerOfData(data);
  NB_DEBUG(env, "checking bb type.  p=%p v=%p", data, static_cast<const void*>(header));
  return header->deserializedType;
}

jint Java_com_velt_rz_corvane_io_offheap_OffHeapManager_setOffHeapByteBufferDeserializedType(
    JNIEnv* env, jobject, jobject buffer, jint type) {
  const NativeScope scope(env);
  ByteBufferHeader* header = headerOfBuffer(env, buffer);
  const jint previous = header->deserializedType;
  header->deserializedType = static_cast<uint8_t>(type);
  return previous;
}

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getReferenceCountImpl__Ljava_nio_ByteBuffer_2(
    JNIEnv* env, jobject, jobject buffer) {
  const NativeScope scope(env);
  return lockRead(&headerOfBuffer(env, buffer)->pins);
}

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getReferenceCountImpl__J(JNIEnv*, jobject,
                                                                                  jlong address) {
  return lockRead(&fromHandle<Pinnable>(address)->pins);
}

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getOffHeapAddressImpl(JNIEnv* env, jobject,
                                                                               jobject buffer) {
  const NativeScope scope(env);
  void* data = env->GetDirectBufferAddress(buffer);
  NB_DEBUG_AS(env, "getOffHeapAddressImpl", "hex representation=%p bbh=%p", data,
              static_cast<void*>(headerOfData(data)));
  return toHandle(data);
}

void Java_com_velt_rz_corvane_io_offheap_OffHeapManager_copyByteBufferToByteArray(
    JNIEnv* env, jobject, jobject source, jbyteArray target, jint length) {
  const NativeScope scope(env);
  const void* data = env->GetDirectBufferAddress(source);
  void* elements = env->GetPrimitiveArrayCritical(target, nullptr);
  if (elements == nullptr) return;
  // No bounds check: the length is Java's promise.
  std::memcpy(elements, data, static_cast<size_t>(length));
  env->ReleasePrimitiveArrayCritical(target, elements, 0);
}

void Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getChars(JNIEnv* env, jobject,
                                                                 jobject source, jint, jint, jint,
                                                                 jcharArray target, jint count) {
  const NativeScope scope(env);
  const auto* data = static_cast<const uint8_t*>(env->GetDirectBufferAddress(source));
  auto* chars = static_cast<jchar*>(env->GetPrimitiveArrayCritical(target, nullptr));
  if (chars == nullptr) return;
  for (jint i = 0; i < count; i++) {
    chars[i] = static_cast<jchar>((data[2 * static_cast<size_t>(i)] << 8) |
                                  data[2 * static_cast<size_t>(i) + 1]);
  }
  env->ReleasePrimitiveArrayCritical(target, chars, 0);
}

jobject Java_com_velt_rz_corvane_io_offheap_OffHeapManager_allocatePhantom(JNIEnv* env, jobject,
                                                                           jlong address) {
  const NativeScope scope(env);
  const LocalRef<jobject> buffer(
      env, env->NewDirectByteBuffer(fromHandle<void>(address), kPhantomCapacity));
  if (!buffer) return nullptr;
  // Deliberate: a global reference that is never deleted. Java keeps a bounded cache of windows.
  // Pinned by Phantom.IsAGlobalReference.
  return env->NewGlobalRef(buffer.get());
}

jint Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSize_1ByteBufferHeader(JNIEnv*,
                                                                                  jobject) {
  return kReportedHeaderSize;
}

jint Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSize_1DefaultEntry(JNIEnv*, jclass) {
  return static_cast<jint>(sizeof(DefaultEntry));
}

// ---- Value records -------------------------------------------------------------------------

jint Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinLuOffHeapValue_1native(JNIEnv* env,
                                                                                    jobject,
                                                                                    jlong value,
                                                                                    jint reason) {
  const NativeScope scope(env);
  return static_cast<jint>(
      unpinLuOffHeapMapValue(env, fromHandle<LuOffHeapValue>(value), javaReason(reason)));
}

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getOriginalLuValue(JNIEnv*, jobject,
                                                                            jlong value) {
  if (!_isDiskOverflowEnabled) return 0;
  return toHandle(fromHandle<LuOffHeapValue>(value)->hashNext);
}

jint Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSize_1LuValue(JNIEnv*, jobject) {
  return static_cast<jint>(valueRecordSize());
}

jint Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSize_1PerEntryMetadata(JNIEnv*,
                                                                                  jobject) {
  return 1;
}

// ---- Diagnostics ---------------------------------------------------------------------------

void Java_com_velt_rz_corvane_io_offheap_OffHeapManager_pinTrack(JNIEnv* env, jobject) {
  const NativeScope scope(env);
  reportPins(env);
}

void Java_com_velt_rz_corvane_io_offheap_OffHeapManager_printProfileStats(JNIEnv* env, jobject) {
  const NativeScope scope(env);
  printAllProf(env);
}
