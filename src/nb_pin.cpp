// Pins: the counts, their traces, and the names of the reasons.
//
// State: none. With the trace levels off, a pin costs one compare-and-swap and a few byte tests.
#include <cstdlib>

#include "nb.h"
#include "nb_atomic.h"
#include "nb_logging.h"
#include "nb_pintrack.h"

namespace nimbra {

namespace {

void traceBacktrace(JNIEnv* env, const char* function, const void* object,
                    const char* failureText) {
  char** lines = nullptr;
  const int count = get_backtrace(&lines);
  for (int i = 0; i < count; i++) debug(env, function, "%p: %s", object, lines[i]);
  if (count == 0) debug(env, function, "%s", failureText);
  std::free(lines);
}

const char* nativeReason(uint32_t reason) {
  switch (reason) {
    case REVISION_QUEUE_NEXT_PIN: return "REVISION_QUEUE_NEXT_PIN or EVICTION_QUEUE_NEXT_PIN";
    case REVISION_QUEUE_PREV_PIN: return "REVISION_QUEUE_PREV_PIN or EVICTION_QUEUE_PREV_PIN";
    case REVISION_QUEUE_FIRST_PIN: return "REVISION_QUEUE_FIRST_PIN or EVICTION_QUEUE_FIRST_PIN";
    case REVISION_QUEUE_LAST_PIN: return "REVISION_QUEUE_LAST_PIN or EVICTION_QUEUE_LAST_PIN";
    case TRANSPORT_PIN: return "TRANSPORT_PIN";
    case INDEX_CONTAINER_PIN: return "INDEX_CONTAINER_PIN";
    case INDEXENTRY_INDEX_PIN: return "INDEXENTRY_INDEX_PIN";
    case PHANTOM_JAVA_PIN: return "PHANTOM_JAVA_PIN";
    case JNI_OVERFLOW_EVICTED_PIN: return "JNI_OVERFLOW_EVICTED_PIN";
    case MAPENTRY_VALUE_PIN: return "MAPENTRY_VALUE_PIN or TREEENTRY_INDEX_PIN";
    case JNI_EVICTLIST_PIN: return "JNI_EVICTLIST_PIN";
    case JNI_GET_PIN: return "JNI_GET_PIN";
    case JNI_QUERYREVISION_PIN: return "JNI_QUERYREVISION_PIN";
    case MAPENTRY_KEY_PIN: return "MAPENTRY_KEY_PIN or TREEENTRY_ATTRIBUTE_PIN";
    case TREEHEADER_MIN_PIN: return "TREEHEADER_MIN_PIN";
    case TREEHEADER_MAX_PIN: return "TREEHEADER_MAX_PIN";
    case TREEENTRY_NEXT_PIN: return "TREEENTRY_NEXT_PIN";
    case INDEX_ATTRIBUTE_PIN: return "INDEX_ATTRIBUTE_PIN";
    case LUOFFHEAPMAPVALUE_EVICTION_PIN: return "LUOFFHEAPMAPVALUE_EVICTION_PIN";
    case EVICTIONDATA_ALLOCATION_PIN: return "EVICTIONDATA_ALLOCATION_PIN";
    case BUCKET_FIRST_PIN: return "BUCKET_FIRST_PIN";
    case BUCKET_NEXT_PIN: return "BUCKET_NEXT_PIN";
    case LUOFFHEAPEVICTIONDATA_KEY_PIN: return "LUOFFHEAPEVICTIONDATA_KEY_PIN";
    case ALLOCATION_PIN: return "ALLOCATION_PIN";
    case INDEXENTRY_MAPENTRY_PIN: return "INDEXENTRY_MAPENTRY_PIN";
    case JNI_REMOVED_PIN: return "JNI_REMOVED_PIN";
    case JNI_INSERTED_PIN: return "JNI_INSERTED_PIN";
    case JNI_UPDATED_PIN: return "JNI_UPDATED_PIN";
    case NATIVE_TRANSIENT_GET_PIN: return "NATIVE_TRANSIENT_GET_PIN";
    case NATIVE_TRANSIENT_REMOVED_PIN: return "NATIVE_TRANSIENT_REMOVED_PIN";
    case JNI_ROLLBACK_PIN: return "JNI_ROLLBACK_PIN";
    // The text also names the eviction record's key, whose code is another; both texts are kept.
    case LUOFFHEAPMAPVALUE_KEY_PIN:
      return "LUOFFHEAPMAPVALUE_KEY_PIN or LUOFFHEAPEVICTIONDATA_KEY_PIN";
    case LUOFFHEAPMAPVALUE_VALUE_PIN: return "LUOFFHEAPMAPVALUE_VALUE_PIN";
    default: return "UNKNOWN NATIVE PIN";
  }
}

const char* javaReason(uint32_t reason) {
  switch (reason) {
    case JAVA_GET_PIN: return "JAVA_GET_PIN";
    case JAVA_LUOFFHEAPMAPVALUE_ITERATOR_PIN: return "JAVA_LUOFFHEAPMAPVALUE_ITERATOR_PIN";
    case JAVA_FREE_PIN: return "JAVA_FREE_PIN";
    case JAVA_TRANSIENT_PIN: return "JAVA_TRANSIENT_PIN";
    case JAVA_OFFHEAPENTRY_LUVALUE_PIN: return "JAVA_OFFHEAPENTRY_LUVALUE_PIN";
    case JAVA_OFFHEAPENTRY_VALUE_PIN: return "JAVA_OFFHEAPENTRY_VALUE_PIN";
    case JAVA_OFFHEAPENTRY_PREV_LUVALUE_PIN: return "JAVA_OFFHEAPENTRY_PREV_LUVALUE_PIN";
    case JAVA_OFFHEAPENTRY_KEY_PIN: return "JAVA_OFFHEAPENTRY_KEY_PIN";
    case JAVA_EVICTED_PIN: return "JAVA_EVICTED_PIN";
    case JAVA_PUTINTOMAP_PIN: return "JAVA_PUTINTOMAP_PIN";
    case JAVA_REMOVE_PIN: return "JAVA_REMOVE_PIN";
    case JAVA_EVICTLIST_PIN: return "JAVA_EVICTLIST_PIN";
    case JAVA_CONTAINSKEY_PIN: return "JAVA_CONTAINSKEY_PIN";
    case JAVA_SESSIONIMPL_PIN: return "JAVA_SESSIONIMPL_PIN";
    case JAVA_LUBYTEBUFFERMANAGER_RELEASE: return "JAVA_LUBYTEBUFFERMANAGER_RELEASE";
    case JAVA_TRANSPORT_PIN: return "JAVA_TRANSPORT_PIN";
    case JAVA_REMOVED_LIST_TRACKING_PIN: return "JAVA_REMOVED_LIST_TRACKING_PIN";
    case JAVA_REMOVE_REAPER_PIN: return "JAVA_REMOVE_REAPER_PIN";
    case JAVA_TRANSACTION_COMPLETED: return "JAVA_TRANSACTION_COMPLETED";
    case JAVA_OFFHEAPENTRY_CLONE_KEY_PIN: return "JAVA_OFFHEAPENTRY_CLONE_KEY_PIN";
    case JAVA_OFFHEAPENTRY_CLONE_VALUE_PIN: return "JAVA_OFFHEAPENTRY_CLONE_VALUE_PIN";
    case JAVA_OFFHEAPENTRY_CLONE_LUVALUE_PIN: return "JAVA_OFFHEAPENTRY_CLONE_LUVALUE_PIN";
    case JAVA_OFFHEAPENTRY_CLONE_PREV_LUVALUE_PIN:
      return "JAVA_OFFHEAPENTRY_CLONE_PREV_LUVALUE_PIN";
    case JAVA_COLLISION_PIN: return "JAVA_COLLISION_PIN";
    case JAVA_QUERYREVISION_STANDARD_PIN: return "JAVA_QUERYREVISION_STANDARD_PIN";
    case JAVA_QUERYREVISION_SENDKEYS_PIN: return "JAVA_QUERYREVISION_SENDKEYS_PIN";
    case JAVA_NOF_REVERSEMAP_PIN: return "JAVA_NOF_REVERSEMAP_PIN";
    case JAVA_NOF_EVICTED_PIN: return "JAVA_NOF_EVICTED_PIN";
    case JAVA_DMV_VERSIONED_VALUE_PIN: return "JAVA_DMV_VERSIONED_VALUE_PIN";
    case JAVA_REMOVED_LIST_CHECKING_PIN: return "JAVA_REMOVED_LIST_CHECKING_PIN";
    default: return "UNKNOWN JAVA PIN";
  }
}

}  // namespace

const char* getReason(uint32_t reason) {
  if ((reason & JNI_CONVERT_FROM_JAVA_PIN) != 0) {
    return javaReason(reason & ~JNI_CONVERT_FROM_JAVA_PIN);
  }
  return nativeReason(reason);
}

int32_t pin(JNIEnv* env, Pinnable* object, uint32_t reason) {
  if (logInfo.debug) {
    debug(env, "pin", "enter pin: header=%p, reason=%s", static_cast<void*>(object),
          getReason(reason));
  } else {
    NB_EVENT(env, "enter pin: header=%p, reason=%s", static_cast<void*>(object), getReason(reason));
  }
  if (logInfo.pinTracking) recordPin(object, reason);
  if (logInfo.debug) {
    traceBacktrace(env, "pin backtrace", object, "Unable to get native backtrace.");
  }
  const auto pins = static_cast<int32_t>(lockIncrement(&object->pins));
  if (logInfo.debug) {
    debug(env, "pin", "exit pin: header=%p, pins=%d", static_cast<void*>(object), pins);
  } else {
    NB_EVENT(env, "exit pin: header=%p, pins=%d", static_cast<void*>(object), pins);
  }
  return pins;
}

int32_t unpin(JNIEnv* env, Pinnable* object, uint32_t reason) {
  if (logInfo.debug) {
    debug(env, "unpin", "enter unpin: header=%p, reason=%s", static_cast<void*>(object),
          getReason(reason));
  } else {
    NB_EVENT(env, "enter unpin: header=%p, reason=%s", static_cast<void*>(object),
             getReason(reason));
  }
  if (logInfo.pinTracking) recordUnpin(object, reason);
  if (logInfo.debug) {
    traceBacktrace(env, "unpin backtrace", object, "Attempted to backtrace, but failed.");
  }
  const auto pins = static_cast<int32_t>(lockDecrement(&object->pins));
  if (logInfo.debug) {
    debug(env, "unpin", "exit unpin: header=%p, pins=%d", static_cast<void*>(object), pins);
  } else {
    NB_EVENT(env, "exit unpin: header=%p, pins=%d", static_cast<void*>(object), pins);
  }
  return pins;
}

int32_t pin(JNIEnv* env, ByteBufferHeader* header, uint32_t reason) {
  return pin(env, static_cast<Pinnable*>(header), reason);
}

int32_t unpin(JNIEnv* env, ByteBufferHeader* header, uint32_t reason) {
  return unpin(env, static_cast<Pinnable*>(header), reason);
}

int32_t unpinToFree(JNIEnv* env, ByteBufferHeader* header, uint32_t reason) {
  NB_DEBUG(env, ">entry");
  const int32_t pins = unpin(env, header, reason);
  // Without this thread's pin the header may be gone, so the count is the one that was left.
  NB_EVENT(env, "p=%p pins=%d reason=%s", static_cast<void*>(header), pins, getReason(reason));
  if (pins == 0) freeByteBufferData(env, header);
  NB_DEBUG(env, "<exit currentRefCount=%d", pins);
  return pins;
}

}  // namespace nimbra
