#include "OrderedTable/TwinFamily.h"

#include "QuarnBastil/FamilyDescriptor.h"

namespace {

const KivSharedMem::EntityRegistrations<Twin::TwinConfigDrift, Twin::TwinEntryLogDrift> kEntities;

}  // namespace

QUARNBASTIL_DEFINE_FAMILY(Twin, Twin);
