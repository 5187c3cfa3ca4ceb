#include "Fenrik/Publisher.h"

#include "Fenrik/Assert.h"

namespace Fenrik {

/// One announcement under way, on the stack of its `publish`. A subscriber that goes while it is
/// next is stepped over.
struct Publisher::Walk {
  const Change& change;
  /// The subscriber to be told next; null when all have been.
  Subscriber* next;
  /// Those behind it came later and are not told.
  Subscriber* lastAtStart;
  Walk* newer = nullptr;
  bool publisherGone = false;
};

Subscriber::~Subscriber() { unsubscribe(); }

void Subscriber::unsubscribe() {
  if (attachedTo_ != nullptr) attachedTo_->subscriberRemove(*this);
}

void Subscriber::dispatchIs(Dispatch dispatch) noexcept {
  FENRIK_ASSERT(attachedTo_ == nullptr);
  dispatch_ = dispatch;
}

Publisher::~Publisher() {
  for (Walk* walk = walks_; walk != nullptr; walk = walk->newer) walk->publisherGone = true;
  while (Subscriber* subscriber = first()) subscriberRemove(*subscriber);
}

void Publisher::subscriberAdd(Subscriber& subscriber, bool atFront) const {
  if (subscriber.attachedTo_ == this) return;
  FENRIK_ASSERT(subscriber.attachedTo_ == nullptr);
  FENRIK_ASSERT(subscriber.dispatch_ != nullptr);
  subscriber.attachedTo_ = this;
  Subscriber* const head = first();
  subscriber.next_ = atFront ? head : nullptr;
  subscriber.prev_ = atFront ? nullptr : last_;
  if (subscriber.next_ != nullptr) subscriber.next_->prev_ = &subscriber;
  if (subscriber.prev_ != nullptr) subscriber.prev_->next_ = &subscriber;
  if (atFront || head == nullptr) head_ = reinterpret_cast<std::uintptr_t>(&subscriber);
  if (!atFront || head == nullptr) last_ = &subscriber;
}

void Publisher::subscriberRemove(Subscriber& subscriber) const {
  if (subscriber.attachedTo_ != this) return;
  for (Walk* walk = walks_; walk != nullptr; walk = walk->newer) {
    if (walk->next == &subscriber) {
      walk->next = walk->lastAtStart == &subscriber ? nullptr : subscriber.next_;
    } else if (walk->lastAtStart == &subscriber) {
      walk->lastAtStart = subscriber.prev_;
    }
  }
  unlink(subscriber);
  subscriber.attachedTo_ = nullptr;
  subscriber.dispatch_ = nullptr;
}

void Publisher::unlink(Subscriber& subscriber) const noexcept {
  if (subscriber.prev_ != nullptr) {
    subscriber.prev_->next_ = subscriber.next_;
  } else {
    head_ = subscriber.next_ != nullptr ? reinterpret_cast<std::uintptr_t>(subscriber.next_)
                                        : kNoSubscriber;
  }
  if (subscriber.next_ != nullptr) {
    subscriber.next_->prev_ = subscriber.prev_;
  } else {
    last_ = subscriber.prev_;
  }
  subscriber.next_ = subscriber.prev_ = nullptr;
}

/// Announcements are told oldest first, whoever's `publish` runs: one that was made in a dispatch
/// first brings those before it to the subscribers that have not heard of them yet.
void Publisher::publish(const Change& change) const {
  Walk walk{change, first(), last_};
  Walk** end = &walks_;
  while (*end != nullptr) end = &(*end)->newer;
  *end = &walk;
  Walk* oldest = walks_;
  while (walk.next != nullptr) {
    while (oldest->next == nullptr) oldest = oldest->newer;
    Subscriber* const subscriber = oldest->next;
    oldest->next = subscriber == oldest->lastAtStart ? nullptr : subscriber->next_;
    subscriber->dispatch_(*this, *subscriber, oldest->change);
    if (walk.publisherGone) return;
  }
  // Older announcements stay listed until their own `publish` returns: it has to hear whether the
  // publisher has gone. Newer ones have returned.
  *end = nullptr;
}

}  // namespace Fenrik
