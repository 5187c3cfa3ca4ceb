#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace Agent {

/// Shows the progress of a long operation: a bar on a terminal, otherwise a line per second. Short
/// operations show nothing.
class Progress {
 public:
  /// `title` names the operation; `total` is its number of rows.
  Progress(std::string title, std::size_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Reports the number of rows done. Cheap unless the display is due.
  void at(std::size_t done);
  /// Prints a line above the bar.
  void say(const std::string& text);

 private:
  using Clock = std::chrono::steady_clock;

  void show(std::size_t done);
  void clear();

  std::string title_;
  std::size_t total_;
  bool terminal_;
  bool shown_ = false;
  /// Number shown last.
  std::size_t told_ = 0;
  /// Time of the next display.
  Clock::time_point next_;
};

}  // namespace Agent
