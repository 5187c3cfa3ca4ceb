#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "policy/Rows.h"

namespace Policy {

/// A row of `TcamEntry` and where it lies. Rules are placed in bank 0.
struct PlacedRule {
  std::uint8_t bank = 0;
  std::uint16_t index = 0;
  Rule rule;
  RuleRow row;

  friend bool operator==(const PlacedRule&, const PlacedRule&) = default;
};

/// How the rules that are wanted stand among the rows that are there.
///
/// I1. The priorities rise along the rows that are there, and along the rules that are wanted; no
///     row that goes has the priority of one that comes.
struct RuleOrder {
  static constexpr std::uint32_t kNone = UINT32_MAX;

  /// For each wanted rule: the row that carries it out and stays, or kNone; and its priority.
  std::vector<std::uint32_t> rowOf;
  std::vector<std::uint32_t> priorityOf;
  /// For each row that is there: whether it stays, and its priority, which is another one than it
  /// has only if there was no room somewhere.
  std::vector<bool> stays;
  std::vector<std::uint32_t> rowPriority;
};

/// Keeps as many rows as it can. `rows` rise by priority; only rows of `usable` may stay.
/// `lastPriority` is the highest number; REQUIRES: there are numbers for all rows together.
RuleOrder orderOf(std::span<const PlacedRule> rows, const std::vector<bool>& usable,
                  std::span<const Rule> wanted, std::uint32_t lastPriority);

}  // namespace Policy
