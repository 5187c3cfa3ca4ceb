#include "hwwriter/Comparison.h"

#include <algorithm>
#include <tuple>

namespace HwWriter {

using Tables::Config;
using Tables::ConfigRow;
using Tables::Word;
using Tables::Words;

void Comparison::compare(const Config& config, Words key, const std::optional<ConfigRow>& row,
                         Word announced) {
  const Tables::TableKind& kind = config.kind();
  ++compared_;
  const bool early = row && row->version > announced;
  const bool referredTo = kind.tier < Tables::kHighestTier;
  const auto present = chip_.find(kind, config.unit(), key);
  // Where others may refer to it, a row in deletion under an unannounced version stays until the
  // log removes it.
  const bool wanted = row && (early ? referredTo : !row->isDeleted);
  early_ += early && !referredTo && present ? 1 : 0;
  if (wanted ? present && std::ranges::equal(*present, row->entry) : !present) return;
  const Words words = wanted ? Words(row->entry) : *present;
  const auto order = SimAsic::Pipeline::orderOf(kind, words);
  const Words stored = wanted ? words : key;
  differences_.push_back({&kind, config.unit(), order, {stored.begin(), stored.end()}, wanted});
}

void Comparison::add(const Config& config, Word announced) {
  const Tables::TableKind& kind = config.kind();
  config.walk(
      [&](const ConfigRow& row) { compare(config, keyOf(kind, row.entry), row, announced); },
      [&](const std::string& damage) { news_.warn(damage); });
  for (const auto& held : chip_.rows(kind, config.unit())) {
    const auto key = Tables::keyOf(kind, held);
    try {
      if (!config.find(key)) compare(config, key, {}, announced);
    } catch (const Fenrik::CorruptionDetectedException& e) {
      // The configuration is unreadable there, so the chip's row is left unchanged.
      news_.warn(e.what());
    }
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
