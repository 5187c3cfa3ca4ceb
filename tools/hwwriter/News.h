#pragma once

#include <fmt/format.h>

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>

namespace HwWriter {

/// Prints the program's reports: lines of text on standard output, or lines of JSON with an
/// `"event"`. Warnings are printed on standard error in both cases.
class News {
 public:
  explicit News(bool json) : json_(json) {}

  void tell(const char* event, const std::string& text, nlohmann::ordered_json facts) const;
  /// Prints a warning; the same one at most once in ten seconds.
  void warn(const std::string& text) const;

 private:
  using Clock = std::chrono::steady_clock;

  bool json_;
  mutable std::map<std::string, Clock::time_point> warned_;
};

}  // namespace HwWriter
