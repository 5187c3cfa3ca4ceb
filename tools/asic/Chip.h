#pragma once

#include <map>
#include <memory>
#include <unordered_map>

#include "asic/Pipeline.h"
#include "asic/RowFile.h"
#include "tables/Progress.h"

namespace SimAsic {

/// Operations on the tables of a chip since it was made.
struct Meters {
  std::uint64_t written = 0;
  std::uint64_t removed = 0;
  std::uint64_t moves = 0;
  std::uint64_t violations = 0;
};

/// A simulated packet processor with several units: tables that are programmed row by row, and
/// packets that are decided by them. Its rows are in files of a directory of its own, so that it
/// outlives the process that programs it, as a chip does.
///
/// Threads: one. One process at a time.
///
/// I1. The rows, and how far each table has been programmed, survive a death at any instruction.
///     The meters may miss operations since they were last stored.
/// I2. A row is written after the rows to which it points (`TableKind::references`), and a row goes
///     after those that point to it. Whatever breaks that is a violation, and counted.
class Chip {
 public:
  using TableKind = Tables::TableKind;
  using Words = Tables::Words;
  using Word = Tables::Word;
  using UnitId = Asic::UnitId;

  /// Throws `Drift::MountException`, `busy` while another process programs the chip.
  explicit Chip(const std::string& directory);
  ~Chip();
  Chip(const Chip&) = delete;
  Chip& operator=(const Chip&) = delete;

  /// Brings a table back as the chip's last process left it; those of all known families are when
  /// the chip is made. A table whose rows were lost counts as never programmed.
  void recall(const TableKind& kind);

  void write(const TableKind& kind, UnitId unit, Words entry);
  /// False if there is no such row.
  bool remove(const TableKind& kind, UnitId unit, Words key);
  /// Removes all rows of a table, one by one. Returns how many.
  std::size_t clear(const TableKind& kind, UnitId unit);

  /// Up to which version of a table's log the chip is programmed. 0 again after rows of the table
  /// were lost.
  Word programmed(const TableKind& kind);
  void programmedIs(const TableKind& kind, Word version);

  /// Which collections the rows were programmed from, by the seeds in their headers; 0 if none.
  Word logOf(const TableKind& kind);
  void logOfIs(const TableKind& kind, Word seed);
  Word configOf(const TableKind& kind, UnitId unit);
  void configOfIs(const TableKind& kind, UnitId unit, Word seed);

  /// The table's next version waits for a version of another table, or (null) for none; stored with
  /// the meters.
  void waitsIs(const TableKind& kind, const TableKind* other, Word version);

  /// Units of which the chip has a table of the family.
  std::vector<UnitId> units(const TableKind& kind) const;
  /// The row of the key, which holds until the next call; nothing if there is none.
  std::optional<Words> find(const TableKind& kind, UnitId unit, Words key);
  std::vector<std::vector<Word>> rows(const TableKind& kind, UnitId unit);
  Word rowCount(const TableKind& kind, UnitId unit);
  /// What `Tables::rowDigest` of the rows adds up to.
  std::uint64_t digest(const TableKind& kind, UnitId unit);

  Policy::Decision decide(UnitId unit, const Policy::Packet& packet) const;
  /// The rules of a unit; those of a unit without any are empty.
  const RuleTable& rules(UnitId unit) const;

  Meters meters() const;
  /// The last violation that this process has counted, for people; empty if there was none.
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
  /// How many rows point at a row, by `Tables::rowDigest` of that one's key.
  std::unordered_map<std::uint64_t, int> pointers_;
  std::string lastViolation_;
};

}  // namespace SimAsic
