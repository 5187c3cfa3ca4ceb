#pragma once

#include <functional>
#include <stdexcept>

#include "agent/Progress.h"
#include "agent/Tables.h"
#include "policy/Plan.h"

namespace Agent {

/// A row could not be stored. Nothing that follows it in the plan has been.
class RowRejected final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The time that was given is over.
class TimeOut final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Carries plans out: queues their steps with what they depend on, a bounded number at a time, and
/// pumps until all are committed. The hardware may be behind, by any length.
///
/// I1. No key is touched again before the hardware has reported the last operation on it. A plan
///     counts on its order for each row, and a hardware writer that lost its place in the log takes
///     rows from the configuration, where only the newest value of a key is left.
///
/// Threads: the table thread.
class Programmer {
 public:
  /// `ends` is asked now and then whether the agent is to end; `rate` limits the rows a second, 0
  /// is no limit.
  Programmer(Tables& tables, std::function<bool()> ends, unsigned rate)
      : tables_(tables), ends_(std::move(ends)), rate_(rate) {}

  /// False if the agent is to end: the plan is then done in part, and a later plan continues it.
  /// Throws `RowRejected`.
  bool carryOut(Unit& unit, const Policy::Plan& plan);

 private:
  class Run;

  Tables& tables_;
  std::function<bool()> ends_;
  unsigned rate_;
};

}  // namespace Agent
