// The clients' side of the table: what they have taken in, and what of it the hardware has.
#include <algorithm>
#include <limits>

#include "Kiv/Trace.h"
#include "OvmResourceTable/ClientInstance.h"
#include "OvmResourceTable/ResourceTable.h"

namespace OvmResourceTable {

namespace {

constexpr const char* kPrefix = "ResourceTable";

Asic::TableVersion versionOf(const Fenrik::Ptr<const Asic::DependencyEntryHandle>& dependency) {
  return dependency != nullptr ? dependency->entryTableVersion() : Asic::TableVersion();
}

/// The later of two versions of one table; the second if they are of different ones.
Asic::TableVersion later(const Asic::TableVersion& a, const Asic::TableVersion& b) {
  return a.tableId() == b.tableId() ? std::max(a, b) : b;
}

/// What the hardware must report for a wait, as far as it is known now.
Asic::TableVersion requirement(const ResourceUse::Wait& wait) {
  return wait.dependency != nullptr ? later(wait.fence, versionOf(wait.dependency)) : wait.fence;
}

}  // namespace

Fenrik::Ptr<Account> ResourceTable::makeAccount(ClientInstance* client) {
  return Fenrik::ptrIsImpl<Account>(++clients_, client);
}

Fenrik::Ptr<const ResourceHandle> ResourceTable::request(ClientInstance& client, std::uint64_t key,
                                                         const Dependency& dependency) {
  const auto traced = [&](const ResourceHandle& handle) {
    KIV_TRACE_AS("request", trace_, 2, kPrefix,
                 " request: client: {}, key: {}, updateNumber: {}, dependency: {}",
                 client.clientNumber(), key, handle.updateNumber(), versionOf(dependency));
  };
  if (const auto* const node = client.handles_[key]) {
    traced(*node->value());
    return Fenrik::Ptr<const ResourceHandle>(node->value());
  }
  Asic::OutermostCall::Scope call(calls_);
  const Fenrik::Ptr<const ResourceHandle> handle = newHandle(client, key);
  traced(*handle);
  call.end();
  return handle;
}

Fenrik::Ptr<const ResourceHandle> ResourceTable::newHandle(ClientInstance& client,
                                                           std::uint64_t key) {
  const Fenrik::Ptr<Resource> resource = requested(key);
  ResourceUse* present = resource->uses.get();
  while (present != nullptr && (present->account != client.account_ || present->released)) {
    present = present->next.get();
  }
  Fenrik::Ptr<ResourceUse> use(present);
  if (use == nullptr) {
    use = Fenrik::ptrIsImpl<ResourceUse>(client.account_);
    use->next = resource->uses;
    resource->uses = use;
  }
  const Fenrik::Ptr<const ResourceHandle> handle = makeHandle(resource, use);
  use->handle = handle.get();
  client.handles_.newMember(ClientInstance::HN_Handle(key, handle.get()));
  if (resource->given || resource->ending) {
    resource->wantedTold = true;
  } else {
    dueIs(*resource);
  }
  return handle;
}

Fenrik::Ptr<Resource> ResourceTable::requested(std::uint64_t key) {
  if (Resource* const present = find(key)) return Fenrik::Ptr<Resource>(present);
  auto resource = Fenrik::ptrIsImpl<Resource>(key);
  if (key == 0) {
    KIV_TRACE(trace_, 1, kPrefix, " request of key: 0, which stands for no resource");
    resource->record.state = Asic::EntryState::entryRejected;
  } else if (recordsFull()) {
    KIV_TRACE(trace_, 1, kPrefix, " no room for key: {}", key);
    resource->record.state = Asic::EntryState::entryResourceFailed;
  }
  resources_.newMember(HN_Resource(key, resource));
  return resource;
}

void ResourceTable::ack(const ClientInstance& client, const ResourceHandle* handle,
                        unsigned int updateNumber, const Dependency& dependency) {
  const std::uint64_t key = handle != nullptr ? handle->keyNumber() : 0;
  ResourceUse* const use = handle != nullptr ? handle->use_.get() : nullptr;
  const bool owned = use != nullptr && use->account == client.account_ && !use->released;
  if (!owned || updateNumber > handle->updateNumber() ||
      (use->hasRows && updateNumber <= use->acknowledged)) {
    KIV_TRACE(trace_, 1, kPrefix,
              " ackUpdate without effect: client: {}, key: {}, updateNumber: {}",
              client.clientNumber(), key, updateNumber);
    return;
  }
  Asic::OutermostCall::Scope call(calls_);
  KIV_TRACE(trace_, 2, kPrefix, " ackUpdate: client: {}, key: {}, updateNumber: {}, dependency: {}",
            client.clientNumber(), key, updateNumber, versionOf(dependency));
  if (updateNumber == 0) valueUnknownIs(*use, true);
  use->hasRows = true;
  use->acknowledged = updateNumber;
  waitAdd(*handle->resource_, *use, updateNumber, dependency);
  call.end();
}

void ResourceTable::release(const ClientInstance& client, const ResourceHandle* handle,
                            const Dependency& dependency) {
  const std::uint64_t key = handle != nullptr ? handle->keyNumber() : 0;
  ResourceUse* const use = handle != nullptr ? handle->use_.get() : nullptr;
  const unsigned int number = handle != nullptr ? handle->updateNumber() : 0;
  if (use == nullptr || use->account != client.account_ || use->released) {
    KIV_TRACE(trace_, 1, kPrefix, " release without effect: client: {}, key: {}, updateNumber: {}",
              client.clientNumber(), key, number);
    return;
  }
  Asic::OutermostCall::Scope call(calls_);
  KIV_TRACE(trace_, 2, kPrefix, " release: client: {}, key: {}, updateNumber: {}, dependency: {}",
            client.clientNumber(), key, number, versionOf(dependency));
  use->released = true;
  client.account_->client->handles_.memberDel(key);
  waitAdd(*handle->resource_, *use, use->acknowledged, dependency);
  call.end();
}

void ResourceTable::handleGone(const ResourceHandle& handle) noexcept {
  --handleCount_;
  ResourceUse& use = *handle.use_;
  use.handle = nullptr;
  if (!use.released && use.account->client != nullptr) {
    use.account->client->handles_.memberDel(handle.keyNumber());
  }
  if (!use.hasRows && !use.released) useDel(*handle.resource_, use);
}

/// The client's rows may be in any version that was announced until now, not only in the one that
/// it names.
void ResourceTable::waitAdd(Resource& resource, ResourceUse& use, unsigned int updateNumber,
                            const Dependency& dependency) {
  const Asic::SwTableId tableId =
      dependency != nullptr ? dependency->tableId() : use.version.tableId();
  const Asic::OrderedTableInterface* const tables = calls_->tables();
  ResourceUse::Wait wait{updateNumber, true, dependency, Asic::TableVersion(tableId, {})};
  if (tables != nullptr) {
    wait.fence = Asic::TableVersion(tableId, tables->announcedVersion(tableId));
  }
  if (!use.oldest.active) {
    use.oldest = wait;
  } else {
    if (use.newest.active) wait.fence = later(requirement(use.newest), wait.fence);
    use.newest = wait;
  }
  use.version = requirement(wait);
  proceed(resource, use);
  if (use.oldest.active && !std::exchange(use.listed, true)) {
    waiting_.emplace_back(Fenrik::Ptr<Resource>(&resource), Fenrik::Ptr<ResourceUse>(&use));
  }
  settleEarlier();
}

bool ResourceTable::inHardware(const ResourceUse::Wait& wait) {
  // A handle without a version is either still to be logged or never will be.
  if (wait.dependency != nullptr &&
      versionOf(wait.dependency).logVersion() == Asic::LogVersion(0) &&
      wait.dependency->entryState() == Asic::EntryState::entryPending) {
    return false;
  }
  const Asic::TableVersion version = requirement(wait);
  return version.logVersion() == Asic::LogVersion(0) ||
         version.logVersion() <= reported(version.tableId());
}

bool ResourceTable::inHardware(const Asic::NeededEntry& everything) {
  return std::ranges::all_of(everything.versions(), [&](const auto& node) {
    return node.value().logVersion() <= reported(node.value().tableId());
  });
}

void ResourceTable::proceed(Resource& resource, ResourceUse& use) {
  if (use.over) return;
  bool moved = false;
  while (use.oldest.active && inHardware(use.oldest)) {
    use.inHardware = use.oldest.updateNumber;
    use.version = requirement(use.newest.active ? use.newest : use.oldest);
    use.oldest = std::exchange(use.newest, {});
    moved = true;
  }
  if (use.inHardware != 0) valueUnknownIs(use, false);
  const bool gone = use.everything == nullptr || inHardware(*use.everything);
  if (use.released && !use.oldest.active && gone) {
    useDel(resource, use);
  } else if (moved) {
    oldValuesDrop(resource);
  }
}

void ResourceTable::valueUnknownIs(ResourceUse& use, bool unknown) noexcept {
  if (std::exchange(use.valueUnknown, unknown) == unknown) return;
  unknownValues_ += unknown ? 1U : -1U;
}

void ResourceTable::useDel(Resource& resource, ResourceUse& use) noexcept {
  const Fenrik::Ptr<ResourceUse> held(&use);
  use.over = true;
  valueUnknownIs(use, false);
  Fenrik::Ptr<ResourceUse>* link = &resource.uses;
  while (*link != nullptr && link->get() != &use) link = &(*link)->next;
  if (*link != nullptr) *link = Fenrik::Ptr<ResourceUse>(use.next);
  use.next = nullptr;
  oldValuesDrop(resource);
  if (resource.uses == nullptr) dueIs(resource);
}

/// Drops the values that no row in hardware can have any more.
void ResourceTable::oldValuesDrop(Resource& resource) noexcept {
  if (resource.oldValues == nullptr) return;
  unsigned int everywhere = std::numeric_limits<unsigned int>::max();
  for (const auto* use = resource.uses.get(); use != nullptr; use = use->next.get()) {
    if (use->hasRows) everywhere = std::min(everywhere, use->inHardware);
  }
  Fenrik::Ptr<Resource::OldValue>* link = &resource.oldValues;
  while (*link != nullptr) {
    if ((*link)->newer <= everywhere) {
      const std::uint64_t value = (*link)->value;
      *link = Fenrik::Ptr<Resource::OldValue>((*link)->next);
      valueDrop(value);
    } else {
      link = &(*link)->next;
    }
  }
}

void ResourceTable::valueAdd(std::uint64_t value) {
  if (value == 0) return;
  const auto* const node = values_[value];
  if (node == nullptr) {
    values_.newMember(HN_Value(value, {1, false}));
    return;
  }
  ValueUses uses{node->value().count + 1, node->value().due};
  values_.nodeForChange(value)->fwkValueIs(uses);
}

/// Until what an earlier agent left is settled, its rows may have the value: the provider asks for
/// the values in use when it is told about that.
void ResourceTable::valueDrop(std::uint64_t value) noexcept {
  ValueUses uses = values_[value]->value();
  if (--uses.count == 0 && !uses.due) {
    if (!earlierSettled_) {
      values_.memberDel(value);
      return;
    }
    uses.due = true;
    dueValues_.push_back(value);
  }
  values_.nodeForChange(value)->fwkValueIs(uses);
}

/// The newest known report, read once for each table between two calls of `handleReports`.
Asic::LogVersion ResourceTable::reported(Asic::SwTableId tableId) {
  const auto known = std::ranges::find(reports_, tableId, &Asic::TableVersion::tableId);
  if (known != reports_.end()) return known->logVersion();
  const Asic::OrderedTableInterface* const tables = calls_->tables();
  if (tables == nullptr) return {};
  reports_.emplace_back(tableId, tables->reportedVersion(tableId));
  return reports_.back().logVersion();
}

void ResourceTable::handleReports() {
  Asic::OutermostCall::Scope call(calls_);
  const Asic::OrderedTableInterface* const tables = calls_->tables();
  for (Asic::TableVersion& report : reports_) {
    if (tables == nullptr) break;
    const Asic::TableVersion now(report.tableId(), tables->reportedVersion(report.tableId()));
    report = std::max(report, now);
  }
  std::erase_if(waiting_, [&](const auto& waiting) {
    ResourceUse& use = *waiting.second;
    proceed(*waiting.first, use);
    use.listed = !use.over && (use.oldest.active || use.released);
    return !use.listed;
  });
  settleEarlier();
  call.end();
}

void ResourceTable::reconcile() {
  Asic::OutermostCall::Scope call(calls_);
  const Asic::OrderedTableInterface* const tables = calls_->tables();
  const auto everything =
      tables != nullptr ? tables->announcedVersions() : Fenrik::ptrIsImpl<Asic::NeededEntry>();
  KIV_TRACE(trace_, 2, kPrefix, " reconcile: resources: {}, neededEntry: {}", resourceCount(),
            everything);
  for (const auto& node : resources_) {
    for (auto* use = node.value()->uses.get(); use != nullptr; use = use->next.get()) {
      if (use->released) continue;
      if (use->account->client != nullptr) {
        valueUnknownIs(*use, !earlierSettled_ && use->hasRows && use->inHardware == 0);
        continue;
      }
      use->released = true;
      use->everything = everything;
      if (!std::exchange(use->listed, true)) {
        waiting_.emplace_back(node.value(), Fenrik::Ptr<ResourceUse>(use));
      }
    }
  }
  if (!earlierSettled_) earlierEnd_ = everything;
  handleReports();
  call.end();
}

void ResourceTable::settleEarlier() {
  if (earlierSettled_ || earlierEnd_ == nullptr || unknownValues_ != 0) return;
  if (!inHardware(*earlierEnd_)) return;
  earlierEnd_ = nullptr;
  earlierSettled_ = true;
  earlierSettledDue_ = true;
  for (const auto& node : resources_) {
    if (node.value()->uses == nullptr) dueIs(*node.value());
  }
}

}  // namespace OvmResourceTable
