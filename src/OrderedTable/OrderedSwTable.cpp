#include "OrderedTable/OrderedSwTable.h"

#include "Fenrik/Format.h"
#include "OrderedTable/OrderedSwTableSet.h"
#include "OrderedTable/ResolverEntry.h"
#include "OrderedTable/SwTableIteratorState.h"

namespace Asic {

DependencyEntryHandle::~DependencyEntryHandle() = default;
void DependencyEntryHandle::handleEntryState() {}
Index DependencyEntryHandle::hwIndexForDependentField() const { return {}; }
void DependencyEntryHandle::handleIndexSuggestions(const std::set<Index>&) const {}

Fenrik::String entryStateName(EntryState state) {
  switch (state) {
    case EntryState::entryPending:
      return "entryPending";
    case EntryState::entryInLog:
      return "entryInLog";
    case EntryState::entryStateReserved:
      return "entryStateReserved";
    case EntryState::entryRejected:
      return "entryRejected";
    case EntryState::entryDone:
      return "entryDone";
    case EntryState::entryDependencyFailed:
      return "entryDependencyFailed";
    case EntryState::entryResourceFailed:
      return "entryResourceFailed";
  }
  return Fenrik::formatString("entryState({})", static_cast<unsigned>(state));
}

SwTableBase::EntryHandle::~EntryHandle() = default;

void SwTableBase::EntryHandle::logVersionIs(LogVersion version) {
  Fenrik::Impl::attributeValueIs(publisher_, kLogVersionField, logVersion_, version);
}

TableVersion SwTableBase::EntryHandle::entryTableVersion() const {
  return TableVersion(tableId(), logVersion_);
}

SwTableBase::~SwTableBase() = default;
void SwTableBase::doCreateHwTable() {}
void SwTableBase::doCreateHwTableResponse() {}

NamedSwTable::~NamedSwTable() = default;
void NamedSwTable::reconcile() {}

OrderedSwTable::EntryHandle::~EntryHandle() = default;

Fenrik::String OrderedSwTable::EntryHandle::rejection() const {
  return rejection_ != nullptr ? *rejection_ : Fenrik::String();
}

void OrderedSwTable::EntryHandle::rejectionIs(const Fenrik::String& reason) {
  rejection_ = std::make_unique<const Fenrik::String>(reason);
  entryStateIs(EntryState::entryRejected);
}

OrderedSwTable::OrderedSwTable(const Fenrik::Ptr<const CanonicalTableName>& name, SwTableId tableId,
                               UnitId unitId, OrderedSwTableSet* swTableSet)
    : name_(name), tableId_(tableId), unitId_(unitId), swTableSet_(swTableSet) {
  if (swTableSet_ != nullptr) swTableSet_->madeFor(*this);
}

OrderedSwTable::~OrderedSwTable() {
  if (swTableSet_ != nullptr) swTableSet_->gone(*this);
}

void OrderedSwTable::statsIs() {
  Fenrik::Impl::attributePointerIs(*this, publisher_, kStatsField, stats_,
                                   Fenrik::ptrIsImpl<SwTableStats>());
}

void OrderedSwTable::statusIs(const Fenrik::Ptr<OrderedSwTableStatus>& status) {
  Fenrik::Impl::attributePointerIs(*this, publisher_, kStatusField, status_, status);
}

SwTableStats::~SwTableStats() = default;
OrderedSwTableStatus::~OrderedSwTableStatus() = default;
ResolverEntry::~ResolverEntry() = default;
void ResolverEntry::prefetch(bool, unsigned) const noexcept {}
ResolverEntry::Awaited ResolverEntry::awaited() const {
  return {dependantEntryHandle_, DependencyEntryHandle::kEntryStateField};
}
SwTableIteratorStateBase::~SwTableIteratorStateBase() = default;

void SwTableIteratorStateBase::bookmarkIs(const KeyImage& key) {
  Fenrik::Impl::attributeValueIs(publisher_, bookmarkField_, bookmark_, key);
}

}  // namespace Asic
