#pragma once

#include <array>
#include <cstdint>

#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamAction.h"
#include "QuarnBastil/TcamEntry.h"
#include "policy/Rule.h"

namespace Policy {

/// Interval of labels, both ends included. Labels are assigned to prefixes in a preorder walk of
/// their tree, so the labels of a prefix and of all prefixes below it form an interval that
/// contains no others.
struct Labels {
  std::uint32_t first = 0;
  std::uint32_t last = 0;

  bool contains(std::uint32_t label) const noexcept { return first <= label && label <= last; }
  friend bool operator==(const Labels&, const Labels&) = default;
};

/// Two sets of labels can coexist, so that all labels can be renumbered while packets are
/// processed: a rule row states which set it uses.
inline constexpr unsigned kNumberings = 2;

/// A row of `BigBb`. The longest matching prefix gives an address its next hop and its label, which
/// is the first one of the prefix's interval.
struct PrefixRow {
  /// Key of the row.
  Prefix prefix;
  /// The labels in each numbering.
  std::array<Labels, kNumberings> labels{};
  /// 0 if there is none.
  std::uint32_t nextHop = 0;

  friend bool operator==(const PrefixRow&, const PrefixRow&) = default;
};

/// A row of `TcamEntry`. Of the matching rows the one with the lowest `priority` decides,
/// regardless of its position in the table.
struct RuleRow {
  std::uint32_t priority = 0;
  /// The set of labels that `source` and `destination` refer to.
  unsigned numbering = 0;
  Labels source;
  Labels destination;
  PortRange sourcePorts;
  PortRange destinationPorts;
  Masked<std::uint8_t> protocol;
  Masked<std::uint16_t> flags;
  Decision decision = 0;
  /// Request id of the next hop that the row of `TcamAction` with the same key asks for; 0 without
  /// such a row.
  std::uint64_t redirect = 0;

  friend bool operator==(const RuleRow&, const RuleRow&) = default;
};

/// A row of `TcamAction`: the action of the redirecting rule in the row of `TcamEntry` with the
/// same key.
struct ActionRow {
  using RequestId = QuarnL3NiLib::ReqIdToFecResourceTableEntryKey;

  std::uint8_t bank = 0;
  std::uint16_t index = 0;
  /// Request id of the next hop.
  std::uint64_t redirect = 0;

  friend auto operator<=>(const ActionRow&, const ActionRow&) = default;
};

/// Convert rows to entries of their tables and back. Other fields of the entries are 0.
QuarnBastil::BigBbFamily::Entry entryOf(const PrefixRow& row);
PrefixRow prefixRowOf(const QuarnBastil::BigBbFamily::LogEntry& entry);

/// `rule` provides the prefixes, which are only for people reading the table.
QuarnBastil::TcamEntryEntry entryOf(const RuleRow& row, const Rule& rule,
                                    QuarnBastil::TcamEntryEntryKey key);
RuleRow ruleRowOf(const QuarnBastil::TcamEntryLogEntry& entry);
std::uint64_t redirectOf(const QuarnBastil::TcamEntryLogEntry& entry);
QuarnBastil::TcamActionEntry entryOf(const ActionRow& row);
/// The rule from which the entry was made.
Rule ruleOf(const QuarnBastil::TcamEntryLogEntry& entry);

}  // namespace Policy
