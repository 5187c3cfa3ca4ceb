#pragma once

#include <cstdlib>
#include <random>

namespace Support {

/// The seed of a test of random steps: that of the environment's BASTIL_SEED, to repeat a run that
/// failed, or a new one. The test prints it with `SCOPED_TRACE`.
inline unsigned seed() {
  const char* const given = std::getenv("BASTIL_SEED");
  return given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                          : std::random_device()();
}

/// How often a test of random steps, in a suite named ...Soak, does its usual number of rounds:
/// once, and 100 times under `./run soak`, which makes minutes of seconds.
inline int soakFactor() { return std::getenv("BASTIL_SOAK") != nullptr ? 100 : 1; }

}  // namespace Support
