#include "policy/Rule.h"

namespace Policy {
namespace {

/// 64-bit FNV-1a (Fowler, Noll and Vo; parameters of RFC 9923).
class Fingerprint {
 public:
  void add(std::uint64_t number, unsigned bytes) noexcept {
    for (; bytes != 0; --bytes, number >>= 8) {
      hash_ = (hash_ ^ (number & 0xff)) * 0x100000001b3;
    }
  }
  std::uint64_t value() const noexcept { return hash_; }

 private:
  std::uint64_t hash_ = 0xcbf29ce484222325;
};

}  // namespace

Decision decisionOf(const Rule& rule) noexcept {
  Fingerprint print;
  for (const Prefix& prefix : {rule.source, rule.destination}) {
    print.add(prefix.address, 4);
    print.add(prefix.length, 1);
  }
  for (const PortRange& ports : {rule.sourcePorts, rule.destinationPorts}) {
    print.add(ports.first, 2);
    print.add(ports.last, 2);
  }
  print.add(rule.protocol.value, 1);
  print.add(rule.protocol.mask, 1);
  print.add(rule.flags.value, 2);
  print.add(rule.flags.mask, 2);
  if (rule.redirect != 0) print.add(rule.redirect, 8);
  return print.value() == 0 ? 1 : print.value();
}

const Rule* firstMatchingRule(const std::vector<Rule>& rules, const Packet& packet) noexcept {
  for (const Rule& rule : rules) {
    if (rule.matches(packet)) return &rule;
  }
  return nullptr;
}

Decision firstMatch(const std::vector<Rule>& rules, const Packet& packet) noexcept {
  const Rule* const rule = firstMatchingRule(rules, packet);
  return rule == nullptr ? 0 : decisionOf(*rule);
}

}  // namespace Policy
