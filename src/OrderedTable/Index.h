#pragma once

#include "Fenrik/Export.h"
#include "OrderedTable/Number.h"

namespace Asic {

/// Position of an entry in the hardware.
class QUARNBASTIL_EXPORT Index final : public Number<Index, std::uint32_t> {
 public:
  using Number::Number;
};

}  // namespace Asic
