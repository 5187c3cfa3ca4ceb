#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "Fenrik/Export.h"
#include "Fenrik/String.h"

namespace Kiv {

/// The levels that a handle knows: 0 to 15, each a bit of its own. None of them implies another.
inline constexpr unsigned kTraceLevels = 16;

/// What the handles of one name share.
struct TraceControlRecord {
  explicit TraceControlRecord(Fenrik::String handleName) : name(std::move(handleName)) {}

  bool levelEnabled(unsigned level) const noexcept {
    return (maskBytes[level / 8].load(std::memory_order_relaxed) >> (level % 8) & 1) != 0;
  }

  /// Bit L is level L. The two bytes are stored one after the other.
  void maskIs(std::uint16_t mask) noexcept {
    maskBytes[0].store(static_cast<std::uint8_t>(mask), std::memory_order_relaxed);
    maskBytes[1].store(static_cast<std::uint8_t>(mask >> 8), std::memory_order_relaxed);
  }
  std::uint16_t mask() const noexcept {
    return static_cast<std::uint16_t>(maskBytes[0].load(std::memory_order_relaxed) |
                                      maskBytes[1].load(std::memory_order_relaxed) << 8);
  }

  /// Levels 0 to 7, then 8 to 15. Read by every trace site, bytewise and without order: a level
  /// that is switched while a site runs may be seen a little later. Written by `TraceControl`.
  std::array<std::atomic<std::uint8_t>, 2> maskBytes{};
  /// Handles made on this record.
  std::atomic<unsigned> handleCount{0};
  const Fenrik::String name;
};

/// A named switch board of trace levels, which sites test inline and `TraceControl` sets.
///
/// Meant as a function-local static of an accessor, which `KIV_TRACE_ACCESSOR` puts into every
/// site:
///
///     KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& _defaultTraceHandle() {
///       static const Kiv::TraceHandle handle("TcamEntrySwTable", false);
///       return handle;
///     }
///
/// Any thread may make and use handles. Handles of one name are objects of their own that obey the
/// same settings.
/// I1. The first word points at the control record.
/// I2. The record outlives the process's last instruction, so that destructors at exit may trace.
class QUARNBASTIL_EXPORT TraceHandle {
 public:
  /// With `everyLevel` a handle for which no setting has been made has all its levels on, otherwise
  /// none.
  TraceHandle(const char* name, bool everyLevel);
  TraceHandle(Fenrik::String name, bool everyLevel);
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  /// REQUIRES: level < kTraceLevels.
  bool levelEnabled(unsigned level) const noexcept { return control_->levelEnabled(level); }
  std::uint16_t mask() const noexcept { return control_->mask(); }
  const Fenrik::String& name() const noexcept { return control_->name; }

 private:
  TraceControlRecord* control_;
};

}  // namespace Kiv

/// Begins the declaration of a handle's accessor. Left to itself the compiler calls one that more
/// than one site uses, and a site whose level is off would cost six cycles instead of one.
#define KIV_TRACE_ACCESSOR [[gnu::always_inline]] inline
