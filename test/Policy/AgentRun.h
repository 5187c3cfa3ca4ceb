#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "policy/Plan.h"

namespace PolicyTest {

/// A program, with what it prints.
class Running {
 public:
  explicit Running(std::vector<std::string> words);
  /// Kills it if it still runs.
  ~Running();
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  /// Reads on until a line holds the text, and returns the line; empty if the program ends before,
  /// or half a minute is over.
  std::string await(const std::string& text);
  /// Everything from here to its end.
  std::string rest();
  void signal(int number) const;
  /// Waits for the end: the exit status, or minus the signal.
  int status();

 private:
  std::optional<std::string> line();

  int pid_ = -1;
  int out_ = -1;
  std::string read_;
};

/// The agent's program over a directory.
class AgentRun : public Running {
 public:
  AgentRun(const std::string& directory, const std::vector<std::string>& arguments);
};

/// A hardware that takes everything that is announced at once and reports it, in a process of its
/// own as long as the object lives.
class ReportingHardware {
 public:
  explicit ReportingHardware(const std::string& directory);
  ~ReportingHardware();
  ReportingHardware(const ReportingHardware&) = delete;
  ReportingHardware& operator=(const ReportingHardware&) = delete;

 private:
  int pid_ = -1;
};

/// What another process finds in the directory: the rows of a unit, those in deletion left out.
Policy::Picture pictureIn(const std::string& directory, unsigned unit);
/// How far the logs of both tables go; 0 for one that is not there.
std::array<std::uint64_t, 2> versionsIn(const std::string& directory);

}  // namespace PolicyTest
