#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

// Layout of a ring file: header page, ring, descriptions. See docs/blipline-format.md.

namespace Blipline {

inline constexpr std::array<char, 8> kRingMagic{'B', 'L', 'I', 'P', 'R', 'I', 'N', 'G'};
inline constexpr std::uint32_t kRingVersion = 1;
/// Detects a different byte order.
inline constexpr std::uint32_t kByteOrderMark = 0x01020304;

/// One page, so that the ring is page-aligned.
inline constexpr std::size_t kHeaderBytes = 4096;
/// Amount lost at once when the ring wraps. Large enough that entering a block, which reads two
/// clocks, costs little per record: a block holds about a hundred.
inline constexpr std::size_t kBlockBytes = 4096;
inline constexpr std::size_t kRingBytesMin = 4 * kBlockBytes;
inline constexpr std::size_t kRingBytesMax = std::size_t{1} << 30;
/// Enough for thousands of descriptions. Readers refuse more.
inline constexpr std::size_t kDescriptionBytesMax = std::size_t{64} << 20;

/// More numbers than any readable message has.
inline constexpr std::size_t kArgumentsMax = 16;
inline constexpr std::size_t kRecordHeadBytes = 16;
inline constexpr std::size_t kRecordBytesMax = kRecordHeadBytes + kArgumentsMax * 8;

enum class RingClockKind : std::uint32_t {
  /// CLOCK_MONOTONIC in nanoseconds.
  monotonic = 0,
  /// The processor's time stamp counter.
  timeStampCounter = 1,
};

/// Written once, before the file gets its name.
struct RingFacts {
  /// `kRingMagic`.
  std::array<char, 8> magic;
  /// `kRingVersion`.
  std::uint32_t version;
  /// `kByteOrderMark`.
  std::uint32_t byteOrder;
  std::uint32_t headerBytes;
  std::uint32_t blockBytes;
  /// Sizes of header, block and ring.
  std::uint64_t ringBytes;
  /// The process that wrote the file.
  std::uint32_t processId;
  /// Index of the file among those of its handle.
  std::uint32_t fileIndex;
  /// The clock of the records, and its rate.
  RingClockKind clockKind;
  std::uint32_t unused;
  std::uint64_t ticksPerSecond;
  /// One instant on three clocks, the same in all files of a process. In nanoseconds, except for
  /// the tick.
  std::uint64_t baseTick;
  std::uint64_t baseMonotonic;
  std::uint64_t baseRealtime;
  /// `ringChecksum` of all members above.
  std::uint64_t checksum;
};
static_assert(sizeof(RingFacts) == 88 && offsetof(RingFacts, checksum) == 80);

/// Mutable words follow the facts, each in its own cache line.
struct RingHeader {
  RingFacts facts;
  /// Bytes ever put into the ring, including those skipped at the ends of blocks: all records below
  /// this position are complete. Stored by the writer with release, after the bytes.
  alignas(64) std::atomic<std::uint64_t> committed;
  /// Bytes of complete descriptions after the ring. Stored by the writer with release, after the
  /// bytes.
  alignas(64) std::atomic<std::uint64_t> descriptionBytes;
};
static_assert(offsetof(RingHeader, committed) == 128);
static_assert(offsetof(RingHeader, descriptionBytes) == 192);
static_assert(sizeof(RingHeader) <= kHeaderBytes);

/// Precedes the records of a block.
struct BlockHead {
  /// Position of the block, counted over all laps of the ring.
  std::uint64_t position;
  /// Time at which the block was entered, on the ring's clock and on CLOCK_MONOTONIC.
  std::uint64_t tick;
  std::uint64_t monotonic;
  std::uint64_t unused;
};
static_assert(sizeof(BlockHead) == 32);

/// First word of a record. Zero instead marks the end of the block.
struct RecordHead {
  /// Message of the record.
  std::uint32_t msgId;
  /// Bytes of the record including this head, a multiple of 8.
  std::uint16_t bytes;
  /// `kRecordMark`.
  std::uint16_t mark;
};
static_assert(sizeof(RecordHead) == 8);
inline constexpr std::uint16_t kRecordMark = 0xb11b;

/// Head of a description. Letters, source file, class, function and text follow without gaps, then
/// zeros up to `bytes`.
struct DescriptionHead {
  /// Bytes of the description including this head.
  std::uint32_t bytes;
  std::uint32_t msgId;
  std::uint32_t line;
  /// Lengths of the five texts.
  std::array<std::uint16_t, 5> lengths;
  std::uint16_t unused;
  /// `ringChecksum` of the description with this member set to zero.
  std::uint64_t checksum;
};
static_assert(sizeof(DescriptionHead) == 32 && offsetof(DescriptionHead, checksum) == 24);

/// 64-bit FNV-1a.
inline std::uint64_t ringChecksum(std::span<const std::byte> bytes) noexcept {
  std::uint64_t sum = 0xcbf29ce484222325;
  for (const std::byte byte : bytes)
    sum = (sum ^ std::to_integer<std::uint64_t>(byte)) * 0x100000001b3;
  return sum;
}

/// Bytes of a number with this type letter in a record; 0 for an unknown letter.
constexpr std::size_t letterBytes(char letter) noexcept {
  switch (letter) {
    case 'c':
      return 1;
    case 's':
    case 'h':
      return 2;
    case 'i':
    case 'u':
      return 4;
    case 'l':
    case 'L':
    case 'd':
      return 8;
    default:
      return 0;
  }
}

}  // namespace Blipline
