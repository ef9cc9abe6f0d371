// The overflow layer: start-up, lists, the life of a node, and reports to Java.
//
// State: the lists and the cached Java references, made at start-up and kept for the process's
// life. A node is linked and unlinked under its own lock and those of both neighbours; the first is
// waited for, the neighbours are only tried.
#include "overflow.h"

#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cacheiter.h"
#include "nb_alloc.h"
#include "nb_jni.h"
#include "nb_lock.h"
#include "nb_logging.h"

namespace nimbra {

overflow_metadata* _headerNodes;
MapHeader* _mapHeadersForHeaderNodes;
Relaxed<uint32_t> _roundRobinIndex;
Relaxed<jclass> _nofStructClass;
Relaxed<jmethodID> _nofStructUpdatingNativeID;
Relaxed<jmethodID> _nofStructDeletingNativeID;
Relaxed<jmethodID> _nofStructGetOccurredID;

namespace {

constexpr char kNofStructClass[] = "com/velt/rz/corvane/io/offheap/overflow/NOFStruct";
constexpr char kOverflowClass[] = "com/velt/rz/corvane/io/offheap/overflow/Overflow";
constexpr size_t kTextSize = 1024;      // bytes of a node's line
constexpr int kDestroyAttempts = 1000;  // of a node's mutex, with a yield between them
constexpr int kBackOffMicroseconds = 100;

// ---- Start-up ------------------------------------------------------------------------------

void freeLists(JNIEnv* env) {
  if (_mapHeadersForHeaderNodes != nullptr) {
    freeMapHeader(env, _mapHeadersForHeaderNodes, kOverflowLists, 0);
    _mapHeadersForHeaderNodes = nullptr;
  }
  freeOverflowMetadata(env, _headerNodes, kOverflowLists);
  _headerNodes = nullptr;
}

bool failStart(JNIEnv* env, const char* text) {
  catch_exception(env, "initialize_overflow", true);
  NB_ERROR_GENERIC(env, kOverflowErrorKey, "%s", text);
  return false;
}

bool makeHeaderNode(JNIEnv* env, int32_t i) {
  overflow_metadata* node = &_headerNodes[i];
  NB_DEBUG_AS(env, "initialize_overflow", "headerNode[%d] @ %p", i, static_cast<void*>(node));
  node->mapHeader = &_mapHeadersForHeaderNodes[i];
  node->flags = 0;
  node->prev = node;
  node->next = node;
  node->chunkPtrOffset = 0;
  node->nextChunkPtrOffset = 0;
  node->chunkSize = 0;
  if (!overflow_metadata_lock_init(env, node)) return false;
  if (logInfo.debug) {
    char* text = to_string(env, "initialize_overflow", node);
    debug(env, "initialize_overflow", "KLOR header node %0d: %s", i, text);
    release_string(env, text);
  }
  return true;
}

// A step of the look-ups: null, or with an exception pending, it has failed.
template <typename T>
T checked(JNIEnv* env, T result, bool* failed) {
  const bool pending = catch_exception(env, "initialize_overflow", true);
  if (!pending && result != nullptr) return result;
  *failed = true;
  return nullptr;
}

jclass globalClass(JNIEnv* env, const char* name, bool* failed) {
  const LocalRef<jclass> found(env, checked(env, env->FindClass(name), failed));
  if (!found) return nullptr;
  return static_cast<jclass>(checked(env, env->NewGlobalRef(found.get()), failed));
}

// Looks everything up that can be, so that the log names each thing that is missing.
bool cacheJavaReferences(JNIEnv* env) {
  bool failed = false;
  if (const jclass nofStruct = globalClass(env, kNofStructClass, &failed)) {
    _nofStructClass = nofStruct;
    _nofStructUpdatingNativeID =
        checked(env, env->GetStaticMethodID(nofStruct, "updatingNative", "([J)V"), &failed);
    _nofStructDeletingNativeID =
        checked(env, env->GetStaticMethodID(nofStruct, "deletingNative", "([J)V"), &failed);
    _nofStructGetOccurredID =
        checked(env, env->GetStaticMethodID(nofStruct, "getOccurred", "([I)V"), &failed);
  }
  if (const jclass overflow = globalClass(env, kOverflowClass, &failed)) {
    _overflowClass = overflow;
    _moreMainMemoryNeededID =
        checked(env, env->GetStaticMethodID(overflow, "moreMainMemoryNeeded", "([J)V"), &failed);
  }
  return !failed;
}

}  // namespace

bool initialize_overflow(JNIEnv* env, jobject /*caller*/) {
  NB_ENTRY(env, "initializing headers");
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  NB_DEBUG(env, "Number of metadata lists = %ld", static_cast<long>(kOverflowLists));
  _mapHeadersForHeaderNodes = nullptr;
  _headerNodes = allocateOverflowMetadata(env, kOverflowLists);
  if (_headerNodes == nullptr) return failStart(env, "overflow _headerNodes is null");
  NB_EVENT(env, "NOF overflow_metadata_t headers for lists allocated");
  _mapHeadersForHeaderNodes = allocateMapHeader(env, kOverflowLists, 0);
  if (_mapHeadersForHeaderNodes == nullptr) {
    freeLists(env);
    return failStart(env, "overflow _mapHeadersForHeaderNodes is null");
  }
  NB_EVENT(env, "NOF MapHeaders for lists allocated");
  for (int32_t i = 0; i < kOverflowLists; i++) {
    MapHeader* header = &_mapHeadersForHeaderNodes[i];
    NB_DEBUG(env, "mapHeader[%d] @ %p", i, static_cast<void*>(header));
    header->map_id = HEAD_NODE_MAP_ID;
    header->map_set_id = HEAD_NODE_MAP_ID;
    header->numBucketSets = 0;
  }
  for (int32_t i = 0; i < kOverflowLists; i++) {
    if (makeHeaderNode(env, i)) continue;
    freeLists(env);
    return failStart(env, "overflow_metadata_lock_init not successful of[20]");
  }
  NB_DEBUG(env, "KLOR _headerNodes initialized");
  _roundRobinIndex = 0;
  NB_DEBUG(env, "Caching Java JNI overflow classes and methods");
  const bool cached = cacheJavaReferences(env);
  NB_DEBUG(env, "Initializing cacheiter singleton");
  if (!cacheiter_singleton_init(env) || !cached) {
    freeLists(env);
    return failStart(env, "overflow error during initializing");
  }
  NB_INFO(env, "%s", kOverflowActivatedKey);
  NB_EXIT(env, "KLOR _headerNodes initialized");
  return true;
}

int32_t roundRobin() {
  // Read, then written: racing callers may get the same list, which only affects balance.
  const uint32_t taken = _roundRobinIndex;
  _roundRobinIndex = taken + 1;
  return static_cast<int32_t>((taken & 0x7FFFFFFF) % kOverflowLists);
}

bool is_header_node(JNIEnv* env, const overflow_metadata* node) {
  if (node->mapHeader == nullptr) {
    NB_WARNING(env, "Found a metadata with a NULL mapHeader pointer.");
    return true;
  }
  return node->mapHeader->map_id == HEAD_NODE_MAP_ID &&
         node->mapHeader->map_set_id == HEAD_NODE_MAP_ID;
}

// ---- The life of a node --------------------------------------------------------------------

bool initialize_overflow_metadata(JNIEnv* env, overflow_metadata* node, MapHeader* mapHeader) {
  NB_ENTRY(env, "NOF initializing overflow metadata = %p", static_cast<void*>(node));
  if (!overflow_metadata_lock_init(env, node) || !overflow_metadata_lock(env, "init", node)) {
    return false;
  }
  node->mapHeader = mapHeader;
  node->flags = in_memory | is_invalid | recently_used | kInitialising;
  node->next = nullptr;
  node->prev = nullptr;
  if (logInfo.event) {
    char* text = to_string(env, "NOF overflow_metadata", node);
    event(env, __func__, "%s", text);
    release_string(env, text);
  }
  node->chunkPtrOffset = 0;
  node->nextChunkPtrOffset = 0;
  node->chunkSize = 0;
  clearFlag(kInitialising, node);
  if (!overflow_metadata_unlock(env, "init", node)) return false;
  NB_EXIT(env, "KLOR initialized metadata at %p", static_cast<void*>(node));
  return true;
}

namespace {

// Debug records print the links of nodes that they do not hold.
void setLink(overflow_metadata** link, overflow_metadata* node) {
  __atomic_store_n(link, node, __ATOMIC_RELAXED);
}

constexpr char kLink[] = "overflow_metadata_link_to_header";

void traceHeader(JNIEnv* env, const char* label, overflow_metadata* header) {
  if (!logInfo.debug) return;
  char* text = to_string(env, label, header);
  debug(env, kLink, "%s", text);
  release_string(env, text);
}

}  // namespace

bool overflow_metadata_link_to_header(JNIEnv* env, overflow_metadata* node, bool unlockAfter) {
  overflow_metadata* header = nullptr;
  for (;;) {
    header = &_headerNodes[roundRobin()];
    if (overflow_metadata_trylock(env, kLink, header)) {
      if (overflow_metadata_trylock(env, kLink, header->next)) break;
      overflow_metadata_unlock(env, kLink, header);
    }
    if (catch_exception(env, kLink, false)) return false;
  }
  overflow_metadata* first = header->next;
  traceHeader(env, "KLOR headerNode (before-link)", header);
  setLink(&node->prev, header);
  setLink(&node->next, first);
  setLink(&header->next, node);
  setLink(&first->prev, node);
  traceHeader(env, "KLOR headerNode (after-link)", header);
  if (!unlockAfter) return true;
  const bool firstUnlocked = overflow_metadata_unlock(env, kLink, first);
  return overflow_metadata_unlock(env, kLink, header) && firstUnlocked;
}

bool prepareUnseenNode(JNIEnv* env, overflow_metadata* node, MapHeader* mapHeader) {
  if (!overflow_metadata_lock_init(env, node)) return false;
  node->mapHeader = mapHeader;
  node->flags = in_memory | recently_used;
  node->next = nullptr;
  node->prev = nullptr;
  node->chunkPtrOffset = 0;
  node->nextChunkPtrOffset = 0;
  node->chunkSize = 0;
  return true;
}

void linkUnseenNode(overflow_metadata* node) {
  for (;;) {
    overflow_metadata* header = &_headerNodes[roundRobin()];
    if (!tryBriefly(header)) continue;
    overflow_metadata* first = header->next;
    // An empty list's header is its own neighbour.
    if (first == header || tryBriefly(first)) {
      setLink(&node->prev, header);
      setLink(&node->next, first);
      setLink(&header->next, node);
      setLink(&first->prev, node);
      if (first != header) endBriefly(first);
      endBriefly(header);
      return;
    }
    endBriefly(header);
  }
}

namespace {

constexpr char kSplice[] = "overflow_metadata_splice_out";

// REQUIRES: the node. Tries both neighbours; holds both or neither. False also when one vanished
// behind an exception.
bool tryNeighbours(JNIEnv* env, const overflow_metadata* node) {
  if (!overflow_metadata_trylock(env, kSplice, node->prev)) return false;
  if (overflow_metadata_trylock(env, kSplice, node->next)) return true;
  overflow_metadata_unlock(env, kSplice, node->prev);
  return false;
}

// Gives a caller who held the node its own depth again.
void restoreDepth(overflow_metadata* node, uint16_t depth) { replaceHoldCount(node, depth); }

}  // namespace

bool overflow_metadata_splice_out(JNIEnv* env, overflow_metadata* node, bool lockedOnEntry) {
  NB_ENTRY(env, "entry: middle(metadata)=%p, middle_locked_on_entry=%s", static_cast<void*>(node),
           bool_cast(lockedOnEntry));
  cacheiter_freeing_node(env, node);
  uint16_t depth = 0;
  if (lockedOnEntry) {
    // One level, so that a single unlock frees the node between the attempts.
    depth = replaceHoldCount(node, 1);
    NB_DEBUG(env, "startup bring locks down. locked=%p incoming_lock_depth=%d",
             static_cast<void*>(node), depth);
  } else if (!overflow_metadata_lock(env, kSplice, node)) {
    return false;
  }
  for (;;) {
    if (env->ExceptionCheck()) {
      if (lockedOnEntry) {
        restoreDepth(node, depth);
        NB_DEBUG(env, "bailing due to exception. locked=%p incoming_lock_depth=%d",
                 static_cast<void*>(node), depth);
      } else {
        overflow_metadata_unlock(env, kSplice, node);
      }
      return false;
    }
    if (node->prev == nullptr && node->next == nullptr) {
      NB_DEBUG(env, "metadata was already spliced out");
      if (!lockedOnEntry) return overflow_metadata_unlock(env, kSplice, node);
      restoreDepth(node, depth);
      NB_DEBUG(env, "locked=%p incoming_lock_depth=%d", static_cast<void*>(node), depth);
      return true;
    }
    if (tryNeighbours(env, node)) break;
    overflow_metadata_unlock(env, kSplice, node);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's generator locks itself, and any number will do
    usleep(static_cast<useconds_t>(std::rand() % kBackOffMicroseconds + 1));
    // Without the node its depth is another thread's business.
    if (!overflow_metadata_lock(env, kSplice, node)) return false;
  }
  // A sweep may have come to rest here between the first call and the node's lock.
  cacheiter_freeing_node(env, node);
  overflow_metadata* prev = node->prev;
  overflow_metadata* next = node->next;
  setLink(&prev->next, next);
  setLink(&next->prev, prev);
  setLink(&node->prev, nullptr);
  setLink(&node->next, nullptr);
  overflow_metadata_unlock(env, kSplice, prev);
  overflow_metadata_unlock(env, kSplice, next);
  if (!lockedOnEntry) {
    overflow_metadata_unlock(env, kSplice, node);
    return true;
  }
  restoreDepth(node, depth);
  NB_DEBUG(env, "completion. locked=%p metadata->lock_depth=%d", static_cast<void*>(node), depth);
  return true;
}

bool overflow_metadata_delete(JNIEnv* env, overflow_metadata* node, bool lockedOnEntry) {
  return overflow_metadata_splice_out(env, node, lockedOnEntry);
}

int32_t overflow_metadata_uninit(JNIEnv* env, overflow_metadata* node) {
  NB_ENTRY(env, "uninitializing overflow metadata @ %p", static_cast<void*>(node));
  if (!overflow_metadata_lock(env, "uninit", node)) return 1;
  if ((node->prev != nullptr || node->next != nullptr) &&
      !overflow_metadata_splice_out(env, node, true)) {
    overflow_metadata_unlock(env, "uninit exception", node);
    NB_EXIT(env, "uninitialized overflow metadata @ %p", static_cast<void*>(node));
    return 0;
  }
  cacheiter_freeing_node(env, node);
  if (overflow_metadata_unlock(env, "uninit", node)) overflow_metadata_uninit_metadata(env, node);
  NB_EXIT(env, "uninitialized overflow metadata @ %p", static_cast<void*>(node));
  return 0;
}

bool overflow_metadata_uninit_metadata(JNIEnv* env, overflow_metadata* node) {
  NB_ENTRY(env, "metadata = %p", static_cast<void*>(node));
  assert_unlocked(env, node);
  int failures = 0;
  int code = 0;
  while ((code = faultable(LockRank::node, &node->mutex, LockOp::destroy,
                           [&] { return pthread_mutex_destroy(&node->mutex); })) != 0) {
    if (failures++ == 0) {
      NB_DEBUG(env, "pthread_mutex_destroy() is failing with rc = %d", code);
    }
    if (failures == kDestroyAttempts) {
      throw_exception_with_code(env, __func__, "pthread_mutex_destroy() failed", code);
      return false;
    }
    if (const int yielded =
            faultable(LockRank::node, &node->mutex, LockOp::yield, [] { return sched_yield(); })) {
      throw_exception_with_code(env, __func__, "sched_yield() failed", yielded);
      return false;
    }
  }
  if (failures > 0) {
    NB_DEBUG(env, "An attempt to destroy a lock has succeeded after failing %d times", failures);
  }
  if (const int destroyed = faultable(LockRank::node, &node->mutex, LockOp::conditionDestroy,
                                      [&] { return pthread_cond_destroy(&node->cond); })) {
    throw_exception_with_code(env, __func__, "pthread_cond_destroy() failed", destroyed);
    return false;
  }
  NB_EXIT(env, "returning true");
  return true;
}

// ---- Reports to Java -----------------------------------------------------------------------

bool markRecentlyUsed(JNIEnv* env, LuOffHeapValue* value, bool* wasInMemory) {
  overflow_metadata* node = nodeOf(value);
  if (!overflow_metadata_lock(env, "invoke_get_occurred", node)) return false;
  if (wasInMemory != nullptr) *wasInMemory = isFlagSet(in_memory, node);
  setFlag(recently_used, node);
  return overflow_metadata_unlock(env, "invoke_get_occurred", node);
}

void invoke_get_occurred(JNIEnv* env, LuOffHeapValue* value) {
  if (_nofStructGetOccurredID == nullptr) return;
  NB_DEBUG(env, "luValue=%p metadata=%p", static_cast<void*>(value),
           static_cast<void*>(nodeOf(value)));
  bool wasInMemory = false;
  const jint mapId = nodeOf(value)->mapHeader->map_id;
  if (!markRecentlyUsed(env, value, &wasInMemory)) return;
  const jint words[] = {mapId, wasInMemory ? 1 : 0};
  const LocalRef<jintArray> array(env, env->NewIntArray(2));
  if (array) {
    env->SetIntArrayRegion(array.get(), 0, 2, words);
    env->CallStaticVoidMethod(_nofStructClass, _nofStructGetOccurredID, array.get());
  }
  if (env->ExceptionCheck()) {
    env->ExceptionClear();
    NB_ERROR_GENERIC(env, kGenericErrorKey, "caught exception in invoked_get_occured");
  }
}

bool invoke_deleting(JNIEnv* env, LuOffHeapValue* value) {
  const overflow_metadata* node = nodeOf(value);
  const jlong words[] = {static_cast<jlong>(getSize_LuValue(env, value)),
                         node->flags,
                         node->mapHeader->map_id,
                         node->mapHeader->map_set_id,
                         toHandle(value),
                         node->chunkPtrOffset,
                         node->chunkSize,
                         node->nextChunkPtrOffset,
                         static_cast<jlong>(value->valueLength)};
  constexpr jsize kWords = sizeof words / sizeof words[0];
  NB_DEBUG_AS(env, "unpinLuOffHeapMapValue", "chunkptr = [offset %ld, size %ld, next %ld]",
              static_cast<long>(node->chunkPtrOffset), static_cast<long>(node->chunkSize),
              static_cast<long>(node->nextChunkPtrOffset));
  const LocalRef<jlongArray> array(env, env->NewLongArray(kWords));
  if (array) {
    env->SetLongArrayRegion(array.get(), 0, kWords, words);
    env->CallStaticVoidMethod(_nofStructClass, _nofStructDeletingNativeID, array.get());
  }
  return !catch_exception(env, "unpinLuOffHeapMapValue", true);
}

// ---- Debug rendering -----------------------------------------------------------------------

char* to_string(JNIEnv* env, const char* label, overflow_metadata* node) {
  auto* text = static_cast<char*>(std::malloc(kTextSize));
  if (text == nullptr) return nullptr;
  if (node == nullptr) {
    std::snprintf(text, kTextSize, "%s: KLOR overflow_metadata = NULL", label);
    return text;
  }
  const uint32_t held = overflow_metadata_get_hold_count(env, node);
  if (held == kHoldCountFailed) {
    std::snprintf(text, kTextSize, "error getting hold_count");
    return text;
  }
  if (is_header_node(env, node)) {
    // A header that another thread is at work on is printed as it stands.
    std::snprintf(text, kTextSize, "KLOR %s: %p: HEADER node xx, prev=%p, next=%p, locked=%d",
                  label, static_cast<void*>(node),
                  static_cast<void*>(__atomic_load_n(&node->prev, __ATOMIC_RELAXED)),
                  static_cast<void*>(__atomic_load_n(&node->next, __ATOMIC_RELAXED)),
                  static_cast<int>(held));
    return text;
  }
  LuOffHeapValue* value = valueOf(node);
  if (held == 0) {
    std::snprintf(text, kTextSize, "KLOR %s: %p (luOffHeapValue %p): NOT LOCKED", label,
                  static_cast<void*>(node), static_cast<void*>(value));
    return text;
  }
  if (isFlagSet(is_invalid, node)) {
    // The two pointers stand behind each other's names. The contract with Java says so.
    // Pinned by NodeText.InvalidNodesPrintTheirNeighboursSwapped.
    std::snprintf(text, kTextSize,
                  "KLOR %s: %p (luOffHeapValue %p): INVALID flag set, prev=%p, next=%p, locked=%d",
                  label, static_cast<void*>(node), static_cast<void*>(value),
                  static_cast<void*>(node->next), static_cast<void*>(node->prev),
                  static_cast<int>(held));
    return text;
  }
  std::snprintf(text, kTextSize,
                "KLOR %s: %p (luOffHeapValue %p): len=%ld, value_len=%ld, map_id_num=%d, "
                "map_set_id_num=%d, in_memory=%s, is_invalid=%s, recently_used=%s, on_disk=%s, "
                "prev=%p, next=%p, locked=%d",
                label, static_cast<void*>(node), static_cast<void*>(value),
                static_cast<long>(getSize_LuValue(env, value)),
                static_cast<long>(value->valueLength), node->mapHeader->map_id,
                node->mapHeader->map_set_id, bool_cast(isFlagSet(in_memory, node)),
                bool_cast(isFlagSet(is_invalid, node)), bool_cast(isFlagSet(recently_used, node)),
                bool_cast(isFlagSet(on_disk, node)), static_cast<void*>(node->prev),
                static_cast<void*>(node->next), static_cast<int>(held));
  return text;
}

void release_string(JNIEnv* /*env*/, char* text) { std::free(text); }

void trace_ref_count(JNIEnv* env, const char* label, LuOffHeapValue* value) {
  if (!logInfo.debug) return;
  const ByteBufferHeader* key = value->key;
  char keyText[64] = "";
  if (key != nullptr) {
    const size_t length = key->dataSize < sizeof keyText ? key->dataSize : sizeof keyText - 1;
    std::memcpy(keyText, bufferData(key), length);
    keyText[length] = '\0';
  }
  debug(env, label,
        "LuOffHeapValue refcount = %d, key %p ('%s') refcount = %d, value %p refcount = %d",
        static_cast<int>(lockRead(&value->pins)), static_cast<const void*>(key), keyText,
        key == nullptr ? 0 : static_cast<int>(lockRead(&key->pins)),
        static_cast<void*>(value->value),
        value->value == nullptr ? 0 : static_cast<int>(lockRead(&value->value->pins)));
}

void trace_pin_count_init(int32_t* snapshot, LuOffHeapValue* value) {
  snapshot[0] = kPinCountMarker;
  snapshot[1] = static_cast<int32_t>(lockRead(&value->pins));
  snapshot[2] = value->key == nullptr ? 0 : static_cast<int32_t>(lockRead(&value->key->pins));
  const bool hasValue = (value->flags & HAS_VALUE) != 0 && value->value != nullptr;
  snapshot[3] = hasValue ? static_cast<int32_t>(lockRead(&value->value->pins)) : 0;
}

void trace_pin_count_diff(const int32_t* before, const int32_t* after, int32_t* diff) {
  const bool marked = before[0] == kPinCountMarker || after[0] == kPinCountMarker;
  diff[0] = marked ? kPinCountMarker : after[0] - before[0];
  for (int i = 1; i < 4; i++) diff[i] = after[i] - before[i];
}

}  // namespace nimbra
