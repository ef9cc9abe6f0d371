// The allocator underneath: jemalloc in the product, the C library's in sanitizer builds (so that
// the sanitizers see every block). Only this adapter knows which; the rest of the library sees page
// size, chunk size and size in use. Memory of one allocator is never given to another.
#pragma once

#include <cstddef>
#include <cstdint>

namespace nimbra::backend {

// Null when there is nothing left. No exception, no trace, no accounting.
void* allocate(size_t size);
void release(void* block);
// Bytes that the block really holds; at least what was requested.
size_t usableSize(const void* block);
// The same two for a block whose requested or usable size the caller knows: where the allocator
// derives the size class from it, its index of pages, likely a cache miss, is not touched.
void release(void* block, size_t size);
size_t usableSize(const void* block, size_t size);

uint64_t pageSize();
// Bytes; a power of two.
uint64_t chunkSize();
// Bytes in use. Needs no lock and no refresh once prepareSizeInUse has run.
uint64_t sizeInUse();
// Brings what sizeInUse reads into being. Thread-safe, done once.
void prepareSizeInUse();

// Whether address space once mapped stays readable for good, so that a read of memory that has been
// freed finds stale bytes, or zeros, and never ends the process.
bool keepsAddresses();

using StatisticsWriter = void (*)(void* opaque, const char* piece);
// Passes the allocator's statistics report to `writer`, piece by piece.
void printStatistics(StatisticsWriter writer, void* opaque, const char* options);

}  // namespace nimbra::backend
