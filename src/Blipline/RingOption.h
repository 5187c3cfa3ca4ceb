#pragma once

#include <string_view>

#include "Blipline/TraceFile.h"
#include "Fenrik/Export.h"

namespace Blipline {

/// Switches the process's ring trace on, as a user asks for it: "DIRECTORY" or "DIRECTORY:KIB", the
/// size of each thread's ring in KiB, 1024 without one. The files are DIRECTORY/PROGRAM-0.blip and
/// so on, one for each thread; PROGRAM is the name by which the process was started. Once on it
/// stays, and another call is refused.
///
/// A process whose environment has BASTIL_RING begins with that option; one that cannot be followed
/// is told on the standard error output.
///
/// Throws `TraceFileException`, with nothing changed.
QUARNBASTIL_EXPORT void ringOptionIs(std::string_view option);

}  // namespace Blipline
