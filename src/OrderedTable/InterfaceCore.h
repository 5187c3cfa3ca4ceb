#pragma once

#include "Blipline/MsgDesc.h"
#include "OrderedTable/GroupInterface.h"
#include "OrderedTable/OrderedTableInterface.h"
#include "OrderedTable/TableDescriptor.h"
#include "OrderedTable/TableInterfaceBase.h"

namespace Asic {

/// How a table family is brought up, compiled once: what exists once for its table id, and the way
/// to the tables of the units.
///
/// Threads: the table thread.
///
/// I1. An interface that is found in the registry has its log, its status and its set.
class QUARNBASTIL_EXPORT InterfaceCore : public TableInterfaceBase {
 public:
  ~InterfaceCore() override;

  const TableDescriptor& descriptor() const noexcept { return descriptor_; }

  /// The family's interface of this process; null before the first one is made.
  static Fenrik::Ptr<TableInterfaceBase> registered(const TableDescriptor& descriptor);

  void handleInitialized();
  /// The table of a unit, made at the first call over what an earlier agent left, or emptied with
  /// `reset`. A helper that is not null is installed; for a table that is there already, too.
  /// Throws `Drift::MountException`, and for a clear that has no room what the log throws.
  Fenrik::Ptr<OrderedSwTable> makeSwTable(UnitId unitId, Fenrik::Ptr<Fenrik::Node> swTableHelper,
                                          bool reset);
  /// To be called once all tables are made. A unit for which there is a configuration and no table
  /// gets one that is emptied through the log, so that the hardware writer empties it too.
  void reconcile() override;
  void onDelete();

  // The object that is there, if it was made with these arguments; otherwise a new one in its
  // place.
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
  static constexpr std::uint16_t kFieldBase = 128;

  /// The ring trace's identifiers of the family's two messages.
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
