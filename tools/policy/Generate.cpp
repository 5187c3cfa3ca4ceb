#include "policy/Generate.h"

#include <algorithm>
#include <array>
#include <random>
#include <span>
#include <unordered_set>

namespace Policy {
namespace {

/// A choice and its weight, relative to the sum over its table.
template <class Value>
struct Choice {
  Value value;
  unsigned weight;
};

// Such lists mostly concern hosts at both ends, with a share of whole networks and of "any". The
// weights approximate such lists by eye and are not taken from a particular one.
constexpr Choice<std::uint8_t> kSourceLengths[] = {{0, 14}, {8, 2},   {12, 2}, {16, 6}, {20, 4},
                                                   {22, 4}, {24, 20}, {26, 4}, {27, 5}, {28, 8},
                                                   {29, 5}, {30, 4},  {32, 22}};
constexpr Choice<std::uint8_t> kDestinationLengths[] = {
    {0, 8}, {16, 4}, {20, 3}, {22, 3}, {24, 14}, {26, 3}, {27, 4}, {28, 6}, {30, 3}, {32, 52}};
constexpr Choice<std::uint16_t> kServices[] = {
    {22, 6},   {25, 5},   {53, 9},    {67, 2},   {80, 14},   {88, 2},   {110, 2},  {123, 4},
    {135, 3},  {143, 2},  {161, 4},   {389, 4},  {443, 16},  {445, 4},  {514, 3},  {636, 2},
    {993, 3},  {1433, 3}, {1521, 4},  {1812, 2}, {3306, 3},  {3389, 4}, {5060, 2}, {5432, 3},
    {8080, 5}, {8443, 3}, {27017, 1}, {179, 2},  {11211, 1}, {6443, 2}};
constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;
constexpr Choice<std::uint8_t> kProtocols[] = {{kTcp, 62}, {kUdp, 22}, {1, 5},
                                               {47, 1},    {50, 1},    {0, 9}};

class Generator {
 public:
  explicit Generator(const Shape& shape) : random_(shape.seed) {
    for (unsigned i = 0; i < std::max(1U, shape.networks); ++i) networks_.push_back(network());
  }

  Rule rule() {
    Rule rule;
    rule.source = prefix(chosen<std::uint8_t>(kSourceLengths));
    rule.destination = prefix(chosen<std::uint8_t>(kDestinationLengths));
    const std::uint8_t protocol = chosen<std::uint8_t>(kProtocols);
    if (protocol != 0) rule.protocol = {protocol, 0xff};
    if (protocol != kTcp && protocol != kUdp) return rule;
    rule.destinationPorts = ports();
    if (below(12) == 0) rule.sourcePorts = {1024, 65535};
    if (protocol == kTcp && below(5) == 0) rule.flags = below(2) == 0 ? kNoSyn : kAnswer;
    return rule;
  }

 private:
  static constexpr Masked<std::uint16_t> kNoSyn{0x0000, 0x0200};
  static constexpr Masked<std::uint16_t> kAnswer{0x1000, 0x1000};

  /// Not a standard distribution: those differ between standard libraries.
  std::uint32_t below(std::uint32_t end) { return static_cast<std::uint32_t>(random_() % end); }

  template <class Value>
  Value chosen(std::span<const Choice<Value>> choices) {
    unsigned sum = 0;
    for (const auto& choice : choices) sum += choice.weight;
    unsigned at = below(sum);
    for (const auto& choice : choices) {
      if (at < choice.weight) return choice.value;
      at -= choice.weight;
    }
    return choices.back().value;
  }

  /// A network with a 16-bit prefix; half of them are private.
  std::uint32_t network() {
    switch (below(6)) {
      case 0:
      case 1:
        return (10U << 8 | below(256)) << 16;
      case 2:
        return (172U << 8 | 16 | below(16)) << 16;
      default:
        return (1 + below(222)) << 24 | below(256) << 16;
    }
  }

  /// Rules concern few subnets of a network and few hosts of a subnet.
  Prefix prefix(std::uint8_t length) {
    if (length == 0) return {};
    const std::uint32_t network = networks_[below(static_cast<std::uint32_t>(networks_.size()))];
    const std::uint32_t subnet = below(12) * 21 % 256;
    const std::uint32_t host = below(24) * 11 % 256;
    const std::uint32_t address = network | subnet << 8 | host;
    return {address & ~0U << (32 - length), length};
  }

  PortRange ports() {
    switch (below(10)) {
      case 0:
        return {};
      case 1:
        return {1024, 65535};
      case 2: {
        const auto first = static_cast<std::uint16_t>(1024 + below(60000));
        return {first, static_cast<std::uint16_t>(first + below(64))};
      }
      default: {
        const std::uint16_t port = chosen<std::uint16_t>(kServices);
        return {port, port};
      }
    }
  }

  std::mt19937_64 random_;
  std::vector<std::uint32_t> networks_;
};

/// Coarse, so that rules of similar width keep their order.
int wideness(const Rule& rule) { return (64 - rule.source.length - rule.destination.length) / 12; }

}  // namespace

std::vector<Rule> generate(const Shape& shape) {
  Generator generator(shape);
  std::vector<Rule> rules;
  std::unordered_set<Decision> known;
  while (rules.size() < shape.rules) {
    const Rule rule = generator.rule();
    if (known.insert(decisionOf(rule)).second) rules.push_back(rule);
  }
  std::ranges::stable_sort(rules, {}, wideness);
  return rules;
}

}  // namespace Policy
