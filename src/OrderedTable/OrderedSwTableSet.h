#pragma once

#include <vector>

#include "Fenrik/NodeClass.h"
#include "Kiv/KeyedAttribute.h"
#include "OrderedTable/OrderedSwTable.h"

namespace Asic {

/// The software tables of one table id, at most one per unit.
///
/// Threads: the table thread. Cost: commits, reports and the flag of pending writes cost the same
/// for any number of units, unless each table's answer is traced.
class QUARNBASTIL_EXPORT OrderedSwTableSet final
    : public Fenrik::NodeClass<OrderedSwTableSet, Fenrik::Publishing<Fenrik::Node>> {
 public:
  using KivModule = Kiv::Module<"OrderedSwTableSet", OrderedSwTableSet>;
  static constexpr std::uint16_t kFieldBase = 128;

  struct QUARNBASTIL_EXPORT UnitOfTable {
    UnitId operator()(const Fenrik::Ptr<OrderedSwTable>& table) const { return table->unitId(); }
  };
  using HN_SwTable = Kiv::Hm2018NI<0x1d4be7a5, UnitId, Fenrik::Ptr<OrderedSwTable>, UnitOfTable,
                                   Kiv::HashMap2018Alloc::slab>;

  OrderedSwTableSet(SwTableId tableId, const Fenrik::Ptr<OrderedSwTableStatus>& status);
  ~OrderedSwTableSet() override;

  SwTableId tableId() const noexcept { return tableId_; }
  const Fenrik::Ptr<OrderedSwTableStatus>& status() const noexcept { return status_; }

  KIV_KEYED(kFieldBase + 2, swTable, HN_SwTable);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, tableId, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 4, status, pointer);

 public:
  const Kiv::Impl::KeyedMap<HN_SwTable>& swTables() const noexcept { return swTable_; }

  /// Queries the tables for pending hardware writes and stores the result in the status.
  void maybeUpdatePendingHwWrites();
  /// Passes a report of the hardware writer to the affected tables.
  void tableStatusVersion(LogVersion version);

 private:
  friend class OrderedSwTable;
  friend class TableCore;

  /// Called when a table that refers to this set is created and destroyed.
  void madeFor(OrderedSwTable& table) { made_.push_back(&table); }
  void gone(OrderedSwTable& table) noexcept;
  void coreGone(TableCore& core) noexcept;
  /// A table now has operations in flight, or no longer has any.
  void inFlightCount(const TableCore& core, bool inFlight) noexcept;
  /// The table's handles wait for a report.
  void waitingAdd(TableCore& core) { waiting_.push_back(&core); }

  bool anyPending();
  bool tablesWantToBeAsked() const noexcept;
  void releaseWaiting(LogVersion version);

  SwTableId tableId_;
  Fenrik::Ptr<OrderedSwTableStatus> status_;
  /// Every table that refers to the set, including those that are not members.
  std::vector<OrderedSwTable*> made_;
  /// Cores whose `entryHandleInLog` may be non-empty.
  std::vector<TableCore*> waiting_;
  /// The tables of the report being processed. Kept to reuse its memory.
  std::vector<Fenrik::Ptr<OrderedSwTable>> round_;
  /// Number of tables with operations in flight.
  std::size_t inFlight_ = 0;
  /// Unit of the table that was last found pending; it is asked first.
  UnitId lastPending_;
};

}  // namespace Asic
