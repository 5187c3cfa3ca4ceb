#include "asic/Chip.h"

#include <algorithm>
#include <bit>
#include <chrono>

namespace SimAsic {
namespace {

using Tables::TableKind;

/// Twice a configuration's capacity: rows of a lost configuration remain until they are removed.
constexpr Drift::Word kCapacity = 2 * 65'536;

Drift::Geometry rowGeometry(const TableKind& kind) {
  return {Drift::Format::Layout::hashed,
          kind.keySize,
          kind.entrySize,
          kCapacity,
          "SimAsic::Row",
          kind.name};
}

constexpr Drift::Geometry kProgressGeometry{
    Drift::Format::Layout::hashed,     Tables::kProgressShape.keySize,
    Tables::kProgressShape.recordSize, 1,
    Tables::kProgressShape.typeName,   "progress"};
using ProgressWords = std::array<Drift::Word, Tables::kProgressWords>;

}  // namespace

struct Chip::Table {
  RowFile rows;
  std::uint64_t digest = 0;
};

struct Chip::Progress {
  explicit Progress(const Drift::Directory& directory, const TableKind& kind)
      : file(directory, Tables::progressPath(kind), kProgressGeometry) {
    const auto stored = file.find({&row.key, 1});
    if (!stored) return;
    ProgressWords words;
    std::ranges::copy(*stored, words.begin());
    row = std::bit_cast<Tables::Progress>(words);
    waitsIs(0, 0);
  }
  void store() { file.write(std::bit_cast<ProgressWords>(row)); }
  void waitsIs(Word ofTable, Word version) {
    if (row.waitsForTable == ofTable && row.waitsForVersion == version) return;
    using std::chrono::milliseconds;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    row.waitsForTable = ofTable;
    row.waitsForVersion = version;
    row.waitsSince =
        version == 0 ? 0 : static_cast<Word>(std::chrono::duration_cast<milliseconds>(now).count());
  }

  RowFile file;
  Tables::Progress row;
};

Chip::Chip(const std::string& directory) : directory_(directory, Drift::Directory::Access::write) {
  for (const TableKind& kind : Tables::tableKinds()) recall(kind);
}

Chip::~Chip() = default;

void Chip::recall(const TableKind& kind) {
  for (const std::string& path : directory_.entities(Tables::chipRowsPath(kind))) {
    const auto unit = Tables::unitOf(kind, path);
    if (!unit) continue;
    const bool lost = table(kind, *unit).rows.fresh();
    RowFile& note = progress(kind).file;
    if (lost) note.noteIs(0);
  }
}

Chip::Table& Chip::table(const TableKind& kind, UnitId unit) {
  const auto at = std::pair(kind.id, unit);
  const auto known = tables_.find(at);
  if (known != tables_.end()) return known->second;
  const std::string path = fmt::format("{}{}", Tables::chipRowsPath(kind), unit);
  Table& made =
      tables_.try_emplace(at, Table{RowFile(directory_, path, rowGeometry(kind))}).first->second;
  Pipeline& pipeline = units_[unit];
  made.rows.walk([&](Words row) {
    made.digest += Tables::rowDigest(kind.id, unit, row);
    pipeline.written(kind, row);
    pointersAdd(kind, unit, row, 1);
  });
  return made;
}

Chip::Progress& Chip::progress(const TableKind& kind) {
  const auto known = progress_.find(kind.id);
  if (known != progress_.end()) return known->second;
  return progress_.try_emplace(kind.id, directory_, kind).first->second;
}

void Chip::pointersAdd(const TableKind& kind, UnitId unit, Words entry, int count) {
  if (kind.references == nullptr) return;
  for (const auto& [name, key] : kind.references(entry)) {
    const auto at =
        pointers_.try_emplace(Tables::rowDigest(Tables::kindOf(name)->id, unit, key)).first;
    if ((at->second += count) == 0) pointers_.erase(at);
  }
}

void Chip::checkReferences(const TableKind& kind, UnitId unit, Words entry) {
  if (kind.references == nullptr) return;
  for (const auto& [name, key] : kind.references(entry)) {
    const TableKind& other = *Tables::kindOf(name);
    if (table(other, unit).rows.find(key)) continue;
    violated(kind, unit, entry,
             fmt::format("was written before {} of {}, at which it points",
                         other.key.text(key.data()), name));
  }
}

void Chip::violated(const TableKind& kind, UnitId unit, Words key, const std::string& what) {
  ++progress(kind).row.violations;
  lastViolation_ =
      fmt::format("{} unit {}: {} {}", kind.name, unit, kind.key.text(key.data()), what);
  progress(kind).store();
}

void Chip::write(const TableKind& kind, UnitId unit, Words entry) {
  Table& to = table(kind, unit);
  if (const auto former = to.rows.find(Tables::keyOf(kind, entry))) {
    to.digest -= Tables::rowDigest(kind.id, unit, *former);
    pointersAdd(kind, unit, *former, -1);
  }
  to.rows.write(entry);
  to.digest += Tables::rowDigest(kind.id, unit, entry);
  pointersAdd(kind, unit, entry, 1);
  checkReferences(kind, unit, entry);
  auto& meters = progress(kind).row;
  ++meters.written;
  meters.moves += units_[unit].written(kind, entry);
}

bool Chip::remove(const TableKind& kind, UnitId unit, Words key) {
  Table& from = table(kind, unit);
  const auto former = from.rows.find(key);
  if (!former) return false;
  from.digest -= Tables::rowDigest(kind.id, unit, *former);
  pointersAdd(kind, unit, *former, -1);
  from.rows.remove(key);
  ++progress(kind).row.removed;
  units_[unit].removed(kind, key);
  if (pointers_.contains(Tables::rowDigest(kind.id, unit, key))) {
    violated(kind, unit, key, "has gone, and rows point at it");
  }
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

Chip::Word Chip::logOf(const TableKind& kind) { return progress(kind).row.log; }

void Chip::logOfIs(const TableKind& kind, Word seed) {
  progress(kind).row.log = seed;
  progress(kind).store();
}

Chip::Word Chip::configOf(const TableKind& kind, UnitId unit) {
  return table(kind, unit).rows.note();
}

void Chip::configOfIs(const TableKind& kind, UnitId unit, Word seed) {
  table(kind, unit).rows.noteIs(seed);
}

void Chip::waitsIs(const TableKind& kind, const TableKind* other, Word version) {
  progress(kind).waitsIs(other == nullptr ? 0 : other->id.value(), version);
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

Verdict Chip::decide(UnitId unit, const Policy::Packet& packet) const {
  return pipeline(unit).decide(packet);
}

const Pipeline& Chip::pipeline(UnitId unit) const {
  static const Pipeline kEmpty;
  const auto found = units_.find(unit);
  return found == units_.end() ? kEmpty : found->second;
}

Meters Chip::meters() const {
  Meters all;
  for (const auto& [id, progress] : progress_) {
    all.written += progress.row.written;
    all.removed += progress.row.removed;
    all.moves += progress.row.moves;
    all.violations += progress.row.violations;
  }
  return all;
}

void Chip::metersStore() {
  for (auto& [id, progress] : progress_) progress.store();
}

}  // namespace SimAsic
