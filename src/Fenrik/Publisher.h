#pragma once

#include <cstdint>
#include <type_traits>

#include "Fenrik/Export.h"
#include "Fenrik/FieldId.h"

namespace Fenrik {

class QUARNBASTIL_EXPORT Publisher;
class QUARNBASTIL_EXPORT Subscriber;

/// One announced change of one attribute.
struct Change {
  enum class Kind : std::uint8_t {
    /// A scalar or a queue: `value` points to the new value, or to the affected index of a queue.
    plain,
    /// A keyed collection or a pointer attribute: `key` and `value` may be null.
    recursive,
  };

  /// Number of the changed attribute.
  FieldId fieldId;
  Kind kind = Kind::plain;
  const void* key = nullptr;
  const void* value = nullptr;
  /// Compares two keys of the attribute; may be null.
  bool (*isEq)(const void*, const void*) noexcept = nullptr;
};

/// Subscription of a reactor to one publisher.
///
/// Threads: those of the publisher. Destroying a subscriber unsubscribes it.
class QUARNBASTIL_EXPORT Subscriber {
 public:
  /// Entry point of the reactor. It may subscribe and unsubscribe any subscriber including itself,
  /// change the watched object again, or destroy it. `change` and the objects it points to are
  /// valid until it returns. An exception terminates the process.
  using Dispatch = void (*)(const Publisher& publisher, Subscriber& subscriber,
                            const Change& change) noexcept;

  Subscriber() noexcept = default;
  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;
  ~Subscriber();

  /// Null if not subscribed.
  Dispatch dispatch() const noexcept { return dispatch_; }
  bool subscribed() const noexcept { return dispatch_ != nullptr; }
  /// The publisher that it is attached to, or null.
  const Publisher* attachedTo() const noexcept { return attachedTo_; }

  /// Sets the entry point before a call of `Publisher::subscriberAdd`. REQUIRES: not subscribed.
  void dispatchIs(Dispatch dispatch) noexcept;

  /// Detaches it from its publisher, if any.
  void unsubscribe();

 private:
  friend class Publisher;

  /// Null while not subscribed.
  Dispatch dispatch_ = nullptr;
  /// The publisher that lists it, or null.
  const Publisher* attachedTo_ = nullptr;
  /// Neighbours in the order of notification.
  Subscriber* next_ = nullptr;
  Subscriber* prev_ = nullptr;
};

/// Announces the changes of the object that contains it.
///
/// I1. The first word is 1 exactly while no subscriber is attached, and may be read directly.
/// I2. A change is passed once to each subscriber that was attached when it was announced and has
///     not been detached since, in the order in which they were added.
/// I3. Every subscriber is notified of changes in the order in which they were made. A change made
///     within a notification is passed on after all earlier changes have been, and before its
///     mutator returns.
///
/// Publishing changes no attribute, so const objects can publish.
class QUARNBASTIL_EXPORT Publisher {
 public:
  /// Value of the first word while there is no subscriber.
  static constexpr std::uintptr_t kNoSubscriber = 1;

  Publisher() noexcept = default;
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;
  /// Detaches every subscriber.
  ~Publisher();

  bool hasSubscriber() const noexcept { return head_ != kNoSubscriber; }

  /// Announces a new value of a scalar, or a change of a queue at an index.
  void publishChange(FieldId fieldId, const void* value) const {
    if (hasSubscriber()) publish({fieldId, Change::Kind::plain, nullptr, value, nullptr});
  }

  /// Announces a change of a keyed collection or of a pointer attribute.
  void publishChangeRecursive(FieldId fieldId, const void* key, const void* value,
                              bool (*isEq)(const void*, const void*) noexcept) const {
    if (hasSubscriber()) publish({fieldId, Change::Kind::recursive, key, value, isEq});
  }

  /// Attaches a subscriber whose entry point has been set. It is notified before all attached ones
  /// with `atFront`, otherwise after them. A subscriber already attached here keeps its position.
  /// REQUIRES: not attached to another publisher.
  void subscriberAdd(Subscriber& subscriber, bool atFront) const;

  /// Detaches a subscriber and clears its entry point. Does nothing if it is not attached here.
  void subscriberRemove(Subscriber& subscriber) const;

 private:
  struct Walk;

  Subscriber* first() const noexcept {
    return hasSubscriber() ? reinterpret_cast<Subscriber*>(head_) : nullptr;
  }
  void publish(const Change& change) const;
  void unlink(Subscriber& subscriber) const noexcept;

  /// Address of the first subscriber, or `kNoSubscriber`.
  mutable std::uintptr_t head_ = kNoSubscriber;
  /// The last subscriber. Undefined if there is none.
  mutable Subscriber* last_ = nullptr;
  /// Announcements in progress, oldest first.
  mutable Walk* walks_ = nullptr;
};

static_assert(std::is_standard_layout_v<Publisher>, "the first word is read directly");

}  // namespace Fenrik
