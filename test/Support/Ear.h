#pragma once

#include <functional>

#include "Fenrik/Publisher.h"

namespace Support {

/// A subscriber that runs a piece of the test.
struct Ear : Fenrik::Subscriber {
  Ear() = default;
  Ear(const Fenrik::Publisher& publisher, std::function<void(const Fenrik::Change&)> told)
      : hear(std::move(told)) {
    attach(publisher);
  }

  void attach(const Fenrik::Publisher& publisher, bool atFront = false) {
    dispatchIs([](const Fenrik::Publisher&, Subscriber& self,
                  const Fenrik::Change& change) noexcept { static_cast<Ear&>(self).hear(change); });
    publisher.subscriberAdd(*this, atFront);
  }

  std::function<void(const Fenrik::Change&)> hear;
};

}  // namespace Support
