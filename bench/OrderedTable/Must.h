#pragma once

#include <cstdio>
#include <cstdlib>

namespace Bench {

/// Aborts if a step of a peer failed, since its times would be meaningless.
inline void must(bool done, const char* what) {
  if (done) return;
  std::fprintf(stderr, "%s failed\n", what);
  std::abort();
}

}  // namespace Bench
