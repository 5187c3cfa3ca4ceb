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

/// The writing end of a ring.
///
/// One thread at a time. The place is a shared mapping, so what has been ended survives the process
/// at any instruction, and is read by others while the thread goes on.
/// I1. `committed` in the file moves over a record only when the record is whole.
/// I2. `committed` moves into a block before the block's old records are touched.
/// I3. While a record is open the ring offers no space: a signal handler that traces in between is
///     turned away.
/// Cost: a record is the clock's reading and about a dozen stores and tests; a block, every hundred
/// records or so, two clock readings more.
class QUARNBASTIL_EXPORT RingBuf {
 public:
  RingBuf() noexcept = default;
  RingBuf(const RingBuf&) = delete;
  RingBuf& operator=(const RingBuf&) = delete;

  /// Opens a record of the message at the write pointer. False when the ring offers no space: then
  /// nothing was opened and nothing may be ended. REQUIRES: the file is the ring's own.
  bool startMsg(TraceFile* file, int msgId) noexcept {
    if (!available_.load(std::memory_order_relaxed)) return false;
    available_.store(false, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (cursor_ > blockLimit_) [[unlikely]]
      blockEnter(file);
    const std::uint64_t tick = RingClock::tick();
    std::memcpy(cursor_ + sizeof(RecordHead), &tick, sizeof tick);
    /// Message of the open record.
    msgId_ = static_cast<std::uint32_t>(msgId);
    /// Where the next number of the open record goes.
    writePtr_ = cursor_ + kRecordHeadBytes;
    return true;
  }

  /// Where the next number of the open record goes. There is room for `kArgumentsMax` numbers.
  std::byte* writePtr() const noexcept { return writePtr_; }
  void writePtrIs(std::byte* place) noexcept { writePtr_ = place; }

  /// Ends the open record: from here on every reader sees it. REQUIRES: `startMsg` gave space.
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

  /// Gives the ring its place. The bytes are those of a new file.
  void placeIs(RingHeader* header, std::byte* ring, std::size_t ringBytes) noexcept;
  void blockEnter(TraceFile* file) noexcept;
  void blockBegin(std::uint64_t position) noexcept;

  std::uint64_t positionOf(const std::byte* place) const noexcept {
    return blockOffset_ + std::bit_cast<std::uintptr_t>(place);
  }

  /// The next record, and the last place in the block that is sure to hold one.
  std::byte* cursor_ = nullptr;
  std::byte* blockLimit_ = nullptr;
  /// False while a record is open, and for a ring without a place.
  std::atomic<bool> available_{false};
  std::byte* writePtr_ = nullptr;
  std::uint32_t msgId_ = 0;
  /// The header's word; read by other processes.
  std::atomic<std::uint64_t>* committed_ = nullptr;
  /// Position of a place in the block minus its address.
  std::uint64_t blockOffset_ = 0;

  /// First byte of the ring in the mapping.
  std::byte* ring_ = nullptr;
  /// A power of two.
  std::size_t ringBytes_ = 0;
};

}  // namespace Blipline
