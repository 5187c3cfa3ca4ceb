#include "QuarnBastil/PortXformTcamActionTypes.h"
#include "QuarnBastil/PortXformTcamEntryTypes.h"
#include "QuarnBastil/TcamActionTypes.h"
#include "QuarnBastil/TcamEntryTypes.h"

namespace QuarnBastil {
namespace {

// Known to the mount by name as soon as the library is loaded. A record that is laid out wrongly
// stops this source and not its first user.
const KivSharedMem::EntityRegistrations<
    TcamEntryConfigDrift, TcamEntryEntryLogDrift, TcamActionConfigDrift, TcamActionEntryLogDrift,
    PortXformTcamEntryConfigDrift, PortXformTcamEntryEntryLogDrift, PortXformTcamActionConfigDrift,
    PortXformTcamActionEntryLogDrift>
    kEntities;

}  // namespace
}  // namespace QuarnBastil
