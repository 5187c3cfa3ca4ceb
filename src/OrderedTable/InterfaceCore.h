#pragma once

#include "Blipline/MsgDesc.h"
#include "OrderedTable/GroupInterface.h"
#include "OrderedTable/OrderedTableInterface.h"
#include "OrderedTable/TableDescriptor.h"
#include "OrderedTable/TableInterfaceBase.h"

namespace Asic {

/// Brings a table family up, compiled once for all families: holds what exists once per table id
/// and gives access to the tables of the units.
///
/// Threads: the table thread.
///
/// I1. A registered interface has a log, a status and a set.
class QUARNBASTIL_EXPORT InterfaceCore : public TableInterfaceBase {
 public:
  ~InterfaceCore() override;

  const TableDescriptor& descriptor() const noexcept { return descriptor_; }

  /// The family's interface in this process, or null before one is made.
  static Fenrik::Ptr<TableInterfaceBase> registered(const TableDescriptor& descriptor);

  void handleInitialized();
  /// The table of a unit. The first call creates it over the state that an earlier agent left, or
  /// empties it if `reset` is set. A non-null helper is installed even if the table exists already.
  /// Throws `Drift::MountException`, and what the log throws if there is no room for the clear.
  Fenrik::Ptr<OrderedSwTable> makeSwTable(UnitId unitId, Fenrik::Ptr<Fenrik::Node> swTableHelper,
                                          bool reset);
  /// Call once all tables are made. A unit with a configuration but without a table gets a table
  /// that is emptied through the log, so that the hardware writer empties it as well.
  void reconcile() override;
  void onDelete();

  // Return the existing object if it was made with these arguments; otherwise replace it by a new
  // one.
  const Fenrik::Ptr<EntryLogCore>& entryLogIs(
      SwTableId tableId, const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
      const Fenrik::Ptr<GroupInterface>& groupInterface, const Fenrik::String& agentName);
  const Fenrik::Ptr<OrderedSwTableStatus>& swTableStatusIs(SwTableId tableId);
  const Fenrik::Ptr<OrderedSwTableSet>& swTableSetIs(
      SwTableId tableId, const Fenrik::Ptr<OrderedSwTableStatus>& status);

  const Fenrik::Ptr<EntryLogCore>& entryLog() const noexcept { return entryLog_; }
  const Fenrik::Ptr<OrderedSwTableStatus>& swTableStatus() const noexcept { return status_; }
  const Fenrik::Ptr<OrderedSwTableSet>& swTableSet() const noexcept { return set_; }
  void entryLogIs(Fenrik::Ptr<EntryLogCore> log);
  void swTableStatusIs(Fenrik::Ptr<OrderedSwTableStatus> status);
  void swTableSetIs(Fenrik::Ptr<OrderedSwTableSet> set);

 protected:
  static constexpr std::uint16_t kFieldBase = 256;

  /// Ring-trace identifiers of the family's two messages.
  struct RingMessages {
    Blipline::MsgId restored = 0;
    Blipline::MsgId clearing = 0;
  };

  InterfaceCore(const TableDescriptor& descriptor, RingMessages& ringMessages,
                const Fenrik::Ptr<OrderedTableInterface>& ordTblIntf);

 private:
  const Kiv::TraceHandle& trace() const noexcept { return descriptor_.traces.interface; }
  const char* name() const noexcept { return descriptor_.names.interface; }
  Fenrik::String registeredAs() const { return Fenrik::String(descriptor_.names.registryKey); }
  Fenrik::String agentName() const { return Fenrik::String(descriptor_.agentName); }
  Fenrik::String canonicalGroupName() const;
  Fenrik::Ptr<GroupInterface> group() const;

  [[noreturn]] void failSecond() const;
  void describeFamily();
  bool adoptLiving(const Fenrik::Ptr<GroupInterface>& groupIntf);
  void releaseTables(const Fenrik::Ptr<OrderedSwTableSet>& set);
  void cleanTo(LogVersion acknowledged);
  Fenrik::Ptr<OrderedSwTable> existingTable(UnitId unit, Fenrik::Ptr<Fenrik::Node> swTableHelper,
                                            bool reset);
  void tellRestored(const OrderedSwTable& table);
  void tellCleared(UnitId unit);

  const TableDescriptor& descriptor_;
  RingMessages& ringMessages_;
  Fenrik::Ptr<EntryLogCore> entryLog_;
  Fenrik::Ptr<OrderedSwTableStatus> status_;
  Fenrik::Ptr<OrderedSwTableSet> set_;
};

}  // namespace Asic
