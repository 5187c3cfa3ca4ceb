#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

// The layout of a ring file: header page, ring, descriptions. docs/blipline-format.md tells it in
// words.

namespace Blipline {

inline constexpr std::array<char, 8> kRingMagic{'B', 'L', 'I', 'P', 'R', 'I', 'N', 'G'};
inline constexpr std::uint32_t kRingVersion = 1;
/// Reads so in the byte order of the machine that wrote the file.
inline constexpr std::uint32_t kByteOrderMark = 0x01020304;

/// One page, so that the ring begins on one.
inline constexpr std::size_t kHeaderBytes = 4096;
/// What is lost at once when the ring laps. Large enough that entering a block, which reads two
/// clocks, vanishes among its hundred records.
inline constexpr std::size_t kBlockBytes = 4096;
inline constexpr std::size_t kRingBytesMin = 4 * kBlockBytes;
inline constexpr std::size_t kRingBytesMax = std::size_t{1} << 30;
/// Thousands of descriptions; a reader refuses more.
inline constexpr std::size_t kDescriptionBytesMax = std::size_t{64} << 20;

/// More numbers than a message that a person reads has.
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
  std::array<char, 8> magic;
  std::uint32_t version;
  std::uint32_t byteOrder;
  std::uint32_t headerBytes;
  std::uint32_t blockBytes;
  std::uint64_t ringBytes;
  std::uint32_t processId;
  /// Number of the file among those of its handle.
  std::uint32_t fileIndex;
  RingClockKind clockKind;
  std::uint32_t unused;
  std::uint64_t ticksPerSecond;
  /// One instant on three clocks, the same in all files of a process. Nanoseconds.
  std::uint64_t baseTick;
  std::uint64_t baseMonotonic;
  std::uint64_t baseRealtime;
  /// `ringChecksum` of all members above.
  std::uint64_t checksum;
};
static_assert(sizeof(RingFacts) == 88 && offsetof(RingFacts, checksum) == 80);

struct RingHeader {
  RingFacts facts;
  /// Bytes that were ever put into the ring, with what was skipped at the ends of blocks: all below
  /// is whole. Stored with release by the writer, after the bytes.
  alignas(64) std::atomic<std::uint64_t> committed;
  /// Bytes of whole descriptions behind the ring. Stored with release by the writer, after them.
  alignas(64) std::atomic<std::uint64_t> descriptionBytes;
};
static_assert(offsetof(RingHeader, committed) == 128);
static_assert(offsetof(RingHeader, descriptionBytes) == 192);
static_assert(sizeof(RingHeader) <= kHeaderBytes);

/// Head of a block, before its records.
struct BlockHead {
  /// Position of the block in the endless ring.
  std::uint64_t position;
  /// When the block was entered, on the ring's clock and on CLOCK_MONOTONIC.
  std::uint64_t tick;
  std::uint64_t monotonic;
  std::uint64_t unused;
};
static_assert(sizeof(BlockHead) == 32);

/// First word of a record. Zero in its place: the block ends here.
struct RecordHead {
  std::uint32_t msgId;
  /// Whole record with this head, a multiple of 8.
  std::uint16_t bytes;
  std::uint16_t mark;
};
static_assert(sizeof(RecordHead) == 8);
inline constexpr std::uint16_t kRecordMark = 0xb11b;

/// Head of a description; letters, source file, class, function and text follow without a gap, then
/// zeros up to `bytes`.
struct DescriptionHead {
  std::uint32_t bytes;
  std::uint32_t msgId;
  std::uint32_t line;
  std::array<std::uint16_t, 5> lengths;
  std::uint16_t unused;
  /// `ringChecksum` of the description with this member zero.
  std::uint64_t checksum;
};
static_assert(sizeof(DescriptionHead) == 32 && offsetof(DescriptionHead, checksum) == 24);

/// FNV-1a over bytes, 64 bits.
inline std::uint64_t ringChecksum(std::span<const std::byte> bytes) noexcept {
  std::uint64_t sum = 0xcbf29ce484222325;
  for (const std::byte byte : bytes)
    sum = (sum ^ std::to_integer<std::uint64_t>(byte)) * 0x100000001b3;
  return sum;
}

/// Bytes that a number of this letter takes in a record; 0 for an unknown letter.
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
