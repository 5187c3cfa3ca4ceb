#pragma once

#include "Fenrik/Export.h"
#include "Fenrik/Node.h"
#include "Fenrik/Publisher.h"

namespace Fenrik {

/// Makes a node class a reactor, which watches one object and is notified of its changes. `Self` is
/// the class itself and provides
///
///     const Fenrik::Publisher* watchedPublisher() const;   // null while there is nothing to watch
///     void handleChange(const Fenrik::Change& change);
///
/// and calls `reactorStop()` at the start of its destructor, while the watched object still exists.
///
/// `FENRIK_POINTER` attributes of the class call `watchedMoved` automatically.
///
/// I1. A change is passed on only while the subscription is active and the zombie flag is clear.
/// I2. An exception from `handleChange` terminates the process.
template <class Self, class Base = Node>
class QUARNBASTIL_EXPORT Reacting : public Base, private Subscriber {
 public:
  using Base::Base;

  bool hasNotificationActive() const noexcept {
    return this->nodeFlag(NodeFlag::hasNotificationActive);
  }

  /// Activates or deactivates the subscription. The object does not react while it changes.
  void hasNotificationActiveIs(bool active) {
    if (hasNotificationActive() == active) return;
    this->nodeFlagSet(NodeFlag::hasNotificationActive, active);
    watchAsItIsNow();
  }

  /// Moves an active subscription to the publisher that `watchedPublisher` now returns. Call when
  /// that may have changed.
  void watchedMoved() {
    if (hasNotificationActive()) watchAsItIsNow();
  }

  /// Sets the zombie flag and returns its previous value.
  virtual bool kivDoZombieReactors(bool zombie) {
    const bool former = this->nodeFlag(NodeFlag::kivDoZombieReactors);
    if (former != zombie) this->nodeFlagSet(NodeFlag::kivDoZombieReactors, zombie);
    return former;
  }

 protected:
  bool reactorSubscribed() const noexcept { return Subscriber::subscribed(); }

  /// Permanently stops reacting.
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
