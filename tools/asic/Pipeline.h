#pragma once

#include "asic/PrefixTable.h"
#include "asic/RuleTable.h"
#include "tables/TableKind.h"

namespace SimAsic {

/// Packet processing of one unit: looks up addresses in the prefix table, then rules by the
/// resulting labels. Interprets rows as `Policy` writes them; rows written by other agents match
/// accordingly. Ignores rows of other tables.
class Pipeline {
 public:
  /// Returns the number of rows moved.
  std::uint64_t written(const Tables::TableKind& kind, Tables::Words words);
  void removed(const Tables::TableKind& kind, Tables::Words key);

  /// Order in which rows of one table are written when several are; they are removed in reverse
  /// order.
  static std::uint64_t orderOf(const Tables::TableKind& kind, Tables::Words entry);

  Policy::Decision decide(const Policy::Packet& packet) const;
  const RuleTable& rules() const noexcept { return rules_; }

 private:
  PrefixTable prefixes_;
  RuleTable rules_;
};

}  // namespace SimAsic
