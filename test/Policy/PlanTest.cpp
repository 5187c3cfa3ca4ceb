#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "Support/Soak.h"
#include "policy/Draw.h"
#include "policy/Generate.h"
#include "policy/Plan.h"

namespace PolicyTest {
namespace {

using Policy::Decision;
using Policy::Packet;
using Policy::Plan;
using Policy::Rule;
using Policy::Step;
using Policy::Wanted;
using Random = std::mt19937_64;

/// The tables of a unit as a packet meets them, in plain maps.
class TableModel {
 public:
  Decision decide(const Packet& packet) const {
    const Policy::PrefixRow* const source = longestMatch(packet.source);
    const Policy::PrefixRow* const destination = longestMatch(packet.destination);
    const Policy::PlacedRule* best = nullptr;
    for (const auto& [place, placed] : rules_) {
      const Policy::RuleRow& row = placed.row;
      const bool matches = holds(row.source, source, row.numbering) &&
                           holds(row.destination, destination, row.numbering) &&
                           row.sourcePorts.contains(packet.sourcePort) &&
                           row.destinationPorts.contains(packet.destinationPort) &&
                           row.protocol.matches(packet.protocol) && row.flags.matches(packet.flags);
      if (matches && (best == nullptr || row.priority < best->row.priority)) best = &placed;
    }
    return best == nullptr ? 0 : best->row.decision;
  }

  void apply(const Policy::Step& step) {
    if (step.onPrefixes()) {
      const auto& row = std::get<0>(step.row);
      put(prefixes_, row.prefix, row, step.removes);
    } else {
      const auto& placed = std::get<1>(step.row);
      const std::pair<unsigned, unsigned> place(placed.bank, placed.index);
      if (step.withAction) put(actions_, place, placed.row.redirect, step.removes);
      put(rules_, place, placed, step.removes);
    }
  }
  void apply(const Policy::ActionRow& action, bool removes) {
    put(actions_, {action.bank, action.index}, action.redirect, removes);
  }

  /// Whether the prefixes that each rule row is about stand, under the labels that it means.
  bool everyRulePointsToRows() const {
    return std::ranges::all_of(rules_, [&](const auto& member) {
      const Policy::PlacedRule& placed = member.second;
      const auto stands = [&](const Policy::Prefix& prefix, const Policy::Labels& labels) {
        const auto at = prefixes_.find(prefix);
        return at != prefixes_.end() && at->second.labels[placed.row.numbering] == labels;
      };
      const auto action = actions_.find(member.first);
      const bool acts = action != actions_.end() && action->second == placed.row.redirect;
      return (acts || placed.row.redirect == 0) && stands(placed.rule.source, placed.row.source) &&
             stands(placed.rule.destination, placed.row.destination);
    });
  }
  Policy::Picture picture() const {
    Policy::Picture picture;
    for (const auto& [prefix, row] : prefixes_) picture.prefixes.push_back(row);
    for (const auto& [place, placed] : rules_) picture.rules.push_back(placed);
    for (const auto& [place, redirect] : actions_) {
      picture.actions.push_back({static_cast<std::uint8_t>(place.first),
                                 static_cast<std::uint16_t>(place.second), redirect});
    }
    return picture;
  }

 private:
  const Policy::PrefixRow* longestMatch(std::uint32_t address) const {
    const Policy::PrefixRow* best = nullptr;
    for (const auto& [prefix, row] : prefixes_) {
      if (!prefix.contains(address)) continue;
      if (best == nullptr || prefix.length > best->prefix.length) best = &row;
    }
    return best;
  }
  static bool holds(const Policy::Labels& labels, const Policy::PrefixRow* row, unsigned number) {
    return row != nullptr && labels.contains(row->labels[number].first);
  }
  template <class Map>
  static void put(Map& map, const typename Map::key_type& key, const typename Map::mapped_type& row,
                  bool removes) {
    map.erase(key);
    if (!removes) map.emplace(key, row);
  }

  std::map<Policy::Prefix, Policy::PrefixRow> prefixes_;
  std::map<std::pair<unsigned, unsigned>, Policy::PlacedRule> rules_;
  std::map<std::pair<unsigned, unsigned>, std::uint64_t> actions_;
};

/// A unit whose rules change again and again, under the eyes of packets.
class History {
 public:
  explicit History(Random& random) : random_(random) {}

  unsigned stopped = 0, mended = 0;

  void change() {
    const std::vector<Rule> before = wanted_.rules;
    wanted_ = nextWanted();
    drawPackets(before);
    if (random_() % 8 == 0) return mend();
    const Plan plan = Policy::planOf(model_.picture(), wanted_, kRoom);
    const bool stops = random_() % 4 == 0;
    carryOut(plan, stops ? random_() % (plan.steps.size() + 1) : plan.steps.size());
    stops ? static_cast<void>(++stopped) : checkEnd();
  }

 private:
  /// Numbers so few that there is no room for new ones again and again.
  static constexpr Policy::Room kRoom{.rows = 400, .lastLabel = 420, .lastPriority = 400};
  static constexpr std::size_t kMostRules = 40;

  Wanted nextWanted() {
    std::vector<Rule> rules = wanted_.rules;
    auto fresh = Policy::generate(
        {.rules = 1 + random_() % kMostRules, .seed = random_(), .networks = 1 + networks_ % 2});
    for (Rule& rule : fresh) rule.redirect = random_() % 2 * (random_() % 3);
    const auto dice = random_() % 8;
    if (dice > 1) edit(rules, fresh);
    if (dice < 2) rules = dice == 0 ? std::vector<Rule>() : fresh;
    Wanted wanted;
    Policy::addRules(wanted, rules);
    for (std::size_t i = random_() % 4; i != 0; --i) {
      const Rule& rule = fresh[random_() % fresh.size()];
      if (rule.source.length == 0) continue;
      std::erase_if(wanted.routes, [&](const auto& route) { return route.prefix == rule.source; });
      wanted.routes.push_back({rule.source, static_cast<std::uint32_t>(random_() % 3), 0, {}});
    }
    return wanted;
  }

  void edit(std::vector<Rule>& rules, const std::vector<Rule>& fresh) {
    std::erase_if(rules, [&](const Rule&) { return random_() % 4 == 0; });
    if (rules.size() > 1 && random_() % 3 == 0) {
      std::swap(rules[random_() % rules.size()], rules[random_() % rules.size()]);
    }
    const std::size_t at = random_() % (rules.size() + 1);
    for (std::size_t i = 0; i < fresh.size() && rules.size() < kMostRules; ++i) {
      // At one place, where the numbers soon come to an end, or anywhere.
      const std::size_t place =
          random_() % 2 == 0 ? std::min(at, rules.size()) : random_() % (rules.size() + 1);
      rules.insert(rules.begin() + static_cast<std::ptrdiff_t>(place), fresh[i]);
    }
  }

  void drawPackets(const std::vector<Rule>& before) {
    const std::vector<std::vector<Rule>> lists{before, wanted_.rules};
    Policy::PacketDraw draw(lists, static_cast<unsigned>(random_()));
    packets_.clear();
    for (int i = 0; i < 48; ++i) {
      const Packet packet = draw.next();
      packets_.push_back(
          {packet, model_.decide(packet), Policy::firstMatch(wanted_.rules, packet)});
    }
  }

  /// In any order that the plan leaves to the hardware: each table's steps one after the other, and
  /// none before the step of the other table that it is to come after.
  void carryOut(const Plan& plan, std::size_t stopAfter) {
    for (const auto& action : plan.lostActions) model_.apply(action, false);
    std::vector<bool> done(plan.steps.size());
    std::array<std::size_t, 2> next{0, 0};
    const auto seek = [&](unsigned table) {
      while (next[table] < plan.steps.size() &&
             plan.steps[next[table]].onPrefixes() != (table == 0)) {
        ++next[table];
      }
      return next[table] < plan.steps.size();
    };
    for (std::size_t count = 0; count < stopAfter && !testing::Test::HasFailure(); ++count) {
      unsigned table = random_() % 2 == 0 ? 1 : 0;
      const auto mayGo = [&](unsigned which) {
        if (!seek(which)) return false;
        const std::size_t after = plan.steps[next[which]].after;
        return after == Step::kNone || done[after];
      };
      if (!mayGo(table)) table = 1 - table;
      ASSERT_TRUE(mayGo(table)) << "both tables wait for each other";
      done[next[table]] = true;
      take(plan.steps[next[table]++], count);
    }
    if (stopAfter != plan.steps.size()) return;
    for (const auto& action : plan.looseActions) model_.apply(action, true);
  }

  void take(const Step& step, std::size_t number) {
    model_.apply(step);
    EXPECT_TRUE(model_.everyRulePointsToRows()) << "step " << number;
    for (const auto& [packet, before, after] : packets_) {
      const Decision decision = model_.decide(packet);
      EXPECT_TRUE(decision == before || decision == after)
          << "step " << number << ": " << decision << ", before " << before << ", after " << after;
    }
  }

  void checkEnd() {
    for (const auto& [packet, before, after] : packets_) EXPECT_EQ(model_.decide(packet), after);
    const auto picture = model_.picture();
    EXPECT_EQ(picture.rules.size(), wanted_.rules.size());
    std::set<Policy::Prefix> wantedPrefixes;
    for (const Rule& rule : wanted_.rules) wantedPrefixes.insert({rule.source, rule.destination});
    for (const auto& route : wanted_.routes) {
      wantedPrefixes.insert(route.prefix);
      const auto at = std::ranges::find(picture.prefixes, route.prefix, &Policy::PrefixRow::prefix);
      ASSERT_NE(at, picture.prefixes.end());
      EXPECT_EQ(at->nextHop, route.nextHop);
    }
    auto prefixes = wantedPrefixes;
    if (!prefixes.empty()) prefixes.insert(Policy::Prefix{});
    EXPECT_EQ(picture.prefixes.size(), prefixes.size());
    const Plan again = Policy::planOf(picture, wanted_, kRoom);
    EXPECT_EQ(again.rows(), 0U) << "nothing has changed, so nothing is to be written";
    EXPECT_EQ(again.rules, picture.rules.size());
    EXPECT_EQ(again.prefixes, wantedPrefixes.size()) << "0.0.0.0/0 counts where it was asked for";
  }

  /// From rows as no plan leaves them: some are missing, some have anything in some fields.
  void mend() {
    const auto number = [&] { return static_cast<std::uint32_t>(random_() >> random_() % 64); };
    const auto one = [&](unsigned in) { return random_() % in == 0; };
    const auto prefix = [&] {
      return Policy::Prefix{number(), static_cast<std::uint8_t>(number())};
    };
    const auto picture = model_.picture();
    model_ = {};
    for (auto row : picture.prefixes) {
      if (one(4)) row.labels[random_() % 2] = {number(), number()};
      if (one(16)) row.prefix = prefix();
      if (!one(8)) model_.apply({.row = row});
    }
    for (auto placed : picture.rules) {
      if (one(4)) placed.row.priority = number() % 4;
      if (one(8)) placed.row.numbering = random_() % 2;
      if (one(16)) placed.row.source = {number(), number()};
      if (one(16)) placed.rule.source = prefix();
      if (one(16)) placed.row.decision = number();
      if (one(16)) placed.bank = 1;
      if (!one(8)) model_.apply({.row = placed});
    }
    for (auto action : picture.actions) {
      if (one(8)) action.redirect = number();
      if (one(16)) action.bank = 1;
      if (!one(8)) model_.apply(action, false);
    }
    const Plan plan = Policy::planOf(model_.picture(), wanted_, kRoom);
    for (const auto& action : plan.lostActions) model_.apply(action, false);
    for (const Step& step : plan.steps) model_.apply(step);
    for (const auto& action : plan.looseActions) model_.apply(action, true);
    checkEnd();
    EXPECT_TRUE(model_.everyRulePointsToRows());
    ++mended;
  }

  struct Watched {
    Packet packet;
    Decision before;
    Decision after;
  };

  Random& random_;
  TableModel model_;
  Wanted wanted_;
  std::vector<Watched> packets_;
  unsigned networks_ = static_cast<unsigned>(random_());
};

TEST(PlanSoak, APacketMeetsTheDecisionBeforeOrBehindAtEveryStep) {
  const Support::Seed seed;
  Random random(seed);
  unsigned stopped = 0, mended = 0;
  for (int unit = 0; unit < 10 * Support::soakFactor() && !HasFailure(); ++unit) {
    History history(random);
    for (int change = 0; change < 30 && !HasFailure(); ++change) history.change();
    stopped += history.stopped;
    mended += history.mended;
  }
  if (HasFailure()) return;
  EXPECT_GT(stopped, 0U);
  EXPECT_GT(mended, 0U);
}

}  // namespace
}  // namespace PolicyTest
