// The overflow layer: where values live, and the lists that a sweep walks.
//
// With disk overflow on, every entry carries a node that says whether its value is in memory, on
// disk, or both. All nodes of all maps are threaded onto 1,000 circular lists, each opened by a
// header node. A link between two nodes is changed only by a thread that holds both their locks.
#pragma once

#include <jni.h>

#include <cstdint>

#include "nb_map.h"
#include "nof_locks.h"

namespace nimbra {

inline constexpr int32_t kOverflowLists = 1000;
// Both ids of the tables that serve header nodes.
inline constexpr int32_t HEAD_NODE_MAP_ID = -2147483647;

// Bits of overflow_metadata::flags.
inline constexpr uint16_t in_memory = 0x0001;
inline constexpr uint16_t is_invalid = 0x0002;  // deleted, and Java knows; not to be used
inline constexpr uint16_t recently_used = 0x0004;
inline constexpr uint16_t on_disk = 0x0200;        // the chunk fields hold a copy of the value
inline constexpr uint16_t kInitialising = 0x0400;  // only inside initialize_overflow_metadata
inline constexpr uint16_t PREVENT_EVICT = 0x1000;  // the sweep never offers the entry
inline constexpr uint16_t kSnapshot = 0x2000;      // the record is an update's snapshot

inline constexpr char kOverflowErrorKey[] = "OVERFLOW_GENERIC_ERROR_KTZAR7931";
inline constexpr char kOverflowActivatedKey[] = "OVERFLOW_ACTIVATED_KTZAR7932";

extern overflow_metadata* _headerNodes;       // kOverflowLists; null until started
extern MapHeader* _mapHeadersForHeaderNodes;  // one for each header node, without buckets
extern Relaxed<uint32_t> _roundRobinIndex;    // racing callers may get the same list
extern Relaxed<jclass> _nofStructClass;       // global references, kept for ever
extern Relaxed<jmethodID> _nofStructUpdatingNativeID;
extern Relaxed<jmethodID> _nofStructDeletingNativeID;
extern Relaxed<jmethodID> _nofStructGetOccurredID;

// The node of a record of the overflow variant, and back.
inline overflow_metadata* nodeOf(LuOffHeapValue* value) {
  return &static_cast<LuOffHeapOverflowValue*>(value)->metadata;
}
inline LuOffHeapValue* valueOf(overflow_metadata* node) {
  constexpr size_t kPosition = sizeof(LuOffHeapOverflowValue) - sizeof(overflow_metadata);
  return reinterpret_cast<LuOffHeapValue*>(reinterpret_cast<char*>(node) - kPosition);
}

// Starts the layer: lists, Java references, sweep. False, with the reason logged and no exception
// pending, when something is missing; the library then runs without overflow. There is no
// tear-down.
bool initialize_overflow(JNIEnv* env, jobject caller);
// The list for the next node, 0 to 999.
int32_t roundRobin();
// A node without a table counts as a header, with a warning.
bool is_header_node(JNIEnv* env, const overflow_metadata* node);
// Prepares an entry's node: in memory, recently used, invalid until the map takes it into use, in
// no list. False when its lock cannot be made.
bool initialize_overflow_metadata(JNIEnv* env, overflow_metadata* node, MapHeader* mapHeader);
// The same for a record that no other thread has seen, and that is complete when it is linked: the
// node is valid from the start, and nothing is locked or traced.
bool prepareUnseenNode(JNIEnv* env, overflow_metadata* node, MapHeader* mapHeader);
// Links such a node behind a header. REQUIRES: the entry's bucket set, which keeps a sweep away.
void linkUnseenNode(overflow_metadata* node);
// Links a node behind a header. REQUIRES: the node's lock, and the node unlinked. With
// `unlockAfter` false, header and former first stay locked for the caller. False when a lock
// failed.
bool overflow_metadata_link_to_header(JNIEnv* env, overflow_metadata* node, bool unlockAfter);
// Takes a node out of its list; true also when it is in none. `lockedOnEntry`: the caller holds the
// node and still does afterwards, at the same depth; in between it may be let go.
bool overflow_metadata_splice_out(JNIEnv* env, overflow_metadata* node, bool lockedOnEntry);
bool overflow_metadata_delete(JNIEnv* env, overflow_metadata* node, bool lockedOnEntry);
// Takes a node out of use: out of its list, its lock destroyed. 0, also after most failures; 1 when
// the node could not be locked.
int32_t overflow_metadata_uninit(JNIEnv* env, overflow_metadata* node);
// Destroys the node's lock; waits, by yielding, for a thread that is still leaving it.
bool overflow_metadata_uninit_metadata(JNIEnv* env, overflow_metadata* node);
// Marks the entry as used and tells Java, when Java can be told. The caller has pinned the value.
void invoke_get_occurred(JNIEnv* env, LuOffHeapValue* value);
// The first half alone: marks the entry as used. False when its lock failed; `wasInMemory` may be
// null.
bool markRecentlyUsed(JNIEnv* env, LuOffHeapValue* value, bool* wasInMemory);
// Tells Java that the value is about to be freed. REQUIRES: the node's lock. False when Java
// failed.
bool invoke_deleting(JNIEnv* env, LuOffHeapValue* value);

// A node's state in one line (1,023 bytes at most), freed with release_string; null when the C heap
// is exhausted. Reads the fields only when the caller holds the node.
char* to_string(JNIEnv* env, const char* label, overflow_metadata* node);
void release_string(JNIEnv* env, char* text);
// Flags change only under the node's lock. They are relaxed atomics, since whoever drops the last
// pin looks at them before he has it: Java may drop the pin of its copy on disk while the thread
// that told it of the deletion still holds the node.
inline bool isFlagSet(uint16_t mask, const overflow_metadata* node) {
  return (__atomic_load_n(&node->flags, __ATOMIC_RELAXED) & mask) == mask;
}
inline void setFlag(uint16_t mask, overflow_metadata* node) {
  __atomic_store_n(&node->flags, static_cast<uint16_t>(node->flags | mask), __ATOMIC_RELAXED);
}
inline void clearFlag(uint16_t mask, overflow_metadata* node) {
  __atomic_store_n(&node->flags, static_cast<uint16_t>(node->flags & ~mask), __ATOMIC_RELAXED);
}
inline const char* bool_cast(bool value) { return value ? "true" : "false"; }

// Debug helpers. A snapshot holds a marker, then the pins of value, key and value buffer.
inline constexpr int32_t kPinCountMarker = 123456789;
void trace_ref_count(JNIEnv* env, const char* label, LuOffHeapValue* value);
void trace_pin_count_init(int32_t* snapshot, LuOffHeapValue* value);
void trace_pin_count_diff(const int32_t* before, const int32_t* after, int32_t* diff);

}  // namespace nimbra
