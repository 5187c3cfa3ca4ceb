#include "Drift/RecordLayout.h"
#include "QuarnLpmLib/BigAdsDataModelTypes.h"
#include "QuarnLpmLib/BigBbDataModelTypes.h"
#include "QuarnLpmLib/SmallAdsDataModelTypes.h"
#include "QuarnLpmLib/SmallBbDataModelTypes.h"
#include "QuarnLpmLib/TcamDataModelTypes.h"

// Lays the records out here, so that a wrong one stops this source and not its first user.
namespace Drift {

template class RecordLayout<QuarnLpmLib::BigBbDataModelConfigDriftEntry>;
template class RecordLayout<QuarnLpmLib::BigBbDataModelLogDriftEntry>;
template class RecordLayout<QuarnLpmLib::SmallBbDataModelConfigDriftEntry>;
template class RecordLayout<QuarnLpmLib::SmallBbDataModelLogDriftEntry>;
template class RecordLayout<QuarnLpmLib::BigAdsDataModelConfigDriftEntry>;
template class RecordLayout<QuarnLpmLib::BigAdsDataModelLogDriftEntry>;
template class RecordLayout<QuarnLpmLib::SmallAdsDataModelConfigDriftEntry>;
template class RecordLayout<QuarnLpmLib::SmallAdsDataModelLogDriftEntry>;
template class RecordLayout<QuarnLpmLib::TcamDataModelConfigDriftEntry>;
template class RecordLayout<QuarnLpmLib::TcamDataModelLogDriftEntry>;

}  // namespace Drift

namespace QuarnLpmLib {
namespace {

// Known to the mount by name as soon as the library is loaded.
const KivSharedMem::EntityRegistrations<
    BigBbDataModelConfigDrift, BigBbDataModelEntryLogDrift, SmallBbDataModelConfigDrift,
    SmallBbDataModelEntryLogDrift, BigAdsDataModelConfigDrift, BigAdsDataModelEntryLogDrift,
    SmallAdsDataModelConfigDrift, SmallAdsDataModelEntryLogDrift, TcamDataModelConfigDrift,
    TcamDataModelEntryLogDrift>
    kEntities;

}  // namespace
}  // namespace QuarnLpmLib
