#pragma once

#include <cstdint>

#include "Fenrik/Export.h"

namespace Fenrik {

/// Participants in a fork, in locking order: the holder of a lock may take locks of later
/// participants, never of earlier ones.
enum class ForkOrder : std::uint8_t {
  /// Locks of collections and files in shared memory.
  files,
  /// Assignment of recording threads to ring files; then the ring files.
  ringFiles,
  rings,
  /// Outputs of traces and of the operator log. A callback may use either.
  lines,
  /// Trace settings, and the limits of log handles.
  settings,
  /// Allocation records of the classes.
  trackers,
  /// Storage of objects.
  slab,
};

/// Keeps part of the system consistent across fork(2). A child has only the forking thread and a
/// copy of all memory: a lock held by another thread would remain locked forever, and files mapped
/// shared belong to the parent.
///
/// A room with such state defines one static object, which registers itself when constructed and is
/// never removed:
///
///     const Fenrik::ForkGuard guard(Fenrik::ForkOrder::files, [] { lock(); }, [] { unlock(); },
///                                   [] { childForgets(); unlock(); });
///
/// The `before` steps of all rooms run in `ForkOrder`, the other steps in reverse order.
///
/// Steps must neither allocate nor throw. Singletons created at first use must be created in
/// `before` at the latest: a child that inherits one half created by another thread would wait
/// forever.
///
/// vfork, posix_spawn and plain clone run no steps, and need none if exec follows.
class QUARNBASTIL_EXPORT ForkGuard {
 public:
  using Step = void (*)();

  /// `before` runs before the fork in the forking thread, `inParent` and `inChild` after it.
  ForkGuard(ForkOrder order, Step before, Step inParent, Step inChild) noexcept;
  ForkGuard(const ForkGuard&) = delete;
  ForkGuard& operator=(const ForkGuard&) = delete;

 private:
  static void beforeAll();
  static void inParentAll();
  static void inChildAll();

  const ForkOrder order_;
  const Step before_;
  const Step inParent_;
  const Step inChild_;
  /// Neighbours in the order of the `before` steps.
  ForkGuard* next_ = nullptr;
  ForkGuard* prev_ = nullptr;

  /// All guards, in the order of their `before` steps.
  static ForkGuard* first_;
  static ForkGuard* last_;
};

}  // namespace Fenrik
