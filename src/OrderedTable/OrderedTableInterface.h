#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "Kiv/KeyedAttribute.h"
#include "OrderedTable/GroupInterface.h"
#include "OrderedTable/OutermostCall.h"
#include "OrderedTable/TableInterfaceBase.h"
#include "Stavro/EntityManager.h"

namespace Asic {

/// The groups of one agent, by canonical name.
class QUARNBASTIL_EXPORT GroupInterfaceColl final
    : public Fenrik::NodeClass<GroupInterfaceColl, Fenrik::Publishing<Fenrik::Node>> {
 public:
  using KivModule = struct OrderedTableInterfaceModule;
  static constexpr std::uint16_t kFieldBase = 128;

  struct QUARNBASTIL_EXPORT NameOfGroup {
    const Fenrik::String& operator()(const Fenrik::Ptr<GroupInterface>& group) const {
      return group->canonicalName();
    }
  };
  using HN_GroupIntf = Kiv::Hm2018NI<0xa54ff53a, Fenrik::String, Fenrik::Ptr<GroupInterface>,
                                     NameOfGroup, Kiv::HashMap2018Alloc::slab>;

  GroupInterfaceColl();
  ~GroupInterfaceColl() override;

  KIV_KEYED(kFieldBase + 2, groupIntf, HN_GroupIntf);
};

/// What all table families of one agent share: the state database, the groups, and the two calls of
/// the agent's loop.
///
///     for (;;) {
///       while (tables->pump(1000).more) serveClients();
///       tables->waitForReport(std::chrono::milliseconds(100));
///     }
///
/// Threads: the table thread. The library never starts a thread.
class QUARNBASTIL_EXPORT OrderedTableInterface final
    : public Fenrik::NodeClass<OrderedTableInterface, Fenrik::Publishing<Fenrik::Node>> {
 public:
  using KivModule = struct OrderedTableInterfaceModule;
  static constexpr std::uint16_t kFieldBase = 128;

  using HN_ResourceTable = Kiv::Hm2018NE<0x71374491, Fenrik::String, Fenrik::Ptr<NamedSwTable>,
                                         Kiv::HashMap2018Alloc::slab>;
  using HN_SwTableIntf =
      Kiv::Hm2018NE<0xb5c0fbcf, Fenrik::String, TableInterfaceBase*, Kiv::HashMap2018Alloc::slab>;

  explicit OrderedTableInterface(const Fenrik::Ptr<Stavro::EntityManager>& entityManager);
  ~OrderedTableInterface() override;

  const Fenrik::Ptr<Stavro::EntityManager>& entityManager() const noexcept {
    return entityManager_;
  }
  const Fenrik::Ptr<GroupInterfaceColl>& groupInterfaceColl() const noexcept { return groups_; }

  /// Creates the group if it does not exist.
  void makeGroupIntf(const Fenrik::String& agentName, const Fenrik::String& groupName,
                     unsigned short agentAndGroupId);
  /// The group, or null.
  Fenrik::Ptr<GroupInterface> groupIntf(const Fenrik::String& canonicalName) const {
    return groups_->groupIntf(canonicalName);
  }

  /// The calls in progress, for whoever has to put work off.
  const Fenrik::Ptr<OutermostCall>& outermostCall() const noexcept { return outermostCall_; }

  /// The newest version of a table that the hardware writer may read; 0 if the table is unknown.
  LogVersion announcedVersion(SwTableId tableId) const;
  /// That of every table.
  Fenrik::Ptr<const NeededEntry> announcedVersions() const;
  /// The version up to which a table's log is reported to be in hardware; 0 if none is.
  LogVersion reportedVersion(SwTableId tableId) const;

  /// The agent's resource tables, by canonical name.
  KIV_KEYED_VALUE(kFieldBase + 2, resourceTable, HN_ResourceTable);
  /// The interfaces created over this object, by full class name. Not owned.
  KIV_KEYED_VALUE(kFieldBase + 3, swTableIntf, HN_SwTableIntf);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 4, entityManager, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 5, groupInterfaceColl, pointer);
  FENRIK_FUNCTION(kFieldBase + 6, makeGroupIntf);
  FENRIK_FUNCTION(kFieldBase + 7, announcedVersion);
  FENRIK_FUNCTION(kFieldBase + 8, announcedVersions);
  FENRIK_FUNCTION(kFieldBase + 9, reportedVersion);

 public:
  /// What a pump did, and whether an immediate further call has work to do.
  struct Pumped {
    /// Reports handed to tables.
    unsigned reports = 0;
    /// Operations committed.
    unsigned commits = 0;
    /// Whether to pump again without waiting.
    bool more = false;
  };
  /// Processes the hardware writer's reports, then lets the groups commit up to `budget` operations
  /// in total, in turn, so that a long queue in one group does not delay another. An exception of a
  /// handler passes through; the next call continues after it. A call from within a handler does
  /// nothing and returns `more == false`; the outer pump continues.
  Pumped pump(unsigned budget);

  /// Sleeps until the hardware writer reports something that no pump has processed, or until the
  /// timeout. Returns true if there is such a report.
  bool waitForReport(std::chrono::nanoseconds timeout);

 private:
  bool reportsMoved() const noexcept;
  bool ready() const noexcept;
  bool sleepForReport(std::chrono::nanoseconds timeout);

  Fenrik::Ptr<Stavro::EntityManager> entityManager_;
  Fenrik::Ptr<GroupInterfaceColl> groups_;
  Fenrik::Ptr<OutermostCall> outermostCall_;
  std::shared_ptr<CommitCount> commitCount_;
  /// The groups in order of creation, and the index of the one that commits first next time: if the
  /// budget does not suffice for all of them, each gets its turn.
  std::vector<Fenrik::Ptr<GroupInterface>> turns_;
  /// Their reports.
  std::vector<const TableVersionMap*> reports_;
  std::size_t firstTurn_ = 0;
  /// Number of pumps.
  std::size_t pumps_ = 0;
  /// Set during a pump, to detect nested calls.
  bool pumping_ = false;
};

struct QUARNBASTIL_EXPORT OrderedTableInterfaceModule
    : Kiv::Module<"OrderedTableInterface", GroupInterfaceColl, OrderedTableInterface> {};

}  // namespace Asic
