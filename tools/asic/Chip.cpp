#include "asic/Chip.h"

#include <algorithm>
#include <charconv>

namespace SimAsic {
namespace {

using Tables::TableKind;

/// A configuration may hold as many rows; the same again, while rows of one that was lost are still
/// to be removed.
constexpr Drift::Word kCapacity = 2 * 65'536;

std::string folderOf(const TableKind& kind) { return fmt::format("rows/{}/", kind.name); }

Drift::Geometry rowGeometry(const TableKind& kind) {
  return {Drift::Format::Layout::hashed,
          kind.keySize,
          kind.entrySize,
          kCapacity,
          "SimAsic::Row",
          kind.name};
}

// The meters of a table as a row: a key of 0, and the numbers.
constexpr std::uint32_t kMeterWords = 5;
constexpr Drift::Geometry kMeterGeometry{
    Drift::Format::Layout::hashed, 8, kMeterWords * 8, 1, "SimAsic::Meters", "meters"};

}  // namespace

struct Chip::Table {
  RowFile rows;
  std::uint64_t digest = 0;
};

struct Chip::Progress {
  explicit Progress(const Drift::Directory& directory, const TableKind& kind)
      : file(directory, fmt::format("progress/{}", kind.name), kMeterGeometry) {
    const Word key = 0;
    const auto stored = file.find({&key, 1});
    if (!stored) return;
    meters = {(*stored)[1], (*stored)[2], (*stored)[3], (*stored)[4]};
  }

  RowFile file;
  Meters meters;
};

Chip::Chip(const std::string& directory) : directory_(directory, Drift::Directory::Access::write) {
  for (const TableKind& kind : Tables::tableKinds()) storedTables(kind);
}

Chip::~Chip() = default;

/// What the chip held when its last process ended. A table whose rows were lost counts as never
/// programmed.
void Chip::storedTables(const TableKind& kind) {
  const std::string folder = folderOf(kind);
  for (const std::string& path : directory_.entities(folder)) {
    std::uint16_t unit = 0;
    const char* const end = path.data() + path.size();
    const auto [stop, error] = std::from_chars(path.data() + folder.size(), end, unit);
    if (error != std::errc() || stop != end) continue;
    const bool lost = table(kind, UnitId(unit)).rows.fresh();
    RowFile& note = progress(kind).file;
    if (lost) note.noteIs(0);
  }
}

Chip::Table& Chip::table(const TableKind& kind, UnitId unit) {
  const auto at = std::pair(kind.id, unit);
  const auto known = tables_.find(at);
  if (known != tables_.end()) return known->second;
  const std::string path = fmt::format("{}{}", folderOf(kind), unit);
  Table& made =
      tables_.try_emplace(at, Table{RowFile(directory_, path, rowGeometry(kind))}).first->second;
  Pipeline& pipeline = units_[unit];
  made.rows.walk([&](Words row) {
    made.digest += Tables::rowDigest(kind.id, unit, row);
    pipeline.written(kind, row);
  });
  return made;
}

Chip::Progress& Chip::progress(const TableKind& kind) {
  const auto known = progress_.find(kind.id);
  if (known != progress_.end()) return known->second;
  return progress_.try_emplace(kind.id, directory_, kind).first->second;
}

void Chip::pay(const TableKind& kind, UnitId unit, Words key, Pipeline::Cost cost) {
  Meters& meters = progress(kind).meters;
  meters.moves += cost.moves;
  if (cost.violations == 0) return;
  meters.violations += cost.violations;
  lastViolation_ = fmt::format("{} unit {} {}", kind.name, unit, kind.key.text(key.data()));
  metersStore();
}

void Chip::write(const TableKind& kind, UnitId unit, Words entry) {
  Table& to = table(kind, unit);
  if (const auto former = to.rows.find(Tables::keyOf(kind, entry))) {
    to.digest -= Tables::rowDigest(kind.id, unit, *former);
  }
  to.rows.write(entry);
  to.digest += Tables::rowDigest(kind.id, unit, entry);
  ++progress(kind).meters.written;
  pay(kind, unit, entry, units_[unit].written(kind, entry));
}

bool Chip::remove(const TableKind& kind, UnitId unit, Words key) {
  Table& from = table(kind, unit);
  const auto former = from.rows.find(key);
  if (!former) return false;
  from.digest -= Tables::rowDigest(kind.id, unit, *former);
  from.rows.remove(key);
  ++progress(kind).meters.removed;
  pay(kind, unit, key, units_[unit].removed(kind, key));
  return true;
}

std::size_t Chip::clear(const TableKind& kind, UnitId unit) {
  auto all = rows(kind, unit);
  std::ranges::stable_sort(all, std::greater<>(), [&](const std::vector<Word>& row) {
    return Pipeline::orderOf(kind, row);
  });
  for (const auto& row : all) remove(kind, unit, Tables::keyOf(kind, row));
  return all.size();
}

Chip::Word Chip::programmed(const TableKind& kind) { return progress(kind).file.note(); }

void Chip::programmedIs(const TableKind& kind, Word version) {
  progress(kind).file.noteIs(version);
}

std::vector<Asic::UnitId> Chip::units(const TableKind& kind) const {
  std::vector<UnitId> result;
  for (const auto& [at, table] : tables_) {
    if (at.first == kind.id) result.push_back(at.second);
  }
  return result;
}

std::optional<Tables::Words> Chip::find(const TableKind& kind, UnitId unit, Words key) {
  return table(kind, unit).rows.find(key);
}

std::vector<std::vector<Chip::Word>> Chip::rows(const TableKind& kind, UnitId unit) {
  std::vector<std::vector<Word>> result;
  table(kind, unit).rows.walk([&](Words row) { result.emplace_back(row.begin(), row.end()); });
  return result;
}

Chip::Word Chip::rowCount(const TableKind& kind, UnitId unit) {
  return table(kind, unit).rows.size();
}

std::uint64_t Chip::digest(const TableKind& kind, UnitId unit) { return table(kind, unit).digest; }

Policy::Decision Chip::decide(UnitId unit, const Policy::Packet& packet) const {
  const auto found = units_.find(unit);
  return found == units_.end() ? 0 : found->second.decide(packet);
}

const RuleTable& Chip::rules(UnitId unit) const {
  static const Pipeline kEmpty;
  const auto found = units_.find(unit);
  return found == units_.end() ? kEmpty.rules() : found->second.rules();
}

Meters Chip::meters() const {
  Meters all;
  for (const auto& [id, progress] : progress_) {
    all.written += progress.meters.written;
    all.removed += progress.meters.removed;
    all.moves += progress.meters.moves;
    all.violations += progress.meters.violations;
  }
  return all;
}

void Chip::metersStore() {
  for (auto& [id, progress] : progress_) {
    const Meters& meters = progress.meters;
    const std::array<Word, kMeterWords> row{0, meters.written, meters.removed, meters.moves,
                                            meters.violations};
    progress.file.write(row);
  }
}

}  // namespace SimAsic
