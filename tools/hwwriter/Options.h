#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace HwWriter {

/// The command line.
struct Options {
  std::string directory;
  /// Rows a second; 0: as fast as it goes.
  std::uint64_t rate = 0;
  /// Time that a batch takes on its way to the chip, before it is reported.
  std::chrono::microseconds delay{0};
  /// Rows of a table that are programmed before they are reported.
  unsigned batch = 256;
  /// Packets at each rest; 0: none are drawn at all.
  std::uint64_t classify = 0;
  unsigned seed = 1;
  std::vector<std::string> rules;
  bool json = false;
  bool once = false;
  /// Seconds after which `once` gives up; 0: as long as something moves.
  double timeout = 0;
};

}  // namespace HwWriter
