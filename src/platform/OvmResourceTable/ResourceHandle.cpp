#include "OvmResourceTable/ResourceHandle.h"

#include "OvmResourceTable/ResourceTable.h"

namespace OvmResourceTable {

ResourceHandle::ResourceHandle(const Fenrik::Ptr<ResourceTable>& table,
                               const Fenrik::Ptr<Resource>& resource,
                               const Fenrik::Ptr<ResourceUse>& use)
    : table_(table), resource_(resource), use_(use) {
  table_->handleMade();
}

ResourceHandle::~ResourceHandle() { table_->handleGone(*this); }

}  // namespace OvmResourceTable
