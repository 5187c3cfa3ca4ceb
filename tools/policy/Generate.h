#pragma once

#include <cstdint>
#include <vector>

#include "policy/Rule.h"

namespace Policy {

/// Parameters of a generated list of rules.
struct Shape {
  /// Number of rules.
  std::size_t rules = 1000;
  /// Equal seeds produce equal lists.
  std::uint64_t seed = 1;
  /// Number of networks that addresses are drawn from. Fewer networks make more rules overlap.
  unsigned networks = 40;
};

/// Generates rules like those of operators: prefix lengths, ports and protocols as frequent as in
/// real filter sets, many rules about few networks, hosts and services before whole networks. No
/// duplicates. Equal shapes give equal rules on every machine. REQUIRES: enough distinct rules
/// exist, which 100 per network guarantees.
std::vector<Rule> generate(const Shape& shape);

}  // namespace Policy
