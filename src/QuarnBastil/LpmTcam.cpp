#include "QuarnBastil/LpmTcam.h"

#include "QuarnBastil/FamilyDescriptor.h"

QUARNBASTIL_DEFINE_FAMILY(QuarnBastil, LpmTcam);
