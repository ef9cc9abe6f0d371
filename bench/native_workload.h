// What the native roads and their floors are asked: requests, and an environment without a JVM.
//
// A request carries everything that Java would pass in, so that neither side computes anything
// that belongs to the benchmark. The requests are read in sequence; what they lead to is not.
#pragma once

#include <jni.h>

#include <cstdint>
#include <vector>

namespace nimbra::bench {

inline constexpr uint32_t kKeyBytes = 16;
inline constexpr uint32_t kMaximumValueBytes = 1U << 20;

// What stands for a Java byte array in scriptedEnvironment(): a length and where the bytes are.
struct ScriptedArray {
  jint length;
  jbyte* bytes;

  jbyteArray asJava() const {
    return reinterpret_cast<jbyteArray>(const_cast<ScriptedArray*>(this));
  }
};

// Serves byte arrays by plain copies. NewByteArray hands out one and the same array, whose bytes
// are `scratch`: what a JVM does for a new array is no part of the native road.
JNIEnv* scriptedEnvironment();
ScriptedArray& scratchArray();

struct Request {
  uint64_t key[2];  // random-looking, and different for every index
  uint32_t hash;
};

Request requestOf(uint64_t index);
// The requests for keys first ... first + count - 1, in one random order.
std::vector<Request> requestsFor(uint32_t first, uint32_t count);

// Waits until everything before it has completed, and lets nothing behind it begin.
inline void waitForCompletion() {
#if defined(__x86_64__)
  __builtin_ia32_lfence();
#elif defined(__aarch64__)
  asm volatile("dsb ld\n\tisb" ::: "memory");
#endif
}

// Processor time of the calling thread.
double processorSeconds();

[[noreturn]] void giveUp(const char* what);

}  // namespace nimbra::bench
