#include "Drift/IndexWord.h"

namespace Drift {
namespace {

/// What a change of the content's bits does to the check: CRCs are linear, so the change of the
/// check depends on the flipped bits alone.
constexpr Word syndrome(Word flipped) {
  const auto crc = [](Word content) {
    return ~Impl::crc32cStep(Impl::crc32cStep(Impl::crc32cStep(~0U, content), 0), 0) & 0xffff;
  };
  return crc(flipped) ^ crc(0);
}

/// Any one or two flipped bits of an index word are noticed, whether they lie in its content, in
/// its check or one in each.
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
