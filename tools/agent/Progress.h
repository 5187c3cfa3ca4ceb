#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace Agent {

/// Shows how far a long piece of work is: a bar on a terminal, a line a second elsewhere. Short
/// work shows nothing.
class Progress {
 public:
  /// `title` is what is being done, `total` how many rows it is about.
  Progress(std::string title, std::size_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// So many rows are done. Cheap while it is not time to show it.
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
  /// The count that was shown last.
  std::size_t told_ = 0;
  Clock::time_point next_;
};

}  // namespace Agent
