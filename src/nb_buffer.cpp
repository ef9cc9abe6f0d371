// Buffers: a header in front of every block that Java sees as a direct ByteBuffer.
//
// State: none. No locks.
#include "nb.h"
#include "nb_alloc.h"
#include "nb_logging.h"

namespace nimbra {

ByteBufferHeader* headerOfBuffer(JNIEnv* env, jobject buffer) {
  return headerOfData(env->GetDirectBufferAddress(buffer));
}

ByteBufferHeader* allocateByteBufferData(JNIEnv* env, uint64_t dataSize, uint8_t unchecked,
                                         const char* type) {
  const uint64_t size = dataSize + kBufferDataOffset;
  NB_DEBUG(env, "start sub-allocation. size=%d dataSize=%d", static_cast<int>(size),
           static_cast<int>(dataSize));
  // A negative length from Java wraps around and would leave no room for the header itself.
  const bool wrapped = size < dataSize;
  auto* header =
      wrapped ? nullptr : static_cast<ByteBufferHeader*>(malloc_nb(env, size, unchecked, type));
  if (header == nullptr) {
    NB_DEBUG(env, "sub-allocation was failed. size=%d dataSize=%d", static_cast<int>(size),
             static_cast<int>(dataSize));
    return nullptr;
  }
  header->pins = 0;
  header->dataSize = dataSize;
  header->deserializedType = 0;
  NB_DEBUG(env, "sub-allocation was finished. size=%d dataSize=%d allocated=%p",
           static_cast<int>(sizeofByteBufferHeader(header)), static_cast<int>(dataSize),
           static_cast<void*>(header));
  return header;
}

ByteBufferHeader* allocateByteBufferData(JNIEnv* env, uint64_t dataSize, const char* type) {
  return allocateByteBufferData(env, dataSize, 0, type);
}

uint64_t sizeofByteBufferHeader(const ByteBufferHeader* header) {
  return usableSizeOfRequest(header, header->dataSize + kBufferDataOffset);
}

void freeByteBufferData(JNIEnv* env, ByteBufferHeader* header) {
  freeSized(env, header, sizeofByteBufferHeader(header));
}

jobject newByteBuffer(JNIEnv* env, ByteBufferHeader* header, int32_t size) {
  void* data = bufferData(header);
  NB_DEBUG(env, "requesting new Java_DBB, backingOffheapBB=%p size=%d", static_cast<void*>(header),
           size);
  const jobject buffer = env->NewDirectByteBuffer(data, size);
  if (buffer == nullptr) {
    NB_DEBUG(env, "ByteBuffer generation was failed. p=%p, size=%d, data=%p",
             static_cast<void*>(header), size, data);
    return nullptr;
  }
  NB_DEBUG(env, "successfully generated JavaDBB=%p refType=%d backingOffheapBB=%p size=%d data=%p",
           static_cast<void*>(buffer), static_cast<int>(env->GetObjectRefType(buffer)),
           static_cast<void*>(header), size, data);
  return buffer;
}

}  // namespace nimbra
