#pragma once

#include "Fenrik/Export.h"
#include "OrderedTable/Number.h"

namespace QuarnL3NiLib {

/// Names a record of the resource table that turns a request into a destination; 0 names none. Its
/// alignment is 4, as that of the records in which it stands.
class QUARNBASTIL_EXPORT ReqIdToFecResourceTableEntryKey final
    : public Asic::Number<ReqIdToFecResourceTableEntryKey, std::uint64_t, 0, 4> {
 public:
  using Number::Number;

  constexpr explicit operator bool() const noexcept { return value() != 0; }
};

}  // namespace QuarnL3NiLib
