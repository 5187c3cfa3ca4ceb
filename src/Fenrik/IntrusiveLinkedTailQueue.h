#pragma once

#include "Fenrik/Assert.h"

namespace Fenrik {

/// Link embedded in an element of an `IntrusiveLinkedTailQueue`. Null if the element is not linked,
/// as required at its destruction.
template <class Element>
class IntrusiveLinkedTailQueueLink {
 public:
  IntrusiveLinkedTailQueueLink() noexcept = default;
  IntrusiveLinkedTailQueueLink(const IntrusiveLinkedTailQueueLink&) = delete;
  IntrusiveLinkedTailQueueLink& operator=(const IntrusiveLinkedTailQueueLink&) = delete;
  ~IntrusiveLinkedTailQueueLink() { FENRIK_ASSERT_TEXT(!linked(), "!linked()"); }

  bool linked() const noexcept { return next_ != nullptr; }
  Element* next() const noexcept { return next_; }
  void nextIs(Element* next) noexcept { next_ = next; }

 private:
  Element* next_ = nullptr;
};

/// A queue that does not own its elements: a pointer to the last element of a ring, which links to
/// the first.
template <class Element, IntrusiveLinkedTailQueueLink<Element> Element::*link>
class IntrusiveLinkedTailQueue {
 public:
  bool empty() const noexcept { return tail_ == nullptr; }

  /// The last element, or null.
  Element* tail() const noexcept { return tail_; }

  /// The first element. REQUIRES: not empty.
  Element* front() const {
    FENRIK_ASSERT_TEXT(tail_ != nullptr, "tail_ != nullptr");
    return next(*tail_);
  }

  /// The element after `element`; after the last one, the first.
  static Element* next(const Element& element) noexcept { return (element.*link).next(); }

  /// Appends `element`.
  void push(Element& element) noexcept {
    if (tail_ == nullptr) {
      (element.*link).nextIs(&element);
    } else {
      (element.*link).nextIs(next(*tail_));
      (tail_->*link).nextIs(&element);
    }
    tail_ = &element;
  }

  /// Unlinks the first element. REQUIRES: not empty.
  Element& pop() {
    Element& first = *front();
    if (&first == tail_) {
      tail_ = nullptr;
    } else {
      (tail_->*link).nextIs(next(first));
    }
    (first.*link).nextIs(nullptr);
    return first;
  }

 private:
  Element* tail_ = nullptr;
};

}  // namespace Fenrik
