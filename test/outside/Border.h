#pragma once

#include "Fenrik/NodeClass.h"

/// A class that a library and its user both make objects of.
class QUARNBASTIL_EXPORT Stone final : public Fenrik::NodeClass<Stone> {};

QUARNBASTIL_EXPORT Stone::Ptr stoneOfLibrary();
QUARNBASTIL_EXPORT const Kiv::AllocTrackTypeInfo* stoneTrackerOfLibrary();
