#pragma once

#include "Fenrik/Assert.h"

namespace Fenrik {

/// The link that an element of an `IntrusiveLinkedTailQueue` embeds. Null: not linked. It must be
/// so when the element goes.
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

/// A queue of elements that it does not own: one pointer to the last of a ring, which links to the
/// first, so that both ends are at hand.
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

  /// The element behind `element`; the first one behind the last.
  static Element* next(const Element& element) noexcept { return (element.*link).next(); }

  /// Makes `element` the last.
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
