#pragma once

#include <optional>

#include "tables/Collections.h"

namespace HwWriter {

using Tables::TableKind;
using Tables::Word;
using Tables::Words;

/// The log of one table and its needed sets, followed version by version.
///
/// Threads: one.
class LogSource {
 public:
  /// Throws `Drift::MountException` unless the agent has created both.
  LogSource(const Drift::Directory& directory, const TableKind& kind);

  const TableKind& kind() const noexcept { return kind_; }
  /// Whether the agent has replaced one of the files, which are then no longer written.
  bool replaced() const { return log_.file().replaced() || needed_.file().replaced(); }

  /// Call when no read may follow for some time, so that the agent can free memory.
  void rest() const {
    view_.rest();
    neededView_.rest();
  }

  const Drift::DriftFile& log() const noexcept { return log_.file(); }
  /// Distinguishes this log from a replacement.
  Word seed() const { return log_.seed(); }

  /// The announced version. Throws `Fenrik::CorruptionDetectedException`.
  Word announced() const;
  /// The doorbell to wait on, as it was before the last call of `announced`.
  Drift::BellSeen bell() const noexcept { return {&log_.file(), seen_}; }

  enum class Read {
    found,
    absent,  ///< the version was never logged
    lost,    ///< removed from the log, or damaged
  };
  /// Reads the record of an announced version.
  Read read(Word version, Tables::LogRow& row) const;

  /// The versions of other tables that this one requires; null if they cannot be read any more.
  /// REQUIRES: versions do not descend between calls.
  const std::vector<Asic::TableVersion>* needs(Word version);

 private:
  bool nextNeeded();

  const TableKind& kind_;
  Tables::Collection log_;
  Tables::Collection needed_;
  Drift::DenseView view_;
  Drift::DenseView neededView_;
  mutable std::uint32_t seen_ = 0;
  mutable std::vector<Word> record_;
  /// The next needed record not yet consumed, and the sequence number after it.
  std::optional<Asic::NeededEntryRecord> ahead_;
  Word sequence_ = 0;
  Word needsOf_ = 0;
  std::vector<Asic::TableVersion> needs_;
};

}  // namespace HwWriter
