#include "policy/Draw.h"

namespace Policy {
namespace {

std::uint16_t narrow(std::uint32_t number) { return static_cast<std::uint16_t>(number); }

}  // namespace

PacketDraw::PacketDraw(const std::vector<std::vector<Rule>>& lists, unsigned seed)
    : lists_(lists), random_(seed) {}

/// Draws a bound, the number just outside of it, or any number in between.
std::uint32_t PacketDraw::within(std::uint32_t first, std::uint32_t last) {
  switch (random_() % 8) {
    case 0:
    case 1:
      return first;
    case 2:
    case 3:
      return last;
    case 4:
      return random_() % 4 == 0 ? first - 1 : first;
    case 5:
      return random_() % 4 == 0 ? last + 1 : last;
    default:
      return std::uniform_int_distribution<std::uint32_t>(first, last)(random_);
  }
}

std::uint32_t PacketDraw::address(const Prefix& prefix) {
  const std::uint32_t host = prefix.length == 0    ? ~std::uint32_t{0}
                             : prefix.length >= 32 ? 0
                                                   : ~std::uint32_t{0} >> prefix.length;
  return within(prefix.address, prefix.address | host);
}

template <class Number>
Number PacketDraw::matching(const Masked<Number>& masked) {
  auto number = static_cast<Number>((random_() & ~masked.mask) | masked.value);
  // Sometimes flips one bit, possibly a masked one.
  if (random_() % 8 == 0) number = static_cast<Number>(number ^ (1U << random_() % 16));
  return number;
}

Packet PacketDraw::near(const Rule& rule) {
  return {address(rule.source),
          address(rule.destination),
          narrow(within(rule.sourcePorts.first, rule.sourcePorts.last)),
          narrow(within(rule.destinationPorts.first, rule.destinationPorts.last)),
          matching(rule.protocol),
          matching(rule.flags)};
}

Packet PacketDraw::any() {
  return {static_cast<std::uint32_t>(random_()),    static_cast<std::uint32_t>(random_()),
          narrow(static_cast<unsigned>(random_())), narrow(static_cast<unsigned>(random_())),
          static_cast<std::uint8_t>(random_()),     narrow(static_cast<unsigned>(random_()))};
}

Packet PacketDraw::next() {
  if (lists_.empty() || random_() % 16 == 0) return any();
  const auto& rules = lists_[random_() % lists_.size()];
  if (rules.empty()) return any();
  Packet packet = near(rules[random_() % rules.size()]);
  // Combines the source of one rule with the destination of another: finds overlapping rules.
  if (random_() % 4 == 0) packet.destination = address(rules[random_() % rules.size()].destination);
  return packet;
}

}  // namespace Policy
