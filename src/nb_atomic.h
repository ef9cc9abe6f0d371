// Atomic helpers on plain 64-bit words, and relaxed cells for racing globals.
//
// Pin counts and accounting counters are plain int64_t fields (their offsets are part of the
// contract with Java), so they are reached through std::atomic_ref. Nothing here takes a lock.
#pragma once

#include <atomic>
#include <cstdint>

namespace nimbra {

// Stores `desired` where *target equals `expected`, with full ordering. Returns the value found:
// equal to `expected` exactly when the swap happened.
inline int64_t lockCompareExchange(int64_t* target, int64_t expected, int64_t desired) {
  std::atomic_ref<int64_t>(*target).compare_exchange_strong(expected, desired,
                                                            std::memory_order_seq_cst);
  return expected;
}

// Reads a word that other threads change through the helpers below.
inline int64_t lockRead(const int64_t* target) {
  return std::atomic_ref<int64_t>(*const_cast<int64_t*>(target)).load(std::memory_order_acquire);
}

// Asks for the cache line of an address, which need not be readable, without waiting for it.
inline void prefetch(const void* address) { __builtin_prefetch(address); }

// Adds `amount` and returns the new value. Wraps like unsigned arithmetic.
inline int64_t lockIncrement(int64_t* target, int64_t amount) {
  int64_t seen = std::atomic_ref<int64_t>(*target).load(std::memory_order_relaxed);
  for (;;) {
    const auto next =
        static_cast<int64_t>(static_cast<uint64_t>(seen) + static_cast<uint64_t>(amount));
    const int64_t found = lockCompareExchange(target, seen, next);
    if (found == seen) return next;
    seen = found;
  }
}

inline int64_t lockIncrement(int64_t* target) { return lockIncrement(target, 1); }

// Subtracts `amount` and returns the new value.
inline int64_t lockDecrement(int64_t* target, int64_t amount) {
  return lockIncrement(target, static_cast<int64_t>(0 - static_cast<uint64_t>(amount)));
}

inline int64_t lockDecrement(int64_t* target) { return lockDecrement(target, 1); }

// A global that is written at start-up or by a level refresh while other threads may read it.
// Relaxed ordering costs what a plain variable costs; readers accept the old or the new value.
template <typename T>
class Relaxed {
 public:
  constexpr Relaxed() = default;
  constexpr explicit Relaxed(T value) : cell_(value) {}
  Relaxed(const Relaxed& other) : cell_(other.load()) {}
  Relaxed& operator=(const Relaxed& other) {
    store(other.load());
    return *this;
  }
  Relaxed& operator=(T value) {
    store(value);
    return *this;
  }
  operator T() const { return load(); }  // NOLINT(google-explicit-constructor): reads as T
  T load() const { return cell_.load(std::memory_order_relaxed); }
  void store(T value) { cell_.store(value, std::memory_order_relaxed); }

 private:
  std::atomic<T> cell_{};
};

}  // namespace nimbra
