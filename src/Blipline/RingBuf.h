#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Blipline/RingClock.h"
#include "Blipline/RingFormat.h"
#include "Fenrik/Export.h"

namespace Blipline {

class TraceFile;

/// The writer's end of a ring.
///
/// Threads: one at a time. The ring is in a shared mapping, so completed records survive the death
/// of the process at any instruction, and other processes can read them meanwhile.
/// I1. `committed` in the file advances past a record only when the record is complete.
/// I2. `committed` advances into a block before the block's old records are overwritten.
/// I3. While a record is open the ring offers no space, so a signal handler that traces meanwhile
///     is refused.
/// Cost: a record takes one clock reading and about a dozen stores and tests; a new block, about
/// every hundred records, two more clock readings.
class QUARNBASTIL_EXPORT RingBuf {
 public:
  RingBuf() noexcept = default;
  RingBuf(const RingBuf&) = delete;
  RingBuf& operator=(const RingBuf&) = delete;

  /// Opens a record of the message at the write pointer. False if the ring offers no space; then
  /// nothing was opened and `endMsg` must not be called. REQUIRES: `file` is the ring's own.
  bool startMsg(TraceFile* file, int msgId) noexcept {
    if (!available_.load(std::memory_order_relaxed)) return false;
    available_.store(false, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (cursor_ > blockLimit_) [[unlikely]]
      blockEnter(file);
    const std::uint64_t tick = RingClock::tick();
    std::memcpy(cursor_ + sizeof(RecordHead), &tick, sizeof tick);
    msgId_ = static_cast<std::uint32_t>(msgId);
    writePtr_ = cursor_ + kRecordHeadBytes;
    return true;
  }

  /// Position of the open record's next number. There is room for `kArgumentsMax` numbers.
  std::byte* writePtr() const noexcept { return writePtr_; }
  void writePtrIs(std::byte* place) noexcept { writePtr_ = place; }

  /// Completes the open record, which becomes visible to readers. REQUIRES: `startMsg` returned
  /// true.
  void endMsg() noexcept {
    const auto bytes = (static_cast<std::size_t>(writePtr_ - cursor_) + 7) & ~std::size_t{7};
    const RecordHead head{msgId_, static_cast<std::uint16_t>(bytes), kRecordMark};
    std::memcpy(cursor_, &head, sizeof head);
    cursor_ += bytes;
    committed_->store(positionOf(cursor_), std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    available_.store(true, std::memory_order_relaxed);
  }

 private:
  friend class TraceFile;

  /// Sets the ring's memory, which belongs to a new file.
  void placeIs(RingHeader* header, std::byte* ring, std::size_t ringBytes) noexcept;
  void blockEnter(TraceFile* file) noexcept;
  void blockBegin(std::uint64_t position) noexcept;

  std::uint64_t positionOf(const std::byte* place) const noexcept {
    return blockOffset_ + std::bit_cast<std::uintptr_t>(place);
  }

  /// Position of the next record, and the last position in the block with room for any record.
  std::byte* cursor_ = nullptr;
  std::byte* blockLimit_ = nullptr;
  /// False while a record is open, and for a ring without memory.
  std::atomic<bool> available_{false};
  /// Position of the open record's next number.
  std::byte* writePtr_ = nullptr;
  /// Message of the open record.
  std::uint32_t msgId_ = 0;
  /// The header's word, which other processes read.
  std::atomic<std::uint64_t>* committed_ = nullptr;
  /// Add to an address in the block to get its position in the ring.
  std::uint64_t blockOffset_ = 0;

  /// Start of the ring in the mapping.
  std::byte* ring_ = nullptr;
  /// Size of the ring, a power of two.
  std::size_t ringBytes_ = 0;
};

}  // namespace Blipline
