// Lifecycle: start-up, limits and levels, and the cache of the Java map class.
//
// State: the limits (owned by the allocator) and the map class with its methods (owned by the key
// comparison), both filled here. Start-up runs once on one Java thread; the limits may change at
// any time and racing readers accept either value.
#include "nb.h"

#include <unistd.h>

#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"
#include "nb_alloc.h"
#include "nb_alloc_backend.h"
#include "nb_hashtable.h"
#include "nb_jni.h"
#include "nb_logging.h"
#include "nb_map.h"
#include "overflow.h"

namespace nimbra {

namespace {

constexpr char kMapClass[] = "com/velt/rz/corvane/io/offheap/impl/LuOffHeapMapImpl";

struct CallbackMethod {
  const char* name;
  const char* signature;
  Relaxed<jmethodID>* slot;
};
const CallbackMethod kCallbackMethods[] = {
    {"compare", "(Ljava/lang/Object;Ljava/nio/ByteBuffer;)Z", &compareMethod},
    {"deserialize", "(Ljava/nio/ByteBuffer;)Ljava/lang/Object;", &deserializeMethod},
    {"allocateDirectFromPhantom", "(JI)Ljava/nio/ByteBuffer;", &allocateDirectFromPhantomMethod},
};

void setMaximum(int64_t maximum) {
  maxOffHeapSize = maximum;
  _hardCapLimit = hardCapOf(maximum);
}

bool cacheMapClass(JNIEnv* env, const char* function) {
  // A logger that could not be loaded has left its exception: nothing can be looked up with it.
  if (env->ExceptionCheck()) return false;
  const LocalRef<jclass> mapClass(env, env->FindClass(kMapClass));
  if (!mapClass) {
    NB_ERROR_GENERIC(env, kGenericErrorKey, "The Nimbra library failed to find matching class: %s",
                     kMapClass);
    return false;
  }
  const auto mapClassRef = static_cast<jclass>(env->NewGlobalRef(mapClass.get()));
  if (mapClassRef == nullptr) return false;
  luMapClassRef = mapClassRef;
  NB_DEBUG_AS(env, function, "Loaded class %s", kMapClass);
  for (const CallbackMethod& method : kCallbackMethods) {
    *method.slot = env->GetMethodID(mapClass.get(), method.name, method.signature);
    if (catch_exception(env, function, false) || *method.slot == nullptr) {
      NB_ERROR_GENERIC(env, kGenericErrorKey,
                       "The Nimbra library failed to resolve method signature: %s",
                       method.signature);
      return false;
    }
    // The class path stands where the method's name might be expected; Java reads it so.
    NB_DEBUG_AS(env, function, "found a method: %s(%s)", kMapClass, method.signature);
  }
  return true;
}

}  // namespace

uint64_t hardCapOf(int64_t maximum) {
  return static_cast<uint64_t>(static_cast<double>(static_cast<uint64_t>(maximum)) * 0.97);
}

uint64_t getHardCapLimit() { return _hardCapLimit; }

void offheap_sizes(JNIEnv* env) {
  NB_DEBUG(env, "Pinnable=%zu", sizeof(Pinnable));
  NB_DEBUG(env, "ByteBufferHeader=%zu", static_cast<size_t>(kReportedHeaderSize));
}

}  // namespace nimbra

using namespace nimbra;

jboolean Java_com_velt_rz_corvane_io_offheap_OffHeapManager_initializeOffHeap(
    JNIEnv* env, jobject self, jlong max, jlong trimThreshold, jlong mmapThreshold,
    jboolean isDiskOverflowEnabled) {
  const NativeScope scope(env);
  getLogLevel(env);
  NB_EVENT(
      env, "offHeapMgr=%p max=%lld trimThreshold=%lld mmapThreshold=%lld isDiskOverflowEnabled=%d",
      static_cast<void*>(self), static_cast<long long>(max), static_cast<long long>(trimThreshold),
      static_cast<long long>(mmapThreshold), isDiskOverflowEnabled);
  NB_DEBUG_AS(env, "Java_initializeOffHeap", "Allocation Sizes for Offheap Structs:");
  offheap_sizes(env);
  luoffheap_map_sizes(env);
  NB_DEBUG(env, "start offheap initialization. offHeapMgr=%p", static_cast<void*>(self));
  backend::prepareSizeInUse();
  setMaximum(max);
  _isDiskOverflowEnabled = isDiskOverflowEnabled == 1;
  NB_DEBUG(env,
           "offheap is successfully initialized. offHeapMgr=%p, maxOffHeapSize=%lld, "
           "trimThreshold=%ld, mmapThreshold=%ld, isDiskOverflowEnabled=%d, hardCapLimit=%ld",
           static_cast<void*>(self), static_cast<long long>(max), static_cast<long>(trimThreshold),
           static_cast<long>(mmapThreshold), isDiskOverflowEnabled,
           static_cast<long>(getHardCapLimit()));
  // A logger without its methods has left an exception, with which nothing can be looked up.
  if (_isDiskOverflowEnabled && (env->ExceptionCheck() || !initialize_overflow(env, self))) {
    // Without lists the library runs without overflow.
    _isDiskOverflowEnabled = false;
    return JNI_FALSE;
  }
  NB_DEBUG(env, "%s", kBuildString);
  return cacheMapClass(env, __func__) ? JNI_TRUE : JNI_FALSE;
}

jboolean Java_com_velt_rz_corvane_io_offheap_OffHeapManager_finalizeOffHeap(JNIEnv* env,
                                                                            jobject self) {
  const NativeScope scope(env);
  NB_DEBUG_AS(env, "finalizeOffHeap", "start offheap finalization. offHeapMgr=%p",
              static_cast<void*>(self));
  return JNI_TRUE;
}

jstring Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getLibraryVersion(JNIEnv* env, jobject) {
  const NativeScope scope(env);
  return env->NewStringUTF(kBuildString);
}

void Java_com_velt_rz_corvane_io_offheap_OffHeapManager_setLogLevel(JNIEnv* env, jobject) {
  const NativeScope scope(env);
  getLogLevel(env);
}

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSystemTotalMemory(JNIEnv*, jobject) {
  return static_cast<jlong>(static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES)) *
                            static_cast<uint64_t>(sysconf(_SC_PAGESIZE)));
}

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getCurrentMaxOffHeapSize(JNIEnv*,
                                                                                  jobject) {
  return maxOffHeapSize;
}

jlong Java_com_velt_rz_corvane_io_offheap_OffHeapManager_setCurrentMaxOffHeapSize(JNIEnv*, jobject,
                                                                                  jlong max) {
  const jlong previous = maxOffHeapSize;
  setMaximum(max);
  return previous;
}
