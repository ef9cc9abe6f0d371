// Runs the native benchmarks and prints one Markdown table: operation, its floor, and the ratio.
//
// Accepts Google Benchmark's options; where they leave it open, each benchmark runs nine times in
// random interleaving and the table holds the median, with half the distance between fastest and
// slowest.
#include <algorithm>
#include <cstdio>
#include <map>
#include <utility>

#include "comparison.h"
#include "nb_alloc.h"
#include "nb_alloc_backend.h"

namespace nimbra::bench {

namespace {

constexpr int64_t kMaximum = int64_t{1} << 40;  // bytes; no benchmark comes near it

std::vector<Comparison>& comparisons() {
  static std::vector<Comparison> all;
  return all;
}

// Decimals of a ratio: two, or what a very small one needs.
int precisionOf(double ratio) { return ratio < 0.01 ? 5 : 2; }

std::string floorName(const Comparison& comparison, const Floor& floor) {
  return comparison.operation + ", floor: " + floor.what;
}

void registerBody(const Comparison& comparison, const std::string& name, const Body& body) {
  auto* registered =
      benchmark::RegisterBenchmark(name.c_str(), [body](benchmark::State& state) { body(state); });
  if (comparison.threads > 1) registered->Threads(comparison.threads)->UseRealTime();
}

// Collects the repetitions and prints them as a table when all have run.
class RatioTable : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& context) override {
    std::printf("%d logical processors at %.0f MHz\n\n", context.cpu_info.num_cpus,
                context.cpu_info.cycles_per_second / 1e6);
    std::fflush(stdout);
    return true;
  }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) {
        failed_ = true;
        std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
      } else if (run.run_type == Run::RT_Iteration) {
        nanoseconds_[run.run_name.function_name].push_back(timeOf(run));
      }
    }
  }

  void Finalize() override {
    std::printf("| operation | threads | ns | ± | floor | floor ns | ± | ratio |\n");
    std::printf("|---|--:|--:|--:|---|--:|--:|--:|\n");
    for (const Comparison& comparison : comparisons()) {
      const Times operation = timesOf(comparison, comparison.operation);
      if (operation.runs == 0) continue;
      for (const Floor& floor : comparison.floors) {
        const Times least = timesOf(comparison, floorName(comparison, floor));
        if (least.runs == 0) continue;
        std::printf("| %s | %d | %.2f | %.0f %% | %s | %.2f | %.0f %% | %.*f |\n",
                    comparison.operation.c_str(), comparison.threads, operation.median,
                    operation.spread, floor.what.c_str(), least.median, least.spread,
                    precisionOf(operation.median / least.median), operation.median / least.median);
      }
    }
  }

  bool failed() const { return failed_; }

 private:
  // One thread: its processor time, which other processes disturb least. Several: time that passes,
  // since waiting for each other is part of the cost; Google Benchmark divides it by the iterations
  // of all threads together.
  static double timeOf(const benchmark::BenchmarkReporter::Run& run) {
    if (run.threads == 1) return run.GetAdjustedCPUTime();
    return run.GetAdjustedRealTime() * static_cast<double>(run.threads);
  }

  struct Times {
    double median = 0;  // ns for one operation on each thread
    double spread = 0;  // half the distance of fastest and slowest repetition, % of the median
    size_t runs = 0;
  };

  Times timesOf(const Comparison& comparison, const std::string& name) {
    std::vector<double> times = nanoseconds_[name];
    if (times.empty()) return {};
    std::sort(times.begin(), times.end());
    const size_t middle = times.size() / 2;
    const double median =
        times.size() % 2 == 1 ? times[middle] : (times[middle - 1] + times[middle]) / 2;
    return {median / comparison.perIteration, (times.back() - times.front()) / median * 50,
            times.size()};
  }

  std::map<std::string, std::vector<double>> nanoseconds_;
  bool failed_ = false;
};

}  // namespace

void measure(Comparison comparison) {
  registerBody(comparison, comparison.operation, comparison.body);
  for (const Floor& floor : comparison.floors) {
    registerBody(comparison, floorName(comparison, floor), floor.body);
  }
  comparisons().push_back(std::move(comparison));
}

}  // namespace nimbra::bench

int main(int argc, char** argv) {
  using namespace nimbra;
  static char interleaving[] = "--benchmark_enable_random_interleaving=true";
  static char repetitions[] = "--benchmark_repetitions=9";
  static char minimumTime[] = "--benchmark_min_time=0.1";
  // First, so that the command line has the last word.
  std::vector<char*> arguments = {argv[0], interleaving, repetitions, minimumTime};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

  backend::prepareSizeInUse();
  maxOffHeapSize = bench::kMaximum;
  bench::registerTraceBenchmarks();
  bench::registerAllocatorBenchmarks();
  bench::registerLockBenchmarks();
  bench::registerMapBenchmarks();

  bench::RatioTable table;
  benchmark::RunSpecifiedBenchmarks(&table);
  benchmark::Shutdown();
  return table.failed() ? 1 : 0;
}
