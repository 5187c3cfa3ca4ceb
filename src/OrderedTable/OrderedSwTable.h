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

/// Base of every software table: what the framework asks of one.
class QUARNBASTIL_EXPORT SwTableBase : public Kiv::Entity {
 public:
  using EntryState = Asic::EntryState;
  using enum Asic::EntryState;

  /// The handle of one client operation.
  class QUARNBASTIL_EXPORT EntryHandle : public DependencyEntryHandle {
   public:
    explicit EntryHandle(const EntryVersion& version) : version_(version) {}
    ~EntryHandle() override;

    /// Counts the operations on the handle's key that are in flight together.
    const EntryVersion& version() const noexcept { return version_; }
    /// Where the operation stands in the table's log; 0 if it was not logged.
    LogVersion logVersion() const noexcept { return logVersion_; }

    /// Stores the state; whoever holds the handle reads the new one from then on.
    void entryStateIs(EntryState state) { entryStateStore(state); }
    void logVersionIs(LogVersion version);

    TableVersion entryTableVersion() const override;

   private:
    EntryVersion version_;
    LogVersion logVersion_{};
  };

  ~SwTableBase() override;

  virtual void doCreateHwTable();
  virtual void doCreateHwTableResponse();
};

/// A software table with a name.
class QUARNBASTIL_EXPORT NamedSwTable : public SwTableBase {
 public:
  ~NamedSwTable() override;

  /// Nothing to do for a table: what is configured is its memory. The interface reconciles units.
  virtual void reconcile();
};

/// A software table whose operations reach the hardware through an ordered log.
class QUARNBASTIL_EXPORT OrderedSwTable : public NamedSwTable {
 public:
  class QUARNBASTIL_EXPORT EntryHandle : public SwTableBase::EntryHandle {
   public:
    using ResponseHandler = std::function<void(const Fenrik::Ptr<const EntryHandle>&)>;

    using SwTableBase::EntryHandle::EntryHandle;
    ~EntryHandle() override;

    /// Called once when the outcome is known; may be empty.
    const ResponseHandler& responseHandler() const noexcept { return responseHandler_; }
    void responseHandlerIs(const ResponseHandler& handler) { responseHandler_ = handler; }

    /// Why the operation was rejected; empty unless the table itself rejected it.
    Fenrik::String rejection() const;
    /// Ends the operation in `entryRejected`, for a reason.
    void rejectionIs(const Fenrik::String& reason);

    /// The key operated on, an object of the family's type; null if the handle has none.
    virtual const void* keyBytes() const noexcept { return nullptr; }

   private:
    ResponseHandler responseHandler_;
    std::unique_ptr<const Fenrik::String> rejection_;
  };

  OrderedSwTable(const Fenrik::Ptr<const CanonicalTableName>& name, SwTableId tableId,
                 UnitId unitId, OrderedSwTableSet* swTableSet);
  ~OrderedSwTable() override;

  const Fenrik::Publisher* publisher() const override { return &publisher_; }

  const Fenrik::Ptr<const CanonicalTableName>& canonicalName() const noexcept { return name_; }
  SwTableId tableId() const noexcept { return tableId_; }
  UnitId unitId() const noexcept { return unitId_; }
  /// Null once the set has gone.
  OrderedSwTableSet* swTableSet() const noexcept { return swTableSet_; }
  const Fenrik::Ptr<OrderedSwTableStatus>& status() const noexcept { return status_; }
  const Fenrik::Ptr<SwTableStats>& stats() const noexcept { return stats_; }

  /// Makes the table's counters.
  void statsIs();
  void statusIs(const Fenrik::Ptr<OrderedSwTableStatus>& status);

  /// What the table does; null for a table of another make.
  TableCore* core() const noexcept { return core_; }

  /// Report of the hardware side: every log record up to `version` is in hardware.
  virtual void tableStatusVersion(LogVersion version) = 0;
  /// Whether the table still owes the hardware anything.
  virtual bool hasPendingHwWrites() const = 0;
  /// Commits an operation of the table's queue.
  virtual void commitEntry(const Fenrik::Ptr<ResolverEntry>& resolverEntry) = 0;

 protected:
  static constexpr Fenrik::FieldId kStatusField{7};
  static constexpr Fenrik::FieldId kStatsField{8};

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
