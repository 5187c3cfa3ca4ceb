#pragma once

#include <functional>
#include <map>
#include <string>

#include "OrderedTable/SwTableInterfacesSingleton.h"
#include "Support/FamilyMemory.h"
#include "Support/TableRig.h"

namespace Support {

/// An agent whose families are brought up as agents do it. When it goes the interfaces of the
/// process are gone as well, and the next one finds what a restarted agent finds.
class Running : public AgentRig {
 public:
  using AgentRig::AgentRig;
  ~Running() {
    for (const auto& family : ends_) family.second();
  }

  template <class Family>
  Fenrik::Ptr<typename Family::Interface> interface() {
    ends_[Family::kTableName] = [this] { end<Family>(); };
    readyFor<Family>();
    return Family::Interface::getIntf(Fenrik::Ptr<Asic::OrderedTableInterface>(&tables()));
  }
  template <class Family>
  Fenrik::Ptr<typename Family::SwTable> table(unsigned unit, bool reset = false) {
    return interface<Family>()->makeSwTable(Asic::UnitId(static_cast<std::uint16_t>(unit)), nullptr,
                                            reset);
  }
  template <class Family>
  auto write(unsigned unit, Key key, Value value,
             const Fenrik::Ptr<const Asic::DependencyEntryHandle>& dependency = nullptr) {
    const auto entry = entryOf<Family>(key, value);
    return table<Family>(unit)->entryWrite(entry.key, entry, dependency);
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
    Family::Interface::getIntf(nullptr)->swTableSet()->swTableDelAll();
    singleton->swTableIntfDel(key);
  }

  std::map<std::string, std::function<void()>> ends_;
};

}  // namespace Support
