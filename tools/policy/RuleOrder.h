#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "policy/Rows.h"

namespace Policy {

/// A row of `TcamEntry` with its position. Rules are placed in bank 0.
struct PlacedRule {
  std::uint8_t bank = 0;
  std::uint16_t index = 0;
  Rule rule;
  RuleRow row;

  friend bool operator==(const PlacedRule&, const PlacedRule&) = default;
};

/// Assignment of requested rules to existing rows.
///
/// I1. Priorities ascend along the existing rows and along the requested rules, and no removed row
///     has the priority of an added one.
struct RuleOrder {
  static constexpr std::uint32_t kNone = UINT32_MAX;

  /// For each requested rule: the existing row that implements it, or kNone; and its priority.
  std::vector<std::uint32_t> rowOf;
  std::vector<std::uint32_t> priorityOf;
  /// For each existing row: whether it is kept, and its priority, which is changed only if there
  /// was no room between others.
  std::vector<bool> stays;
  std::vector<std::uint32_t> rowPriority;
};

/// Keeps as many rows as possible. `rows` ascend by priority; only rows of `usable` may be kept.
/// `lastPriority` is the highest number. REQUIRES: there are numbers for all rows together.
RuleOrder orderOf(std::span<const PlacedRule> rows, const std::vector<bool>& usable,
                  std::span<const Rule> wanted, std::uint32_t lastPriority);

}  // namespace Policy
