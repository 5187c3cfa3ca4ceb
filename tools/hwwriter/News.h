#pragma once

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace HwWriter {

/// What the program tells: a line of text for people on standard output, or a line of JSON with
/// `"event"` in it. Warnings go to standard error in any case.
class News {
 public:
  explicit News(bool json) : json_(json) {}

  void tell(const char* event, const std::string& text, nlohmann::ordered_json facts) const;
  /// The same warning is given once in a row.
  void warn(const std::string& text) const;

 private:
  bool json_;
  mutable std::string lastWarning_;
};

}  // namespace HwWriter
