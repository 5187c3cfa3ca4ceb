#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "agent/FileWatch.h"
#include "agent/Programmer.h"
#include "agent/Tables.h"
#include "policy/Input.h"

namespace Agent {

struct Options {
  std::string directory;
  std::vector<unsigned> units{0};
  std::vector<std::string> files;
  /// Applies what changes in the files.
  bool watch = false;
  /// Empties the tables, in order, before anything is written.
  bool reset = false;
  /// Ends when all is committed.
  bool once = false;
  /// Rows a second at most; 0: as fast as it goes.
  unsigned rate = 0;
};

/// Brings what the files say into the tables of some units, and serves them. What it tells on
/// stdout:
///
///     programmed: 942 rules, 368 prefixes, unit 0; 0 rows written, 4.1 ms after reading began
///     acknowledged: the hardware has everything, 15.0 ms after reading began
///
/// the first line for each unit when its rows are committed, the second one when the hardware
/// writer has reported them all.
class Agent {
 public:
  /// `ends` is asked now and then whether the agent is to end. Reads the files before it touches
  /// the tables. Throws `Policy::InputError` and `Fenrik::Exception`.
  Agent(Options options, std::function<bool()> ends);

  /// Until the agent is to end. Throws `Policy::CapacityError` with nothing written, and
  /// `RowRejected`.
  void run();

 private:
  using Clock = std::chrono::steady_clock;

  bool emptyOthers();
  std::vector<Policy::Plan> plansOf(bool fromNothing);
  bool program(const std::vector<Policy::Plan>& plans);
  bool carryOut(unsigned unit, const Policy::Plan& plan);
  void serve();
  bool reload();
  void tellAcknowledged();

  Options options_;
  std::function<bool()> ends_;
  Clock::time_point began_ = Clock::now();
  FileWatch watch_;
  Policy::Wanted wanted_;
  Tables tables_;
  bool acknowledged_ = false;
};

}  // namespace Agent
