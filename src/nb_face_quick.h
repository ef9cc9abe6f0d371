// The face's operations with the trace levels off: the effects of the ordinary ones in fewer steps.
//
// What the ordinary road does for traces and for callers that want the previous state is left out:
// pins that come and go within one call, the record of the previous state, the map lock for
// writing. A new record and its buffers are given their final pin counts before anybody can see
// them. Whatever is not plain (a lock that cannot be had, a value on disk,
// an entry on its way in or out) is left to the ordinary road, untouched.
//
// Locks: the map lock for reading, bucket set, revision queue, then the node, which is only tried.
#pragma once

#include "nb_face.h"

namespace nimbra::face {

// ordinary: nothing was done or raised.
enum class Quick { done, none, failed, ordinary };

// Whether the traces, pin records and profiles of the ordinary road would show nothing.
inline bool isQuiet() {
  return !logInfo.debug && !logInfo.event && !logInfo.entryExit && !logInfo.profiling &&
         !logInfo.pinTracking;
}

// The entry of a short key, and its predecessor in the chain. REQUIRES: the bucket set.
LuOffHeapValue* findQuickly(BucketSet* set, const SearchKey& key,
                            LuOffHeapValue** predecessor = nullptr);

// Replaces the value of a present key; the buffer's pin passes to the entry. `released` and `hook`
// as for update().
Quick replaceQuickly(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, BufferCopy& value,
                     jlong revision, uint64_t* released, const EntryHook* hook);
// Inserts an absent key; the buffers' pins pass to the entry. Failed: memory was refused.
Quick insertQuickly(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, BufferCopy& keyBuffer,
                    BufferCopy& value, jlong revision);
// Replaces or inserts in one hold of the bucket set, in which memory is asked for: not while an
// allocation may call Java, which would sweep under it. Failed: memory was refused.
Quick putQuickly(JNIEnv* env, LuOffHeapMap* map, const SearchKey& key, const JavaBytes& keyBytes,
                 BufferCopy& value, jlong revision, bool* inserted);
// Takes the entry out of table and queue. The record passes to the caller with one pin.
Quick removeQuickly(LuOffHeapMap* map, const SearchKey& key, LuOffHeapValue** removed);

}  // namespace nimbra::face
