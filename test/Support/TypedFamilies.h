#pragma once

#include "QuarnBastil/Families.h"

namespace Support {

/// A list of the families that typed suites run over, after others that the caller adds: all of
/// them. In a build with a sanitizer, whose subject is the core that they share, it is one of each
/// shape: with and without resource keys, and keys of 4 and of 12 bytes. Sanitized copies of the
/// typed shells of nine families take minutes to compile.
#if BASTIL_SANITIZED
template <template <class...> class List, class... Others>
using TypedFamilies = List<Others..., QuarnBastil::TcamEntryFamily, QuarnBastil::TcamActionFamily,
                           QuarnBastil::SmallBbFamily, QuarnBastil::SmallAdsFamily>;
#else
template <template <class...> class List, class... Others>
using TypedFamilies = QuarnBastil::FamilyList<List, Others...>;
#endif

}  // namespace Support
