#pragma once

#include <functional>

#include "Fenrik/Attribute.h"
#include "Kiv/Entity.h"
#include "OrderedTable/EntryHandle.h"
#include "OrderedTable/OrderedSwTableStatus.h"
#include "OrderedTable/SwTableStats.h"
#include "OrderedTable/TableName.h"
#include "OrderedTable/TableVersion.h"
#include "OrderedTable/UnitId.h"

namespace Asic {

class QUARNBASTIL_EXPORT OrderedSwTableSet;

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
    using SwTableBase::EntryHandle::EntryHandle;
    ~EntryHandle() override;
  };

  OrderedSwTable(const Fenrik::Ptr<const CanonicalTableName>& name, SwTableId tableId,
                 UnitId unitId, OrderedSwTableSet* swTableSet);
  ~OrderedSwTable() override;

  const Fenrik::Publisher* publisher() const override { return &publisher_; }

  const Fenrik::Ptr<const CanonicalTableName>& canonicalName() const noexcept { return name_; }
  SwTableId tableId() const noexcept { return tableId_; }
  UnitId unitId() const noexcept { return unitId_; }
  OrderedSwTableSet* swTableSet() const noexcept { return swTableSet_; }
  const Fenrik::Ptr<OrderedSwTableStatus>& status() const noexcept { return status_; }
  const Fenrik::Ptr<SwTableStats>& stats() const noexcept { return stats_; }

  /// Makes the table's counters.
  void statsIs();
  void statusIs(const Fenrik::Ptr<OrderedSwTableStatus>& status) { status_ = status; }

  /// Report of the hardware side: every log record up to `version` is in hardware.
  virtual void tableStatusVersion(LogVersion version) = 0;
  /// Whether the table still owes the hardware anything.
  virtual bool hasPendingHwWrites() const = 0;

 private:
  Fenrik::Ptr<const CanonicalTableName> name_;

 protected:
  Fenrik::Publisher publisher_;

 private:
  SwTableId tableId_;
  UnitId unitId_;
  OrderedSwTableSet* swTableSet_;
  Fenrik::Ptr<OrderedSwTableStatus> status_;
  Fenrik::Ptr<SwTableStats> stats_;
};

/// Called once when the outcome of an operation is known; may be empty.
using ResponseHandler = std::function<void(const Fenrik::Ptr<const OrderedSwTable::EntryHandle>&)>;

}  // namespace Asic
