#pragma once

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "Fenrik/Export.h"
#include "Fenrik/MemTrack.h"
#include "Fenrik/PowerOfTwo.h"
#include "Fenrik/Ptr.h"
#include "Fenrik/RQueueArray.h"
#include "OvSlab/OvSlab.h"

namespace Fenrik {

template <class T>
class RQueueBaseConstIter;

/// The part of `RQueue` that does not depend on its tag: a ring of chunks, accessed through the
/// last one.
template <class T>
class QUARNBASTIL_EXPORT RQueueBase {
 public:
  using Array = RQueueArray<T>;
  using Chunks = IntrusiveLinkedTailQueue<Array, &Array::link_>;

  RQueueBase(const RQueueBase&) = delete;
  RQueueBase& operator=(const RQueueBase&) = delete;

  bool empty() const noexcept {
    const Array* const tail = chunks_.tail();
    return tail == nullptr || tail->marker();
  }

  /// Number of elements.
  std::uint32_t size() const noexcept { return nextIndex() - frontIndex(); }

  /// Index of the first element; in an empty queue, that of the next element to be added.
  std::uint32_t frontIndex() const noexcept {
    const Array* const tail = chunks_.tail();
    return tail == nullptr ? kFirstIndex : Chunks::next(*tail)->startIndex();
  }

  /// Index of the last element; in an empty queue, one less than the front index.
  std::uint32_t backIndex() const noexcept { return nextIndex() - 1; }

  /// Whether the element with this index is queued.
  bool has(std::uint32_t index) const noexcept { return index - frontIndex() < size(); }

  /// The element with this index, or null if it is not queued. Constant time in the last chunk,
  /// otherwise linear in the number of chunks.
  const T* find(std::uint32_t index) const noexcept {
    const Array* chunk = findChunk(index);
    return chunk != nullptr ? chunk->slot(index - chunk->baseIndex()) : nullptr;
  }

  /// The first and the last element; null if the queue is empty.
  const T* front() const noexcept {
    if (empty()) return nullptr;
    const Array* const first = Chunks::next(*chunks_.tail());
    return first->slot(first->readOffset());
  }
  const T* back() const noexcept {
    if (empty()) return nullptr;
    return chunks_.tail()->slot(chunks_.tail()->writeCount() - 1);
  }

 protected:
  friend class RQueueBaseConstIter<T>;

  /// Index of the first element. 0 is not an index.
  static constexpr std::uint32_t kFirstIndex = 1;

  static_assert(std::is_nothrow_copy_constructible_v<T> && std::is_nothrow_move_constructible_v<T>);

  RQueueBase() noexcept = default;
  ~RQueueBase() = default;

  std::uint32_t nextIndex() const noexcept {
    const Array* const tail = chunks_.tail();
    return tail == nullptr ? kFirstIndex : tail->endIndex();
  }

  /// The chunk that holds the element with this index, or null. Indices are compared by their
  /// difference, which is valid across the wrap.
  const Array* findChunk(std::uint32_t index) const noexcept {
    const Array* const tail = chunks_.tail();
    if (tail == nullptr) return nullptr;
    if (holds(*tail, index)) [[likely]]
      return tail;
    const Array* chunk = Chunks::next(*tail);
    if (index - chunk->startIndex() >= tail->endIndex() - chunk->startIndex()) return nullptr;
    while (!holds(*chunk, index)) chunk = Chunks::next(*chunk);
    return chunk;
  }

  static bool holds(const Array& chunk, std::uint32_t index) noexcept {
    return index - chunk.startIndex() < chunk.writeCount() - chunk.readOffset();
  }

  /// Capacity of the next chunk, given that `size` elements fill the existing ones.
  static std::uint32_t capacityFor(std::uint32_t size) noexcept {
    return size < Array::kCapacityLeast   ? Array::kCapacityLeast
           : size >= Array::kCapacityMost ? Array::kCapacityMost
                                          : std::bit_ceil(size + 1);
  }

  /// Moves the value out of a slot that is no longer an element and will not be destroyed.
  template <class U>
  static Ptr<U> relocate(Ptr<U>& slot) noexcept {
    return Ptr<U>(slot.get(), AdoptReference{});
  }
  template <class U>
  static U relocate(U& slot) noexcept {
    U value(std::move(slot));
    slot.~U();
    return value;
  }

  /// Tracks the chunks of all queues with this element type.
  inline static void* arrayTracker_ = nullptr;

  Chunks chunks_;
};

/// A first-in, first-out queue. Elements are addressed by a sequence index that increases by one
/// per element, wraps after 2^32, and does not change while the element is queued. `Tag` identifies
/// the queue in allocation tracking. The second parameter is false.
///
/// Threads: one.
///
/// I1. A queue is one pointer. An unused queue holds no memory.
/// I2. A chunk is freed with its last element. An empty queue that has been used holds a marker as
///     its only chunk, which keeps the sequence.
/// I3. Elements never move. Chunks are added, each as large as the queue, from 8 up to 8192
///     elements.
///
/// Cost: enqueueing and dequeueing are constant. Memory is allocated at the start of a chunk, so a
/// queue of steady length allocates less and less often, until one chunk fits the length.
template <class T, bool, class Tag>
class RQueue;

template <class T, class Tag>
class QUARNBASTIL_EXPORT RQueue<T, false, Tag> : public RQueueBase<T> {
  using Base = RQueueBase<T>;
  using Base::chunks_;
  using typename Base::Array;
  using typename Base::Chunks;

 public:
  RQueue() noexcept = default;
  /// A queue that continues a sequence: its first element gets `firstIndex`.
  explicit RQueue(std::uint32_t firstIndex) { addChunk(0, firstIndex); }
  ~RQueue() { doClear(false); }

  /// Appends a copy and returns its index. Aborts if memory is exhausted.
  std::uint32_t enq(const T& value) {
    Array* tail = chunks_.tail();
    if (tail == nullptr || tail->full()) [[unlikely]]
      tail = extend(tail);
    const std::uint32_t offset = tail->writeCount();
    ::new (static_cast<void*>(tail->slot(offset))) T(value);
    tail->writeCountInc();
    return tail->baseIndex() + offset;
  }

  /// Removes and returns the first element, or returns a default value if the queue is empty.
  T deq() {
    Array* const tail = chunks_.tail();
    if (tail == nullptr) return T();
    Array* const first = Chunks::next(*tail);
    if (first->marker()) [[unlikely]]
      return T();
    T value = Base::relocate(*first->slot(first->readOffset()));
    first->readOffsetInc();
    if (first->usedUp()) [[unlikely]]
      dropFirst();
    return value;
  }

  /// Destroys all elements and frees all chunks. The next index continues the sequence with
  /// `keepSequence`, otherwise it is 1; an unused queue remains unused. The queue is empty before
  /// the first element is destroyed, whose destructor may enqueue.
  void doClear(bool keepSequence) {
    if (chunks_.empty()) return;
    const std::uint32_t next = this->nextIndex();
    Chunks old = std::exchange(chunks_, Chunks());
    if (keepSequence) addChunk(0, next);
    while (!old.empty()) {
      Array& chunk = old.pop();
      for (std::uint32_t offset = chunk.readOffset(); offset != chunk.writeCount(); ++offset) {
        chunk.slot(offset)->~T();
      }
      freeChunk(chunk);
    }
  }

 private:
  /// Adds a chunk after a full one, or to an unused queue.
  [[gnu::noinline]] Array* extend(Array* tail) {
    if (tail == nullptr) return addChunk(Array::kCapacityLeast, Base::kFirstIndex);
    const std::uint32_t next = tail->endIndex();
    if (!tail->marker()) return addChunk(Base::capacityFor(this->size()), next);
    freeChunk(chunks_.pop());
    return addChunk(Array::kCapacityLeast, next);
  }

  /// Frees the first chunk, which has no element left.
  [[gnu::noinline]] void dropFirst() {
    Array& used = chunks_.pop();
    if (chunks_.empty()) addChunk(0, used.endIndex());
    freeChunk(used);
  }

  Array* addChunk(std::uint32_t capacity, std::uint32_t baseIndex) {
    MemTrack::Impl::alloc(&Base::arrayTracker_, typeid(Array), sizeof(Array), 1);
    MemTrack::Impl::alloc(&arrayElemTracker_, typeid(RQueue), sizeof(T), capacity);
    void* const storage = OvSlab::slabAllocOrStdMalloc(
        static_cast<unsigned>(Array::bytes(capacity)), OvSlab::SlabAllocationPattern::longLived);
    if (storage == nullptr) std::abort();
    const std::uint32_t capacityLog = capacity == 0 ? 0 : powerOfTwoLog2(capacity);
    auto* const chunk = ::new (storage) Array(capacityLog, baseIndex);
    chunks_.push(*chunk);
    return chunk;
  }

  static void freeChunk(Array& chunk) noexcept {
    MemTrack::Impl::dealloc(Base::arrayTracker_, 1);
    MemTrack::Impl::dealloc(arrayElemTracker_, chunk.capacity());
    chunk.~Array();
    OvSlab::slabFreeOrStdFree(&chunk, typeid(Array));
  }

  /// Tracks the slots of queues with this tag; null until the first chunk.
  inline static void* arrayElemTracker_ = nullptr;
};

}  // namespace Fenrik

#include "Fenrik/RQueueIter.h"
