#pragma once

#include <optional>

#include "Drift/Header.h"
#include "tables/TableKind.h"

namespace Tables {

/// Where the hardware writer keeps its chip, below the agent's directory.
inline constexpr std::string_view kChipFolder = "asic";

/// How far a hardware writer is with one table: a row in a collection of the chip's folder, for the
/// writer's successor and for programs that look on. The collection's scratchpad holds the version
/// up to which the chip is programmed.
struct Progress {
  Word key = 0;
  Word written = 0;
  Word removed = 0;
  Word moves = 0;
  Word violations = 0;
  /// The log that the chip followed, by the seed in its header; 0 if none.
  Word log = 0;
  /// What the next version waits for: a version of another table; both 0 if it does not wait.
  Word waitsForTable = 0;
  Word waitsForVersion = 0;
  /// Since when, in milliseconds of the system's clock.
  Word waitsSince = 0;
};
inline constexpr std::size_t kProgressWords = sizeof(Progress) / sizeof(Word);
inline constexpr Shape kProgressShape{Drift::Format::Layout::hashed, "SimAsic::Progress",
                                      sizeof(Word), sizeof(Progress)};

/// Entity paths of the chip's rows, to be completed by the number of the unit.
inline std::string chipRowsPath(const TableKind& kind) {
  return "rows/" + std::string(kind.name) + '/';
}
/// The unit of such a path; nothing for a foreign file. REQUIRES: the path begins as above.
std::optional<Asic::UnitId> unitOf(const TableKind& kind, std::string_view rowsPath);
inline std::string progressPath(const TableKind& kind) {
  return "progress/" + std::string(kind.name);
}

}  // namespace Tables
