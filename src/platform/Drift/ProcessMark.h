#pragma once

#include "Drift/Format.h"
#include "Fenrik/Export.h"

namespace Drift {

namespace Impl {
/// Points to memory that the kernel clears in a forked child.
QUARNBASTIL_EXPORT extern Format::Word* const processMarkWord;
QUARNBASTIL_EXPORT Format::Word newProcessMark() noexcept;
}  // namespace Impl

/// A number that identifies the process and differs in each forked child. An object with another
/// mark was inherited. Costs a load.
inline Format::Word processMark() noexcept {
  const Format::Word mark = *Impl::processMarkWord;
  return mark != 0 ? mark : Impl::newProcessMark();
}

}  // namespace Drift
