#include "OrderedTable/InterfaceCore.h"

#include "Blipline/RingTrace.h"
#include "Fenrik/Assert.h"
#include "Kiv/Sassert.h"
#include "Kiv/Trace.h"
#include "OrderedTable/Catalogue.h"
#include "OrderedTable/Constants.h"
#include "OrderedTable/EntryLogCore.h"
#include "OrderedTable/MountDrift.h"
#include "OrderedTable/ResourceHooks.h"
#include "OrderedTable/SwTableInterfacesSingleton.h"
#include "OrderedTable/TableCore.h"

template <>
struct Blipline::Field<Asic::UnitId> : Blipline::Field<std::uint16_t> {
  static std::uint16_t number(Asic::UnitId unitId) noexcept { return unitId.value(); }
};

namespace Asic {

namespace {

constexpr const char* kMakeSwTable = "makeSwTable";

/// Writes one of the family's messages to the ring trace.
template <class... Numbers>
void ringTrace(const char* className, Blipline::MsgId& msgId, const Fenrik::String& text,
               const Numbers&... numbers) {
  Blipline::TraceFile* const file = Blipline::Impl::siteFile();
  if (file == nullptr) return;
  Blipline::Impl::siteRecord(file, &msgId, __FILE__, __LINE__, className, kMakeSwTable, text.data(),
                             numbers...);
}

}  // namespace

InterfaceCore::InterfaceCore(const TableDescriptor& descriptor, RingMessages& ringMessages,
                             const Fenrik::Ptr<OrderedTableInterface>& ordTblIntf)
    : TableInterfaceBase(ordTblIntf), descriptor_(descriptor), ringMessages_(ringMessages) {}

InterfaceCore::~InterfaceCore() {
  onDelete();
  entryLogIs(nullptr);
  swTableStatusIs(nullptr);
  const Fenrik::Ptr<OrderedSwTableSet> set = set_;
  swTableSetIs(nullptr);
  releaseTables(set);
}

Fenrik::Ptr<TableInterfaceBase> InterfaceCore::registered(const TableDescriptor& descriptor) {
  return SwTableInterfacesSingleton::instance()->swTableIntf(
      Fenrik::String(descriptor.names.registryKey));
}

void InterfaceCore::handleInitialized() {
  const auto singleton = SwTableInterfacesSingleton::instance();
  const Fenrik::String key = registeredAs();
  if (singleton->swTableIntfHas(key)) failSecond();
  const SwTableId tableId = descriptor_.tableId;
  ordTblIntf()->makeGroupIntf(agentName(), Fenrik::String(descriptor_.groupName),
                              tableId.agentAndGroupId());
  const auto groupIntf = group();
  FENRIK_ASSERT_TEXT(groupIntf != nullptr, "groupIntf");
  KIV_TRACE(trace(), 3, name(), " Creating entry log for {}", tableId);
  const bool adopted = adoptLiving(groupIntf);
  describeFamily();
  entryLogIs(tableId, ordTblIntf()->entityManager(), groupIntf, agentName());
  swTableStatusIs(tableId);
  const auto acknowledged = groupIntf->tableVersionMap()->find(tableId);
  if (acknowledged.found && !adopted) cleanTo(acknowledged.record.logVersion);
  KIV_TRACE(trace(), 2, name(), " Entry log created for table id: {} at version: {}", tableId,
            entryLog_->tableVersion());
  swTableSetIs(tableId, status_);
  groupIntf->swTableSetIs(set_);
  ordTblIntf()->swTableIntfIs(key, this);
  singleton->swTableIntfIs(key, Fenrik::Ptr<TableInterfaceBase>(this));
}

/// Called before the log is created, so that any process that finds the log can decode it. Without
/// a catalogue the agent still works.
void InterfaceCore::describeFamily() {
  try {
    describe(*ordTblIntf()->entityManager(), descriptor_);
  } catch (const Fenrik::Exception& e) {
    KIV_TRACE(trace(), 1, name(), " Other processes cannot read the table: {}", e.msg());
  }
}

/// Reuses the log of tables that clients still hold from an earlier interface of the family: a
/// second log over the same collections would issue the same versions again.
bool InterfaceCore::adoptLiving(const Fenrik::Ptr<GroupInterface>& groupIntf) {
  const auto set = groupIntf->swTableSet(descriptor_.tableId);
  if (set == nullptr || set->swTableCount() == 0) return false;
  const auto table = set->swTableIterator()->value();
  if (table->core() == nullptr) return false;
  entryLogIs(table->core()->entryLog());
  swTableStatusIs(set->status());
  swTableSetIs(set);
  return true;
}

Fenrik::Ptr<OrderedSwTable> InterfaceCore::makeSwTable(UnitId unitId,
                                                       Fenrik::Ptr<Fenrik::Node> swTableHelper,
                                                       bool reset) {
  KIV_TRACE(trace(), 8, name(), " unitId: {}", unitId);
  const SwTableId tableId = descriptor_.tableId;
  const auto groupIntf = group();
  FENRIK_ASSERT_TEXT(groupIntf != nullptr, "groupIntf");
  FENRIK_ASSERT_TEXT(groupIntf->swTableSetHas(tableId), "groupIntf->swTableSetHas( tableId() )");
  if (set_->swTableHas(unitId)) return existingTable(unitId, std::move(swTableHelper), reset);
  const LogVersion acknowledged = groupIntf->tableVersionMap()->find(tableId).record.logVersion;
  entryLog_->mountDriftConfig(unitId, acknowledged);
  const auto canonical = Fenrik::ptrIsImpl<CanonicalTableName>(
      OrderedTableType::orderedTable, Fenrik::String(descriptor_.groupName),
      Fenrik::String(descriptor_.tableNamespace), Fenrik::String(descriptor_.tableName));
  auto table =
      descriptor_.make.table(canonical, unitId, set_.get(), entryLog_, groupIntf->groupResolver());
  if (swTableHelper != nullptr) table->core()->swTableHelperIs(std::move(swTableHelper));
  table->statusIs(status_);
  if (descriptor_.resources != nullptr) descriptor_.resources->tableMade(*ordTblIntf(), *table);
  if (reset) {
    tellCleared(unitId);
    table->core()->clearTable(false);
  } else {
    table->core()->restoreEntries();
    tellRestored(*table);
  }
  set_->swTableIs(table);
  table->tableStatusVersion(acknowledged);
  return table;
}

Fenrik::Ptr<OrderedSwTable> InterfaceCore::existingTable(UnitId unit,
                                                         Fenrik::Ptr<Fenrik::Node> swTableHelper,
                                                         bool reset) {
  KIV_TRACE_AS(kMakeSwTable, trace(), 3, name(), "swTable with unitId: {} exists", unit);
  auto existingTbl = set_->swTable(unit);
  FENRIK_ASSERT_TEXT(existingTbl != nullptr && existingTbl->core() != nullptr, "existingTbl");
  if (swTableHelper != nullptr) {
    KIV_TRACE_AS(kMakeSwTable, trace(), 2, name(), "Update software table helper");
    existingTbl->core()->swTableHelperIs(std::move(swTableHelper));
  }
  if (reset) {
    KIV_TRACE_AS(kMakeSwTable, trace(), 2, name(), " Clearing entries for table id: {}",
                 descriptor_.tableId);
    existingTbl->core()->clearTable(false);
  }
  return existingTbl;
}

void InterfaceCore::reconcile() {
  KIV_TRACE(trace(), 8, name(), "");
  const auto& state = *ordTblIntf()->entityManager();
  const auto memory = KivSharedMem::EntityManager::getEntityManager(state.name(), state.local());
  const Fenrik::String base = Constants::canonicalGroupTableConfigDriftPathBase(
      canonicalGroupName(), Fenrik::String(descriptor_.tableNamespace),
      Fenrik::String(descriptor_.tableName));
  const auto found = memory->findEntities(base, KivSharedMem::KivSharedMemType::stored);
  KIV_TRACE(trace(), 3, name(), " No. of config entities found: {}, in drift path: {}",
            found->entityCount(), base);
  for (const auto& node : found->paths()) {
    const auto unit = Constants::findUnitIdOfConfigPath(node.value());
    if (!unit || set_->swTableHas(*unit)) continue;
    KIV_TRACE(trace(), 3, name(), " Found inactive unit id: {} ", *unit);
    makeSwTable(*unit, nullptr, true);
  }
}

void InterfaceCore::onDelete() {
  KIV_TRACE(trace(), 2, name(), " onDelete ");
  ordTblIntf()->swTableIntfDel(registeredAs());
}

const Fenrik::Ptr<EntryLogCore>& InterfaceCore::entryLogIs(
    SwTableId tableId, const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
    const Fenrik::Ptr<GroupInterface>& groupInterface, const Fenrik::String& agentName) {
  const bool same = entryLog_ != nullptr && entryLog_->tableId() == tableId &&
                    entryLog_->entityManager() == entityManager &&
                    entryLog_->groupInterface() == groupInterface &&
                    entryLog_->agentName() == agentName;
  if (!same) entryLogIs(descriptor_.make.log(tableId, entityManager, groupInterface, agentName));
  return entryLog_;
}

const Fenrik::Ptr<OrderedSwTableStatus>& InterfaceCore::swTableStatusIs(SwTableId tableId) {
  if (status_ == nullptr || status_->tableId() != tableId) {
    swTableStatusIs(Fenrik::ptrIsImpl<OrderedSwTableStatus>(tableId));
  }
  return status_;
}

const Fenrik::Ptr<OrderedSwTableSet>& InterfaceCore::swTableSetIs(
    SwTableId tableId, const Fenrik::Ptr<OrderedSwTableStatus>& status) {
  if (set_ == nullptr || set_->tableId() != tableId || set_->status() != status) {
    swTableSetIs(Fenrik::ptrIsImpl<OrderedSwTableSet>(tableId, status));
  }
  return set_;
}

void InterfaceCore::entryLogIs(Fenrik::Ptr<EntryLogCore> log) {
  Fenrik::Impl::attributePointerIs(*this, publisher_, Fenrik::FieldId(kFieldBase + 7), entryLog_,
                                   std::move(log));
}

void InterfaceCore::swTableStatusIs(Fenrik::Ptr<OrderedSwTableStatus> status) {
  Fenrik::Impl::attributePointerIs(*this, publisher_, Fenrik::FieldId(kFieldBase + 8), status_,
                                   std::move(status));
}

void InterfaceCore::swTableSetIs(Fenrik::Ptr<OrderedSwTableSet> set) {
  Fenrik::Impl::attributePointerIs(*this, publisher_, Fenrik::FieldId(kFieldBase + 9), set_,
                                   std::move(set));
}

Fenrik::String InterfaceCore::canonicalGroupName() const {
  return Constants::canonicalizeGroupName(agentName(), Fenrik::String(descriptor_.groupName));
}

Fenrik::Ptr<GroupInterface> InterfaceCore::group() const {
  return ordTblIntf()->groupIntf(canonicalGroupName());
}

/// Group, set, table and log hold references to one another. If no client holds a table any more,
/// removes them from the group; otherwise leaves them in place.
void InterfaceCore::releaseTables(const Fenrik::Ptr<OrderedSwTableSet>& set) {
  const auto groupIntf = group();
  const SwTableId tableId = descriptor_.tableId;
  if (set == nullptr || groupIntf == nullptr || groupIntf->swTableSet(tableId) != set) return;
  for (const auto& node : set->swTables()) {
    if (node.value()->useCount() != 1) return;
  }
  groupIntf->swTableSetDel(tableId);
  set->swTableDelAll();
}

void InterfaceCore::failSecond() const {
  const Fenrik::String condition =
      Fenrik::formatString("!singleton->swTableIntfHas( \"{}\" )", registeredAs());
  { Kiv::SassertHelper(condition.data()) << "Interface already created"; }
  // The failure is attributed to the family's function, where a reader will look for it.
  const Fenrik::String function =
      Fenrik::formatString("void {}::handleInitialized()", registeredAs());
  Kiv::Impl::sassertFail(condition.data(), name(), __LINE__, function.data());
}

/// Cleans the log up to a version that the hardware acknowledged to an earlier agent.
/// Configurations are not mounted yet; mounting a unit drops its acknowledged removals.
void InterfaceCore::cleanTo(LogVersion acknowledged) {
  constexpr const char* kFunction = "handleInitialized";
  entryLog_->cleanupEntryLog(acknowledged);
  KIV_TRACE_AS(kFunction, trace(), 3, name(), " Cleaned entry log until table version: {}",
               acknowledged);
  if (acknowledged < entryLog_->tableVersion()) {
    KIV_TRACE_AS(kFunction, trace(), 2, name(), " Turning ON pendingHwWrites");
    status_->pendingHwWritesIs(true);
  }
}

/// Counting the entries walks them all, so it is done only if the result will be traced.
void InterfaceCore::tellRestored(const OrderedSwTable& table) {
  const bool told = trace().levelEnabled(2) || descriptor_.traces.log.levelEnabled(8) ||
                    Blipline::defaultBliplineHandle.load() != nullptr;
  if (!told) return;
  const std::uint32_t count = table.core()->entrys();
  const char* const tableName = descriptor_.tableName;
  ringTrace(name(), ringMessages_.restored,
            Fenrik::formatString(" Restored {{}} entries for table: {}, unitId: {{}}", tableName),
            static_cast<int>(count), table.unitId());
  KIV_TRACE_AS(kMakeSwTable, trace(), 2, name(), " Restored {} entries for table: {}, unitId: {}",
               count, tableName, table.unitId());
}

void InterfaceCore::tellCleared(UnitId unit) {
  const char* const tableName = descriptor_.tableName;
  ringTrace(name(), ringMessages_.clearing,
            Fenrik::formatString(" Clearing entries for table: {}, unitId: {{}}", tableName), unit);
  KIV_TRACE_AS(kMakeSwTable, trace(), 2, name(), " Clearing entries for table: {}, unitId: {}",
               tableName, unit);
}

}  // namespace Asic
