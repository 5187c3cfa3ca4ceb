#pragma once

#include <type_traits>

namespace Fenrik {

/// Atomic operations on a plain word for inline code, based on compiler builtins: <atomic> would
/// add 36,000 lines to every source that includes a node.
///
/// The word is aligned to its size. Operations without an order in their name are sequentially
/// consistent.
template <class T>
class AtomicRef {
  static_assert(std::is_trivially_copyable_v<T>);
  static_assert(__atomic_always_lock_free(sizeof(T), nullptr));

 public:
  explicit constexpr AtomicRef(T& word) noexcept : word_(&word) {}

  T load() const noexcept { return __atomic_load_n(word_, __ATOMIC_SEQ_CST); }
  T loadAcquire() const noexcept { return __atomic_load_n(word_, __ATOMIC_ACQUIRE); }
  T loadRelaxed() const noexcept { return __atomic_load_n(word_, __ATOMIC_RELAXED); }
  void storeRelease(T value) const noexcept { __atomic_store_n(word_, value, __ATOMIC_RELEASE); }
  void storeRelaxed(T value) const noexcept { __atomic_store_n(word_, value, __ATOMIC_RELAXED); }

  /// Return the previous value.
  T fetchAdd(T value) const noexcept { return __atomic_fetch_add(word_, value, __ATOMIC_SEQ_CST); }
  T fetchSub(T value) const noexcept { return __atomic_fetch_sub(word_, value, __ATOMIC_SEQ_CST); }
  T fetchOr(T value) const noexcept { return __atomic_fetch_or(word_, value, __ATOMIC_SEQ_CST); }
  T fetchAnd(T value) const noexcept { return __atomic_fetch_and(word_, value, __ATOMIC_SEQ_CST); }

  /// If the word equals `expected`, stores `value` and returns true; otherwise stores the word in
  /// `expected`.
  bool compareExchange(T& expected, T value) const noexcept {
    return __atomic_compare_exchange_n(word_, &expected, value, false, __ATOMIC_SEQ_CST,
                                       __ATOMIC_SEQ_CST);
  }

 private:
  T* word_;
};

template <class T>
AtomicRef(T&) -> AtomicRef<T>;

/// A word with these operations.
template <class T>
class Atomic {
 public:
  constexpr Atomic() noexcept = default;
  constexpr Atomic(T value) noexcept : word_(value) {}
  Atomic(const Atomic&) = delete;
  Atomic& operator=(const Atomic&) = delete;

  T load() const noexcept { return ref().load(); }
  T loadAcquire() const noexcept { return ref().loadAcquire(); }
  T loadRelaxed() const noexcept { return ref().loadRelaxed(); }
  void storeRelease(T value) noexcept { ref().storeRelease(value); }
  void storeRelaxed(T value) noexcept { ref().storeRelaxed(value); }
  T fetchAdd(T value) noexcept { return ref().fetchAdd(value); }
  bool compareExchange(T& expected, T value) noexcept {
    return ref().compareExchange(expected, value);
  }

 private:
  AtomicRef<T> ref() const noexcept { return AtomicRef<T>(word_); }

  alignas(sizeof(T)) mutable T word_{};
};

}  // namespace Fenrik
