#include <algorithm>
#include <map>

#include "Drift/DriftError.h"
#include "Fenrik/Assert.h"
#include "Kiv/Log.h"
#include "Kiv/Trace.h"
#include "OrderedTable/Constants.h"
#include "OrderedTable/EntryLogCore.h"
#include "OrderedTable/GroupInterface.h"
#include "OrderedTable/MountDrift.h"

namespace Asic {

EntryLogCore::EntryLogCore(const TableDescriptor& descriptor, SwTableId tableId,
                           const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
                           const Fenrik::Ptr<GroupInterface>& groupInterface,
                           const Fenrik::String& agentName)
    : EntryLogBase(tableId, entityManager, groupInterface, agentName),
      descriptor_(descriptor),
      roomLimit_(descriptor.collections.logCapacity - 1),
      entry_(descriptor.records.logEntry.words()) {}

EntryLogCore::~EntryLogCore() { removals_.doClear(false); }

void EntryLogCore::handleInitialized() {
  KIV_TRACE(trace(), 8, descriptor_.names.log, "");
  mountDriftChangeLog();
}

void EntryLogCore::mountDriftChangeLog() {
  KIV_TRACE(trace(), 8, descriptor_.names.log, "");
  const Fenrik::String path = Constants::canonicalGroupTableEntryLogDriftPath(
      groupInterface()->canonicalName(), descriptor_.tableNamespace, descriptor_.tableName,
      tableId());
  const auto logInfo = [this](KivDrift::MountInfo& info) {
    info.collectionInfoIs(
        {Fenrik::String("entryLogConfig"), descriptor_.collections.logCapacity, 0});
  };
  const Fenrik::String logType(descriptor_.collections.logType);
  const auto log =
      Fenrik::dynamicPtrCast<LogStore::Entity>(mount(path, logType, logInfo, "entryLog"));
  FENRIK_ASSERT(log != nullptr);
  log_ = std::make_unique<LogStore>(descriptor_, log);
  publisher_.publishChangeRecursive(kTableEntryLogField, nullptr, &log_->entity(), nullptr);
  completeInterrupted();
  tableVersionIs(LogVersion(log->collectionControl()->scratchpad()));
  lastFound_ = tableVersion();
  KIV_TRACE(trace(), 2, descriptor_.names.log, " Mounted entryLog: {}, tableVersion: {}", path,
            tableVersion());
  const auto& needed = groupInterface()->entryLogMounted(tableId(), log);
  answerWiped(*entityManager(), agentName(), *needed, [this] { reportLost("neededEntry"); });
}

void EntryLogCore::mountDriftConfig(UnitId unitId, LogVersion logVersion) {
  KIV_TRACE(trace(), 8, descriptor_.names.log, " unitId:{}, logVersion: {}", unitId, logVersion);
  const Fenrik::String path = Fenrik::formatString("{}{}", configPathBase(), unitId);
  const auto cfgDrift = Fenrik::dynamicPtrCast<ConfigStore::Entity>(
      mount(path, configType(), configMountInfo(), "entryCfg"));
  FENRIK_ASSERT_TEXT(cfgDrift != nullptr, "cfgDrift");
  configEntityIs(unitId, cfgDrift);
  KIV_TRACE(trace(), 2, descriptor_.names.log, " Mounted config for unitId: {} at {}", unitId,
            path);
  if (logVersion == LogVersion(0)) return;
  ConfigStore& config = *this->config(unitId);
  const auto acknowledged = config.recordsWhere([&](const ConfigRecord& record) {
    return record.isDeleted() && record.logVersion() <= logVersion;
  });
  for (const auto& record : acknowledged) {
    config.remove(KeyImage(shapes().key, record.data()).words());
  }
}

void EntryLogCore::prefetch(const Word* key, UnitId unit, bool near,
                            unsigned ahead) const noexcept {
  const ConfigStore* const config = this->config(unit);
  if (config == nullptr) return;
  config->prefetch(key, near, ahead);
  if (near) log_->prefetch(ahead);
}

ConfigStore* EntryLogCore::configFrom(unsigned from) const noexcept {
  for (std::size_t unit = from; unit < configs_.size(); ++unit) {
    if (configs_[unit] != nullptr) return configs_[unit].get();
  }
  return nullptr;
}

EntryLogCore::ConfigEntity EntryLogCore::configEntity(UnitId unit) const {
  const ConfigStore* const config = this->config(unit);
  return config != nullptr ? config->entity() : nullptr;
}

void EntryLogCore::configEntityIs(UnitId unit, ConfigEntity entity) {
  if (entity == nullptr) {
    configEntityDel(unit);
    return;
  }
  if (configEntity(unit) == entity) return;
  if (unit.value() >= configs_.size()) configs_.resize(unit.value() + std::size_t{1});
  auto& place = configs_[unit.value()];
  configCount_ += place == nullptr ? 1 : 0;
  place = std::make_unique<ConfigStore>(descriptor_, unit, std::move(entity));
  publisher_.publishChangeRecursive(kTableConfigDriftField, &unit, &place->entity(), &UnitId::isEq);
}

EntryLogCore::ConfigEntity EntryLogCore::configEntityDel(UnitId unit) {
  ConfigEntity former = configEntity(unit);
  if (former == nullptr) return former;
  configs_[unit.value()] = nullptr;
  --configCount_;
  publisher_.publishChangeRecursive(kTableConfigDriftField, &unit, nullptr, &UnitId::isEq);
  return former;
}

void EntryLogCore::configEntityDelAll() {
  while (const ConfigStore* const config = configFrom(0)) configEntityDel(config->unit());
}

Fenrik::String EntryLogCore::configPathBase() const {
  return Constants::canonicalGroupTableConfigDriftPathBase(
      groupInterface()->canonicalName(), descriptor_.tableNamespace, descriptor_.tableName);
}

Fenrik::String EntryLogCore::configType() const {
  return Fenrik::String(descriptor_.collections.configType);
}

std::function<void(KivDrift::MountInfo&)> EntryLogCore::configMountInfo() const {
  return [capacity = descriptor_.collections.configCapacity](KivDrift::MountInfo& info) {
    info.collectionInfoIs({Fenrik::String("swTableEntries"), capacity, 0});
  };
}

/// Mounts one of the table's collections. If it was wiped, reports that under `itemWord`.
Fenrik::Ptr<KivSharedMem::Entity> EntryLogCore::mount(
    const Fenrik::String& path, const Fenrik::String& typeName,
    std::function<void(KivDrift::MountInfo&)> mountInfo, const char* itemWord) {
  using Entity = KivSharedMem::Entity;
  return checkAndwriteMountDrift<Entity>(
      entityManager(), typeName, path, agentName(), std::move(mountInfo),
      [](Fenrik::Ptr<Entity>& collection) { return collection->collectionControl(); },
      [&] { reportLost(itemWord); });
}

/// Handles configuration records whose version is beyond the end of the log. If there is exactly
/// one such version and it is the next one, an earlier process died within a commit: the version is
/// logged now. Otherwise the log was lost: versions continue above what the hardware reported and
/// above all that are configured, so that no version is issued twice.
void EntryLogCore::completeInterrupted() {
  auto& control = *log_->entity()->collectionControl();
  const LogVersion logged(control.scratchpad());
  const auto unlogged = recordsBeyond(logged);
  const LogVersion next(logged.value() + 1);
  const bool interrupted = unlogged.size() == 1 && unlogged.begin()->first == next;
  const bool found = control.mountStage() == Drift::MountStage::ok;
  if (found && unlogged.empty()) return;
  if (found && interrupted) {
    const auto& [config, records] = unlogged.begin()->second;
    completeVersion(*config, next, records);
    return;
  }
  const LogVersion newest = unlogged.empty() ? logged : unlogged.rbegin()->first;
  const LogVersion goesOnFrom = std::max({logged, newest, reportedVersion()});
  if (goesOnFrom != logged) control.scratchpadIs(goesOnFrom.value());
}

/// Records of all units with versions beyond `version`, grouped by version. Opens every unit that
/// has a configuration; a failure to open one is reported when its table is created.
EntryLogCore::Unlogged EntryLogCore::recordsBeyond(LogVersion version) const {
  Unlogged unlogged;
  const auto stored = sharedMemManager(*entityManager())
                          ->findEntities(configPathBase(), KivSharedMem::KivSharedMemType::stored);
  for (const auto& node : stored->paths()) {
    const auto unit = Constants::findUnitIdOfConfigPath(node.value());
    if (!unit) continue;
    try {
      auto entity =
          Impl::mountForWriting(*entityManager(), configType(), node.value(), configMountInfo());
      const auto config = std::make_shared<ConfigStore>(
          descriptor_, *unit, Fenrik::dynamicPtrCast<ConfigStore::Entity>(entity));
      const auto beyond = config->recordsWhere(
          [&](const ConfigRecord& record) { return record.logVersion() > version; });
      for (const auto& record : beyond) {
        auto& place = unlogged[config->recordOf(record.data()).logVersion()];
        place.first = config;
        place.second.push_back(record);
      }
    } catch (const Drift::MountException&) {
      continue;
    }
  }
  return unlogged;
}

/// A single record is a write or a removal. Several records are an interrupted clear, which is
/// completed, so that the hardware drops all of the unit's entries at once.
void EntryLogCore::completeVersion(ConfigStore& config, LogVersion version,
                                   const std::vector<std::vector<Word>>& records) {
  log_->makeRoom();
  const ConfigRecord first = config.recordOf(records.front().data());
  std::uint8_t flags = first.isDeleted() ? EntryFlags::kEntryDelete : EntryFlags::kWrite;
  shapes().logEntry.toWords(first.words(), entry_.data());
  if (records.size() > 1) {
    clearRoom(config);
    markAllDeleted(config, version);
    flags = EntryFlags::kTableDelete;
    shapes().logEntry.toWords(shapes().defaultEntry, entry_.data());
  }
  log_->append(version, EntryFlags(flags), config.unit(), entry_.data());
  log_->entity()->collectionControl()->scratchpadIs(version.value());
}

void EntryLogCore::reportLost(const char* itemWord) const {
  Kiv::log(*descriptor_.lostLog, Fenrik::formatString("{}::{}", itemWord, descriptor_.tableName));
}

LogVersion EntryLogCore::reportedVersion() const {
  return groupInterface()->tableVersionMap()->find(tableId()).record.logVersion;
}

}  // namespace Asic
