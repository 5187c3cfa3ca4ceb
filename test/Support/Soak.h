#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

namespace Support {

/// The seed of random steps: that of the environment's BASTIL_SEED, to repeat a run that failed, or
/// a new one.
inline unsigned seed() {
  const char* const given = std::getenv("BASTIL_SEED");
  return given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                          : std::random_device()();
}

/// The seed of a test, which every failure prints while it lives.
struct Seed {
  const unsigned value = seed();
  const testing::ScopedTrace trace{__FILE__, __LINE__, "BASTIL_SEED=" + std::to_string(value)};
  operator unsigned() const { return value; }
};

/// How often a test of random steps, in a suite named ...Soak, does its usual number of rounds:
/// once, and 100 times under `./run soak`, which makes minutes of seconds.
inline int soakFactor() { return std::getenv("BASTIL_SOAK") != nullptr ? 100 : 1; }

}  // namespace Support
