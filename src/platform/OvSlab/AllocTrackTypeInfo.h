#pragma once

#include <cstdint>
#include <typeinfo>

#include "Fenrik/Atomic.h"
#include "Fenrik/Export.h"
#include "Fenrik/ThreadControl.h"

namespace Kiv {

struct AllocTrackRow;

/// What one tracked class holds: one record per class, made by its first allocation and never gone.
///
/// Threads: those of `Fenrik::ThreadControl::tsp_`; a report may be taken on any thread at any
/// time, and each of its figures then is one that held.
///
/// I1. All trackers of one class point at the same record.
/// I2. An object or array counts from before its storage is taken until after it was destroyed.
///
/// Cost: a few plain additions while threads are off, atomic ones while they are on.
class QUARNBASTIL_EXPORT AllocTrackTypeInfo {
 public:
  AllocTrackTypeInfo(const AllocTrackTypeInfo&) = delete;
  AllocTrackTypeInfo& operator=(const AllocTrackTypeInfo&) = delete;

  /// Tells one object. `*tracker` is null before the class's first, and points at its record after.
  static void _trackAllocation(AllocTrackTypeInfo** tracker, const std::type_info& type,
                               unsigned size, unsigned alignment) {
    record(tracker, type, size, alignment).madeInc(1);
  }
  static void trackDeallocation(AllocTrackTypeInfo* tracker) noexcept { tracker->goneInc(1); }

  /// Tells one array of `count` elements, which may be none.
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

  /// Objects and array elements that are alive.
  unsigned long long liveCount() const;

  /// All figures, as `OvSlab/AllocReport.h` explains them.
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

  /// Arrays are counted alive only; a step of -1 wraps.
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

  /// Objects and elements ever made.
  Count made_ = 0;
  /// gone + peak: a count of made objects above it is a new peak. So making costs one comparison
  /// and dropping one addition.
  Count madeLimit_ = 0;
  /// Most objects alive at one time.
  Count peak_ = 0;
  /// Arrays alive.
  Count arrays_ = 0;
  /// Never freed, as the record is.
  const char* const typeName_;
  /// Bytes of an object or element.
  const unsigned size_;
  /// 0 where only arrays were reported.
  const unsigned alignment_;
};

}  // namespace Kiv
