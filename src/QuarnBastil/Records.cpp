#include "QuarnBastil/PortXformTcamActionTypes.h"
#include "QuarnBastil/PortXformTcamEntryTypes.h"
#include "QuarnBastil/TcamActionTypes.h"
#include "QuarnBastil/TcamEntryTypes.h"

namespace QuarnBastil {
namespace {

// Registered when the library is loaded, so that a mount finds them by name. A wrong record layout
// fails to compile here rather than at its first use.
const KivSharedMem::EntityRegistrations<
    TcamEntryConfigDrift, TcamEntryEntryLogDrift, TcamActionConfigDrift, TcamActionEntryLogDrift,
    PortXformTcamEntryConfigDrift, PortXformTcamEntryEntryLogDrift, PortXformTcamActionConfigDrift,
    PortXformTcamActionEntryLogDrift>
    kEntities;

}  // namespace
}  // namespace QuarnBastil
