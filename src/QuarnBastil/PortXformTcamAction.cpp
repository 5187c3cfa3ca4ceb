#include "QuarnBastil/PortXformTcamAction.h"

#include "QuarnBastil/FamilyDescriptor.h"

QUARNBASTIL_DEFINE_FAMILY(QuarnBastil, PortXformTcamAction);
