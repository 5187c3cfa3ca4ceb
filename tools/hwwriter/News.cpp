#include "hwwriter/News.h"

#include <cstdio>

#include "program/Program.h"

namespace HwWriter {

void News::tell(const char* event, const std::string& text, nlohmann::ordered_json facts) const {
  if (json_) {
    nlohmann::ordered_json line{{"event", event}};
    line.update(facts);
    Program::print(line.dump() + '\n');
  } else {
    Program::print(text + '\n');
  }
}

void News::warn(const std::string& text) const {
  constexpr std::chrono::seconds kInterval(10);
  // Maximum number of remembered texts; a flood of different warnings is cut off here.
  constexpr std::size_t kRemembered = 64;
  const auto now = Clock::now();
  std::erase_if(warned_, [&](const auto& warned) { return now - warned.second >= kInterval; });
  if (warned_.size() >= kRemembered || !warned_.emplace(text, now).second) return;
  fmt::print(stderr, "bastil-hwwriter: {}\n", text);
}

}  // namespace HwWriter
