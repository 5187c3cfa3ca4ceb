#pragma once

#include <fmt/format.h>

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>

namespace HwWriter {

/// What the program reports: a line of text on standard output, or a line of JSON with `"event"` in
/// it. Warnings go to standard error in either case.
class News {
 public:
  explicit News(bool json) : json_(json) {}

  void tell(const char* event, const std::string& text, nlohmann::ordered_json facts) const;
  /// The same warning is printed once in ten seconds.
  void warn(const std::string& text) const;

 private:
  using Clock = std::chrono::steady_clock;

  bool json_;
  mutable std::map<std::string, Clock::time_point> warned_;
};

}  // namespace HwWriter
