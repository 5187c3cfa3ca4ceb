#pragma once

#include <memory>

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "Kiv/KeyedAttribute.h"
#include "OrderedTable/GroupResolver.h"
#include "OrderedTable/NeededEntry.h"
#include "OrderedTable/OrderedSwTableSet.h"
#include "OrderedTable/TableAnnouncer.h"
#include "OrderedTable/TableVersionMap.h"
#include "Stavro/EntityManager.h"

namespace Asic {

/// One group of tables: its resolver, the sets of its tables, what it announces to the hardware
/// writer and what the hardware writer reports.
///
/// Threads: the table thread.
class QUARNBASTIL_EXPORT GroupInterface final
    : public Fenrik::NodeClass<GroupInterface, Fenrik::Publishing<Fenrik::Node>> {
 public:
  static constexpr std::uint16_t kFieldBase = 128;

  struct QUARNBASTIL_EXPORT TableIdOfSet {
    SwTableId operator()(const Fenrik::Ptr<OrderedSwTableSet>& set) const { return set->tableId(); }
  };
  using HN_SwTableSet = Kiv::Hm2018NI<0x6a09e667, SwTableId, Fenrik::Ptr<OrderedSwTableSet>,
                                      TableIdOfSet, Kiv::HashMap2018Alloc::slab>;
  struct QUARNBASTIL_EXPORT TableIdOfAnnouncer {
    SwTableId operator()(const Fenrik::Ptr<TableAnnouncer>& announcer) const {
      return announcer->tableId();
    }
  };
  using HN_Announcer = Kiv::Hm2018NI<0xbb67ae85, SwTableId, Fenrik::Ptr<TableAnnouncer>,
                                     TableIdOfAnnouncer, Kiv::HashMap2018Alloc::slab>;
  using HN_TakenVersion =
      Kiv::Hm2018NE<0x3c6ef372, SwTableId, LogVersion, Kiv::HashMap2018Alloc::slab>;

  /// `canonicalName` is the group's name among all groups. `commitCount` is shared by the groups of
  /// one agent.
  GroupInterface(const Fenrik::String& canonicalName, std::uint16_t agentAndGroupId,
                 const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
                 std::shared_ptr<CommitCount> commitCount);
  ~GroupInterface() override;

  const Fenrik::String& canonicalName() const noexcept { return canonicalName_; }
  std::uint16_t agentAndGroupId() const noexcept { return agentAndGroupId_; }
  const Fenrik::Ptr<GroupResolver>& groupResolver() const noexcept { return groupResolver_; }

  KIV_KEYED(kFieldBase + 2, swTableSet, HN_SwTableSet);

 public:
  /// A table's log has been mounted: from here on its versions are announced. Returns the control
  /// object of the needed sets, which are mounted with it.
  const Fenrik::Ptr<KivDrift::CollectionControl>& entryLogMounted(
      SwTableId tableId, const Fenrik::Ptr<KivSharedMem::Entity>& log);
  /// A version has been logged, and needs these versions of other tables; the last step of a write.
  /// The hardware writer is woken at once, or at the end of the pump that is under way.
  void addLogEntry(SwTableId tableId, LogVersion version,
                   const Fenrik::Ptr<const NeededEntry>& neededEntry);
  /// Sees to it that the next `addLogEntry` of the table has room for a set of so many versions:
  /// throws what it would throw.
  void addLogEntryRoom(SwTableId tableId, std::size_t versions);
  /// The table's log was cleaned up to a version.
  void entryLogCleaned(SwTableId tableId, LogVersion version);

  /// What the hardware writer reports for the tables of the group.
  const Fenrik::Ptr<TableVersionMap>& tableVersionMap() const noexcept { return versionMap_; }
  /// Hands each report that moved to the tables of its table id and returns how many there were. A
  /// report during which a handler throws is handed on again by the next call.
  unsigned takeReports();
  /// The logs of its tables, in which the agent says that it sleeps.
  void logFilesAdd(std::vector<const Drift::DriftFile*>& files) const;
  /// Lets the resolver commit up to `budget` operations, then wakes the hardware writer.
  unsigned pump(unsigned budget);

 private:
  class RingScope;

  bool takeReport(OrderedSwTableSet& set);
  const Fenrik::Ptr<TableAnnouncer>& announcer(SwTableId tableId) const;

  Fenrik::String canonicalName_;
  std::uint16_t agentAndGroupId_;
  Fenrik::Ptr<KivSharedMem::EntityManager> manager_;
  Fenrik::Ptr<GroupResolver> groupResolver_;
  /// In which the hardware writer says that it sleeps; null if there is none.
  const Drift::DriftFile* reportFile() const noexcept { return versionMap_->bell().file; }

  Fenrik::Ptr<TableVersionMap> versionMap_;
  Kiv::Impl::KeyedMap<HN_Announcer> announcers_;
  mutable Fenrik::Ptr<TableAnnouncer> lastAnnouncer_;
  /// The last report that was handed on, by table id.
  Kiv::Impl::KeyedMap<HN_TakenVersion> taken_;
  bool taking_ = false;
  bool ringLater_ = false;
};

}  // namespace Asic
