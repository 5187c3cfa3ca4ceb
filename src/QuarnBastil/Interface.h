#pragma once

#include "OrderedTable/InterfaceCore.h"
#include "QuarnBastil/FamilyTraits.h"

namespace QuarnBastil {

/// The front door of a table family. One object in a process; `getIntf` gives it. What it does
/// stands in `Asic::InterfaceCore`.
///
/// Threads: the table thread.
template <class Family>
class QUARNBASTIL_EXPORT Interface
    : public Fenrik::NodeClass<typename Family::Interface, Asic::InterfaceCore> {
 public:
  using SwTable = typename Family::SwTable;
  using Helper = typename Family::SwTableHelperBase;
  using Log = typename Family::EntryLog;
  using Self = typename Family::Interface;
  using KivModule = typename Family::InterfaceModule;
  using Base = Fenrik::NodeClass<typename Family::Interface, Asic::InterfaceCore>;

  static constexpr std::uint16_t kFieldBase = 128;

  /// Brings the family up, short of its tables; a second interface of the family ends the process.
  explicit Interface(const Fenrik::Ptr<Asic::OrderedTableInterface>& ordTblIntf)
      : Base(descriptorOf<Family>(), ringMessages_, ordTblIntf) {
    this->handleInitialized();
  }

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 7, entryLog, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 8, swTableStatus, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 9, swTableSet, pointer);
  FENRIK_FUNCTION(kFieldBase + 10, makeSwTable);
  FENRIK_FUNCTION(kFieldBase + 11, getIntf);
  FENRIK_FUNCTION(kFieldBase + 12, handleInitialized);
  FENRIK_FUNCTION(kFieldBase + 13, onDelete);

  static Fenrik::String tableName() { return Family::kTableName; }
  static constexpr Asic::SwTableId tableId() noexcept { return Family::kTableId; }
  static Fenrik::String groupName() { return Family::kGroupName; }
  static Fenrik::String agentName() { return Family::kAgentName; }
  static Fenrik::String tableNamespace() { return Family::kTableNamespace; }

  /// The name under which the interface is registered.
  static Fenrik::String registryKey() { return descriptorOf<Family>().names.registryKey; }

  /// The one interface of the process. The first call makes it, over `orderedTableIntf`; later ones
  /// do not look at that.
  static Fenrik::Ptr<Self> getIntf(
      const Fenrik::Ptr<Asic::OrderedTableInterface>& orderedTableIntf) {
    const auto present = Asic::InterfaceCore::registered(descriptorOf<Family>());
    return present != nullptr ? Fenrik::dynamicPtrCast<Self>(present)
                              : Fenrik::ptrIsImpl<Self>(orderedTableIntf);
  }

  /// The table of a unit, made at the first call over what an earlier agent left, or emptied with
  /// `reset`. A helper that is not null is installed; for a table that is there already, too.
  Fenrik::Ptr<SwTable> makeSwTable(Asic::UnitId unitId, const Fenrik::Ptr<Helper>& swTableHelper,
                                   bool reset) {
    const auto table = Base::makeSwTable(unitId, swTableHelper, reset);
    return Fenrik::Ptr<SwTable>(static_cast<SwTable*>(table.get()));
  }

  Fenrik::Ptr<Log> entryLog() const { return typed(Base::entryLog()); }
  void entryLogIs(const Fenrik::Ptr<Log>& log) { Base::entryLogIs(log); }
  Fenrik::Ptr<Log> entryLogIs(Asic::SwTableId tableId,
                              const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
                              const Fenrik::Ptr<Asic::GroupInterface>& groupInterface,
                              const Fenrik::String& agentName) {
    return typed(Base::entryLogIs(tableId, entityManager, groupInterface, agentName));
  }

  /// Empties the attribute and returns what it held.
  Fenrik::Ptr<Log> entryLogDel() {
    auto former = entryLog();
    Base::entryLogIs(nullptr);
    return former;
  }
  Fenrik::Ptr<Asic::OrderedSwTableStatus> swTableStatusDel() {
    auto former = this->swTableStatus();
    Base::swTableStatusIs(nullptr);
    return former;
  }
  Fenrik::Ptr<Asic::OrderedSwTableSet> swTableSetDel() {
    auto former = this->swTableSet();
    Base::swTableSetIs(nullptr);
    return former;
  }

 private:
  static Fenrik::Ptr<Log> typed(const Fenrik::Ptr<Asic::EntryLogCore>& log) {
    return Fenrik::Ptr<Log>(static_cast<Log*>(log.get()));
  }

  inline static Asic::InterfaceCore::RingMessages ringMessages_;
};

}  // namespace QuarnBastil
