#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "Fenrik/IntrusiveLinkedTailQueue.h"

namespace Fenrik {

/// Whether the sequence index `a` is after `b`, allowing for the wrap.
constexpr bool indexAfter(std::uint32_t a, std::uint32_t b) noexcept {
  return a > b ? a - b < 0x7fffffff : b - a >= 0x80000000;
}
constexpr bool indexBefore(std::uint32_t a, std::uint32_t b) noexcept { return indexAfter(b, a); }

/// One chunk of a queue: this header followed by the slots, in one allocation. A chunk of capacity
/// 0 is a marker, which keeps the next sequence index of an empty queue.
///
/// I1. Slots from the read offset up to the write count hold elements. Slots before have been
///     dequeued and are raw bytes; slots after have never been written.
template <class T>
class RQueueArray {
 public:
  /// The largest power of two that fits a write count of 14 bits.
  static constexpr std::uint32_t kCapacityMost = 8192;
  static constexpr std::uint32_t kCapacityLeast = 8;

  RQueueArray(std::uint32_t capacityLog, std::uint32_t baseIndex) noexcept
      : word_(capacityLog << kCapacityLogShift), baseIndex_(baseIndex) {}

  std::uint32_t readOffset() const noexcept { return word_ & kOffsetMask; }
  std::uint32_t writeCount() const noexcept { return (word_ >> kWriteCountShift) & kOffsetMask; }
  std::uint32_t capacity() const noexcept {
    return (std::uint32_t{1} << (word_ >> kCapacityLogShift)) & ~std::uint32_t{1};
  }
  /// Whether no slot is left to write; always true of a marker.
  bool full() const noexcept { return word_ >= kFullWords.of[word_ >> kCapacityLogShift]; }
  bool marker() const noexcept { return word_ < std::uint32_t{1} << kCapacityLogShift; }
  bool usedUp() const noexcept { return readOffset() == writeCount(); }

  std::uint32_t baseIndex() const noexcept { return baseIndex_; }
  /// Index of the next element to dequeue.
  std::uint32_t startIndex() const noexcept { return baseIndex_ + readOffset(); }
  /// Index after the last element written.
  std::uint32_t endIndex() const noexcept { return baseIndex_ + writeCount(); }

  /// Storage of one slot. See I1 for whether it holds an element.
  T* slot(std::uint32_t offset) noexcept {
    return std::launder(reinterpret_cast<T*>(reinterpret_cast<std::byte*>(this) + kSlotsOffset)) +
           offset;
  }
  const T* slot(std::uint32_t offset) const noexcept {
    return const_cast<RQueueArray*>(this)->slot(offset);
  }

  void readOffsetInc() noexcept { word_ += 1; }
  void writeCountInc() noexcept { word_ += std::uint32_t{1} << kWriteCountShift; }

  static constexpr std::size_t bytes(std::uint32_t capacity) noexcept {
    return kSlotsOffset + capacity * sizeof(T);
  }

  /// The next chunk of the ring.
  IntrusiveLinkedTailQueueLink<RQueueArray> link_;

 private:
  static constexpr std::uint32_t kOffsetMask = (1u << 14) - 1;
  static constexpr unsigned kWriteCountShift = 14;
  static constexpr unsigned kCapacityLogShift = 28;
  /// For each logarithm of the capacity, the smallest word of a full chunk. The write count is
  /// above the read offset, so a single comparison of the word replaces four steps.
  struct FullWords {
    std::uint32_t of[16];
  };
  static constexpr FullWords kFullWords = [] {
    FullWords words{};
    for (std::uint32_t log = 1; std::uint32_t{1} << log <= kCapacityMost; ++log) {
      words.of[log] = log << kCapacityLogShift | std::uint32_t{1} << (kWriteCountShift + log);
    }
    return words;
  }();
  /// The header's 16 bytes, rounded up to the alignment of T.
  static constexpr std::size_t kSlotsOffset = (16 + alignof(T) - 1) / alignof(T) * alignof(T);
  static_assert(alignof(T) <= 16, "chunks are aligned to 16 bytes");

  /// Bits 0..13: read offset; 14..27: write count; 28..31: logarithm of the capacity.
  std::uint32_t word_;
  /// Sequence index of slot 0.
  std::uint32_t baseIndex_;
};

}  // namespace Fenrik
