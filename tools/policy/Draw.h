#pragma once

#include <random>
#include <vector>

#include "policy/Rule.h"

namespace Policy {

/// Draws packets that tell rules apart: at the corners of a rule's ranges and prefixes, just
/// outside of them, and anywhere within; and packets that have nothing to do with any rule.
class PacketDraw {
 public:
  /// The lists outlive it. Equal seeds over equal lists draw equal packets.
  PacketDraw(const std::vector<std::vector<Rule>>& lists, unsigned seed);

  Packet next();

 private:
  std::uint32_t within(std::uint32_t first, std::uint32_t last);
  std::uint32_t address(const Prefix& prefix);
  template <class Number>
  Number matching(const Masked<Number>& masked);
  Packet near(const Rule& rule);
  Packet any();

  const std::vector<std::vector<Rule>>& lists_;
  std::mt19937 random_;
};

}  // namespace Policy
