#pragma once

#include <functional>
#include <stdexcept>

#include "agent/Progress.h"
#include "agent/Rejection.h"
#include "agent/Tables.h"
#include "policy/Plan.h"

namespace Agent {

/// The permitted time has elapsed.
class TimeOut final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Carries out plans: queues their steps with their dependencies, a limited number at a time, and
/// pumps until all are committed. The hardware may lag behind arbitrarily.
///
/// I1. A key is not changed again before the hardware has reported its last operation. Plans rely
///     on their order for each row, but a hardware writer that has lost its place in the log reads
///     rows from the configuration, which has only the newest value of a key.
///
/// Threads: the table thread.
class Programmer {
 public:
  /// `ends` is called from time to time and returns whether to stop; `rate` limits rows per second,
  /// 0 means no limit.
  Programmer(Tables& tables, std::function<bool()> ends, unsigned rate)
      : tables_(tables), ends_(std::move(ends)), rate_(rate) {}

  /// False if stopped: the plan is then partly carried out, and a later plan continues it. Throws
  /// `RowRejected`.
  bool carryOut(Unit& unit, const Policy::Plan& plan);

 private:
  class Run;

  Tables& tables_;
  std::function<bool()> ends_;
  unsigned rate_;
};

}  // namespace Agent
