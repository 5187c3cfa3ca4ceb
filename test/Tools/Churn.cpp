#include "Tools/Churn.h"

#include <algorithm>
#include <map>
#include <set>

#include "Support/TableRig.h"
#include "policy/Generate.h"

namespace ToolsTest {
namespace {

using Policy::Prefix;
using QuarnBastil::BigBbFamily;
using QuarnBastil::TcamEntryFamily;
using Dependency = Fenrik::Ptr<const Asic::DependencyEntryHandle>;

/// One unit's tables, brought from where they are to a list.
class Unit {
 public:
  Unit(const Universe& universe, Fenrik::Ptr<TcamEntryFamily::SwTable> rules,
       Fenrik::Ptr<BigBbFamily::SwTable> prefixes)
      : universe_(universe), rules_(std::move(rules)), prefixes_(std::move(prefixes)) {}

  void change(const Chosen& wanted) {
    std::map<Prefix, bool> used{{Prefix{}, true}};
    for (std::size_t i = 0; i < wanted.size(); ++i) {
      if (!wanted[i]) continue;
      used[universe_.rules[i].source] = used[universe_.rules[i].destination] = true;
    }
    writePrefixes(used);
    for (std::size_t i = 0; i < wanted.size(); ++i) {
      if (wanted[i] && !rules_->entryHas(keyOf(i))) writeRule(i);
    }
    for (std::size_t i = wanted.size(); i-- > 0;) {
      if (!wanted[i] && rules_->entryHas(keyOf(i)))
        lastRemoval_ = rules_->entryRemove(keyOf(i), {});
    }
    removePrefixes(used);
  }

  void clear(std::size_t rule) {
    std::map<Prefix, bool> used{{Prefix{}, true}};
    used[universe_.rules[rule].source] = used[universe_.rules[rule].destination] = true;
    writePrefixes(used);
    rules_->entryRemoveAll(nullptr);
    // To empty a table gives no handle to wait for; what is queued behind does.
    writeRule(rule);
    prefixes_->entryRemoveAll(rules_->entryRemove(keyOf(rule), {}));
    handles_.clear();
    lastRemoval_ = nullptr;
  }

 private:
  static TcamEntryFamily::Key keyOf(std::size_t i) { return {0, static_cast<std::uint16_t>(i)}; }
  static BigBbFamily::Key keyOf(const Prefix& prefix) { return {prefix.address, prefix.length}; }

  void writePrefixes(const std::map<Prefix, bool>& used) {
    for (const auto& row : universe_.prefixes) {
      if (!used.contains(row.prefix) || prefixes_->entryHas(keyOf(row.prefix))) continue;
      handles_[row.prefix] = prefixes_->entryWrite(keyOf(row.prefix), Policy::entryOf(row), {});
      newest_[row.prefix] = ++writes_;
    }
  }

  void writeRule(std::size_t i) {
    const Policy::Rule& rule = universe_.rules[i];
    Policy::RuleRow row{static_cast<std::uint32_t>(16 * i),
                        static_cast<unsigned>(i % Policy::kNumberings),
                        {},
                        {},
                        rule.sourcePorts,
                        rule.destinationPorts,
                        rule.protocol,
                        rule.flags,
                        Policy::decisionOf(rule)};
    row.source = universe_.rowOf(rule.source).labels[row.numbering];
    row.destination = universe_.rowOf(rule.destination).labels[row.numbering];
    const bool sourceLater = newest_[rule.source] > newest_[rule.destination];
    rules_->entryWrite(keyOf(i), Policy::entryOf(row, rule, keyOf(i)),
                       handles_[sourceLater ? rule.source : rule.destination]);
  }

  void removePrefixes(const std::map<Prefix, bool>& used) {
    for (auto row = universe_.prefixes.rbegin(); row != universe_.prefixes.rend(); ++row) {
      if (used.contains(row->prefix) || !prefixes_->entryHas(keyOf(row->prefix))) continue;
      prefixes_->entryRemove(keyOf(row->prefix), lastRemoval_);
      handles_.erase(row->prefix);
    }
  }

  const Universe& universe_;
  Fenrik::Ptr<TcamEntryFamily::SwTable> rules_;
  Fenrik::Ptr<BigBbFamily::SwTable> prefixes_;
  std::map<Prefix, Dependency> handles_;
  std::map<Prefix, std::uint64_t> newest_;
  std::uint64_t writes_ = 0;
  Dependency lastRemoval_;
};

class Agent {
 public:
  Agent(const std::string& directory, Churn& churn) : agent_(directory), churn_(churn) {
    const Fenrik::Ptr<Asic::OrderedTableInterface> tables(&agent_.tables());
    rules_ = TcamEntryFamily::Interface::getIntf(tables);
    prefixes_ = BigBbFamily::Interface::getIntf(tables);
    for (std::uint16_t unit = 0; unit < kUnits; ++unit) {
      units_.emplace_back(churn.universe, rules_->makeSwTable(Asic::UnitId(unit), nullptr, false),
                          prefixes_->makeSwTable(Asic::UnitId(unit), nullptr, false));
    }
  }

  [[noreturn]] void serve() {
    Page& page = *churn_.page;
    // What is on its way from the last agent has no handles to wait for.
    drain();
    for (;;) {
      const bool settle = page.order == Order::settle;
      const auto& list = churn_.lists[settle ? 0 : churn_.random() % 2];
      for (Unit& unit : units_) {
        if (!settle && churn_.random() % 4 == 0) {
          unit.clear(churn_.random() % churn_.universe.rules.size());
        }
        unit.change(list);
        agent_.tables().pump(1 + churn_.random() % 50);
      }
      agent_.pumpAll();
      ++page.changes;
      if (settle) drain();
      page.settled = settle;
      while (settle && page.order == Order::settle) ::usleep(100);
    }
  }

 private:
  bool pending() const {
    return rules_->swTableStatus()->pendingHwWrites() ||
           prefixes_->swTableStatus()->pendingHwWrites();
  }
  void drain() {
    for (agent_.pumpAll(); pending(); agent_.pumpAll()) {
      agent_.tables().waitForReport(std::chrono::milliseconds(10));
    }
  }

  Support::AgentRig agent_;
  Churn& churn_;
  Fenrik::Ptr<TcamEntryFamily::Interface> rules_;
  Fenrik::Ptr<BigBbFamily::Interface> prefixes_;
  std::vector<Unit> units_;
};

}  // namespace

Universe::Universe(Random& random, std::size_t ruleCount)
    : rules(Policy::generate({.rules = ruleCount, .seed = random(), .networks = 4})) {
  std::set<Prefix> sorted{Prefix{}};
  for (const Policy::Rule& rule : rules) sorted.insert({rule.source, rule.destination});
  const std::vector<Prefix> all(sorted.begin(), sorted.end());
  for (std::size_t i = 0; i < all.size(); ++i) {
    std::size_t last = i;
    while (last + 1 < all.size() && all[i].length <= all[last + 1].length &&
           all[i].contains(all[last + 1].address)) {
      ++last;
    }
    Policy::PrefixRow row{all[i], {}, 0};
    const auto first = static_cast<std::uint32_t>(i);
    const auto end = static_cast<std::uint32_t>(last);
    row.labels = {Policy::Labels{first, end}, Policy::Labels{1000 + first, 1000 + end}};
    prefixes.push_back(row);
  }
}

const Policy::PrefixRow& Universe::rowOf(const Prefix& prefix) const {
  return *std::ranges::find(prefixes, prefix, &Policy::PrefixRow::prefix);
}

Churn::Churn(unsigned seed, std::size_t ruleCount)
    : random(seed),
      universe(random, ruleCount),
      page(new (::mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)) Page) {
  for (Chosen& list : lists) {
    for (std::size_t i = 0; i < ruleCount; ++i) list.push_back(random() % 3 != 0);
  }
}

Process Churn::agent(const std::string& directory) {
  random.seed(random());
  page->settled = false;
  return Process([&, this] { Agent(directory, *this).serve(); });
}

}  // namespace ToolsTest
