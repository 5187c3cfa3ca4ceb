#pragma once

#include <bit>

namespace OvSlab::Impl {

/// Alignment of every object, and the smallest size that holds a free object's two words.
inline constexpr unsigned kGranule = 16;
/// Up to this size there is one class per granule; above it four classes per doubling, so that at
/// most a fifth of an object is unused.
inline constexpr unsigned kFineLimit = 256;
inline constexpr unsigned kFineClassCount = kFineLimit / kGranule;
/// The largest object allocated from a slab; a slab holds eight of them.
inline constexpr unsigned kSlabObjectLimit = 8192;

/// The class of the smallest objects that hold `size` bytes. REQUIRES: size <= kSlabObjectLimit.
constexpr unsigned sizeClassOf(unsigned size) noexcept {
  if (size <= kFineLimit) return (size + kGranule - 1) / kGranule - (size != 0 ? 1 : 0);
  const unsigned last = size - 1;
  const unsigned log = static_cast<unsigned>(std::bit_width(last)) - 1;
  return kFineClassCount + (log - 8) * 4 + ((last >> (log - 2)) & 3);
}

/// Object size of a class.
constexpr unsigned objectSizeOf(unsigned sizeClass) noexcept {
  if (sizeClass < kFineClassCount) return (sizeClass + 1) * kGranule;
  const unsigned coarse = sizeClass - kFineClassCount;
  return (5 + coarse % 4) << (6 + coarse / 4);
}

inline constexpr unsigned kSizeClassCount = sizeClassOf(kSlabObjectLimit) + 1;

static_assert(1u << std::bit_width(kFineLimit - 1) == kFineLimit && kFineLimit == 1u << 8);
static_assert(objectSizeOf(kSizeClassCount - 1) == kSlabObjectLimit);

}  // namespace OvSlab::Impl
