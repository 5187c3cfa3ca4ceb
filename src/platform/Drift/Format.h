#pragma once

#include <cstddef>
#include <cstdint>

/// The layout of a collection's file. docs/shared-memory.md describes it for readers in other
/// languages; keep the two in agreement. All numbers are little-endian.
///
///     0        fixed header, then `ready`, then the mutable words, one cache line each
///     4096     hashed: index table 0, index table 1; dense: chunk table
///     ...      slots
namespace Drift::Format {

using Word = std::uint64_t;

/// "QBDRIFT1" as bytes in the file.
inline constexpr Word kMagic = 0x3154464952444251;
inline constexpr std::uint32_t kVersion = 3;
/// Detects a different byte order or word size.
inline constexpr Word kAbi = 0x0807060504030208;
/// Value of `ready` once the file is complete ("QBREADY!").
inline constexpr Word kReady = 0x2159444145524251;

inline constexpr std::size_t kPageSize = 4096;
inline constexpr std::size_t kLineSize = 64;
inline constexpr std::size_t kHeaderSize = kPageSize;

enum class Layout : std::uint32_t { dense = 1, hashed = 2 };

/// Longest key; the nine tables need 12 bytes.
inline constexpr std::size_t kMaxKeySize = 64;
inline constexpr std::size_t kTypeNameSize = 128;
inline constexpr std::size_t kAttributeNameSize = 64;

/// Written once, before `ready`.
struct FixedHeader {
  Word magic;                   ///< `kMagic`
  std::uint32_t formatVersion;  ///< `kVersion`
  Layout layout;                ///< dense or hashed
  Word abi;                     ///< `kAbi`
  std::uint32_t keySize;        ///< bytes of the key, which is at the start of the record
  std::uint32_t recordSize;     ///< bytes of the record
  std::uint32_t slotStride;     ///< bytes from one slot to the next: seal word and padded record
  std::uint32_t spare;          ///< 0
  Word capacity;                ///< maximum number of records
  Word slotCount;               ///< slots in the file; a power of two in a dense collection
  Word indexWords;   ///< words that an index table may have, or the chunk table has; a power of two
  Word slotsOffset;  ///< offset of the first slot; a multiple of the page size
  Word fileSize;     ///< bytes of the file
  Word hashSeed;     ///< start value of the key hash, random for each file
  std::uint8_t bootId[16];                 ///< boot id at the file's creation
  char typeName[kTypeNameSize];            ///< type of the records
  char attributeName[kAttributeNameSize];  ///< attribute that the collection stores
  std::uint32_t spare2;                    ///< 0
  std::uint32_t checksum;                  ///< CRC32C of everything before it
};
static_assert(sizeof(FixedHeader) == 304 && offsetof(FixedHeader, layout) == 12 &&
              offsetof(FixedHeader, keySize) == 24 && offsetof(FixedHeader, slotStride) == 32 &&
              offsetof(FixedHeader, capacity) == 40 && offsetof(FixedHeader, slotCount) == 48 &&
              offsetof(FixedHeader, indexWords) == 56 && offsetof(FixedHeader, slotsOffset) == 64 &&
              offsetof(FixedHeader, fileSize) == 72 && offsetof(FixedHeader, hashSeed) == 80 &&
              offsetof(FixedHeader, bootId) == 88 && offsetof(FixedHeader, typeName) == 104 &&
              offsetof(FixedHeader, attributeName) == 232 &&
              offsetof(FixedHeader, checksum) == 300);

/// Offset of the word that marks the file as complete.
inline constexpr std::size_t kReadyOffset = 320;

/// The mutable words, in the order of their lines. A line holds the value twice, each copy followed
/// by a check word: value, check, value, check. The upper half of the check is a running number,
/// the lower half the CRC32C of running number, value and line. The first copy is always written
/// first.
enum class Line : std::uint32_t {
  active = 0,      ///< hashed: which index table is in use, see `ActiveIndex`
  first = 1,       ///< dense: lowest version of the window
  next = 2,        ///< dense: version after the window
  holes = 3,       ///< dense: absent versions within the window; bit 63: being changed
  redirect = 4,    ///< dense: 1 plus the version whose record is in the side slot, or 0
  live0 = 5,       ///< hashed: records of index table 0
  live1 = 6,       ///< hashed: records of index table 1
  reserved = 7,    ///< hashed: number of slots that have had memory, an upper bound for readers
  scratchpad = 8,  ///< the owner's 64-bit value
  wiped = 9,       ///< 1: the previous content was unusable and was replaced by an empty collection
  writerGeneration = 10,  ///< number of times that a writer has mounted the file
  announced = 11,         ///< dense: the highest version that a follower may read
  writer = 12,            ///< process id of the last writer, for diagnostics
};
inline constexpr std::size_t kLineCount = 13;
inline constexpr std::size_t kLinesOffset = 384;
constexpr std::size_t lineOffset(Line line) {
  return kLinesOffset + static_cast<std::size_t>(line) * kLineSize;
}

/// A 32-bit number that changes with every ring; processes sleep on it (futex).
inline constexpr std::size_t kDoorbellOffset = kLinesOffset + kLineCount * kLineSize;
/// A 32-bit number: 0 while the file's writer is awake, so that a ring for it needs no wake-up
/// call. It is 1 until a writer has announced that it is awake, and forever in a file that was
/// replaced.
inline constexpr std::size_t kSleepingOffset = kDoorbellOffset + kLineSize;
static_assert(kSleepingOffset + kLineSize <= kHeaderSize);

/// Value of `Line::active`:
///
///     bit  0      index table in use
///     bits 1..5   log2 of the number of its buckets; the rest of the table is empty
///          6..63  number of switches between the tables
struct ActiveIndex {
  Word table;
  Word bits;
  Word switches;

  static constexpr ActiveIndex from(Word word) { return {word & 1, word >> 1 & 31, word >> 6}; }
  constexpr Word word() const { return table | bits << 1 | switches << 6; }
};

/// Offset of an index table; each has space for all its words.
constexpr std::size_t indexOffset(const FixedHeader& header, Word table) {
  return kHeaderSize + table * header.indexWords * sizeof(Word);
}
/// Whether an index of this file can have the size: at least two buckets, at most all.
constexpr bool isIndexOf(const FixedHeader& header, const ActiveIndex& active) {
  return active.bits != 0 && Word{1} << active.bits <= header.indexWords;
}

/// Index word of a hashed collection:
///
///     bits  0..21  slot number plus 1; 0 in a tombstone
///          22..33  low bits of the record's running number
///          34..39  tag: bits 0..5 of the key's hash
///          40..47  displacement: distance from the key's home bucket
///          48..63  check: low half of the CRC32C of the six bytes below
///
/// 0 is an empty bucket. The home bucket is the high bits of the key's hash, as many as number the
/// buckets in use: in an index of twice the size a record is at about twice its place, so a walk in
/// the order of the hashes is independent of the size.
inline constexpr unsigned kSlotBits = 22;
inline constexpr unsigned kSequenceBits = 12;
inline constexpr unsigned kTagBits = 6;
inline constexpr unsigned kDisplacementBits = 8;
static_assert(kSlotBits + kSequenceBits + kTagBits + kDisplacementBits == 48);
inline constexpr std::size_t kMaxDisplacement = (1U << kDisplacementBits) - 1;
inline constexpr Word kMaxSlots = (Word{1} << kSlotBits) - 2;

/// Words of the index of an empty hashed collection, unless its capacity needs fewer. It is rebuilt
/// with more before it is more than half full.
#ifdef QUARNBASTIL_START_INDEX
/// Set by the kill and race tests, so that their small indexes grow.
inline constexpr Word kStartIndexWords = QUARNBASTIL_START_INDEX;
#else
inline constexpr Word kStartIndexWords = kPageSize / sizeof(Word);
#endif

/// Chunk word of a dense collection: the chunk's number in the file plus 1; in the upper half the
/// CRC32C of that number, this value and the word's position in the table. 0 while the versions
/// have no chunk.
inline constexpr Word kChunkMark = 0x4b4e554843;

/// Slots in excess of a hashed collection's capacity. A replaced record's slot is not reused before
/// this many others, so that a reader copying it can finish.
inline constexpr Word kRestingSlots = 64;

/// The seal, the first word of a slot: in the upper half the CRC32C over the lower half and the
/// padded record; in the lower half the record's running number (hashed) or the low half of its
/// version (dense). For an absent version within a dense window the CRC's input also contains this
/// mark.
inline constexpr std::size_t kSealSize = 8;

constexpr std::size_t paddedSize(std::size_t size) { return (size + 7) / 8 * 8; }

/// Memory for slots is reserved and freed in pieces of at most this size: large enough for the cost
/// of the system call to disappear among the piece's records (1,024 of the largest), small enough
/// for an idle table to hold little memory.
#ifdef QUARNBASTIL_CHUNK_SIZE
/// Set by the kill tests, so that their short rings have several chunks.
inline constexpr std::size_t kChunkSize = QUARNBASTIL_CHUNK_SIZE;
#else
inline constexpr std::size_t kChunkSize = 1 << 20;
#endif

}  // namespace Drift::Format
