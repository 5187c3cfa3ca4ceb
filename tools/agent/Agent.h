#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/FileWatch.h"
#include "agent/Programmer.h"
#include "agent/Tables.h"
#include "policy/Input.h"

namespace Agent {

struct Options {
  /// Directory of the tables.
  std::string directory;
  /// Units to program.
  std::vector<unsigned> units{0};
  /// Rule and prefix files, in order.
  std::vector<std::string> files;
  /// Files of rules that redirect, before the others; and the file of the next hops, or empty.
  std::vector<std::string> redirects;
  std::string nextHops;
  NextHops::Options nextHopOptions;
  /// Apply files that are completed while the agent runs.
  bool watch = false;
  /// Accept a file that changes from some rules to none.
  bool allowEmpty = false;
  /// Empty the tables, in order, before writing anything.
  bool reset = false;
  /// Exit when everything is committed.
  bool once = false;
  /// Seconds after which `once` gives up; 0: never.
  double timeout = 0;
  /// Maximum rows per second; 0: unlimited.
  unsigned rate = 0;
};

/// Programs the files' policy into the tables of some units, and runs their loop. It prints on
/// standard output:
///
///     programmed: 942 rules, 368 prefixes, unit 0; 0 rows written, 4.1 ms after reading began
///     acknowledged: the hardware has everything, 15.0 ms after reading began
///
/// preceded, if there are next hops, by
///
///     next hops: 118, 2 changed, 1 down; 3 rows written
///
/// the "programmed" line for each unit when its rows are committed, the second when the hardware
/// writer has reported all of them.
class Agent {
 public:
  /// Requests made to a running agent by signals.
  struct Requests {
    std::function<bool()> end;
    /// Whether to read the files again; true once per request.
    std::function<bool()> reload;
  };

  /// Reads the files before touching the tables. Throws `Policy::InputError` and
  /// `Fenrik::Exception`.
  Agent(Options options, Requests requests);

  /// Runs until the agent shall end. Throws `Policy::CapacityError`, with nothing written, and
  /// `RowRejected`.
  void run();

 private:
  using Clock = std::chrono::steady_clock;

  bool ends() const;
  void checkTime() const;
  bool emptyOthers();
  std::vector<Policy::Plan> plansOf(bool fromNothing);
  bool program(const std::vector<Policy::Plan>& plans);
  bool programNextHops();
  bool pumpFor(std::size_t rows);
  void tidy();
  void note();
  void unnote();
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
  /// Start of the last reading of files.
  Clock::time_point began_ = started_;
  /// Everything that is read, in the order of its priority.
  struct Source {
    std::string path;
    Policy::FileKind kind;
  };
  static std::vector<Source> sourcesOf(const Options& options);
  static std::vector<std::string> pathsOf(const std::vector<Source>& sources);

  std::vector<Source> sources_;
  FileWatch watch_;
  /// Content of each source at its last completion.
  std::vector<Policy::Content> contents_;
  Policy::Wanted wanted_;
  Tables tables_;
  bool acknowledged_ = false;
  /// Number of unreported records at the last note.
  std::optional<std::uint64_t> noted_;
};

}  // namespace Agent
