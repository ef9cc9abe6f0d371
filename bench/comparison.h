// Operations of the library measured beside their floors: the least work that could do the same.
//
// An operation and its floors run in one process, in interleaved repetitions, so that a slow moment
// of the machine meets both. The table at the end sets their medians side by side.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

namespace nimbra::bench {

using Body = std::function<void(benchmark::State&)>;

struct Floor {
  std::string what;  // as the table names it
  Body body;
};

struct Comparison {
  std::string operation;  // as the table names it
  Body body;
  std::vector<Floor> floors;
  int threads = 1;
  int perIteration = 1;  // operations that one iteration of every body carries out
};

// Registers the operation and its floors under "operation" and "operation, floor: what". Only
// before the benchmarks run, from one thread.
void measure(Comparison comparison);

// One function a file of benchmarks; main calls them all.
void registerTraceBenchmarks();
void registerAllocatorBenchmarks();
void registerLockBenchmarks();
void registerMapBenchmarks();

}  // namespace nimbra::bench
