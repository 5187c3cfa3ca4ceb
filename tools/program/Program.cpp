#include "program/Program.h"

#include <stdio_ext.h>
#include <sys/resource.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace Program {

std::string versionOf(std::string_view program) {
  return std::string(program) + " " BASTIL_VERSION;
}

bool print(std::string_view text) noexcept {
  const bool written =
      std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
  if (written) return true;
  const int error = errno;
  ::__fpurge(stdout);
  std::clearerr(stdout);
  errno = error;
  return false;
}

std::string positiveNumber(const std::string& text) {
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  const bool good = !text.empty() && *end == '\0' && number > 0 && std::isfinite(number);
  return good ? "" : "\"" + text + "\" is no number above 0";
}

void raiseFileLimit() noexcept {
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace Program
