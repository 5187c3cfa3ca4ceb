#include "Fenrik/ForkGuard.h"

#include <pthread.h>

#include <type_traits>

namespace Fenrik {

// Trivial destructor, because a process may fork while it exits.
static_assert(std::is_trivially_destructible_v<ForkGuard>);

constinit ForkGuard* ForkGuard::first_ = nullptr;
constinit ForkGuard* ForkGuard::last_ = nullptr;

ForkGuard::ForkGuard(ForkOrder order, Step before, Step inParent, Step inChild) noexcept
    : order_(order), before_(before), inParent_(inParent), inChild_(inChild) {
  if (first_ == nullptr) ::pthread_atfork(beforeAll, inParentAll, inChildAll);
  for (next_ = first_; next_ != nullptr && next_->order_ <= order; next_ = next_->next_) {
    prev_ = next_;
  }
  (prev_ != nullptr ? prev_->next_ : first_) = this;
  (next_ != nullptr ? next_->prev_ : last_) = this;
}

void ForkGuard::beforeAll() {
  for (const ForkGuard* guard = first_; guard != nullptr; guard = guard->next_) guard->before_();
}

void ForkGuard::inParentAll() {
  for (const ForkGuard* guard = last_; guard != nullptr; guard = guard->prev_) guard->inParent_();
}

void ForkGuard::inChildAll() {
  for (const ForkGuard* guard = last_; guard != nullptr; guard = guard->prev_) guard->inChild_();
}

}  // namespace Fenrik
