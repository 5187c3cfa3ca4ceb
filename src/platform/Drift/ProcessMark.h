#pragma once

#include "Drift/Format.h"
#include "Fenrik/Export.h"

namespace Drift {

namespace Impl {
/// In memory that the kernel clears in a forked child.
QUARNBASTIL_EXPORT extern Format::Word* const processMarkWord;
QUARNBASTIL_EXPORT Format::Word newProcessMark() noexcept;
}  // namespace Impl

/// A number that a process has for itself and that each child which it forks changes: what is used
/// under another one was inherited. Costs a load.
inline Format::Word processMark() noexcept {
  const Format::Word mark = *Impl::processMarkWord;
  return mark != 0 ? mark : Impl::newProcessMark();
}

}  // namespace Drift
