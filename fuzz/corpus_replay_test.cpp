// Runs every committed input of every fuzz target once, as part of the native tests.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "targets.h"

namespace nimbra::fuzz {
namespace {

std::vector<std::filesystem::path> corpusOf(const char* name) {
  std::vector<std::filesystem::path> files;
  const std::filesystem::path folder = std::filesystem::path(NIMBRA_FUZZ_CORPUS) / name;
  if (!std::filesystem::is_directory(folder)) return files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

class FuzzCorpus : public ::testing::TestWithParam<Target> {};

TEST_P(FuzzCorpus, Replays) {
  const std::vector<std::filesystem::path> files = corpusOf(GetParam().name);
  ASSERT_FALSE(files.empty()) << "no inputs for " << GetParam().name;
  for (const std::filesystem::path& file : files) {
    SCOPED_TRACE(file.string());
    std::ifstream stream(file, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
    ASSERT_FALSE(stream.bad());
    Input input(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    GetParam().run(input);
    if (HasFailure()) break;
  }
}

// The shortest input ends the run at once; it must leave nothing behind, either.
TEST_P(FuzzCorpus, RunsTheEmptyInput) {
  Input input(nullptr, 0);
  GetParam().run(input);
}

INSTANTIATE_TEST_SUITE_P(, FuzzCorpus, ::testing::ValuesIn(kTargets),
                         [](const auto& instance) { return std::string(instance.param.name); });

}  // namespace
}  // namespace nimbra::fuzz
