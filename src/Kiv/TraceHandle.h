#pragma once

#include <cstdint>

#include "Fenrik/Atomic.h"
#include "Fenrik/Export.h"
#include "Fenrik/String.h"

namespace Kiv {

/// Number of levels. Levels 0 to 15 are independent; none implies another.
inline constexpr unsigned kTraceLevels = 16;

/// Tag: the handle is a constant.
struct ConstantHandle {};
inline constexpr ConstantHandle kConstantHandle;

/// The levels of a control record. Trace sites read it bytewise and relaxed, so a level change may
/// become visible a little later. Written by `TraceControl`.
struct TraceMask {
  [[gnu::always_inline]] bool levelEnabled(unsigned level) const noexcept {
    return (bytes[level / 8].loadRelaxed() >> (level % 8) & 1) != 0;
  }
  /// Bit L is level L. The two bytes are stored separately.
  void maskIs(std::uint16_t mask) noexcept {
    bytes[0].storeRelaxed(static_cast<std::uint8_t>(mask));
    bytes[1].storeRelaxed(static_cast<std::uint8_t>(mask >> 8));
  }
  std::uint16_t mask() const noexcept {
    return static_cast<std::uint16_t>(bytes[0].loadRelaxed() | bytes[1].loadRelaxed() << 8);
  }

  /// Levels 0 to 7, and 8 to 15.
  Fenrik::Atomic<std::uint8_t> bytes[2]{};
};

/// State shared by the handles of one name.
struct TraceControlRecord : TraceMask {
  explicit TraceControlRecord(Fenrik::String handleName) : name(std::move(handleName)) {}

  /// Number of handles with this record.
  Fenrik::Atomic<unsigned> handleCount{0};
  /// Name of the handles.
  const Fenrik::String name;
};

/// Mask of constant handles not yet registered. All levels are on, so that the first site to test
/// the handle registers it.
extern QUARNBASTIL_EXPORT constinit TraceMask kTraceHandleNotEntered;

/// A named set of trace levels, tested inline by trace sites and set by `TraceControl`.
///
/// Preferably a constant in an accessor that `KIV_TRACE_ACCESSOR` inlines into every site: it needs
/// no dynamic initialization, and the first site that tests it registers it.
///
///     KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& _defaultTraceHandle() {
///       static constinit const Kiv::TraceHandle handle(Kiv::kConstantHandle, "TcamEntrySwTable");
///       return handle;
///     }
///
/// Threads: any may create and use handles. Several handles may have the same name and then share
/// its settings.
/// I1. The first word points to the control record, once there is one.
/// I2. The record is never destroyed, so destructors at exit may trace.
class QUARNBASTIL_EXPORT TraceHandle {
 public:
  /// Until a setting matches, a handle has all levels on if `everyLevel` is set, and none
  /// otherwise.
  TraceHandle(const char* name, bool everyLevel);
  TraceHandle(Fenrik::String name, bool everyLevel);
  /// No level is on until a setting matches. `name` must remain valid forever.
  constexpr TraceHandle(ConstantHandle, const char* name) noexcept
      : control_(&kTraceHandleNotEntered), name_(name) {}
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  /// REQUIRES: level < kTraceLevels.
  [[gnu::always_inline]] bool levelEnabled(unsigned level) const noexcept {
    if (!control_.loadAcquire()->levelEnabled(level)) [[likely]]
      return false;
    return surelyEnabled(level);
  }
  std::uint16_t mask() const noexcept { return record().mask(); }
  const Fenrik::String& name() const noexcept { return record().name; }

 private:
  [[gnu::cold]] bool surelyEnabled(unsigned level) const noexcept;
  /// The control record, created if this is the handle's first use.
  [[gnu::cold]] const TraceControlRecord& record() const noexcept;

  /// The record of the handle's name, or `kTraceHandleNotEntered`.
  mutable Fenrik::Atomic<const TraceMask*> control_;
  /// Name of a constant handle, otherwise null.
  const char* name_ = nullptr;
};

}  // namespace Kiv

/// Starts the declaration of a handle's accessor. Without it the compiler does not inline an
/// accessor used by several sites, and a disabled site costs six cycles instead of one.
#define KIV_TRACE_ACCESSOR [[gnu::always_inline]] inline
