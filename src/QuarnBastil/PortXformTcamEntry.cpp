#include "QuarnBastil/PortXformTcamEntry.h"

#include "QuarnBastil/FamilyDescriptor.h"

QUARNBASTIL_DEFINE_FAMILY(QuarnBastil, PortXformTcamEntry);
