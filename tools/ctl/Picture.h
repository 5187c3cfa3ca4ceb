#pragma once

#include <optional>
#include <vector>

#include "ctl/Command.h"
#include "tables/Progress.h"

namespace Ctl {

/// One unit of a table at a moment. `live` counts entries in deletion too if those were not
/// counted.
struct UnitPicture {
  Asic::UnitId unit;
  Word live = 0;
  Word inDeletion = 0;
  Word capacity = 0;
};

/// How far agent and hardware are with a table at a moment. A number that could not be read is 0
/// and is among the problems.
struct TablePicture {
  const TableKind* kind = nullptr;
  Word issued = 0;
  Word announced = 0;
  Word reported = 0;
  /// Records in the log, and how many it may hold.
  Word logged = 0;
  Word logCapacity = 0;
  /// The process that wrote last, and how often the log was taken over.
  Word agent = 0;
  Word generation = 0;
  /// Whether an agent has the log open, and a hardware writer the reports.
  bool agentAlive = false;
  bool writerAlive = false;
  /// The hardware writer's own notes; nothing if it keeps none here.
  std::optional<Tables::Progress> progress;
  std::vector<UnitPicture> units;

  Word lag() const { return announced > reported ? announced - reported : 0; }
};

struct Picture {
  std::vector<TablePicture> tables;
  std::vector<std::string> problems;
};

/// Entity path of the reports of a table's group.
std::string reportPath(const TableKind& kind);
/// The reports of a table's group. Throws `Drift::MountException`.
Tables::Collection reportsOf(const Drift::Directory& directory, const TableKind& kind);
/// The version that the hardware writer has reported there for the table; 0 if none. Throws
/// `Fenrik::CorruptionDetectedException`.
Word reportedOf(const Tables::Collection& reports, const TableKind& kind);
/// Both for one look.
Word reportedOf(const Drift::Directory& directory, const TableKind& kind);
/// The record of the reports that says so.
std::vector<Word> reportRecord(const TableKind& kind, Word version);
/// The hardware writer's notes on a table.
std::optional<Tables::Progress> progressOf(const Drift::Directory& directory,
                                           const TableKind& kind);

/// The tables that have a log or a configuration. `deletions`: entries in deletion are counted,
/// which reads all entries.
Picture pictureOf(const Drift::Directory& directory, bool deletions);

/// "version 12 waits ..."; empty if the hardware writer does not wait.
std::string waitOf(const TablePicture& table);
Json jsonOf(const Picture& picture);

}  // namespace Ctl
