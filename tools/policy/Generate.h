#pragma once

#include <cstdint>
#include <vector>

#include "policy/Rule.h"

namespace Policy {

/// What a made-up list of rules looks like.
struct Shape {
  std::size_t rules = 1000;
  std::uint64_t seed = 1;
  /// Networks that the addresses come from. The fewer there are, the more rules overlap.
  unsigned networks = 40;
};

/// Rules as operators write them: prefix lengths, ports and protocols as often as filter sets in
/// use have them, many rules about few networks, hosts and services before whole networks. No rule
/// twice. The same for the same shape, whatever the machine.
/// REQUIRES: more rules are possible than are asked for; 100 a network always are.
std::vector<Rule> generate(const Shape& shape);

}  // namespace Policy
