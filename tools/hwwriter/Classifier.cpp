#include "hwwriter/Classifier.h"

#include <algorithm>
#include <set>

#include "policy/RuleFile.h"

namespace HwWriter {
namespace {

std::vector<std::vector<Policy::Rule>> readAll(const std::vector<std::string>& files) {
  std::vector<std::vector<Policy::Rule>> lists;
  for (const std::string& file : files) lists.push_back(Policy::readRules(file));
  return lists;
}

SimAsic::RuleSetId idOf(const std::vector<Policy::Rule>& rules) {
  std::set<Policy::Decision> decisions;
  SimAsic::RuleSetId id;
  for (const Policy::Rule& rule : rules) {
    const auto decision = Policy::decisionOf(rule);
    if (decisions.insert(decision).second) id.add(decision);
  }
  return id;
}

std::string textOf(std::uint32_t address) {
  return fmt::format("{}.{}.{}.{}", address >> 24, address >> 16 & 255, address >> 8 & 255,
                     address & 255);
}

}  // namespace

Classifier::Classifier(const Options& options, const News& news)
    : news_(news),
      perRest_(options.classify),
      left_(options.classify),
      lists_(readAll(options.rules)),
      draw_(lists_, options.seed) {
  for (const auto& rules : lists_) ids_.push_back(idOf(rules));
}

void Classifier::changed(const SimAsic::Chip& chip) {
  left_ = perRest_;
  classify(chip);
}

bool Classifier::rest(const SimAsic::Chip& chip, unsigned count) {
  for (; count != 0 && left_ != 0; --count, --left_) classify(chip);
  return left_ != 0;
}

std::vector<Policy::Decision> Classifier::accepted(const SimAsic::RuleTable& rules,
                                                   const Policy::Packet& packet,
                                                   Asic::UnitId unit) {
  std::vector<Policy::Decision> result;
  const auto id = rules.setId();
  // A rule being moved is present twice, and its old row is still in effect.
  const bool eachOnce = rules.size() == id.count;
  for (std::size_t i = 0; i < lists_.size(); ++i) {
    if (eachOnce && ids_[i] == id) result.push_back(Policy::firstMatch(lists_[i], packet));
  }
  if (!result.empty()) {
    filled_[unit] = true;
    ++complete_;
    return result;
  }
  ++between_;
  for (const auto& list : lists_) result.push_back(Policy::firstMatch(list, packet));
  if (rules.size() == 0) filled_[unit] = false;
  if (!filled_[unit]) result.push_back(0);
  return result;
}

void Classifier::classify(const SimAsic::Chip& chip) {
  static const Tables::TableKind& kind = *Tables::kindOf(QuarnBastil::TcamEntryFamily::kTableId);
  const auto units = chip.units(kind);
  if (units.empty()) return;
  const Asic::UnitId unit = units[packets() % units.size()];
  const Policy::Packet packet = draw_.next();
  const Policy::Decision decision = chip.decide(unit, packet);
  const auto right = accepted(chip.rules(unit), packet, unit);
  if (std::ranges::find(right, decision) != right.end()) return;
  ++mismatches_;
  tell(unit, packet, decision, right);
}

void Classifier::tell(Asic::UnitId unit, const Policy::Packet& packet, Policy::Decision decision,
                      const std::vector<Policy::Decision>& accepted) const {
  constexpr std::uint64_t kTold = 10;
  if (mismatches_ > kTold) return;
  news_.warn(fmt::format(
      "unit {}: the packet {}:{} to {}:{}, protocol {}, flags {:#x}, meets decision {:016x}, "
      "where the rules say {:016x}",
      unit, textOf(packet.source), packet.sourcePort, textOf(packet.destination),
      packet.destinationPort, packet.protocol, packet.flags, decision,
      fmt::join(accepted, " or ")));
}

}  // namespace HwWriter
