#pragma once

#include <array>
#include <utility>
#include <vector>

#include "policy/Plan.h"

namespace Policy {

/// The steps of a plan so far. Omits dependencies between the tables that are already implied: a
/// table that waited for a step of the other one has waited for all earlier ones.
class StepList {
 public:
  static constexpr std::size_t kNone = Step::kNone;

  void reserve(std::size_t steps) { steps_.reserve(steps); }
  /// Appends a step that follows all steps of the other table so far.
  std::size_t add(Step step) {
    const std::size_t last = last_[step.onPrefixes() ? 1 : 0];
    return add(std::move(step), last);
  }
  /// Appends a step that follows one step of the other table, or none.
  std::size_t add(Step step, std::size_t after) {
    const unsigned table = step.onPrefixes() ? 0 : 1;
    if (after != kNone && (carried_[table] == kNone || after > carried_[table])) {
      step.after = carried_[table] = after;
    }
    steps_.push_back(std::move(step));
    return last_[table] = steps_.size() - 1;
  }
  std::vector<Step> take() { return std::move(steps_); }

 private:
  std::vector<Step> steps_;
  /// By table: its last step, and the last step of the other table that it waits for.
  std::array<std::size_t, 2> last_{kNone, kNone};
  std::array<std::size_t, 2> carried_{kNone, kNone};
};

}  // namespace Policy
