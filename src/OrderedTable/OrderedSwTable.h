#pragma once

#include <functional>
#include <memory>

#include "Fenrik/Attribute.h"
#include "Kiv/Entity.h"
#include "OrderedTable/EntryHandle.h"
#include "OrderedTable/OrderedSwTableStatus.h"
#include "OrderedTable/SwTableStats.h"
#include "OrderedTable/TableName.h"
#include "OrderedTable/TableVersion.h"
#include "OrderedTable/UnitId.h"

namespace Asic {

class OrderedSwTableSet;
class ResolverEntry;
class TableCore;

/// Base class of all software tables: what the framework needs from a table.
class QUARNBASTIL_EXPORT SwTableBase : public Kiv::Entity {
 public:
  using KivModule = struct OrderedSwTableModule;
  using KivSelf = SwTableBase;
  using KivBase = Kiv::Entity;
  static constexpr std::uint16_t kFieldBase = 256;
  using EntryState = Asic::EntryState;
  using enum Asic::EntryState;

  /// The handle of one client operation.
  class QUARNBASTIL_EXPORT EntryHandle : public DependencyEntryHandle {
   public:
    using KivSelf = EntryHandle;
    using KivBase = DependencyEntryHandle;
    static constexpr std::uint16_t kFieldBase = 256;
    static constexpr Fenrik::FieldId kLogVersionField{kFieldBase + 3};
    static constexpr std::string_view kTypeName = "SwTableEntryHandle";

    FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, version, value);
    FENRIK_READ_ONLY(kFieldBase + 3, logVersion, value);

    explicit EntryHandle(const EntryVersion& version) : version_(version) {}
    ~EntryHandle() override;

    /// Distinguishes the operations in flight on the handle's key.
    const EntryVersion& version() const noexcept { return version_; }
    /// Version of the operation in the table's log; 0 if it was not logged.
    LogVersion logVersion() const noexcept { return logVersion_; }

    /// Sets and announces the state.
    void entryStateIs(EntryState state) { entryStateStore(state); }
    void logVersionIs(LogVersion version);

    TableVersion entryTableVersion() const override;

   private:
    EntryVersion version_;
    LogVersion logVersion_{};
  };

  ~SwTableBase() override;

  FENRIK_FUNCTION(kFieldBase + 2, doCreateHwTable);
  FENRIK_FUNCTION(kFieldBase + 3, doCreateHwTableResponse);

  virtual void doCreateHwTable();
  virtual void doCreateHwTableResponse();
};

/// A software table with a name.
class QUARNBASTIL_EXPORT NamedSwTable : public SwTableBase {
 public:
  using KivSelf = NamedSwTable;
  using KivBase = SwTableBase;
  static constexpr std::uint16_t kFieldBase = 384;

  FENRIK_FUNCTION(kFieldBase + 2, reconcile);

  ~NamedSwTable() override;

  /// Does nothing: a table's configuration is already in shared memory. The interface reconciles
  /// units.
  virtual void reconcile();
};

/// A software table whose operations reach the hardware through an ordered log.
class QUARNBASTIL_EXPORT OrderedSwTable : public NamedSwTable {
 public:
  using KivSelf = OrderedSwTable;
  using KivBase = NamedSwTable;
  static constexpr std::uint16_t kFieldBase = 512;

  class QUARNBASTIL_EXPORT EntryHandle : public SwTableBase::EntryHandle {
   public:
    using KivSelf = EntryHandle;
    using KivBase = SwTableBase::EntryHandle;
    static constexpr std::uint16_t kFieldBase = 384;
    static constexpr std::string_view kTypeName = "OrderedSwTableEntryHandle";

    FENRIK_FUNCTION(kFieldBase + 2, rejection);

    using ResponseHandler = std::function<void(const Fenrik::Ptr<const EntryHandle>&)>;

    using SwTableBase::EntryHandle::EntryHandle;
    ~EntryHandle() override;

    /// Called once when the outcome is known. May be empty.
    const ResponseHandler& responseHandler() const noexcept { return responseHandler_; }
    void responseHandlerIs(const ResponseHandler& handler) { responseHandler_ = handler; }

    /// Reason for the rejection. Empty unless the table itself rejected the operation.
    Fenrik::String rejection() const;
    /// Sets the state `entryRejected` and its reason.
    void rejectionIs(const Fenrik::String& reason);

    /// The operation's key, an object of the family's type; null if the handle has none.
    virtual const void* keyBytes() const noexcept { return nullptr; }

   private:
    ResponseHandler responseHandler_;
    std::unique_ptr<const Fenrik::String> rejection_;
  };

  OrderedSwTable(const Fenrik::Ptr<const CanonicalTableName>& name, SwTableId tableId,
                 UnitId unitId, OrderedSwTableSet* swTableSet);
  ~OrderedSwTable() override;

  const Fenrik::Publisher* publisher() const override { return &publisher_; }

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, canonicalName, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, tableId, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 4, unitId, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 5, swTableSet, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 6, status, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 7, stats, pointer);
  FENRIK_FUNCTION(kFieldBase + 8, tableStatusVersion);
  FENRIK_FUNCTION(kFieldBase + 9, hasPendingHwWrites);

  const Fenrik::Ptr<const CanonicalTableName>& canonicalName() const noexcept { return name_; }
  SwTableId tableId() const noexcept { return tableId_; }
  UnitId unitId() const noexcept { return unitId_; }
  /// Null once the set has been destroyed.
  OrderedSwTableSet* swTableSet() const noexcept { return swTableSet_; }
  const Fenrik::Ptr<OrderedSwTableStatus>& status() const noexcept { return status_; }
  const Fenrik::Ptr<SwTableStats>& stats() const noexcept { return stats_; }

  /// Creates the table's counters.
  void statsIs();
  void statusIs(const Fenrik::Ptr<OrderedSwTableStatus>& status);

  /// The implementation; null for a table that is not built on `TableCore`.
  TableCore* core() const noexcept { return core_; }

  /// Called with a report of the hardware writer: all log records up to `version` are in hardware.
  virtual void tableStatusVersion(LogVersion version) = 0;
  /// Whether operations or log records of the table have not reached the hardware.
  virtual bool hasPendingHwWrites() const = 0;
  /// Commits an operation that the resolver has taken from the queue.
  virtual void commitEntry(const Fenrik::Ptr<ResolverEntry>& resolverEntry) = 0;

 protected:
  static constexpr Fenrik::FieldId kStatusField{kFieldBase + 6};
  static constexpr Fenrik::FieldId kStatsField{kFieldBase + 7};

  Fenrik::Publisher publisher_;

 private:
  friend class OrderedSwTableSet;
  friend class TableCore;

  void coreIs(TableCore* core) noexcept { core_ = core; }

  Fenrik::Ptr<const CanonicalTableName> name_;
  SwTableId tableId_;
  UnitId unitId_;
  OrderedSwTableSet* swTableSet_;
  Fenrik::Ptr<OrderedSwTableStatus> status_;
  Fenrik::Ptr<SwTableStats> stats_;
  TableCore* core_ = nullptr;
};

using ResponseHandler = OrderedSwTable::EntryHandle::ResponseHandler;

}  // namespace Asic
