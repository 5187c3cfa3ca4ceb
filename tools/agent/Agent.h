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
  /// Applies files that are finished while the agent runs.
  bool watch = false;
  /// A file may go from some rules to none.
  bool allowEmpty = false;
  /// Empties the tables, in order, before anything is written.
  bool reset = false;
  /// Ends when all is committed.
  bool once = false;
  /// Seconds after which `once` gives up; 0: never.
  double timeout = 0;
  /// Rows a second at most; 0: as fast as it goes.
  unsigned rate = 0;
};

/// Brings the files' policy into the tables of some units, and serves them. Its lines on standard
/// output:
///
///     programmed: 942 rules, 368 prefixes, unit 0; 0 rows written, 4.1 ms after reading began
///     acknowledged: the hardware has everything, 15.0 ms after reading began
///
/// the first line for each unit when its rows are committed, the second one when the hardware
/// writer has reported them all.
class Agent {
 public:
  /// What others ask of a running agent, by signals.
  struct Requests {
    std::function<bool()> end;
    /// Read the files again; true once for each request.
    std::function<bool()> reload;
  };

  /// Reads the files before it touches the tables. Throws `Policy::InputError` and
  /// `Fenrik::Exception`.
  Agent(Options options, Requests requests);

  /// Until the agent is to end. Throws `Policy::CapacityError` with nothing written, and
  /// `RowRejected`.
  void run();

 private:
  using Clock = std::chrono::steady_clock;

  bool ends() const;
  void checkTime() const;
  bool emptyOthers();
  std::vector<Policy::Plan> plansOf(bool fromNothing);
  bool program(const std::vector<Policy::Plan>& plans);
  bool carryOut(unsigned unit, const Policy::Plan& plan);
  void serve();
  bool reload(const std::set<std::size_t>& files);
  void take(const std::set<std::size_t>& files);
  void refuseEmpty(bool becomesEmpty, const std::string& what) const;
  bool followRelaunch();
  bool relaunched();
  void tellAcknowledged();

  Options options_;
  Requests requests_;
  Clock::time_point started_ = Clock::now();
  /// When reading began, the last time.
  Clock::time_point began_ = started_;
  FileWatch watch_;
  /// Each file as it was when it was last finished.
  std::vector<Policy::Content> contents_;
  Policy::Wanted wanted_;
  Tables tables_;
  bool acknowledged_ = false;
};

}  // namespace Agent
