#pragma once

#include <compare>
#include <cstddef>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "Fenrik/Assert.h"
#include "Fenrik/Node.h"

/// Inlined even if the compiler's limit of growth is exceeded.
#define FENRIK_INLINE [[gnu::always_inline]]

namespace Fenrik {

/// Tag: the pointer takes over a reference that has already been counted.
struct AdoptReference {};

/// Counted pointer to a node: one word, either null or owning one reference.
///
/// Pass as `const Ptr<T>&`, without a reference of its own; a function copies the pointer only to
/// store it. A returned `Ptr<T>` owns a reference. Dereferencing null is undefined.
template <class T>
class QUARNBASTIL_EXPORT Ptr {
 public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  FENRIK_INLINE explicit Ptr(T* node) noexcept : node_(node) { takeReference(); }
  FENRIK_INLINE constexpr Ptr(T* node, AdoptReference) noexcept : node_(node) {}

  FENRIK_INLINE Ptr(const Ptr& other) noexcept : node_(other.node_) { takeReference(); }
  FENRIK_INLINE constexpr Ptr(Ptr&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> FENRIK_INLINE Ptr(const Ptr<U>& other)
  noexcept : node_(other.get()) { takeReference(); }
  template <class U>
  requires std::is_convertible_v<U*, T*> FENRIK_INLINE Ptr(Ptr<U>&& other)
  noexcept : node_(other.release()) {}

  FENRIK_INLINE ~Ptr() { dropReference(node_); }

  /// Takes the new reference before dropping the old one: the old one may be all that keeps the new
  /// node alive.
  FENRIK_INLINE Ptr& operator=(const Ptr& other) noexcept {
    other.takeReference();
    dropReference(std::exchange(node_, other.node_));
    return *this;
  }
  FENRIK_INLINE Ptr& operator=(Ptr&& other) noexcept {
    dropReference(std::exchange(node_, other.release()));
    return *this;
  }

  T* get() const noexcept { return node_; }
  T* operator->() const noexcept { return node_; }
  T& operator*() const noexcept { return *node_; }
  explicit operator bool() const noexcept { return node_ != nullptr; }

  /// Transfers the reference to the caller and becomes null.
  [[nodiscard]] T* release() noexcept { return std::exchange(node_, nullptr); }

  void swap(Ptr& other) noexcept { std::swap(node_, other.node_); }
  friend void swap(Ptr& a, Ptr& b) noexcept { a.swap(b); }

  template <class U>
  friend bool operator==(const Ptr& a, const Ptr<U>& b) noexcept {
    return a.get() == b.get();
  }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.node_ == nullptr; }

 private:
  FENRIK_INLINE void takeReference() const noexcept {
    if (node_ != nullptr) node_->incUseCount();
  }

  FENRIK_INLINE static void dropReference(T* node) {
    if (node == nullptr) return;
    if constexpr (std::is_final_v<T>) {
      // The exact class is known, so destruction needs no virtual call.
      if (node->decUseCount()) Impl::nodeEnd(const_cast<std::remove_const_t<T>*>(node));
    } else {
      node->decUseImpl();
    }
  }

  /// Null, or a node on which this pointer holds a reference.
  T* node_ = nullptr;
};

template <class T>
Ptr(T*) -> Ptr<T>;

/// A `Ptr` that is never null (asserted at construction).
template <class T>
class QUARNBASTIL_EXPORT NonNullPtr {
 public:
  using element_type = T;

  template <class U>
  requires std::is_convertible_v<U*, T*> NonNullPtr(const Ptr<U>& ptr) : ptr_(ptr) {
    FENRIK_ASSERT(ptr_ != nullptr);
  }
  template <class U>
  requires std::is_convertible_v<U*, T*> NonNullPtr(Ptr<U>&& ptr) : ptr_(std::move(ptr)) {
    FENRIK_ASSERT(ptr_ != nullptr);
  }
  template <class U>
  requires std::is_convertible_v<U*, T*> FENRIK_INLINE NonNullPtr(const NonNullPtr<U>& other)
      : ptr_(other.ptr()) {}
  FENRIK_INLINE NonNullPtr(const NonNullPtr& other) noexcept : ptr_(other.ptr_) {}
  FENRIK_INLINE NonNullPtr& operator=(const NonNullPtr& other) noexcept {
    ptr_ = other.ptr_;
    return *this;
  }
  FENRIK_INLINE ~NonNullPtr() {}

  const Ptr<T>& ptr() const noexcept { return ptr_; }
  operator const Ptr<T>&() const noexcept { return ptr_; }
  T* get() const noexcept { return ptr_.get(); }
  T* operator->() const noexcept { return ptr_.get(); }
  T& operator*() const noexcept { return *ptr_; }

  template <class U>
  friend bool operator==(const NonNullPtr& a, const NonNullPtr<U>& b) noexcept {
    return a.get() == b.get();
  }

 private:
  Ptr<T> ptr_;
};

/// Static cast; the result has its own reference.
template <class T, class U>
Ptr<T> staticPtrCast(const Ptr<U>& ptr) noexcept {
  return Ptr<T>(static_cast<T*>(ptr.get()));
}

/// Dynamic cast; null if the node is of another class.
template <class T, class U>
Ptr<T> dynamicPtrCast(const Ptr<U>& ptr) noexcept {
  if constexpr (std::is_final_v<T>) {
    // A final class: comparing the types suffices, no search of base classes is needed.
    const bool same = ptr != nullptr && typeid(*ptr) == typeid(T);
    return Ptr<T>(same ? static_cast<T*>(ptr.get()) : nullptr);
  } else {
    return Ptr<T>(dynamic_cast<T*>(ptr.get()));
  }
}

}  // namespace Fenrik

template <class T>
struct std::hash<Fenrik::Ptr<T>> {
  std::size_t operator()(const Fenrik::Ptr<T>& ptr) const noexcept {
    return std::hash<T*>()(ptr.get());
  }
};
