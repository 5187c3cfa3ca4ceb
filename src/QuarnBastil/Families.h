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

/// All table families by prefix, one per line. The build reads this list for its sources, and the
/// tests and kill points are generated from it.
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
/// A list of all families' traits, preceded by `Others`.
template <template <class...> class List, class... Others>
using FamilyList = List<Others... QUARNBASTIL_FAMILIES(QUARNBASTIL_FAMILY_TYPE)>;
#undef QUARNBASTIL_FAMILY_TYPE

}  // namespace QuarnBastil
