#include <gmock/gmock.h>

#include <algorithm>
#include <iostream>
#include <map>

#include "Support/Soak.h"
#include "Support/TempDir.h"
#include "Tools/Churn.h"
#include "asic/Chip.h"

namespace ToolsTest {
namespace {

using Asic::UnitId;
using Policy::PrefixRow;
using Policy::RuleRow;
using Rows = std::vector<Tables::Word>;

const Tables::TableKind& kRules = *Tables::kindOf("TcamEntry");
const Tables::TableKind& kPrefixes = *Tables::kindOf("BigBb");

template <class LogEntry>
Rows wordsOf(const LogEntry& entry) {
  Rows words(Drift::FlatLayout<LogEntry>::kWords);
  Drift::FlatLayout<LogEntry>::toWords(entry, words.data());
  return words;
}

/// One change of a chip, small enough that rows meet.
struct Change {
  enum Kind { writeRule, removeRule, writePrefix, removePrefix, clearRules, clearPrefixes };

  explicit Change(Random& random) {
    constexpr Kind kKinds[] = {writeRule,   writeRule,   writeRule,    removeRule,   writePrefix,
                               writePrefix, writePrefix, removePrefix, removePrefix, clearPrefixes};
    kind = kKinds[random() % 10];
    if (kind == clearPrefixes && random() % 8 != 0) kind = writePrefix;
    if (kind == clearPrefixes && random() % 2 != 0) kind = clearRules;
    unit = UnitId(static_cast<std::uint16_t>(random() % 2));
    index = static_cast<std::uint16_t>(random() % 24);
    const auto labels = [&] {
      const std::uint32_t first = random() % 8;
      return Policy::Labels{first, first + random() % 4};
    };
    const auto somePrefix = [&] {
      const auto length = static_cast<std::uint8_t>(random() % 5);
      return Policy::Prefix{length == 0 ? 0 : static_cast<std::uint32_t>(random()) << (32 - length),
                            length};
    };
    prefix.prefix = somePrefix();
    named.source = somePrefix();
    named.destination = somePrefix();
    prefix.labels = {labels(), labels()};
    rule.priority = random() % 12;
    rule.numbering = random() % 2;
    rule.source = labels();
    rule.destination = labels();
    if (random() % 2 == 0) rule.sourcePorts = {100, 200};
    if (random() % 2 == 0) rule.protocol = {6, 0xff};
    rule.decision = 1 + random() % 1000;
  }

  Rows ruleWords() const { return wordsOf(Policy::entryOf(rule, named, {0, index}).logEntry()); }
  Rows prefixWords() const { return wordsOf(Policy::entryOf(prefix).logEntry()); }

  void apply(SimAsic::Chip& chip) const {
    switch (kind) {
      case writeRule:
        return chip.write(kRules, unit, ruleWords());
      case writePrefix:
        return chip.write(kPrefixes, unit, prefixWords());
      case removeRule:
        chip.remove(kRules, unit, Tables::keyOf(kRules, ruleWords()));
        return;
      case removePrefix:
        chip.remove(kPrefixes, unit, Tables::keyOf(kPrefixes, prefixWords()));
        return;
      case clearRules:
        chip.clear(kRules, unit);
        return;
      case clearPrefixes:
        chip.clear(kPrefixes, unit);
    }
  }

  Kind kind;
  UnitId unit;
  std::uint16_t index;
  RuleRow rule;
  /// The prefixes at which the rule points.
  Policy::Rule named;
  PrefixRow prefix;
};

/// The same by looking at everything every time.
struct NaiveUnit {
  std::map<std::uint16_t, Change> rules;
  std::map<Policy::Prefix, Change> prefixes;
  std::uint64_t moves = 0;
  std::uint64_t violations = 0;

  using Rank = std::pair<std::uint32_t, std::uint16_t>;
  static Rank rankOf(const Change& change) { return {change.rule.priority, change.index}; }

  void erasePrefix(const Policy::Prefix& prefix) {
    if (prefixes.erase(prefix) == 0) return;
    violations += std::ranges::any_of(rules, [&](const auto& row) {
      return row.second.named.source == prefix || row.second.named.destination == prefix;
    });
  }

  void apply(const Change& change) {
    switch (change.kind) {
      case Change::writeRule:
        return writeRule(change);
      case Change::writePrefix:
        prefixes.insert_or_assign(change.prefix.prefix, change);
        return;
      case Change::removeRule:
        rules.erase(change.index);
        return;
      case Change::removePrefix:
        return erasePrefix(change.prefix.prefix);
      case Change::clearRules:
        return rules.clear();
      case Change::clearPrefixes:
        while (!prefixes.empty()) erasePrefix(prefixes.begin()->first);
    }
  }
  void writeRule(const Change& change) {
    const auto below = [&](const Rank& rank) {
      return std::ranges::count_if(rules, [&](const auto& row) {
        return row.first != change.index && rankOf(row.second) < rank;
      });
    };
    const auto known = rules.find(change.index);
    const auto from =
        known != rules.end() ? below(rankOf(known->second)) : static_cast<long>(rules.size());
    moves += static_cast<std::uint64_t>(std::abs(from - below(rankOf(change))));
    rules.insert_or_assign(change.index, change);
    for (const auto& prefix : {change.named.source, change.named.destination}) {
      violations += prefixes.contains(prefix) ? 0 : 1;
    }
  }

  const PrefixRow* lookup(std::uint32_t address) const {
    const PrefixRow* longest = nullptr;
    for (const auto& [prefix, change] : prefixes) {
      if (!prefix.contains(address)) continue;
      if (longest == nullptr || prefix.length > longest->prefix.length) longest = &change.prefix;
    }
    return longest;
  }
  Policy::Decision decide(const Policy::Packet& packet) const {
    const PrefixRow* const source = lookup(packet.source);
    const PrefixRow* const destination = lookup(packet.destination);
    const Change* best = nullptr;
    if (source == nullptr || destination == nullptr) return 0;
    for (const auto& [index, change] : rules) {
      const RuleRow& rule = change.rule;
      const bool matches = rule.source.contains(source->labels[rule.numbering].first) &&
                           rule.destination.contains(destination->labels[rule.numbering].first) &&
                           rule.sourcePorts.contains(packet.sourcePort) &&
                           rule.protocol.matches(packet.protocol);
      if (matches && (best == nullptr || rankOf(change) < rankOf(*best))) best = &change;
    }
    return best == nullptr ? 0 : best->rule.decision;
  }
};

struct NaiveChip {
  std::array<NaiveUnit, 2> units;

  void apply(const Change& change) { units[change.unit.value()].apply(change); }

  void compare(SimAsic::Chip& chip, Random& random) const {
    for (std::uint16_t i = 0; i < 2; ++i) {
      const NaiveUnit& unit = units[i];
      ASSERT_EQ(chip.rowCount(kRules, UnitId(i)), unit.rules.size());
      ASSERT_EQ(chip.rowCount(kPrefixes, UnitId(i)), unit.prefixes.size());
      std::uint64_t rules = 0;
      std::uint64_t prefixes = 0;
      for (const auto& [key, change] : unit.rules) {
        rules += Tables::rowDigest(kRules.id, UnitId(i), change.ruleWords());
      }
      for (const auto& [key, change] : unit.prefixes) {
        prefixes += Tables::rowDigest(kPrefixes.id, UnitId(i), change.prefixWords());
      }
      ASSERT_EQ(chip.digest(kRules, UnitId(i)), rules);
      ASSERT_EQ(chip.digest(kPrefixes, UnitId(i)), prefixes);
      for (int n = 0; n < 4; ++n) {
        const Policy::Packet packet{random(),
                                    random(),
                                    static_cast<std::uint16_t>(random() % 300),
                                    0,
                                    static_cast<std::uint8_t>(random() % 2 == 0 ? 6 : 17),
                                    0};
        ASSERT_EQ(chip.decide(UnitId(i), packet), unit.decide(packet));
      }
    }
    const auto meters = chip.meters();
    ASSERT_EQ(meters.moves, units[0].moves + units[1].moves);
    ASSERT_EQ(meters.violations, units[0].violations + units[1].violations);
  }
};

TEST(AsicSoak, AgreesWithALookAtEverything) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(testing::Message() << "BASTIL_SEED=" << seed);
  Random random(seed);
  const Support::TempDir dir;
  NaiveChip naive;
  auto chip = std::make_unique<SimAsic::Chip>(dir.path());
  for (int step = 0; step < 4000 * Support::soakFactor() && !testing::Test::HasFailure(); ++step) {
    SCOPED_TRACE(testing::Message() << "step " << step);
    if (step % 200 == 199) {
      chip->metersStore();
      chip = nullptr;
      chip = std::make_unique<SimAsic::Chip>(dir.path());
    }
    const Change change(random);
    change.apply(*chip);
    naive.apply(change);
    naive.compare(*chip, random);
  }
}

}  // namespace
}  // namespace ToolsTest
