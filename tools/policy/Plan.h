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
  /// Where the search for a free row begins: freshly removed rows are reused last.
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
  /// The step of the other table that the hardware must have carried out before this one; kNone
  /// if an earlier step of the same table waits for it already.
  std::size_t after = kNone;

  bool onPrefixes() const noexcept { return row.index() == 0; }
};

/// The steps from what the tables hold to what is wanted. At every moment, in every order that
/// `after` and the order within each table allow, a packet meets the decision of the old rules or
/// of the new ones.
struct Plan {
  std::vector<Step> steps;
  /// Rules and prefixes that were wanted. The prefix table has one row more if 0.0.0.0/0 is not
  /// among them: it gives a label to addresses that no other prefix holds.
  std::size_t rules = 0;
  std::size_t prefixes = 0;
  std::uint16_t nextIndex = 0;
};

/// Throws `CapacityError`. Takes any picture: that of a change that was cut short, and rows that
/// contradict each other.
Plan planOf(const Picture& picture, const Wanted& wanted, const Room& room = {});

}  // namespace Policy
