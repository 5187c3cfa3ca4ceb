#pragma once

#include <map>
#include <memory>

#include "hwwriter/Comparison.h"
#include "hwwriter/LogSource.h"

namespace HwWriter {

/// The agent's collections of one table: the log, and the configurations of its units.
///
/// Threads: one.
class Table {
 public:
  explicit Table(const TableKind& kind) : kind_(&kind) {}

  const TableKind& kind() const noexcept { return *kind_; }
  /// The log; null while the agent has not made it.
  LogSource* source() const noexcept { return source_.get(); }
  /// Says that nothing may be read for long.
  void rest() const;
  /// Opens what is there and not open, or was made anew since; false if there is no log.
  bool open(const Drift::Directory& directory, const News& news);

  /// What the chip's rows were made from and is not there any more: the log, or the configuration
  /// of a unit. Empty if they are the same, or the chip is new.
  std::string lost(SimAsic::Chip& chip) const;
  /// From now on the chip follows these collections.
  void followedBy(SimAsic::Chip& chip) const;

  /// Adds all units to a comparison.
  void compare(Comparison& comparison, Word announced) const;
  /// The sum of the configurations' digests.
  std::uint64_t configDigest() const;

 private:
  void openConfigs(const Drift::Directory& directory, const News& news);

  const TableKind* kind_;
  std::unique_ptr<LogSource> source_;
  std::map<Asic::UnitId, std::unique_ptr<Tables::Config>> configs_;
};

}  // namespace HwWriter
