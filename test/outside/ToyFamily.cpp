#include "ToyFamily.h"

#include "QuarnBastil/FamilyDescriptor.h"

namespace {

const KivSharedMem::EntityRegistrations<Toy::ToyConfigDrift, Toy::ToyEntryLogDrift> kEntities;

}  // namespace

QUARNBASTIL_DEFINE_FAMILY(Toy, Toy);
QUARNBASTIL_DEFINE_FAMILY(Toy, SmallToy);
