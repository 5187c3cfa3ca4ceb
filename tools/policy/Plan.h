#pragma once

#include <cstdint>
#include <stdexcept>
#include <variant>
#include <vector>

#include "policy/Input.h"
#include "policy/Rows.h"
#include "policy/RuleOrder.h"

namespace Policy {

/// What the two tables of one unit hold.
struct Picture {
  std::vector<PrefixRow> prefixes;
  std::vector<PlacedRule> rules;
  /// Where the search for a free row begins: rows that were removed a moment ago are the last ones
  /// to be taken again.
  std::uint16_t nextIndex = 0;
};

/// What a unit has room for. REQUIRES: numbers for as many labels and priorities as rows.
struct Room {
  /// Rows of a table, those that go at the end of a change included.
  std::uint32_t rows = 65'536;
  std::uint32_t lastLabel = UINT32_MAX;
  std::uint32_t lastPriority = UINT32_MAX;
};

/// What is wanted does not fit. Nothing is to be written.
class CapacityError final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One operation on one of the two tables.
struct Step {
  static constexpr std::size_t kNone = SIZE_MAX;

  std::variant<PrefixRow, PlacedRule> row;
  bool removes = false;
  /// An earlier step of the plan is on the same key.
  bool again = false;
  /// The step of the other table which the hardware must have carried out before this one; kNone
  /// where an earlier step of the same table has seen to it.
  std::size_t after = kNone;

  bool onPrefixes() const noexcept { return row.index() == 0; }
};

/// The way from what the tables hold to what is wanted. At every moment of it, whatever the
/// hardware has carried out of it in the order that `after` and the order within each table leave
/// open, a packet meets the decision of the rules before or of those behind.
struct Plan {
  std::vector<Step> steps;
  /// Rows when it is done.
  std::size_t rules = 0;
  std::size_t prefixes = 0;
  std::uint16_t nextIndex = 0;
};

/// Throws `CapacityError`. A picture of any origin will do: one that a change left half done, as
/// well as rows that contradict each other.
Plan planOf(const Picture& picture, const Wanted& wanted, const Room& room = {});

}  // namespace Policy
