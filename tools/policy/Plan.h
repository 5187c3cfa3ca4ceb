#pragma once

#include <cstdint>
#include <stdexcept>
#include <variant>
#include <vector>

#include "policy/Input.h"
#include "policy/Rows.h"
#include "policy/RuleOrder.h"

namespace Policy {

/// Content of the tables of one unit.
struct Picture {
  std::vector<PrefixRow> prefixes;
  std::vector<PlacedRule> rules;
  std::vector<ActionRow> actions;
  /// Where the search for a free row starts, so that freed rows are reused last.
  std::uint16_t nextIndex = 0;
};

/// Limits of a unit. REQUIRES: as many labels and priorities as rows.
struct Room {
  /// Rows of a table, including those removed only at the end of a change.
  std::uint32_t rows = 65'536;
  std::uint32_t lastLabel = UINT32_MAX;
  std::uint32_t lastPriority = UINT32_MAX;
};

/// The requested policy does not fit. Nothing may be written.
class CapacityError final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One operation on the prefix table, or on the rule table and, for a redirecting rule, on the
/// table of actions.
struct Step {
  static constexpr std::size_t kNone = SIZE_MAX;

  /// The row to write or remove.
  std::variant<PrefixRow, PlacedRule> row;
  bool removes = false;
  /// Whether an earlier step of the plan has the same key.
  bool again = false;
  /// Whether the rule's action is written before it, or removed after it.
  bool withAction = false;
  /// The step of the other table that must be in hardware before this one; kNone if an earlier step
  /// of the same table already waits for it.
  std::size_t after = kNone;

  bool onPrefixes() const noexcept { return row.index() == 0; }
};

/// The steps from the tables' current content to the requested one. At every moment, in every order
/// allowed by `after` and the order within each table, a packet gets the decision of either the old
/// or the new rules.
struct Plan {
  std::vector<Step> steps;
  /// Actions of rules that keep their rows, to be written before the steps: they were lost.
  std::vector<ActionRow> lostActions;
  /// Actions without a rule, to be removed after the steps.
  std::vector<ActionRow> looseActions;
  /// Numbers of requested rules and prefixes. The prefix table has one more row if 0.0.0.0/0 is not
  /// requested, which gives a label to all other addresses.
  std::size_t rules = 0;
  std::size_t prefixes = 0;
  std::uint16_t nextIndex = 0;

  /// Number of rows written or removed.
  std::size_t rows() const;
};

/// Throws `CapacityError`. Accepts any picture, including that of an interrupted change, and
/// contradictory rows.
Plan planOf(const Picture& picture, const Wanted& wanted, const Room& room = {});

}  // namespace Policy
