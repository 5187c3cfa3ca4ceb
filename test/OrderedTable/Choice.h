#pragma once

#include <random>

#include "OrderedTable/TableModel.h"

namespace TableModel {

/// Random acts, chosen with an eye on the model so that roads cross.
class Choice {
 public:
  using Kind = Act::Kind;

  /// Of two to the power of so many keys at most.
  Choice(unsigned seed, const Model& model, unsigned keyBits = 6)
      : random_(seed), model_(model), keyBits_(keyBits) {
    newHabits();
  }

  unsigned below(std::uint64_t bound) { return static_cast<unsigned>(random_() % bound); }
  bool percent(unsigned share) { return below(100) < share; }

  /// Reports move on by so little at a time.
  void reportStepIs(unsigned step) { reportStep_ = step; }
  /// How the next stretch of acts is made.
  void newHabits() {
    keys_ = 1U << (1 + below(keyBits_));
    dependentShare_ = below(3) * 25;
    pumpWeight_ = 4 + below(24);
    reportWeight_ = 2 + below(20);
    hostile_ = percent(50);
  }
  /// Nothing that goes over all entries or clears them.
  void sparingIs() { sparing_ = true; }
  /// Reports come through shared memory; no handler throws, nothing is walked.
  void remoteIs() { remote_ = true; }

  Act act(unsigned depth = 0) {
    Act act;
    act.table = presentTable();
    act.key = below(keys_);
    act.value = below(6);
    choose(act, depth);
    return act;
  }

  Model::Start start(bool first) {
    Model::Start start;
    if (first) return start;
    for (unsigned t = 0; t < model_.tableCount(); ++t) {
      if (percent(15)) start.absent.insert(t);
      if (percent(10)) start.reset.insert(t);
    }
    // Someone must be there.
    start.absent.erase(below(model_.tableCount()));
    return start;
  }
  /// What the hardware has reported of a family while no agent was there, if anything.
  std::optional<Version> reported(unsigned family) {
    return percent(70) ? std::optional(version(model_.family(family))) : std::nullopt;
  }

  /// A version that the hardware may report: mostly a true one.
  Version version(const TableModel::Family& family) {
    const Version newest = family.scratchpad, known = std::min(family.statusVersion, newest);
    if (reportStep_ != 0) return std::min(newest, known + below(reportStep_));
    switch (pick({40, 30, 5, 10, 3, hostile_ && !remote_ ? 4U : 0U})) {
      case 0:
        return known + random_() % (newest - known + 1);
      case 1:
        return newest;
      case 2:
        return known;
      case 3:
        return random_() % (newest + 1);
      case 4:
        return 0;
      default:
        break;
    }
    const Version wrong[] = {newest + 1 + below(5), Version{1} << 63, (Version{1} << 63) - 1};
    return wrong[below(3)];
  }

 private:
  unsigned pick(std::initializer_list<unsigned> weights) {
    unsigned sum = 0;
    for (const unsigned weight : weights) sum += weight;
    unsigned at = below(sum), index = 0;
    for (const unsigned weight : weights) {
      if (at < weight) return index;
      at -= weight;
      ++index;
    }
    return index;
  }

  void choose(Act& act, unsigned depth) {
    const unsigned giveWeight = model_.shape().users.empty() ? 0 : 6;
    switch (pick(
        {28, 14, sparing_ ? 0U : 1U, pumpWeight_, reportWeight_, 4, 2, 12, 6, 6, giveWeight})) {
      case 0:
        return operation(act, Kind::write, depth);
      case 1:
        return operation(act, Kind::remove, depth);
      case 2:
        return everything(act, depth);
      case 3:
        return pump(act);
      case 4:
        return report(act, depth);
      case 5:
        act.kind = sparing_ || percent(80) || model_.configEntrys(act.table) == 0 ? Kind::update
                                                                                  : Kind::direct;
        return;
      case 6:
        return helper(act);
      case 7:
        act.kind = percent(50) ? Kind::has : Kind::read;
        return;
      case 8:
        return settle(act);
      case 10:
        return give(act);
      default:
        return iterate(act);
    }
  }

  unsigned presentTable() {
    for (;;) {
      const unsigned table = below(model_.tableCount());
      if (model_.present(table)) return table;
    }
  }

  void operation(Act& act, Kind kind, unsigned depth) {
    act.kind = kind;
    if (kind == Kind::write && model_.usesResources(model_.table(act.table)) && percent(75)) {
      act.value |= (1 + below(kResources)) << Support::kRequestShift;
      if (percent(20)) act.value = withDestination(act.value, below(16));
    }
    if (percent(dependentShare_)) {
      const OpId next = model_.nextOp();
      act.dependency = percent(20) ? kFirstForeign + below(kForeigns)
                       : next == 0 ? kNoOp
                                   : next - 1 - below(std::min<OpId>(next, 40));
    }
    act.handler = percent(60);
    if (!act.handler || depth == 2) return;
    while (percent(15)) act.reaction.push_back(this->act(depth + 1));
    act.handlerThrows = percent(2) && !remote_;
  }

  void everything(Act& act, unsigned depth) {
    act.key = 0;
    operation(act, Kind::removeAll, depth);
    if (percent(30)) act.kind = Kind::clear;
    act.flag = percent(50);
  }

  void pump(Act& act) {
    act.kind = Kind::pump;
    act.table = below(model_.groupCount());
    act.key = 0;
    act.number = percent(30) ? 1 : below(20);
  }

  void report(Act& act, unsigned depth) {
    act.kind = !remote_ ? Kind::report : depth == 0 ? Kind::hear : Kind::has;
    act.flag = true;
    act.number = version(model_.familyOf(act.table));
  }

  void helper(Act& act) {
    act.kind = Kind::helper;
    act.flag = percent(10);
    act.plan.plain = percent(30);
    act.plan.mask = percent(50) ? 1 + below(7) : 0;
    act.plan.answer = percent(80);
    // In an update that follows a resource it would end the process.
    act.plan.throws = percent(10) && !model_.usesResources(model_.table(act.table));
    act.plan.rejects = percent(70);
  }

  void settle(Act& act) {
    act.kind = Kind::settle;
    const State states[] = {State::pending,          State::inLog,
                            State::rejected,         State::done,
                            State::dependencyFailed, State::resourceFailed};
    act.value = static_cast<Value>(states[below(6)]);
    act.number = below(1000);
    act.dependency = kFirstForeign + below(kForeigns);
    // Whom nobody will ever finish, somebody must.
    const auto& queue = model_.queue(below(model_.groupCount()));
    if (queue.empty() || queue.front()->dependency == nullptr) return;
    const Operation& waitedFor = *queue.front()->dependency;
    if (waitedFor.state != State::pending) return;
    if (waitedFor.id < kFirstForeign) return;
    act.dependency = waitedFor.id;
    act.value = static_cast<Value>(states[1 + below(5)]);
  }

  void give(Act& act) {
    act.kind = Kind::give;
    act.key = 1 + below(kResources);
    const State states[] = {State::resourceFailed, State::pending, State::inLog, State::rejected,
                            State::dependencyFailed};
    act.value = static_cast<Value>(percent(60) ? State::done : states[below(5)]);
    act.destId = percent(20) ? 0 : 1 + below(3);
    act.number = percent(50) ? 0 : 1 + below(1000);
    const auto& queue = model_.queue(below(model_.groupCount()));
    if (queue.empty() || !model_.waitsForResource(*queue.front()) || percent(30)) return;
    act.key = requestOf(queue.front()->value);
    act.value = static_cast<Value>(percent(80) ? State::done : State::resourceFailed);
  }

  void iterate(Act& act) {
    act.kind = sparing_ || remote_ ? Kind::has : percent(20) ? Kind::iterBegin : Kind::iterStep;
    act.slot = act.table * 2 + below(2);
    act.flag = percent(50);
  }

  std::mt19937_64 random_;
  const Model& model_;
  const unsigned keyBits_;
  unsigned keys_ = 16;
  unsigned dependentShare_ = 0;
  unsigned pumpWeight_ = 1;
  unsigned reportWeight_ = 1;
  bool hostile_ = false;
  bool sparing_ = false;
  bool remote_ = false;
  unsigned reportStep_ = 0;
};

}  // namespace TableModel
