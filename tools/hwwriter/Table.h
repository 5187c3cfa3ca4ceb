#pragma once

#include <map>
#include <memory>

#include "hwwriter/Comparison.h"
#include "hwwriter/LogSource.h"

namespace HwWriter {

/// The agent's collections of one table: the log and the configurations of its units.
///
/// Threads: one.
class Table {
 public:
  explicit Table(const TableKind& kind) : kind_(&kind) {}

  const TableKind& kind() const noexcept { return *kind_; }
  /// The log, or null if the agent has not created it.
  LogSource* source() const noexcept { return source_.get(); }
  /// Call when no read may follow for some time.
  void rest() const;
  /// Opens collections that exist but are not open, or that were replaced. False if there is no
  /// log.
  bool open(const Drift::Directory& directory, const News& news);

  /// The lost source of the chip's rows: the log, or the configuration of a unit. Empty if the
  /// sources are the same, or the chip is new.
  std::string lost(SimAsic::Chip& chip) const;
  /// Records in the chip that it follows these collections.
  void followedBy(SimAsic::Chip& chip) const;

  /// Adds all units to a comparison.
  void compare(Comparison& comparison, Word announced) const;
  /// Sum of the configurations' digests.
  std::uint64_t configDigest() const;

 private:
  void openConfigs(const Drift::Directory& directory, const News& news);

  const TableKind* kind_;
  std::unique_ptr<LogSource> source_;
  std::map<Asic::UnitId, std::unique_ptr<Tables::Config>> configs_;
};

}  // namespace HwWriter
