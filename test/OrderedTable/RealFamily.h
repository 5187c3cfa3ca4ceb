#pragma once

#include <fmt/format.h>

#include <limits>

#include "OrderedTable/OrderedTableInterface.h"
#include "OrderedTable/TableModel.h"
#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamEntry.h"

/// The real tables, asked with the words of the model.
namespace TableModel {

using HandlePtr = Fenrik::Ptr<const Asic::SwTableBase::EntryHandle>;
using DependencyPtr = Fenrik::Ptr<const Asic::DependencyEntryHandle>;

/// What the tables of all families of a real agent share.
class RealAgentBase : public Agent {
 public:
  virtual OpId nextOp() = 0;
  virtual DependencyPtr dependency(OpId id) const = 0;
  virtual void handleIs(OpId id, const HandlePtr& handle) = 0;
  virtual void reactTo(const Act& act) = 0;

  Fenrik::Ptr<Stavro::EntityManager> state;
  Fenrik::Ptr<KivSharedMem::EntityManager> memory;
  Fenrik::Ptr<Asic::OrderedTableInterface> tables;
  /// As the real map had it at each step of an iteration.
  std::deque<std::vector<Key>> addOrders;
};

/// All tables of one real table id.
class AnyFamily {
 public:
  virtual ~AnyFamily() = default;
  /// The walk's place of each of the first `keys` keys.
  virtual std::vector<unsigned> learnPlaces(unsigned unit, Key keys) = 0;
  virtual void configIs(unsigned unit, Key key, const ConfigRecord& record) = 0;
  virtual void mountTable(unsigned unit, std::optional<Version> reported, bool reset) = 0;
  virtual void apply(unsigned unit, const Act& act) = 0;
  virtual const Asic::GroupInterface& group() const = 0;
  /// What differs from the model in what is cheap to look at, or in everything.
  virtual std::string quickDifference(const Model& model) const = 0;
  virtual std::string fullDifference(const Model& model, Key keys) const = 0;
  /// Of what costs a walk over the whole configuration each.
  virtual std::string walkedDifference(const Model& model) const = 0;
};

/// How the model's numbers stand in a family's types, and facts of it that are written down here
/// once more.
template <class Family>
struct Mapping;

template <>
struct Mapping<QuarnBastil::TcamEntryFamily> {
  static constexpr std::uint16_t kFirstField = 642;
  static constexpr std::uint32_t kTableId = 0x04080404;

  static QuarnBastil::TcamEntryEntryKey key(Key key) {
    return {static_cast<std::uint8_t>(key >> 16), static_cast<std::uint16_t>(key)};
  }
  static Key number(const QuarnBastil::TcamEntryEntryKey& key) {
    return Key{key.bank} << 16 | key.index;
  }
  static void valueIs(auto& entry, Value value) {
    entry.actionWords.back() = value;
    entry.lookup = static_cast<std::uint16_t>(value);
    entry.sourcePrefix.present = true;
    entry.sourcePrefix.zone = value;
  }
  static Value value(const auto& entry) { return entry.actionWords.back(); }
};

template <>
struct Mapping<QuarnBastil::BigBbFamily> {
  static constexpr std::uint16_t kFirstField = 770;
  static constexpr std::uint32_t kTableId = 0x04090402;

  static QuarnLpmLib::BigBbDataModelEntryKey key(Key key) {
    return {key * 0x9e3779b1U, static_cast<std::uint8_t>(key % 32)};
  }
  static Key number(const QuarnLpmLib::BigBbDataModelEntryKey& key) {
    return key.prefix * 0x0e8b2f51U;  // the inverse of the factor
  }
  static void valueIs(auto& entry, Value value) {
    entry.block.value[0] = value;
    entry.block.nextHop[7] = ~value;
  }
  static Value value(const auto& entry) { return entry.block.value[0]; }
};
static_assert(0x9e3779b1U * 0x0e8b2f51U == 1);

/// The model's number of a table id; the one behind the last is foreign.
inline unsigned familyOfTableId(std::uint32_t id) {
  if (id == Mapping<QuarnBastil::TcamEntryFamily>::kTableId) return 0;
  return id == Mapping<QuarnBastil::BigBbFamily>::kTableId ? 1 : 2;
}

template <class F>
class RealFamily final : public AnyFamily {
  using Map = Mapping<F>;
  using Table = typename F::SwTable;
  using Log = typename F::EntryLog;
  using Entry = typename F::Entry;
  using FamilyKey = typename F::Key;
  using Record = typename F::ConfigDriftEntry;

 public:
  /// The agent's bring-up of a table id, over the memory that is there.
  RealFamily(RealAgentBase& agent, unsigned number, unsigned units, std::optional<Version> reported)
      : agent_(agent), number_(number), tables_(units), watches_(units) {
    agent.tables->makeGroupIntf(Fenrik::String(F::kAgentName), Fenrik::String(F::kGroupName),
                                F::kTableId.agentAndGroupId());
    group_ = agent.tables->groupIntf(F::Constants::canonicalGroupName());
    log_ = Fenrik::ptrIsImpl<Log>(F::kTableId, agent.state, group_, Fenrik::String(F::kAgentName));
    status_ = Fenrik::ptrIsImpl<Asic::OrderedSwTableStatus>(F::kTableId);
    if (reported) {
      log_->cleanupEntryLog(Asic::LogVersion(*reported));
      if (Asic::LogVersion(*reported) < log_->tableVersion()) status_->pendingHwWritesIs(true);
    }
    set_ = Fenrik::ptrIsImpl<Asic::OrderedSwTableSet>(F::kTableId, status_);
    group_->swTableSetIs(set_);
    statusWatch_.attach(*this, 0, status_->publisher(), &RealFamily::statusChanged);
  }

  /// The group holds its tables, and they hold it by their log.
  ~RealFamily() override { group_->swTableSetDel(F::kTableId); }

  const Asic::GroupInterface& group() const override { return *group_; }

  std::vector<unsigned> learnPlaces(unsigned unit, Key keys) override {
    log_->mountDriftConfig(unitId(unit), Asic::LogVersion(0));
    auto& config = *log_->tableConfigDrift(unitId(unit));
    for (Key key = 0; key < keys; ++key) config.swTableEntriesIs(recordOf(key, {}));
    std::vector<unsigned> places(keys);
    unsigned place = 0;
    eachRecord(unit, [&](Key key, const Record&) { places[key] = place++; });
    for (Key key = 0; key < keys; ++key) config.swTableEntriesDel(Map::key(key));
    return places;
  }

  void configIs(unsigned unit, Key key, const ConfigRecord& record) override {
    log_->tableConfigDrift(unitId(unit))->swTableEntriesIs(recordOf(key, record));
  }

  void mountTable(unsigned unit, std::optional<Version> reported, bool reset) override {
    const Asic::LogVersion version(reported.value_or(0));
    log_->mountDriftConfig(unitId(unit), version);
    const auto name = Fenrik::ptrIsImpl<Asic::CanonicalTableName>(
        Asic::OrderedTableType::orderedTable, Fenrik::String(F::kGroupName),
        Fenrik::String(F::kTableNamespace), Fenrik::String(F::kTableName));
    const auto table = Fenrik::ptrIsImpl<Table>(name, F::kTableId, unitId(unit), set_.get(), log_,
                                                group_->groupResolver());
    table->statusIs(status_);
    table->restoreEntries();
    if (reset) table->clearTable(false);
    set_->swTableIs(table);
    tables_[unit] = table;
    watches_[unit].stats.attach(*this, unit, table->stats()->publisher(),
                                &RealFamily::statsChanged);
    table->tableStatusVersion(version);
  }

  void apply(unsigned unit, const Act& act) override {
    using Kind = Act::Kind;
    Table& table = *tables_[unit];
    const FamilyKey key = Map::key(act.key);
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
        return answer(act, act.key, table.entryHas(key));
      case Kind::read:
        return answer(act, table.entryRead(key));
      case Kind::entry:
        return answer(act, table.entry(key));
      case Kind::config:
        return answer(act, table.entryFromConfig(key));
      case Kind::count:
        return answer(act, 0, table.entrys());
      case Kind::iterBegin:
        return iterBegin(table, act);
      case Kind::iterStep:
        return iterStep(act);
      case Kind::snapshot:
        return snapshot(table, act);
      case Kind::helper:
        return helper(table, act);
      case Kind::watch:
        return watch(unit, act.flag);
      case Kind::pump:
      case Kind::settle:
        break;
    }
    throw std::logic_error("not a table's act");
  }

  std::string quickDifference(const Model& model) const override;
  std::string fullDifference(const Model& model, Key keys) const override;
  std::string walkedDifference(const Model& model) const override;

 private:
  /// Hears of the changes of one object.
  struct Watch : Fenrik::Subscriber {
    using Heard = void (RealFamily::*)(unsigned unit, const Fenrik::Change&);

    void attach(RealFamily& toFamily, unsigned ofUnit, const Fenrik::Publisher* publisher,
                Heard whatHeard) {
      family = &toFamily;
      unit = ofUnit;
      heard = whatHeard;
      dispatchIs([](const Fenrik::Publisher&, Fenrik::Subscriber& subscriber,
                    const Fenrik::Change& change) noexcept {
        auto& self = static_cast<Watch&>(subscriber);
        (self.family->*self.heard)(self.unit, change);
      });
      publisher->subscriberAdd(*this, false);
    }

    RealFamily* family = nullptr;
    unsigned unit = 0;
    Heard heard = nullptr;
  };
  struct TableWatches {
    Watch table;
    Watch stats;
  };

  /// Does what a plan says, and shows what a reader sees from within the commit.
  class Helper final : public Fenrik::NodeClass<Helper, typename F::SwTableHelperBase> {
   public:
    using Wrapper = typename F::EntryWrapper;
    using KivModule = Kiv::Module<"TableModelHelper", Helper>;

    Helper(RealFamily* family, unsigned table, const Act::Plan& plan)
        : family_(family), table_(table), plan_(plan) {}

    void finalizeOnSuccess(const Fenrik::Ptr<Wrapper>& wrapper, bool isDelete,
                           const Fenrik::Ptr<Table>& table) override {
      called(*wrapper, *table, isDelete ? 1 : 0);
    }
    bool finalizeOnResourceUpdate(const Fenrik::Ptr<Wrapper>& wrapper,
                                  const Fenrik::Ptr<Table>& table, bool failed) override {
      called(*wrapper, *table, failed ? 3 : 2);
      return plan_.answer;
    }

   private:
    void called(Wrapper& wrapper, const Table& table, std::uint8_t which) {
      const auto [key, value] = numbers(wrapper.entry());
      family_->agent_.see({.kind = Event::Kind::hooked,
                           .what = which,
                           .gone = table.entryHas(wrapper.key()),
                           .table = table_,
                           .key = key,
                           .value = value});
      if (plan_.mask != 0) wrapper.mutableEntry() = entryOf(key, value ^ plan_.mask);
      if (!plan_.throws) return;
      plan_.throws = false;
      if (plan_.rejects) wrapper.entryHandle()->entryStateIs(Asic::EntryState::entryRejected);
      throw Thrown();
    }

    RealFamily* family_;
    unsigned table_;
    Act::Plan plan_;
  };

  static Asic::UnitId unitId(unsigned unit) {
    return Asic::UnitId(static_cast<std::uint16_t>(unit));
  }
  unsigned numberOf(unsigned unit) const {
    return number_ * static_cast<unsigned>(tables_.size()) + unit;
  }

  template <class T = Entry>
  static T entryOf(Key key, Value value) {
    T entry{Map::key(key)};
    if (value != 0) Map::valueIs(entry, value);
    return entry;
  }
  static Record recordOf(Key key, const ConfigRecord& record) {
    return Record(entryOf<typename F::LogEntry>(key, record.value), {},
                  Asic::LogVersion(record.logVersion), record.isDeleted);
  }
  /// Key and value of an entry, which must be all that there is in it.
  template <class T>
  static std::pair<Key, Value> numbers(const T& entry) {
    const Key key = Map::number(entry.key);
    const Value value = Map::value(entry);
    return {key, entry == entryOf<T>(key, value) ? value : std::numeric_limits<Value>::max()};
  }

  void answer(const Act& act, Key key, Version number, Version value = 0) const {
    agent_.see({.kind = Event::Kind::answered,
                .what = static_cast<std::uint8_t>(act.kind),
                .table = act.table,
                .key = key,
                .number = number,
                .value = value});
  }
  void answer(const Act& act, const Entry& entry) const {
    const auto [key, value] = numbers(entry);
    answer(act, key, 0, value);
  }

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
      Entry entry = entryOf(act.key, act.value);
      entry.keyIs(Map::key(act.key + 1));
      handle = act.handler ? table.entryWriteWithResponseHandler(Map::key(act.key), entry,
                                                                 dependency, handler)
                           : table.entryWrite(Map::key(act.key), entry, dependency);
    } else if (act.kind == Act::Kind::remove) {
      handle = act.handler
                   ? table.entryRemoveWithResponseHandler(Map::key(act.key), dependency, handler)
                   : table.entryRemove(Map::key(act.key), dependency);
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
                .key = Map::number(typed.key()),
                .number = id,
                .value = typed.logVersion().value()});
    agent_.reactTo(act);
  }

  void update(Table& table, const Act& act) {
    const HandlePtr handle = table.updateEntry(Map::key(act.key));
    if (handle == nullptr) return answer(act, act.key, kNoOp);
    const OpId id = agent_.nextOp();
    agent_.handleIs(id, handle);
    answer(act, act.key, id);
  }

  void direct(unsigned unit, const Act& act) {
    const Asic::LogVersion version = log_->entryIs(
        entryOf<typename F::LogEntry>(act.key, act.value), {},
        Fenrik::ptrIsImpl<Asic::NeededEntry>(), unitId(unit), tables_[unit]->stats(), true);
    answer(act, act.key, version.value());
  }

  void iterBegin(const Table& table, const Act& act) {
    auto& state = iterations_[act.slot];
    state = act.flag ? table.initIterStateFromKey(Map::key(act.key)) : table.initIterState();
    answer(act, Map::number(state->bookmarkKey()), state->state().value());
  }

  void iterStep(const Act& act) {
    const auto found = iterations_.find(act.slot);
    if (found == iterations_.end()) return;
    auto& state = *found->second;
    if (state.state().inAddColl()) agent_.addOrders.push_back(addOrder(*state.swTable()));
    const Entry entry = state.maybeUpdateCurrentEntry();
    answer(act, Map::number(state.bookmarkKey()), state.state().value());
    answer(act, entry);
  }

  static std::vector<Key> addOrder(const Table& table) {
    std::vector<Key> order;
    for (auto it = table.transientAddEntryIterator(); it; ++it) {
      order.push_back(Map::number(it.key()));
    }
    return order;
  }

  void snapshot(const Table& table, const Act& act) const {
    const auto all = table.getTableEntries_py();
    std::map<Key, Entry> sorted;
    for (auto it = all->tableEntriesIterator(); it; ++it) {
      sorted.emplace(Map::number(it.key()), it->value());
    }
    for (const auto& member : sorted) answer(act, member.second);
  }

  void helper(Table& table, const Act& act) {
    if (act.flag) return table.swTableHelperIs(table.swTableHelper());
    table.swTableHelperIs(act.plan.plain
                              ? Fenrik::ptrIsImpl<typename F::SwTableHelperBase>()
                              : Fenrik::Ptr<typename F::SwTableHelperBase>(
                                    Fenrik::ptrIsImpl<Helper>(this, act.table, act.plan)));
  }

  void watch(unsigned unit, bool on) {
    Watch& watch = watches_[unit].table;
    if (watch.subscribed() == on) return;
    if (!on) return watch.unsubscribe();
    watch.attach(*this, unit, tables_[unit]->publisher(), &RealFamily::tableChanged);
  }

  void tableChanged(unsigned unit, const Fenrik::Change& change) {
    Event event{.kind = Event::Kind::changed, .table = numberOf(unit)};
    event.what = static_cast<std::uint8_t>(change.fieldId.number() - Map::kFirstField);
    const bool keyed = event.what == kAdds || event.what == kRemoves || event.what == kVersions;
    if (keyed) {
      event.key = Map::number(*static_cast<const FamilyKey*>(change.key));
      event.gone = change.value == nullptr;
    }
    if (event.what == kHandles) event.key = *static_cast<const std::uint32_t*>(change.value);
    if (event.what == kRemoveAll) {
      event.value = static_cast<const Asic::MajorVersion*>(change.value)->value();
    }
    if (keyed && !event.gone) event.value = valueOf(event.what, change.value);
    agent_.see(event);
  }

  static Version valueOf(unsigned what, const void* node) {
    if (what == kVersions) {
      return static_cast<const typename Table::HN_TransientVersionForKey*>(node)
          ->value()
          .majorVersion()
          .value();
    }
    return what == kAdds ? numbers(static_cast<const typename Table::HN_TransientAddEntry*>(node)
                                       ->value()
                                       ->entry())
                               .second
                         : numbers(static_cast<const typename Table::HN_TransientRemoveEntry*>(node)
                                       ->value()
                                       ->entry())
                               .second;
  }

  void statsChanged(unsigned unit, const Fenrik::Change& change) {
    const unsigned counter = change.fieldId.number() - 130U;
    if (counter >= kCounters) return;  // the time of the last commit
    agent_.see({.kind = Event::Kind::counted,
                .what = static_cast<std::uint8_t>(counter),
                .table = numberOf(unit),
                .number = *static_cast<const unsigned long long*>(change.value)});
  }

  void statusChanged(unsigned, const Fenrik::Change& change) {
    agent_.see({.kind = Event::Kind::flagged,
                .table = number_,
                .number = *static_cast<const bool*>(change.value)});
  }

  /// Calls `see` with each record of a unit's configuration, in the order of its walk.
  template <class See>
  void eachRecord(unsigned unit, See see) const {
    const auto config = log_->tableConfigDrift(unitId(unit));
    each(*config->map(),
         [&](const Record& record) { see(Map::number(record.logEntry.key), record); });
  }
  template <class AMap, class See>
  static void each(const AMap& map, See see) {
    typename AMap::Cursor cursor;
    for (bool more = map.driftMapIterBegin(cursor); more;) {
      const auto record = cursor.record;
      see(record);
      more = map.driftMapIterNext(keyOfRecord(record), cursor);
    }
  }
  static FamilyKey keyOfRecord(const Record& record) { return record.logEntry.key; }
  static Asic::LogVersion keyOfRecord(const typename F::LogDriftEntry& record) {
    return record.version;
  }
  static Asic::LogVersion keyOfRecord(const Asic::NeededEntryRecord& record) {
    return record.sequence;
  }

  class Differences;
  void compareTable(Differences& differ, const Model& model, unsigned unit, Key keys) const;
  void compareFlight(Differences& differ, const Model& model, unsigned unit) const;
  void compareConfig(Differences& differ, const Model& model, unsigned unit) const;
  void compareLog(Differences& differ, const Model& model) const;
  std::map<Version, Needed> needed() const;

  RealAgentBase& agent_;
  unsigned number_;
  Fenrik::Ptr<Asic::GroupInterface> group_;
  Fenrik::Ptr<Log> log_;
  Fenrik::Ptr<Asic::OrderedSwTableStatus> status_;
  Fenrik::Ptr<Asic::OrderedSwTableSet> set_;
  std::vector<Fenrik::Ptr<Table>> tables_;
  std::vector<TableWatches> watches_;
  Watch statusWatch_;
  std::map<unsigned, Fenrik::Ptr<typename F::IteratorState>> iterations_;
};

/// Keeps the first thing that differs.
template <class F>
class RealFamily<F>::Differences {
 public:
  template <class T, class U>
  void operator()(const char* what, const T& expected, const U& seen) {
    if (expected == seen || !text.empty()) return;
    text = fmt::format("{} {}, unit {}: {} is not as expected", F::kTableName, what, unit, what);
    if constexpr (std::is_integral_v<T> && std::is_integral_v<U>) {
      text += fmt::format(": {} instead of {}", seen, expected);
    }
  }

  unsigned unit = 0;
  std::string text;
};

template <class F>
std::string RealFamily<F>::quickDifference(const Model& model) const {
  Differences differ;
  const TableModel::Family& family = model.family(number_);
  differ("tableVersion", family.tableVersion, log_->tableVersion().value());
  differ("tableStatusVersion", family.statusVersion, log_->tableStatusVersion().value());
  const auto& control = *log_->tableEntryLog()->collectionControl();
  differ("scratchpad", family.scratchpad, control.scratchpad());
  differ("announced version", family.scratchpad, control.announced());
  differ("log size", family.log.size(), log_->tableEntryLog()->map()->driftMapSize());
  differ("pendingHwWrites", family.pendingHwWrites, status_->pendingHwWrites());
  differ("queue", model.queue(family.group).size(), group_->groupResolver()->length());
  differ("too many looks at the head", false,
         group_->groupResolver()->looks() > model.looks(family.group));
  for (unsigned unit = 0; unit < tables_.size(); ++unit) {
    if (tables_[unit] == nullptr) continue;
    const Table& table = *tables_[unit];
    const TableModel::Table& expected = model.table(numberOf(unit));
    differ.unit = unit;
    differ("transientAddEntry count", expected.adds.size(), table.transientAddEntryCount());
    differ("transientRemoveEntry count", expected.removes.size(),
           table.transientRemoveEntryCount());
    differ("transientVersionForKey count", expected.versions.size(),
           table.transientVersionForKeyCount());
    differ("transientRemoveAllVersion", expected.removeAll.value_or(UINT64_MAX),
           table.transientRemoveAllVersion().value());
    differ("entryHandleInLog count", expected.handlesInLog.size(), table.entryHandleInLogCount());
    differ("configuration size", family.config[unit].size(),
           log_->tableConfigDrift(unitId(unit))->map()->driftMapSize());
  }
  return differ.text;
}

template <class F>
std::string RealFamily<F>::fullDifference(const Model& model, Key keys) const {
  Differences differ;
  differ.text = quickDifference(model);
  compareLog(differ, model);
  for (unsigned unit = 0; unit < tables_.size(); ++unit) {
    if (tables_[unit] == nullptr) continue;
    differ.unit = unit;
    compareConfig(differ, model, unit);
    compareFlight(differ, model, unit);
    compareTable(differ, model, unit, keys);
  }
  const auto head = group_->groupResolver()->head().waiting;
  const auto& queue = model.queue(model.family(number_).group);
  if (!queue.empty()) {
    const Act& act = queue.front()->act;
    differ.unit = act.table % static_cast<unsigned>(tables_.size());
    differ("head's unit", differ.unit, head.unit);
    differ("head's wait", model.waits(*queue.front()), head.reason.size() != 0);
  }
  return differ.text;
}

template <class F>
void RealFamily<F>::compareTable(Differences& differ, const Model& model, unsigned unit,
                                 Key keys) const {
  const Table& table = *tables_[unit];
  const unsigned number = numberOf(unit);
  const auto& stats = *table.stats();
  const std::array<Version, kCounters> counters{
      stats.entryWriteCnt(),  stats.entryRemoveCnt(),     stats.commitCnt(),
      stats.tableClearCnt(),  stats.updateCnt(),          stats.updateWithFailedResourceCnt(),
      stats.resolveFailCnt(), stats.suppressedWriteCnt(), stats.suppressCheckDiffCnt()};
  differ("stats", model.table(number).counters, counters);
  differ("hasPendingHwWrites", model.hasPendingHwWrites(number), table.hasPendingHwWrites());
  const auto& config = model.family(number_).config[unit];
  for (Key key = 0; key < keys; ++key) {
    const FamilyKey familyKey = Map::key(key);
    const auto found = config.find(key);
    differ("entryHas", model.entryHas(number, key), table.entryHas(familyKey));
    differ("entryRead", model.entryRead(number, key), numbers(table.entryRead(familyKey)));
    differ("entryFromConfig", model.entryFromConfig(number, key),
           numbers(table.entryFromConfig(familyKey)));
    differ("entry of the log", model.entryFromConfig(number, key),
           numbers(log_->entry(familyKey, unitId(unit))));
    differ("entryHas of the log", model.configHas(number, key),
           log_->entryHas(familyKey, unitId(unit)));
    differ("entryLogVersion", found != config.end() ? found->second.logVersion : 0,
           log_->entryLogVersion(familyKey, unitId(unit)).value());
  }
}

template <class F>
std::string RealFamily<F>::walkedDifference(const Model& model) const {
  Differences differ;
  for (unsigned unit = 0; unit < tables_.size(); ++unit) {
    if (tables_[unit] == nullptr) continue;
    differ.unit = unit;
    const unsigned number = numberOf(unit);
    const Table& table = *tables_[unit];
    differ("entrys", model.entrys(number), table.entrys());
    differ("entrys of the log", model.configEntrys(number), log_->entrys(unitId(unit)));
    differ("entrysInDeletion",
           model.family(number_).config[unit].size() - model.configEntrys(number),
           log_->entrysInDeletion(unitId(unit)));
    std::map<Key, Value> walked;
    for (auto it = table.entryIteratorConst(); it; ++it) walked.insert(numbers(*it));
    differ("what a walk shows", model.contents(number), walked);
  }
  return differ.text;
}

template <class F>
void RealFamily<F>::compareFlight(Differences& differ, const Model& model, unsigned unit) const {
  const Table& table = *tables_[unit];
  const TableModel::Table& expected = model.table(numberOf(unit));
  using Member = std::tuple<Key, Value, Version>;
  const auto expect = [&](const std::map<Key, OpPtr>& members) {
    std::vector<Member> all;
    for (const auto& [key, op] : members) all.emplace_back(key, op->value, op->major);
    return all;
  };
  const auto look = [&](auto it) {
    std::vector<Member> all;
    for (; it; ++it) {
      const auto& wrapper = *it->value();
      const auto [key, value] = numbers(wrapper.entry());
      all.emplace_back(key, value, wrapper.entryHandle()->version().majorVersion().value());
    }
    std::sort(all.begin(), all.end());
    return all;
  };
  differ("transientAddEntry", expect(expected.adds), look(table.transientAddEntryIterator()));
  differ("transientRemoveEntry", expect(expected.removes),
         look(table.transientRemoveEntryIterator()));
  std::map<Key, Version> versions;
  for (auto it = table.transientVersionForKeyIterator(); it; ++it) {
    versions[Map::number(it.key())] = it->value().majorVersion().value();
    differ("minor version", 0, it->value().minorVersion());
  }
  differ("transientVersionForKey", expected.versions, versions);
  std::vector<Version> expectedHandles, handles;
  for (const OpPtr& op : expected.handlesInLog) expectedHandles.push_back(op->logVersion);
  for (auto it = table.entryHandleInLogIter(); it.valid(); it.increment()) {
    handles.push_back(it.value()->logVersion().value());
  }
  differ("entryHandleInLog", expectedHandles, handles);
  differ("newest index of entryHandleInLog", !handles.empty(),
         table.entryHandleInLogHas(expected.nextIndex - 1));
}

template <class F>
void RealFamily<F>::compareConfig(Differences& differ, const Model& model, unsigned unit) const {
  using Member = std::tuple<Key, Value, Version, bool>;
  std::vector<Member> expected, seen;
  for (const auto& [key, record] : model.family(number_).config[unit]) {
    expected.emplace_back(key, record.value, record.logVersion, record.isDeleted);
  }
  eachRecord(unit, [&](Key key, const Record& record) {
    seen.emplace_back(key, numbers(record.logEntry).second, record.logVersion.value(),
                      record.isDeleted);
  });
  std::sort(seen.begin(), seen.end());
  differ("configuration", expected, seen);
}

template <class F>
void RealFamily<F>::compareLog(Differences& differ, const Model& model) const {
  using Member = std::tuple<Version, unsigned, unsigned, Key, Value>;
  const TableModel::Family& family = model.family(number_);
  std::vector<Member> expected, seen;
  for (const auto& [version, record] : family.log) {
    expected.emplace_back(version, static_cast<unsigned>(record.flags), record.unit, record.key,
                          record.value);
  }
  each(*log_->tableEntryLog()->map(), [&](const typename F::LogDriftEntry& record) {
    const auto [key, value] = numbers(record.logEntry);
    seen.emplace_back(record.version.value(), record.flags.value(), record.unitId.value(), key,
                      value);
  });
  std::sort(seen.begin(), seen.end());
  differ("log", expected, seen);
  differ("needed sets", family.needed, needed());
}

template <class F>
std::map<Version, Needed> RealFamily<F>::needed() const {
  const auto sets = Fenrik::dynamicPtrCast<Asic::NeededEntryDrift>(agent_.memory->getEntity(
      Asic::Constants::neededPathOfEntryLogPath(F::Constants::tableEntryLogDriftPath())));
  std::map<Version, Needed> all;
  each(*sets->map(), [&](const Asic::NeededEntryRecord& record) {
    for (std::uint32_t i = 0; i < record.count; ++i) {
      const Asic::TableVersion& version = record.needed[i];
      all[record.version.value()][familyOfTableId(version.tableId().value())] =
          version.logVersion().value();
    }
  });
  return all;
}

}  // namespace TableModel
