#pragma once

#include <typeinfo>

#include "Fenrik/Export.h"

namespace Kiv {

/// What one tracked class holds; one record per class, made by its first allocation.
class QUARNBASTIL_EXPORT AllocTrackTypeInfo {
 public:
  static void _trackAllocation(AllocTrackTypeInfo** tracker, const std::type_info& type,
                               unsigned size, unsigned alignment);
  static void trackDeallocation(AllocTrackTypeInfo* tracker) noexcept;
  static void trackArrayAllocation(AllocTrackTypeInfo** tracker, const std::type_info& type,
                                   unsigned elementSize, unsigned count);
  static void trackArrayDeallocation(AllocTrackTypeInfo* tracker, unsigned count) noexcept;

  unsigned long long liveCount() const noexcept { return live_; }

 private:
  unsigned long long live_ = 0;
};

}  // namespace Kiv
