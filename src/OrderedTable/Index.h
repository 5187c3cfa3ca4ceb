#pragma once

#include "Fenrik/Export.h"
#include "OrderedTable/Number.h"

namespace Asic {

/// Where the hardware keeps an entry.
class QUARNBASTIL_EXPORT Index final : public Number<Index, std::uint32_t> {
 public:
  using Number::Number;
};

}  // namespace Asic
