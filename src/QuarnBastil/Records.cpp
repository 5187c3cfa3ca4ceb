#include "Drift/RecordLayout.h"
#include "QuarnBastil/PortXformTcamActionTypes.h"
#include "QuarnBastil/PortXformTcamEntryTypes.h"
#include "QuarnBastil/TcamActionTypes.h"
#include "QuarnBastil/TcamEntryTypes.h"

// Lays the records out here, so that a wrong one stops this source and not its first user.
namespace Drift {

template class RecordLayout<QuarnBastil::TcamEntryConfigDriftEntry>;
template class RecordLayout<QuarnBastil::TcamEntryLogDriftEntry>;
template class RecordLayout<QuarnBastil::TcamActionConfigDriftEntry>;
template class RecordLayout<QuarnBastil::TcamActionLogDriftEntry>;
template class RecordLayout<QuarnBastil::PortXformTcamEntryConfigDriftEntry>;
template class RecordLayout<QuarnBastil::PortXformTcamEntryLogDriftEntry>;
template class RecordLayout<QuarnBastil::PortXformTcamActionConfigDriftEntry>;
template class RecordLayout<QuarnBastil::PortXformTcamActionLogDriftEntry>;

}  // namespace Drift

namespace QuarnBastil {
namespace {

// Known to the mount by name as soon as the library is loaded.
const KivSharedMem::EntityRegistrations<
    TcamEntryConfigDrift, TcamEntryEntryLogDrift, TcamActionConfigDrift, TcamActionEntryLogDrift,
    PortXformTcamEntryConfigDrift, PortXformTcamEntryEntryLogDrift, PortXformTcamActionConfigDrift,
    PortXformTcamActionEntryLogDrift>
    kEntities;

}  // namespace
}  // namespace QuarnBastil
