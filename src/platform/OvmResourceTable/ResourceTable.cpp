#include "OvmResourceTable/ResourceTable.h"

#include <algorithm>

#include "Drift/DriftError.h"
#include "Fenrik/Format.h"
#include "Kiv/Trace.h"
#include "OvmResourceTable/ResourceRefusedException.h"

namespace OvmResourceTable {

namespace {

constexpr const char* kPrefix = "ResourceTable";

bool same(const ResourceRecord& a, const ResourceRecord& b) {
  return a.state == b.state && a.value == b.value;
}

}  // namespace

ResourceTable::ResourceTable(const Fenrik::Ptr<const Asic::CanonicalTableName>& name,
                             const Fenrik::Ptr<Asic::OrderedTableInterface>& ordTblIntf,
                             const Kiv::TraceHandle& trace)
    : trace_(trace),
      name_(name),
      calls_(ordTblIntf->outermostCall()),
      earlierAgent_(Fenrik::ptrIsImpl<Account>(Account::kEarlierAgent, nullptr)) {
  calls_->listenerAdd(*this);
}

ResourceTable::~ResourceTable() { calls_->listenerDel(*this); }

void ResourceTable::restore(const ResourceRecord& record,
                            const Fenrik::Ptr<const Asic::NeededEntry>& needed) {
  auto resource = Fenrik::ptrIsImpl<Resource>(record.key);
  resource->record = record;
  resource->needed = needed;
  resource->given = true;
  resource->wantedTold = true;
  resource->uses = Fenrik::ptrIsImpl<ResourceUse>(earlierAgent_);
  resource->uses->hasRows = true;
  valueAdd(record.value);
  resources_.newMember(HN_Resource(record.key, resource));
  ++entryCount_;
}

Resource* ResourceTable::find(std::uint64_t key) const {
  const auto* const node = resources_[key];
  return node != nullptr ? node->value().get() : nullptr;
}

std::vector<ResourceUser> ResourceTable::usersOf(std::uint64_t key) const {
  std::vector<ResourceUser> users;
  const Resource* const resource = find(key);
  if (resource == nullptr) return users;
  for (const ResourceUse* use = resource->uses.get(); use != nullptr; use = use->next.get()) {
    users.push_back(
        {use->account->number, use->acknowledged, use->version, use->inHardware, use->released});
  }
  return users;
}

bool ResourceTable::valueUsed(std::uint64_t value) const {
  const auto* const node = values_[value];
  return node != nullptr && node->value().count != 0;
}

void ResourceTable::check(const ResourceRecord& record) const {
  const auto refuse = [&](const char* reason) {
    throw ResourceRefusedException(Fenrik::formatString("{}: key {}, state {}, value {}: {}",
                                                        name_->name(), record.key, record.state,
                                                        record.value, reason));
  };
  if (record.key == 0) refuse("key 0 stands for no resource");
  if (record.state == Asic::EntryState::entryStateReserved ||
      record.state > Asic::EntryState::entryResourceFailed) {
    refuse("not a state of a resource");
  }
  const Resource* const resource = find(record.key);
  const bool ending = resource != nullptr && resource->ending;
  const bool willEnd = resource != nullptr && std::ranges::any_of(putOff_, [&](const auto& work) {
                         return work.withdrawn && work.record.key == record.key;
                       });
  if (ending || willEnd) {
    refuse("the resource was withdrawn and is still used; give it a value once nobody wants it");
  }
}

void ResourceTable::valueIs(const ResourceRecord& record,
                            const Fenrik::Ptr<const Asic::NeededEntry>& needed) {
  check(record);
  if (calls_->inCall()) {
    putOff({record, needed, false});
    return;
  }
  putOffDel(record.key);
  Asic::OutermostCall::Scope call(calls_);
  apply(record, needed);
  call.end();
}

bool ResourceTable::valueDel(std::uint64_t key) {
  Resource* const resource = find(key);
  if (calls_->inCall()) {
    const bool willHave = std::ranges::any_of(
        putOff_, [&](const auto& work) { return !work.withdrawn && work.record.key == key; });
    if (!willHave && (resource == nullptr || !resource->given)) return false;
    putOff({{key}, nullptr, true});
    return true;
  }
  const bool wouldHave = putOffDel(key);
  if (resource == nullptr || !resource->given) return wouldHave;
  Asic::OutermostCall::Scope call(calls_);
  withdraw(*resource);
  call.end();
  return true;
}

/// Of the calls for one key the newest counts.
void ResourceTable::putOff(PutOff work) {
  KIV_TRACE(trace_, 3, kPrefix, " put off: key: {}, withdrawn: {}", work.record.key,
            work.withdrawn);
  const auto earlier = std::ranges::find_if(
      putOff_, [&](const PutOff& other) { return other.record.key == work.record.key; });
  if (earlier != putOff_.end()) {
    *earlier = std::move(work);
  } else {
    putOff_.push_back(std::move(work));
  }
}

/// An exception of the outermost call leaves what was put off to the next one, which may be newer.
bool ResourceTable::putOffDel(std::uint64_t key) {
  return std::erase_if(putOff_, [&](const PutOff& work) { return work.record.key == key; }) != 0;
}

void ResourceTable::apply(const ResourceRecord& record,
                          const Fenrik::Ptr<const Asic::NeededEntry>& needed) {
  Fenrik::Ptr<Resource> resource(find(record.key));
  if (resource == nullptr) {
    resource = Fenrik::ptrIsImpl<Resource>(record.key);
    resources_.newMember(HN_Resource(record.key, resource));
  }
  const bool changed = !same(resource->record, record);
  if (changed || !resource->given) {
    ResourceRecord next = record;
    next.updateNumber = resource->record.updateNumber + (changed ? 1 : 0);
    store(*resource, next);
  }
  resource->needed = needed;
  if (changed) show(*resource, record);
  KIV_TRACE(trace_, 2, kPrefix, " key: {}, state: {}, value: {}, updateNumber: {}, changed: {}",
            record.key, record.state, record.value, resource->record.updateNumber, changed);
  if (changed) notify(*resource);
}

/// Without room for a first value, clients that wait for it see the resource fail.
void ResourceTable::store(Resource& resource, const ResourceRecord& record) {
  try {
    recordIs(record);
  } catch (const Fenrik::Exception& e) {
    KIV_TRACE(trace_, 1, kPrefix, " key: {} cannot be stored: {}", record.key, e.msg());
    const ResourceRecord failed{record.key, 0, Asic::EntryState::entryResourceFailed};
    if (!resource.given && !same(resource.record, failed)) {
      show(resource, failed);
      notify(resource);
    }
    dueIs(resource);
    throw;
  }
  if (resource.given) return;
  resource.given = true;
  resource.wantedTold = resource.uses != nullptr;
  ++entryCount_;
}

void ResourceTable::withdraw(Resource& resource) {
  KIV_TRACE(trace_, 2, kPrefix, " withdrawn: key: {}", resource.record.key);
  recordDel(resource.record.key);
  --entryCount_;
  resource.given = false;
  resource.ending = true;
  resource.needed = nullptr;
  show(resource, {resource.record.key, 0, Asic::EntryState::entryRejected});
  dueIs(resource);
  notify(resource);
}

void ResourceTable::show(Resource& resource, const ResourceRecord& record) {
  const unsigned int number = resource.record.updateNumber + 1;
  const std::uint64_t former = std::exchange(resource.record.value, record.value);
  resource.record.state = record.state;
  resource.record.updateNumber = number;
  if (former == record.value) return;
  valueAdd(record.value);
  if (former == 0) return;
  auto* old = resource.oldValues.get();
  while (old != nullptr && old->value != former) old = old->next.get();
  if (old != nullptr) {
    old->newer = number;
    valueDrop(former);
  } else {
    resource.oldValues = Fenrik::ptrIsImpl<Resource::OldValue>(former, number, resource.oldValues);
  }
  oldValuesDrop(resource);
}

/// All handles show the change already. A client may make and end handles when it is notified.
void ResourceTable::notify(const Resource& resource) {
  for (const auto* use = resource.uses.get(); use != nullptr; use = use->next.get()) {
    if (use->handle != nullptr) {
      notified_.push_back(Fenrik::Ptr<const ResourceHandle>(use->handle));
    }
  }
  const std::uint64_t value = resource.record.value;
  for (const auto& handle : notified_) {
    handle->publisher()->publishChange(ResourceHandle::kValueField, &value);
  }
  notified_.clear();
}

void ResourceTable::wantedAgain() {
  for (const auto& node : resources_) {
    Resource& resource = *node.value();
    if (resource.given || resource.ending || resource.uses == nullptr) continue;
    resource.wantedTold = false;
    dueIs(resource);
  }
}

void ResourceTable::dueIs(Resource& resource) noexcept {
  if (std::exchange(resource.due, true)) return;
  dueResources_.push_back(Fenrik::Ptr<Resource>(&resource));
}

void ResourceTable::tell(Resource& resource) {
  const std::uint64_t key = resource.record.key;
  if (resource.uses != nullptr) {
    if (resource.given || resource.ending || resource.wantedTold || key == 0) return;
    resource.wantedTold = true;
    tellWanted(key);
    return;
  }
  // Rows that an earlier agent left may still use it.
  if (resource.given && !earlierSettled_) return;
  const bool told = std::exchange(resource.wantedTold, false);
  if (!resource.given) forget(resource);
  if (told) tellUnwanted(key);
}

void ResourceTable::forget(Resource& resource) {
  const std::uint64_t value = std::exchange(resource.record.value, 0);
  if (value != 0) valueDrop(value);
  resources_.memberDel(resource.record.key);
}

bool ResourceTable::callEndDue() const noexcept {
  return !putOff_.empty() || !dueResources_.empty() || !dueValues_.empty() || earlierSettledDue_;
}

void ResourceTable::handleCallEnd() {
  while (callEndDue()) {
    if (!putOff_.empty()) {
      doPutOff();
    } else if (!dueResources_.empty()) {
      const Fenrik::Ptr<Resource> resource = dueResources_.back();
      dueResources_.pop_back();
      resource->due = false;
      tell(*resource);
    } else if (std::exchange(earlierSettledDue_, false)) {
      KIV_TRACE(trace_, 2, kPrefix, " what an earlier agent left is settled");
      tellEarlierSettled();
    } else {
      const std::uint64_t value = dueValues_.back();
      dueValues_.pop_back();
      if (values_[value]->value().count == 0) {
        values_.memberDel(value);
        KIV_TRACE(trace_, 2, kPrefix, " value: {} is not used any more", value);
        tellValueUnused(value);
      } else {
        ValueUses uses{values_[value]->value().count, false};
        values_.nodeForChange(value)->fwkValueIs(uses);
      }
    }
  }
}

/// The call has returned, so its outcome can only be traced and seen in the handles.
void ResourceTable::doPutOff() {
  const PutOff work = std::move(putOff_.front());
  putOff_.pop_front();
  if (work.withdrawn) {
    Resource* const resource = find(work.record.key);
    if (resource != nullptr && resource->given) withdraw(*resource);
    return;
  }
  try {
    apply(work.record, work.needed);
  } catch (const Drift::CollectionFullException&) {
  } catch (const Drift::NoSpaceException&) {
  }
}

}  // namespace OvmResourceTable
