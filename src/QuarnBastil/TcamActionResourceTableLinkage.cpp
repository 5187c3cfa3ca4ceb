#include <algorithm>

#include "Blipline/RingTrace.h"
#include "Fenrik/Assert.h"
#include "Fenrik/TypeData.h"
#include "OrderedTable/EntryLogCore.h"
#include "OrderedTable/OrderedTableInterface.h"
#include "OrderedTable/OrderedTableResourceAccessor.h"
#include "OrderedTable/TableAttributes.h"
#include "OrderedTable/TableModules.h"
#include "OrderedTable/TableName.h"
#include "QuarnBastil/ResourceTableLinkage.h"
#include "QuarnBastil/TcamAction.h"

KIV_MODULE(QuarnBastil::TcamActionRequestIdToFecLinkage::KivModule);

namespace QuarnBastil {

namespace {

using Linkage = TcamActionRequestIdToFecLinkage;
using UsageSm = Linkage::LocalUsageUpdateSm;
using Accessor = Asic::SwTableResourceAccessor<Linkage>;

static_assert(Linkage::kTableField.number() == TcamActionSwTable::KivRows::kLinkField);

}  // namespace

TcamActionResourceWrapper::~TcamActionResourceWrapper() = default;

TcamActionResourceSwTable::~TcamActionResourceSwTable() {
  if (requestIdToFecLinkage_ != nullptr) requestIdToFecLinkage_->handleTableGone();
}

void TcamActionResourceSwTable::requestIdToFecLinkageIs(const Fenrik::Ptr<Linkage>& linkage) {
  Fenrik::Impl::attributePointerIs(*this, publisher_, Linkage::kTableField, requestIdToFecLinkage_,
                                   linkage);
}

Linkage::TcamActionRequestIdToFecLinkage(TcamActionSwTable* swTable, const ClientPtr& resTblClient)
    : swTable_(swTable), resTblClient_(resTblClient) {}

Linkage::~TcamActionRequestIdToFecLinkage() {
  handleTableGone();
  for (const auto& node : entryUsageSm_) node.value()->parent_ = nullptr;  // others may hold it
}

void Linkage::handleTableGone() {
  swTable_ = nullptr;
  for (const auto& node : entryUsageSm_) {
    node.value()->hasNotificationActiveIs(false);
    reserve(*node.value(), 0);
  }
  postponed_.clear();
}

const Kiv::TraceHandle& Linkage::traceHandle() noexcept {
  static constinit Kiv::TraceHandle handle{Kiv::kConstantHandle, "TcamActionRequestIdToFecLinkage"};
  return handle;
}

void Linkage::updateLocalUsage(const WrapperPtr& entry, const Entry& oldEntry, bool isDeleted) {
  Accessor(this).updateLocalUsage(entry, oldEntry, isDeleted);
}

Asic::EntryState Linkage::entryResolutionState(const WrapperPtr& entry) {
  return Accessor(this).entryResolutionState(entry);
}

Fenrik::Ptr<Asic::NeededEntry> Linkage::getNeededEntrySet(const WrapperPtr& entry) {
  return Accessor(this).getNeededEntrySet(entry);
}

void Linkage::resolveEntry(const Fenrik::Ptr<EntryWrapper>& entry) {
  if (!entry->requestId()) return;
  entry->requestIdResPtrIs(resTblClient_->request(entry->requestId(), nullptr));
}

void Linkage::restoreEntry(const WrapperPtr& entry) {
  if (entry == nullptr || !entry->requestId()) return;
  Accessor(this).addResKeyMapping(entry->requestId(), entry, false);
}

void Linkage::handleResourceChangeAtInit() {
  for (const auto& node : entryUsageSm_) node.value()->handleResourceChange();
}

const Linkage::ResourceKey& Linkage::resourceKey(const WrapperPtr& entry) {
  return entry->requestId();
}

const Linkage::ResourcePtr& Linkage::resourceHandle(const WrapperPtr& entry) {
  return entry->requestIdResPtr();
}

void Linkage::setResourceHandle(const Fenrik::Ptr<EntryWrapper>& entry) {
  const auto* const node = entryUsageSm_[entry->requestId()];
  if (node != nullptr) entry->requestIdResPtrIs(node->value()->resPtr());
}

Linkage::SmPtr Linkage::entryUsageSmIs(const ResourcePtr& resPtr) {
  const Kiv::KivType owner = Kiv::typeOf<Linkage>();
  if (resPtr == nullptr) {
    Kiv::throwMutatorArgNullPointerException(owner.module(), owner.index(), kEntryUsageSmField);
  }
  const ResourceKey resKey = resPtr->key();
  SmPtr sm = entryUsageSm(resKey);
  if (sm != nullptr) {
    if (sm->resPtr() != resPtr) {
      Kiv::Impl::throwMutatorReinstantiating(owner.module(), owner.index(), kEntryUsageSmField);
    }
    return sm;
  }
  sm = Fenrik::ptrIsImpl<LocalUsageUpdateSm>(resPtr, this);
  Kiv::Impl::KeyedMutator<Linkage, UsageMap>(publisher_, kEntryUsageSmField, entryUsageSm_)
      .valueIs(resKey, sm);
  return sm;
}

Linkage::SmPtr Linkage::entryUsageSmDel(const ResourceKey& resKey) {
  SmPtr sm =
      Kiv::Impl::KeyedMutator<Linkage, UsageMap>(publisher_, kEntryUsageSmField, entryUsageSm_)
          .valueDel(resKey);
  if (sm == nullptr) return sm;
  sm->hasNotificationActiveIs(false);
  updatesDone(*sm);
  return sm;
}

void Linkage::updatePrefetch(const EntryKey& key, bool near, unsigned ahead) const noexcept {
  swTable_->core()->prefetch(&key, near, ahead);
}

bool Linkage::updatesRoom(const LocalUsageUpdateSm& sm) const {
  const auto& needed = sm.resPtr()->neededSet();
  return swTable_->core()->log().updatesRoom(sm.entryUsageCount(),
                                             needed != nullptr ? needed->count() : 0);
}

void Linkage::updatesPostpone(LocalUsageUpdateSm& sm) {
  if (sm.reserved_ == 0) postponed_.push_back(sm.resKey());
  reservedIn_ = swTable_->core()->entryLog();
  reserve(sm, sm.entryUsageCount());
  swTable_->core()->reportWantedIs(true);
}

void Linkage::reserve(LocalUsageUpdateSm& sm, std::uint32_t records) {
  if (sm.reserved_ == records) return;
  reservedIn_->reservedInc(std::int64_t{records} - sm.reserved_);
  sm.reserved_ = records;
}

void Linkage::updatesDone(LocalUsageUpdateSm& sm) {
  if (sm.reserved_ == 0) return;
  std::erase(postponed_, sm.resKey());
  reserve(sm, 0);
  swTable_->core()->reportWantedIs(!postponed_.empty());
  swTable_->groupResolver()->updateGenId();
}

void Linkage::handleRoom() noexcept {
  const std::vector<ResourceKey> round = postponed_;
  for (const ResourceKey& key : round) {
    if (const SmPtr sm = entryUsageSm(key)) sm->handleResourceChange();
  }
}

UsageSm::LocalUsageUpdateSm(const ResourcePtr& resPtr, TcamActionRequestIdToFecLinkage* parent)
    : resPtr_(resPtr), parent_(parent) {
  hasNotificationActiveIs(true);
}

UsageSm::~LocalUsageUpdateSm() { reactorStop(); }

void UsageSm::entryUsageIs(const EntryKey& key) {
  entryUsage_.memberElseNew(key, [&] { return HN_EntryUsage(key); });
}

void UsageSm::handleResourceChange() { Accessor(parent_).handleResourceChange(this); }

namespace {

using WrapperPtr = Fenrik::Ptr<TcamActionEntryWrapper>;

TcamActionEntryWrapper& typed(Asic::EntryWrapperBase& wrapper) {
  return static_cast<TcamActionEntryWrapper&>(wrapper);
}

const TcamActionEntryWrapper& typed(const Asic::EntryWrapperBase& wrapper) {
  return static_cast<const TcamActionEntryWrapper&>(wrapper);
}

Linkage& linkageOf(const Asic::OrderedSwTable& table) {
  return *static_cast<const TcamActionSwTable&>(table).requestIdToFecLinkage();
}

const Kiv::TraceHandle& tableTrace() noexcept {
  return descriptorOf<TcamActionFamily>().traces.writes;
}

/// The name under which the agent registers the resource table.
Fenrik::String resourceTableName() {
  return Fenrik::ptrIsImpl<Asic::CanonicalTableName>(
             Asic::OrderedTableType::resourceTable, Fenrik::String(),
             Fenrik::String(Linkage::ResourceTable::kTableNamespace),
             Fenrik::String(Linkage::ResourceTable::kTableName))
      ->name();
}

void writeQueued(Asic::OrderedSwTable& table, Asic::EntryWrapperBase& wrapper) {
  linkageOf(table).resolveEntry(WrapperPtr(&typed(wrapper)));
}

void setRsrcPtrs(Asic::OrderedSwTable& table, Asic::EntryWrapperBase& wrapper, bool refresh) {
  const WrapperPtr entry(&typed(wrapper));
  refresh ? linkageOf(table).resolveEntry(entry) : linkageOf(table).setResourceHandle(entry);
}

bool resolved(Asic::OrderedSwTable& table, Asic::EntryWrapperBase& wrapper) {
  return Accessor(&linkageOf(table))
      .resAccessorCheckResolved(WrapperPtr(&typed(wrapper)), tableTrace());
}

bool checkResolveSuccess(Asic::OrderedSwTable& table, Asic::EntryWrapperBase& wrapper) {
  return Accessor(&linkageOf(table)).checkResolveSuccess(WrapperPtr(&typed(wrapper)), tableTrace());
}

void setResolvedFields(Asic::EntryWrapperBase& wrapper) { typed(wrapper).destIdStore(); }

bool needsAny(const Asic::EntryWrapperBase& wrapper) {
  const auto& handle = typed(wrapper).requestIdResPtr();
  return handle != nullptr && handle->neededSet() != nullptr && handle->neededSet()->count() != 0;
}

void addNeeded(const Asic::OrderedSwTable& table, const Asic::EntryWrapperBase& wrapper,
               Asic::NeededEntry& needed) {
  needed.merge(linkageOf(table).getNeededEntrySet(Linkage::WrapperPtr(&typed(wrapper))));
}

void updateLocalUsage(Asic::OrderedSwTable& table, Asic::EntryWrapperBase& wrapper,
                      const void* oldEntry, bool isDeleted) {
  linkageOf(table).updateLocalUsage(Linkage::WrapperPtr(&typed(wrapper)),
                                    *static_cast<const TcamActionEntry*>(oldEntry), isDeleted);
}

/// Connects a new table to the agent's resource table, which must exist.
void tableMade(Asic::OrderedTableInterface& tables, Asic::OrderedSwTable& table) {
  constexpr const char* kMakeSwTable = "makeSwTable";
  constexpr const char* kText =
      " ResourceTable: QuarnL3NiLib::ReqIdToFecResourceTable.TrafficPolicyIntfInput started or "
      "restored with {} entries";
  const auto resTbl = tables.resourceTable(resourceTableName());
  FENRIK_ASSERT_TEXT(resTbl != nullptr, "resTbl");
  const auto typedResourceTable = Fenrik::dynamicPtrCast<Linkage::ResourceTable>(resTbl);
  FENRIK_ASSERT_TEXT(typedResourceTable != nullptr, "typedResourceTable");
  const auto client = typedResourceTable->makeClientInstance();
  const Asic::TableDescriptor& family = descriptorOf<TcamActionFamily>();
  const int count = static_cast<int>(typedResourceTable->entryCount());
  if (Blipline::TraceFile* const file = Blipline::Impl::siteFile()) {
    static constinit Blipline::MsgId msgId = 0;
    Blipline::Impl::siteRecord(file, &msgId, __FILE__, __LINE__, family.names.interface,
                               kMakeSwTable, kText, count);
  }
  KIV_TRACE_AS(kMakeSwTable, family.traces.interface, 2, family.names.interface, kText, count);
  auto& typedTable = static_cast<TcamActionSwTable&>(table);
  typedTable.outermostCallIs(tables.outermostCall());
  typedTable.requestIdToFecLinkageIs(Fenrik::ptrIsImpl<Linkage>(&typedTable, client));
}

void restoreEntry(Asic::OrderedSwTable& table, Asic::EntryWrapperBase& wrapper) {
  linkageOf(table).restoreEntry(Linkage::WrapperPtr(&typed(wrapper)));
}

void entriesRestored(Asic::OrderedSwTable& table) { linkageOf(table).handleResourceChangeAtInit(); }

bool waitsForResource(const TcamActionEntryWrapper& wrapper) {
  const auto& handle = wrapper.requestIdResPtr();
  return handle != nullptr && (handle->entryState() == Asic::EntryState::entryPending ||
                               handle->entryState() == Asic::EntryState::entryInLog);
}

Asic::ResolverEntry::Awaited awaited(const Asic::OrderedSwTable& /*table*/,
                                     const Asic::EntryWrapperBase& wrapper) {
  if (!waitsForResource(typed(wrapper))) return {};
  return {typed(wrapper).requestIdResPtr(), Linkage::ResourceHandle::kValueField};
}

void roomMade(Asic::OrderedSwTable& table) { linkageOf(table).handleRoom(); }

Fenrik::String waitingReason(const Asic::OrderedSwTable& /*table*/,
                             const Asic::EntryWrapperBase& wrapper) {
  if (!waitsForResource(typed(wrapper))) return {};
  return Fenrik::formatString("{}, key {}: {}", resourceTableName(), typed(wrapper).requestId(),
                              typed(wrapper).requestIdResPtr()->entryState());
}

const Fenrik::Ptr<Asic::OutermostCall>& outermostCall(const Asic::OrderedSwTable& table) {
  return static_cast<const TcamActionSwTable&>(table).outermostCall();
}

}  // namespace

constinit const Asic::ResourceHooks kTcamActionResourceHooks{
    .writeQueued = &writeQueued,
    .setRsrcPtrs = &setRsrcPtrs,
    .resolved = &resolved,
    .checkResolveSuccess = &checkResolveSuccess,
    .setResolvedFields = &setResolvedFields,
    .needsAny = &needsAny,
    .addNeeded = &addNeeded,
    .updateLocalUsage = &updateLocalUsage,
    .tableMade = &tableMade,
    .restoreEntry = &restoreEntry,
    .entriesRestored = &entriesRestored,
    .awaited = &awaited,
    .roomMade = &roomMade,
    .waitingReason = &waitingReason,
    .outermostCall = &outermostCall};

using ResourceRows = TcamActionResourceWrapper::ResourceRows;

constinit const Kiv::AttributeAccess ResourceRows::kRequestId{
    .value = Kiv::kValueType<Linkage::ResourceKey>, .read = [](void* wrapper, void* out) {
      ::new (out)
          Linkage::ResourceKey(static_cast<TcamActionResourceWrapper*>(wrapper)->requestId());
    }};
constinit const Kiv::AttributeAccess ResourceRows::kRequestIdResPtr{
    .value = Kiv::kValueType<Linkage::ResourcePtr>,
    .read =
        [](void* wrapper, void* out) {
          ::new (out) Linkage::ResourcePtr(
              static_cast<TcamActionResourceWrapper*>(wrapper)->requestIdResPtr());
        },
    .write =
        [](void* wrapper, const void* value) {
          static_cast<TcamActionResourceWrapper*>(wrapper)->requestIdResPtrIs(
              *static_cast<const Linkage::ResourcePtr*>(value));
        }};
constinit const Kiv::AttributeAccess ResourceRows::kDestId{
    .value = Kiv::kValueType<std::uint32_t>, .read = [](void* wrapper, void* out) {
      ::new (out) std::uint32_t(static_cast<TcamActionResourceWrapper*>(wrapper)->destId());
    }};

constinit const Kiv::AttributeAccess TcamActionLinkRow::kAccess{
    .value = Kiv::kValueType<Fenrik::Ptr<Linkage>>,
    .read =
        [](void* table, void* out) {
          ::new (out)
              Fenrik::Ptr<Linkage>(static_cast<TcamActionSwTable*>(table)->requestIdToFecLinkage());
        },
    .write =
        [](void* table, const void* value) {
          static_cast<TcamActionSwTable*>(table)->requestIdToFecLinkageIs(
              *static_cast<const Fenrik::Ptr<Linkage>*>(value));
        }};

}  // namespace QuarnBastil
