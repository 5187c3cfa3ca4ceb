#include "policy/Plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>

#include "policy/PrefixTree.h"
#include "policy/StepList.h"

namespace Policy {
namespace {

using Node = PrefixTree::Node;

/// Whether the prefix is valid. Rows not written by a plan may have any key.
bool isPrefix(const Prefix& prefix) {
  return prefix.length == 32 ||
         (prefix.length < 32 && (prefix.address & (~0U >> prefix.length)) == 0);
}

PrefixTree treeOf(const Picture& picture, const Wanted& wanted) {
  std::vector<Node> nodes;
  nodes.reserve(picture.prefixes.size() + 2 * wanted.rules.size() + wanted.routes.size() + 1);
  for (const PrefixRow& row : picture.prefixes) {
    if (!isPrefix(row.prefix)) continue;
    nodes.push_back(
        {.prefix = row.prefix, .stands = true, .labels = row.labels, .nextHop = row.nextHop});
  }
  const auto want = [&](const Prefix& prefix, std::uint32_t nextHop) {
    nodes.push_back({.prefix = prefix, .wanted = true, .wantedNextHop = nextHop});
  };
  for (const Rule& rule : wanted.rules) {
    want(rule.source, 0);
    want(rule.destination, 0);
  }
  for (const Route& route : wanted.routes) want(route.prefix, route.nextHop);
  // Addresses outside all other prefixes need a label too.
  if (!wanted.rules.empty() || !wanted.routes.empty()) want({}, 0);
  return PrefixTree(nodes);
}

/// The unused rows of `TcamEntry`.
class FreeRows {
 public:
  explicit FreeRows(const Picture& picture) : next_(picture.nextIndex) {
    for (const PlacedRule& rule : picture.rules) {
      if (rule.bank == 0) taken_[rule.index] = true;
    }
  }
  /// REQUIRES: a row is unused.
  std::uint16_t take() {
    while (taken_[next_]) ++next_;
    taken_[next_] = true;
    return next_++;
  }
  std::uint16_t next() const noexcept { return next_; }

 private:
  std::vector<bool> taken_ = std::vector<bool>(65'536);
  std::uint16_t next_;
};

class Planner {
 public:
  Planner(const Picture& picture, const Wanted& wanted, const Room& room)
      : wanted_(wanted),
        room_(room),
        tree_(treeOf(picture, wanted)),
        rows_(picture.rules),
        free_(picture) {
    for (const ActionRow& action : picture.actions) {
      actions_[{action.bank, action.index}] = action.redirect;
    }
    std::ranges::stable_sort(rows_, {}, [](const PlacedRule& rule) { return rule.row.priority; });
    rowTouched_.assign(rows_.size(), false);
    std::ranges::copy_if(picture.prefixes, std::back_inserter(strange_),
                         [](const PrefixRow& row) { return !isPrefix(row.prefix); });
    nodeTouched_.assign(tree_.nodes().size(), false);
    stepOfNode_.assign(tree_.nodes().size(), Step::kNone);
    findNodes();
    order_ = orderOf(rows_, usable_, wanted_.rules, room_.lastPriority);
  }

  Plan plan() {
    checkRoom();
    steps_.reserve(tree_.nodes().size() + wanted_.rules.size());
    settleNumbering();
    rewriteRows(true);
    writePrefixes();
    writeRules();
    removeRules();
    removePrefixes();
    Plan plan;
    plan.steps = steps_.take();
    settleActions(plan);
    plan.rules = wanted_.rules.size();
    plan.prefixes =
        static_cast<std::size_t>(std::ranges::count(tree_.nodes(), true, &Node::wanted)) -
        (defaultIsExtra() ? 1 : 0);
    plan.nextIndex = free_.next();
    return plan;
  }

 private:
  /// Whether the row of 0.0.0.0/0 exists only for its labels.
  bool defaultIsExtra() const {
    const auto named = [](const Rule& rule) {
      return rule.source.length == 0 || rule.destination.length == 0;
    };
    return !(wanted_.rules.empty() && wanted_.routes.empty()) &&
           std::ranges::none_of(wanted_.rules, named) &&
           std::ranges::find(wanted_.routes, Prefix{}, &Route::prefix) == wanted_.routes.end();
  }

  struct Ends {
    std::uint32_t source = 0;
    std::uint32_t destination = 0;
  };

  /// Finds the rows that can be kept: both of their prefixes have rows.
  void findNodes() {
    for (const PlacedRule& placed : rows_) {
      const auto source = tree_.find(placed.rule.source);
      const auto destination = tree_.find(placed.rule.destination);
      const bool usable = source && destination && tree_.nodes()[*source].stands &&
                          tree_.nodes()[*destination].stands;
      usable_.push_back(usable);
      rowEnds_.push_back(usable ? Ends{*source, *destination} : Ends{});
    }
  }

  void checkRoom() const {
    const auto comes = static_cast<std::size_t>(std::ranges::count(order_.rowOf, RuleOrder::kNone));
    checkRoom("TcamEntry", "rules", rows_.size(), comes);
    std::size_t stand = strange_.size();
    std::size_t come = 0;
    for (const Node& node : tree_.nodes()) {
      stand += node.stands ? 1 : 0;
      come += node.stands ? 0 : 1;
    }
    checkRoom("BigBb", "prefixes", stand, come);
  }
  void checkRoom(const char* table, const char* what, std::size_t stand, std::size_t come) const {
    if (come == 0 || stand + come <= room_.rows) return;
    throw CapacityError(fmt::format(
        "{} would hold {} rows during the change, {} {} that stand and {} new ones; a unit takes "
        "{}",
        table, stand + come, stand, what, come, room_.rows));
  }

  /// Chooses the numbering for all rows: the one in use if the new prefixes fit into it. Otherwise
  /// all prefixes are renumbered in the other one, which no row refers to by then.
  void settleNumbering() {
    const auto ones = std::ranges::count_if(
        rows_, [](const PlacedRule& placed) { return placed.row.numbering == 1; });
    const auto all = static_cast<std::ptrdiff_t>(rows_.size());
    use_ = 2 * ones > all ? 1 : 0;
    if (tree_.numberNew(use_, room_.lastLabel)) return;
    if (all == 0 && tree_.numberNew(1, room_.lastLabel)) {
      use_ = 1;
      return;
    }
    if (ones != 0 && ones != all) rewriteRows(false);
    use_ = 1 - use_;
    if (!tree_.numberAll(use_, room_.lastLabel)) {
      throw CapacityError(
          fmt::format("{} prefixes are more than there are labels", tree_.nodes().size()));
    }
    for (std::size_t i = 0; i < tree_.nodes().size(); ++i) {
      if (!tree_.nodes()[i].stands) continue;
      writePrefix(i);
      numbered_ = stepOfNode_[i];
    }
  }

  /// Rewrites the existing rows for the chosen numbering. With `moves` they also get their new
  /// priorities, in steps of which none passes another row: first those with rising priorities,
  /// from the highest row down; then the others, from the lowest row up.
  void rewriteRows(bool moves) {
    const auto rises = [&](std::size_t i) {
      return moves && order_.rowPriority[i] > rows_[i].row.priority;
    };
    std::vector<std::size_t> rising;
    std::vector<std::size_t> others;
    for (std::size_t i = 0; i < rows_.size(); ++i) (rises(i) ? rising : others).push_back(i);
    std::ranges::reverse(rising);
    for (const std::size_t i : rising) rewriteRow(i, moves);
    for (const std::size_t i : others) rewriteRow(i, moves);
  }

  void rewriteRow(std::size_t i, bool moves) {
    PlacedRule placed = rows_[i];
    if (moves) placed.row.priority = order_.rowPriority[i];
    if (usable_[i]) mean(placed.row, rowEnds_[i]);
    if (placed == rows_[i]) return;
    rows_[i] = placed;
    steps_.add({.row = placed, .again = rowTouched_[i]});
    rowTouched_[i] = true;
  }

  void mean(RuleRow& row, const Ends& ends) const {
    row.numbering = use_;
    row.source = tree_.nodes()[ends.source].labels[use_];
    row.destination = tree_.nodes()[ends.destination].labels[use_];
  }

  void writePrefix(std::size_t i) {
    Node& node = tree_.nodes()[i];
    if (node.wanted) node.nextHop = node.wantedNextHop;
    stepOfNode_[i] = steps_.add({.row = node.row(), .again = nodeTouched_[i]});
    nodeTouched_[i] = true;
  }

  /// Positions of the nodes, shorter prefixes first.
  std::vector<std::size_t> byLength() const {
    std::array<std::size_t, 34> begins{};
    for (const Node& node : tree_.nodes()) ++begins[node.prefix.length + 1U];
    for (unsigned i = 1; i < begins.size(); ++i) begins[i] += begins[i - 1];
    std::vector<std::size_t> sorted(tree_.nodes().size());
    for (std::size_t i = 0; i < sorted.size(); ++i) {
      sorted[begins[tree_.nodes()[i].prefix.length]++] = i;
    }
    return sorted;
  }

  void writePrefixes() {
    for (const std::size_t i : byLength()) {
      const Node& node = tree_.nodes()[i];
      if (node.wanted && (!node.stands || node.nextHop != node.wantedNextHop)) writePrefix(i);
    }
  }

  void writeRules() {
    for (std::size_t i = 0; i < wanted_.rules.size(); ++i) {
      if (order_.rowOf[i] != RuleOrder::kNone) continue;
      const Rule& rule = wanted_.rules[i];
      const Ends ends{*tree_.find(rule.source), *tree_.find(rule.destination)};
      PlacedRule placed{.index = free_.take(), .rule = rule, .row = rowOf(rule)};
      placed.row.priority = order_.priorityOf[i];
      mean(placed.row, ends);
      steps_.add(
          {.row = placed, .withAction = rule.redirect != 0},
          laterOf(numbered_, laterOf(stepOfNode_[ends.source], stepOfNode_[ends.destination])));
    }
  }

  using Position = std::pair<std::uint8_t, std::uint16_t>;
  static Position positionOf(const PlacedRule& placed) { return {placed.bank, placed.index}; }

  /// Compares the actions that the steps leave alone with the rules that keep their rows.
  void settleActions(Plan& plan) {
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      const std::uint64_t redirect = rows_[i].row.redirect;
      if (!order_.stays[i] || redirect == 0) continue;
      const auto [bank, index] = positionOf(rows_[i]);
      const auto present = actions_.find({bank, index});
      const bool lost = present == actions_.end() || present->second != redirect;
      if (lost) plan.lostActions.push_back({bank, index, redirect});
      if (present != actions_.end()) actions_.erase(present);
    }
    for (const Step& step : plan.steps) {
      if (step.withAction) actions_.erase(positionOf(std::get<PlacedRule>(step.row)));
    }
    for (const auto& [at, redirect] : actions_) {
      plan.looseActions.push_back({at.first, at.second, redirect});
    }
  }

  static RuleRow rowOf(const Rule& rule) {
    RuleRow row;
    row.sourcePorts = rule.sourcePorts;
    row.destinationPorts = rule.destinationPorts;
    row.protocol = rule.protocol;
    row.flags = rule.flags;
    row.decision = decisionOf(rule);
    row.redirect = rule.redirect;
    return row;
  }
  static std::size_t laterOf(std::size_t one, std::size_t other) {
    if (one == Step::kNone) return other;
    return other == Step::kNone ? one : std::max(one, other);
  }

  void removeRules() {
    for (std::size_t i = rows_.size(); i-- != 0;) {
      if (order_.stays[i]) continue;
      steps_.add({.row = rows_[i],
                  .removes = true,
                  .again = rowTouched_[i],
                  .withAction = actions_.contains(positionOf(rows_[i]))},
                 Step::kNone);
    }
  }

  void removePrefixes() {
    for (const PrefixRow& row : strange_) steps_.add({.row = row, .removes = true});
    const auto sorted = byLength();
    for (auto i = sorted.rbegin(); i != sorted.rend(); ++i) {
      const Node& node = tree_.nodes()[*i];
      if (node.wanted) continue;
      steps_.add({.row = node.row(), .removes = true, .again = nodeTouched_[*i]});
    }
  }

  const Wanted& wanted_;
  const Room& room_;
  PrefixTree tree_;
  /// Rows with an invalid prefix.
  std::vector<PrefixRow> strange_;
  /// The rows after the steps so far, ordered by priority.
  std::vector<PlacedRule> rows_;
  std::vector<Ends> rowEnds_;
  std::vector<bool> usable_;
  std::vector<bool> rowTouched_;
  std::vector<bool> nodeTouched_;
  /// For each node, the last step that writes its prefix.
  std::vector<std::size_t> stepOfNode_;
  /// The last step that renumbers a prefix. A rule row needs all of them, since its interval covers
  /// all labels in it.
  std::size_t numbered_ = Step::kNone;
  FreeRows free_;
  /// The actions, by position, and their next hops.
  std::map<Position, std::uint64_t> actions_;
  RuleOrder order_;
  unsigned use_ = 0;
  StepList steps_;
};

}  // namespace

std::size_t Plan::rows() const {
  const auto pairs = static_cast<std::size_t>(std::ranges::count(steps, true, &Step::withAction));
  return steps.size() + pairs + lostActions.size() + looseActions.size();
}

Plan planOf(const Picture& picture, const Wanted& wanted, const Room& room) {
  return Planner(picture, wanted, room).plan();
}

}  // namespace Policy
