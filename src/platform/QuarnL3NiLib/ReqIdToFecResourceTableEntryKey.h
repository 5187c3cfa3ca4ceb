#pragma once

#include "Fenrik/Export.h"
#include "OrderedTable/Number.h"

namespace QuarnL3NiLib {

/// Key of the resource table that maps a request to a destination; 0 means none. Aligned to 4
/// bytes, as the records that contain it are.
class QUARNBASTIL_EXPORT ReqIdToFecResourceTableEntryKey final
    : public Asic::Number<ReqIdToFecResourceTableEntryKey, std::uint64_t, 0, 4> {
 public:
  using Number::Number;

  constexpr explicit operator bool() const noexcept { return value() != 0; }
};

}  // namespace QuarnL3NiLib
