#pragma once

#include <cstdint>

#include "Fenrik/Atomic.h"
#include "Fenrik/Export.h"
#include "Fenrik/String.h"

namespace Kiv {

/// The levels that a handle knows: 0 to 15, each a bit of its own. None of them implies another.
inline constexpr unsigned kTraceLevels = 16;

/// Says that a handle is a constant.
struct ConstantHandle {};
inline constexpr ConstantHandle kConstantHandle;

/// The levels of a control record. Read by every trace site, bytewise and without order: a level
/// that is switched while a site runs may be seen a little later. Written by `TraceControl`.
struct TraceMask {
  [[gnu::always_inline]] bool levelEnabled(unsigned level) const noexcept {
    return (bytes[level / 8].loadRelaxed() >> (level % 8) & 1) != 0;
  }
  /// Bit L is level L. The two bytes are stored one after the other.
  void maskIs(std::uint16_t mask) noexcept {
    bytes[0].storeRelaxed(static_cast<std::uint8_t>(mask));
    bytes[1].storeRelaxed(static_cast<std::uint8_t>(mask >> 8));
  }
  std::uint16_t mask() const noexcept {
    return static_cast<std::uint16_t>(bytes[0].loadRelaxed() | bytes[1].loadRelaxed() << 8);
  }

  /// Levels 0 to 7, then 8 to 15.
  Fenrik::Atomic<std::uint8_t> bytes[2]{};
};

/// What the handles of one name share.
struct TraceControlRecord : TraceMask {
  explicit TraceControlRecord(Fenrik::String handleName) : name(std::move(handleName)) {}

  /// Handles made on this record.
  Fenrik::Atomic<unsigned> handleCount{0};
  const Fenrik::String name;
};

/// All levels on, so that the first site that tests a constant handle looks closer.
extern QUARNBASTIL_EXPORT constinit TraceMask kTraceHandleNotEntered;

/// A named switch board of trace levels, which sites test inline and `TraceControl` sets.
///
/// Best a constant of an accessor, which `KIV_TRACE_ACCESSOR` puts into every site: it needs no
/// code to run before it, and is entered under its name by the first site that tests it.
///
///     KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& _defaultTraceHandle() {
///       static constinit const Kiv::TraceHandle handle(Kiv::kConstantHandle, "TcamEntrySwTable");
///       return handle;
///     }
///
/// Any thread may make and use handles. Handles of one name are objects of their own that obey the
/// same settings.
/// I1. The first word points at the control record, once there is one.
/// I2. The record outlives the process's last instruction, so that destructors at exit may trace.
class QUARNBASTIL_EXPORT TraceHandle {
 public:
  /// With `everyLevel` a handle for which no setting has been made has all its levels on, otherwise
  /// none.
  TraceHandle(const char* name, bool everyLevel);
  TraceHandle(Fenrik::String name, bool everyLevel);
  /// No level is on unless a setting says so. `name` stays where it is for ever.
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
  /// The control record, made now if this is the handle's first use.
  [[gnu::cold]] const TraceControlRecord& record() const noexcept;

  /// The record of the handle's name, or `kTraceHandleNotEntered`.
  mutable Fenrik::Atomic<const TraceMask*> control_;
  /// Name of a constant handle; null for others.
  const char* name_ = nullptr;
};

}  // namespace Kiv

/// Begins the declaration of a handle's accessor. Left to itself the compiler calls one that more
/// than one site uses, and a site whose level is off would cost six cycles instead of one.
#define KIV_TRACE_ACCESSOR [[gnu::always_inline]] inline
