// Pinned records, buffer headers and the library's lifecycle.
//
// A pin is one holder's claim on a record; whoever drops the last one frees it. Reason codes say
// which holder acts: they reach traces and pin tracking and never change what happens. Counts
// change only by compare-and-swap, so no function here takes a lock.
#pragma once

#include <jni.h>

#include <cstddef>
#include <cstdint>

namespace nimbra {

// The common head of every reference-counted record.
struct Pinnable {
  int64_t pins;
};
static_assert(sizeof(Pinnable) == 8);

//   0        8           16                 17 .. 23   24
//   | pins   | dataSize  | deserializedType | reserved | data, dataSize bytes ...
//
// Java sees the data area only: a direct ByteBuffer's address is the address of the data, and
// native code steps back kBufferDataOffset bytes to the header. The reserved bytes are never
// written.
struct ByteBufferHeader : Pinnable {
  uint64_t dataSize;         // bytes, as requested
  uint8_t deserializedType;  // DESERIALIZED_TYPE_*; Java may change it at any time
  uint8_t reserved[7];
};
inline constexpr size_t kBufferDataOffset = 24;
static_assert(sizeof(ByteBufferHeader) == kBufferDataOffset);
// What Java is told: the header and the first word of its data.
inline constexpr int32_t kReportedHeaderSize = 32;

inline uint8_t* bufferData(ByteBufferHeader* header) {
  return reinterpret_cast<uint8_t*>(header) + kBufferDataOffset;
}
inline const uint8_t* bufferData(const ByteBufferHeader* header) {
  return reinterpret_cast<const uint8_t*>(header) + kBufferDataOffset;
}
// The header in front of a data address, as Java's direct buffers show it. Does not test for null:
// null steps back to a small negative address, as the contract has it.
inline ByteBufferHeader* headerOfData(void* data) {
  return reinterpret_cast<ByteBufferHeader*>(reinterpret_cast<uintptr_t>(data) - kBufferDataOffset);
}
// The header behind a direct ByteBuffer.
ByteBufferHeader* headerOfBuffer(JNIEnv* env, jobject buffer);

// Marks a reason that Java passed in.
inline constexpr uint32_t JNI_CONVERT_FROM_JAVA_PIN = 0x80000000U;

// Reasons of native holders. Several share a value on purpose: one record kind uses one name.
inline constexpr uint32_t REVISION_QUEUE_NEXT_PIN = 0x1;
inline constexpr uint32_t EVICTION_QUEUE_NEXT_PIN = 0x1;
inline constexpr uint32_t REVISION_QUEUE_PREV_PIN = 0x2;
inline constexpr uint32_t EVICTION_QUEUE_PREV_PIN = 0x2;
inline constexpr uint32_t REVISION_QUEUE_FIRST_PIN = 0x4;
inline constexpr uint32_t EVICTION_QUEUE_FIRST_PIN = 0x4;
inline constexpr uint32_t REVISION_QUEUE_LAST_PIN = 0x8;
inline constexpr uint32_t EVICTION_QUEUE_LAST_PIN = 0x8;
inline constexpr uint32_t TRANSPORT_PIN = 0x10;
inline constexpr uint32_t INDEX_CONTAINER_PIN = 0x20;
inline constexpr uint32_t INDEXENTRY_INDEX_PIN = 0x40;
inline constexpr uint32_t PHANTOM_JAVA_PIN = 0x80;
inline constexpr uint32_t JNI_OVERFLOW_EVICTED_PIN = 0x100;
inline constexpr uint32_t MAPENTRY_VALUE_PIN = 0x200;
inline constexpr uint32_t TREEENTRY_INDEX_PIN = 0x200;
inline constexpr uint32_t JNI_EVICTLIST_PIN = 0x201;
inline constexpr uint32_t JNI_GET_PIN = 0x400;
inline constexpr uint32_t JNI_QUERYREVISION_PIN = 0x800;
inline constexpr uint32_t MAPENTRY_KEY_PIN = 0x1000;
inline constexpr uint32_t TREEENTRY_ATTRIBUTE_PIN = 0x1000;
inline constexpr uint32_t TREEHEADER_MIN_PIN = 0x2000;
inline constexpr uint32_t TREEHEADER_MAX_PIN = 0x4000;
inline constexpr uint32_t TREEENTRY_NEXT_PIN = 0x8000;
inline constexpr uint32_t INDEX_ATTRIBUTE_PIN = 0x10000;
inline constexpr uint32_t LUOFFHEAPMAPVALUE_EVICTION_PIN = 0x20000;
inline constexpr uint32_t EVICTIONDATA_ALLOCATION_PIN = 0x40000;
// Deliberate: not a single bit but the sum of the two codes above. The contract with Java says so.
// Pinned by PinReason.BucketFirstIsTheSumOfTwoCodes.
inline constexpr uint32_t BUCKET_FIRST_PIN = 0x60000;
inline constexpr uint32_t BUCKET_NEXT_PIN = 0x80000;
inline constexpr uint32_t LUOFFHEAPEVICTIONDATA_KEY_PIN = 0x100000;
inline constexpr uint32_t ALLOCATION_PIN = 0x200000;
inline constexpr uint32_t INDEXENTRY_MAPENTRY_PIN = 0x400000;
inline constexpr uint32_t JNI_REMOVED_PIN = 0x800000;
inline constexpr uint32_t JNI_INSERTED_PIN = 0x800001;
inline constexpr uint32_t JNI_UPDATED_PIN = 0x800002;
inline constexpr uint32_t NATIVE_TRANSIENT_GET_PIN = 0x1000000;
inline constexpr uint32_t NATIVE_TRANSIENT_REMOVED_PIN = 0x2000000;
inline constexpr uint32_t JNI_ROLLBACK_PIN = 0x4000000;
inline constexpr uint32_t LUOFFHEAPMAPVALUE_KEY_PIN = 0x8000000;
inline constexpr uint32_t LUOFFHEAPMAPVALUE_VALUE_PIN = 0x10000000;

// Reasons of Java holders, without the high bit.
inline constexpr uint32_t JAVA_GET_PIN = 1;
inline constexpr uint32_t JAVA_LUOFFHEAPMAPVALUE_ITERATOR_PIN = 2;
inline constexpr uint32_t JAVA_FREE_PIN = 4;
inline constexpr uint32_t JAVA_TRANSIENT_PIN = 8;
inline constexpr uint32_t JAVA_OFFHEAPENTRY_LUVALUE_PIN = 16;
inline constexpr uint32_t JAVA_OFFHEAPENTRY_VALUE_PIN = 17;
inline constexpr uint32_t JAVA_OFFHEAPENTRY_PREV_LUVALUE_PIN = 32;
inline constexpr uint32_t JAVA_OFFHEAPENTRY_KEY_PIN = 64;
inline constexpr uint32_t JAVA_EVICTED_PIN = 128;
inline constexpr uint32_t JAVA_PUTINTOMAP_PIN = 256;
inline constexpr uint32_t JAVA_REMOVE_PIN = 512;
inline constexpr uint32_t JAVA_EVICTLIST_PIN = 513;
inline constexpr uint32_t JAVA_CONTAINSKEY_PIN = 1024;
inline constexpr uint32_t JAVA_SESSIONIMPL_PIN = 2048;
inline constexpr uint32_t JAVA_LUBYTEBUFFERMANAGER_RELEASE = 4096;
inline constexpr uint32_t JAVA_TRANSPORT_PIN = 8192;
inline constexpr uint32_t JAVA_REMOVED_LIST_TRACKING_PIN = 16384;
inline constexpr uint32_t JAVA_REMOVE_REAPER_PIN = 32768;
inline constexpr uint32_t JAVA_TRANSACTION_COMPLETED = 32769;
inline constexpr uint32_t JAVA_OFFHEAPENTRY_CLONE_KEY_PIN = 32770;
inline constexpr uint32_t JAVA_OFFHEAPENTRY_CLONE_VALUE_PIN = 32771;
inline constexpr uint32_t JAVA_OFFHEAPENTRY_CLONE_LUVALUE_PIN = 32772;
inline constexpr uint32_t JAVA_OFFHEAPENTRY_CLONE_PREV_LUVALUE_PIN = 32773;
inline constexpr uint32_t JAVA_COLLISION_PIN = 32774;
inline constexpr uint32_t JAVA_QUERYREVISION_STANDARD_PIN = 32775;
inline constexpr uint32_t JAVA_QUERYREVISION_SENDKEYS_PIN = 32776;
inline constexpr uint32_t JAVA_NOF_REVERSEMAP_PIN = 32778;
inline constexpr uint32_t JAVA_NOF_EVICTED_PIN = 32779;
inline constexpr uint32_t JAVA_DMV_VERSIONED_VALUE_PIN = 32780;
inline constexpr uint32_t JAVA_REMOVED_LIST_CHECKING_PIN = 32781;

// The name of a reason; a static string.
const char* getReason(uint32_t reason);

// Raises the count by one and returns the new count.
int32_t pin(JNIEnv* env, Pinnable* object, uint32_t reason);
int32_t pin(JNIEnv* env, ByteBufferHeader* header, uint32_t reason);
// Lowers the count by one and returns the new count. Frees nothing.
int32_t unpin(JNIEnv* env, Pinnable* object, uint32_t reason);
int32_t unpin(JNIEnv* env, ByteBufferHeader* header, uint32_t reason);
// Unpins and frees the buffer when the new count is zero; returns the new count. A count that goes
// below zero frees nothing.
int32_t unpinToFree(JNIEnv* env, ByteBufferHeader* header, uint32_t reason);

// A buffer of `dataSize` bytes with no pin: whoever hands it out pins it. Null when refused.
ByteBufferHeader* allocateByteBufferData(JNIEnv* env, uint64_t dataSize, uint8_t unchecked,
                                         const char* type);
ByteBufferHeader* allocateByteBufferData(JNIEnv* env, uint64_t dataSize, const char* type);
// Frees at once, whatever the count.
void freeByteBufferData(JNIEnv* env, ByteBufferHeader* header);
// Usable bytes of the buffer's block, header included.
uint64_t sizeofByteBufferHeader(const ByteBufferHeader* header);
// A direct ByteBuffer over the data area with `size` as capacity (a local reference), or null.
// Takes no pin.
jobject newByteBuffer(JNIEnv* env, ByteBufferHeader* header, int32_t size);

// The build string that Java reads.
inline constexpr char kBuildString[] = "[rb52718.11230907]";

// 97 % of the maximum, truncated.
uint64_t hardCapOf(int64_t maximum);
uint64_t getHardCapLimit();
// Writes the sizes of the records of this header at debug level.
void offheap_sizes(JNIEnv* env);

}  // namespace nimbra
