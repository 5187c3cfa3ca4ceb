#include "program/Program.h"

#include <stdio_ext.h>
#include <sys/resource.h>

#include <cstdio>

namespace Program {

std::string versionOf(std::string_view program) {
  return std::string(program) + " " BASTIL_VERSION;
}

bool print(std::string_view text) noexcept {
  const bool written =
      std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
  if (!written) {
    ::__fpurge(stdout);
    std::clearerr(stdout);
  }
  return written;
}

void raiseFileLimit() noexcept {
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace Program
