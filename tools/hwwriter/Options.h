#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace HwWriter {

/// The command line.
struct Options {
  /// Directory of the agent's tables.
  std::string directory;
  /// Rows per second; 0: unlimited.
  std::uint64_t rate = 0;
  /// Duration of a batch's way to the chip, before it is reported.
  std::chrono::microseconds delay{0};
  /// Rows of a table programmed before they are reported.
  unsigned batch = 256;
  /// Packets classified per rest; 0: none.
  std::uint64_t classify = 0;
  /// Seed of the packets.
  unsigned seed = 1;
  /// Rule files that packets are compared with.
  std::vector<std::string> rules;
  /// Rule files that redirect, and prefix files, which belong to each of the rule files: those
  /// before its rules, these after them.
  std::vector<std::string> redirects;
  std::vector<std::string> prefixes;
  /// Next-hop files, of which one at a time applies.
  std::vector<std::string> nextHops;
  /// Print JSON.
  bool json = false;
  /// Exit when everything announced is programmed.
  bool once = false;
  /// Seconds after which `once` gives up; 0: as long as there is progress.
  double timeout = 0;
};

}  // namespace HwWriter
