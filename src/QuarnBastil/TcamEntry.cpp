#include "QuarnBastil/TcamEntry.h"

#include "QuarnBastil/FamilyDescriptor.h"

QUARNBASTIL_DEFINE_FAMILY(QuarnBastil, TcamEntry);
