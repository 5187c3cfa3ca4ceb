#include "OrderedTable/TypedEntryHandle.h"

#include "Kiv/Trace.h"
#include "OrderedTable/TableCore.h"

namespace Asic {

TableEntryHandle::TableEntryHandle(const EntryVersion& version, const OrderedSwTable& table)
    : OrderedSwTable::EntryHandle(version),
      descriptor_(table.core()->descriptor()),
      tableName_(table.canonicalName()) {}

TableEntryHandle::~TableEntryHandle() = default;

Fenrik::String TableEntryHandle::tableName() const {
  KIV_TRACE(descriptor_.traces.handle, 8, "EntryHandle", "");
  return tableName_->name();
}

SwTableId TableEntryHandle::tableId() const {
  KIV_TRACE(descriptor_.traces.handle, 8, "EntryHandle", "");
  return descriptor_.tableId;
}

Fenrik::String TableEntryHandle::keyText() const {
  return Fenrik::formatString("{}", KeyText(descriptor_, keyBytes()));
}

void TableEntryHandle::kivConstruct(void* out, void* const* arguments) {
  OrderedSwTable& table = **static_cast<const Fenrik::Ptr<OrderedSwTable>*>(arguments[2]);
  ::new (out) Fenrik::Ptr<OrderedSwTable::EntryHandle>(table.core()->descriptor().make.handle(
      *static_cast<const EntryVersion*>(arguments[0]), arguments[1], table));
}

}  // namespace Asic
