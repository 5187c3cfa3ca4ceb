#include "Kiv/TraceHandle.h"

#include <type_traits>

#include "Kiv/TraceRegistry.h"

namespace Kiv {

// A handle has nothing to undo at exit; a site costs its guard's byte and the bit.
static_assert(std::is_trivially_destructible_v<TraceHandle>);
static_assert(sizeof(TraceHandle) == sizeof(void*));

TraceHandle::TraceHandle(const char* name, bool everyLevel)
    : TraceHandle(Fenrik::String(name), everyLevel) {}

TraceHandle::TraceHandle(Fenrik::String name, bool everyLevel)
    : control_(TraceRegistry::instance().record(std::move(name), everyLevel)) {}

}  // namespace Kiv
