#pragma once

#include <optional>
#include <vector>

#include "ctl/Command.h"
#include "tables/Progress.h"

namespace Ctl {

/// One unit of a table at one moment. `live` includes entries in deletion unless those were
/// counted.
struct UnitPicture {
  Asic::UnitId unit;
  Word live = 0;
  Word inDeletion = 0;
  Word capacity = 0;
};

/// Progress of agent and hardware in a table at one moment. A number that could not be read is 0
/// and listed among the problems.
struct TablePicture {
  const TableKind* kind = nullptr;
  /// Newest versions issued, announced and reported.
  Word issued = 0;
  Word announced = 0;
  Word reported = 0;
  /// Number of records in the log, and its capacity.
  Word logged = 0;
  Word logCapacity = 0;
  /// Process id of the last writer, and the number of takeovers of the log.
  Word agent = 0;
  Word generation = 0;
  /// Whether an agent has the log open, and a hardware writer the reports.
  bool agentAlive = false;
  bool writerAlive = false;
  /// The hardware writer's own progress record, if it keeps one here.
  std::optional<Tables::Progress> progress;
  std::vector<UnitPicture> units;

  Word lag() const { return announced > reported ? announced - reported : 0; }
};

struct Picture {
  std::vector<TablePicture> tables;
  /// The agent's waiting heads, as text.
  std::vector<std::string> waits;
  std::vector<std::string> problems;
};

/// Entity path of the reports of a table's group.
std::string reportPath(const TableKind& kind);
/// Opens the reports of a table's group. Throws `Drift::MountException`.
Tables::Collection reportsOf(const Drift::Directory& directory, const TableKind& kind);
/// The version reported for the table, or 0. Throws `Fenrik::CorruptionDetectedException`.
Word reportedOf(const Tables::Collection& reports, const TableKind& kind);
/// Both steps, for a single read.
Word reportedOf(const Drift::Directory& directory, const TableKind& kind);
/// The record with which a version is reported.
std::vector<Word> reportRecord(const TableKind& kind, Word version);
/// The hardware writer's progress record of a table.
std::optional<Tables::Progress> progressOf(const Drift::Directory& directory,
                                           const TableKind& kind);

/// The tables with a log or a configuration. `deletions`: counts entries in deletion, which reads
/// all entries.
Picture pictureOf(const Drift::Directory& directory, bool deletions);

/// "version 12 waits ..."; empty if the hardware writer does not wait.
std::string waitOf(const TablePicture& table);
Json jsonOf(const Picture& picture);

}  // namespace Ctl
