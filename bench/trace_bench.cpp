// A trace whose level is off, beside the least that can be tested at run time: one byte.
#include <atomic>

#include "comparison.h"
#include "nb_logging.h"

// One trace is far shorter than an iteration of the measuring loop: many stand in a row.
#define NIMBRA_EIGHT_TIMES(statement) \
  statement;                          \
  statement;                          \
  statement;                          \
  statement;                          \
  statement;                          \
  statement;                          \
  statement;                          \
  statement

namespace nimbra::bench {

namespace {

constexpr int kInARow = 16;

std::atomic<bool> flag{false};

// Out of line and cold, like the trace function behind its guard.
__attribute__((noinline, cold)) void onSet(void* argument) { benchmark::DoNotOptimize(argument); }

void disabledTrace(benchmark::State& state) {
  JNIEnv* env = nullptr;
  void* object = &state;
  for (auto _ : state) {
    NIMBRA_EIGHT_TIMES(NB_DEBUG(env, "object=%p size=%d", object, 16));
    NIMBRA_EIGHT_TIMES(NB_DEBUG(env, "object=%p size=%d", object, 16));
  }
}

void byteLoadAndBranch(benchmark::State& state) {
  void* object = &state;
  for (auto _ : state) {
    NIMBRA_EIGHT_TIMES(if (flag.load(std::memory_order_relaxed)) onSet(object));
    NIMBRA_EIGHT_TIMES(if (flag.load(std::memory_order_relaxed)) onSet(object));
  }
}

}  // namespace

void registerTraceBenchmarks() {
  measure({.operation = "disabled trace",
           .body = disabledTrace,
           .floors = {{"one byte load and a branch", byteLoadAndBranch}},
           .perIteration = kInARow});
}

}  // namespace nimbra::bench
