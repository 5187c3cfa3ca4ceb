#include <gtest/gtest.h>

#include <random>

#include "Drift/ModelRun.h"
#include "Support/Soak.h"

namespace {

using namespace Drift;
using namespace Drift::Specimens;

struct Case {
  Format::Layout layout;
  std::uint32_t keySize;
  std::uint32_t recordSize;
  Word capacity;
  int steps;
};

/// The sizes of records that tables have, and capacities from one record up: small ones change
/// their index table and go round their ring all the time, the large ones have several chunks.
const Case kCases[] = {
    {Format::Layout::hashed, 4, 24, 1, 20000},      {Format::Layout::hashed, 8, 8, 2, 20000},
    {Format::Layout::hashed, 12, 124, 7, 60000},    {Format::Layout::hashed, 4, 536, 300, 60000},
    {Format::Layout::hashed, 64, 552, 3000, 60000}, {Format::Layout::dense, 8, 24, 1, 20000},
    {Format::Layout::dense, 8, 8, 3, 40000},        {Format::Layout::dense, 8, 124, 60, 60000},
    {Format::Layout::dense, 8, 548, 3000, 60000},
};

class ModelSoak : public testing::TestWithParam<Case> {};

INSTANTIATE_TEST_SUITE_P(Sizes, ModelSoak, testing::ValuesIn(kCases), [](const auto& info) {
  const bool dense = info.param.layout == Format::Layout::dense;
  return (dense ? "Dense" : "Hashed") + std::to_string(info.param.recordSize) + "Times" +
         std::to_string(info.param.capacity);
});

TEST_P(ModelSoak, RandomOperationsDoWhatAMapDoes) {
  const Case& size = GetParam();
  const unsigned seed = Support::seed();
  SCOPED_TRACE(testing::Message() << "BASTIL_SEED=" << seed);
  std::mt19937_64 random(seed);
  ModelRun run({size.layout, size.keySize, size.recordSize, size.capacity, "Type", "attribute"},
               [&](Word bound) { return random() % bound; });
  for (int step = 0; step < size.steps * Support::soakFactor(); ++step) {
    try {
      run.step();
    } catch (const std::exception& error) {
      FAIL() << "step " << step << ": " << error.what();
    }
  }
  EXPECT_NO_THROW(run.check());
  // The largest are not surely filled between two removals of everything.
  if (size.capacity < 1000) {
    EXPECT_GT(run.fulls(), 0U);
  }
  if (size.layout == Format::Layout::dense) {
    EXPECT_GT(run.highest(), 2 * size.capacity) << "the ring did not wrap";
  } else {
    EXPECT_GT(run.tableSwitches(), 0U);
  }
}

}  // namespace
