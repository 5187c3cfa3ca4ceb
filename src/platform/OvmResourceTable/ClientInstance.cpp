#include "OvmResourceTable/ClientInstance.h"

#include "OvmResourceTable/ResourceTable.h"

namespace OvmResourceTable {

ClientInstance::ClientInstance(const Fenrik::Ptr<ResourceTable>& table)
    : table_(table), account_(table->makeAccount(this)) {}

ClientInstance::~ClientInstance() { account_->client = nullptr; }

Fenrik::Ptr<const ResourceHandle> ClientInstance::handleRequest(std::uint64_t key,
                                                                const Dependency& dependency) {
  return table_->request(*this, key, dependency);
}

void ClientInstance::handleAck(const Fenrik::Ptr<const ResourceHandle>& handle,
                               unsigned int updateNumber, const Dependency& dependency) {
  table_->ack(*this, handle.get(), updateNumber, dependency);
}

void ClientInstance::handleRelease(const Fenrik::Ptr<const ResourceHandle>& handle,
                                   const Dependency& dependency) {
  table_->release(*this, handle.get(), dependency);
}

}  // namespace OvmResourceTable
