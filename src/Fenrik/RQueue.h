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

/// What a queue is apart from its name for allocation tracking: a ring of chunks, reached through
/// the last. See `RQueue`.
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

  /// Index of the first element, or of the next one to come while the queue is empty.
  std::uint32_t frontIndex() const noexcept {
    const Array* const tail = chunks_.tail();
    return tail == nullptr ? kFirstIndex : Chunks::next(*tail)->startIndex();
  }

  /// Index of the last element; one before the front index while the queue is empty.
  std::uint32_t backIndex() const noexcept { return nextIndex() - 1; }

  /// Whether an element of that index is queued.
  bool has(std::uint32_t index) const noexcept { return index - frontIndex() < size(); }

  /// The element of that index, or null if it is not queued. Constant time in the last chunk and
  /// linear in the chunks otherwise.
  const T* find(std::uint32_t index) const noexcept {
    const Array* chunk = findChunk(index);
    return chunk != nullptr ? chunk->slot(index - chunk->baseIndex()) : nullptr;
  }

  /// The elements at the ends; null while the queue is empty.
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

  /// Index of the first element of a queue; 0 is the index of none.
  static constexpr std::uint32_t kFirstIndex = 1;

  static_assert(std::is_nothrow_copy_constructible_v<T> && std::is_nothrow_move_constructible_v<T>);

  RQueueBase() noexcept = default;
  ~RQueueBase() = default;

  std::uint32_t nextIndex() const noexcept {
    const Array* const tail = chunks_.tail();
    return tail == nullptr ? kFirstIndex : tail->endIndex();
  }

  /// The chunk that holds the element of that index, or null. A difference of indices says where
  /// one lies in a run of others, on both sides of the wrap.
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

  /// Capacity of the chunk that is added when `size` elements fill those that are there.
  static std::uint32_t capacityFor(std::uint32_t size) noexcept {
    return size < Array::kCapacityLeast   ? Array::kCapacityLeast
           : size >= Array::kCapacityMost ? Array::kCapacityMost
                                          : std::bit_ceil(size + 1);
  }

  /// Moves the value out of a slot that is not an element any more and is never destroyed.
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

  /// Shared by the queues of one element type.
  inline static void* arrayTracker_ = nullptr;

  Chunks chunks_;
};

/// A first-in, first-out queue whose elements are addressed by a sequence index, which rises by one
/// with every element, wraps after 2^32 of them, and is never changed while the element is queued.
/// `Tag` only names the queue where allocations are tracked. The second parameter is false.
///
/// Threads: one.
///
/// I1. The queue is one pointer; one that was never used holds no memory.
/// I2. A chunk goes with its last element. A queue that was used and is empty has a marker for its
///     sole chunk, in which the sequence survives.
/// I3. Elements never move: chunks are added, each as large as the queue has grown to, from 8
///     elements up to 8192.
///
/// Cost: constant to enqueue and dequeue; memory is asked for where a chunk begins, so a queue of a
/// steady length asks for it ever more rarely, until a chunk fits the length.
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
  /// A queue that goes on with a sequence: its first element gets `firstIndex`.
  explicit RQueue(std::uint32_t firstIndex) { addChunk(0, firstIndex); }
  ~RQueue() { doClear(false); }

  /// Appends a copy and returns its index. Memory that runs out ends the process.
  std::uint32_t enq(const T& value) {
    Array* tail = chunks_.tail();
    if (tail == nullptr || tail->full()) [[unlikely]]
      tail = extend(tail);
    const std::uint32_t offset = tail->writeCount();
    ::new (static_cast<void*>(tail->slot(offset))) T(value);
    tail->writeCountInc();
    return tail->baseIndex() + offset;
  }

  /// Removes the first element and returns it; a default value while the queue is empty.
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

  /// Frees all chunks and drops their elements. With `keepSequence` the next element gets the index
  /// that it would have had, otherwise 1; a queue that was never used stays so. An element that
  /// goes finds the queue empty already, and may enqueue.
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
  /// Makes room behind a chunk that is full, or in a queue that was never used.
  [[gnu::noinline]] Array* extend(Array* tail) {
    if (tail == nullptr) return addChunk(Array::kCapacityLeast, Base::kFirstIndex);
    const std::uint32_t next = tail->endIndex();
    if (!tail->marker()) return addChunk(Base::capacityFor(this->size()), next);
    freeChunk(chunks_.pop());
    return addChunk(Array::kCapacityLeast, next);
  }

  /// Gives up the first chunk, in which nothing is left.
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

  /// Counts the slots of the queues of this tag; null until the first chunk.
  inline static void* arrayElemTracker_ = nullptr;
};

}  // namespace Fenrik

#include "Fenrik/RQueueIter.h"
