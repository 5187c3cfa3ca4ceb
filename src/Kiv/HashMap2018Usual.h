#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "Fenrik/Export.h"
#include "Kiv/HashMap2018Bucket.h"
#include "Kiv/HashMap2018Words.h"

/// Opening and closing a slot of a bucket of usual capacity without a branch on how much there is
/// to move: everything is read, moved by one slot or not as a mask says, and written back. The
/// number of slots behind a random index is as random, and a copy of just those was measured to
/// mispredict its length twice for each change.
///
/// Sixteen elements are moved. Of words the last one is the header, which the caller writes anew;
/// of nodes of eight bytes it is the rest of the bucket's last cache line. What is in empty slots
/// does not matter.
namespace Kiv::Impl {

inline constexpr unsigned kUsualCapacity = HashMap2018BucketLink::kUsualCapacity;
static_assert(kUsualCapacity + 1 == kWordsPerStep);

#if defined(__SSE2__) && !defined(KIV_HASHMAP_PLAIN_WORDS)

/// Sixteen lanes of zeros, then of ones, of the width of `Element`: what lies 16 - n lanes from the
/// start is a mask of the lanes from n on.
template <class Element>
struct LaneMasks {
  alignas(16) Element lanes[32];
  constexpr LaneMasks() : lanes() {
    for (int i = 16; i < 32; ++i) lanes[i] = static_cast<Element>(~Element{0});
  }
};
template <class Element>
inline constexpr LaneMasks<Element> kLaneMasks;

/// `from` where the mask is set, `*to` elsewhere, goes to `*to`.
[[gnu::always_inline]] inline void replaceLanes(__m128i* to, __m128i from,
                                                const void* mask) noexcept {
  const __m128i lanes = _mm_loadu_si128(static_cast<const __m128i*>(mask));
  *to = _mm_xor_si128(_mm_and_si128(_mm_xor_si128(from, *to), lanes), *to);
}

/// Calls `step` with the constants 0 to `count` - 1: a loop that the compiler surely unrolls.
template <int count, class Step>
[[gnu::always_inline]] inline void unrolled(Step step) noexcept {
  [&]<int... i>(std::integer_sequence<int, i...>) __attribute__((always_inline)) {
    (step(std::integral_constant<int, i>()), ...);
  }
  (std::make_integer_sequence<int, count>());
}

/// Moves the 16 elements of `Element`, four or eight bytes wide, from `index` on up by one.
template <class Element>
[[gnu::always_inline]] inline void openElement(void* elements, unsigned index) noexcept {
  constexpr int perVector = 16 / sizeof(Element);
  constexpr int vectors = 16 / perVector;
  auto* const all = static_cast<__m128i*>(elements);
  const Element* const masks = kLaneMasks<Element>.lanes + 15 - index;
  unrolled<vectors>([&](auto step) __attribute__((always_inline)) {
    constexpr int i = vectors - 1 - step;
    const auto* const below = static_cast<Element*>(elements) + i * perVector - 1;
    const __m128i moved =
        i != 0 ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(i != 0 ? below : nullptr))
               : _mm_slli_si128(all[0], sizeof(Element));
    replaceLanes(all + i, moved, masks + i * perVector);
  });
}

/// Moves those behind `index` down by one. What becomes the last one is not told.
template <class Element>
[[gnu::always_inline]] inline void closeElement(void* elements, unsigned index) noexcept {
  constexpr int perVector = 16 / sizeof(Element);
  constexpr int vectors = 16 / perVector;
  auto* const all = static_cast<__m128i*>(elements);
  const Element* const masks = kLaneMasks<Element>.lanes + 16 - index;
  unrolled<vectors>([&](auto step) __attribute__((always_inline)) {
    constexpr int i = step;
    constexpr bool last = i == vectors - 1;
    const auto* const above = static_cast<Element*>(elements) + i * perVector + 1;
    const __m128i moved =
        !last ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(last ? nullptr : above))
              : _mm_srli_si128(all[i], sizeof(Element));
    replaceLanes(all + i, moved, masks + i * perVector);
  });
}

#else

template <class Element>
inline void openElement(void* elements, unsigned index) noexcept {
  Element* const gap = static_cast<Element*>(elements) + index;
  std::memmove(gap + 1, gap, sizeof(Element) * (kUsualCapacity - index));
}

template <class Element>
inline void closeElement(void* elements, unsigned index) noexcept {
  Element* const gap = static_cast<Element*>(elements) + index;
  std::memmove(gap, gap + 1, sizeof(Element) * (kUsualCapacity - index));
}

#endif

/// Words and nodes at once, for the nodes of eight bytes that most maps have.
///
/// By vectors of 32 bytes where the processor has them: of an erase and an insert a third of the
/// time was saved, which is why they are worth a call that is not inlined. By vectors of 64 bytes
/// it was no faster.
struct QUARNBASTIL_EXPORT UsualSlots {
  /// Makes room for a slot at `index` of the bucket that begins at `words`.
  static void open(std::uint32_t* words, unsigned index) noexcept;
  /// Moves what is behind the slot at `index` over it.
  static void close(std::uint32_t* words, unsigned index) noexcept;

  /// Whether the processor has such vectors. A test may clear it: both ways do the same.
  static bool wide_;
};

}  // namespace Kiv::Impl
