#include "QuarnLpmLib/BigAdsDataModelTypes.h"
#include "QuarnLpmLib/BigBbDataModelTypes.h"
#include "QuarnLpmLib/SmallAdsDataModelTypes.h"
#include "QuarnLpmLib/SmallBbDataModelTypes.h"
#include "QuarnLpmLib/TcamDataModelTypes.h"

namespace QuarnLpmLib {
namespace {

// Registered when the library is loaded, so that a mount finds them by name. A wrong record layout
// fails to compile here rather than at its first use.
const KivSharedMem::EntityRegistrations<
    BigBbDataModelConfigDrift, BigBbDataModelEntryLogDrift, SmallBbDataModelConfigDrift,
    SmallBbDataModelEntryLogDrift, BigAdsDataModelConfigDrift, BigAdsDataModelEntryLogDrift,
    SmallAdsDataModelConfigDrift, SmallAdsDataModelEntryLogDrift, TcamDataModelConfigDrift,
    TcamDataModelEntryLogDrift>
    kEntities;

}  // namespace
}  // namespace QuarnLpmLib
