#include <gtest/gtest.h>

#include "Drift/Specimen.h"
#include "fuzz/Targets.h"

namespace {

using Target = int (*)(const std::uint8_t*, std::size_t);

/// What the fuzzers found worth keeping; a fault ends the process.
void replay(const std::string& name, Target target) {
  unsigned count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(BASTIL_CORPUS "/" + name)) {
    SCOPED_TRACE(entry.path().string());
    const std::string bytes = Drift::Specimens::readFile(entry.path());
    EXPECT_EQ(target(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()), 0);
    ++count;
  }
  EXPECT_GT(count, 10U);
}

TEST(CorpusTest, FilesThatFuzzersMade) { replay("file", Drift::Fuzz::file); }
TEST(CorpusTest, OperationsOnHashedCollections) { replay("hashed", Drift::Fuzz::hashed); }
TEST(CorpusTest, OperationsOnDenseCollections) { replay("dense", Drift::Fuzz::dense); }

}  // namespace
