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
    /// A scalar or a queue: `value` points at the new value, for a queue at the index affected.
    plain,
    /// A keyed collection or a pointer attribute: `key` may be null, `value` too.
    recursive,
  };

  FieldId fieldId;
  Kind kind = Kind::plain;
  const void* key = nullptr;
  const void* value = nullptr;
  /// Compares two keys of the attribute; may be null.
  bool (*isEq)(const void*, const void*) noexcept = nullptr;
};

/// The link by which a reactor object watches one publisher.
///
/// Threads: those of the publisher. A subscriber that is destroyed while subscribed unsubscribes.
class QUARNBASTIL_EXPORT Subscriber {
 public:
  /// The reactor's entry point. It may subscribe and unsubscribe anything, itself included, change
  /// the watched object again, or end it. `change` and what it points at hold until it returns. An
  /// exception that leaves it ends the process.
  using Dispatch = void (*)(const Publisher& publisher, Subscriber& subscriber,
                            const Change& change) noexcept;

  Subscriber() noexcept = default;
  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;
  ~Subscriber();

  /// Zero: not subscribed.
  Dispatch dispatch() const noexcept { return dispatch_; }
  bool subscribed() const noexcept { return dispatch_ != nullptr; }
  /// The publisher to which it is attached, or null.
  const Publisher* attachedTo() const noexcept { return attachedTo_; }

  /// Sets what `Publisher::subscriberAdd` is to call. REQUIRES: not subscribed.
  void dispatchIs(Dispatch dispatch) noexcept;

  /// Detaches it from the publisher to which it is attached, if any.
  void unsubscribe();

 private:
  friend class Publisher;

  /// Null while not subscribed.
  Dispatch dispatch_ = nullptr;
  /// The publisher that has it in its list, or null.
  const Publisher* attachedTo_ = nullptr;
  /// Neighbours in the order of telling.
  Subscriber* next_ = nullptr;
  Subscriber* prev_ = nullptr;
};

/// Announces the changes of the object in which it is embedded.
///
/// I1. The first word is 1 exactly while no subscriber is attached, and may be read directly.
/// I2. A change reaches the subscribers in the order in which they were added, once each: those
///     attached when it was announced and not detached before their turn.
/// I3. Every subscriber hears the changes in the order in which they were made. One that is made
///     in a dispatch is told when all have heard of those before it, and before its mutator
///     returns.
///
/// Publishing changes no attribute, so a const object publishes too.
class QUARNBASTIL_EXPORT Publisher {
 public:
  /// Value of the first word while nobody subscribes.
  static constexpr std::uintptr_t kNoSubscriber = 1;

  Publisher() noexcept = default;
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;
  /// Detaches every subscriber.
  ~Publisher();

  bool hasSubscriber() const noexcept { return head_ != kNoSubscriber; }

  /// Announces that a scalar has the new value, or that a queue changed at an index.
  void publishChange(FieldId fieldId, const void* value) const {
    if (hasSubscriber()) publish({fieldId, Change::Kind::plain, nullptr, value, nullptr});
  }

  /// Announces a change of a keyed collection or of a pointer attribute.
  void publishChangeRecursive(FieldId fieldId, const void* key, const void* value,
                              bool (*isEq)(const void*, const void*) noexcept) const {
    if (hasSubscriber()) publish({fieldId, Change::Kind::recursive, key, value, isEq});
  }

  /// Attaches a subscriber whose dispatch has been set. With `atFront` it is told before all those
  /// that are attached, otherwise after them. A subscriber that is attached already stays where it
  /// is. REQUIRES: it is not attached to another publisher.
  void subscriberAdd(Subscriber& subscriber, bool atFront) const;

  /// Detaches a subscriber and zeroes its dispatch. One that is not attached here is left alone.
  void subscriberRemove(Subscriber& subscriber) const;

 private:
  struct Walk;

  Subscriber* first() const noexcept {
    return hasSubscriber() ? reinterpret_cast<Subscriber*>(head_) : nullptr;
  }
  void publish(const Change& change) const;
  void unlink(Subscriber& subscriber) const noexcept;

  /// The first subscriber's address, or `kNoSubscriber`.
  mutable std::uintptr_t head_ = kNoSubscriber;
  /// The last subscriber; meaningless while there is none.
  mutable Subscriber* last_ = nullptr;
  /// The announcements under way, oldest first.
  mutable Walk* walks_ = nullptr;
};

static_assert(std::is_standard_layout_v<Publisher>, "the first word is read directly");

}  // namespace Fenrik
