#include "Kiv/HashMap2018Usual.h"

#if defined(__x86_64__) && !defined(KIV_HASHMAP_PLAIN_WORDS)
#include <immintrin.h>
#endif

namespace Kiv::Impl {

#if defined(__x86_64__) && !defined(KIV_HASHMAP_PLAIN_WORDS)
namespace {

/// Elements per vector of 32 bytes.
constexpr int kWords = 8;
constexpr int kNodes = 4;

[[gnu::target("avx2"), gnu::always_inline]] inline __m256i load(const void* from) noexcept {
  return _mm256_loadu_si256(static_cast<const __m256i*>(from));
}

/// Stores the lanes of `from` whose number is above `gap`; the first lane has the number `first`.
template <class Element>
[[gnu::target("avx2"), gnu::always_inline]] inline void replaceAbove(Element* to, __m256i from,
                                                                     int first,
                                                                     __m256i gap) noexcept {
  __m256i mask;
  if constexpr (sizeof(Element) == 4) {
    const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    mask = _mm256_cmpgt_epi32(_mm256_add_epi32(lanes, _mm256_set1_epi32(first)), gap);
  } else {
    const __m256i lanes = _mm256_setr_epi64x(0, 1, 2, 3);
    mask = _mm256_cmpgt_epi64(_mm256_add_epi64(lanes, _mm256_set1_epi64x(first)), gap);
  }
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), _mm256_blendv_epi8(load(to), from, mask));
}

[[gnu::target("avx2")]] void openWide(std::uint32_t* words, std::uint64_t* nodes,
                                      unsigned index) noexcept {
  // From the top down: each vector is read before it is overwritten.
  const __m256i gap = _mm256_set1_epi64x(index);
  for (int i = 3; i > 0; --i) {
    replaceAbove(nodes + i * kNodes, load(nodes + i * kNodes - 1), i * kNodes, gap);
  }
  replaceAbove(nodes, _mm256_permute4x64_epi64(load(nodes), 0x90), 0, gap);
  const __m256i wordGap = _mm256_set1_epi32(static_cast<int>(index));
  const __m256i upwards = _mm256_setr_epi32(0, 0, 1, 2, 3, 4, 5, 6);
  replaceAbove(words + kWords, load(words + kWords - 1), kWords, wordGap);
  replaceAbove(words, _mm256_permutevar8x32_epi32(load(words), upwards), 0, wordGap);
}

[[gnu::target("avx2")]] void closeWide(std::uint32_t* words, std::uint64_t* nodes,
                                       unsigned index) noexcept {
  const __m256i wordGap = _mm256_set1_epi32(static_cast<int>(index));
  replaceAbove(words, load(words + 1), 1, wordGap);
  replaceAbove(words + kWords, load(words + kWords + 1), kWords + 1, wordGap);
  const __m256i gap = _mm256_set1_epi64x(index);
  for (int i = 0; i < 3; ++i) {
    replaceAbove(nodes + i * kNodes, load(nodes + i * kNodes + 1), i * kNodes + 1, gap);
  }
  std::uint64_t* const last = nodes + 3 * kNodes;
  replaceAbove(last, _mm256_permute4x64_epi64(load(last), 0x39), 3 * kNodes + 1, gap);
}

}  // namespace

bool UsualSlots::wide_ = __builtin_cpu_supports("avx2") != 0;
#else
namespace {
void openWide(std::uint32_t*, std::uint64_t*, unsigned) noexcept {}
void closeWide(std::uint32_t*, std::uint64_t*, unsigned) noexcept {}
}  // namespace

bool UsualSlots::wide_ = false;
#endif

void UsualSlots::open(std::uint32_t* words, unsigned index) noexcept {
  auto* const nodes = reinterpret_cast<std::uint64_t*>(words + kWordsPerStep);
  if (wide_) return openWide(words, nodes, index);
  openElement<std::uint32_t>(words, index);
  openElement<std::uint64_t>(nodes, index);
}

void UsualSlots::close(std::uint32_t* words, unsigned index) noexcept {
  auto* const nodes = reinterpret_cast<std::uint64_t*>(words + kWordsPerStep);
  if (wide_) return closeWide(words, nodes, index);
  closeElement<std::uint32_t>(words, index);
  closeElement<std::uint64_t>(nodes, index);
}

}  // namespace Kiv::Impl
