#pragma once

#include <cstdint>

#include "Fenrik/Attribute.h"
#include "OrderedTable/EntryHandle.h"
#include "OrderedTable/NeededEntry.h"
#include "OvmResourceTable/Resource.h"

namespace OvmResourceTable {

class ResourceTable;

/// One client's hold on one resource.
///
/// State, value and update number change together, and are announced once, under `kValueField`. All
/// handles of a resource show the new ones before the first is announced.
///
/// Threads: the table thread.
///
/// I1. A client has at most one handle of a key that is not in post-release.
/// I2. A handle that was never acknowledged ends with its last pointer, and its request with it.
///     The account of an acknowledged handle stays in the table until it is released, even if
///     nobody holds the handle: its rows are in hardware.
class QUARNBASTIL_EXPORT ResourceHandle : public Fenrik::Publishing<Fenrik::Node> {
 public:
  static constexpr std::uint16_t kFieldBase = 512;
  /// Announces a change of state or value.
  static constexpr Fenrik::FieldId kValueField{kFieldBase + 5};

  ~ResourceHandle() override;

  /// Pending: no value yet. Done: has a value. Otherwise failed.
  Asic::EntryState entryState() const noexcept { return resource_->record.state; }
  /// Versions that must be in hardware before a row may use the value; null if there are none.
  const Fenrik::Ptr<const Asic::NeededEntry>& neededSet() const noexcept {
    return resource_->needed;
  }
  /// Increases with each change of the resource. 0 until the first value.
  unsigned int updateNumber() const noexcept { return resource_->record.updateNumber; }
  /// Whether the client has released the handle, so that it only awaits its end.
  bool isPostReleaseProtoState() const noexcept { return use_->released; }

  /// The key and the value as numbers, independent of the table's types.
  std::uint64_t keyNumber() const noexcept { return resource_->record.key; }
  std::uint64_t valueNumber() const noexcept { return resource_->record.value; }

 protected:
  ResourceHandle(const Fenrik::Ptr<ResourceTable>& table, const Fenrik::Ptr<Resource>& resource,
                 const Fenrik::Ptr<ResourceUse>& use);

 private:
  friend class ResourceTable;

  Fenrik::Ptr<ResourceTable> table_;
  Fenrik::Ptr<Resource> resource_;
  Fenrik::Ptr<ResourceUse> use_;
};

}  // namespace OvmResourceTable
