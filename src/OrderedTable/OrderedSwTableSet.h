#pragma once

#include "Fenrik/NodeClass.h"
#include "Kiv/KeyedAttribute.h"
#include "OrderedTable/OrderedSwTable.h"

namespace Asic {

/// The software tables of one table id, one for each unit.
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

 private:
  bool anyPending();

  SwTableId tableId_;
  Fenrik::Ptr<OrderedSwTableStatus> status_;
  UnitId lastPending_;
};

}  // namespace Asic
