#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "Fenrik/Export.h"
#include "Kiv/HashMap2018Bucket.h"
#include "Kiv/HashMap2018Words.h"

/// Opens and closes a slot of a bucket of default capacity without a branch on the number of
/// elements to move: all elements are read, moved by one slot or kept as a mask says, and written
/// back. The number of elements after a random index is random, and copying exactly those was
/// measured to mispredict twice per change.
///
/// Sixteen elements are moved. The last word is the header, which the caller rewrites; the last
/// eight-byte node is the rest of the bucket's last cache line. The content of empty slots is
/// irrelevant.
namespace Kiv::Impl {

inline constexpr unsigned kUsualCapacity = HashMap2018BucketLink::kUsualCapacity;
static_assert(kUsualCapacity + 1 == kWordsPerStep);

#if defined(__SSE2__) && !defined(KIV_HASHMAP_PLAIN_WORDS)

/// Sixteen lanes of zeros followed by sixteen of ones, of the width of `Element`: loading from lane
/// 16 - n yields a mask of the lanes from n on.
template <class Element>
struct LaneMasks {
  alignas(16) Element lanes[32];
  constexpr LaneMasks() : lanes() {
    for (int i = 16; i < 32; ++i) lanes[i] = static_cast<Element>(~Element{0});
  }
};
template <class Element>
inline constexpr LaneMasks<Element> kLaneMasks;

/// Stores `from` to `*to` where the mask is set, and leaves the rest.
[[gnu::always_inline]] inline void replaceLanes(__m128i* to, __m128i from,
                                                const void* mask) noexcept {
  const __m128i lanes = _mm_loadu_si128(static_cast<const __m128i*>(mask));
  *to = _mm_xor_si128(_mm_and_si128(_mm_xor_si128(from, *to), lanes), *to);
}

/// Calls `step` with the constants 0 to `count` - 1: a loop that is certain to be unrolled.
template <int count, class Step>
[[gnu::always_inline]] inline void unrolled(Step step) noexcept {
  [&]<int... i>(std::integer_sequence<int, i...>) __attribute__((always_inline)) {
    (step(std::integral_constant<int, i>()), ...);
  }
  (std::make_integer_sequence<int, count>());
}

/// Moves the elements from `index` on up by one. `Element` is four or eight bytes wide; there are
/// 16.
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

/// Moves the elements after `index` down by one. The last one is undefined afterwards.
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

/// Moves words and nodes together, for nodes of eight bytes, which most maps have.
///
/// Uses vectors of 32 bytes if the processor supports them: this saved a third of the time of an
/// erase and an insert, and outweighs the call. Vectors of 64 bytes were not faster.
struct QUARNBASTIL_EXPORT UsualSlots {
  /// Opens a slot at `index` of the bucket that starts at `words`.
  static void open(std::uint32_t* words, unsigned index) noexcept;
  /// Closes the slot at `index`.
  static void close(std::uint32_t* words, unsigned index) noexcept;

  /// Whether the processor supports such vectors. Tests may clear it; the results are the same.
  static bool wide_;
};

}  // namespace Kiv::Impl
