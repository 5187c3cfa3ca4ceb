// For an agent with a point to die at behind each of its stores into shared memory. It dies at the
// store whose number is in BASTIL_DIE_AT_STORE; otherwise it prints at its end how many there were.
#include <cstdio>
#include <cstdlib>

#include "Support/KillPoint.h"

namespace {

struct Count {
  std::size_t first = SIZE_MAX - 1;

  Count() {
    const char* const text = std::getenv("BASTIL_DIE_AT_STORE");
    if (text != nullptr) first = std::strtoull(text, nullptr, 10);
    Support::storesLeft = first;
  }
  ~Count() { std::fprintf(stderr, "stores: %zu\n", first - Support::storesLeft); }
} count;

}  // namespace
