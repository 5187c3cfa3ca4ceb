#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace Support {

/// Holds lines against those of the file `test/golden/NAME`, which people read and review; with
/// BASTIL_GOLDEN_UPDATE in the environment it writes the file instead. Facts of one run, such as
/// times and addresses, must have been replaced.
inline void expectGolden(const std::string& name, const std::vector<std::string>& lines) {
  const std::string path = std::string(BASTIL_GOLDEN "/") + name;
  if (std::getenv("BASTIL_GOLDEN_UPDATE") != nullptr) {
    std::ofstream out(path);
    for (const std::string& line : lines) out << line << '\n';
    return;
  }
  std::vector<std::string> golden;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) golden.push_back(line);
  const auto [expected, seen] =
      std::mismatch(golden.begin(), golden.end(), lines.begin(), lines.end());
  if (expected == golden.end() && seen == lines.end()) return;
  ADD_FAILURE() << path << ":" << expected - golden.begin() + 1 << ":\n- "
                << (expected == golden.end() ? "the end" : *expected) << "\n+ "
                << (seen == lines.end() ? "the end" : *seen);
}

/// The name of a golden file for the running test.
inline std::string goldenName() {
  const auto& test = *testing::UnitTest::GetInstance()->current_test_info();
  return std::string(test.test_suite_name()) + "." + test.name() + ".txt";
}

}  // namespace Support
