#include "hwwriter/Classifier.h"

#include <algorithm>
#include <numeric>
#include <set>

namespace HwWriter {
namespace {

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

std::string textOf(const SimAsic::Verdict& verdict) {
  std::string text = fmt::format("decision {:016x}", verdict.decision);
  if (!verdict.redirected) return text;
  if (!verdict.output) return text + ", dropped";
  return text +
         fmt::format(", to {} at port {}", textOf(verdict.output->address), verdict.output->port);
}

template <class Range>
std::vector<std::size_t> positionsOf(const Range& range) {
  std::vector<std::size_t> all(range.size());
  std::iota(all.begin(), all.end(), std::size_t{0});
  return all;
}

}  // namespace

Classifier::Classifier(const Options& options, const News& news)
    : news_(news),
      perRest_(options.classify),
      left_(options.classify),
      reference_(options),
      draw_(reference_.lists(), options.seed) {
  for (const auto& rules : reference_.lists()) ids_.push_back(idOf(rules));
}

void Classifier::changed(const SimAsic::Chip& chip) {
  left_ = perRest_;
  filesAtRest_.clear();
  classify(chip, false);
}

bool Classifier::rest(const SimAsic::Chip& chip, unsigned count) {
  for (; count != 0 && left_ != 0; --count, --left_) classify(chip, true);
  return left_ != 0;
}

/// The next-hop files that all actions agree with.
std::vector<std::size_t> Classifier::filesOf(const SimAsic::Pipeline& pipeline) const {
  auto files = positionsOf(reference_.nextHops());
  pipeline.rules().walk([&](SimAsic::RuleTable::Key key, const Policy::RuleRow& row) {
    if (row.redirect == 0) return;
    const auto destination = pipeline.destinations().adjacencies(key);
    std::erase_if(files, [&](std::size_t file) {
      return !Reference::agrees(reference_.nextHops()[file], row.redirect, destination);
    });
  });
  return files;
}

Classifier::Holding Classifier::holding(const SimAsic::Pipeline& pipeline, Asic::UnitId unit,
                                        bool atRest) {
  Holding holding;
  const auto& rules = pipeline.rules();
  const auto id = rules.setId();
  // A rule being moved is present twice, and its old row is still in effect.
  const bool eachOnce = rules.size() == id.count;
  for (std::size_t i = 0; i < ids_.size(); ++i) {
    if (eachOnce && ids_[i] == id) holding.lists.push_back(i);
  }
  holding.complete = !holding.lists.empty();
  if (holding.complete) filled_[unit] = true;
  if (rules.size() == 0) filled_[unit] = false;
  holding.empty = !holding.complete && !filled_[unit];
  if (!holding.complete) holding.lists = positionsOf(reference_.lists());
  if (reference_.nextHops().empty()) return holding;
  if (atRest) {
    const auto [at, isNew] = filesAtRest_.try_emplace(unit);
    if (isNew) at->second = filesOf(pipeline);
    holding.files = at->second;
  }
  if (holding.files.empty()) {
    holding.complete = false;
    holding.files = positionsOf(reference_.nextHops());
  }
  return holding;
}

bool Classifier::isRight(const Holding& holding, const Policy::Packet& packet,
                         const SimAsic::Verdict& verdict) const {
  if (holding.empty && verdict.decision == 0) return true;
  return std::ranges::any_of(holding.lists, [&](std::size_t list) {
    return reference_.accepts(reference_.lists()[list], holding.files, packet, verdict);
  });
}

void Classifier::classify(const SimAsic::Chip& chip, bool atRest) {
  static const Tables::TableKind& kind = *Tables::kindOf(QuarnBastil::TcamEntryFamily::kTableId);
  const auto units = chip.units(kind);
  if (units.empty()) return;
  const Asic::UnitId unit = units[packets() % units.size()];
  const Policy::Packet packet = draw_.next();
  const SimAsic::Pipeline& pipeline = chip.pipeline(unit);
  const SimAsic::Verdict verdict = pipeline.decide(packet);
  const Holding held = holding(pipeline, unit, atRest);
  ++(held.complete ? complete_ : between_);
  if (isRight(held, packet, verdict)) return;
  ++mismatches_;
  tell(unit, packet, verdict, held);
}

void Classifier::tell(Asic::UnitId unit, const Policy::Packet& packet,
                      const SimAsic::Verdict& verdict, const Holding& holding) const {
  constexpr std::uint64_t kTold = 10;
  if (mismatches_ > kTold) return;
  std::vector<std::string> expected;
  for (const std::size_t list : holding.lists) {
    const auto* const rule = Policy::firstMatchingRule(reference_.lists()[list], packet);
    expected.push_back(fmt::format("{:016x}", rule == nullptr ? 0 : Policy::decisionOf(*rule)));
  }
  news_.warn(fmt::format(
      "unit {}: the packet {}:{} to {}:{}, protocol {}, flags {:#x}, meets {}, where the rules say "
      "{} and next-hop file {} applies",
      unit, textOf(packet.source), packet.sourcePort, textOf(packet.destination),
      packet.destinationPort, packet.protocol, packet.flags, textOf(verdict),
      fmt::join(expected, " or "), fmt::join(holding.files, " or ")));
}

}  // namespace HwWriter
