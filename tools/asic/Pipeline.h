#pragma once

#include "asic/PrefixTable.h"
#include "asic/RuleTable.h"
#include "tables/TableKind.h"

namespace SimAsic {

/// What one unit does with packets: it looks their addresses up in the prefix table, then the rules
/// over the labels that this gives. Rows of other tables take no part in it.
///
/// I1. At every row that is written, the prefix rows are there to which it points; at every prefix
///     row that goes, or changes its label, nothing points to it any more. What breaks that is
///     counted.
class Pipeline {
 public:
  /// What writing rows has cost and broken.
  struct Cost {
    std::uint64_t moves = 0;
    std::uint64_t violations = 0;
  };

  Cost written(const Tables::TableKind& kind, Tables::Words words);
  Cost removed(const Tables::TableKind& kind, Tables::Words words);

  /// Of rows that are written together those of the lower number come first; of those that are
  /// removed together, last.
  static std::uint64_t orderOf(const Tables::TableKind& kind, Tables::Words entry);

  Policy::Decision decide(const Policy::Packet& packet) const;
  const RuleTable& rules() const noexcept { return rules_; }

 private:
  unsigned left(const Policy::PrefixRow& gone) const;

  PrefixTable prefixes_;
  RuleTable rules_;
};

}  // namespace SimAsic
