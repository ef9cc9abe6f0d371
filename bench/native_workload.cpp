#include "native_workload.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

namespace nimbra::bench {

namespace {

const ScriptedArray& arrayOf(jarray array) {
  return *reinterpret_cast<const ScriptedArray*>(array);
}

// Steele's, Lea's and Flood's mixer: every bit of the result depends on every bit of the number.
uint64_t mixed(uint64_t number) {
  number += 0x9E3779B97F4A7C15U;
  number = (number ^ (number >> 30)) * 0xBF58476D1CE4E5B9U;
  number = (number ^ (number >> 27)) * 0x94D049BB133111EBU;
  return number ^ (number >> 31);
}

JNINativeInterface_ scriptedTable() {
  JNINativeInterface_ functions = {};
  functions.ExceptionCheck = [](JNIEnv*) -> jboolean { return JNI_FALSE; };
  functions.GetArrayLength = [](JNIEnv*, jarray array) -> jsize { return arrayOf(array).length; };
  functions.GetByteArrayRegion = [](JNIEnv*, jbyteArray array, jsize from, jsize length,
                                    jbyte* target) {
    std::memcpy(target, arrayOf(array).bytes + from, static_cast<size_t>(length));
  };
  functions.SetByteArrayRegion = [](JNIEnv*, jbyteArray array, jsize from, jsize length,
                                    const jbyte* source) {
    std::memcpy(arrayOf(array).bytes + from, source, static_cast<size_t>(length));
  };
  functions.GetPrimitiveArrayCritical = [](JNIEnv*, jarray array, jboolean*) -> void* {
    return arrayOf(array).bytes;
  };
  functions.ReleasePrimitiveArrayCritical = [](JNIEnv*, jarray, void*, jint) {};
  functions.NewByteArray = [](JNIEnv*, jsize length) -> jbyteArray {
    scratchArray().length = length;
    return scratchArray().asJava();
  };
  return functions;
}

}  // namespace

JNIEnv* scriptedEnvironment() {
  static JNINativeInterface_ table = scriptedTable();
  static JNIEnv environment = {&table};
  return &environment;
}

ScriptedArray& scratchArray() {
  alignas(64) static jbyte bytes[kMaximumValueBytes];
  static ScriptedArray array = {0, bytes};
  return array;
}

Request requestOf(uint64_t index) {
  return {{mixed(index), index}, static_cast<uint32_t>(mixed(~index))};
}

std::vector<Request> requestsFor(uint32_t first, uint32_t count) {
  std::vector<Request> requests(count);
  for (uint32_t i = 0; i < count; i++) {
    requests[i] = requestOf(uint64_t{first} + i);
  }
  std::shuffle(requests.begin(), requests.end(), std::mt19937_64(count));
  return requests;
}

double processorSeconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void giveUp(const char* what) {
  std::fprintf(stderr, "native benchmark: %s\n", what);
  std::exit(1);
}

}  // namespace nimbra::bench
