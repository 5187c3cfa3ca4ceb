#include "hwwriter/News.h"

#include <cstdio>

namespace HwWriter {

void News::tell(const char* event, const std::string& text, nlohmann::ordered_json facts) const {
  if (json_) {
    nlohmann::ordered_json line{{"event", event}};
    line.update(facts);
    fmt::print("{}\n", line.dump());
  } else {
    fmt::print("{}\n", text);
  }
  std::fflush(stdout);
}

void News::warn(const std::string& text) const {
  if (text == lastWarning_) return;
  lastWarning_ = text;
  fmt::print(stderr, "bastil-hwwriter: {}\n", text);
}

}  // namespace HwWriter
