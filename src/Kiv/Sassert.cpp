#include "Kiv/Sassert.h"

#include <fmt/format.h>
#include <unistd.h>

#include <string>

#include "Fenrik/Assert.h"
#include "Kiv/LineSink.h"

namespace Kiv {

SassertHelper::SassertHelper(const char* expression) : expression_(expression) {}

SassertHelper::~SassertHelper() {
  lastLineWrite(STDERR_FILENO, fmt::format("{} (because {} does not hold)\n",
                                           withoutControls(stream_.str()), expression_));
}

void Impl::sassertFail(const char* expression, const char* file, unsigned line,
                       const char* function) noexcept {
  std::string text = "\"";
  for (const char* c = expression; *c != '\0'; ++c) {
    if (*c == '"' || *c == '\\') text += '\\';
    text += *c;
  }
  text += "\" == nullptr";
  __assert_fail(text.c_str(), file, line, function);
}

}  // namespace Kiv
