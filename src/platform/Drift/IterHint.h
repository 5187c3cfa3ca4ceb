#pragma once

#include "Drift/Format.h"
#include "Fenrik/Export.h"

namespace Drift {

/// Where a walk of a map stands, so that its next step need not search. A default value knows
/// nothing and is always right.
class QUARNBASTIL_EXPORT IterHint {
 public:
  constexpr IterHint() noexcept = default;
  /// A hint that is told as a number; 0 knows nothing.
  constexpr IterHint(int) noexcept {}

 private:
  template <class Record>
  friend class HashedMap;

  Format::Word bucket_ = 0;
  bool known_ = false;
};

}  // namespace Drift
