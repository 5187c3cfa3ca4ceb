#pragma once

#include <cstdint>

#include "Fenrik/Export.h"

namespace Fenrik {

/// Who takes part in a fork, in the order in which locks are taken: whoever holds a lock of one may
/// take those that follow, never those before.
enum class ForkOrder : std::uint8_t {
  /// Locks of collections and files in shared memory.
  files,
  /// Who records into which ring file; then the ring files themselves.
  ringFiles,
  rings,
  /// Where the lines of traces and of the operator's log go. A callback may use either.
  lines,
  /// What is traced, and how many messages a log handle lets pass.
  settings,
  /// The record of what each class holds.
  trackers,
  /// Storage of objects.
  slab,
};

/// Keeps a part of the system whole over fork(2). A child has the one thread that forked and a copy
/// of all memory as it was: a lock that another thread held would be held there for ever, and a
/// file that is mapped shared is its parent's.
///
/// A room with such state has one object of static storage, which joins when it is constructed and
/// stays for ever:
///
///     const Fenrik::ForkGuard guard(Fenrik::ForkOrder::files, [] { lock(); }, [] { unlock(); },
///                                   [] { childForgets(); unlock(); });
///
/// Of all rooms the `before` steps run in the order of `ForkOrder`, the others in the reverse one.
///
/// A step allocates nothing and throws nothing. Singletons that are made at their first use are to
/// be made in `before` at the latest: a child that finds one half made by another thread waits for
/// ever.
///
/// vfork, posix_spawn and a bare clone run no steps, and need none when an exec follows.
class QUARNBASTIL_EXPORT ForkGuard {
 public:
  using Step = void (*)();

  /// `before` runs in the thread that forks, `inParent` and `inChild` when it has forked.
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

  /// All guards, those that are locked first at the front.
  static ForkGuard* first_;
  static ForkGuard* last_;
};

}  // namespace Fenrik
