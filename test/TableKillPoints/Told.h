#pragma once

#include "OrderedTable/RealAgent.h"
#include "Support/Collections.h"
#include "Support/Soak.h"

/// What the hardware writer sees of two tables, each in a group of its own, and in which order it
/// may see it change.
namespace TableKill {

using Drift::Word;
using TableModel::Act;
using TableModel::RealAgent;
using Kind = Act::Kind;
using Acts = std::vector<Act>;

inline const unsigned kSeed = Support::seed();
/// The tables of this run.
inline const std::vector<TableModel::FamilyOfRun>& families() {
  static const auto chosen = TableModel::familiesOfRun(kSeed);
  return chosen;
}
inline constexpr unsigned kTables = 2;
inline constexpr unsigned kUnits = 2;
inline constexpr Support::Key kKeys = 8;

inline const RealAgent::Plan& plan() {
  static const RealAgent::Plan plan = TableModel::planOf(families());
  return plan;
}

/// By table.
using Picture = std::vector<Support::Memory>;

inline Picture pictureOf(const std::string& directory) {
  Picture picture;
  for (const auto& family : families()) picture.push_back(family.read(directory, kUnits, kKeys));
  return picture;
}
inline std::string textOf(const Picture& picture) {
  return Support::textOf(picture[0]) + Support::textOf(picture[1]);
}

/// By table and unit: the places of the keys in the walk of a configuration.
using Places = std::vector<std::vector<std::vector<unsigned>>>;

inline Places placesOf(const std::string& directory) {
  Places places(kTables);
  for (unsigned t = 0; t < kTables; ++t) {
    for (unsigned unit = 0; unit < kUnits; ++unit) {
      places[t].push_back(families()[t].places(directory, kUnits, unit, kKeys));
    }
  }
  return places;
}

/// An agent of the model over what was found, and the pictures that a reader may see one after the
/// other while it works: one for each store that is promised.
class Told {
 public:
  Told(const Picture& found, const Places& places, const TableModel::Model::Start& start = {})
      : model(plan().shape), stages_{found} {
    for (unsigned t = 0; t < kTables; ++t) {
      static_cast<Support::Memory&>(model.family(t)) = found[t];
      model.family(t).places = places[t];
      model.family(t).stored = [this] { see(); };
    }
    model.start(start);
    model.events.clear();
  }
  Told(const Told&) = delete;
  Told& operator=(const Told&) = delete;

  void reportedIs(unsigned table, Word version) { model.family(table).reportedIs(version); }
  /// What comes next is looked at on its own.
  void beginAnew() { stages_.erase(stages_.begin(), stages_.end() - 1); }

  const std::vector<Picture>& stages() const { return stages_; }
  const Picture& last() const { return stages_.back(); }

  TableModel::Model model;

 private:
  void see() {
    Picture now;
    for (unsigned t = 0; t < kTables; ++t) now.push_back(model.family(t));
    if (now != last()) stages_.push_back(std::move(now));
  }

  std::vector<Picture> stages_;
};

/// Acts of a client, and what makes an agent do all of them.
inline Act write(unsigned table, unsigned unit, Support::Key key, Support::Value value,
                 TableModel::OpId dependency = TableModel::kNoOp) {
  Act act;
  act.kind = Kind::write;
  act.table = table * kUnits + unit;
  act.key = key;
  act.value = value;
  act.dependency = dependency;
  act.handler = true;
  return act;
}
inline Act of(Kind kind, unsigned table, unsigned unit, Support::Key key = 0) {
  Act act = write(table, unit, key, 0);
  act.kind = kind;
  return act;
}
/// An update in which the resource side turns these bits of the value over.
inline Acts update(unsigned table, unsigned unit, Support::Key key, Support::Value mask) {
  Act helper = of(Kind::helper, table, unit);
  Act plain = helper;
  helper.plan.plain = false;
  helper.plan.mask = mask;
  return {helper, of(Kind::update, table, unit, key), plain};
}
inline void run(TableModel::Agent& agent, const Acts& acts) {
  for (const Act& act : acts) agent.run(act);
  for (const unsigned group : {0U, 1U, 0U, 1U}) {
    Act pump;
    pump.table = group;
    pump.number = 1000;
    agent.run(pump);
  }
}

}  // namespace TableKill
