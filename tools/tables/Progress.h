#pragma once

#include <optional>

#include "Drift/Header.h"
#include "tables/TableKind.h"

namespace Tables {

/// Folder of the hardware writer's chip below the agent's directory.
inline constexpr std::string_view kChipFolder = "asic";

/// A hardware writer's progress in one table: a row in a collection of the chip's folder, for the
/// writer's successor and for monitoring. The collection's scratchpad holds the version up to which
/// the chip is programmed.
struct Progress {
  /// Always 0: the collection has a single row.
  Word key = 0;
  /// Rows written and removed.
  Word written = 0;
  Word removed = 0;
  /// Rows that the chip had to move.
  Word moves = 0;
  /// Violations of the order between rows.
  Word violations = 0;
  /// The log that the chip follows, identified by the seed in its header; 0 if none.
  Word log = 0;
  /// Version of another table that the next version waits for; both 0 if it does not wait.
  Word waitsForTable = 0;
  Word waitsForVersion = 0;
  /// Start of the wait, in milliseconds of the system clock.
  Word waitsSince = 0;
};
inline constexpr std::size_t kProgressWords = sizeof(Progress) / sizeof(Word);
inline constexpr Shape kProgressShape{Drift::Format::Layout::hashed, "SimAsic::Progress",
                                      sizeof(Word), sizeof(Progress)};

/// Entity path prefix of the chip's rows; append the number of the unit.
inline std::string chipRowsPath(const TableKind& kind) {
  return "rows/" + std::string(kind.name) + '/';
}
/// The unit of such a path, or nullopt for a foreign file. REQUIRES: the path has that prefix.
std::optional<Asic::UnitId> unitOf(const TableKind& kind, std::string_view rowsPath);
inline std::string progressPath(const TableKind& kind) {
  return "progress/" + std::string(kind.name);
}

}  // namespace Tables
