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

/// One group of tables: its resolver, the sets of its tables, its announcements to the hardware
/// writer and the hardware writer's reports.
///
/// Threads: the table thread.
class QUARNBASTIL_EXPORT GroupInterface final
    : public Fenrik::NodeClass<GroupInterface, Fenrik::Publishing<Fenrik::Node>> {
 public:
  using KivModule = Kiv::Module<"GroupInterface", GroupInterface>;
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

  /// `canonicalName` is unique among all groups. `commitCount` is shared by the groups of one
  /// agent.
  GroupInterface(const Fenrik::String& canonicalName, std::uint16_t agentAndGroupId,
                 const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
                 std::shared_ptr<CommitCount> commitCount);
  ~GroupInterface() override;

  const Fenrik::String& canonicalName() const noexcept { return canonicalName_; }
  std::uint16_t agentAndGroupId() const noexcept { return agentAndGroupId_; }
  const Fenrik::Ptr<GroupResolver>& groupResolver() const noexcept { return groupResolver_; }

  KIV_KEYED(kFieldBase + 2, swTableSet, HN_SwTableSet);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, canonicalName, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 4, agentAndGroupId, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 5, groupResolver, pointer);

 public:
  /// A table's log has been mounted; its versions are announced from now on. Also mounts the needed
  /// sets, and returns their control object.
  const Fenrik::Ptr<KivDrift::CollectionControl>& entryLogMounted(
      SwTableId tableId, const Fenrik::Ptr<KivSharedMem::Entity>& log);
  /// Announces a logged version, which requires these versions of other tables: the last step of a
  /// write. Wakes the hardware writer immediately, or at the end of the pump in progress.
  void addLogEntry(SwTableId tableId, LogVersion version,
                   const Fenrik::Ptr<const NeededEntry>& neededEntry);
  /// Ensures that the next `addLogEntry` of the table has room for a set of so many versions.
  /// Throws what it would throw.
  void addLogEntryRoom(SwTableId tableId, std::size_t versions);
  /// The newest announced version of a table; 0 if it is not one of the group.
  LogVersion announcedVersion(SwTableId tableId) const;
  /// Adds that of each table of the group.
  void announcedVersionsAdd(NeededEntry& versions) const;
  /// The table's log has been cleaned up to a version.
  void entryLogCleaned(SwTableId tableId, LogVersion version);

  /// The hardware writer's reports for the tables of the group.
  const Fenrik::Ptr<TableVersionMap>& tableVersionMap() const noexcept { return versionMap_; }
  /// Passes each new report to the tables of its table id, and returns the number of reports. If a
  /// handler throws, the next call passes that report again.
  unsigned takeReports();
  /// Adds the logs of its tables, in which the agent marks itself asleep or awake.
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
  /// The file in which the hardware writer marks itself asleep or awake; null if there is none.
  const Drift::DriftFile* reportFile() const noexcept { return versionMap_->bell().file; }

  Fenrik::Ptr<TableVersionMap> versionMap_;
  Kiv::Impl::KeyedMap<HN_Announcer> announcers_;
  /// The announcer used last, which the next operation is likely to use.
  mutable Fenrik::Ptr<TableAnnouncer> lastAnnouncer_;
  /// The last report passed to the tables, by table id.
  Kiv::Impl::KeyedMap<HN_TakenVersion> taken_;
  /// Set during `takeReports`, to detect nested calls.
  bool taking_ = false;
  /// Set during a pump, which rings at its end.
  bool ringLater_ = false;
};

}  // namespace Asic
