#include "Blipline/RingOption.h"

#include <errno.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <string>

#include "Blipline/RingFormat.h"
#include "Blipline/TraceHandle.h"
#include "Fenrik/Format.h"
#include "Kiv/LineSink.h"

namespace Blipline {
namespace {

constexpr std::size_t kKib = 1024;

TraceHandle::Options optionsOf(std::string_view option) {
  TraceHandle::Options options{std::string(option), ::program_invocation_short_name};
  options.multiThreaded = true;
  const std::size_t colon = option.rfind(':');
  if (colon != std::string_view::npos) {
    const std::string_view digits = option.substr(colon + 1);
    std::size_t kib = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), kib);
    if (error != std::errc() || end != digits.data() + digits.size() ||
        kib > kRingBytesMax / kKib) {
      throw TraceFileException(Fenrik::formatString(
          "ring trace \"{}\": expected a number of KiB up to {} behind ':', found \"{}\"", option,
          kRingBytesMax / kKib, digits));
    }
    options.directory.resize(colon);
    options.ringBytes = kib * kKib;
  }
  return options;
}

/// Applies the environment's option while the library is loaded, before the first trace site runs.
[[gnu::constructor]] void environmentFollow() {
  const char* const option = ::secure_getenv("BASTIL_RING");
  if (option == nullptr) return;
  try {
    ringOptionIs(option);
  } catch (const std::exception& refused) {
    Kiv::lastLineWrite(STDERR_FILENO,
                       Kiv::withoutControls(std::string("BASTIL_RING: ") + refused.what()) + "\n");
  }
}

}  // namespace

void ringOptionIs(std::string_view option) {
  if (defaultBliplineHandle.load() != nullptr) {
    throw TraceFileException(
        Fenrik::formatString("ring trace \"{}\": there is a ring trace already", option));
  }
  // Never destroyed, because threads record until the process ends.
  defaultBliplineHandle = new TraceHandle(optionsOf(option));
}

}  // namespace Blipline
