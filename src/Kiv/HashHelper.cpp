#include "Kiv/HashHelper.h"

#include <cstring>
#include <random>

namespace Kiv {

constinit Fenrik::Atomic<std::uint32_t> HashHelper::seed_;

std::uint32_t HashHelper::seedMade(std::uint32_t wanted) noexcept {
  if (wanted == 0) wanted = std::random_device()() | 1u;
  std::uint32_t present = 0;
  return seed_.compareExchange(present, wanted) ? wanted : present;
}

std::uint32_t HashHelper::hashBytes(std::uint32_t seed, const void* bytes,
                                    std::size_t size) noexcept {
  // Includes the length, so that trailing zero bytes count.
  std::uint32_t hash = hashSingleAttr(seed, static_cast<std::uint64_t>(size));
  const auto* next = static_cast<const char*>(bytes);
  for (; size >= sizeof(std::uint64_t); size -= sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, next, sizeof word);
    next += sizeof word;
    hash = hashSingleAttr(hash, word);
  }
  if (size == 0) return hash;
  std::uint64_t rest = 0;
  std::memcpy(&rest, next, size);
  return hashSingleAttr(hash, rest);
}

}  // namespace Kiv
