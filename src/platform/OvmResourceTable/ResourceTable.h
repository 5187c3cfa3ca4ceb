#pragma once

#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "Kiv/HashMap2018.h"
#include "Kiv/TraceHandle.h"
#include "OrderedTable/NeededEntry.h"
#include "OrderedTable/OrderedSwTable.h"
#include "OrderedTable/OrderedTableInterface.h"
#include "OrderedTable/OutermostCall.h"
#include "OvmResourceTable/Resource.h"
#include "OvmResourceTable/ResourceHandle.h"

namespace OvmResourceTable {

class ClientInstance;

/// One client's use of one resource, as shown to the provider.
struct ResourceUser {
  /// Number of the client; 0 for rows that an earlier agent left.
  unsigned clientNumber = 0;
  /// The update that the client has taken in; 0 if none.
  unsigned int updateNumber = 0;
  /// What the hardware must report, or has reported, for that update to be in hardware.
  Asic::TableVersion tableVersion;
  /// The newest update known to be in hardware in all rows of the client; 0 if none.
  unsigned int updateNumberInHw = 0;
  /// The client has released the resource; its last rows may still be in hardware.
  bool released = false;
};

/// The part of a resource table that is independent of the types of key and value: lives of
/// handles, clients with their accounts, update numbers, acknowledgements, releases, and what is
/// told to the provider. Keys and values appear as numbers.
///
/// Make before break: a value that was replaced is told unused only when, for every client that
/// uses the resource, a newer update was acknowledged and the hardware writer has reported
/// everything that was logged until then.
///
/// Threads: the table thread.
///
/// I1. A value is in shared memory before any handle shows it.
/// I2. Rows that an earlier agent left, or a client that ended without releasing, count as users
///     until `reconcile` and the reports after it.
/// I3. Nothing is told to a provider, and no value changes, within a call; see
///     `Asic::OutermostCall`.
class QUARNBASTIL_EXPORT ResourceTable : public Asic::NamedSwTable,
                                         private Asic::OutermostCall::Listener {
 public:
  ~ResourceTable() override;

  const Fenrik::Publisher* publisher() const override { return &publisher_; }

  const Fenrik::Ptr<const Asic::CanonicalTableName>& canonicalName() const noexcept {
    return name_;
  }
  /// Resources with a value, including failed ones.
  unsigned entryCount() const noexcept { return entryCount_; }
  /// Resources with a value, or asked for by a client.
  unsigned resourceCount() const noexcept { return resources_.memberCount(); }
  /// Handles in existence, of all clients, including those in post-release.
  unsigned handleCount() const noexcept { return handleCount_; }

  /// All tables that use resources have been made, and restored what an earlier agent left: what
  /// they have not asked for is not used any more, once the hardware has all that is logged now.
  /// Before the first call nothing is told unused. Call again after tables were made anew.
  void reconcile() override;
  /// Whether every row in hardware uses a value that the table knows: `reconcile` was called, the
  /// hardware has reported what was logged then, and every restored resource is taken in.
  bool earlierSettled() const noexcept { return earlierSettled_; }

  /// The hardware writer has reported something: looks which acknowledged and released log records
  /// are in hardware. Called by the agent's pump.
  void handleReports() override;

 protected:
  ResourceTable(const Fenrik::Ptr<const Asic::CanonicalTableName>& name,
                const Fenrik::Ptr<Asic::OrderedTableInterface>& ordTblIntf,
                const Kiv::TraceHandle& trace);

  /// A value that an earlier agent left, and what it is to require. REQUIRES: called in the
  /// constructor of the typed table.
  void restore(const ResourceRecord& record, const Fenrik::Ptr<const Asic::NeededEntry>& needed);

  /// Installs a provider by `install`, and tells it which resources are wanted.
  template <class Install>
  void providerIs(Install install) {
    Asic::OutermostCall::Scope call(calls_);
    install();
    wantedAgain();
    call.end();
  }
  /// As `QuarnL3NiLib::ReqIdToFecResourceTableResourceTable::resourceIs` and `resourceDel`.
  void valueIs(const ResourceRecord& record, const Fenrik::Ptr<const Asic::NeededEntry>& needed);
  bool valueDel(std::uint64_t key);

  /// Null if the table does not know the key.
  Resource* find(std::uint64_t key) const;
  std::vector<ResourceUser> usersOf(std::uint64_t key) const;
  bool valueUsed(std::uint64_t value) const;

  /// What a typed table supplies: its handles, its collection, its provider.
  virtual Fenrik::Ptr<ResourceHandle> makeHandle(const Fenrik::Ptr<Resource>& resource,
                                                 const Fenrik::Ptr<ResourceUse>& use) = 0;
  virtual void recordIs(const ResourceRecord& record) = 0;
  virtual void recordDel(std::uint64_t key) = 0;
  virtual bool recordsFull() const = 0;
  virtual void tellWanted(std::uint64_t key) = 0;
  virtual void tellUnwanted(std::uint64_t key) = 0;
  virtual void tellValueUnused(std::uint64_t value) = 0;
  virtual void tellEarlierSettled() = 0;

  Fenrik::Publisher publisher_;

 private:
  friend class ClientInstance;
  friend class ResourceHandle;

  using Dependency = Fenrik::Ptr<const Asic::DependencyEntryHandle>;
  using HN_Resource =
      Kiv::Hm2018NE<0x550c7dc3, std::uint64_t, Fenrik::Ptr<Resource>, Kiv::HashMap2018Alloc::slab>;

  struct ValueUses {
    /// Resources that have the value, or had it while rows may still do.
    unsigned count = 0;
    /// In the list of values to look at when the outermost call has ended.
    bool due = false;
  };
  using HN_Value = Kiv::Hm2018NE<0x72be5d74, std::uint64_t, ValueUses, Kiv::HashMap2018Alloc::slab>;

  /// A provider's call that was put off.
  struct PutOff {
    ResourceRecord record;
    Fenrik::Ptr<const Asic::NeededEntry> needed;
    bool withdrawn = false;
  };

  // For clients and handles.
  Fenrik::Ptr<Account> makeAccount(ClientInstance* client);
  Fenrik::Ptr<const ResourceHandle> request(ClientInstance& client, std::uint64_t key,
                                            const Dependency& dependency);
  Fenrik::Ptr<const ResourceHandle> newHandle(ClientInstance& client, std::uint64_t key);
  Fenrik::Ptr<Resource> requested(std::uint64_t key);
  void ack(const ClientInstance& client, const ResourceHandle* handle, unsigned int updateNumber,
           const Dependency& dependency);
  void release(const ClientInstance& client, const ResourceHandle* handle,
               const Dependency& dependency);
  void handleMade() noexcept { ++handleCount_; }
  void handleGone(const ResourceHandle& handle) noexcept;

  // For providers.
  void check(const ResourceRecord& record) const;
  void putOff(PutOff work);
  bool putOffDel(std::uint64_t key);
  void apply(const ResourceRecord& record, const Fenrik::Ptr<const Asic::NeededEntry>& needed);
  void store(Resource& resource, const ResourceRecord& record);
  void withdraw(Resource& resource);
  void show(Resource& resource, const ResourceRecord& record);
  void notify(const Resource& resource);

  // What the hardware has.
  void waitAdd(Resource& resource, ResourceUse& use, unsigned int updateNumber,
               const Dependency& dependency);
  bool inHardware(const ResourceUse::Wait& wait);
  bool inHardware(const Asic::NeededEntry& everything);
  void proceed(Resource& resource, ResourceUse& use);
  void valueUnknownIs(ResourceUse& use, bool unknown) noexcept;
  void useDel(Resource& resource, ResourceUse& use) noexcept;
  void oldValuesDrop(Resource& resource) noexcept;
  void valueAdd(std::uint64_t value);
  void valueDrop(std::uint64_t value) noexcept;
  Asic::LogVersion reported(Asic::SwTableId tableId);
  void settleEarlier();

  // What is told when the outermost call has ended.
  void wantedAgain();
  void dueIs(Resource& resource) noexcept;
  void tell(Resource& resource);
  void forget(Resource& resource);
  bool callEndDue() const noexcept override;
  void handleCallEnd() override;
  void doPutOff();

  const Kiv::TraceHandle& trace_;
  Fenrik::Ptr<const Asic::CanonicalTableName> name_;
  Fenrik::Ptr<Asic::OutermostCall> calls_;
  Kiv::HashMap2018<HN_Resource, std::uint64_t, Fenrik::Ptr<Resource>> resources_;
  /// Every value other than 0.
  Kiv::HashMap2018<HN_Value, std::uint64_t, ValueUses> values_;
  unsigned entryCount_ = 0;
  unsigned handleCount_ = 0;
  unsigned clients_ = 0;
  Fenrik::Ptr<Account> earlierAgent_;
  /// Uses that wait for a report, each with its resource.
  std::vector<std::pair<Fenrik::Ptr<Resource>, Fenrik::Ptr<ResourceUse>>> waiting_;
  /// The newest reports known, by table.
  std::vector<Asic::TableVersion> reports_;
  std::vector<Fenrik::Ptr<Resource>> dueResources_;
  std::vector<std::uint64_t> dueValues_;
  std::deque<PutOff> putOff_;
  /// Handles being notified of a change.
  std::vector<Fenrik::Ptr<const ResourceHandle>> notified_;
  /// Everything that was announced at `reconcile`; null before.
  Fenrik::Ptr<const Asic::NeededEntry> earlierEnd_;
  /// Uses with a value that is not known.
  unsigned unknownValues_ = 0;
  bool earlierSettled_ = false;
  bool earlierSettledDue_ = false;
};

}  // namespace OvmResourceTable
