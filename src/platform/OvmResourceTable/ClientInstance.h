#pragma once

#include <cstdint>

#include "Fenrik/NodeClass.h"
#include "Kiv/HashMap2018.h"
#include "OvmResourceTable/ResourceHandle.h"

namespace OvmResourceTable {

/// The account of one user of a resource table, usually one software table. A typed table derives
/// its own class, whose public operations forward to the protected ones here.
///
/// A client acknowledges an update once all rows that use the resource have been logged again. The
/// provider keeps an old value in hardware until every client has acknowledged a newer update, and
/// the hardware has what was logged until then.
///
/// Threads: the table thread.
class QUARNBASTIL_EXPORT ClientInstance : public Fenrik::Node {
 public:
  ~ClientInstance() override;

  /// Number of the client in its table, from 1 in order of creation.
  unsigned clientNumber() const noexcept { return account_->number; }
  /// Handles that exist and are not in post-release.
  unsigned handleCount() const noexcept { return handles_.memberCount(); }

 protected:
  using Dependency = Fenrik::Ptr<const Asic::DependencyEntryHandle>;

  explicit ClientInstance(const Fenrik::Ptr<ResourceTable>& table);

  /// The client's handle of a key, created if it does not exist: never null, never in post-release.
  /// A handle for which the table has no room, or of key 0, is a failed one. `dependency` is only
  /// traced.
  Fenrik::Ptr<const ResourceHandle> handleRequest(std::uint64_t key, const Dependency& dependency);
  /// The client has taken in an update. `dependency` names the last log record that followed from
  /// it, or is null if there was none; it is kept, and asked for its version when the hardware
  /// reports. Without effect, and traced at level 1: a handle of another client or in post-release;
  /// a number that is not newer than the acknowledged one, or that the resource has not reached.
  void handleAck(const Fenrik::Ptr<const ResourceHandle>& handle, unsigned int updateNumber,
                 const Dependency& dependency);
  /// The client no longer uses the resource, once the named log record is in hardware. Without
  /// effect, and traced at level 1: a handle of another client or in post-release.
  void handleRelease(const Fenrik::Ptr<const ResourceHandle>& handle, const Dependency& dependency);

 private:
  friend class ResourceTable;

  using HN_Handle =
      Kiv::Hm2018NE<0x923f82a4, std::uint64_t, const ResourceHandle*, Kiv::HashMap2018Alloc::slab>;

  Fenrik::Ptr<ResourceTable> table_;
  Fenrik::Ptr<Account> account_;
  /// Not owned: a handle removes itself.
  Kiv::HashMap2018<HN_Handle, std::uint64_t, const ResourceHandle*> handles_;
};

}  // namespace OvmResourceTable
