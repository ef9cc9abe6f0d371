// Runs a test's body in a process of its own: for what the library keeps for the life of a process,
// and is only to be seen as it was at the start.

#pragma once

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace nimbra::test {

inline constexpr int kFreshProcessPassed = 17;

// The child's part: its failures would not be heard, so they go to the text that the parent shows.
template <typename Body>
[[noreturn]] void runAsFreshProcess(Body body) {
  ::testing::TestPartResultArray results;
  {
    ::testing::ScopedFakeTestPartResultReporter listener(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &results);
    body();
  }
  for (int at = 0; at < results.size(); ++at) {
    const ::testing::TestPartResult& result = results.GetTestPartResult(at);
    std::fprintf(stderr, "%s:%d: %s\n", result.file_name(), result.line_number(), result.message());
  }
  std::_Exit(results.size() == 0 ? kFreshProcessPassed : 1);
}

// The child starts from main and repeats the test up to here, SetUp included.
template <typename Body>
void inFreshProcess(Body body) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runAsFreshProcess(body), ::testing::ExitedWithCode(kFreshProcessPassed), "");
}

}  // namespace nimbra::test
