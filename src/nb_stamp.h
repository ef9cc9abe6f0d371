// Stamps of bucket sets, by which Java reads a table without a lock.
//
// Whoever takes a set's mutex in order to change it notes so in the set's stamp, before the first
// change and after the last. A reader that finds nobody at work and the same stamp before and after
// what it read has read a state that the set really had. In between it may meet memory that is free
// by now: its address space must stay mapped (backend::keepsAddresses), and an address that it has
// read must not be followed before the stamp has been compared once more.
//
// Stamps are static, so that they outlive every table, and shared by sets whose addresses meet on
// one; that costs a reader a call of the natives, never a wrong answer.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace nimbra {

// Low 16 bits: threads at work, and how often each has the mutex. Above: sets taken so far.
struct alignas(64) SetStamp {
  std::atomic<uint64_t> word;
};
inline constexpr size_t kSetStamps = 1024;  // a power of two
extern SetStamp setStamps[kSetStamps];

// The stamp of a record of 64 bytes; Java computes the same.
inline SetStamp& stampOf(const void* set) {
  return setStamps[(reinterpret_cast<uintptr_t>(set) / 64) % kSetStamps];
}

inline void beginChanges(const void* set) {
  stampOf(set).word.fetch_add((uint64_t{1} << 16) + 1, std::memory_order_seq_cst);
#ifndef __SANITIZE_THREAD__  // which knows no fences; it does not see the reader either
  std::atomic_thread_fence(std::memory_order_release);
#endif
}

inline void endChanges(const void* set) {
  stampOf(set).word.fetch_sub(1, std::memory_order_release);
}

}  // namespace nimbra
