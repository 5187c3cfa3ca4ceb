#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <vector>

/// Traffic policy as people write it, and the rows of the two hardware tables that carry it out.
namespace Policy {

/// An IPv4 prefix. Bits behind `length` are 0.
struct Prefix {
  std::uint32_t address = 0;
  std::uint8_t length = 0;

  bool contains(std::uint32_t address_) const noexcept {
    return length == 0 || ((address ^ address_) >> (32 - length)) == 0;
  }
  friend auto operator<=>(const Prefix&, const Prefix&) = default;
};

/// Both ends belong to it.
struct PortRange {
  std::uint16_t first = 0;
  std::uint16_t last = 65535;

  bool contains(std::uint16_t port) const noexcept { return first <= port && port <= last; }
  friend bool operator==(const PortRange&, const PortRange&) = default;
};

/// A value under a mask: a number matches whose bits under the mask are those of the value. Bits of
/// the value outside the mask are 0.
template <class Number>
struct Masked {
  Number value = 0;
  Number mask = 0;

  bool matches(Number number) const noexcept { return (number & mask) == value; }
  friend bool operator==(const Masked&, const Masked&) = default;
};

struct Packet {
  std::uint32_t source = 0;
  std::uint32_t destination = 0;
  std::uint16_t sourcePort = 0;
  std::uint16_t destinationPort = 0;
  std::uint8_t protocol = 0;
  std::uint16_t flags = 0;

  friend bool operator==(const Packet&, const Packet&) = default;
};

/// One line of a file of rules. Its place in the file is its priority: the first match wins.
struct Rule {
  Prefix source;
  Prefix destination;
  PortRange sourcePorts;
  PortRange destinationPorts;
  Masked<std::uint8_t> protocol;
  Masked<std::uint16_t> flags;

  bool matches(const Packet& packet) const noexcept {
    return source.contains(packet.source) && destination.contains(packet.destination) &&
           sourcePorts.contains(packet.sourcePort) &&
           destinationPorts.contains(packet.destinationPort) && protocol.matches(packet.protocol) &&
           flags.matches(packet.flags);
  }
  friend bool operator==(const Rule&, const Rule&) = default;
};

/// What is done with a packet: a fingerprint of the rule that decided it, the same for equal rules
/// wherever they stand; 0 when none did.
using Decision = std::uint64_t;
Decision decisionOf(const Rule& rule) noexcept;

/// The plain scan that everything else is held against.
Decision firstMatch(const std::vector<Rule>& rules, const Packet& packet) noexcept;

}  // namespace Policy
