#include "OrderedTable/GroupInterface.h"

#include <exception>

#include "Fenrik/Assert.h"
#include "OrderedTable/Constants.h"
#include "OrderedTable/FlagScope.h"
#include "OrderedTable/MountDrift.h"

namespace Asic {

/// Defers rings during a pump; rings at its end, even after an exception.
class GroupInterface::RingScope {
 public:
  explicit RingScope(GroupInterface& group)
      : group_(group), outer_(std::exchange(group.ringLater_, true)) {}
  ~RingScope() {
    group_.ringLater_ = outer_;
    if (outer_) return;
    for (const auto& node : group_.announcers_) node.value()->ring(group_.reportFile());
  }
  RingScope(const RingScope&) = delete;
  RingScope& operator=(const RingScope&) = delete;

 private:
  GroupInterface& group_;
  bool outer_;
};

GroupInterface::GroupInterface(const Fenrik::String& canonicalName, std::uint16_t agentAndGroupId,
                               const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
                               std::shared_ptr<CommitCount> commitCount)
    : canonicalName_(canonicalName),
      agentAndGroupId_(agentAndGroupId),
      manager_(sharedMemManager(*entityManager)),
      groupResolver_(Fenrik::ptrIsImpl<GroupResolver>(std::move(commitCount))),
      versionMap_(Fenrik::ptrIsImpl<TableVersionMap>(
          manager_, Constants::canonicalGroupTableVersionPath(canonicalName))) {}

GroupInterface::~GroupInterface() = default;

const Fenrik::Ptr<KivDrift::CollectionControl>& GroupInterface::entryLogMounted(
    SwTableId tableId, const Fenrik::Ptr<KivSharedMem::Entity>& log) {
  auto announcer = Fenrik::ptrIsImpl<TableAnnouncer>(tableId, log, manager_);
  lastAnnouncer_ = nullptr;
  if (announcers_[tableId] != nullptr) announcers_.memberDel(tableId);
  announcers_.newMember(HN_Announcer(announcer));
  return announcer->neededControl();
}

const Fenrik::Ptr<TableAnnouncer>& GroupInterface::announcer(SwTableId tableId) const {
  // Usually the same table as last time.
  if (lastAnnouncer_ == nullptr || lastAnnouncer_->tableId() != tableId) {
    const auto* const node = announcers_[tableId];
    FENRIK_ASSERT(node != nullptr);
    lastAnnouncer_ = node->value();
  }
  return lastAnnouncer_;
}

void GroupInterface::addLogEntry(SwTableId tableId, LogVersion version,
                                 const Fenrik::Ptr<const NeededEntry>& neededEntry) {
  const auto& told = announcer(tableId);
  told->announce(version, neededEntry.get());
  if (!ringLater_) told->ring(reportFile());
}

LogVersion GroupInterface::announcedVersion(SwTableId tableId) const {
  const auto* const node = announcers_[tableId];
  return node != nullptr ? node->value()->announced() : LogVersion(0);
}

void GroupInterface::announcedVersionsAdd(NeededEntry& versions) const {
  for (const auto& node : announcers_) {
    const auto& told = *node.value();
    if (told.announced() != LogVersion(0)) {
      versions.add(TableVersion(told.tableId(), told.announced()));
    }
  }
}

void GroupInterface::logFilesAdd(std::vector<const Drift::DriftFile*>& files) const {
  for (const auto& node : announcers_) files.push_back(&node.value()->log());
}

void GroupInterface::addLogEntryRoom(SwTableId tableId, std::size_t versions) {
  announcer(tableId)->makeRoom(versions);
}

void GroupInterface::entryLogCleaned(SwTableId tableId, LogVersion version) {
  announcer(tableId)->cleaned(version);
}

unsigned GroupInterface::takeReports() {
  if (taking_ || !versionMap_->moved()) return 0;
  const FlagScope taking(taking_);
  versionMap_->seenIs();
  unsigned reports = 0;
  std::exception_ptr thrown;
  for (const auto& node : swTableSet_) {
    try {
      reports += takeReport(*node.value()) ? 1 : 0;
    } catch (...) {
      if (thrown == nullptr) thrown = std::current_exception();
    }
  }
  if (thrown != nullptr) {
    versionMap_->seenDel();
    std::rethrow_exception(thrown);
  }
  return reports;
}

bool GroupInterface::takeReport(OrderedSwTableSet& set) {
  const SwTableId tableId = set.tableId();
  const auto reported = versionMap_->find(tableId);
  if (!reported.found) return false;
  const LogVersion version = reported.record.logVersion;
  const auto* const taken = taken_[tableId];
  if (taken != nullptr && taken->value() == version) return false;
  set.tableStatusVersion(version);
  taken_.memberDel(tableId);
  taken_.newMember(HN_TakenVersion(tableId, version));
  return true;
}

unsigned GroupInterface::pump(unsigned budget) {
  const RingScope rings(*this);
  return groupResolver_->pump(budget);
}

}  // namespace Asic
