#include "policy/RuleFile.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

namespace Policy {
namespace {

PortRange portsOf(LineReader& line) {
  constexpr std::string_view kPort = "a port from 0 to 65535";
  PortRange ports;
  line.skipBlanks();
  ports.first = static_cast<std::uint16_t>(line.number(65535, kPort));
  line.skipBlanks();
  line.pass(':', "':' between the first and the last port");
  line.skipBlanks();
  LineReader last = line;
  ports.last = static_cast<std::uint16_t>(line.number(65535, kPort));
  if (ports.last < ports.first) {
    last.fail(fmt::format("a last port that is not below the first one, {}", ports.first));
  }
  return ports;
}

template <class Number>
Masked<Number> maskedOf(LineReader& line, std::string_view expected) {
  constexpr std::uint32_t most = std::numeric_limits<Number>::max();
  line.skipBlanks();
  Masked<Number> masked;
  masked.value = static_cast<Number>(line.number(most, expected));
  line.pass('/', "'/' and a mask");
  masked.mask = static_cast<Number>(line.number(most, "a mask, a number"));
  masked.value = static_cast<Number>(masked.value & masked.mask);
  return masked;
}

struct Names {
  std::vector<NamedNextHop>* named;
  bool all;
};

Rule ruleOf(LineReader& line, unsigned number, const Names& names) {
  Rule rule;
  line.pass('@', "'@' and a source prefix");
  rule.source = line.prefix();
  line.skipBlanks();
  rule.destination = line.prefix();
  rule.sourcePorts = portsOf(line);
  rule.destinationPorts = portsOf(line);
  rule.protocol = maskedOf<std::uint8_t>(line, "a protocol from 0 to 0xff");
  const bool redirects = names.named != nullptr;
  if (!line.atEnd() && (!redirects || line.wordHas('/'))) {
    rule.flags = maskedOf<std::uint16_t>(line, "flags from 0 to 0xffff");
  }
  if (names.all || (redirects && !line.atEnd())) {
    line.atEnd();
    const unsigned column = line.column();
    const std::string name = line.name("the name of a next hop");
    rule.redirect = requestIdOf(name);
    names.named->push_back({number, {name, column}});
  }
  if (!line.atEnd()) line.fail("the end of the rule");
  return rule;
}

std::string textOf(const Prefix& prefix) {
  return fmt::format("{}.{}.{}.{}/{}", prefix.address >> 24, prefix.address >> 16 & 0xff,
                     prefix.address >> 8 & 0xff, prefix.address & 0xff, prefix.length);
}

}  // namespace

std::vector<Rule> rulesOf(const std::string& file, std::string_view text,
                          std::vector<NamedNextHop>* named, bool allRedirect) {
  std::vector<Rule> rules;
  rules.reserve(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
  readLines(file, text, [&](LineReader& line, unsigned number) {
    rules.push_back(ruleOf(line, number, {named, allRedirect}));
  });
  return rules;
}

std::string lineOf(const Rule& rule) {
  return fmt::format("@{}\t{}\t{} : {}\t{} : {}\t0x{:02x}/0x{:02X}\t0x{:04x}/0x{:04X}\n",
                     textOf(rule.source), textOf(rule.destination), rule.sourcePorts.first,
                     rule.sourcePorts.last, rule.destinationPorts.first, rule.destinationPorts.last,
                     rule.protocol.value, rule.protocol.mask, rule.flags.value, rule.flags.mask);
}

}  // namespace Policy
