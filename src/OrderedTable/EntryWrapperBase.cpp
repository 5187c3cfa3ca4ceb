#include "OrderedTable/EntryWrapperBase.h"

#include "Kiv/Trace.h"
#include "OrderedTable/ResourceHooks.h"
#include "OrderedTable/TableCore.h"

namespace Asic {

EntryWrapperBase::~EntryWrapperBase() = default;

void EntryWrapperBase::finalizeOnSuccess(const TableDescriptor& descriptor, OrderedSwTable& table,
                                         bool isDeleted) {
  KIV_TRACE(descriptor.traces.table, 8, descriptor.names.wrapper, " key: {} isDeleted: {}",
            KeyText(descriptor, entryBytes_), isDeleted);
  if (!isDeleted) resolvedFieldsSet(descriptor);
  // Keeps the helper alive: the hook may replace it.
  const Fenrik::Ptr<Fenrik::Node> helper = table.core()->swTableHelper();
  const IdentityGuard guard(descriptor.records, entryBytes_);
  descriptor.helper.finalizeOnSuccess(*helper, *this, isDeleted, table);
}

void EntryWrapperBase::resolvedFieldsSet(const TableDescriptor& descriptor) {
  if (descriptor.resources != nullptr) descriptor.resources->setResolvedFields(*this);
}

bool EntryWrapperBase::finalizeOnFailure(const TableDescriptor& descriptor, OrderedSwTable& table,
                                         bool isDeleted) {
  KIV_TRACE(descriptor.traces.table, 8, descriptor.names.wrapper, " key: {} isDeleted: {}",
            KeyText(descriptor, entryBytes_), isDeleted);
  const Fenrik::Ptr<Fenrik::Node> helper = table.core()->swTableHelper();
  const IdentityGuard guard(descriptor.records, entryBytes_);
  const bool retVal = descriptor.helper.finalizeOnFailure(*helper, *this, isDeleted, table);
  KIV_TRACE(descriptor.traces.table, 3, descriptor.names.wrapper, " retVal: {}", retVal);
  return retVal;
}

}  // namespace Asic
