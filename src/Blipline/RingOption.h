#pragma once

#include <string_view>

#include "Blipline/TraceFile.h"
#include "Fenrik/Export.h"

namespace Blipline {

/// Enables the process's ring trace as requested by a user: "DIRECTORY" or "DIRECTORY:KIB" with the
/// size of each thread's ring in KiB, 1024 by default. The files are DIRECTORY/PROGRAM-0.blip and
/// so on, one per thread, where PROGRAM is the name of the started program. It remains enabled;
/// further calls are refused.
///
/// A process starts with the option in the environment's BASTIL_RING. If it cannot be applied, a
/// message is printed on standard error.
///
/// Throws `TraceFileException`; nothing has changed then.
QUARNBASTIL_EXPORT void ringOptionIs(std::string_view option);

}  // namespace Blipline
