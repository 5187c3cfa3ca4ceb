#pragma once

#include <array>
#include <cstdint>

#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamEntry.h"
#include "policy/Rule.h"

namespace Policy {

/// Labels are numbers given to prefixes in a preorder walk of the tree that they form: the labels
/// of a prefix and of everything below it are an interval that holds no other. Both ends belong to
/// it.
struct Labels {
  std::uint32_t first = 0;
  std::uint32_t last = 0;

  bool contains(std::uint32_t label) const noexcept { return first <= label && label <= last; }
  friend bool operator==(const Labels&, const Labels&) = default;
};

/// Two sets of labels can stand side by side, so that everything can be numbered anew while packets
/// are being decided: a rule row says which one it means.
inline constexpr unsigned kNumberings = 2;

/// A row of `BigBb`. The row of the longest prefix that holds an address gives the address its
/// label, which is the first one of the prefix's own interval, and its next hop.
struct PrefixRow {
  Prefix prefix;
  std::array<Labels, kNumberings> labels{};
  /// 0 if there is none.
  std::uint32_t nextHop = 0;

  friend bool operator==(const PrefixRow&, const PrefixRow&) = default;
};

/// A row of `TcamEntry`. Of the rows that match a packet the one with the lowest `priority` number
/// decides, wherever it stands in the table.
struct RuleRow {
  std::uint32_t priority = 0;
  unsigned numbering = 0;
  Labels source;
  Labels destination;
  PortRange sourcePorts;
  PortRange destinationPorts;
  Masked<std::uint8_t> protocol;
  Masked<std::uint16_t> flags;
  Decision decision = 0;

  friend bool operator==(const RuleRow&, const RuleRow&) = default;
};

/// The rows as entries of their tables, and back. What an entry holds beside them is 0.
QuarnBastil::BigBbFamily::Entry entryOf(const PrefixRow& row);
PrefixRow prefixRowOf(const QuarnBastil::BigBbFamily::LogEntry& entry);

/// `rule` gives the entry its prefixes, for people who read the table.
QuarnBastil::TcamEntryEntry entryOf(const RuleRow& row, const Rule& rule,
                                    QuarnBastil::TcamEntryEntryKey key);
RuleRow ruleRowOf(const QuarnBastil::TcamEntryLogEntry& entry);
/// The rule that such an entry was made of.
Rule ruleOf(const QuarnBastil::TcamEntryLogEntry& entry);

}  // namespace Policy
