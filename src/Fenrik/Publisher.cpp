#include "Fenrik/Publisher.h"

#include "Fenrik/Assert.h"

namespace Fenrik {

/// One announcement under way: where it goes on, and whether the publisher still lives. A
/// subscriber that goes while it is next is stepped over.
struct Publisher::Walk {
  Walk* outer;
  Subscriber* next;
  Subscriber* lastAtStart;
  bool publisherGone = false;
};

Subscriber::~Subscriber() { unsubscribe(); }

void Subscriber::unsubscribe() {
  if (publisher_ != nullptr) publisher_->subscriberRemove(*this);
}

void Subscriber::dispatchIs(Dispatch dispatch) noexcept {
  FENRIK_ASSERT(publisher_ == nullptr);
  dispatch_ = dispatch;
}

Publisher::~Publisher() {
  for (Walk* walk = walks_; walk != nullptr; walk = walk->outer) walk->publisherGone = true;
  while (Subscriber* subscriber = first()) subscriberRemove(*subscriber);
}

void Publisher::subscriberAdd(Subscriber& subscriber, bool atFront) const {
  if (subscriber.publisher_ == this) return;
  FENRIK_ASSERT(subscriber.publisher_ == nullptr);
  FENRIK_ASSERT(subscriber.dispatch_ != nullptr);
  subscriber.publisher_ = this;
  Subscriber* const head = first();
  subscriber.next_ = atFront ? head : nullptr;
  subscriber.prev_ = atFront ? nullptr : last_;
  if (subscriber.next_ != nullptr) subscriber.next_->prev_ = &subscriber;
  if (subscriber.prev_ != nullptr) subscriber.prev_->next_ = &subscriber;
  if (atFront || head == nullptr) head_ = reinterpret_cast<std::uintptr_t>(&subscriber);
  if (!atFront || head == nullptr) last_ = &subscriber;
}

void Publisher::subscriberRemove(Subscriber& subscriber) const {
  if (subscriber.publisher_ != this) return;
  for (Walk* walk = walks_; walk != nullptr; walk = walk->outer) {
    if (walk->next == &subscriber) {
      walk->next = walk->lastAtStart == &subscriber ? nullptr : subscriber.next_;
    } else if (walk->lastAtStart == &subscriber) {
      walk->lastAtStart = subscriber.prev_;
    }
  }
  unlink(subscriber);
  subscriber.publisher_ = nullptr;
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

void Publisher::publish(const Change& change) const {
  Walk walk{walks_, first(), last_};
  walks_ = &walk;
  while (walk.next != nullptr) {
    Subscriber* const subscriber = walk.next;
    walk.next = subscriber == walk.lastAtStart ? nullptr : subscriber->next_;
    subscriber->dispatch_(*this, *subscriber, change);
    if (walk.publisherGone) return;
  }
  walks_ = walk.outer;
}

}  // namespace Fenrik
