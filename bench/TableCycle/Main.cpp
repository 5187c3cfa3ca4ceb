// Reads how many batches of writes are wanted, as a 64-bit number, takes them through a table, and
// answers how many nanoseconds that took. Ends with its input.
#include <unistd.h>

#include <chrono>

#include "OrderedTable/TableFixture.h"

namespace {

using namespace Bench;

/// Few keys: less of the time is spent on waiting for memory, which hides instructions.
constexpr Word kKeys = 1000;

void batch(LoadedTable& loaded) {
  static const Asic::ResponseHandler handler = [](const auto&) {};
  for (unsigned i = 0; i < kBatch; ++i) {
    ++loaded.entry().hopLimit;
    loaded.table().entryWriteWithResponseHandler(loaded.randomKey(), loaded.entry(), nullptr,
                                                 handler);
  }
  loaded.agent().pump(kBatch);
  loaded.report();
  loaded.agent().pump(kBatch);
}

}  // namespace

int main() {
  LoadedTable loaded(kKeys, kLogRecords / 10);
  std::uint64_t batches = 0;
  while (::read(STDIN_FILENO, &batches, sizeof batches) == sizeof batches) {
    const auto begin = std::chrono::steady_clock::now();
    for (std::uint64_t i = 0; i < batches; ++i) batch(loaded);
    const std::chrono::nanoseconds took = std::chrono::steady_clock::now() - begin;
    const auto answer = static_cast<std::uint64_t>(took.count());
    if (::write(STDOUT_FILENO, &answer, sizeof answer) != sizeof answer) return 1;
  }
  return 0;
}
