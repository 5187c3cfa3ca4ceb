#include "OrderedTable/OutermostCall.h"

#include <algorithm>
#include <utility>

namespace Asic {

OutermostCall::Listener::~Listener() = default;
OutermostCall::~OutermostCall() = default;

OutermostCall::Scope::Scope(const Fenrik::Ptr<OutermostCall>& call) noexcept : call_(call) {
  if (call_ != nullptr) ++call_->depth_;
}

OutermostCall::Scope::~Scope() {
  if (call_ != nullptr) --call_->depth_;
}

void OutermostCall::Scope::end() {
  if (call_ != nullptr && call_->depth_ == 1) call_->doPutOff();
}

/// Some listener's work may make work for another.
void OutermostCall::doPutOff() {
  const auto wantsTurn = [](const Listener* listener) { return listener->callEndDue(); };
  for (;;) {
    const auto listener = std::ranges::find_if(listeners_, wantsTurn);
    if (listener == listeners_.end()) return;
    (*listener)->handleCallEnd();
  }
}

bool OutermostCall::due() const noexcept {
  return depth_ == 0 && std::ranges::any_of(listeners_, [](const Listener* listener) {
           return listener->callEndDue();
         });
}

void OutermostCall::listenerAdd(Listener& listener) { listeners_.push_back(&listener); }

void OutermostCall::listenerDel(Listener& listener) noexcept { std::erase(listeners_, &listener); }

void OutermostCall::handleReports() {
  // By index, because a listener may come or go.
  for (std::size_t i = 0; i < listeners_.size(); ++i) listeners_[i]->handleReports();
}

}  // namespace Asic
