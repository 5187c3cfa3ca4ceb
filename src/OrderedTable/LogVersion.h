#pragma once

#include "Fenrik/Export.h"
#include "OrderedTable/Number.h"

namespace Asic {

/// A position in a table's entry log. The first record has version 1, and each further one the next
/// number; 0 means that nothing has been logged. Aligned to 4 bytes, as the records that contain it
/// are.
class QUARNBASTIL_EXPORT LogVersion final : public Number<LogVersion, std::uint64_t, 0, 4> {
 public:
  using Number::Number;

  friend constexpr LogVersion operator+(LogVersion a, LogVersion b) noexcept {
    return LogVersion(a.value() + b.value());
  }
};

}  // namespace Asic
