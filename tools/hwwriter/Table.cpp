#include "hwwriter/Table.h"

namespace HwWriter {
namespace {

using Drift::MountException;
using Drift::MountStage;

/// Warns unless the collection is just being created.
void tell(const MountException& e, const News& news) {
  const bool soon = e.stage() == MountStage::absent || e.stage() == MountStage::notReady;
  if (!soon) news.warn(e.what());
}

}  // namespace

bool Table::open(const Drift::Directory& directory, const News& news) {
  openConfigs(directory, news);
  if (source_ != nullptr && !source_->replaced()) return true;
  source_ = nullptr;
  try {
    source_ = std::make_unique<LogSource>(directory, *kind_);
  } catch (const MountException& e) {
    tell(e, news);
  }
  return source_ != nullptr;
}

void Table::rest() const {
  if (source_ != nullptr) source_->rest();
  for (const auto& [unit, config] : configs_) config->rest();
}

void Table::openConfigs(const Drift::Directory& directory, const News& news) {
  for (const Asic::UnitId unit : Tables::configuredUnits(directory, *kind_)) {
    auto& config = configs_[unit];
    try {
      if (config != nullptr && !config->file().replaced()) continue;
      config = std::make_unique<Tables::Config>(directory, *kind_, unit);
    } catch (const MountException& e) {
      tell(e, news);
    }
  }
  std::erase_if(configs_, [](const auto& config) { return config.second == nullptr; });
}

std::string Table::lost(SimAsic::Chip& chip) const {
  const auto differs = [](Word known, Word seed) { return known != 0 && known != seed; };
  if (differs(chip.logOf(*kind_), source_->seed())) {
    return fmt::format("{}: the log was made anew", kind_->name);
  }
  for (const auto& [unit, config] : configs_) {
    if (!differs(chip.configOf(*kind_, unit), config->seed())) continue;
    return fmt::format("{}: the configuration of unit {} was made anew", kind_->name, unit);
  }
  return {};
}

void Table::followedBy(SimAsic::Chip& chip) const {
  if (chip.logOf(*kind_) != source_->seed()) chip.logOfIs(*kind_, source_->seed());
  for (const auto& [unit, config] : configs_) {
    if (chip.configOf(*kind_, unit) != config->seed()) {
      chip.configOfIs(*kind_, unit, config->seed());
    }
  }
}

void Table::compare(Comparison& comparison, Word announced) const {
  for (const auto& [unit, config] : configs_) comparison.add(*config, announced);
}

std::uint64_t Table::configDigest() const {
  std::uint64_t digest = 0;
  for (const auto& [unit, config] : configs_) digest += config->digest();
  return digest;
}

}  // namespace HwWriter
