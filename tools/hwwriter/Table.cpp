#include "hwwriter/Table.h"

namespace HwWriter {
namespace {

using Drift::MountException;
using Drift::MountStage;

/// What could not be opened and may be there in a moment is no news.
void tell(const MountException& e, const News& news) {
  const bool soon = e.stage() == MountStage::absent || e.stage() == MountStage::notReady;
  if (!soon) news.warn(e.what());
}

}  // namespace

bool Table::open(const Drift::Directory& directory, const News& news) {
  if (source_ != nullptr && !source_->replaced()) return true;
  source_ = nullptr;
  try {
    source_ = std::make_unique<LogSource>(directory, *kind_);
  } catch (const MountException& e) {
    tell(e, news);
  }
  return source_ != nullptr;
}

bool Table::takeoverSeen() {
  const Word former = std::exchange(generation_, source_->generation());
  return generation_ != former;
}

void Table::compare(const Drift::Directory& directory, Comparison& comparison, Word upTo, bool all,
                    const News& news) {
  for (const Asic::UnitId unit : Tables::configuredUnits(directory, *kind_)) {
    Unit& known = units_[unit];
    try {
      if (known.config == nullptr || known.config->file().replaced()) {
        known = {std::make_unique<Tables::Config>(directory, *kind_, unit), 0};
      }
      const Word former = std::exchange(known.generation, known.config->generation());
      if (known.generation == former && !all) continue;
      std::erase_if(later_, [&](const auto& later) { return later.second.unit == unit; });
      comparison.add(*known.config, {.upTo = upTo});
    } catch (const MountException& e) {
      tell(e, news);
    }
  }
  takeLater(comparison);
}

void Table::compareAnew(Comparison& comparison, const Comparison::Bounds& bounds) {
  later_.clear();
  for (const auto& [unit, known] : units_) {
    if (known.config != nullptr) comparison.add(*known.config, bounds);
  }
  takeLater(comparison);
}

/// Whether the log does not bring the row: under its version it has something else, or nothing yet.
/// (Or an agent is between its two stores just now; no harm is done by taking it for dead.)
bool Table::isCut(const Later& later) const {
  Tables::LogRow row;
  if (source_->read(later.version, row) != LogSource::Read::found) return true;
  if (row.unit != later.unit) return true;
  return !row.tableDelete && Tables::keyOf(*kind_, row.entry) != later.key;
}

void Table::takeLater(Comparison& comparison) {
  for (Later& later : comparison.takeLater()) {
    const Word version = later.version;
    if (isCut(later)) later_.emplace(version, std::move(later));
  }
}

/// Of the others the next agent says what it does to them, and they may depend on something.
bool Table::isBuiltUpon(const Later& later) const noexcept {
  return later.isDelete == (kind_->tier != 0);
}

Word Table::cut() const {
  for (const auto& [version, later] : later_) {
    if (isBuiltUpon(later)) return version;
  }
  return 0;
}

void Table::compareOne(Comparison& comparison, const Later& later,
                       const Comparison::Bounds& bounds) const {
  const auto unit = units_.find(later.unit);
  if (unit != units_.end()) comparison.add(*unit->second.config, later.key, bounds);
}

void Table::compareLater(Comparison& comparison, Word version,
                         const Comparison::Bounds& bounds) const {
  for (auto it = later_.begin(); it != later_.upper_bound(version); ++it) {
    compareOne(comparison, it->second, bounds);
  }
}

void Table::compareCut(Comparison& comparison, Word version) const {
  for (auto it = later_.begin(); it != later_.upper_bound(version); ++it) {
    if (isBuiltUpon(it->second)) compareOne(comparison, it->second, {.upTo = version});
  }
}

void Table::laterDone(Comparison& comparison, Word version, bool cutAlone) {
  std::erase_if(later_, [&](const auto& later) {
    return later.first <= version && (!cutAlone || isBuiltUpon(later.second));
  });
  takeLater(comparison);
}

std::uint64_t Table::configDigest() const {
  std::uint64_t digest = 0;
  for (const auto& [unit, known] : units_) {
    if (known.config != nullptr) digest += known.config->digest();
  }
  return digest;
}

}  // namespace HwWriter
