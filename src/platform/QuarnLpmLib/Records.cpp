#include "QuarnLpmLib/BigAdsDataModelTypes.h"
#include "QuarnLpmLib/BigBbDataModelTypes.h"
#include "QuarnLpmLib/SmallAdsDataModelTypes.h"
#include "QuarnLpmLib/SmallBbDataModelTypes.h"
#include "QuarnLpmLib/TcamDataModelTypes.h"

namespace QuarnLpmLib {
namespace {

// Known to the mount by name as soon as the library is loaded. A record that is laid out wrongly
// stops this source and not its first user.
const KivSharedMem::EntityRegistrations<
    BigBbDataModelConfigDrift, BigBbDataModelEntryLogDrift, SmallBbDataModelConfigDrift,
    SmallBbDataModelEntryLogDrift, BigAdsDataModelConfigDrift, BigAdsDataModelEntryLogDrift,
    SmallAdsDataModelConfigDrift, SmallAdsDataModelEntryLogDrift, TcamDataModelConfigDrift,
    TcamDataModelEntryLogDrift>
    kEntities;

}  // namespace
}  // namespace QuarnLpmLib
