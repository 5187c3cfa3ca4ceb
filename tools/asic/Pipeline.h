#pragma once

#include "asic/DestinationTable.h"
#include "asic/PrefixTable.h"
#include "asic/RuleTable.h"
#include "tables/TableKind.h"

namespace SimAsic {

/// What becomes of a packet.
struct Verdict {
  Policy::Decision decision = 0;
  /// Whether the rule redirects, and where to; nullopt if the packet is dropped.
  bool redirected = false;
  std::optional<Policy::Adjacency> output;
};

/// Packet processing of one unit: looks up addresses in the prefix table, then rules by the
/// resulting labels, then the destination of the rule's action. Interprets rows as `Policy` writes
/// them; rows written by other agents match accordingly. Ignores rows of other tables.
class Pipeline {
 public:
  /// Returns the number of rows moved.
  std::uint64_t written(const Tables::TableKind& kind, Tables::Words words);
  void removed(const Tables::TableKind& kind, Tables::Words key);

  /// Order in which rows of one table are written when several are; they are removed in reverse
  /// order.
  static std::uint64_t orderOf(const Tables::TableKind& kind, Tables::Words entry);

  Verdict decide(const Policy::Packet& packet) const;
  const RuleTable& rules() const noexcept { return rules_; }
  const DestinationTable& destinations() const noexcept { return destinations_; }

 private:
  PrefixTable prefixes_;
  RuleTable rules_;
  DestinationTable destinations_;
};

}  // namespace SimAsic
