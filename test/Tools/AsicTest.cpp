#include <gtest/gtest.h>

#include "Support/TempDir.h"
#include "asic/Chip.h"
#include "policy/Destination.h"
#include "policy/Plan.h"

namespace ToolsTest {
namespace {

const Tables::TableKind& kRules = *Tables::kindOf("TcamEntry");
const Tables::TableKind& kPrefixes = *Tables::kindOf("BigBb");
const Tables::TableKind& kActions = *Tables::kindOf("TcamAction");
const Tables::TableKind& kMembers = *Tables::kindOf("BigAds");

template <class LogEntry>
std::vector<Tables::Word> wordsOf(const LogEntry& entry) {
  std::vector<Tables::Word> words(Drift::FlatLayout<LogEntry>::kWords);
  Drift::FlatLayout<LogEntry>::toWords(entry, words.data());
  return words;
}

/// What a chip decides is held against lists of rules end to end, where no order may be wrong: here
/// is one that is, and each row that points to nothing counts.
TEST(Chip, CountsWhatComesBeforeWhatItPointsToOrStaysBehindIt) {
  const Support::TempDir dir;
  const Asic::UnitId unit(1);
  const Policy::Labels labels{7, 9};
  const Policy::PrefixRow prefix{{0x0a000000, 8}, {labels, labels}, 0};
  Policy::PlacedRule rule;
  rule.rule.source = rule.rule.destination = prefix.prefix;
  rule.row.source = rule.row.destination = labels;
  rule.row.decision = 5;
  const auto ruleWords =
      wordsOf(Policy::entryOf(rule.row, rule.rule, {rule.bank, rule.index}).logEntry());
  const auto prefixWords = wordsOf(Policy::entryOf(prefix).logEntry());
  const auto key = Tables::keyOf(kPrefixes, prefixWords);
  const Policy::Packet packet{0x0a010203, 0x0affffff, 1, 2, 6, 0};

  auto chip = std::make_unique<SimAsic::Chip>(dir.path());
  chip->write(kRules, unit, ruleWords);
  EXPECT_EQ(chip->meters().violations, 2U) << "its source and its destination";
  EXPECT_EQ(chip->decide(unit, packet).decision, 0U);
  chip->write(kPrefixes, unit, prefixWords);
  chip->write(kRules, unit, ruleWords);
  EXPECT_EQ(chip->meters().violations, 2U);
  EXPECT_EQ(chip->decide(unit, packet).decision, 5U);
  chip->remove(kPrefixes, unit, key);
  EXPECT_EQ(chip->meters().violations, 3U);
  // A rule that redirects before its action, and that before its group of two.
  const Asic::UnitId other(2);
  const auto group = Policy::Destination::of(3, 2);
  rule.rule = {};
  rule.row.decision = 6;
  rule.row.redirect = 77;
  chip->write(kPrefixes, other, wordsOf(Policy::entryOf({{}, {labels, labels}, 0}).logEntry()));
  const auto redirects =
      wordsOf(Policy::entryOf(rule.row, rule.rule, {rule.bank, rule.index}).logEntry());
  auto action = Policy::entryOf(Policy::ActionRow{rule.bank, rule.index, 77});
  action.destId = group.id();
  const auto member = [&](std::uint32_t i) {
    return wordsOf(Policy::memberRow(group, i, {i + 1, 0x0a000001}).logEntry());
  };
  chip->write(kRules, other, redirects);
  EXPECT_EQ(chip->meters().violations, 4U) << "its action";
  chip->write(kMembers, other, member(0));
  chip->write(kActions, other, wordsOf(action.logEntry()));
  EXPECT_EQ(chip->meters().violations, 5U) << "the second member";
  EXPECT_FALSE(chip->decide(other, packet).output) << "half a group is none";
  chip->write(kMembers, other, member(1));
  const auto verdict = chip->decide(other, packet);
  EXPECT_EQ(verdict.decision, 6U);
  ASSERT_TRUE(verdict.output);
  EXPECT_EQ(verdict.output->port, Policy::memberOf(packet, 2) + 1);
  chip->remove(kMembers, other, Tables::keyOf(kMembers, member(1)));
  EXPECT_EQ(chip->meters().violations, 6U) << "an action uses it";
  chip->clear(kRules, other);
  chip->clear(kActions, other);
  chip->clear(kMembers, other);
  EXPECT_EQ(chip->meters().violations, 6U);
  chip->metersStore();
  chip = nullptr;
  chip = std::make_unique<SimAsic::Chip>(dir.path());
  EXPECT_EQ(chip->meters().violations, 6U);
  EXPECT_EQ(chip->rowCount(kRules, unit), 1U);
  EXPECT_EQ(chip->rowCount(kPrefixes, unit), 0U);
}

}  // namespace
}  // namespace ToolsTest
