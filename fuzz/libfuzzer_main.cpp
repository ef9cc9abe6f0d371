// The entry points of one libFuzzer executable. NIMBRA_FUZZ_TARGET names its target.
//
// Every failed check, of a target, a fixture or the scripted environment, ends the process at once,
// so that libFuzzer keeps the input that led to it.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "targets.h"

namespace {

class AbortOnFailure : public ::testing::EmptyTestEventListener {
  void OnTestPartResult(const ::testing::TestPartResult& result) override {
    if (!result.failed()) return;
    const char* file = result.file_name() == nullptr ? "?" : result.file_name();
    std::fprintf(stderr, "%s:%d: %s\n", file, result.line_number(), result.message());
    std::abort();
  }
};

const nimbra::fuzz::Target& target() {
  for (const nimbra::fuzz::Target& one : nimbra::fuzz::kTargets) {
    if (std::strcmp(one.name, NIMBRA_FUZZ_TARGET) == 0) return one;
  }
  std::fprintf(stderr, "there is no target %s\n", NIMBRA_FUZZ_TARGET);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
  int count = 1;  // the other arguments are libFuzzer's
  ::testing::InitGoogleTest(&count, *argv);
  ::testing::UnitTest::GetInstance()->listeners().Append(new AbortOnFailure);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const nimbra::fuzz::Target& running = target();
  nimbra::fuzz::Input input(data, size);
  running.run(input);
  return 0;
}
