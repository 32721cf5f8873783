// Replays every seed (corpus/<target>/) and every input that once broke an
// invariant (regressions/<target>/) through the fuzz targets' checks, so that
// the default suite keeps them fixed without clang or libFuzzer.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz_checks.h"

namespace korvel::fuzz {
namespace {

namespace fs = std::filesystem;

std::vector<fs::path> FilesIn(const fs::path& dir) {
  std::vector<fs::path> files;
  if (!fs::is_directory(dir)) return files;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  return files;
}

class FuzzRegressionTest : public ::testing::TestWithParam<Target> {};

TEST_P(FuzzRegressionTest, EverySeedAndRegressionKeepsTheInvariants) {
  const Target& target = GetParam();
  const fs::path root = KORVEL_FUZZ_DIR;
  auto files = FilesIn(root / "corpus" / target.name);
  EXPECT_FALSE(files.empty()) << "no seed corpus for " << target.name;
  for (const auto& file : FilesIn(root / "regressions" / target.name)) files.push_back(file);
  for (const auto& file : files) {
    std::ifstream stream(file, std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(stream), {}};
    EXPECT_EQ("", target.check(input)) << file;
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzRegressionTest, ::testing::ValuesIn(Targets()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace korvel::fuzz
