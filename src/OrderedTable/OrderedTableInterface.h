#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "Kiv/KeyedAttribute.h"
#include "OrderedTable/GroupInterface.h"
#include "OrderedTable/TableInterfaceBase.h"
#include "Stavro/EntityManager.h"

namespace Asic {

/// The groups of one agent by their canonical names.
class QUARNBASTIL_EXPORT GroupInterfaceColl final
    : public Fenrik::NodeClass<GroupInterfaceColl, Fenrik::Publishing<Fenrik::Node>> {
 public:
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

/// What all table families of one agent share: the state database, the groups, and the loop's two
/// calls.
///
///     for (;;) {
///       while (tables->pump(1000).more) serveClients();
///       tables->waitForReport(std::chrono::milliseconds(100));
///     }
///
/// Threads: the table thread. Nothing in the library starts a thread of its own.
class QUARNBASTIL_EXPORT OrderedTableInterface final
    : public Fenrik::NodeClass<OrderedTableInterface, Fenrik::Publishing<Fenrik::Node>> {
 public:
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

  /// Makes the group, if it is not there yet.
  void makeGroupIntf(const Fenrik::String& agentName, const Fenrik::String& groupName,
                     unsigned short agentAndGroupId);
  /// The group; null if there is none.
  Fenrik::Ptr<GroupInterface> groupIntf(const Fenrik::String& canonicalName) const {
    return groups_->groupIntf(canonicalName);
  }

  /// The resource tables of the agent by their canonical names.
  KIV_KEYED_VALUE(kFieldBase + 2, resourceTable, HN_ResourceTable);
  /// The interfaces that were made over this object, by the full names of their classes. The list
  /// does not own them.
  KIV_KEYED_VALUE(kFieldBase + 3, swTableIntf, HN_SwTableIntf);

 public:
  /// What a pump has done, and whether there is more for it to do at once.
  struct Pumped {
    unsigned reports = 0;
    unsigned commits = 0;
    bool more = false;
  };
  /// Takes in what the hardware writer reported, then lets the groups commit up to `budget`
  /// operations in all, turn by turn, so that no group waits for another one's queue. What a
  /// handler throws comes out of this call; the next one goes on behind it. Called from within a
  /// handler it does nothing, and there is no more to do from there: the outer pump goes on.
  Pumped pump(unsigned budget);

  /// Sleeps until the hardware writer reports something that no pump has taken in yet, or the time
  /// is over; true if it has.
  bool waitForReport(std::chrono::nanoseconds timeout);

 private:
  bool ready() const noexcept;
  bool sleepForReport(std::chrono::nanoseconds timeout);

  Fenrik::Ptr<Stavro::EntityManager> entityManager_;
  Fenrik::Ptr<GroupInterfaceColl> groups_;
  std::shared_ptr<CommitCount> commitCount_;
  /// The groups in the order in which they were made, and the one that commits first next time: a
  /// budget that does not reach around is for each of them in turn.
  std::vector<Fenrik::Ptr<GroupInterface>> turns_;
  /// Their reports.
  std::vector<const TableVersionMap*> reports_;
  std::size_t firstTurn_ = 0;
  std::size_t pumps_ = 0;
  bool pumping_ = false;
};

}  // namespace Asic
