#pragma once

#include <vector>

#include "Fenrik/Reactor.h"
#include "Kiv/KeyedAttribute.h"
#include "OrderedTable/EntryWrapperBase.h"
#include "OrderedTable/OutermostCall.h"
#include "OrderedTable/ResourceHooks.h"
#include "QuarnBastil/FamilyTraits.h"
#include "QuarnBastil/TcamActionTypes.h"
#include "QuarnL3NiLib/ReqIdToFecResourceTableResourceTable.h"

namespace Asic {
class EntryLogCore;
}

namespace QuarnBastil {

class QUARNBASTIL_EXPORT TcamActionSwTable;
class QUARNBASTIL_EXPORT TcamActionEntryWrapper;
class QUARNBASTIL_EXPORT TcamActionRequestIdToFecLinkage;

/// The part of the in-flight entry that concerns its resource.
class QUARNBASTIL_EXPORT TcamActionResourceWrapper : public Asic::EntryWrapperBase {
 public:
  using ResourceKey = QuarnL3NiLib::ReqIdToFecResourceTableEntryKey;
  using ResourceHandle = QuarnL3NiLib::ReqIdToFecResourceTableResourceTable::ResourceHandle;

  /// The attributes of the wrapper's resource.
  struct QUARNBASTIL_EXPORT ResourceRows {
    static constexpr std::uint16_t kCount = 3;
    static const Kiv::AttributeAccess kRequestId, kRequestIdResPtr, kDestId;

    FENRIK_SHARED_ATTRIBUTE(135, requestId, value, kRequestId);
    FENRIK_SHARED_ATTRIBUTE(136, requestIdResPtr, pointer, kRequestIdResPtr);
    FENRIK_SHARED_ATTRIBUTE(137, destId, value, kDestId);
  };

  ~TcamActionResourceWrapper() override;

  /// 0 if the entry needs no resource.
  const ResourceKey& requestId() const noexcept { return ownEntry().requestId; }
  /// The resource handle held while the entry is in flight, or null.
  const Fenrik::Ptr<const ResourceHandle>& requestIdResPtr() const noexcept {
    return requestIdResPtr_;
  }
  void requestIdResPtrIs(const Fenrik::Ptr<const ResourceHandle>& handle) {
    if (requestIdResPtr_ != handle) requestIdResPtr_ = handle;
  }
  /// The destination that the resource has now; 0 without a handle.
  std::uint32_t destId() const noexcept {
    return requestIdResPtr_ != nullptr ? requestIdResPtr_->destId() : 0;
  }
  /// Stores `destId` in the entry.
  void destIdStore() noexcept {
    reinterpret_cast<TcamActionEntry*>(entryBytes())->destId = destId();
  }

 protected:
  using EntryWrapperBase::EntryWrapperBase;

 private:
  const TcamActionEntry& ownEntry() const noexcept {
    return *reinterpret_cast<const TcamActionEntry*>(entryBytes());
  }

  Fenrik::Ptr<const ResourceHandle> requestIdResPtr_;
};

/// The part of the table that concerns its resources.
class QUARNBASTIL_EXPORT TcamActionResourceSwTable : public Asic::OrderedSwTable {
 public:
  using OrderedSwTable::OrderedSwTable;
  /// Nothing is released or acknowledged.
  ~TcamActionResourceSwTable() override;

  /// Never null in a table that its interface has made.
  const Fenrik::Ptr<TcamActionRequestIdToFecLinkage>& requestIdToFecLinkage() const noexcept {
    return requestIdToFecLinkage_;
  }
  void requestIdToFecLinkageIs(const Fenrik::Ptr<TcamActionRequestIdToFecLinkage>& linkage);

  /// The calls in progress of the table's agent.
  const Fenrik::Ptr<Asic::OutermostCall>& outermostCall() const noexcept { return outermostCall_; }
  void outermostCallIs(const Fenrik::Ptr<Asic::OutermostCall>& call) { outermostCall_ = call; }

 private:
  Fenrik::Ptr<Asic::OutermostCall> outermostCall_;
  Fenrik::Ptr<TcamActionRequestIdToFecLinkage> requestIdToFecLinkage_;
};

/// Links the table to the resource table that gives a destination to each request id: requests the
/// resource of an entry in flight, knows which configured entries use a resource, and logs them
/// again when it changes.
///
/// Threads: the table thread.
class QUARNBASTIL_EXPORT TcamActionRequestIdToFecLinkage final
    : public Fenrik::NodeClass<TcamActionRequestIdToFecLinkage, Fenrik::Publishing<Fenrik::Node>> {
 public:
  class LocalUsageUpdateSm;

  using SwTable = TcamActionSwTable;
  using EntryWrapper = TcamActionEntryWrapper;
  using Entry = TcamActionEntry;
  using EntryKey = TcamActionEntryKey;
  using ResourceTable = QuarnL3NiLib::ReqIdToFecResourceTableResourceTable;
  using ResourceKey = ResourceTable::Key;
  using ResourceHandle = ResourceTable::ResourceHandle;
  using ResourcePtr = Fenrik::Ptr<const ResourceHandle>;
  using ClientPtr = Fenrik::Ptr<ResourceTable::ClientInstance>;
  using SmPtr = Fenrik::Ptr<LocalUsageUpdateSm>;
  using WrapperPtr = Fenrik::Ptr<const EntryWrapper>;
  using KivModule = Kiv::Module<"TcamActionResourceTableLinkage", LocalUsageUpdateSm,
                                TcamActionRequestIdToFecLinkage>;
  using HN_EntryUsageSm =
      Kiv::Hm2018NE<0x31ede664, ResourceKey, SmPtr, Kiv::HashMap2018Alloc::slab>;
  using UsageMap = Kiv::HashMap2018<HN_EntryUsageSm, ResourceKey, SmPtr>;

  static constexpr std::uint16_t kFieldBase = 128;
  static constexpr Fenrik::FieldId kEntryUsageSmField{kFieldBase + 10};
  /// The table's attribute that holds the linkage.
  static constexpr Fenrik::FieldId kTableField{FamilyDefaults::kSwTableFieldBase + 31};

  TcamActionRequestIdToFecLinkage(TcamActionSwTable* swTable, const ClientPtr& resTblClient);
  ~TcamActionRequestIdToFecLinkage() override;

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, swTable, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, resTblClient, pointer);
  FENRIK_FUNCTION(kFieldBase + 4, updateLocalUsage);
  FENRIK_FUNCTION(kFieldBase + 5, entryResolutionState);
  FENRIK_FUNCTION(kFieldBase + 6, resolveEntry);
  FENRIK_FUNCTION(kFieldBase + 7, getNeededEntrySet);
  FENRIK_FUNCTION(kFieldBase + 8, restoreEntry);
  FENRIK_FUNCTION(kFieldBase + 9, handleResourceChangeAtInit);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 10, entryUsageSm, keyed);
  FENRIK_FUNCTION(kFieldBase + 11, resourceKey);
  FENRIK_FUNCTION(kFieldBase + 12, resourceKeyFromEntry);
  FENRIK_FUNCTION(kFieldBase + 13, resourceHandle);
  FENRIK_FUNCTION(kFieldBase + 14, setResourceHandle);

  /// Null once the table has been destroyed.
  TcamActionSwTable* swTable() const noexcept { return swTable_; }
  const ClientPtr& resTblClient() const noexcept { return resTblClient_; }

  // As `Asic::SwTableResourceAccessor`.
  void updateLocalUsage(const WrapperPtr& entry, const Entry& oldEntry, bool isDeleted);
  Asic::EntryState entryResolutionState(const WrapperPtr& entry);
  Fenrik::Ptr<Asic::NeededEntry> getNeededEntrySet(const WrapperPtr& entry);

  /// Requests the resource of an entry in flight and stores its handle in the wrapper.
  void resolveEntry(const Fenrik::Ptr<EntryWrapper>& entry);
  /// Accounts for an entry that an earlier agent configured. Acknowledges nothing.
  void restoreEntry(const WrapperPtr& entry);
  /// Treats every resource in use as changed: it may have changed while no agent was running.
  void handleResourceChangeAtInit();

  static const ResourceKey& resourceKey(const WrapperPtr& entry);
  static const ResourceKey& resourceKeyFromEntry(const Entry& swEntry) { return swEntry.requestId; }
  static const ResourcePtr& resourceHandle(const WrapperPtr& entry);
  /// Stores the handle in use in the wrapper, without requesting it.
  void setResourceHandle(const Fenrik::Ptr<EntryWrapper>& entry);

  /// The resources in use, by key.
  SmPtr entryUsageSm(const ResourceKey& resKey) const {
    return Kiv::Impl::keyedValue(entryUsageSm_, resKey);
  }
  bool entryUsageSmHas(const ResourceKey& resKey) const { return entryUsageSm_.memberHas(resKey); }
  unsigned entryUsageSmCount() const noexcept { return entryUsageSm_.memberCount(); }
  UsageMap::Iterator entryUsageSmIterator() const { return entryUsageSm_.begin(); }
  /// The object of the handle's key, created if it does not exist. Throws
  /// `Fenrik::MutatorArgNullPointerException` for null, and
  /// `Fenrik::MutatorReinstantiatingException` if another handle of the key is in use.
  SmPtr entryUsageSmIs(const ResourcePtr& resPtr);
  /// Removes the object, which then ignores its resource; null if the key is absent.
  SmPtr entryUsageSmDel(const ResourceKey& resKey);

  /// Prefetches what the update of a user, `ahead` updates from now, will touch.
  void updatePrefetch(const EntryKey& key, bool near, unsigned ahead) const noexcept;

  // Changes that wait for room in the log. While one does, the log keeps room for it: operations of
  // the table wait as with a full log.
  /// Whether the log has room for an update of all users.
  bool updatesRoom(const LocalUsageUpdateSm& sm) const;
  void updatesPostpone(LocalUsageUpdateSm& sm);
  void updatesDone(LocalUsageUpdateSm& sm);
  /// A report may have made room. An exception of a helper terminates the process, as in an update
  /// without delay.
  void handleRoom() noexcept;
  unsigned postponedCount() const noexcept { return static_cast<unsigned>(postponed_.size()); }

  /// The table is being destroyed. Resources are ignored from now on.
  void handleTableGone();

  static const Kiv::TraceHandle& traceHandle() noexcept;

 private:
  void reserve(LocalUsageUpdateSm& sm, std::uint32_t records);

  TcamActionSwTable* swTable_;
  ClientPtr resTblClient_;
  UsageMap entryUsageSm_;
  /// Resources whose change is postponed, oldest first, and the log that keeps room for them.
  std::vector<ResourceKey> postponed_;
  Fenrik::Ptr<Asic::EntryLogCore> reservedIn_;
};

/// The users of one resource, and the subscription to it.
class QUARNBASTIL_EXPORT TcamActionRequestIdToFecLinkage::LocalUsageUpdateSm final
    : public Fenrik::NodeClass<TcamActionRequestIdToFecLinkage::LocalUsageUpdateSm,
                               Fenrik::Reacting<LocalUsageUpdateSm>> {
 public:
  struct QUARNBASTIL_EXPORT EntryUsageKeyFunktor {
    const EntryKey& operator()(const EntryKey& key) const noexcept { return key; }
  };
  using HN_EntryUsage = Kiv::Hm2018NI<0x58c00257, EntryKey, EntryKey, EntryUsageKeyFunktor,
                                      Kiv::HashMap2018Alloc::slab>;
  using UserSet = Kiv::HashMap2018<HN_EntryUsage, EntryKey, EntryKey>;
  using KivModule = TcamActionRequestIdToFecLinkage::KivModule;
  static constexpr std::string_view kTypeName = "LocalUsageUpdateSm";
  static constexpr std::uint16_t kFieldBase = 128;

  LocalUsageUpdateSm(const ResourcePtr& resPtr, TcamActionRequestIdToFecLinkage* parent);
  ~LocalUsageUpdateSm() override;

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, resPtr, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, parent, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 4, swTable, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 5, resKey, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 6, entryUsage, keyed);
  FENRIK_FUNCTION(kFieldBase + 7, handleResourceChange);

  const ResourcePtr& resPtr() const noexcept { return resPtr_; }
  /// Null once the linkage has been destroyed.
  TcamActionRequestIdToFecLinkage* parent() const noexcept { return parent_; }
  TcamActionSwTable* swTable() const noexcept {
    return parent_ != nullptr ? parent_->swTable() : nullptr;
  }
  ResourceKey resKey() const noexcept { return resPtr_->key(); }

  /// The entries that use the resource.
  void entryUsageIs(const EntryKey& key);
  void entryUsageDel(const EntryKey& key) { entryUsage_.memberDel(key); }
  bool entryUsageHas(const EntryKey& key) const { return entryUsage_.memberHas(key); }
  unsigned entryUsageCount() const noexcept { return entryUsage_.memberCount(); }
  UserSet::Iterator entryUsageIterator() const { return entryUsage_.begin(); }

  /// As `Asic::SwTableResourceAccessor::handleResourceChange`.
  void handleResourceChange();

  // For `Fenrik::Reacting`.
  const Fenrik::Publisher* watchedPublisher() const {
    return resPtr_ != nullptr ? resPtr_->publisher() : nullptr;
  }
  void handleChange(const Fenrik::Change& change) {
    if (change.fieldId == ResourceHandle::kValueField) handleResourceChange();
  }

 private:
  friend class TcamActionRequestIdToFecLinkage;

  ResourcePtr resPtr_;
  TcamActionRequestIdToFecLinkage* parent_;
  UserSet entryUsage_;
  /// Log records that are kept free for its postponed change; 0 if none is postponed.
  std::uint32_t reserved_ = 0;
};

/// The row of the table's attribute that holds the linkage.
struct QUARNBASTIL_EXPORT TcamActionLinkRow {
  static constexpr const char* kName = "requestIdToFecLinkage";
  static const Kiv::AttributeAccess kAccess;
};

/// The hooks by which the generic logic of the table uses the linkage.
QUARNBASTIL_EXPORT extern const Asic::ResourceHooks kTcamActionResourceHooks;

}  // namespace QuarnBastil
