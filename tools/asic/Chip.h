#pragma once

#include <map>
#include <memory>
#include <unordered_map>

#include "asic/Pipeline.h"
#include "asic/RowFile.h"
#include "tables/Progress.h"

namespace SimAsic {

/// Numbers of operations on the chip's tables since it was created.
struct Meters {
  std::uint64_t written = 0;
  std::uint64_t removed = 0;
  std::uint64_t moves = 0;
  std::uint64_t violations = 0;
};

/// A simulated packet processor with several units: tables programmed row by row, and packets
/// decided by them. Its rows are in files of its own directory, so that, like a chip, it outlives
/// the process that programs it.
///
/// Threads: one. Processes: one at a time.
///
/// I1. The rows, and the progress of each table, survive a crash at any instruction. The meters may
///     miss operations since they were last stored.
/// I2. A row is written after the rows that it refers to (`TableKind::references`) and removed
///     after those that refer to it. Violations are counted.
class Chip {
 public:
  using TableKind = Tables::TableKind;
  using Words = Tables::Words;
  using Word = Tables::Word;
  using UnitId = Asic::UnitId;

  /// Throws `Drift::MountException`, with stage `busy` while another process programs the chip.
  explicit Chip(const std::string& directory);
  ~Chip();
  Chip(const Chip&) = delete;
  Chip& operator=(const Chip&) = delete;

  /// Restores a table as the chip's last process left it; the constructor does so for all known
  /// families. A table whose rows were lost counts as never programmed.
  void recall(const TableKind& kind);

  void write(const TableKind& kind, UnitId unit, Words entry);
  /// False if the row does not exist.
  bool remove(const TableKind& kind, UnitId unit, Words key);
  /// Removes all rows of a table one by one, and returns their number.
  std::size_t clear(const TableKind& kind, UnitId unit);

  /// The version of the table's log up to which the chip is programmed; 0 after rows of the table
  /// were lost.
  Word programmed(const TableKind& kind);
  void programmedIs(const TableKind& kind, Word version);

  /// The collections from which the rows were programmed, identified by the seeds in their headers;
  /// 0 if none.
  Word logOf(const TableKind& kind);
  void logOfIs(const TableKind& kind, Word seed);
  Word configOf(const TableKind& kind, UnitId unit);
  void configOfIs(const TableKind& kind, UnitId unit, Word seed);

  /// Records that the table's next version waits for a version of another table; null: for none.
  /// Stored with the meters.
  void waitsIs(const TableKind& kind, const TableKind* other, Word version);

  /// Units with a table of the family in the chip.
  std::vector<UnitId> units(const TableKind& kind) const;
  /// The row with this key, valid until the next call; or nullopt.
  std::optional<Words> find(const TableKind& kind, UnitId unit, Words key);
  std::vector<std::vector<Word>> rows(const TableKind& kind, UnitId unit);
  Word rowCount(const TableKind& kind, UnitId unit);
  /// Sum of `Tables::rowDigest` over the rows.
  std::uint64_t digest(const TableKind& kind, UnitId unit);

  Verdict decide(UnitId unit, const Policy::Packet& packet) const;
  /// The pipeline of a unit; empty if it has no rows.
  const Pipeline& pipeline(UnitId unit) const;

  Meters meters() const;
  /// The last violation counted by this process, as text for people; empty if there was none.
  const std::string& lastViolation() const noexcept { return lastViolation_; }
  void metersStore();

 private:
  struct Table;
  struct Progress;

  Table& table(const TableKind& kind, UnitId unit);
  Progress& progress(const TableKind& kind);
  void pointersAdd(const TableKind& kind, UnitId unit, Words entry, int count);
  void checkReferences(const TableKind& kind, UnitId unit, Words entry);
  void violated(const TableKind& kind, UnitId unit, Words key, const std::string& what);

  Drift::Directory directory_;
  std::map<std::pair<Asic::SwTableId, UnitId>, Table> tables_;
  std::map<Asic::SwTableId, Progress> progress_;
  std::map<UnitId, Pipeline> units_;
  /// Number of rows that refer to a row, by `Tables::rowDigest` of the latter's key.
  std::unordered_map<std::uint64_t, int> pointers_;
  std::string lastViolation_;
};

}  // namespace SimAsic
