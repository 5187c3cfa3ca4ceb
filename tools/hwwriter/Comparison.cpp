#include "hwwriter/Comparison.h"

#include <algorithm>
#include <tuple>

namespace HwWriter {

using Tables::Config;
using Tables::ConfigRow;
using Tables::Words;

void Comparison::compare(const Config& config, Words key, const std::optional<ConfigRow>& row,
                         const Bounds& bounds) {
  const Tables::TableKind& kind = config.kind();
  ++compared_;
  const auto present = chip_.find(kind, config.unit(), key);
  const bool early = row && row->version > bounds.upTo;
  const bool ground = early && bounds.withGround && kind.tier == 0;
  // On ground that is laid early a row in deletion stays until the log takes it away.
  const bool wanted = row && (!row->isDeleted || ground);
  if (early && !ground) {
    later_.push_back({row->version, config.unit(), {key.begin(), key.end()}, row->isDeleted});
    return;
  }
  if (wanted ? present && std::ranges::equal(*present, row->entry) : !present) return;
  if (wanted) {
    const auto order = SimAsic::Pipeline::orderOf(kind, row->entry);
    differences_.push_back({&kind, config.unit(), order, row->entry, true});
  } else {
    const auto order = SimAsic::Pipeline::orderOf(kind, *present);
    differences_.push_back({&kind, config.unit(), order, {key.begin(), key.end()}, false});
  }
}

void Comparison::add(const Config& config, const Bounds& bounds) {
  const Tables::TableKind& kind = config.kind();
  config.walk([&](const ConfigRow& row) { compare(config, keyOf(kind, row.entry), row, bounds); },
              [&](const std::string& damage) { news_.warn(damage); });
  for (const auto& held : chip_.rows(kind, config.unit())) {
    const auto key = Tables::keyOf(kind, held);
    try {
      if (!config.find(key)) compare(config, key, {}, bounds);
    } catch (const Fenrik::CorruptionDetectedException& e) {
      // What is meant to be there cannot be told: the row stays as it is.
      news_.warn(e.what());
    }
  }
}

void Comparison::add(const Config& config, Words key, const Bounds& bounds) {
  try {
    compare(config, key, config.find(key), bounds);
  } catch (const Fenrik::CorruptionDetectedException& e) {
    news_.warn(e.what());
  }
}

std::size_t Comparison::program() {
  std::ranges::stable_sort(differences_, [](const Difference& a, const Difference& b) {
    if (a.write != b.write) return a.write;
    const auto left = std::tuple(a.kind->tier, a.order);
    const auto right = std::tuple(b.kind->tier, b.order);
    return a.write ? left < right : right < left;
  });
  for (const Difference& difference : differences_) {
    if (difference.write) {
      chip_.write(*difference.kind, difference.unit, difference.words);
    } else {
      chip_.remove(*difference.kind, difference.unit, difference.words);
    }
  }
  return std::exchange(differences_, {}).size();
}

}  // namespace HwWriter
