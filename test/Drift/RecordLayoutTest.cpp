#include "Drift/RecordLayout.h"

#include <gtest/gtest.h>

namespace {

struct Listed {
  std::uint8_t a;
  std::uint8_t b;
  std::uint32_t c;
};

/// Whether a list of the fields of `Listed` compiles.
template <auto list>
concept ListHolds = requires {
  typename std::bool_constant<Drift::Impl::checkFields(list().data(), list().size(), sizeof(Listed),
                                                       alignof(Listed))>;
};
constexpr auto kA = [] { return DRIFT_FIELD(Listed, a); };
constexpr auto kB = [] { return DRIFT_FIELD(Listed, b); };
constexpr auto kC = [] { return DRIFT_FIELD(Listed, c); };
static_assert(ListHolds<[] { return std::array{kA(), kB(), kC()}; }>);
static_assert(!ListHolds<[] { return std::array{kB(), kC()}; }>, "the first one is missing");
static_assert(!ListHolds<[] { return std::array{kA(), kB()}; }>, "the last one is missing");
static_assert(!ListHolds<[] { return std::array{kA(), kC(), kB()}; }>, "out of order");
static_assert(!ListHolds<[] { return std::array{kA(), kA(), kB(), kC()}; }>, "overlap");
static_assert(!ListHolds<[] {
  return std::array{kA(), DRIFT_FIELD_AT(Listed, b, 2), kC()};
}>,
              "stated elsewhere than it stands");

}  // namespace
