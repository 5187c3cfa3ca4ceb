// Compiled with SSE4.2; called only if the processor supports it.
#ifdef __x86_64__

#include <nmmintrin.h>

#include "Drift/SealLoops.h"

namespace Drift::Seal::Impl {
namespace {

struct Sse42Step {
  static Word step(Word crc, Word word) { return _mm_crc32_u64(crc, word); }
};

}  // namespace

using Sse42 = LoopsOver<Sse42Step>;
extern constinit const Loops kSse42Loops;
constinit const Loops kSse42Loops{Sse42::copyOut, Sse42::copyIn, Sse42::words, "sse4.2"};

}  // namespace Drift::Seal::Impl

#endif
