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

OrderedSwTable::OrderedSwTable(const Fenrik::Ptr<const CanonicalTableName>& name, SwTableId tableId,
                               UnitId unitId, OrderedSwTableSet* swTableSet)
    : name_(name), tableId_(tableId), unitId_(unitId), swTableSet_(swTableSet) {}

OrderedSwTable::~OrderedSwTable() = default;

void OrderedSwTable::statsIs() { stats_ = Fenrik::ptrIsImpl<SwTableStats>(); }

SwTableStats::~SwTableStats() = default;
OrderedSwTableStatus::~OrderedSwTableStatus() = default;
ResolverEntry::~ResolverEntry() = default;
void ResolverEntry::prefetch(bool) const noexcept {}
SwTableIteratorStateBase::~SwTableIteratorStateBase() = default;

OrderedSwTableSet::OrderedSwTableSet(SwTableId tableId,
                                     const Fenrik::Ptr<OrderedSwTableStatus>& status)
    : tableId_(tableId), status_(status) {}

OrderedSwTableSet::~OrderedSwTableSet() = default;

void OrderedSwTableSet::maybeUpdatePendingHwWrites() { status_->pendingHwWritesIs(anyPending()); }

bool OrderedSwTableSet::anyPending() {
  // The table that had something pending last is the likeliest to have it now.
  if (const auto* const likely = swTable_[lastPending_];
      likely != nullptr && likely->value()->hasPendingHwWrites()) {
    return true;
  }
  // NOLINTNEXTLINE(readability-use-anyofallof): which one it is matters, too
  for (const auto& node : swTable_) {
    if (node.key() == lastPending_ || !node.value()->hasPendingHwWrites()) continue;
    lastPending_ = node.key();
    return true;
  }
  return false;
}

}  // namespace Asic
