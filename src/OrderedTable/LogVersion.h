#pragma once

#include "Fenrik/Export.h"
#include "OrderedTable/Number.h"

namespace Asic {

/// A position in a table's entry log: the first record has 1, each further one the next number.
/// 0 says that nothing was logged. Its alignment is 4, as that of the records in which it stands.
class QUARNBASTIL_EXPORT LogVersion final : public Number<LogVersion, std::uint64_t, 0, 4> {
 public:
  using Number::Number;

  friend constexpr LogVersion operator+(LogVersion a, LogVersion b) noexcept {
    return LogVersion(a.value() + b.value());
  }
};

}  // namespace Asic
