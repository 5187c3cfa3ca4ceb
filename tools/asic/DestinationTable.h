#pragma once

#include <optional>
#include <unordered_map>
#include <vector>

#include "asic/RuleTable.h"
#include "policy/Destination.h"

namespace SimAsic {

/// The actions and the destinations of one unit.
class DestinationTable {
 public:
  using Key = RuleTable::Key;

  void actionIs(Key key, std::uint32_t destId) { actions_[key] = destId; }
  void actionDel(Key key) { actions_.erase(key); }
  void adjacencyIs(const QuarnBastil::SmallAdsFamily::LogEntry& row);
  void adjacencyDel(const QuarnBastil::SmallAdsFamily::Key& key);
  void memberIs(const QuarnBastil::BigAdsFamily::LogEntry& row);
  void memberDel(const QuarnBastil::BigAdsFamily::Key& key);

  /// The adjacencies of the destination of an action, in the order of its members; empty if a
  /// packet is dropped: there is no action, it has no destination, or rows of that are missing.
  std::vector<Policy::Adjacency> adjacencies(Key action) const;
  /// The one that a packet takes, or nullopt.
  std::optional<Policy::Adjacency> output(Key action, const Policy::Packet& packet) const;

 private:
  std::unordered_map<Key, std::uint32_t> actions_;
  std::unordered_map<std::uint16_t, Policy::Adjacency> single_;
  std::unordered_map<std::uint32_t, Policy::Adjacency> members_;
};

}  // namespace SimAsic
