#pragma once

#include <algorithm>

#include "Fenrik/Assert.h"
#include "Fenrik/Format.h"
#include "Kiv/KeyedAttribute.h"
#include "Kiv/Sassert.h"
#include "Kiv/Trace.h"
#include "OrderedTable/CorruptionGuard.h"
#include "OrderedTable/EntryLogBase.h"
#include "OrderedTable/GroupInterface.h"
#include "OrderedTable/MountDrift.h"
#include "OrderedTable/NeededEntry.h"
#include "OrderedTable/SwTableStats.h"
#include "QuarnBastil/FamilyLogs.h"
#include "QuarnBastil/FamilyTraits.h"

namespace QuarnBastil {

/// The entry log of one table: the only one that changes its collections. One for all units.
///
/// Threads: the table thread. The hardware writer reads the collections meanwhile, and the order of
/// the stores is what it relies on: configuration record, log record, scratchpad, announcement.
template <class Family>
class QUARNBASTIL_EXPORT EntryLog
    : public Fenrik::NodeClass<typename Family::EntryLog, Asic::EntryLogBase> {
 public:
  using Key = typename Family::Key;
  using LogEntry = typename Family::LogEntry;
  using ResourceKeys = typename Family::ResourceKeys;
  using ConfigDrift = typename Family::ConfigDrift;
  using ConfigRecord = typename Family::ConfigDriftEntry;
  using LogDrift = typename Family::EntryLogDrift;
  using LogRecord = typename Family::LogDriftEntry;
  using NeededPtr = Fenrik::Ptr<const Asic::NeededEntry>;
  using StatsPtr = Fenrik::Ptr<Asic::SwTableStats>;
  using KivModule = typename Family::EntryLogModule;
  using Base = Fenrik::NodeClass<typename Family::EntryLog, Asic::EntryLogBase>;

  static constexpr std::uint16_t kFieldBase = 128;

  using HN_TableConfigDrift = Kiv::Hm2018NE<Family::kTableConfigDriftSalt, Asic::UnitId,
                                            Fenrik::Ptr<ConfigDrift>, Kiv::HashMap2018Alloc::slab>;

  EntryLog(Asic::SwTableId tableId, const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
           const Fenrik::Ptr<Asic::GroupInterface>& groupInterface, const Fenrik::String& agentName)
      : Base(tableId, entityManager, groupInterface, agentName) {
    handleInitialized();
  }

  FENRIK_POINTER(kFieldBase + 2, tableEntryLog, LogDrift);
  KIV_KEYED_VALUE(kFieldBase + 3, tableConfigDrift, HN_TableConfigDrift);

 public:
  /// A commit of the key is near: fetches its record into the processor's cache.
  void prefetch(const Key& key, Asic::UnitId unitId, bool near) const noexcept {
    if (auto* const config = tableConfigDriftFind(unitId))
      config->swTableEntriesPrefetch(key, near);
  }

  /// Sees to it that an operation can be stored, so that no version is issued for one that cannot.
  /// Throws `Drift::CollectionFullException` or `Drift::NoSpaceException` with nothing changed.
  void operationRoom(const Key& key, Asic::EntryFlags flags, Asic::UnitId unitId) {
    auto* const config = tableConfigDriftFind(unitId);
    if (config == nullptr) return;
    try {
      if (flags == Asic::EntryFlags(Asic::EntryFlags::kWrite)) {
        config->swTableEntriesRoom(key);
      } else {
        config->swTableEntriesReplacementRoom();
      }
      logRoom();
      this->groupInterface()->addLogEntryRoom(this->tableId());
    } catch (const Fenrik::Exception&) {
      const bool nothingToRemove =
          flags.isTableDeleted()
              ? config->map()->driftMapSize() == 0
              : flags.isEntryDeleted() && !Asic::guardedLook(*config->map(), key).found;
      if (!nothingToRemove) throw;
    }
  }

  /// Writes an entry: configuration, log, scratchpad, announcement. Returns the version under which
  /// the value stands now, which is an older one when an identical write was suppressed.
  Asic::LogVersion entryIs(const LogEntry& logEntry, const ResourceKeys& rsrcKeys,
                           const NeededPtr& neededEntry, Asic::UnitId unitId, const StatsPtr& stats,
                           bool suppressIdenticalWrites) {
    auto* const config = tableConfigDriftFind(unitId);
    KIV_SASSERT_TEXT(config != nullptr, "tableConfigDriftHas( unitId )",
                     "Config drift for unitId:" << unitId << " is not created yet!");
    if (suppressIdenticalWrites) {
      const Asic::LogVersion standing = identicalWrite(*config, logEntry, rsrcKeys, *stats);
      if (standing != Asic::LogVersion(0)) return standing;
    }
    const Asic::LogVersion version = this->tableVersionInc(Asic::LogVersion(1));
    KIV_TRACE(trace(), 8, kName,
              " logEntry: {} neededEntry: {} version: {} unitId: {} suppressIdenticalWrites: {}",
              logEntry, neededEntry, version, unitId, suppressIdenticalWrites);
    config->swTableEntriesIs(logEntry, rsrcKeys, version, false);
    logRecordIs(version, Asic::EntryFlags::kWrite, unitId, logEntry, neededEntry);
    return version;
  }

  /// Marks an entry as removed; 0 when there is nothing under the key.
  Asic::LogVersion entryDel(const Key& key, const NeededPtr& neededEntry, Asic::UnitId unitId) {
    KIV_TRACE(trace(), 8, kName, " key:{} neededEntry: {} unitId: {}", key, neededEntry, unitId);
    auto* const config = tableConfigDriftFind(unitId);
    const auto looked = Asic::guardedLook(*config->map(), key);
    if (!looked.found) {
      KIV_TRACE(trace(), 3, kName, " key: {} entry does not exist. So ignoring delete", key);
      return Asic::LogVersion(0);
    }
    const Asic::LogVersion version = this->tableVersionInc(Asic::LogVersion(1));
    markDeleted(*config, *looked.record, version);
    logRecordIs(version, Asic::EntryFlags::kEntryDelete, unitId, looked.record->logEntry,
                neededEntry);
    return version;
  }

  /// Marks all live entries of a unit as removed, under one version.
  Asic::LogVersion tableDel(const NeededPtr& neededEntry, Asic::UnitId unitId) {
    KIV_TRACE(trace(), 8, kName, " neededEntry:{}, unitId: {}", neededEntry, unitId);
    const Asic::LogVersion version = this->tableVersionInc(Asic::LogVersion(1));
    auto* const config = tableConfigDriftFind(unitId);
    Asic::guardedWalk(*config->map(), [&](const ConfigRecord& record) {
      if (!record.isDeleted) markDeleted(*config, record, version);
    });
    logRecordIs(version, Asic::EntryFlags::kTableDelete, unitId, LogEntry{}, neededEntry);
    return version;
  }

  /// The committed value; a default one for a key that is absent or in deletion.
  LogEntry entry(const Key& key, Asic::UnitId unitId) const {
    KIV_TRACE(trace(), 8, kName, " key: {} unitId:{}", key, unitId);
    const ConfigRecord record = Asic::guardedFind(*configMap(unitId), key).record;
    return record.isDeleted ? LogEntry{} : record.logEntry;
  }

  bool entryHas(const Key& key, Asic::UnitId unitId) const {
    return liveRecord(key, unitId) != nullptr;
  }

  /// The record for which `entryHas` is true, null if it is false. It holds until the next look-up
  /// in the unit's configuration.
  const ConfigRecord* liveRecord(const Key& key, Asic::UnitId unitId) const {
    KIV_TRACE_AS("entryHas", trace(), 8, kName, " key: {} unitId:{}", key, unitId);
    const auto looked = Asic::guardedLook(*configMap(unitId), key);
    return looked.found && !looked.record->isDeleted ? looked.record : nullptr;
  }

  ResourceKeys entryRsrcKeys(const Key& key, Asic::UnitId unitId) const {
    KIV_TRACE(trace(), 8, kName, " key: {} unitId:{}", key, unitId);
    return Asic::guardedFind(*configMap(unitId), key).record.rsrcKeys;
  }

  /// The version of the record, one in deletion included; 0 for an absent key.
  Asic::LogVersion entryLogVersion(const Key& key, Asic::UnitId unitId) const {
    KIV_TRACE(trace(), 8, kName, " key: {} unitId:{}", key, unitId);
    return Asic::guardedFind(*configMap(unitId), key).record.logVersion;
  }

  /// Number of records in deletion. Walks the unit's collection.
  std::uint32_t entrysInDeletion(Asic::UnitId unitId) const {
    KIV_TRACE(trace(), 8, kName, " unitId:{}", unitId);
    std::uint32_t count = 0;
    Asic::guardedWalk(*configMap(unitId),
                      [&](const ConfigRecord& record) { count += record.isDeleted ? 1 : 0; });
    return count;
  }

  /// Number of live records. Walks the unit's collection.
  std::uint32_t entrys(Asic::UnitId unitId) const {
    KIV_TRACE(trace(), 8, kName, " unitId:{}", unitId);
    const auto size = static_cast<std::uint32_t>(configMap(unitId)->driftMapSize());
    return size - entrysInDeletion(unitId);
  }

  /// Removes the log records up to a version that the hardware has acknowledged, and the entries
  /// whose removal they told. The cost follows what the log holds, whatever the report says.
  void cleanupEntryLog(Asic::LogVersion version) {
    KIV_TRACE(trace(), 8, kName, " version {}", version);
    const Asic::LogVersion from = this->tableStatusVersion();
    if (from == Asic::LogVersion(0)) {
      cleanupAll(version);
    } else if (from <= version) {
      cleanupRange(from, version);
    }
    this->tableStatusVersionIs(version);
    this->groupInterface()->entryLogCleaned(this->tableId(), version);
  }

  void handleInitialized() {
    KIV_TRACE(trace(), 8, kName, "");
    mountDriftChangeLog();
  }

  void mountDriftChangeLog() {
    KIV_TRACE(trace(), 8, kName, "");
    const Fenrik::String path = Family::Constants::tableEntryLogDriftPath();
    tableEntryLogIs(mount<LogDrift>(path, Family::kLogCapacity, "entryLog", true));
    this->tableVersionIs(Asic::LogVersion(tableEntryLog()->collectionControl()->scratchpad()));
    KIV_TRACE(trace(), 2, kName, " Mounted entryLog: {}, tableVersion: {}", path,
              this->tableVersion());
    const auto& needed = this->groupInterface()->entryLogMounted(this->tableId(), tableEntryLog());
    Asic::answerWiped(*this->entityManager(), this->agentName(), *needed,
                      [] { reportLost("neededEntry"); });
  }

  /// Mounts a unit's configuration, and removes what was in deletion and has been acknowledged.
  void mountDriftConfig(Asic::UnitId unitId, Asic::LogVersion logVersion) {
    KIV_TRACE(trace(), 8, kName, " unitId:{}, logVersion: {}", unitId, logVersion);
    const Fenrik::String path = Family::Constants::configDriftPath(unitId);
    const auto cfgDrift = mount<ConfigDrift>(path, Family::kConfigCapacity, "entryCfg", false);
    FENRIK_ASSERT_TEXT(cfgDrift != nullptr, "cfgDrift");
    tableConfigDriftIs(unitId, cfgDrift);
    KIV_TRACE(trace(), 2, kName, " Mounted config for unitId: {} at {}", unitId, path);
    if (logVersion == Asic::LogVersion(0)) return;
    for (const Key& key : cfgDrift->swTableEntriesMaybeDeleted(logVersion)) {
      const auto looked = Asic::guardedLook(*cfgDrift->map(), key);
      if (looked.found && looked.record->isDeleted && looked.record->logVersion <= logVersion) {
        cfgDrift->swTableEntriesDel(key);
      }
    }
  }

 private:
  KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& trace() {
    return FamilyTraces<Family>::entryLog();
  }

  /// The unit's configuration without taking a reference; null if it is not mounted.
  ConfigDrift* tableConfigDriftFind(Asic::UnitId unitId) const {
    const auto* const node = tableConfigDrift_[unitId];
    return node == nullptr ? nullptr : node->value().get();
  }

  static constexpr const char* kName = className<typename Family::EntryLog>();
  inline static FamilyLogHandles logHandles_;

  /// REQUIRES: the unit's configuration is mounted.
  const Fenrik::Ptr<typename ConfigDrift::Map>& configMap(Asic::UnitId unitId) const {
    return tableConfigDriftFind(unitId)->map();
  }

  /// The version of the identical record that makes this write superfluous; 0 if there is none.
  Asic::LogVersion identicalWrite(ConfigDrift& config, const LogEntry& logEntry,
                                  const ResourceKeys& rsrcKeys, Asic::SwTableStats& stats) {
    const ConfigRecord record = Asic::guardedFind(*config.map(), logEntry.key).record;
    if (ConfigRecord::isEq(&record, &Asic::kDefaultRecord<ConfigRecord>) || record.isDeleted) {
      return Asic::LogVersion(0);
    }
    if (!(record.logEntry == logEntry) || !(record.rsrcKeys == rsrcKeys)) {
      KIV_TRACE_AS("entryIs", trace(), 3, kName,
                   "Not Suppressing write because entry or resource key is different  for key: {}",
                   logEntry.key);
      stats.suppressCheckDiffCntInc(1);
      return Asic::LogVersion(0);
    }
    stats.suppressedWriteCntInc(1);
    KIV_TRACE_AS("entryIs", trace(), 3, kName, "Suppressing identical write for key: {}",
                 logEntry.key);
    return record.logVersion;
  }

  /// The record keeps its value, readable for the hardware writer.
  static void markDeleted(ConfigDrift& config, const ConfigRecord& record,
                          Asic::LogVersion version) {
    config.swTableEntriesIs(record.logEntry, record.rsrcKeys, version, true);
  }

  /// The second half of every write: log, scratchpad, announcement.
  void logRecordIs(Asic::LogVersion version, decltype(Asic::EntryFlags::kWrite) flags,
                   Asic::UnitId unitId, const LogEntry& logEntry, const NeededPtr& neededEntry) {
    tableEntryLog()->entryLogConfigIs(version, Asic::EntryFlags(flags), unitId, logEntry);
    tableEntryLog()->collectionControl()->scratchpadIs(version.value());
    this->groupInterface()->addLogEntry(this->tableId(), version, neededEntry);
  }

  /// The first cleaning of a process does not know how far the last one came. Records stand in the
  /// order of their versions.
  void cleanupAll(Asic::LogVersion version) {
    auto& map = *tableEntryLog()->map();
    typename LogDrift::Map::Cursor cursor;
    bool more = Asic::guardedRead(
        map, [&] { return map.driftMapIterBegin(cursor); }, false);
    while (more && cursor.record.version <= version) {
      const Asic::LogVersion current = cursor.record.version;
      cleanupRecord(cursor.record);
      more = Asic::guardedRead(
          map, [&] { return map.driftMapIterNext(current, cursor); }, false);
    }
  }

  void cleanupRange(Asic::LogVersion from, Asic::LogVersion to) {
    auto& map = *tableEntryLog()->map();
    const std::uint64_t last = std::min(to.value(), this->tableVersion().value());
    for (std::uint64_t number = lowestHeld(from.value(), last); number <= last; ++number) {
      const auto looked = Asic::guardedLook(map, Asic::LogVersion(number));
      if (looked.found) cleanupRecord(*looked.record);
    }
  }

  /// Room for a record. One that could not be read when it was to be cleaned would keep the log
  /// from moving on for ever: it goes when there is no other room.
  void logRoom() {
    try {
      tableEntryLog()->entryLogConfigRoom();
    } catch (const Drift::CollectionFullException&) {
      const std::uint64_t last =
          std::min(this->tableStatusVersion().value(), this->tableVersion().value());
      const std::uint64_t reach = tableEntryLog()->file().header().slotCount;
      for (std::uint64_t number = last - std::min(last, reach); number <= last; ++number) {
        tableEntryLog()->entryLogConfigDel(Asic::LogVersion(number));
      }
      tableEntryLog()->entryLogConfigRoom();
    }
  }

  /// Where a walk of numbers need not begin earlier: at the oldest record, or, if that cannot be
  /// read, as far back as the log can reach.
  std::uint64_t lowestHeld(std::uint64_t from, std::uint64_t last) const {
    // To ask costs as much as a few look-ups that find nothing.
    constexpr std::uint64_t kWorthAsking = 16;
    if (last < from || last - from < kWorthAsking) return from;
    const auto& map = *tableEntryLog()->map();
    if (map.driftMapSize() == 0) return last + 1;
    typename LogDrift::Map::Cursor cursor;
    const bool read = Asic::guardedRead(
        *tableEntryLog()->map(), [&] { return map.driftMapIterBegin(cursor); }, false);
    if (read) return std::max(from, cursor.record.version.value());
    const std::uint64_t reach = tableEntryLog()->file().header().slotCount;
    return last - from > reach ? last - reach : from;
  }

  /// The log record goes first: a death in between leaves an entry in deletion that the next mount
  /// purges.
  void cleanupRecord(const LogRecord& record) {
    const Asic::LogVersion version = record.version;
    const Asic::EntryFlags flags = record.flags;
    const Asic::UnitId unitId = record.unitId;
    const Key key = record.logEntry.key;
    tableEntryLog()->entryLogConfigDel(version);
    auto* const config = tableConfigDriftFind(unitId);
    if (config == nullptr) {
      KIV_TRACE_AS("cleanupEntryLog", trace(), 3, kName, " configDrift not found for unitId: {}",
                   unitId);
    } else if (flags.isEntryDeleted()) {
      const auto looked = Asic::guardedLook(*config->map(), key);
      if (looked.record->logVersion == version) config->swTableEntriesDel(key);
    } else if (flags.isTableDeleted()) {
      KIV_TRACE_AS("cleanupEntryLog", trace(), 3, kName, " deleteing all entries for unitId: {}",
                   unitId);
      Asic::guardedWalk(*config->map(), [&](const ConfigRecord& entry) {
        if (entry.logVersion == version) config->swTableEntriesDel(entry.logEntry.key);
      });
    }
  }

  static void reportLost(const char* itemWord) {
    Kiv::log(logHandles_.error, Fenrik::formatString("{}::{}", itemWord, Family::kTableName));
  }

  /// A log that was lost goes on where the hardware is: a version that was reported once must not
  /// be issued for something else.
  template <class Collection>
  Fenrik::Ptr<Collection> mount(const Fenrik::String& path, Drift::Word capacity,
                                const char* itemWord, bool isLog) {
    Fenrik::Ptr<KivDrift::CollectionControl> control;
    return Asic::checkAndwriteMountDrift<Collection>(
        this->entityManager(), Fenrik::String(Collection::kEntityName), path, this->agentName(),
        [=](KivDrift::MountInfo& info) {
          info.collectionInfoIs({Fenrik::String(Collection::kAttributeName), capacity, 0});
        },
        [&](Fenrik::Ptr<Collection>& collection) {
          return control = collection->collectionControl();
        },
        [&] {
          reportLost(itemWord);
          if (!isLog) return;
          control->scratchpadIs(
              std::max<unsigned long long>(control->scratchpad(), reportedVersion().value()));
        });
  }

  Asic::LogVersion reportedVersion() const {
    return this->groupInterface()->tableVersionMap()->find(this->tableId()).record.logVersion;
  }
};

}  // namespace QuarnBastil
