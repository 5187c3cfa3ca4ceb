#include "Blipline/RingBuf.h"

#include "Blipline/TraceFile.h"
#include "Fenrik/Assert.h"

namespace Blipline {

void RingBuf::placeIs(RingHeader* header, std::byte* ring, std::size_t ringBytes) noexcept {
  committed_ = &header->committed;
  ring_ = ring;
  ringBytes_ = ringBytes;
  blockBegin(0);
  available_.store(true, std::memory_order_relaxed);
}

void RingBuf::blockEnter(TraceFile* file) noexcept {
  FENRIK_ASSERT(&file->ring() == this);
  const std::uint64_t position = positionOf(cursor_);
  const std::uint64_t next = (position + kBlockBytes - 1) & ~std::uint64_t{kBlockBytes - 1};
  if (position != next) std::memset(cursor_, 0, sizeof(RecordHead));
  blockBegin(next);
}

void RingBuf::blockBegin(std::uint64_t position) noexcept {
  committed_->store(position, std::memory_order_release);
  // A reader that sees any byte of the new block must also see that the old records are gone. A
  // release fence would suffice, but the thread sanitizer does not support it.
  __sync_synchronize();
  std::byte* const block = ring_ + (position & (ringBytes_ - 1));
  const RingClock::Instant now = RingClock::instant();
  const BlockHead head{position, now.tick, now.monotonic, 0};
  std::memcpy(block, &head, sizeof head);
  cursor_ = block + sizeof head;
  blockOffset_ = position - std::bit_cast<std::uintptr_t>(block);
  blockLimit_ = block + kBlockBytes - kRecordBytesMax;
  committed_->store(positionOf(cursor_), std::memory_order_release);
}

}  // namespace Blipline
