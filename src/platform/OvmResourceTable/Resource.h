#pragma once

#include <cstdint>
#include <utility>

#include "Fenrik/NodeClass.h"
#include "OrderedTable/EntryHandle.h"
#include "OrderedTable/NeededEntry.h"

namespace OvmResourceTable {

class ClientInstance;
class ResourceHandle;

/// A resource as stored in shared memory.
struct ResourceRecord {
  std::uint64_t key = 0;
  std::uint64_t value = 0;
  Asic::EntryState state = Asic::EntryState::entryPending;
  unsigned int updateNumber = 0;
};

/// Who uses resources: a client, or what is left of one.
class QUARNBASTIL_EXPORT Account final : public Fenrik::NodeClass<Account> {
 public:
  /// Number of the rows that an earlier agent left.
  static constexpr unsigned kEarlierAgent = 0;

  Account(unsigned clientNumber, ClientInstance* instance)
      : number(clientNumber), client(instance) {}
  ~Account() override;

  const unsigned number;
  /// Null once the client has been destroyed.
  ClientInstance* client;
};

/// One client's account of one resource. Outlives the handle as long as rows may be in hardware.
class QUARNBASTIL_EXPORT ResourceUse final
    : public Fenrik::NodeClass<ResourceUse, Fenrik::Node, Fenrik::Storage::slabPerWrite> {
 public:
  explicit ResourceUse(Fenrik::Ptr<Account> user) : account(std::move(user)) {}
  ~ResourceUse() override;

  /// An acknowledgement or a release, until the hardware has what was logged until then.
  struct Wait {
    unsigned int updateNumber = 0;
    bool active = false;
    /// The log record named by the client, or null.
    Fenrik::Ptr<const Asic::DependencyEntryHandle> dependency;
    /// The newest version that was announced for the record's table.
    Asic::TableVersion fence;
  };

  const Fenrik::Ptr<Account> account;
  /// The newest update that the client has acknowledged.
  unsigned int acknowledged = 0;
  /// The newest acknowledged update that is in hardware.
  unsigned int inHardware = 0;
  /// The client has acknowledged at least once: rows may be in hardware.
  bool hasRows = false;
  /// The hardware has, or may have, a value from before the restart in the client's rows: no
  /// update with a value has come through yet.
  bool valueUnknown = false;
  bool released = false;
  /// In the table's list of waiting uses.
  bool listed = false;
  /// No longer one of the resource's.
  bool over = false;
  /// The oldest and the newest acknowledgement in progress. Those between them need not be waited
  /// for: the newest comes after them in the same log.
  Wait oldest;
  Wait newest;
  /// What the hardware must report, or has reported, for the last wait.
  Asic::TableVersion version;
  /// Everything that was announced when a use without client was found to be over.
  Fenrik::Ptr<const Asic::NeededEntry> everything;
  /// Null once the handle has been destroyed.
  const ResourceHandle* handle = nullptr;
  Fenrik::Ptr<ResourceUse> next;
};

/// One resource: its value, who uses it, and the values that hardware may still have.
class QUARNBASTIL_EXPORT Resource final : public Fenrik::NodeClass<Resource> {
 public:
  /// A value that was replaced by the update `newer`.
  struct OldValue final : Fenrik::NodeClass<OldValue, Fenrik::Node, Fenrik::Storage::slabPerWrite> {
    OldValue(std::uint64_t number, unsigned int newerNumber, Fenrik::Ptr<OldValue> following)
        : value(number), newer(newerNumber), next(std::move(following)) {}
    ~OldValue() override;

    const std::uint64_t value;
    unsigned int newer;
    Fenrik::Ptr<OldValue> next;
  };

  explicit Resource(std::uint64_t key) { record.key = key; }
  ~Resource() override;

  /// What handles show.
  ResourceRecord record;
  Fenrik::Ptr<const Asic::NeededEntry> needed;
  /// The provider has given a value, which is in shared memory.
  bool given = false;
  /// The provider has withdrawn the value, and clients still use it.
  bool ending = false;
  /// The provider knows that the resource is, or was, asked for.
  bool wantedTold = false;
  /// In the table's list of resources to look at when the outermost call has ended.
  bool due = false;
  Fenrik::Ptr<ResourceUse> uses;
  Fenrik::Ptr<OldValue> oldValues;
};

}  // namespace OvmResourceTable
