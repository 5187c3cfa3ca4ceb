#pragma once

#include <vector>

#include "ctl/Command.h"

namespace Ctl {

/// One unit of a table at a moment.
struct UnitPicture {
  Asic::UnitId unit;
  Word live = 0;
  Word inDeletion = 0;
  Word capacity = 0;
};

/// How far agent and hardware are with a table at a moment. What could not be read is 0, and stands
/// among the problems.
struct TablePicture {
  const TableKind* kind = nullptr;
  Word issued = 0;
  Word announced = 0;
  Word reported = 0;
  /// Records in the log, and how many it may hold.
  Word logged = 0;
  Word logCapacity = 0;
  /// The process that wrote last, and how often the log was taken over.
  Word writer = 0;
  Word generation = 0;
  std::vector<UnitPicture> units;

  Word lag() const { return announced > reported ? announced - reported : 0; }
};

struct Picture {
  std::vector<TablePicture> tables;
  std::vector<std::string> problems;
};

/// The version that the hardware writer has reported for the table; 0 if none. Throws
/// `Drift::MountException`, `Fenrik::CorruptionDetectedException`.
Word reportedOf(const Drift::Directory& directory, const TableKind& kind);

/// The tables of which there is a log or a configuration.
Picture pictureOf(const Drift::Directory& directory);

}  // namespace Ctl
