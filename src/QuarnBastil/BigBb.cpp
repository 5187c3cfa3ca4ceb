#include "QuarnBastil/BigBb.h"

#include "QuarnBastil/FamilyDescriptor.h"

QUARNBASTIL_DEFINE_FAMILY(QuarnBastil, BigBb);
