#include "OrderedTable/TableResolverEntry.h"

#include "OrderedTable/TableCore.h"

namespace Asic {

TableResolverEntry::~TableResolverEntry() = default;

bool TableResolverEntry::isResolved() {
  const Fenrik::Ptr<TableResolverEntry> self(this);
  return table_ == nullptr || table_->core()->isResolverEntryResolved(*this);
}

ResolverEntry::Awaited TableResolverEntry::awaited() const {
  return table_ != nullptr ? table_->core()->awaitedBy(*this) : ResolverEntry::awaited();
}

void TableResolverEntry::commitEntry(const Fenrik::Ptr<ResolverEntry>& resolverEntry) {
  // Keeps the table alive: a handler may drop the last reference to it.
  const Fenrik::Ptr<OrderedSwTable> table(table_);
  if (table != nullptr) table->commitEntry(resolverEntry);
}

void TableResolverEntry::tableGone(const OrderedSwTable& table) {
  if (table_ != &table) return;
  table_->core()->giveUp(*this);
  table_ = nullptr;
}

void TableResolverEntry::prefetch(bool near, unsigned ahead) const noexcept {
  if (table_ != nullptr) table_->core()->prefetch(wrapper_->entryBytes(), near, ahead);
}

ResolverEntry::Waiting TableResolverEntry::waiting() const {
  return table_ != nullptr ? table_->core()->waitingOf(*this) : Waiting{};
}

}  // namespace Asic
