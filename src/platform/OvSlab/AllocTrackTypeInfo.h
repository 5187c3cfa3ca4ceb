#pragma once

#include <cstdint>
#include <typeinfo>

#include "Fenrik/Atomic.h"
#include "Fenrik/Export.h"
#include "Fenrik/ThreadControl.h"

namespace Kiv {

struct AllocTrackRow;

/// Allocation record of one tracked class, created at its first allocation and never destroyed.
///
/// Threads: as for `Fenrik::ThreadControl::tsp_`. Reports may be taken on any thread at any time;
/// each figure in them was true at some instant of the call.
///
/// I1. All trackers of a class point to the same record.
/// I2. An object or array is counted from before its storage is allocated until after its
///     destruction.
///
/// Cost: a few plain additions with threads off, atomic ones with threads on.
class QUARNBASTIL_EXPORT AllocTrackTypeInfo {
 public:
  AllocTrackTypeInfo(const AllocTrackTypeInfo&) = delete;
  AllocTrackTypeInfo& operator=(const AllocTrackTypeInfo&) = delete;

  /// Counts one object. `*tracker` is null before the class's first object and points to the record
  /// afterwards.
  static void _trackAllocation(AllocTrackTypeInfo** tracker, const std::type_info& type,
                               unsigned size, unsigned alignment) {
    record(tracker, type, size, alignment).madeInc(1);
  }
  static void trackDeallocation(AllocTrackTypeInfo* tracker) noexcept { tracker->goneInc(1); }

  /// Counts one array of `count` elements, which may be 0.
  static void trackArrayAllocation(AllocTrackTypeInfo** tracker, const std::type_info& type,
                                   unsigned elementSize, unsigned count) {
    AllocTrackTypeInfo& info = record(tracker, type, elementSize, 0);
    info.arraysInc(1);
    info.madeInc(count);
  }
  static void trackArrayDeallocation(AllocTrackTypeInfo* tracker, unsigned count) noexcept {
    tracker->arraysInc(~Count{0});
    tracker->goneInc(count);
  }

  /// Objects and array elements alive.
  unsigned long long liveCount() const;

  /// All figures, as described in `OvSlab/AllocReport.h`.
  AllocTrackRow row() const;

 private:
  using Count = std::uint64_t;

  AllocTrackTypeInfo(const char* typeName, unsigned size, unsigned alignment)
      : typeName_(typeName), size_(size), alignment_(alignment) {}

  void madeInc(Count count) noexcept {
    if (Fenrik::ThreadControl::tsp_) [[unlikely]]
      return madeIncShared(count);
    made_ += count;
    if (made_ <= madeLimit_) [[likely]]
      return;
    peak_ += made_ - madeLimit_;
    madeLimit_ = made_;
  }

  void goneInc(Count count) noexcept {
    if (Fenrik::ThreadControl::tsp_) [[unlikely]]
      return goneIncShared(count);
    madeLimit_ += count;
  }

  /// Only live arrays are counted; adding -1 wraps.
  void arraysInc(Count step) noexcept {
    if (Fenrik::ThreadControl::tsp_) [[unlikely]] {
      Fenrik::AtomicRef(arrays_).fetchAdd(step);
    } else {
      arrays_ += step;
    }
  }

  void madeIncShared(Count count) noexcept;
  void goneIncShared(Count count) noexcept;

  static AllocTrackTypeInfo& record(AllocTrackTypeInfo** tracker, const std::type_info& type,
                                    unsigned size, unsigned alignment) {
    if (Fenrik::ThreadControl::tsp_) [[unlikely]] {
      AllocTrackTypeInfo* const info = Fenrik::AtomicRef(*tracker).loadAcquire();
      return info != nullptr ? *info : makeRecord(tracker, type, size, alignment);
    }
    return *tracker != nullptr ? **tracker : makeRecord(tracker, type, size, alignment);
  }

  static AllocTrackTypeInfo& makeRecord(AllocTrackTypeInfo** tracker, const std::type_info& type,
                                        unsigned size, unsigned alignment);

  /// Objects and elements ever created.
  Count made_ = 0;
  /// gone + peak: a count of created objects above it is a new peak. Creating costs one comparison,
  /// destroying one addition.
  Count madeLimit_ = 0;
  /// Most objects alive at one time.
  Count peak_ = 0;
  /// Arrays alive.
  Count arrays_ = 0;
  /// Never freed, like the record.
  const char* const typeName_;
  /// Bytes of an object or element.
  const unsigned size_;
  /// 0 if only arrays were tracked.
  const unsigned alignment_;
};

}  // namespace Kiv
