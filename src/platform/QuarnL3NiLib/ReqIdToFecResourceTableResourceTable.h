#pragma once

#include <memory>
#include <vector>

#include "Fenrik/NodeClass.h"
#include "OrderedTable/OrderedTableInterface.h"
#include "OvmResourceTable/ClientInstance.h"
#include "OvmResourceTable/ResourceRefusedException.h"
#include "OvmResourceTable/ResourceTable.h"
#include "QuarnL3NiLib/ReqIdToFecResourceTableEntryKey.h"

namespace QuarnL3NiLib {

class ReqIdToFecResourceDrift;

/// What the provider of destinations is told. Called when the outermost call into the tables has
/// ended; may call everything. An exception passes through that call; the next call, or the next
/// pump, goes on behind it.
///
/// Threads: the table thread.
class QUARNBASTIL_EXPORT ReqIdToFecProvider : public Fenrik::Node {
 public:
  ~ReqIdToFecProvider() override;

  /// A client asks for a request id that has no value.
  virtual void handleResourceWanted(const ReqIdToFecResourceTableEntryKey& key);
  /// No row in hardware uses the request id any more, and no client asks for it.
  virtual void handleResourceUnwanted(const ReqIdToFecResourceTableEntryKey& key);
  /// No row in hardware uses the destination any more, and no request id has it: it may be taken
  /// down.
  virtual void handleDestIdUnused(std::uint32_t destId);
  /// What an earlier agent left in hardware is settled: from now on `destIdUsed` answers for all
  /// rows in hardware, and destinations that it denies may be taken down.
  virtual void handleEarlierSettled();
};

/// The resource table that maps request ids to destination ids, that is, next hops. The provider
/// (the agent's routing side) gives the destinations; clients (software tables) use them.
///
///     const auto resources = Fenrik::ptrIsImpl<ReqIdToFecResourceTableResourceTable>(tables);
///     tables->resourceTableIs(resources->canonicalName()->name(), resources);
///     resources->providerIs(provider);
///     ... make the tables that use resources, reconcile their interfaces ...
///     resources->reconcile();
///     resources->valueIs(key, destId, rowsOfTheDestination);
///
/// Values are in shared memory before they are announced, and a new agent has them back when the
/// constructor returns. Needed sets are not: a restored value requires everything that any table
/// had announced at that time, until its provider gives it again.
///
/// Calls of the provider from within a hook, a handler, a commit or a call of the table itself are
/// checked at once and take effect when the outermost call has ended.
///
/// Threads: the table thread.
class QUARNBASTIL_EXPORT ReqIdToFecResourceTableResourceTable final
    : public Fenrik::NodeClass<ReqIdToFecResourceTableResourceTable,
                               OvmResourceTable::ResourceTable> {
 public:
  using Key = ReqIdToFecResourceTableEntryKey;
  using EntryState = Asic::EntryState;

  static constexpr const char* kTableNamespace = "QuarnL3NiLib";
  static constexpr const char* kTableName = "ReqIdToFecResourceTable.TrafficPolicyIntfInput";

  class ResourceHandle;
  class ClientInstance;

  using KivModule = struct ReqIdToFecResourceTableModule;
  static constexpr std::uint16_t kFieldBase = 640;

  FENRIK_FUNCTION(kFieldBase + 2, makeClientInstance);
  FENRIK_FUNCTION(kFieldBase + 3, resourceIs);
  FENRIK_FUNCTION(kFieldBase + 4, failureIs);
  FENRIK_FUNCTION(kFieldBase + 5, resourceDel);
  FENRIK_FUNCTION(kFieldBase + 6, resourceHas);
  FENRIK_FUNCTION(kFieldBase + 7, entryState);
  FENRIK_FUNCTION(kFieldBase + 8, destId);
  FENRIK_FUNCTION(kFieldBase + 9, updateNumber);
  FENRIK_FUNCTION(kFieldBase + 10, destIdUsed);

  /// Mounts the values. Throws `Drift::MountException`.
  explicit ReqIdToFecResourceTableResourceTable(
      const Fenrik::Ptr<Asic::OrderedTableInterface>& ordTblIntf);
  ~ReqIdToFecResourceTableResourceTable() override;

  /// A new client, with an account of its own.
  Fenrik::Ptr<ClientInstance> makeClientInstance();

  /// Installs the provider, which is told at once which request ids are wanted. Null removes it.
  void providerIs(const Fenrik::Ptr<ReqIdToFecProvider>& provider);

  /// Sets the state and the destination of a request id: one change, one announcement, one update
  /// number; none of them if both are the same as before. `needed` names the versions that must be
  /// in hardware before a row may use the destination; null if there are none.
  ///
  /// Throws `ResourceRefusedException` for key 0, state 2 or above 6, and a key whose value was
  /// withdrawn and is still used; and `Drift::CollectionFullException` or
  /// `Drift::NoSpaceException`, in which case clients that wait for the key see it fail.
  void resourceIs(const Key& key, EntryState state, std::uint32_t destId,
                  const Fenrik::Ptr<const Asic::NeededEntry>& needed);
  /// The request id has a destination.
  void valueIs(const Key& key, std::uint32_t destId,
               const Fenrik::Ptr<const Asic::NeededEntry>& needed) {
    resourceIs(key, EntryState::entryDone, destId, needed);
  }
  /// The next hop is down. Handles keep showing the destination that the request id has, so rows
  /// may keep it until there is another one. (`resourceIs` with a failed state and destination 0 is
  /// for clients whose rows then let go of it.)
  void failureIs(const Key& key);
  /// Withdraws the request id for good: clients see it fail, as `entryRejected` with destination 0,
  /// and their rows must let go of the destination. It cannot be given a value until none of them
  /// uses it. False if it is unknown.
  bool resourceDel(const Key& key);

  /// Whether the request id has been given a value, and was not withdrawn.
  bool resourceHas(const Key& key) const;
  EntryState entryState(const Key& key) const;
  std::uint32_t destId(const Key& key) const;
  unsigned int updateNumber(const Key& key) const;
  /// Who uses the request id: which update each client has taken in, up to which version.
  std::vector<OvmResourceTable::ResourceUser> users(const Key& key) const;
  /// Whether a request id has the destination, or a row in hardware may still use it. Rows that an
  /// earlier agent left count only through the values restored, see `earlierSettled`.
  bool destIdUsed(std::uint32_t destId) const;

  const Fenrik::Ptr<ReqIdToFecResourceDrift>& drift() const noexcept { return drift_; }

 private:
  Fenrik::Ptr<OvmResourceTable::ResourceHandle> makeHandle(
      const Fenrik::Ptr<OvmResourceTable::Resource>& resource,
      const Fenrik::Ptr<OvmResourceTable::ResourceUse>& use) override;
  void recordIs(const OvmResourceTable::ResourceRecord& record) override;
  void recordDel(std::uint64_t key) override;
  bool recordsFull() const override;
  void tellWanted(std::uint64_t key) override;
  void tellUnwanted(std::uint64_t key) override;
  void tellValueUnused(std::uint64_t value) override;
  void tellEarlierSettled() override;

  Fenrik::Ptr<ReqIdToFecResourceDrift> drift_;
  Fenrik::Ptr<ReqIdToFecProvider> provider_;
};

/// One client's hold on one request id.
class QUARNBASTIL_EXPORT ReqIdToFecResourceTableResourceTable::ResourceHandle final
    : public Fenrik::NodeClass<ReqIdToFecResourceTableResourceTable::ResourceHandle,
                               OvmResourceTable::ResourceHandle, Fenrik::Storage::slabPerWrite> {
 public:
  using KivModule = struct ReqIdToFecResourceTableModule;
  static constexpr std::string_view kTypeName = "ResourceHandle";

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, key, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, entryState, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 4, updateNumber, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 5, destId, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 6, neededSet, pointer);
  FENRIK_FUNCTION(kFieldBase + 7, isPostReleaseProtoState);

  using NodeClass::NodeClass;
  ~ResourceHandle() override;

  Key key() const noexcept { return Key(keyNumber()); }
  /// The destination given with the state; 0 if there was none.
  std::uint32_t destId() const noexcept { return static_cast<std::uint32_t>(valueNumber()); }
};

/// One client's account. See `OvmResourceTable::ClientInstance`.
class QUARNBASTIL_EXPORT ReqIdToFecResourceTableResourceTable::ClientInstance final
    : public Fenrik::NodeClass<ReqIdToFecResourceTableResourceTable::ClientInstance,
                               OvmResourceTable::ClientInstance> {
 public:
  using KivModule = struct ReqIdToFecResourceTableModule;
  static constexpr std::string_view kTypeName = "ClientInstance";
  static constexpr std::uint16_t kFieldBase = 256;

  FENRIK_FUNCTION(kFieldBase + 2, request);
  FENRIK_FUNCTION(kFieldBase + 3, ackUpdate);
  FENRIK_FUNCTION(kFieldBase + 4, release);

  using NodeClass::NodeClass;
  ~ClientInstance() override;

  Fenrik::Ptr<const ResourceHandle> request(const Key& key, const Dependency& dependency) {
    return Fenrik::staticPtrCast<const ResourceHandle>(handleRequest(key.value(), dependency));
  }
  void ackUpdate(const Fenrik::Ptr<const ResourceHandle>& handle, unsigned int updateNumber,
                 const Dependency& dependency) {
    handleAck(handle, updateNumber, dependency);
  }
  void release(const Fenrik::Ptr<const ResourceHandle>& handle, const Dependency& dependency) {
    handleRelease(handle, dependency);
  }
};

struct QUARNBASTIL_EXPORT ReqIdToFecResourceTableModule
    : Kiv::Module<"ReqIdToFecResourceTable", ReqIdToFecResourceTableResourceTable::ResourceHandle,
                  ReqIdToFecResourceTableResourceTable::ClientInstance,
                  ReqIdToFecResourceTableResourceTable> {};

}  // namespace QuarnL3NiLib
