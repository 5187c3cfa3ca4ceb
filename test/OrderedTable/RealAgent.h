#pragma once

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "Kiv/TraceControl.h"
#include "OrderedTable/TableModel.h"
#include "Support/Ear.h"
#include "Support/Running.h"
#include "Support/TypedFamilies.h"

/// The real tables, asked with the words of the model.
namespace TableModel {

using HandlePtr = Fenrik::Ptr<const Asic::SwTableBase::EntryHandle>;
using DependencyPtr = Fenrik::Ptr<const Asic::DependencyEntryHandle>;

/// A handle of an operation of nobody's table.
class ForeignHandle final : public Fenrik::NodeClass<ForeignHandle, Asic::DependencyEntryHandle> {
 public:
  void outcomeIs(Asic::EntryState state, Version version) {
    version_ = Asic::LogVersion(version);
    entryStateStore(state);
  }
  Asic::TableVersion entryTableVersion() const override { return {tableId(), version_}; }
  Asic::SwTableId tableId() const override { return Asic::SwTableId(kForeignTable); }
  Fenrik::String tableName() const override { return Fenrik::String("foreign"); }
  Fenrik::String keyText() const override { return Fenrik::String("key"); }

 private:
  Asic::LogVersion version_;
};

/// Keeps the first thing that differs from the model.
struct Differences {
  template <class T, class U>
  void operator()(const char* what, const T& expected, const U& seen) {
    if (expected == seen || !text.empty()) return;
    text = fmt::format("{}: {} is {}, not {}", where, what, seen, expected);
  }

  std::string where;
  std::string text;
};

/// All tables of one real table id.
class AnyFamily {
 public:
  virtual ~AnyFamily() = default;
  /// The walk's place of each of the first `keys` keys, in a unit that is empty.
  virtual std::vector<unsigned> learnPlaces(unsigned unit, Key keys) = 0;
  virtual void mountTable(unsigned unit, bool reset) = 0;
  /// As the hardware; nothing if it is to have said nothing.
  virtual void reportedIs(std::optional<Version> version) = 0;
  virtual void apply(unsigned unit, const Act& act) = 0;
  virtual Asic::GroupInterface& group() const = 0;
  /// Looks at what is cheap to look at, at everything below so many keys, or also at what costs a
  /// walk over the whole configuration each.
  enum class Depth { quick, full, walked };
  virtual void compare(Differences& differ, const Model& model, Depth depth, Key keys) const = 0;
};

/// The real agent: one after the other over the same shared memory.
class RealAgent : public Agent {
 public:
  using Make = std::unique_ptr<AnyFamily> (*)(RealAgent& agent, unsigned number);
  struct Plan {
    Model::Shape shape;
    std::vector<Make> families;
  };

  RealAgent(std::string directory, const Plan& plan)
      : directory_(std::move(directory)), plan_(plan) {
    for (unsigned i = 0; i < kForeigns; ++i)
      foreigns_.push_back(Fenrik::ptrIsImpl<ForeignHandle>());
    if (plan_.shape.users.empty()) return;
    Kiv::TraceControl::settingIs(
        "TcamActionRequestIdToFecLinkage/3;ReqIdToFecResourceTableResourceTable/1-2");
    Kiv::TraceControl::sinkIs(
        [this](const Kiv::TraceLine& line) { traced(std::string(line.text)); });
  }
  ~RealAgent() override {
    if (plan_.shape.users.empty()) return;
    Kiv::TraceControl::settingDelAll();
    Kiv::TraceControl::sinkDel();
  }

  void start(const Model::Start& start) {
    end();
    running_ = std::make_unique<Support::Running>(directory_, "table-model");
    clients_.clear();
    if (!plan_.shape.users.empty()) running_->resources();
    for (const Make make : plan_.families) {
      families.push_back(make(*this, static_cast<unsigned>(families.size())));
    }
    for (unsigned t = 0; t < units() * families.size(); ++t) {
      if (!start.absent.contains(t)) mountTable(t, start.reset.contains(t));
    }
  }
  void end() {
    handles_.clear();
    families.clear();
    running_ = nullptr;
  }

  void mountTable(unsigned table, bool reset) {
    families[table / units()]->mountTable(table % units(), reset);
  }

  void apply(const Act& act) override {
    using Kind = Act::Kind;
    if (act.kind == Kind::pump) {
      const unsigned done = groupOf(act.table).pump(static_cast<unsigned>(act.number));
      return see({.kind = Event::Kind::answered,
                  .what = static_cast<std::uint8_t>(act.kind),
                  .table = act.table,
                  .number = done});
    }
    if (act.kind == Kind::hear) {
      if (act.flag) families[act.table / units()]->reportedIs(act.number);
      running_->tables().waitForReport(std::chrono::nanoseconds(0));
      while (running_->tables().pump(0).reports != 0) {
      }
      return;
    }
    if (act.kind == Kind::settle) return settle(act);
    if (act.kind == Kind::give) return give(act);
    families[act.table / units()]->apply(act.table % units(), act);
  }

  /// The table that makes the next client of the resource table.
  void clientIs(unsigned table) { clients_.push_back(table); }
  /// How the tables updated the users of their resources, since it was last asked.
  std::deque<Round> takenRounds() { return std::exchange(rounds_, {}); }

  OpId nextOp() { return nextOp_++; }
  void handleIs(OpId id, const HandlePtr& handle) {
    handles_[id] = handle;
    std::erase_if(handles_,
                  [&](const auto& member) { return nextOp_ - member.first > kHandlesKept; });
  }
  HandlePtr handle(OpId id) const {
    const auto found = handles_.find(id);
    return found != handles_.end() && nextOp_ - id <= kHandlesKept ? found->second : HandlePtr();
  }
  DependencyPtr dependency(OpId id) const {
    if (id != kNoOp && id >= kFirstForeign) return foreigns_[id - kFirstForeign];
    return handle(id);
  }
  void reactTo(const Act& act) { react(act); }

  Support::Running& running() const { return *running_; }
  const std::string& directory() const { return directory_; }
  unsigned units() const { return plan_.shape.units; }

  std::vector<std::unique_ptr<AnyFamily>> families;

 private:
  Asic::GroupInterface& groupOf(unsigned group) const {
    const auto& groups = plan_.shape.groupOfFamily;
    const auto first = std::find(groups.begin(), groups.end(), group) - groups.begin();
    return families[static_cast<std::size_t>(first)]->group();
  }

  /// What tables tell the resource table, and whom they update before they do.
  void traced(const std::string& text) {
    unsigned bank = 0, index = 0, client = 0, number = 0;
    unsigned long long id = 0;
    if (std::sscanf(text.c_str(), "Updating sw table entry for key: %u:%u", &bank, &index) == 2) {
      return updated_.push_back(bank << 16 | index);
    }
    const bool isRelease = text.find(" release") != std::string::npos;
    const auto facts = text.find("client: ");
    if ((!isRelease && text.find(" ackUpdate") == std::string::npos) ||
        std::sscanf(text.c_str() + facts, "client: %u, key: %llu, updateNumber: %u", &client, &id,
                    &number) != 3) {
      return;
    }
    constexpr std::string_view kNobody = " 00:00:0000@0";
    const auto at = text.rfind('@');
    const unsigned table = clients_.at(client - 1);
    const auto resource = static_cast<Key>(id);
    see({.kind = Event::Kind::told,
         .what = isRelease,
         .table = table,
         .key = resource,
         .number = number,
         .value = text.ends_with(kNobody) ? kNoVersion : std::stoull(text.substr(at + 1))});
    if (!updated_.empty()) rounds_.push_back({table, resource, std::exchange(updated_, {})});
  }

  void give(const Act& act) {
    const auto needed = Fenrik::ptrIsImpl<Asic::NeededEntry>();
    if (act.number != 0) {
      needed->add({Asic::SwTableId(kForeignTable), Asic::LogVersion(act.number)});
    }
    running_->resources().resourceIs(QuarnL3NiLib::ReqIdToFecResourceTableEntryKey(act.key),
                                     static_cast<Asic::EntryState>(act.value), act.destId, needed);
  }

  /// As the party that owns the handle.
  void settle(const Act& act) {
    const auto outcome = static_cast<Asic::EntryState>(act.value);
    if (act.dependency >= kFirstForeign) {
      return foreigns_[act.dependency - kFirstForeign]->outcomeIs(outcome, act.number);
    }
    const HandlePtr found = handle(act.dependency);
    if (found != nullptr) {
      const_cast<Asic::SwTableBase::EntryHandle&>(*found).entryStateIs(outcome);
    }
  }

  std::string directory_;
  Plan plan_;
  std::unique_ptr<Support::Running> running_;
  std::map<OpId, HandlePtr> handles_;
  std::vector<Fenrik::Ptr<ForeignHandle>> foreigns_;
  OpId nextOp_ = 0;
  /// Tables in the order of their clients, whom of their entries one updates, and what was so far.
  std::vector<unsigned> clients_;
  std::vector<Key> updated_;
  std::deque<Round> rounds_;
};

template <class F>
class RealFamily final : public AnyFamily {
  using Numbers = Support::Numbers<F>;
  using Table = typename F::SwTable;
  using Entry = typename F::Entry;
  using FamilyKey = typename F::Key;

  static constexpr bool kUsesResources = !std::is_void_v<typename F::ResourceLinkage>;

 public:
  RealFamily(RealAgent& agent, unsigned number)
      : agent_(agent),
        number_(number),
        interface_(agent.running().interface<F>()),
        tables_(agent.units()),
        statusEar_(*interface_->swTableStatus()->publisher(), [this](const Fenrik::Change& change) {
          agent_.see({.kind = Event::Kind::flagged,
                      .table = number_,
                      .number = *static_cast<const bool*>(change.value)});
        }) {}

  Asic::GroupInterface& group() const override { return agent_.running().template group<F>(); }

  std::vector<unsigned> learnPlaces(unsigned unit, Key keys) override {
    auto& config = *log().tableConfigDrift(unitId(unit));
    for (Key key = 0; key < keys; ++key) {
      config.swTableEntriesIs(typename F::ConfigDriftEntry(
          Support::entryOf<F, typename F::LogEntry>(key, 0), {}, Asic::LogVersion(), false));
    }
    const auto places =
        Support::MemoryReader<F>(agent_.directory(), agent_.units()).places(unit, keys);
    for (Key key = 0; key < keys; ++key) config.swTableEntriesDel(Numbers::key(key));
    return places;
  }

  void mountTable(unsigned unit, bool reset) override {
    if (kUsesResources) agent_.clientIs(numberOf(unit));
    tables_[unit] = interface_->makeSwTable(unitId(unit), nullptr, reset);
    reader_ = nullptr;  // there is more to be seen
  }

  void reportedIs(std::optional<Version> version) override {
    Support::ReporterRig hardware(agent_.directory(), F::Constants::canonicalGroupName());
    version ? hardware.report(F::kTableId, *version) : hardware.forget(F::kTableId);
  }

  void apply(unsigned unit, const Act& act) override {
    using Kind = Act::Kind;
    Table& table = *tables_[unit];
    const FamilyKey key = Numbers::key(act.key);
    switch (act.kind) {
      case Kind::write:
      case Kind::remove:
      case Kind::removeAll:
        return call(unit, act);
      case Kind::update:
        return update(table, act);
      case Kind::clear:
        return table.clearTable(act.flag);
      case Kind::direct:
        return direct(unit, act);
      case Kind::report:
        return table.tableStatusVersion(Asic::LogVersion(act.number));
      case Kind::has:
        return agent_.answer(act, act.key, table.entryHas(key));
      case Kind::read:
        return agent_.answer(act, numbers(table.entryRead(key)));
      case Kind::iterBegin:
        return iterBegin(unit, act);
      case Kind::iterStep:
        return iterStep(unit, act);
      case Kind::helper:
        return helper(table, act);
      case Kind::pump:
      case Kind::hear:
      case Kind::give:
      case Kind::settle:
        break;
    }
    throw std::logic_error("not a table's act");
  }

  void compare(Differences& differ, const Model& model, Depth depth, Key keys) const override {
    compareQuickly(differ, model);
    if (depth == Depth::quick) return;
    // A unit without a table may have a configuration all the same.
    if (reader_ == nullptr) {
      reader_ = std::make_unique<Support::MemoryReader<F>>(agent_.directory(), agent_.units());
    }
    const Support::Memory& expected = model.family(number_);
    const Support::Memory seen = reader_->read();
    if (seen != expected) differ("memory", textOf(expected), textOf(seen));
    for (unsigned unit = 0; unit < tables_.size(); ++unit) {
      if (tables_[unit] == nullptr) continue;
      differ.where = fmt::format("{}, unit {}", F::kTableName, unit);
      compareFlight(differ, *tables_[unit], model.table(numberOf(unit)));
      compareReads(differ, model, unit, keys);
      if (depth == Depth::walked) compareWalks(differ, model, unit);
    }
    differ.where = F::kTableName;
    const auto head = group().groupResolver()->head().waiting;
    const auto& queue = model.queue(model.family(number_).group);
    if (queue.empty()) return;
    differ("head's unit", queue.front()->act.table % agent_.units(), head.unit);
    differ("head's wait", model.waits(*queue.front()), head.reason.size() != 0);
  }

 private:
  void compareQuickly(Differences& differ, const Model& model) const {
    const Family& family = model.family(number_);
    const auto& control = *log().tableEntryLog()->collectionControl();
    differ.where = F::kTableName;
    differ("tableVersion", family.scratchpad, log().tableVersion().value());
    differ("tableStatusVersion", family.statusVersion, log().tableStatusVersion().value());
    differ("scratchpad", family.scratchpad, control.scratchpad());
    differ("announced version", family.announced, control.announced());
    differ("log size", family.log.size(), log().tableEntryLog()->map()->driftMapSize());
    differ("pendingHwWrites", family.pendingHwWrites,
           interface_->swTableStatus()->pendingHwWrites());
    differ("queue", model.queue(family.group).size(), group().groupResolver()->length());
    for (unsigned unit = 0; unit < tables_.size(); ++unit) {
      if (tables_[unit] == nullptr) continue;
      const Table& table = *tables_[unit];
      const TableModel::Table& expected = model.table(numberOf(unit));
      differ("adds", expected.adds.size(), table.transientAddEntryCount());
      differ("removes", expected.removes.size(), table.transientRemoveEntryCount());
      differ("versions", expected.versions.size(), table.transientVersionForKeyCount());
      differ("transientRemoveAllVersion", expected.removeAll.value_or(UINT64_MAX),
             table.transientRemoveAllVersion().value());
      differ("handles in the log", expected.handlesInLog.size(), table.entryHandleInLogCount());
      differ("configuration size", family.config[unit].size(),
             log().tableConfigDrift(unitId(unit))->map()->driftMapSize());
    }
  }
  void compareWalks(Differences& differ, const Model& model, unsigned unit) const {
    const unsigned number = numberOf(unit);
    const Table& table = *tables_[unit];
    const auto live = model.configEntrys(number);
    differ("entrys", model.entrys(number), table.entrys());
    differ("entrys of the log", live, log().entrys(unitId(unit)));
    differ("entrysInDeletion", model.family(number_).config[unit].size() - live,
           log().entrysInDeletion(unitId(unit)));
    std::map<Key, Value> walked;
    for (auto it = table.entryIteratorConst(); it; ++it) walked.insert(numbers(*it));
    differ("what a walk shows", model.contents(number), walked);
    walked.clear();
    const auto all = table.getTableEntries_py();
    for (auto it = all->tableEntriesIterator(); it; ++it) walked.insert(numbers(it->value()));
    differ("a copy of the entries", model.contents(number), walked);
  }

  struct Walk {
    Fenrik::Ptr<typename F::IteratorState> state;
    std::map<Key, Version> throughout;
    std::map<Key, unsigned> met;
  };

  /// Does what a plan says, and shows what a reader sees from within the commit.
  class Helper final : public Fenrik::NodeClass<Helper, typename F::SwTableHelperBase> {
   public:
    using Wrapper = typename F::EntryWrapper;

    Helper(RealFamily* family, const Act::Plan& plan) : family_(family), plan_(plan) {}

    void finalizeOnSuccess(const Fenrik::Ptr<Wrapper>& wrapper, bool isDelete,
                           const Fenrik::Ptr<Table>& table) override {
      called(*wrapper, *table, isDelete ? 1 : 0);
    }
    bool finalizeOnResourceUpdate(const Fenrik::Ptr<Wrapper>& wrapper,
                                  const Fenrik::Ptr<Table>& table, bool failed) override {
      called(*wrapper, *table, failed ? kOnFailedUpdate : kOnResourceUpdate);
      return plan_.answer;
    }
    bool finalizeOnFailure(const Fenrik::Ptr<Wrapper>& wrapper, bool,
                           const Fenrik::Ptr<Table>& table) override {
      called(*wrapper, *table, kOnFailure);
      return plan_.answer;
    }

   private:
    void called(Wrapper& wrapper, const Table& table, std::uint8_t which) {
      const auto [key, value] = numbers(wrapper.entry());
      family_->agent_.see({.kind = Event::Kind::hooked,
                           .what = which,
                           .gone = table.entryHas(wrapper.key()),
                           .table = family_->numberOf(table.unitId().value()),
                           .key = key,
                           .value = value});
      if (plan_.mask != 0) wrapper.mutableEntry() = Support::entryOf<F>(key, value ^ plan_.mask);
      if (!plan_.throws) return;
      plan_.throws = false;
      if (plan_.rejects) wrapper.entryHandle()->entryStateIs(Asic::EntryState::entryRejected);
      throw Thrown();
    }

    RealFamily* family_;
    Act::Plan plan_;
  };

  static std::pair<Key, Value> numbers(const auto& entry) { return Support::numbersOf<F>(entry); }
  static Asic::UnitId unitId(unsigned unit) {
    return Asic::UnitId(static_cast<std::uint16_t>(unit));
  }
  unsigned numberOf(unsigned unit) const { return number_ * agent_.units() + unit; }
  typename F::EntryLog& log() const { return *interface_->entryLog(); }

  void call(unsigned unit, const Act& act) {
    Table& table = *tables_[unit];
    const OpId id = agent_.nextOp();
    const DependencyPtr dependency = agent_.dependency(act.dependency);
    Asic::ResponseHandler handler;
    if (act.handler) {
      handler = [this, unit, id, act](const auto& handle) { handled(unit, id, act, *handle); };
    }
    HandlePtr handle;
    if (act.kind == Act::Kind::write) {
      // The key beside the entry wins over the one within.
      Entry entry = Support::entryOf<F>(act.key, act.value);
      entry.keyIs(Numbers::key(act.key + 1));
      handle = act.handler ? table.entryWriteWithResponseHandler(Numbers::key(act.key), entry,
                                                                 dependency, handler)
                           : table.entryWrite(Numbers::key(act.key), entry, dependency);
    } else if (act.kind == Act::Kind::remove) {
      handle = act.handler ? table.entryRemoveWithResponseHandler(Numbers::key(act.key), dependency,
                                                                  handler)
                           : table.entryRemove(Numbers::key(act.key), dependency);
    } else {
      return act.handler ? table.entryRemoveAllWithResponseHandler(dependency, handler)
                         : table.entryRemoveAll(dependency);
    }
    agent_.handleIs(id, handle);
  }

  void handled(unsigned unit, OpId id, const Act& act,
               const Asic::OrderedSwTable::EntryHandle& handle) {
    const auto& typed = dynamic_cast<const typename F::EntryHandle&>(handle);
    agent_.see({.kind = Event::Kind::handled,
                .what = static_cast<std::uint8_t>(typed.entryState()),
                .gone = tables_[unit]->hasPendingHwWrites(),
                .table = numberOf(unit),
                .key = Numbers::number(typed.key()),
                .number = id,
                .value = typed.logVersion().value()});
    agent_.reactTo(act);
  }

  void update(Table& table, const Act& act) {
    const HandlePtr handle = table.updateEntry(Numbers::key(act.key));
    if (handle == nullptr) return agent_.answer(act, act.key, kNoOp);
    const OpId id = agent_.nextOp();
    agent_.handleIs(id, handle);
    agent_.answer(act, act.key, id);
  }

  void direct(unsigned unit, const Act& act) {
    const Asic::LogVersion version = log().entryIs(
        Support::entryOf<F, typename F::LogEntry>(act.key, act.value), {},
        Fenrik::ptrIsImpl<Asic::NeededEntry>(), unitId(unit), tables_[unit]->stats(), true);
    agent_.answer(act, act.key, version.value());
  }

  void iterBegin(unsigned unit, const Act& act) {
    const Table& table = *tables_[unit];
    Walk& walk = walks_[act.slot] = Walk();
    walk.state =
        act.flag ? table.initIterStateFromKey(Numbers::key(act.key)) : table.initIterState();
    if (!act.flag) walk.throughout = atRest(unit);
  }

  /// What a walk gives is what a read gives, and of what is there from its begin to its end, with
  /// nothing in flight, it gives each entry once.
  void iterStep(unsigned unit, const Act& act) {
    const auto found = walks_.find(act.slot);
    if (found == walks_.end()) return;
    Walk& walk = found->second;
    const auto& state = *walk.state;
    const bool lost = state.state().inAddColl() && state.state().hasBookmark() &&
                      !tables_[unit]->transientAddEntryHas(state.bookmarkKey());
    // Its write was committed: the walk goes on among what is configured from that key on.
    if (lost) walk.throughout.clear();
    const Entry entry = walk.state->maybeUpdateCurrentEntry();
    const auto rest = atRest(unit);
    std::erase_if(walk.throughout, [&](const auto& member) {
      const auto now = rest.find(member.first);
      return now == rest.end() || *now != member;
    });
    if (state.state().hasCurrent()) {
      ++walk.met[Numbers::number(entry.key)];
      if (entry == tables_[unit]->entryRead(entry.key)) return;
      throw std::logic_error("a walk gives another entry than a read");
    }
    for (const auto& member : walk.throughout) {
      if (walk.met[member.first] != 1) throw std::logic_error("a walk gives an entry not once");
    }
    walks_.erase(found);
  }

  /// What is configured and no operation in flight is about, with its versions.
  std::map<Key, Version> atRest(unsigned unit) const {
    const Table& table = *tables_[unit];
    std::map<Key, Version> all;
    if (table.transientRemoveAllVersion().valid()) return all;
    const auto keyOf = [](const auto& record) { return record.logEntry.key; };
    Support::eachRecord(*log().tableConfigDrift(unitId(unit))->map(), keyOf,
                        [&](const auto& record) {
                          const FamilyKey& key = record.logEntry.key;
                          if (record.isDeleted || table.transientAddEntryHas(key)) return;
                          if (table.transientRemoveEntryHas(key)) return;
                          all[Numbers::number(key)] = record.logVersion.value();
                        });
    return all;
  }

  void helper(Table& table, const Act& act) {
    if (act.flag) return table.swTableHelperIs(table.swTableHelper());
    table.swTableHelperIs(act.plan.plain ? Fenrik::ptrIsImpl<typename F::SwTableHelperBase>()
                                         : Fenrik::Ptr<typename F::SwTableHelperBase>(
                                               Fenrik::ptrIsImpl<Helper>(this, act.plan)));
  }

  void compareReads(Differences& differ, const Model& model, unsigned unit, Key keys) const {
    const Table& table = *tables_[unit];
    const unsigned number = numberOf(unit);
    const auto& stats = *table.stats();
    const std::array<Version, kCounters> counters{
        stats.entryWriteCnt(),  stats.entryRemoveCnt(),     stats.commitCnt(),
        stats.tableClearCnt(),  stats.updateCnt(),          stats.updateWithFailedResourceCnt(),
        stats.resolveFailCnt(), stats.suppressedWriteCnt(), stats.suppressCheckDiffCnt()};
    differ("stats", model.table(number).counters, counters);
    differ("users of resources", model.table(number).users, usersOf(table));
    differ("hasPendingHwWrites", model.hasPendingHwWrites(number), table.hasPendingHwWrites());
    const auto& config = model.family(number_).config[unit];
    for (Key key = 0; key < keys; ++key) {
      const FamilyKey familyKey = Numbers::key(key);
      const auto found = config.find(key);
      differ("entryHas", model.entryHas(number, key), table.entryHas(familyKey));
      differ("entryRead", model.entryRead(number, key), numbers(table.entryRead(familyKey)));
      differ("entryFromConfig", model.entryFromConfig(number, key),
             numbers(table.entryFromConfig(familyKey)));
      auto logged = model.entryFromConfig(number, key);
      logged.second = Support::Changing::logged(logged.second);
      differ("entry of the log", logged, numbers(log().entry(familyKey, unitId(unit))));
      differ("entryHas of the log", model.configHas(number, key),
             log().entryHas(familyKey, unitId(unit)));
      differ("entryLogVersion", found != config.end() ? found->second.logVersion : 0,
             log().entryLogVersion(familyKey, unitId(unit)).value());
    }
  }
  static std::map<Key, std::set<Key>> usersOf(const Table& table) {
    std::map<Key, std::set<Key>> users;
    if constexpr (kUsesResources) {
      for (auto it = table.requestIdToFecLinkage()->entryUsageSmIterator(); it; ++it) {
        auto& of = users[static_cast<Key>(it.key().value())];
        for (auto user = it->value()->entryUsageIterator(); user; ++user) {
          of.insert(Numbers::number(user.key()));
        }
      }
    }
    return users;
  }
  void compareFlight(Differences& differ, const Table& table,
                     const TableModel::Table& expected) const {
    using Members = std::map<Key, std::pair<Value, Version>>;
    const auto expect = [](const std::map<Key, OpPtr>& members) {
      Members all;
      for (const auto& [key, op] : members) all[key] = {op->value, op->major};
      return all;
    };
    const auto look = [](auto it) {
      Members all;
      for (; it; ++it) {
        const auto& wrapper = *it->value();
        const auto [key, value] = numbers(wrapper.entry());
        all[key] = {value, wrapper.entryHandle()->version().majorVersion().value()};
      }
      return all;
    };
    differ("transientAddEntry", expect(expected.adds), look(table.transientAddEntryIterator()));
    differ("transientRemoveEntry", expect(expected.removes),
           look(table.transientRemoveEntryIterator()));
    std::map<Key, Version> versions;
    for (auto it = table.transientVersionForKeyIterator(); it; ++it) {
      versions[Numbers::number(it.key())] = it->value().majorVersion().value();
      differ("minor version", 0U, it->value().minorVersion());
    }
    differ("transientVersionForKey", expected.versions, versions);
    std::vector<Version> expectedHandles, handles;
    for (const OpPtr& op : expected.handlesInLog) expectedHandles.push_back(op->logVersion);
    for (auto it = table.entryHandleInLogIter(); it.valid(); it.increment()) {
      handles.push_back(it.value()->logVersion().value());
    }
    differ("entryHandleInLog", expectedHandles, handles);
  }

  RealAgent& agent_;
  unsigned number_;
  Fenrik::Ptr<typename F::Interface> interface_;
  std::vector<Fenrik::Ptr<Table>> tables_;
  Support::Ear statusEar_;
  std::map<unsigned, Walk> walks_;
  mutable std::unique_ptr<Support::MemoryReader<F>> reader_;
};

/// What an agent must know of a family.
struct FamilyOfRun {
  const char* name;
  std::uint32_t tableId;
  Fenrik::String group;
  bool usesResources;
  RealAgent::Make make;
  /// Words of a log record.
  std::size_t logWords;
  Support::Memory (*read)(const std::string& directory, unsigned units, Key keys);
  std::vector<unsigned> (*places)(const std::string& directory, unsigned units, unsigned unit,
                                  Key keys);
};

template <class F>
FamilyOfRun familyOfRun() {
  using Reader = Support::MemoryReader<F>;
  return {F::kTableName,
          F::kTableId.value(),
          F::Constants::canonicalGroupName(),
          !std::is_void_v<typename F::ResourceLinkage>,
          [](RealAgent& agent, unsigned number) -> std::unique_ptr<AnyFamily> {
            return std::make_unique<RealFamily<F>>(agent, number);
          },
          sizeof(typename F::LogDriftEntry) / sizeof(Drift::Word),
          [](const std::string& directory, unsigned units, Key keys) {
            return Reader(directory, units).read(keys);
          },
          [](const std::string& directory, unsigned units, unsigned unit, Key keys) {
            return Reader(directory, units).places(unit, keys);
          }};
}

template <class... F>
struct FamiliesOfRun {
  static std::vector<FamilyOfRun> make() { return {familyOfRun<F>()...}; }
};

/// One family of each group, varying with `number`. Five consecutive numbers cover all nine.
inline std::vector<FamilyOfRun> familiesOfRun(unsigned number) {
  static const auto all = Support::TypedFamilies<FamiliesOfRun>::make();
  std::map<Fenrik::String, std::vector<FamilyOfRun>> groups;
  for (const FamilyOfRun& family : all) groups[family.group].push_back(family);
  std::vector<FamilyOfRun> chosen;
  for (const auto& [group, families] : groups) chosen.push_back(families[number % families.size()]);
  return chosen;
}

/// Agents that have the tables of these families.
inline RealAgent::Plan planOf(const std::vector<FamilyOfRun>& families) {
  RealAgent::Plan plan;
  std::vector<Fenrik::String> groups;
  for (const FamilyOfRun& family : families) {
    const auto found = std::ranges::find(groups, family.group);
    plan.shape.groupOfFamily.push_back(static_cast<unsigned>(found - groups.begin()));
    if (found == groups.end()) groups.push_back(family.group);
    plan.shape.tableIds.push_back(family.tableId);
    plan.families.push_back(family.make);
  }
  return plan;
}

}  // namespace TableModel
