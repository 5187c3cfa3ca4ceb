#include "QuarnL3NiLib/ReqIdToFecResourceTableResourceTable.h"

#include "Fenrik/Assert.h"
#include "Fenrik/Format.h"
#include "Fenrik/TypeData.h"
#include "Kiv/Log.h"
#include "OrderedTable/MountDrift.h"
#include "OrderedTable/TableAnnouncer.h"
#include "OrderedTable/TableModules.h"
#include "QuarnL3NiLib/ReqIdToFecResourceDrift.h"

KIV_MODULE(QuarnL3NiLib::ReqIdToFecResourceTableModule);

namespace QuarnL3NiLib {

KIV_LOG_DESCRIPTOR(kResourcesLost, "HW_ABSTRACTION_ERROR", "Resources have been lost: %s",
                   "The shared memory with the destinations of request ids was unusable and has "
                   "been replaced. Rows keep their destinations until they are given again",
                   Kiv::kLogNoAction, Kiv::kLogSeverityError);

namespace {

using Table = ReqIdToFecResourceTableResourceTable;

/// The agent that is asked to relaunch when the collection was lost.
constexpr const char* kAgentName = "QuarnBastil";

const Kiv::TraceHandle& traceHandle() {
  static constinit const Kiv::TraceHandle handle(Kiv::kConstantHandle,
                                                 "ReqIdToFecResourceTableResourceTable");
  return handle;
}

Fenrik::Ptr<ReqIdToFecResourceDrift> mounted(
    const Fenrik::Ptr<Stavro::EntityManager>& entityManager) {
  static Kiv::LogHandle lost(&kResourcesLost, Fenrik::Duration(), 1.0, 0, 0);
  auto drift = Asic::checkAndwriteMountDrift<ReqIdToFecResourceDrift>(
      entityManager, Fenrik::String(ReqIdToFecResourceDrift::kEntityName),
      ReqIdToFecResourceDrift::kPath, kAgentName,
      [](KivDrift::MountInfo& info) {
        info.collectionInfoIs({Fenrik::String(ReqIdToFecResourceDrift::kAttributeName),
                               ReqIdToFecResourceDrift::kCapacity, 0});
      },
      [](Fenrik::Ptr<ReqIdToFecResourceDrift>& made) {
        FENRIK_ASSERT(made != nullptr);
        return made->collectionControl();
      },
      [] {
        Kiv::log(lost, Fenrik::formatString("{}::{}", ReqIdToFecResourceDrift::kAttributeName,
                                            Table::kTableName));
      });
  return drift;
}

OvmResourceTable::ResourceRecord untyped(const ReqIdToFecResourceRecord& record) {
  return {record.requestId.value(), record.destId, record.state, record.updateNumber};
}

/// Records that the table itself never stores.
bool foreign(const ReqIdToFecResourceRecord& record) {
  using enum Asic::EntryState;
  return !record.requestId || record.state == entryStateReserved ||
         record.state > entryResourceFailed;
}

}  // namespace

ReqIdToFecProvider::~ReqIdToFecProvider() = default;
void ReqIdToFecProvider::handleResourceWanted(const ReqIdToFecResourceTableEntryKey& /*key*/) {}
void ReqIdToFecProvider::handleResourceUnwanted(const ReqIdToFecResourceTableEntryKey& /*key*/) {}
void ReqIdToFecProvider::handleDestIdUnused(std::uint32_t /*destId*/) {}
void ReqIdToFecProvider::handleEarlierSettled() {}

Table::ReqIdToFecResourceTableResourceTable(
    const Fenrik::Ptr<Asic::OrderedTableInterface>& ordTblIntf)
    : NodeClass(
          Fenrik::ptrIsImpl<Asic::CanonicalTableName>(
              Asic::OrderedTableType::resourceTable, Fenrik::String(), kTableNamespace, kTableName),
          ordTblIntf, traceHandle()),
      drift_(mounted(ordTblIntf->entityManager())) {
  const auto records = drift_->resources();
  if (records.empty()) return;
  const auto memory = Asic::sharedMemManager(*ordTblIntf->entityManager());
  const auto needed = Asic::TableAnnouncer::everythingAnnounced(*memory, Asic::SwTableId());
  for (const auto& record : records) {
    if (foreign(record)) {
      drift_->damage().doCorruptionDetected(
          Fenrik::formatString("{}: request id {} with state {} was dropped", drift_->path(),
                               record.requestId, record.state));
      drift_->resourceDel(record.requestId);
    } else {
      restore(untyped(record), needed);
    }
  }
}

Table::~ReqIdToFecResourceTableResourceTable() = default;
Table::ResourceHandle::~ResourceHandle() = default;
Table::ClientInstance::~ClientInstance() = default;

Fenrik::Ptr<Table::ClientInstance> Table::makeClientInstance() {
  return Fenrik::ptrIsImpl<ClientInstance>(Fenrik::Ptr<OvmResourceTable::ResourceTable>(this));
}

void Table::providerIs(const Fenrik::Ptr<ReqIdToFecProvider>& provider) {
  ResourceTable::providerIs([&] { provider_ = provider; });
}

void Table::resourceIs(const Key& key, EntryState state, std::uint32_t destId,
                       const Fenrik::Ptr<const Asic::NeededEntry>& needed) {
  ResourceTable::valueIs({key.value(), destId, state}, needed);
}

void Table::failureIs(const Key& key) {
  const auto* const resource = find(key.value());
  const bool known = resource != nullptr;
  resourceIs(key, EntryState::entryResourceFailed, destId(key), known ? resource->needed : nullptr);
}

bool Table::resourceDel(const Key& key) { return valueDel(key.value()); }

bool Table::resourceHas(const Key& key) const {
  const auto* const resource = find(key.value());
  return resource != nullptr && resource->given;
}

Asic::EntryState Table::entryState(const Key& key) const {
  const auto* const resource = find(key.value());
  return resource != nullptr ? resource->record.state : EntryState::entryPending;
}

std::uint32_t Table::destId(const Key& key) const {
  const auto* const resource = find(key.value());
  return resource != nullptr ? static_cast<std::uint32_t>(resource->record.value) : 0;
}

unsigned int Table::updateNumber(const Key& key) const {
  const auto* const resource = find(key.value());
  return resource != nullptr ? resource->record.updateNumber : 0;
}

std::vector<OvmResourceTable::ResourceUser> Table::users(const Key& key) const {
  return usersOf(key.value());
}

bool Table::destIdUsed(std::uint32_t destId) const { return valueUsed(destId); }

Fenrik::Ptr<OvmResourceTable::ResourceHandle> Table::makeHandle(
    const Fenrik::Ptr<OvmResourceTable::Resource>& resource,
    const Fenrik::Ptr<OvmResourceTable::ResourceUse>& use) {
  return Fenrik::ptrIsImpl<ResourceHandle>(Fenrik::Ptr<OvmResourceTable::ResourceTable>(this),
                                           resource, use);
}

void Table::recordIs(const OvmResourceTable::ResourceRecord& record) {
  ReqIdToFecResourceRecord stored;
  stored.requestId = Key(record.key);
  stored.destId = static_cast<std::uint32_t>(record.value);
  stored.state = record.state;
  stored.updateNumber = record.updateNumber;
  drift_->resourceIs(stored);
}

void Table::recordDel(std::uint64_t key) { drift_->resourceDel(Key(key)); }

bool Table::recordsFull() const { return drift_->writer().full(); }

void Table::tellWanted(std::uint64_t key) {
  if (const auto provider = provider_) provider->handleResourceWanted(Key(key));
}

void Table::tellUnwanted(std::uint64_t key) {
  if (const auto provider = provider_) provider->handleResourceUnwanted(Key(key));
}

void Table::tellValueUnused(std::uint64_t value) {
  if (const auto provider = provider_) {
    provider->handleDestIdUnused(static_cast<std::uint32_t>(value));
  }
}

void Table::tellEarlierSettled() {
  if (const auto provider = provider_) provider->handleEarlierSettled();
}

}  // namespace QuarnL3NiLib
