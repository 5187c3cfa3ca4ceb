#include "OrderedTable/TableDescriptor.h"

#include <cstring>
#include <map>
#include <mutex>

#include "Fenrik/Assert.h"

namespace Asic {

namespace {

/// Locked, because any thread may load a library.
struct Registry {
  std::mutex lock;
  std::map<SwTableId, const TableDescriptor*> byId;

  /// Never destroyed, because libraries unload in any order.
  static Registry& get() {
    static Registry& registry = *new Registry;
    return registry;
  }
};

}  // namespace

IdentityGuard::IdentityGuard(const TableDescriptor::Records& records, std::byte* entry) noexcept
    : records_(records), entry_(entry) {
  FENRIK_ASSERT(records.key.size <= key_.size());
  FENRIK_ASSERT(records.resourceKeys.size <= resourceKeys_.size());
  std::memcpy(key_.data(), entry, records.key.size);
  std::memcpy(resourceKeys_.data(), entry + records.resourceKeysInEntry, records.resourceKeys.size);
}

IdentityGuard::~IdentityGuard() {
  std::memcpy(entry_, key_.data(), records_.key.size);
  std::memcpy(entry_ + records_.resourceKeysInEntry, resourceKeys_.data(),
              records_.resourceKeys.size);
}

TableRegistration::TableRegistration(const TableDescriptor& descriptor)
    : tableId_(descriptor.tableId) {
  Registry& registry = Registry::get();
  const std::lock_guard guard(registry.lock);
  const bool isFirst = registry.byId.try_emplace(tableId_, &descriptor).second;
  FENRIK_ASSERT_TEXT(isFirst, "two families have one table id");
}

TableRegistration::~TableRegistration() {
  Registry& registry = Registry::get();
  const std::lock_guard guard(registry.lock);
  registry.byId.erase(tableId_);
}

std::vector<const TableDescriptor*> TableRegistration::all() {
  Registry& registry = Registry::get();
  const std::lock_guard guard(registry.lock);
  std::vector<const TableDescriptor*> descriptors;
  for (const auto& [id, descriptor] : registry.byId) descriptors.push_back(descriptor);
  return descriptors;
}

std::string textOf(const KeyText& key) {
  std::string text;
  key.descriptor.records.key.textAppend(text, key.key);
  return text;
}

std::string textOf(const LogEntryText& entry) {
  std::string text;
  entry.descriptor.records.logEntry.textAppend(text, entry.logEntry);
  return text;
}

std::string textOf(const EntryText& entry) {
  const TableDescriptor::Records& records = entry.descriptor.records;
  std::string text;
  records.logEntry.textAppend(text, entry.entry);
  if (!records.resourceKeys.empty()) {
    text += ' ';
    records.resourceKeys.textAppend(
        text, static_cast<const std::byte*>(entry.entry) + records.resourceKeysInEntry);
  }
  return text;
}

}  // namespace Asic
