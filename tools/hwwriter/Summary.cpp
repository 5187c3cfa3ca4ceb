#include "hwwriter/Writer.h"

namespace HwWriter {
namespace {

using Json = nlohmann::ordered_json;

/// Describes the chip's content, compared with the configuration.
std::string describe(SimAsic::Chip& chip, const std::vector<Table>& tables, Json& facts) {
  Json programmed = Json::object();
  std::uint64_t ofChip = 0;
  std::uint64_t ofConfig = 0;
  Word rows = 0;
  for (const Table& table : tables) {
    const TableKind& kind = table.kind();
    if (table.source() == nullptr && chip.units(kind).empty()) continue;
    programmed[std::string(kind.name)] = chip.programmed(kind);
    ofConfig += table.configDigest();
    for (const Asic::UnitId unit : chip.units(kind)) {
      rows += chip.rowCount(kind, unit);
      ofChip += chip.digest(kind, unit);
    }
  }
  const SimAsic::Meters meters = chip.meters();
  facts.update({{"programmed", programmed},
                {"rows", rows},
                {"written", meters.written},
                {"removed", meters.removed},
                {"moves", meters.moves},
                {"violations", meters.violations},
                {"digest", fmt::format("{:016x}", ofChip)},
                {"configuration", fmt::format("{:016x}", ofConfig)}});
  return fmt::format(
      "{} rows in hardware; since the chip was made {} written, {} removed, {} moved, {} "
      "violations; digest {:016x}, of the configuration {:016x}",
      rows, meters.written, meters.removed, meters.moves, meters.violations, ofChip, ofConfig);
}

}  // namespace

/// What `--once` has left undone, and why.
std::string Writer::undone() {
  if (chip_ == nullptr) {
    return fmt::format("{}: no agent has made any table there", options_.directory);
  }
  if (drained()) {
    return fmt::format("{} rows of the chip are not as configured; bastilctl verify tells more",
                       differences());
  }
  std::string text = "not everything that was announced is programmed";
  for (const auto& [id, wait] : waits_) text += "; " + wait;
  return text;
}

int Writer::summary() {
  Json facts = Json::object();
  std::string text = "nothing was programmed: no agent came";
  std::uint64_t faults = 0;
  if (chip_ != nullptr) {
    chip_->metersStore();
    text = describe(*chip_, tables_, facts);
    faults += chip_->meters().violations;
  }
  if (options_.once && !complete_) {
    ++faults;
    news_.warn(undone());
  }
  if (classifier_) {
    faults += classifier_->mismatches();
    facts.update({{"packets", classifier_->packets()},
                  {"complete", classifier_->complete()},
                  {"mismatches", classifier_->mismatches()}});
    text += fmt::format("; {} packets, {} of them at a complete list of rules, {} mismatches",
                        classifier_->packets(), classifier_->complete(), classifier_->mismatches());
  }
  news_.tell("summary", text, facts);
  return faults != 0 ? 1 : 0;
}

}  // namespace HwWriter
