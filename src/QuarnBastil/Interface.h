#pragma once

#include <optional>

#include "Blipline/RingTrace.h"
#include "Fenrik/Assert.h"
#include "Fenrik/Format.h"
#include "Kiv/Sassert.h"
#include "Kiv/Trace.h"
#include "OrderedTable/Constants.h"
#include "OrderedTable/OrderedTableInterface.h"
#include "OrderedTable/SwTableInterfacesSingleton.h"
#include "QuarnBastil/FamilyTraits.h"

template <>
struct Blipline::Field<Asic::UnitId> : Blipline::Field<std::uint16_t> {
  static std::uint16_t number(Asic::UnitId unitId) noexcept { return unitId.value(); }
};

namespace QuarnBastil {

/// The front door of a table family: what exists once for its table id, and the way to the tables
/// of the units. One object in a process; `getIntf` gives it.
///
/// Threads: the table thread.
///
/// I1. An interface that is found in the registry has its log, its status and its set.
template <class Family>
class QUARNBASTIL_EXPORT Interface
    : public Fenrik::NodeClass<typename Family::Interface, Asic::TableInterfaceBase> {
 public:
  using SwTable = typename Family::SwTable;
  using Helper = typename Family::SwTableHelperBase;
  using Log = typename Family::EntryLog;
  using Self = typename Family::Interface;
  using KivModule = typename Family::InterfaceModule;
  using Base = Fenrik::NodeClass<typename Family::Interface, Asic::TableInterfaceBase>;

  static constexpr std::uint16_t kFieldBase = 128;

  /// Brings the family up, short of its tables; a second interface of the family ends the process.
  explicit Interface(const Fenrik::Ptr<Asic::OrderedTableInterface>& ordTblIntf)
      : Base(ordTblIntf) {
    handleInitialized();
  }
  ~Interface() override {
    onDelete();
    entryLogDel();
    swTableStatusDel();
    releaseTables(swTableSetDel());
  }

  FENRIK_POINTER(kFieldBase + 7, entryLog, Log);
  FENRIK_POINTER(kFieldBase + 8, swTableStatus, Asic::OrderedSwTableStatus);
  FENRIK_POINTER(kFieldBase + 9, swTableSet, Asic::OrderedSwTableSet);
  FENRIK_FUNCTION(kFieldBase + 10, makeSwTable);
  FENRIK_FUNCTION(kFieldBase + 11, getIntf);
  FENRIK_FUNCTION(kFieldBase + 12, handleInitialized);
  FENRIK_FUNCTION(kFieldBase + 13, onDelete);

 public:
  Fenrik::String tableName() const { return Family::kTableName; }
  static constexpr Asic::SwTableId tableId() noexcept { return Family::kTableId; }
  Fenrik::String groupName() const { return Family::kGroupName; }
  Fenrik::String agentName() const { return Family::kAgentName; }
  Fenrik::String tableNamespace() const { return Family::kTableNamespace; }

  /// The one interface of the process. The first call makes it, over `orderedTableIntf`; later ones
  /// do not look at that.
  static Fenrik::Ptr<Self> getIntf(
      const Fenrik::Ptr<Asic::OrderedTableInterface>& orderedTableIntf) {
    const auto singleton = Asic::SwTableInterfacesSingleton::instance();
    const Fenrik::String key = registryKey();
    if (!singleton->swTableIntfHas(key)) return Fenrik::ptrIsImpl<Self>(orderedTableIntf);
    return Fenrik::dynamicPtrCast<Self>(singleton->swTableIntf(key));
  }

  void handleInitialized() {
    const auto singleton = Asic::SwTableInterfacesSingleton::instance();
    const Fenrik::String key = registryKey();
    if (singleton->swTableIntfHas(key)) failSecond();
    this->ordTblIntf()->makeGroupIntf(agentName(), groupName(), tableId().agentAndGroupId());
    const auto groupIntf = group();
    FENRIK_ASSERT_TEXT(groupIntf != nullptr, "groupIntf");
    KIV_TRACE(trace(), 3, kName, " Creating entry log for {}", tableId());
    entryLogIs(tableId(), this->ordTblIntf()->entityManager(), groupIntf, agentName());
    swTableStatusIs(tableId());
    const auto acknowledged = groupIntf->tableVersionMap()->find(tableId());
    if (acknowledged.found) cleanTo(acknowledged.record.logVersion);
    KIV_TRACE(trace(), 2, kName, " Entry log created for table id: {} at version: {}", tableId(),
              entryLog()->tableVersion());
    swTableSetIs(tableId(), swTableStatus());
    groupIntf->swTableSetIs(swTableSet());
    this->ordTblIntf()->swTableIntfIs(key, this);
    singleton->swTableIntfIs(key, Fenrik::Ptr<Asic::TableInterfaceBase>(this));
  }

  /// The table of a unit, made at the first call over what an earlier agent left, or emptied with
  /// `reset`. A helper that is not null is installed; for a table that is there already, too.
  Fenrik::Ptr<SwTable> makeSwTable(Asic::UnitId unitId, const Fenrik::Ptr<Helper>& swTableHelper,
                                   bool reset) {
    KIV_TRACE(trace(), 8, kName, " unitId: {}", unitId);
    const auto groupIntf = group();
    FENRIK_ASSERT_TEXT(groupIntf != nullptr, "groupIntf");
    FENRIK_ASSERT_TEXT(groupIntf->swTableSetHas(tableId()),
                       "groupIntf->swTableSetHas( tableId() )");
    if (swTableSet()->swTableHas(unitId)) return existingTable(unitId, swTableHelper, reset);
    const Asic::LogVersion acknowledged =
        groupIntf->tableVersionMap()->find(tableId()).record.logVersion;
    entryLog()->mountDriftConfig(unitId, acknowledged);
    const auto name = Fenrik::ptrIsImpl<Asic::CanonicalTableName>(
        Asic::OrderedTableType::orderedTable, groupName(), tableNamespace(),
        Fenrik::String(Family::kTableName));
    auto table = Fenrik::ptrIsImpl<SwTable>(name, tableId(), unitId, swTableSet().get(), entryLog(),
                                            groupIntf->groupResolver());
    if (swTableHelper != nullptr) table->swTableHelperIs(swTableHelper);
    table->statusIs(swTableStatus());
    Family::ResourceHooks::tableMade(*this, *table);
    if (reset) {
      tellCleared(unitId);
      table->clearTable(false);
    } else {
      table->restoreEntries();
      tellRestored(*table);
    }
    swTableSet()->swTableIs(table);
    table->tableStatusVersion(acknowledged);
    return table;
  }

  /// To be called once all tables are made. A unit for which there is a configuration and no table
  /// gets one that is emptied through the log, so that the hardware writer empties it too.
  void reconcile() override {
    KIV_TRACE(trace(), 8, kName, "");
    const auto& state = *this->ordTblIntf()->entityManager();
    const auto memory = KivSharedMem::EntityManager::getEntityManager(state.name(), state.local());
    const Fenrik::String base = Asic::Constants::canonicalGroupTableConfigDriftPathBase(
        canonicalGroupName(), tableNamespace(), Fenrik::String(Family::kTableName));
    const auto found = memory->findEntities(base, KivSharedMem::KivSharedMemType::stored);
    KIV_TRACE(trace(), 3, kName, " No. of config entities found: {}, in drift path: {}",
              found->entityCount(), base);
    for (const auto& node : found->paths()) {
      const auto unit = unitOf(node.value());
      if (!unit || swTableSet()->swTableHas(*unit)) continue;
      KIV_TRACE(trace(), 3, kName, " Found inactive unit id: {} ", *unit);
      makeSwTable(*unit, nullptr, true);
    }
  }

  void onDelete() {
    KIV_TRACE(trace(), 2, kName, " onDelete ");
    this->ordTblIntf()->swTableIntfDel(registryKey());
  }

  /// The object that is there, if it was made with these arguments; otherwise a new one in its
  /// place.
  const Fenrik::Ptr<Log>& entryLogIs(Asic::SwTableId tableId,
                                     const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
                                     const Fenrik::Ptr<Asic::GroupInterface>& groupInterface,
                                     const Fenrik::String& agentName) {
    const auto& log = entryLog();
    const bool same = log != nullptr && log->tableId() == tableId &&
                      log->entityManager() == entityManager &&
                      log->groupInterface() == groupInterface && log->agentName() == agentName;
    if (!same) {
      entryLogIs(Fenrik::ptrIsImpl<Log>(tableId, entityManager, groupInterface, agentName));
    }
    return entryLog();
  }
  const Fenrik::Ptr<Asic::OrderedSwTableStatus>& swTableStatusIs(Asic::SwTableId tableId) {
    const auto& status = swTableStatus();
    if (status == nullptr || status->tableId() != tableId) {
      swTableStatusIs(Fenrik::ptrIsImpl<Asic::OrderedSwTableStatus>(tableId));
    }
    return swTableStatus();
  }
  const Fenrik::Ptr<Asic::OrderedSwTableSet>& swTableSetIs(
      Asic::SwTableId tableId, const Fenrik::Ptr<Asic::OrderedSwTableStatus>& status) {
    const auto& set = swTableSet();
    if (set == nullptr || set->tableId() != tableId || set->status() != status) {
      swTableSetIs(Fenrik::ptrIsImpl<Asic::OrderedSwTableSet>(tableId, status));
    }
    return swTableSet();
  }

  /// Empties the attribute and returns what it held.
  Fenrik::Ptr<Log> entryLogDel() {
    return deleted(entryLog(), [this] { entryLogIs(nullptr); });
  }
  Fenrik::Ptr<Asic::OrderedSwTableStatus> swTableStatusDel() {
    return deleted(swTableStatus(),
                   [this] { swTableStatusIs(Fenrik::Ptr<Asic::OrderedSwTableStatus>()); });
  }
  Fenrik::Ptr<Asic::OrderedSwTableSet> swTableSetDel() {
    return deleted(swTableSet(), [this] { swTableSetIs(nullptr); });
  }

  /// The name under which the interface is registered.
  static Fenrik::String registryKey() { return Fenrik::formatString("QuarnBastil::{}", kName); }

 private:
  static constexpr const char* kName = className<Self>();

  struct RestoredText {
    static constexpr std::array<std::string_view, 3> parts() {
      return {" Restored {} entries for table: ", Family::kTableName, ", unitId: {}"};
    }
  };
  struct ClearingText {
    static constexpr std::array<std::string_view, 3> parts() {
      return {" Clearing entries for table: ", Family::kTableName, ", unitId: {}"};
    }
  };

  KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& trace() {
    return FamilyTraces<Family>::interface();
  }

  template <class T, class Empty>
  static Fenrik::Ptr<T> deleted(Fenrik::Ptr<T> former, Empty empty) {
    empty();
    return former;
  }

  Fenrik::String canonicalGroupName() const {
    return Asic::Constants::canonicalizeGroupName(agentName(), groupName());
  }
  Fenrik::Ptr<Asic::GroupInterface> group() const {
    return this->ordTblIntf()->groupIntf(canonicalGroupName());
  }

  /// Group, set, table and log hold one another. Where no client holds a table any more, the group
  /// lets go of them; otherwise they go on together.
  void releaseTables(const Fenrik::Ptr<Asic::OrderedSwTableSet>& set) {
    const auto groupIntf = group();
    if (set == nullptr || groupIntf == nullptr || groupIntf->swTableSet(tableId()) != set) return;
    for (const auto& node : set->swTables()) {
      if (node.value()->useCount() != 1) return;
    }
    groupIntf->swTableSetDel(tableId());
    set->swTableDelAll();
  }

  /// Nothing for a file that somebody left beside the configurations.
  static std::optional<Asic::UnitId> unitOf(const Fenrik::String& path) {
    try {
      return Asic::Constants::getUnitIdFromConfigPath(path);
    } catch (const Fenrik::Exception&) {
      return {};
    }
  }

  [[noreturn]] static void failSecond() {
    const Fenrik::String condition =
        Fenrik::formatString("!singleton->swTableIntfHas( \"{}\" )", registryKey());
    { Kiv::SassertHelper(condition.data()) << "Interface already created"; }
    // The place that a reader looks for is the family's, not the template's.
    const Fenrik::String function =
        Fenrik::formatString("void {}::handleInitialized()", registryKey());
    Kiv::Impl::sassertFail(condition.data(), kName, __LINE__, function.data());
  }

  /// The log up to a version that the hardware acknowledged to an earlier agent. No configuration
  /// is mounted yet: what was removed up to there goes when the units' are.
  void cleanTo(Asic::LogVersion acknowledged) {
    entryLog()->cleanupEntryLog(acknowledged);
    KIV_TRACE_AS("handleInitialized", trace(), 3, kName,
                 " Cleaned entry log until table version: {}", acknowledged);
    if (acknowledged < entryLog()->tableVersion()) {
      KIV_TRACE_AS("handleInitialized", trace(), 2, kName, " Turning ON pendingHwWrites");
      swTableStatus()->pendingHwWritesIs(true);
    }
  }

  Fenrik::Ptr<SwTable> existingTable(Asic::UnitId unitId, const Fenrik::Ptr<Helper>& swTableHelper,
                                     bool reset) {
    constexpr const char* kFunction = "makeSwTable";
    KIV_TRACE_AS(kFunction, trace(), 3, kName, "swTable with unitId: {} exists", unitId);
    auto existingTbl = Fenrik::dynamicPtrCast<SwTable>(swTableSet()->swTable(unitId));
    FENRIK_ASSERT_TEXT(existingTbl != nullptr, "existingTbl");
    if (swTableHelper != nullptr) {
      KIV_TRACE_AS(kFunction, trace(), 2, kName, "Update software table helper");
      existingTbl->swTableHelperIs(swTableHelper);
    }
    if (reset) {
      KIV_TRACE_AS(kFunction, trace(), 2, kName, " Clearing entries for table id: {}", tableId());
      existingTbl->clearTable(false);
    }
    return existingTbl;
  }

  /// To count the entries means to walk them all: only where somebody is told.
  void tellRestored(const SwTable& table) {
    const bool told = trace().levelEnabled(2) || FamilyTraces<Family>::entryLog().levelEnabled(8) ||
                      Blipline::defaultBliplineHandle.load() != nullptr;
    if (!told) return;
    const std::uint32_t count = table.entrys();
    ringTrace<RestoredText>(static_cast<int>(count), table.unitId());
    KIV_TRACE_AS("makeSwTable", trace(), 2, kName, " Restored {} entries for table: {}, unitId: {}",
                 count, Family::kTableName, table.unitId());
  }
  void tellCleared(Asic::UnitId unitId) {
    ringTrace<ClearingText>(unitId);
    KIV_TRACE_AS("makeSwTable", trace(), 2, kName, " Clearing entries for table: {}, unitId: {}",
                 Family::kTableName, unitId);
  }

  /// One description in a file for each text.
  template <class Text, class... Numbers>
  static void ringTrace(const Numbers&... numbers) {
    constexpr const char* kFunction = "makeSwTable";
    Blipline::TraceFile* const file = Blipline::Impl::siteFile();
    if (file == nullptr) return;
    static constinit Blipline::MsgId msgId = 0;
    Blipline::Impl::siteRecord(file, &msgId, __FILE__, __LINE__, kName, kFunction,
                               kJoined<Text>.data(), numbers...);
  }
};

}  // namespace QuarnBastil
