#include "Kiv/TraceHandle.h"

#include <type_traits>

#include "Kiv/TraceRegistry.h"

namespace Kiv {

// Trivial destructor, so that a handle is usable at exit.
static_assert(std::is_trivially_destructible_v<TraceHandle>);

constinit TraceMask kTraceHandleNotEntered{{0xff, 0xff}};

TraceHandle::TraceHandle(const char* name, bool everyLevel)
    : TraceHandle(Fenrik::String(name), everyLevel) {}

TraceHandle::TraceHandle(Fenrik::String name, bool everyLevel)
    : control_(TraceRegistry::instance().record(std::move(name), everyLevel)) {}

const TraceControlRecord& TraceHandle::record() const noexcept {
  const TraceMask* mask = control_.loadAcquire();
  if (mask == &kTraceHandleNotEntered) mask = TraceRegistry::instance().enter(control_, name_);
  return static_cast<const TraceControlRecord&>(*mask);
}

bool TraceHandle::surelyEnabled(unsigned level) const noexcept {
  return record().levelEnabled(level);
}

}  // namespace Kiv
