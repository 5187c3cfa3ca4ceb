#include "Fenrik/Publisher.h"

#include "Fenrik/Assert.h"

namespace Fenrik {

/// One announcement in progress, on the stack of its `publish`. A subscriber that is removed while
/// it is next is skipped.
struct Publisher::Walk {
  const Change& change;
  /// The subscriber to be notified next, or null at the end.
  Subscriber* next;
  /// The last subscriber to notify: those after it were added later.
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

/// Announcements are passed on oldest first. One made within a notification therefore first
/// completes the earlier ones for the subscribers that have not received them yet.
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
  // Older announcements remain listed until their own `publish` returns, which must learn whether
  // the publisher has been destroyed. Newer ones have returned.
  *end = nullptr;
}

}  // namespace Fenrik
