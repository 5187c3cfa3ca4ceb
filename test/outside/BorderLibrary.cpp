#include "Border.h"

Stone::Ptr stoneOfLibrary() { return Fenrik::ptrIsImpl<Stone>(); }
const Kiv::AllocTrackTypeInfo* stoneTrackerOfLibrary() { return Stone::memAllocationTracker_; }
