#pragma once

#include <optional>

#include "tables/Collections.h"

namespace HwWriter {

using Tables::TableKind;
using Tables::Word;
using Tables::Words;

/// The log of one table and the needed sets beside it, followed version by version.
///
/// Threads: one.
class LogSource {
 public:
  /// Throws `Drift::MountException` while the agent has not made both.
  LogSource(const Drift::Directory& directory, const TableKind& kind);

  const TableKind& kind() const noexcept { return kind_; }
  /// The agent has made one of the files anew: nobody writes these any more.
  bool replaced() const { return log_.file().replaced() || needed_.file().replaced(); }

  /// Nothing may be read for long: the agent may give memory back.
  void rest() const {
    view_.rest();
    neededView_.rest();
  }

  const Drift::DriftFile& log() const noexcept { return log_.file(); }
  /// Tells this log from one that is made anew in its place.
  Word seed() const { return log_.seed(); }

  /// How far one may go. Throws `Fenrik::CorruptionDetectedException`.
  Word announced() const;
  /// The doorbell to sleep at, as it was before the last call of `announced`.
  Drift::BellSeen bell() const noexcept { return {&log_.file(), seen_}; }

  enum class Read {
    found,
    absent,  ///< a version that was never logged
    lost,    ///< removed from the log, or damaged
  };
  /// The record of a version that was announced.
  Read read(Word version, Tables::LogRow& row) const;

  /// The versions of other tables that this one needs; null if that cannot be read any more.
  /// REQUIRES: versions ascend from call to call; each may be asked for any number of times.
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
  /// The next needed record that was not consumed, and the sequence number after it.
  std::optional<Asic::NeededEntryRecord> ahead_;
  Word sequence_ = 0;
  Word needsOf_ = 0;
  std::vector<Asic::TableVersion> needs_;
};

}  // namespace HwWriter
