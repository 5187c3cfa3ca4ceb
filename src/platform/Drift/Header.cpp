#include "Drift/Header.h"

#include <bit>
#include <cstring>

#include "Drift/Crc32c.h"
#include "Drift/DriftError.h"
#include "Fenrik/Assert.h"
#include "Fenrik/Format.h"

namespace Drift {

const char* mountStageName(MountStage stage) noexcept {
  switch (stage) {
    case MountStage::absent:
      return "absent";
    case MountStage::notReady:
      return "not ready";
    case MountStage::wrongFormat:
      return "wrong format";
    case MountStage::damaged:
      return "damaged";
    case MountStage::refused:
      return "refused";
    case MountStage::busy:
      return "busy";
    case MountStage::noSpace:
      return "no space";
    case MountStage::systemError:
      return "system error";
    case MountStage::made:
      return "made";
    case MountStage::rebuilt:
      return "rebuilt";
    case MountStage::ok:
      return "ok";
  }
  return "?";
}

MountException::~MountException() = default;
ForkedException::~ForkedException() = default;
CollectionFullException::~CollectionFullException() = default;
NoSpaceException::~NoSpaceException() = default;

namespace {

Word roundUp(Word value, Word step) { return (value + step - 1) / step * step; }

/// A dense ring exceeds its capacity by at least a 64th, rounded up to a power of two, for writers
/// that do not check for room first.
Word denseSlots(Word capacity) { return std::bit_ceil(capacity + capacity / 64 + 1); }

/// Above any record of the system; limits what a foreign header can request.
constexpr std::uint32_t kMaxRecordSize = 1 << 16;

template <std::size_t size>
void putName(char (&field)[size], std::string_view name) {
  FENRIK_ASSERT(name.size() < size);
  name.copy(field, name.size());
}

template <std::size_t size>
std::string_view nameOf(const char (&field)[size]) {
  return {field, strnlen(field, size)};
}

}  // namespace

Format::FixedHeader headerOf(const Geometry& geometry) {
  Format::FixedHeader header{};
  const bool dense = geometry.layout == Format::Layout::dense;
  FENRIK_ASSERT(geometry.recordSize <= kMaxRecordSize);
  FENRIK_ASSERT(geometry.keySize <= Format::kMaxKeySize);
  FENRIK_ASSERT(geometry.keySize > 0 && geometry.keySize <= geometry.recordSize);
  FENRIK_ASSERT(!dense || geometry.keySize == sizeof(Word));
  FENRIK_ASSERT(geometry.capacity > 0 && geometry.capacity <= kMaxCapacity);
  header.magic = Format::kMagic;
  header.formatVersion = Format::kVersion;
  header.layout = geometry.layout;
  header.abi = Format::kAbi;
  header.keySize = geometry.keySize;
  header.recordSize = geometry.recordSize;
  header.slotStride =
      static_cast<std::uint32_t>(Format::kSealSize + Format::paddedSize(geometry.recordSize));
  header.capacity = geometry.capacity;
  header.slotCount =
      dense ? denseSlots(geometry.capacity) : geometry.capacity + Format::kRestingSlots;
  if (dense) {
    header.indexWords = header.slotCount / slotsPerChunk(header);
  } else {
    // At most half full: a search takes 1.5 buckets on average (Knuth, vol. 3, 6.4).
    header.indexWords = std::bit_ceil(2 * geometry.capacity);
  }
  const Word tables = dense ? 1 : 2;
  header.slotsOffset =
      roundUp(Format::kHeaderSize + tables * header.indexWords * sizeof(Word), Format::kPageSize);
  // A dense collection has an additional slot, the side slot.
  const Word slots = dense ? header.indexWords * chunkBytes(header) + header.slotStride
                           : header.slotCount * header.slotStride;
  header.fileSize = roundUp(header.slotsOffset + slots, Format::kPageSize);
  putName(header.typeName, geometry.typeName);
  putName(header.attributeName, geometry.attributeName);
  return header;
}

Word slotsPerChunk(const Format::FixedHeader& header) noexcept {
  const Word fitting = std::bit_floor(Format::kChunkSize / header.slotStride);
  return std::min(header.slotCount, std::max(fitting, Word{1}));
}

Word chunkBytes(const Format::FixedHeader& header) noexcept {
  return roundUp(slotsPerChunk(header) * header.slotStride, Format::kPageSize);
}

std::uint32_t headerChecksum(const Format::FixedHeader& header) noexcept {
  return crc32c(
      std::as_bytes(std::span(&header, 1)).first(offsetof(Format::FixedHeader, checksum)));
}

std::optional<Geometry> geometryOf(const Format::FixedHeader& header) {
  Geometry geometry;
  geometry.layout = header.layout;
  geometry.keySize = header.keySize;
  geometry.recordSize = header.recordSize;
  geometry.capacity = header.capacity;
  geometry.typeName = nameOf(header.typeName);
  geometry.attributeName = nameOf(header.attributeName);
  const bool dense = header.layout == Format::Layout::dense;
  const bool sane = (dense || header.layout == Format::Layout::hashed) && header.keySize > 0 &&
                    header.keySize <= Format::kMaxKeySize && header.keySize <= header.recordSize &&
                    header.recordSize <= kMaxRecordSize &&
                    (!dense || header.keySize == sizeof(Word)) && header.capacity > 0 &&
                    header.capacity <= kMaxCapacity &&
                    geometry.typeName.size() < Format::kTypeNameSize &&
                    geometry.attributeName.size() < Format::kAttributeNameSize;
  return sane ? std::optional(geometry) : std::nullopt;
}

Fenrik::String headerFault(const Format::FixedHeader& found, Word fileSize) {
  if (found.magic != Format::kMagic) {
    return Fenrik::formatString("it begins with {:016x}, no collection of this system",
                                found.magic);
  }
  if (found.formatVersion != Format::kVersion) {
    return Fenrik::formatString("its format is version {}, this library reads version {}",
                                found.formatVersion, Format::kVersion);
  }
  if (found.abi != Format::kAbi) return "it was written on a machine of another byte order";
  if (found.checksum != headerChecksum(found)) {
    return Fenrik::formatString("its header's checksum is {:08x}, its content gives {:08x}",
                                found.checksum, headerChecksum(found));
  }
  if (found.fileSize != fileSize) {
    return Fenrik::formatString("it is {} bytes long, its header says {}", fileSize,
                                found.fileSize);
  }
  return "";
}

Fenrik::String headerDifference(const Format::FixedHeader& found,
                                const Format::FixedHeader& expected) {
  const auto differs = [](const char* what, auto has, auto wants) {
    return Fenrik::formatString("{} is {}, {} is wanted", what, has, wants);
  };
  const std::string_view type = nameOf(found.typeName);
  const std::string_view attribute = nameOf(found.attributeName);
  if (type != nameOf(expected.typeName)) {
    return differs("its type", type, nameOf(expected.typeName));
  }
  if (attribute != nameOf(expected.attributeName)) {
    return differs("its attribute", attribute, nameOf(expected.attributeName));
  }
  if (found.layout != expected.layout) {
    return differs("its layout", static_cast<unsigned>(found.layout),
                   static_cast<unsigned>(expected.layout));
  }
  if (found.keySize != expected.keySize) {
    return differs("its key size", found.keySize, expected.keySize);
  }
  if (found.recordSize != expected.recordSize) {
    return differs("its record size", found.recordSize, expected.recordSize);
  }
  if (found.capacity != expected.capacity) {
    return differs("its capacity", found.capacity, expected.capacity);
  }
  const bool same =
      found.slotStride == expected.slotStride && found.slotCount == expected.slotCount &&
      found.indexWords == expected.indexWords && found.slotsOffset == expected.slotsOffset &&
      found.fileSize == expected.fileSize;
  return same ? "" : "its parts lie at other places";
}

Word CheckedWord::runningNumber() const noexcept {
  for (int copy = 0; copy < 2; ++copy) {
    const Word check = loadWord(words_ + 2 * copy + 1);
    if (checkOf(loadWord(words_ + 2 * copy), check >> 32) == check) return check >> 32;
  }
  return 0;
}

}  // namespace Drift
