#include "Drift/IndexWord.h"

namespace Drift {
namespace {

/// The change of the check for flipped content bits. CRCs are linear, so it depends only on the
/// flipped bits.
constexpr Word syndrome(Word flipped) {
  const auto crc = [](Word content) {
    return ~Impl::crc32cStep(Impl::crc32cStep(Impl::crc32cStep(~0U, content), 0), 0) & 0xffff;
  };
  return crc(flipped) ^ crc(0);
}

/// Whether every flip of one or two bits of an index word, in content or check, is detected.
constexpr bool noticesTwoFlips() {
  for (int i = 0; i < 48; ++i) {
    const Word one = syndrome(Word{1} << i);
    if (one == 0 || (one & (one - 1)) == 0) return false;
    for (int j = 0; j < i; ++j) {
      if ((one ^ syndrome(Word{1} << j)) == 0) return false;
    }
  }
  return true;
}
static_assert(noticesTwoFlips());

}  // namespace
}  // namespace Drift
