#pragma once

#include <cstdint>

#include "Fenrik/Attribute.h"
#include "Fenrik/RQueue.h"

namespace Fenrik::Impl {

/// Common code of queue attributes. Each change is announced after it was made, with the affected
/// sequence index.
template <class Queue, class T>
void queueEnq(const Publisher& publisher, FieldId fieldId, Queue& queue, const T& value) {
  const std::uint32_t index = queue.enq(value);
  publisher.publishChange(fieldId, &index);
}

template <class T, class Queue>
T queueDeq(const Publisher& publisher, FieldId fieldId, Queue& queue) {
  if (queue.empty()) return T();
  const std::uint32_t index = queue.frontIndex();
  T value = queue.deq();
  publisher.publishChange(fieldId, &index);
  return value;
}

/// Removes all at once; one by one if there is a subscriber, so that each removal is announced.
template <class T, class Queue>
void queueDelAll(const Publisher& publisher, FieldId fieldId, Queue& queue) {
  if (!publisher.hasSubscriber()) return queue.doClear(true);
  while (!queue.empty()) queueDeq<T>(publisher, fieldId, queue);
}

template <class T>
T queueValue(const T* element) {
  return element != nullptr ? *element : T();
}

}  // namespace Fenrik::Impl

/// Each line declares one queue attribute, as in `Fenrik/Attribute.h`: its row in the attribute
/// table, its storage `name_` and its operations. `Tag` is a type that identifies the queue in
/// allocation tracking.
///
///     struct QE_Order;
///     FENRIK_QUEUE(kFieldBase + 5, order, Fenrik::Ptr<Order>, QE_Order);
///
///     orderEnq(value), orderDeq(), orderFront(), orderBack(): null while the queue is empty
///     order(index), orderHas(index): by sequence index, null or false if it is not queued
///     orderDelAll(), orderCount()
///     orderIter(), orderIter(index): for (auto it = orderIter(); it.valid(); it.increment())
#define FENRIK_QUEUE(number, name, T, Tag)                                                      \
  FENRIK_ATTRIBUTE_FACT(number, name, queue)                                                    \
  void name##Enq(const T& value) {                                                              \
    ::Fenrik::Impl::queueEnq(this->publisher_, ::Fenrik::FieldId(number), name##_, value);      \
  }                                                                                             \
  T name##Deq() {                                                                               \
    return ::Fenrik::Impl::queueDeq<T>(this->publisher_, ::Fenrik::FieldId(number), name##_);   \
  }                                                                                             \
  T name##Front() const { return ::Fenrik::Impl::queueValue(name##_.front()); }                 \
  T name##Back() const { return ::Fenrik::Impl::queueValue(name##_.back()); }                   \
  T name(std::uint32_t index) const { return ::Fenrik::Impl::queueValue(name##_.find(index)); } \
  bool name##Has(std::uint32_t index) const { return name##_.has(index); }                      \
  std::uint32_t name##Count() const { return name##_.size(); }                                  \
  ::Fenrik::RQueueBaseConstIter<T> name##Iter() const {                                         \
    return ::Fenrik::RQueueBaseConstIter<T>(name##_);                                           \
  }                                                                                             \
  ::Fenrik::RQueueBaseConstIter<T> name##Iter(std::uint32_t index) const {                      \
    return ::Fenrik::RQueueBaseConstIter<T>(name##_, index);                                    \
  }                                                                                             \
  void name##DelAll() {                                                                         \
    ::Fenrik::Impl::queueDelAll<T>(this->publisher_, ::Fenrik::FieldId(number), name##_);       \
  }                                                                                             \
                                                                                                \
 private:                                                                                       \
  ::Fenrik::RQueue<T, false, Tag> name##_
