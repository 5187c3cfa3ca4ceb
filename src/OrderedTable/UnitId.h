#pragma once

#include "Fenrik/Export.h"
#include "OrderedTable/Number.h"

namespace Asic {

/// One ASIC unit of the switch.
class QUARNBASTIL_EXPORT UnitId final : public Number<UnitId, std::uint16_t> {
 public:
  using Number::Number;
};

}  // namespace Asic
