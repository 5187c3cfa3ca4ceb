#pragma once

#include <map>
#include <optional>
#include <random>
#include <utility>

#include "policy/Plan.h"

namespace PolicyTest {

using Policy::Decision;
using Policy::Packet;
using Random = std::mt19937_64;

/// Both tables of a unit as a packet meets them, in plain maps.
class TableModel {
 public:
  Decision decide(const Packet& packet) const {
    const Policy::PrefixRow* const source = longestMatch(packet.source);
    const Policy::PrefixRow* const destination = longestMatch(packet.destination);
    const Policy::PlacedRule* best = nullptr;
    for (const auto& [place, placed] : rules_) {
      const Policy::RuleRow& row = placed.row;
      const bool matches = holds(row.source, source, row.numbering) &&
                           holds(row.destination, destination, row.numbering) &&
                           row.sourcePorts.contains(packet.sourcePort) &&
                           row.destinationPorts.contains(packet.destinationPort) &&
                           row.protocol.matches(packet.protocol) && row.flags.matches(packet.flags);
      if (matches && (best == nullptr || row.priority < best->row.priority)) best = &placed;
    }
    return best == nullptr ? 0 : best->row.decision;
  }

  void apply(const Policy::Step& step) {
    if (step.onPrefixes()) {
      const auto& row = std::get<0>(step.row);
      put(prefixes_, row.prefix, row, step.removes);
    } else {
      const auto& placed = std::get<1>(step.row);
      put(rules_, {placed.bank, placed.index}, placed, step.removes);
    }
  }

  /// Whether the prefixes that a rule row is about stand, under the labels that it means.
  bool pointsToRows(const Policy::PlacedRule& placed) const {
    const auto stands = [&](const Policy::Prefix& prefix, const Policy::Labels& labels) {
      const auto at = prefixes_.find(prefix);
      return at != prefixes_.end() && at->second.labels[placed.row.numbering] == labels;
    };
    return stands(placed.rule.source, placed.row.source) &&
           stands(placed.rule.destination, placed.row.destination);
  }
  bool everyRulePointsToRows() const {
    for (const auto& [place, placed] : rules_) {
      if (!pointsToRows(placed)) return false;
    }
    return true;
  }

  const auto& prefixes() const { return prefixes_; }
  const auto& rules() const { return rules_; }
  Policy::Picture picture() const {
    Policy::Picture picture;
    for (const auto& [prefix, row] : prefixes_) picture.prefixes.push_back(row);
    for (const auto& [place, placed] : rules_) picture.rules.push_back(placed);
    return picture;
  }

 private:
  const Policy::PrefixRow* longestMatch(std::uint32_t address) const {
    const Policy::PrefixRow* best = nullptr;
    for (const auto& [prefix, row] : prefixes_) {
      if (!prefix.contains(address)) continue;
      if (best == nullptr || prefix.length > best->prefix.length) best = &row;
    }
    return best;
  }
  static bool holds(const Policy::Labels& labels, const Policy::PrefixRow* row, unsigned number) {
    return row != nullptr && labels.contains(row->labels[number].first);
  }
  template <class Map>
  static void put(Map& map, const typename Map::key_type& key, const typename Map::mapped_type& row,
                  bool removes) {
    if (removes) {
      map.erase(key);
    } else {
      map.insert_or_assign(key, row);
    }
  }

  std::map<Policy::Prefix, Policy::PrefixRow> prefixes_;
  std::map<std::pair<unsigned, unsigned>, Policy::PlacedRule> rules_;
};

}  // namespace PolicyTest
