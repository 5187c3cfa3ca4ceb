#pragma once

#include "Drift/Format.h"
#include "Fenrik/Export.h"

namespace Drift {

/// Position of a walk, which saves its next step a search. A default hint is empty and always
/// valid.
class QUARNBASTIL_EXPORT IterHint {
 public:
  constexpr IterHint() noexcept = default;
  /// Converts 0, the empty hint.
  constexpr IterHint(int) noexcept {}

 private:
  template <class Record>
  friend class HashedMap;

  Format::Word hash_ = 0;
  bool known_ = false;
};

}  // namespace Drift
