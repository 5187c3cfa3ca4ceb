#pragma once

#include <functional>
#include <stdexcept>

#include "agent/Progress.h"
#include "agent/Tables.h"
#include "policy/Plan.h"

namespace Agent {

/// A row could not be stored. Nothing that comes behind it in the plan has been.
class RowRejected final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Carries plans out: queues their steps with what they depend on, a bounded number at a time, and
/// pumps until all are committed. The hardware may be behind, by any length.
///
/// I1. The hardware may take a row's value from the configuration, where a later one may stand
///     already. So no key is touched again before the hardware has what was done to it last; the
///     order of a plan is its order in the hardware then.
///
/// Threads: the table thread.
class Programmer {
 public:
  /// `ends` is asked now and then whether the agent is to end; `rate` is the number of rows a
  /// second at most, 0 for as many as can be.
  Programmer(Tables& tables, std::function<bool()> ends, unsigned rate)
      : tables_(tables), ends_(std::move(ends)), rate_(rate) {}

  /// False if the agent is to end: then the plan is done in part, and a later one goes on from
  /// there. Throws `RowRejected`.
  bool carryOut(Unit& unit, const Policy::Plan& plan);

 private:
  class Run;

  Tables& tables_;
  std::function<bool()> ends_;
  unsigned rate_;
};

}  // namespace Agent
