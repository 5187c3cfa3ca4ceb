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
  /// Throws `Drift::MountException`, as long as the agent has not made both.
  LogSource(const Drift::Directory& directory, const TableKind& kind);

  const TableKind& kind() const noexcept { return kind_; }
  /// The agent has made one of the files anew: this object follows what nobody writes any more.
  bool replaced() const { return log_.file().replaced() || needed_.file().replaced(); }

  /// Moves when another agent takes the log over, before that one announces anything.
  Word generation() const { return log_.generation(); }

  /// How far one may go. Throws `Fenrik::CorruptionDetectedException`.
  Word announced() const;
  /// What to sleep at; the bell as it was before the last look at `announced`.
  Drift::BellSeen bell() const noexcept { return {&log_.file(), seen_}; }

  enum class Read {
    found,
    absent,  ///< a version that was never logged
    lost,    ///< records from here on have gone, or cannot be read
  };
  /// The record of a version that was announced.
  Read read(Word version, Tables::LogRow& row) const;

  /// What the version needs of other tables; nothing if that cannot be read any more. To be asked
  /// for ascending versions, for each as often as is liked.
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
  /// The needed record ahead, and the number of the one behind it.
  std::optional<Asic::NeededEntryRecord> ahead_;
  Word sequence_ = 0;
  Word needsOf_ = 0;
  std::vector<Asic::TableVersion> needs_;
};

}  // namespace HwWriter
