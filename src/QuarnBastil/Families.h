#pragma once

#include "QuarnBastil/BigAds.h"
#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/LpmTcam.h"
#include "QuarnBastil/PortXformTcamAction.h"
#include "QuarnBastil/PortXformTcamEntry.h"
#include "QuarnBastil/SmallAds.h"
#include "QuarnBastil/SmallBb.h"
#include "QuarnBastil/TcamAction.h"
#include "QuarnBastil/TcamEntry.h"

/// The table families by their prefixes, one line each. The build, the tests and the kill points
/// follow this list: CMake reads it too, for the sources.
#define QUARNBASTIL_FAMILIES(X) \
  X(TcamEntry)                  \
  X(TcamAction)                 \
  X(PortXformTcamEntry)         \
  X(PortXformTcamAction)        \
  X(BigBb)                      \
  X(SmallBb)                    \
  X(BigAds)                     \
  X(SmallAds)                   \
  X(LpmTcam)

namespace QuarnBastil {

#define QUARNBASTIL_FAMILY_TYPE(Prefix) , Prefix##Family
/// A list of all families' traits, after others that the caller adds.
template <template <class...> class List, class... Others>
using FamilyList = List<Others... QUARNBASTIL_FAMILIES(QUARNBASTIL_FAMILY_TYPE)>;
#undef QUARNBASTIL_FAMILY_TYPE

}  // namespace QuarnBastil
