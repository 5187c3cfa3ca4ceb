#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace Agent {

/// Notices that files have changed. It looks at them when it is asked, ten times a second at most:
/// that finds whatever was done to them, a rename, a link or a remount included.
class FileWatch {
 public:
  explicit FileWatch(std::span<const std::string> paths);

  /// True once for each change, when two looks have found the files the same since: what is half
  /// written is not read.
  bool changed();

 private:
  struct Stamp {
    ino_t inode = 0;
    off_t size = -1;
    std::int64_t changed = 0;
    friend bool operator==(const Stamp&, const Stamp&) = default;
  };
  std::vector<Stamp> stamps() const;

  static constexpr std::chrono::milliseconds kPeriod{100};

  std::vector<std::string> paths_;
  std::chrono::steady_clock::time_point next_;
  std::vector<Stamp> taken_;
  std::vector<Stamp> last_;
};

}  // namespace Agent
