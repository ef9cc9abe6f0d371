// What the overflow natives share with the natives of our own face.
#pragma once

#include <jni.h>

#include <cstdint>

#include "nb_map.h"

namespace nimbra {

// Drops the value's buffer, whose bytes now stand on disk. REQUIRES: the entry's bucket set and
// node, taken by the caller's thread.
void pageOut(JNIEnv* env, LuOffHeapValue* value, int64_t chunkPtrOffset, int32_t chunkSize,
             int64_t nextChunkPtrOffset);
// Gives the entry a buffer that was read back from disk, and the buffer's pin. REQUIRES: likewise.
void pageIn(JNIEnv* env, LuOffHeapValue* value, ByteBufferHeader* buffer);

// Takes node and bucket set, waiting for either but never for the bucket set with the node held. 0:
// both are held; the node's address: likewise, but the node was let go in between, at whatever
// depth it was held, and has that depth again; 1: a lock failed.
int64_t lockBucketSetAndNode(JNIEnv* env, const char* tag, LuOffHeapValue* value);
// Lets the node go once, then the bucket set: 0, or 1 or an error code.
int32_t unlockBucketSetAndNode(JNIEnv* env, const char* tag, LuOffHeapValue* value);

}  // namespace nimbra
