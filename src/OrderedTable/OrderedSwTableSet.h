#pragma once

#include <vector>

#include "Fenrik/NodeClass.h"
#include "Kiv/KeyedAttribute.h"
#include "OrderedTable/OrderedSwTable.h"

namespace Asic {

/// The software tables of one table id, one for each unit.
///
/// Threads: the table thread. Cost: a commit, a report and the flag of pending writes cost the same
/// with any number of units, unless somebody traces what each table says.
class QUARNBASTIL_EXPORT OrderedSwTableSet final
    : public Fenrik::NodeClass<OrderedSwTableSet, Fenrik::Publishing<Fenrik::Node>> {
 public:
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

 public:
  const Kiv::Impl::KeyedMap<HN_SwTable>& swTables() const noexcept { return swTable_; }

  /// Asks the tables whether they owe the hardware anything and notes it in the status.
  void maybeUpdatePendingHwWrites();
  /// Hands a report of the hardware writer to the tables that it concerns.
  void tableStatusVersion(LogVersion version);

 private:
  friend class OrderedSwTable;
  friend class TableCore;

  /// A table that knows of this set was made, or has gone.
  void madeFor(OrderedSwTable& table) { made_.push_back(&table); }
  void gone(OrderedSwTable& table) noexcept;
  void coreGone(TableCore& core) noexcept;
  /// A table has something in flight now, or has nothing any more.
  void inFlightCount(const TableCore& core, bool inFlight) noexcept;
  /// A table has handles that wait for a report.
  void waitingAdd(TableCore& core) { waiting_.push_back(&core); }

  bool anyPending();
  bool tablesWantToBeAsked() const noexcept;
  void releaseWaiting(LogVersion version);

  SwTableId tableId_;
  Fenrik::Ptr<OrderedSwTableStatus> status_;
  /// Every table that holds a pointer to the set, a member or not.
  std::vector<OrderedSwTable*> made_;
  /// Cores whose `entryHandleInLog` may hold something.
  std::vector<TableCore*> waiting_;
  /// The tables of a report under way; their room is used again.
  std::vector<Fenrik::Ptr<OrderedSwTable>> round_;
  std::size_t inFlight_ = 0;
  UnitId lastPending_;
};

}  // namespace Asic
