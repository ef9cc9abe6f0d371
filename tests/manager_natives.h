// Short names for the natives of OffHeapManager that the tests of the frame and of the memory
// layer call.

#pragma once

#include "com_velt_rz_corvane_io_offheap_OffHeapManager.h"

namespace nimbra::test::manager_natives {

inline constexpr auto* initializeOffHeap =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_initializeOffHeap;
inline constexpr auto* finalizeOffHeap =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_finalizeOffHeap;
inline constexpr auto* getLibraryVersion =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getLibraryVersion;
inline constexpr auto* setLogLevel =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_setLogLevel;
inline constexpr auto* getSystemTotalMemory =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSystemTotalMemory;
inline constexpr auto* getCurrentMaxOffHeapSize =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getCurrentMaxOffHeapSize;
inline constexpr auto* setCurrentMaxOffHeapSize =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_setCurrentMaxOffHeapSize;
inline constexpr auto* getAllocatingCountInOffHeap =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getAllocatingCountInOffHeap;
inline constexpr auto* getAllocatingSizeInOffHeap =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getAllocatingSizeInOffHeap;
inline constexpr auto* getAllocatingInternalMetadataSize =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getAllocatingInternalMetadataSize;
inline constexpr auto* setInternalTracking =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_setInternalTracking;
inline constexpr auto* getJemallocStats =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getJemallocStats;
inline constexpr auto* allocateDirectFromOffHeap =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_allocateDirectFromOffHeap;
inline constexpr auto* pinJavaByteBuffer =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_pinJavaByteBuffer;
inline constexpr auto* pin_native = &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_pin_1native;
inline constexpr auto* unpin_native =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpin_1native;
inline constexpr auto* unpinToFree =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_unpinToFree;
inline constexpr auto* freeAllToOffHeap =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_freeAllToOffHeap;
inline constexpr auto* freeDirectInternal =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_freeDirectInternal;
inline constexpr auto* getDeserializedType =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getOffHeapByteBufferDeserializedType;
inline constexpr auto* setDeserializedType =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_setOffHeapByteBufferDeserializedType;
inline constexpr auto* getReferenceCountOfBuffer =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getReferenceCountImpl__Ljava_nio_ByteBuffer_2;
inline constexpr auto* getReferenceCountOfAddress =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getReferenceCountImpl__J;
inline constexpr auto* getOffHeapAddressImpl =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getOffHeapAddressImpl;
inline constexpr auto* copyByteBufferToByteArray =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_copyByteBufferToByteArray;
inline constexpr auto* getChars = &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getChars;
inline constexpr auto* allocatePhantom =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_allocatePhantom;
inline constexpr auto* getSize_ByteBufferHeader =
    &Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getSize_1ByteBufferHeader;

}  // namespace nimbra::test::manager_natives
