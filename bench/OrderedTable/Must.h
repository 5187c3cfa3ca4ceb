#pragma once

#include <cstdio>
#include <cstdlib>

namespace Bench {

/// A peer that fails is no peer.
inline void must(bool done, const char* what) {
  if (done) return;
  std::fprintf(stderr, "%s failed\n", what);
  std::abort();
}

}  // namespace Bench
