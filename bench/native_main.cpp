// The native roads of get, insert, update and remove beside their floor.
//
//   nimbra_native --entries N --value-bytes B [Google Benchmark's options]
//       measures one case; prints tab-separated rows for tools/bench_native.sh
//   nimbra_native --entries N --value-bytes B --count
//       runs each operation under callgrind, which writes one dump for each
//
// A batch removes and inserts the same keys in turn, so that a store keeps its size while only one
// of the two is timed.
#include <benchmark/benchmark.h>

#if NIMBRA_CALLGRIND
#include <valgrind/callgrind.h>
#endif

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "native_options.h"
#include "native_stores.h"
#include "native_workload.h"
#include "nb_alloc.h"
#include "nb_alloc_backend.h"

namespace nimbra::bench {

namespace {

constexpr int64_t kMaximum = int64_t{1} << 40;  // bytes; no case comes near it
constexpr uint32_t kLargestMap = 100'000'000;

struct Case {
  uint32_t entries;
  uint32_t valueBytes;
};

// Where the requests of one store's benchmarks stand. Both kinds of keys are walked round and
// round; what was removed last is inserted again, in the order of the removals.
class Walk {
 public:
  explicit Walk(uint32_t entries)
      : present_(requestsFor(0, entries)), absent_(requestsFor(entries, entries)) {}

  // The next `count` requests for keys that are present (absent).
  const Request* present(size_t count) { return take(present_, &atPresent_, count); }
  const Request* absent(size_t count) { return take(absent_, &atAbsent_, count); }
  const std::vector<Request>& all() const { return present_; }
  // Requests in one timed batch.
  size_t batch() const { return std::min<size_t>(present_.size() / 5, 20'000); }

 private:
  static const Request* take(const std::vector<Request>& requests, size_t* at, size_t count) {
    if (*at + count > requests.size()) *at = 0;
    const Request* first = requests.data() + *at;
    *at += count;
    return first;
  }

  std::vector<Request> present_;
  std::vector<Request> absent_;
  size_t atPresent_ = 0;
  size_t atAbsent_ = 0;
};

// How the operations of a batch follow each other. Apart: each begins when the one before it has
// completed, as for a caller who needs the answer, so that an operation takes its misses in full.
// Overlapped: the processor may work ahead, which it does the further the shorter an operation is.
enum class Pace { apart, overlapped };

// One batch of an operation: what makes it possible, itself, and what undoes it. Only itself is
// timed, or counted.
struct Operation {
  std::string name;
  std::function<const Request*(size_t count)> prepare;
  std::function<void(const Request* first, size_t count, Pace pace)> run;
  std::function<void(const Request* first, size_t count, Pace pace)> undo;
};

template <typename Store, void (Store::*Do)(const Request&)>
__attribute__((noinline)) void runAll(Store& store, const Request* first, size_t count, Pace pace) {
  if (pace == Pace::apart) {
    for (size_t i = 0; i < count; i++) {
      (store.*Do)(first[i]);
      waitForCompletion();
    }
  } else {
    for (size_t i = 0; i < count; i++) (store.*Do)(first[i]);
  }
}

void nothing(const Request*, size_t, Pace) {}

// The five operations of a store, under "operation<tab>road".
template <typename Store>
std::vector<Operation> operationsOf(const std::string& road, std::shared_ptr<Store> store,
                                    std::shared_ptr<Walk> walk) {
  const auto present = [walk](size_t count) { return walk->present(count); };
  const auto absent = [walk](size_t count) { return walk->absent(count); };
  const auto getHits = [store](const Request* first, size_t count, Pace pace) {
    runAll<Store, &Store::getHit>(*store, first, count, pace);
  };
  const auto getMisses = [store](const Request* first, size_t count, Pace pace) {
    runAll<Store, &Store::getMiss>(*store, first, count, pace);
  };
  const auto updates = [store](const Request* first, size_t count, Pace pace) {
    runAll<Store, &Store::update>(*store, first, count, pace);
  };
  const auto removals = [store](const Request* first, size_t count, Pace pace) {
    runAll<Store, &Store::remove>(*store, first, count, pace);
  };
  const auto inserts = [store](const Request* first, size_t count, Pace pace) {
    runAll<Store, &Store::insert>(*store, first, count, pace);
  };
  const auto removed = [present, removals](size_t count) {
    const Request* first = present(count);
    removals(first, count, Pace::overlapped);
    return first;
  };
  return {
      {"get hit\t" + road, present, getHits, nothing},
      {"get miss\t" + road, absent, getMisses, nothing},
      {"insert\t" + road, removed, inserts, nothing},
      {"update\t" + road, present, updates, nothing},
      {"remove\t" + road, present, removals, inserts},
  };
}

// ---- Components of the floor ---------------------------------------------------------------

void allocateAndFree(size_t size, size_t count) {
  for (size_t i = 0; i < count; i++) {
    void* block = backend::allocate(size);
    benchmark::DoNotOptimize(block);
    backend::release(block);
  }
}

void lockAndUnlock(size_t count) {
  alignas(64) static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  for (size_t i = 0; i < count; i++) {
    benchmark::DoNotOptimize(pthread_mutex_lock(&mutex));
    benchmark::DoNotOptimize(pthread_mutex_unlock(&mutex));
  }
}

void copyBytes(size_t bytes, size_t count) {
  alignas(64) static uint8_t source[kMaximumValueBytes];
  for (size_t i = 0; i < count; i++) {
    std::memcpy(scratchArray().bytes, source, bytes);
    benchmark::ClobberMemory();
  }
}

// Cache lines that point to each other in one random cycle: every load waits for the one before.
class Chase {
 public:
  explicit Chase(uint64_t bytes) : lines_(std::max<uint64_t>(bytes / sizeof(Line), 2)) {
    line_ = static_cast<Line*>(backend::allocate(lines_ * sizeof(Line)));
    if (line_ == nullptr) giveUp("no memory for the pointer chase");
    std::vector<uint32_t> order(lines_);
    for (uint32_t i = 0; i < lines_; i++) order[i] = i;
    uint64_t state = 1;
    for (uint64_t i = lines_ - 1; i > 0; i--) {  // Sattolo's shuffle: one cycle through all
      state = state * 6364136223846793005U + 1442695040888963407U;
      std::swap(order[i], order[(state >> 33) % i]);
    }
    for (uint64_t i = 0; i < lines_; i++) line_[i].next = &line_[order[i]];
    at_ = line_;
  }
  ~Chase() { backend::release(line_); }
  Chase(const Chase&) = delete;
  Chase& operator=(const Chase&) = delete;

  void follow(size_t count) {
    const Line* at = at_;
    for (size_t i = 0; i < count; i++) at = at->next;
    benchmark::DoNotOptimize(at);
    at_ = at;
  }

 private:
  struct alignas(64) Line {
    const Line* next;
  };
  uint64_t lines_;
  Line* line_;
  const Line* at_;
};

// ---- Measurement ---------------------------------------------------------------------------

// Registers the operation; one iteration is one batch.
void measureOperation(const Operation& operation, size_t batch, Pace pace) {
  const std::string name = operation.name + (pace == Pace::apart ? "" : ", overlapped");
  benchmark::RegisterBenchmark(name.c_str(), [operation, batch, pace](benchmark::State& state) {
    for (auto _ : state) {
      const Request* first = operation.prepare(batch);
      const double start = processorSeconds();
      operation.run(first, batch, pace);
      state.SetIterationTime(processorSeconds() - start);
      operation.undo(first, batch, Pace::overlapped);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * batch));
  })->UseManualTime();
}

void measureComponent(const std::string& name, std::function<void(size_t count)> run) {
  constexpr size_t kBatch = 10'000;
  benchmark::RegisterBenchmark((name + "\tcomponent").c_str(), [run](benchmark::State& state) {
    for (auto _ : state) {
      const double start = processorSeconds();
      run(kBatch);
      state.SetIterationTime(processorSeconds() - start);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kBatch));
  })->UseManualTime();
}

// Prints one row for each benchmark: name, road, nanoseconds (median), spread in percent.
class Rows : public benchmark::BenchmarkReporter {
 public:
  explicit Rows(Case measured) : case_(measured) {}
  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const std::string& name = run.run_name.function_name;
      if (nanoseconds_.count(name) == 0) names_.push_back(name);
      nanoseconds_[name].push_back(1e9 / run.counters.at("items_per_second").value);
    }
  }

  void Finalize() override {
    for (const std::string& name : names_) {
      std::vector<double>& times = nanoseconds_[name];
      std::sort(times.begin(), times.end());
      const size_t middle = times.size() / 2;
      const double median =
          times.size() % 2 == 1 ? times[middle] : (times[middle - 1] + times[middle]) / 2;
      std::printf("time\t%u\t%u\t%s\t%.2f\t%.0f\n", case_.entries, case_.valueBytes, name.c_str(),
                  median, (times.back() - times.front()) / median * 50);
    }
  }

 private:
  Case case_;
  std::vector<std::string> names_;
  std::map<std::string, std::vector<double>> nanoseconds_;
};

// ---- The stores of one case ----------------------------------------------------------------

struct Stores {
  std::shared_ptr<EntryMap> map;
  std::shared_ptr<FaceRoad> face;
  std::shared_ptr<ContractRoad> contract;
  std::shared_ptr<Floor> floor;
  std::shared_ptr<Walk> walk;
  std::shared_ptr<Walk> floorWalk;

  explicit Stores(Case wanted) {
    walk = std::make_shared<Walk>(wanted.entries);
    floorWalk = std::make_shared<Walk>(wanted.entries);
    map = std::make_shared<EntryMap>(wanted.valueBytes);
    face = std::make_shared<FaceRoad>(map);
    contract = std::make_shared<ContractRoad>(map);
    // Filled in another random order than the one that the operations walk in.
    const std::vector<Request> filling = fillingOrder(wanted.entries);
    for (const Request& request : filling) contract->insert(request);
    floor = std::make_shared<Floor>(wanted.valueBytes, map->bucketCount());
    for (const Request& request : filling) floor->insert(request);
  }

  std::vector<Operation> operations() const {
    std::vector<Operation> all = operationsOf("face", face, walk);
    for (auto& more :
         {operationsOf("contract", contract, walk), operationsOf("floor", floor, floorWalk)}) {
      all.insert(all.end(), more.begin(), more.end());
    }
    return all;
  }

 private:
  std::vector<Request> fillingOrder(uint32_t entries) const {
    std::vector<Request> order = walk->all();
    for (uint32_t i = 0, j = entries - 1; i < j; i += 2, j -= 2) std::swap(order[i], order[j]);
    return order;
  }
};

int measureCase(Case wanted, std::vector<char*> arguments) {
  static char interleaving[] = "--benchmark_enable_random_interleaving=true";
  static char repetitions[] = "--benchmark_repetitions=7";
  static char minimumTime[] = "--benchmark_min_time=0.06";
  // First, so that the command line has the last word.
  arguments.insert(arguments.begin() + 1, {interleaving, repetitions, minimumTime});
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

  const Stores stores(wanted);
  for (const Operation& operation : stores.operations()) {
    for (const Pace pace : {Pace::apart, Pace::overlapped}) {
      measureOperation(operation, stores.walk->batch(), pace);
    }
  }
  const uint64_t dataBytes =
      uint64_t{wanted.entries} *
          (sizeof(LuOffHeapValue) + 2 * kBufferDataOffset + kKeyBytes + wanted.valueBytes) +
      stores.map->bucketCount() * sizeof(Bucket);
  const auto chase = std::make_shared<Chase>(std::min(dataBytes, uint64_t{1} << 30));
  measureComponent("dependent miss", [chase](size_t times) { chase->follow(times); });
  measureComponent("lock and unlock", lockAndUnlock);
  measureComponent("allocate and free the record",
                   [](size_t times) { allocateAndFree(sizeof(LuOffHeapValue), times); });
  measureComponent("allocate and free the key",
                   [](size_t times) { allocateAndFree(kBufferDataOffset + kKeyBytes, times); });
  measureComponent("allocate and free the value", [wanted](size_t times) {
    allocateAndFree(kBufferDataOffset + wanted.valueBytes, times);
  });
  measureComponent("copy the value",
                   [wanted](size_t times) { copyBytes(wanted.valueBytes, times); });
  std::printf("load\t%u\t%u\t%.4f\n", wanted.entries, wanted.valueBytes,
              static_cast<double>(wanted.entries) / static_cast<double>(stores.map->bucketCount()));
  Rows rows(wanted);
  benchmark::RunSpecifiedBenchmarks(&rows);
  return 0;
}

// Two batches of each operation: one to warm up, one that callgrind counts.
int countCase(Case wanted) {
#if NIMBRA_CALLGRIND
  if (RUNNING_ON_VALGRIND == 0) {
    std::fprintf(stderr, "--count only makes sense under valgrind --tool=callgrind\n");
    return 2;
  }
  const Stores stores(wanted);
  const size_t batch = std::min<size_t>(stores.walk->batch(), 2000);
  for (const Operation& operation : stores.operations()) {
    for (const bool counted : {false, true}) {
      const Request* first = operation.prepare(batch);
      if (counted) {
        CALLGRIND_START_INSTRUMENTATION;
        CALLGRIND_ZERO_STATS;
      }
      operation.run(first, batch, Pace::overlapped);
      if (counted) {
        CALLGRIND_DUMP_STATS_AT(operation.name.c_str());
        CALLGRIND_STOP_INSTRUMENTATION;
      }
      operation.undo(first, batch, Pace::overlapped);
    }
    std::printf("counted\t%u\t%u\t%s\t%zu\n", wanted.entries, wanted.valueBytes,
                operation.name.c_str(), batch);
  }
  return 0;
#else
  std::fprintf(stderr,
               "--count: callgrind's header was missing when %u entries of %u bytes were "
               "asked for; install valgrind and build again\n",
               wanted.entries, wanted.valueBytes);
  return 2;
#endif
}

}  // namespace

}  // namespace nimbra::bench

int main(int argc, char** argv) {
  using namespace nimbra;
  using namespace nimbra::bench;
  Case wanted = {10'000, 256};
  bool count = false;
  std::vector<char*> rest = {argv[0]};
  for (int i = 1; i < argc; i++) {
    if (std::strcmp(argv[i], "--entries") == 0) {
      wanted.entries = static_cast<uint32_t>(
          numberOf("--entries", valueBehind(argc, argv, &i), 10, kLargestMap));
    } else if (std::strcmp(argv[i], "--value-bytes") == 0) {
      wanted.valueBytes = static_cast<uint32_t>(
          numberOf("--value-bytes", valueBehind(argc, argv, &i), 1, kMaximumValueBytes));
    } else if (std::strcmp(argv[i], "--count") == 0) {
      count = true;
    } else {
      rest.push_back(argv[i]);
    }
  }
  backend::prepareSizeInUse();
  maxOffHeapSize = kMaximum;
  return count ? countCase(wanted) : measureCase(wanted, rest);
}
