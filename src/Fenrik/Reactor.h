#pragma once

#include "Fenrik/Export.h"
#include "Fenrik/Node.h"
#include "Fenrik/Publisher.h"

namespace Fenrik {

/// Gives a node class the part of a reactor: it watches one object and is told of its changes.
/// `Self` is the class itself and provides
///
///     const Fenrik::Publisher* watchedPublisher() const;   // null while there is nothing to watch
///     void handleChange(const Fenrik::Change& change);
///
/// and its destructor begins with `reactorStop()`, while what it watches is still there.
///
/// `FENRIK_POINTER` attributes of the class call `watchedMoved` by themselves.
///
/// I1. A change is handed on only while the subscription is active and the zombie flag is clear.
/// I2. An exception that leaves `handleChange` ends the process.
template <class Self, class Base = Node>
class QUARNBASTIL_EXPORT Reacting : public Base, private Subscriber {
 public:
  using Base::Base;

  bool hasNotificationActive() const noexcept {
    return this->nodeFlag(NodeFlag::hasNotificationActive);
  }

  /// Switches the subscription; the present value does nothing. While it changes, the object does
  /// not react.
  void hasNotificationActiveIs(bool active) {
    if (hasNotificationActive() == active) return;
    this->nodeFlagSet(NodeFlag::hasNotificationActive, active);
    watchAsItIsNow();
  }

  /// Moves an active subscription to what `watchedPublisher` returns now. To be called when that
  /// may be another one than before.
  void watchedMoved() {
    if (hasNotificationActive()) watchAsItIsNow();
  }

  /// Sets the zombie flag, if it differs, and returns its former value.
  virtual bool kivDoZombieReactors(bool zombie) {
    const bool former = this->nodeFlag(NodeFlag::kivDoZombieReactors);
    if (former != zombie) this->nodeFlagSet(NodeFlag::kivDoZombieReactors, zombie);
    return former;
  }

 protected:
  bool reactorSubscribed() const noexcept { return Subscriber::subscribed(); }

  /// Ends all reacting for good.
  void reactorStop() {
    hasNotificationActiveIs(false);
    this->nodeFlagSet(NodeFlag::kivDoZombieReactors, true);
    unsubscribe();
  }

 private:
  void watchAsItIsNow() {
    const Publisher* const watched =
        hasNotificationActive() ? static_cast<const Self*>(this)->watchedPublisher() : nullptr;
    if (attachedTo() == watched) return;
    const bool former = kivDoZombieReactors(true);
    unsubscribe();
    if (watched != nullptr) subscribe(*watched);
    kivDoZombieReactors(former);
  }

  void subscribe(const Publisher& watched) {
    dispatchIs([](const Publisher&, Subscriber& subscriber, const Change& change) noexcept {
      auto& self = static_cast<Self&>(static_cast<Reacting&>(subscriber));
      if (self.nodeFlag(NodeFlag::kivDoZombieReactors)) return;
      self.handleChange(change);
    });
    watched.subscriberAdd(*this, false);
  }
};

}  // namespace Fenrik
