#include "Kiv/HashHelper.h"

#include <random>

namespace Kiv {

std::uint32_t HashHelper::hashSeed32() noexcept {
  static const std::uint32_t seed = std::random_device()();
  return seed;
}

}  // namespace Kiv
