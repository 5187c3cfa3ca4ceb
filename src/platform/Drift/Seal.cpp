#include "Drift/Seal.h"

#include "Drift/Crc32c.h"
#include "Drift/SealLoops.h"

namespace Drift {

std::uint32_t crc32c(std::span<const std::byte> bytes) noexcept {
  std::uint32_t crc = ~0U;
  for (const std::byte byte : bytes) crc = Impl::crc32cStep(crc, std::to_integer<Word>(byte), 1);
  return ~crc;
}

namespace Seal {
namespace {

struct PortableStep {
  static Word step(Word crc, Word word) {
    return Drift::Impl::crc32cStep(static_cast<std::uint32_t>(crc), word);
  }
};

}  // namespace

namespace Impl {
#ifdef __x86_64__
extern const Loops kSse42Loops;
#endif
}  // namespace Impl

using Portable = Impl::LoopsOver<PortableStep>;
constinit const Loops kPortableLoops{Portable::copyOut, Portable::copyIn, Portable::words,
                                     "portable"};

namespace {

const Loops& bestLoops() {
#ifdef __x86_64__
  __builtin_cpu_init();
  if (__builtin_cpu_supports("sse4.2")) return Impl::kSse42Loops;
#endif
  return kPortableLoops;
}

}  // namespace

const Loops& kLoops = bestLoops();

}  // namespace Seal
}  // namespace Drift
