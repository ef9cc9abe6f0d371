// Pins beside the atomic additions that they are, and the lock of a bucket set that nobody wants
// beside a plain mutex.
#include <pthread.h>

#include <atomic>
#include <memory>

#include "comparison.h"
#include "nb.h"
#include "nb_hashtable.h"

namespace nimbra::bench {

namespace {

void pinAndUnpin(benchmark::State& state) {
  alignas(64) Pinnable record = {1};
  for (auto _ : state) {
    benchmark::DoNotOptimize(pin(nullptr, &record, JNI_GET_PIN));
    benchmark::DoNotOptimize(unpin(nullptr, &record, JNI_GET_PIN));
  }
}

void fetchAddTwice(benchmark::State& state) {
  alignas(64) std::atomic<int64_t> count{1};
  for (auto _ : state) {
    benchmark::DoNotOptimize(count.fetch_add(1));
    benchmark::DoNotOptimize(count.fetch_sub(1));
  }
}

void lockAndUnlockSet(benchmark::State& state) {
  MapHeader* table =
      initializeMap(nullptr, 1, 1, 0.75F, false, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr,
                    nullptr, nullptr, nullptr, deserialize, compare, allocateDirectFromPhantom);
  if (table == nullptr) {
    state.SkipWithError("no memory for a table");
    return;
  }
  BucketSet* set = getBucketSetByIndex(table, 0);
  for (auto _ : state) {
    benchmark::DoNotOptimize(lockBucketSet(set));
    benchmark::DoNotOptimize(unlockBucketSet(set));
  }
  hashtable_destroy(nullptr, table);
}

void lockAndUnlockMutex(benchmark::State& state) {
  alignas(64) pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  for (auto _ : state) {
    benchmark::DoNotOptimize(pthread_mutex_lock(&mutex));
    benchmark::DoNotOptimize(pthread_mutex_unlock(&mutex));
  }
  pthread_mutex_destroy(&mutex);
}

}  // namespace

void registerLockBenchmarks() {
  measure({.operation = "pin + unpin",
           .body = pinAndUnpin,
           .floors = {{"two atomic additions", fetchAddTwice}}});
  measure({.operation = "bucket set lock + unlock",
           .body = lockAndUnlockSet,
           .floors = {{"plain mutex, lock + unlock", lockAndUnlockMutex}}});
}

}  // namespace nimbra::bench
