#pragma once

#include <random>
#include <vector>

#include "policy/Rule.h"

namespace Policy {

/// Draws packets that distinguish rules: at the bounds of a rule's ranges and prefixes, just
/// outside, and anywhere within; and packets unrelated to any rule.
class PacketDraw {
 public:
  /// REQUIRES: the lists outlive the object. Equal seeds and lists yield equal packets.
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
