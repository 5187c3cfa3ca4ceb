#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace HwWriter {

/// What the command line asks for.
struct Options {
  std::string directory;
  /// Rows a second; 0: as fast as it goes.
  std::uint64_t rate = 0;
  /// What a batch takes on its way to the chip, before it is reported.
  std::chrono::microseconds delay{0};
  /// Rows of a table that are programmed before they are reported.
  unsigned batch = 256;
  /// Packets at each rest; 0: none are drawn at all.
  std::uint64_t classify = 0;
  unsigned seed = 1;
  std::vector<std::string> rules;
  bool json = false;
  bool once = false;
};

}  // namespace HwWriter
