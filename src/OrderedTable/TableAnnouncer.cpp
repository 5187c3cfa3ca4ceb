#include "OrderedTable/TableAnnouncer.h"

#include "Fenrik/Assert.h"
#include "OrderedTable/Constants.h"
#include "OrderedTable/CorruptionGuard.h"

namespace Asic {

namespace {

using Cursor = Drift::DriftMap<NeededEntryRecord>::Cursor;

/// One set per record that a log may hold.
constexpr Drift::Word kNeededCapacity = 1'000'000;

Fenrik::Ptr<NeededEntryDrift> mountNeeded(const Fenrik::String& logPath,
                                          const Fenrik::Ptr<KivSharedMem::EntityManager>& manager) {
  const Fenrik::String path = Constants::neededPathOfEntryLogPath(logPath);
  KivDrift::MountInfo info(0);
  info.collectionInfoIs({Fenrik::String(NeededEntryDrift::kAttributeName), kNeededCapacity, 0});
  const auto group = manager->getMountGroup();
  group->mount(path, Fenrik::String(NeededEntryDrift::kEntityName), info);
  group->doClose();
  return Fenrik::dynamicPtrCast<NeededEntryDrift>(manager->getEntity(path));
}

/// The announced version of a table, given the path of its log; nullopt if it cannot be read.
std::optional<LogVersion> announcedOf(const KivSharedMem::EntityManager& manager,
                                      const Fenrik::String& logPath) {
  try {
    if (const auto mounted = manager.getEntity(logPath)) {
      return LogVersion(mounted->collectionControl()->announced());
    }
    const auto file =
        Drift::DriftFile::openForReading(manager.directory(), logPath.view(), nullptr);
    const auto value = Drift::CheckedWord(file->data(), Drift::Format::Line::announced).load();
    return value ? std::optional(LogVersion(*value)) : std::nullopt;
  } catch (const Fenrik::Exception&) {
    // An unreadable log is rebuilt when it is mounted, so none of its versions can be waited for.
    return {};
  }
}

}  // namespace

TableAnnouncer::TableAnnouncer(SwTableId tableId, const Fenrik::Ptr<KivSharedMem::Entity>& log,
                               const Fenrik::Ptr<KivSharedMem::EntityManager>& manager)
    : tableId_(tableId), log_(log), needed_(mountNeeded(log->path(), manager)) {
  FENRIK_ASSERT(needed_ != nullptr);
  takeOver(*manager);
}

TableAnnouncer::~TableAnnouncer() = default;

Fenrik::Ptr<const NeededEntry> TableAnnouncer::everythingAnnounced(
    const KivSharedMem::EntityManager& manager, SwTableId except) {
  auto everything = Fenrik::ptrIsImpl<NeededEntry>();
  const auto stored =
      manager.findEntities(Constants::kRoot, KivSharedMem::KivSharedMemType::stored);
  for (const auto& node : stored->paths()) {
    const auto tableId = Constants::getTableIdFromEntryLogPath(node.value());
    if (!tableId || *tableId == except) continue;
    const auto version = announcedOf(manager, node.value());
    if (version && *version != LogVersion(0)) everything->add(TableVersion(*tableId, *version));
  }
  return everything;
}

void TableAnnouncer::takeOver(const KivSharedMem::EntityManager& manager) {
  const auto& control = *log_->collectionControl();
  const LogVersion logged(control.scratchpad());
  announced_ = std::min(LogVersion(control.announced()), logged);
  sequence_ = LogVersion(needed_->collectionControl()->scratchpad() + 1);
  // A rebuilt log starts numbering again: sets of versions that it has not issued are stale.
  const auto newest = guardedFind(*needed_->map(), LogVersion(sequence_.value() - 1));
  if (newest.found && newest.record.version > logged) needed_->neededEntryDelAll();
  if (announced_ == logged) return;

  const auto everything = everythingAnnounced(manager, tableId_);
  // Later versions follow in order, so one set suffices.
  if (!everything->empty()) neededStore(LogVersion(announced_.value() + 1), *everything);
  announce(logged, nullptr);
  ring(nullptr);
}

void TableAnnouncer::announce(LogVersion version, const NeededEntry* needed) {
  if (needed != nullptr && !needed->empty()) neededStore(version, *needed);
  announced_ = version;
  log_->collectionControl()->announcedIs(version.value());
  ringDue_ = true;
}

void TableAnnouncer::neededStore(LogVersion version, const NeededEntry& needed) {
  NeededEntryRecord record;
  record.version = version;
  for (const auto& node : needed.versions()) {
    record.needed[record.count++] = node.value();
    if (record.count == NeededEntryRecord::kVersions) {
      neededStore(record);
      record.count = 0;
    }
  }
  if (record.count != 0) neededStore(record);
}

void TableAnnouncer::neededStore(const NeededEntryRecord& record) {
  NeededEntryRecord numbered = record;
  numbered.sequence = sequence_;
  for (std::size_t i = record.count; i < NeededEntryRecord::kVersions; ++i) numbered.needed[i] = {};
  needed_->neededEntryIs(numbered);
  needed_->collectionControl()->scratchpadIs(sequence_.value());
  sequence_ = LogVersion(sequence_.value() + 1);
}

void TableAnnouncer::makeRoom(std::size_t versions) {
  constexpr std::size_t kPerRecord = NeededEntryRecord::kVersions;
  needed_->writer().makeRoom((versions + kPerRecord - 1) / kPerRecord);
}

void TableAnnouncer::cleaned(LogVersion version) {
  if (needed_->writer().size() == 0) return;
  auto& map = *needed_->map();
  Cursor cursor;
  while (guardedRead(
      map, [&] { return map.driftMapIterBegin(cursor); }, false)) {
    if (cursor.record.version > version) return;
    needed_->neededEntryDel(cursor.record.sequence);
  }
  // An unreadable set would block the ones after it. All sets are dropped as soon as no announced
  // version is outstanding.
  if (needed_->writer().size() != 0 && version >= announced_) needed_->neededEntryDelAll();
}

void TableAnnouncer::ring(const Drift::DriftFile* reports) noexcept {
  if (!std::exchange(ringDue_, false)) return;
  log_->ring(reports);
}

}  // namespace Asic
