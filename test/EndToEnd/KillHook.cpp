// For an agent with a point to die at behind each of its stores into shared memory. It dies at the
// store whose number is in BASTIL_DIE_AT_STORE; otherwise it prints at its end how many there were.
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

struct Count {
  std::uint64_t last = 0;
  std::uint64_t stores = 0;

  Count() {
    const char* const text = std::getenv("BASTIL_DIE_AT_STORE");
    if (text != nullptr) last = std::strtoull(text, nullptr, 10);
  }
  ~Count() { std::fprintf(stderr, "stores: %llu\n", static_cast<unsigned long long>(stores)); }
};

}  // namespace

namespace Drift {

void killPoint() noexcept {
  static Count count;
  if (++count.stores == count.last) ::kill(::getpid(), SIGKILL);
}

}  // namespace Drift
