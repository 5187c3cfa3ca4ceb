#pragma once

#include <string>

#include "OrderedTable/NeededEntryDrift.h"
#include "OrderedTable/SwTableInterfacesSingleton.h"
#include "Restart/Oracle.h"
#include "Support/TableRig.h"

namespace RestartTest {

/// An agent in this process. When it goes the interfaces of the process are gone as well, and the
/// next one finds what a restarted agent finds.
class Running : public Support::AgentRig {
 public:
  using AgentRig::AgentRig;
  ~Running() {
    end<Tcam>();
    end<Blocks>();
  }

  template <class Family>
  Fenrik::Ptr<typename Family::Interface> interface() {
    return Family::Interface::getIntf(Fenrik::Ptr<Asic::OrderedTableInterface>(&tables()));
  }
  template <class Family>
  Fenrik::Ptr<typename Family::SwTable> table(std::uint16_t unit, bool reset = false) {
    return interface<Family>()->makeSwTable(Asic::UnitId(unit), nullptr, reset);
  }
  template <class Family>
  Asic::GroupInterface& group() {
    return *tables().groupIntf(Family::Constants::canonicalGroupName());
  }

 private:
  template <class Family>
  void end() {
    const auto singleton = Asic::SwTableInterfacesSingleton::instance();
    const auto key = Family::Interface::registryKey();
    if (!singleton->swTableIntfHas(key)) return;
    // Group, set, table and log hold one another.
    group<Family>().swTableSetDel(Family::kTableId);
    interface<Family>()->swTableSet()->swTableDelAll();
    singleton->swTableIntfDel(key);
  }
};

template <class Family>
typename Family::Entry entryOf(std::uint32_t key, std::uint32_t value) {
  typename Family::Entry entry{Family::keyOf(key)};
  Family::valueOf(entry) = value;
  return entry;
}

/// An operation of a table that this test does not have.
class ForeignHandle final : public Fenrik::NodeClass<ForeignHandle, Asic::DependencyEntryHandle> {
 public:
  void settle(Asic::EntryState state) { entryStateStore(state); }
  Asic::TableVersion entryTableVersion() const override {
    return Asic::TableVersion(tableId(), Asic::LogVersion(99));
  }
  Fenrik::String tableName() const override { return "Foreign"; }
  Asic::SwTableId tableId() const override { return Asic::SwTableId(0x04070404); }
  Fenrik::String keyText() const override { return "1"; }
};

}  // namespace RestartTest
