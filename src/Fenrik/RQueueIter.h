#pragma once

#include <cstdint>

#include "Fenrik/RQueue.h"

namespace Fenrik {

/// A position in a queue. The queue may change in any way except `doClear(false)`: if the element
/// has been dequeued, the iterator continues with the first remaining one. A default iterator is at
/// the end of every queue.
template <class T>
class RQueueBaseConstIter {
 public:
  RQueueBaseConstIter() noexcept = default;

  /// At the first element, or at the end if there is none.
  explicit RQueueBaseConstIter(const RQueueBase<T>& queue) noexcept { moveToFront(queue); }

  /// At the element with this index, or at the end if it is not queued.
  RQueueBaseConstIter(const RQueueBase<T>& queue, std::uint32_t index) noexcept {
    if (const Array* const chunk = queue.findChunk(index)) {
      *this = RQueueBaseConstIter(queue, chunk, index);
    }
  }

  /// False at the end.
  bool valid() const noexcept { return chunk_ != nullptr; }

  /// Sequence index of the element, even if it has been dequeued. REQUIRES: not at the end.
  std::uint32_t index() const noexcept { return index_; }

  /// The element, or a default value if it has been dequeued. REQUIRES: not at the end.
  T value() const noexcept { return stale() ? T() : *chunk_->slot(slot_); }

  /// Advances to the next element. Does nothing at the end.
  void increment() noexcept {
    if (!valid()) return;
    if (stale()) return moveToFront(*queue_);
    ++index_;
    if (++slot_ != chunk_->writeCount()) return;
    chunk_ = chunk_ == queueOfTail_->chunks_.tail() ? nullptr : Chunks::next(*chunk_);
    slot_ = 0;
  }

  /// Whether both are at the same index, or both at the end.
  friend bool operator==(const RQueueBaseConstIter& a, const RQueueBaseConstIter& b) noexcept {
    return a.valid() == b.valid() && (!a.valid() || a.index_ == b.index_);
  }

 private:
  using Array = typename RQueueBase<T>::Array;
  using Chunks = typename RQueueBase<T>::Chunks;

  RQueueBaseConstIter(const RQueueBase<T>& queue, const Array* chunk, std::uint32_t index) noexcept
      : queue_(&queue),
        chunk_(chunk),
        queueOfTail_(&queue),
        slot_(index - chunk->baseIndex()),
        index_(index) {}

  /// Whether the element has been dequeued; its chunk may have been freed.
  bool stale() const noexcept { return indexBefore(index_, queue_->frontIndex()); }

  void moveToFront(const RQueueBase<T>& queue) noexcept {
    *this = queue.empty() ? RQueueBaseConstIter()
                          : RQueueBaseConstIter(queue, Chunks::next(*queue.chunks_.tail()),
                                                queue.frontIndex());
  }

  const RQueueBase<T>* queue_ = nullptr;
  /// Chunk of the element; null at the end.
  const Array* chunk_ = nullptr;
  /// The queue, for its tail, which ends the iteration.
  const RQueueBase<T>* queueOfTail_ = nullptr;
  /// Position within the chunk.
  std::uint32_t slot_ = 0;
  /// Sequence index of the element.
  std::uint32_t index_ = 0;
};

}  // namespace Fenrik
