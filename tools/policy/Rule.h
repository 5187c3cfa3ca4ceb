#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <vector>

/// Traffic policy as written by people, and the rows of the two hardware tables that implement it.
namespace Policy {

/// An IPv4 prefix. Bits after `length` are 0.
struct Prefix {
  std::uint32_t address = 0;
  std::uint8_t length = 0;

  bool contains(std::uint32_t address_) const noexcept {
    return length == 0 || ((address ^ address_) >> (32 - length)) == 0;
  }
  friend auto operator<=>(const Prefix&, const Prefix&) = default;
};

/// A range of ports, both ends included.
struct PortRange {
  std::uint16_t first = 0;
  std::uint16_t last = 65535;

  bool contains(std::uint16_t port) const noexcept { return first <= port && port <= last; }
  friend bool operator==(const PortRange&, const PortRange&) = default;
};

/// A value and a mask: matches numbers that equal the value in the masked bits. Other bits of the
/// value are 0.
template <class Number>
struct Masked {
  Number value = 0;
  Number mask = 0;

  bool matches(Number number) const noexcept { return (number & mask) == value; }
  friend bool operator==(const Masked&, const Masked&) = default;
};

/// The fields of a packet that rules match.
struct Packet {
  std::uint32_t source = 0;
  std::uint32_t destination = 0;
  std::uint16_t sourcePort = 0;
  std::uint16_t destinationPort = 0;
  std::uint8_t protocol = 0;
  std::uint16_t flags = 0;

  friend bool operator==(const Packet&, const Packet&) = default;
};

/// One line of a rule file. Its position in the file is its priority: the first match decides.
struct Rule {
  Prefix source;
  Prefix destination;
  PortRange sourcePorts;
  PortRange destinationPorts;
  Masked<std::uint8_t> protocol;
  Masked<std::uint16_t> flags;
  /// Request id of the next hop that packets are redirected to; 0: they are not.
  std::uint64_t redirect = 0;

  bool matches(const Packet& packet) const noexcept {
    return source.contains(packet.source) && destination.contains(packet.destination) &&
           sourcePorts.contains(packet.sourcePort) &&
           destinationPorts.contains(packet.destinationPort) && protocol.matches(packet.protocol) &&
           flags.matches(packet.flags);
  }
  friend bool operator==(const Rule&, const Rule&) = default;
};

/// Treatment of a packet: a fingerprint of the rule that decided, equal for equal rules in any
/// position; 0 if no rule matched.
using Decision = std::uint64_t;
Decision decisionOf(const Rule& rule) noexcept;

/// Reference implementation: a plain scan. Null if no rule matches.
const Rule* firstMatchingRule(const std::vector<Rule>& rules, const Packet& packet) noexcept;
Decision firstMatch(const std::vector<Rule>& rules, const Packet& packet) noexcept;

}  // namespace Policy
