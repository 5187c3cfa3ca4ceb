#pragma once

#include "asic/PrefixTable.h"
#include "asic/RuleTable.h"
#include "tables/TableKind.h"

namespace SimAsic {

/// What one unit does with packets: it looks their addresses up in the prefix table, then the rules
/// over the labels that this gives. It reads the words of a row as `Policy` writes them; rows of
/// another agent match what they happen to match. Rows of other tables take no part in it.
class Pipeline {
 public:
  /// Returns how many rows had to be moved.
  std::uint64_t written(const Tables::TableKind& kind, Tables::Words words);
  void removed(const Tables::TableKind& kind, Tables::Words key);

  /// The order in which rows of one table are written together; they are removed in the opposite
  /// one.
  static std::uint64_t orderOf(const Tables::TableKind& kind, Tables::Words entry);

  Policy::Decision decide(const Policy::Packet& packet) const;
  const RuleTable& rules() const noexcept { return rules_; }

 private:
  PrefixTable prefixes_;
  RuleTable rules_;
};

}  // namespace SimAsic
