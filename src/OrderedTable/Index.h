#pragma once

#include "OrderedTable/Number.h"

namespace Asic {

/// Where the hardware keeps an entry.
class Index final : public Number<Index, std::uint32_t> {
 public:
  using Number::Number;
};

}  // namespace Asic
