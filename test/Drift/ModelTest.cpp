#include <gtest/gtest.h>

#include <random>

#include "Drift/ModelRun.h"
#include "Support/Soak.h"
#include "fuzz/Targets.h"

namespace {

using namespace Drift;
using namespace Drift::Specimens;

struct Case {
  Geometry geometry;
  int steps;
};

constexpr auto kHashed = Format::Layout::hashed;
constexpr auto kDense = Format::Layout::dense;

/// The sizes of records that tables have, and capacities from one record up: small ones change
/// their index table and go round their ring all the time, the large ones have several chunks.
const Case kCases[] = {
    {{kHashed, 4, 24, 1, "Type", "attribute"}, 20000},
    {{kHashed, 8, 8, 2, "Type", "attribute"}, 20000},
    {{kHashed, 12, 124, 7, "Type", "attribute"}, 60000},
    {{kHashed, 4, 536, 300, "Type", "attribute"}, 60000},
    {{kHashed, 64, 552, 3000, "Type", "attribute"}, 60000},
    {{kDense, 8, 24, 1, "Type", "attribute"}, 20000},
    {{kDense, 8, 8, 3, "Type", "attribute"}, 40000},
    {{kDense, 8, 124, 60, "Type", "attribute"}, 60000},
    {{kDense, 8, 548, 3000, "Type", "attribute"}, 60000},
};

class ModelSoak : public testing::TestWithParam<Case> {};

INSTANTIATE_TEST_SUITE_P(Sizes, ModelSoak, testing::ValuesIn(kCases),
                         [](const auto& info) { return nameOf(info.param.geometry); });

TEST_P(ModelSoak, RandomOperationsDoWhatAMapDoes) {
  const auto& [geometry, steps] = GetParam();
  const Support::Seed seed;
  std::mt19937_64 random(seed);
  ModelRun run(geometry, [&](Word bound) { return random() % bound; });
  for (int step = 0; step < steps * Support::soakFactor(); ++step) {
    try {
      run.step();
    } catch (const std::exception& error) {
      FAIL() << "step " << step << ": " << error.what();
    }
  }
  EXPECT_NO_THROW(run.check());
  // The largest are not surely filled between two removals of everything.
  EXPECT_TRUE(geometry.capacity > 1000 || run.fulls() > 0);
  if (isDense(geometry)) {
    EXPECT_GT(run.highest(), 2 * geometry.capacity) << "the ring did not wrap";
  } else if (!BASTIL_SANITIZED || geometry.capacity <= 1000) {
    // In the fewer steps of a sanitizer's run the largest do not surely come to it.
    EXPECT_GT(run.tableSwitches(), 0U);
  }
}

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
