#pragma once

#include "OrderedTable/InterfaceCore.h"
#include "QuarnBastil/FamilyTraits.h"

namespace QuarnBastil {

/// Entry point of a table family, with one instance per process, obtained from `getIntf`.
/// `Asic::InterfaceCore` implements it.
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

  static constexpr std::uint16_t kFieldBase = 256;
  using KivRows = Asic::InterfaceAttributes;
  using KivRoles = FamilyRoles<Family>;

  /// Brings the family up, except for its tables. Aborts if the family already has an interface.
  explicit Interface(const Fenrik::Ptr<Asic::OrderedTableInterface>& ordTblIntf)
      : Base(descriptorOf<Family>(), ringMessages_, ordTblIntf) {
    this->handleInitialized();
  }

  static Fenrik::String tableName() { return Family::kTableName; }
  static constexpr Asic::SwTableId tableId() noexcept { return Family::kTableId; }
  static Fenrik::String groupName() { return Family::kGroupName; }
  static Fenrik::String agentName() { return Family::kAgentName; }
  static Fenrik::String tableNamespace() { return Family::kTableNamespace; }

  /// Name under which the interface is registered.
  static Fenrik::String registryKey() { return descriptorOf<Family>().names.registryKey; }

  /// The only interface of the process. The first call creates it over `orderedTableIntf`; later
  /// calls ignore the argument.
  static Fenrik::Ptr<Self> getIntf(
      const Fenrik::Ptr<Asic::OrderedTableInterface>& orderedTableIntf) {
    const auto present = Asic::InterfaceCore::registered(descriptorOf<Family>());
    return present != nullptr ? Fenrik::dynamicPtrCast<Self>(present)
                              : Fenrik::ptrIsImpl<Self>(orderedTableIntf);
  }

  /// The table of a unit. The first call creates it over the state that an earlier agent left, or
  /// empties it if `reset` is set. A non-null helper is installed even if the table exists already.
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

  /// Clears the attribute and returns its previous value.
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
