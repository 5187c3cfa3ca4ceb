#include "OvSlab/AllocTrackTypeInfo.h"

namespace Kiv {

void AllocTrackTypeInfo::_trackAllocation(AllocTrackTypeInfo** tracker, const std::type_info&,
                                          unsigned, unsigned) {
  if (*tracker == nullptr) *tracker = new AllocTrackTypeInfo;
  ++(*tracker)->live_;
}
void AllocTrackTypeInfo::trackDeallocation(AllocTrackTypeInfo* tracker) noexcept {
  --tracker->live_;
}
void AllocTrackTypeInfo::trackArrayAllocation(AllocTrackTypeInfo** tracker, const std::type_info&,
                                              unsigned, unsigned count) {
  if (*tracker == nullptr) *tracker = new AllocTrackTypeInfo;
  (*tracker)->live_ += count;
}
void AllocTrackTypeInfo::trackArrayDeallocation(AllocTrackTypeInfo* tracker,
                                                unsigned count) noexcept {
  tracker->live_ -= count;
}

}  // namespace Kiv
