#pragma once

#include <string>

#include "Fenrik/Export.h"

namespace Kiv {

/// What is allocated, as text for a person: a line for every tracked class, those first that hold
/// the most bytes, then a line for every size class of the slab, then what the slab holds in all.
QUARNBASTIL_EXPORT std::string allocReport();

}  // namespace Kiv
