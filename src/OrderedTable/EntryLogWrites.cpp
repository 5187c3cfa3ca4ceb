#include <algorithm>

#include "Drift/DriftError.h"
#include "Fenrik/Assert.h"
#include "Kiv/Sassert.h"
#include "Kiv/StrepFormatter.h"
#include "Kiv/Trace.h"
#include "OrderedTable/EntryLogCore.h"
#include "OrderedTable/GroupInterface.h"

namespace Asic {

void EntryLogCore::operationRoom(const Word* key, EntryFlags flags, UnitId unit) {
  ConfigStore* const config = this->config(unit);
  if (config == nullptr) return;
  const bool isWrite = flags.value() == EntryFlags::kWrite;
  try {
    if (isWrite) {
      config->writeRoom(key);
    } else if (flags.isEntryDeleted()) {
      config->replacementRoom(1);
    } else {
      clearRoom(*config);
    }
    logRoom();
    groupInterface()->addLogEntryRoom(tableId(), 1);
  } catch (const Fenrik::Exception&) {
    const bool nothingToRemove = flags.isTableDeleted()   ? config->size() == 0
                                 : flags.isEntryDeleted() ? config->look(key) == nullptr
                                                          : false;
    if (!nothingToRemove) throw;
  }
}

LogVersion EntryLogCore::entryIs(const void* logEntry, const void* resourceKeys,
                                 const NeededPtr& neededEntry, UnitId unit, SwTableStats& stats,
                                 bool suppressIdenticalWrites) {
  ConfigStore* const config = this->config(unit);
  KIV_SASSERT_TEXT(config != nullptr, "tableConfigDriftHas( unitId )",
                   "Config drift for unitId:" << unit << " is not created yet!");
  const KeyImage key(shapes().key, logEntry);
  if (suppressIdenticalWrites) {
    const LogVersion standing = identicalWrite(*config, key.words(), logEntry, resourceKeys, stats);
    if (standing != LogVersion(0)) return standing;
  }
  const ConfigStore::Place place = config->placeFor(key.words());
  logRoom();
  neededRoom(neededEntry);
  const LogVersion version = tableVersionInc(LogVersion(1));
  KIV_TRACE(trace(), 8, descriptor_.names.log,
            " logEntry: {} neededEntry: {} version: {} unitId: {} suppressIdenticalWrites: {}",
            LogEntryText(descriptor_, logEntry), neededEntry, version, unit,
            suppressIdenticalWrites);
  shapes().logEntry.toWords(logEntry, entry_.data());
  config->store(key.words(), place, entry_.data(), resourceKeys, version, false);
  logRecordIs(version, EntryFlags::kWrite, unit, entry_.data(), neededEntry);
  return version;
}

LogVersion EntryLogCore::entryDel(const Word* key, const NeededPtr& neededEntry, UnitId unit) {
  KIV_TRACE(trace(), 8, descriptor_.names.log, " key:{} neededEntry: {} unitId: {}",
            KeyText(descriptor_, key), neededEntry, unit);
  ConfigStore* const config = this->config(unit);
  const ConfigRecord* const record = config->look(key);
  if (record == nullptr) {
    KIV_TRACE(trace(), 3, descriptor_.names.log,
              " key: {} entry does not exist. So ignoring delete", KeyText(descriptor_, key));
    return LogVersion(0);
  }
  const ConfigStore::Place place = config->placeFor(key);
  logRoom();
  neededRoom(neededEntry);
  const LogVersion version = tableVersionInc(LogVersion(1));
  // The record keeps its value, which the hardware writer may still read.
  shapes().logEntry.toWords(record->words(), entry_.data());
  config->store(key, place, entry_.data(), record->resourceKeys(), version, true);
  noteRemoval(version, EntryFlags::kEntryDelete, unit, key);
  logRecordIs(version, EntryFlags::kEntryDelete, unit, entry_.data(), neededEntry);
  return version;
}

LogVersion EntryLogCore::tableDel(const NeededPtr& neededEntry, UnitId unit) {
  KIV_TRACE(trace(), 8, descriptor_.names.log, " neededEntry:{}, unitId: {}", neededEntry, unit);
  ConfigStore& config = *this->config(unit);
  clearRoom(config);
  logRoom();
  neededRoom(neededEntry);
  const LogVersion version = tableVersionInc(LogVersion(1));
  markAllDeleted(config, version);
  shapes().logEntry.toWords(shapes().defaultEntry, entry_.data());
  const KeyImage none(shapes().key, shapes().defaultEntry);
  noteRemoval(version, EntryFlags::kTableDelete, unit, none.words());
  logRecordIs(version, EntryFlags::kTableDelete, unit, entry_.data(), neededEntry);
  return version;
}

/// Makes room to mark all live records of a unit. Requests one slot per record; the live records
/// are counted, which takes a walk, only if that fails.
void EntryLogCore::clearRoom(ConfigStore& config) {
  try {
    config.replacementRoom(config.size());
  } catch (const Fenrik::Exception&) {
    std::size_t live = 0;
    config.walk([&](const ConfigRecord& record) { live += record.isDeleted() ? 0 : 1; });
    config.replacementRoom(live);
  }
}

void EntryLogCore::markAllDeleted(ConfigStore& config, LogVersion version) {
  config.walk([&](const ConfigRecord& record) {
    if (record.isDeleted()) return;
    const KeyImage key(shapes().key, record.words());
    shapes().logEntry.toWords(record.words(), entry_.data());
    config.store(key.words(), config.placeFor(key.words()), entry_.data(), record.resourceKeys(),
                 version, true);
  });
}

/// Version of the identical record that makes a write redundant; 0 if there is none.
LogVersion EntryLogCore::identicalWrite(const ConfigStore& config, const Word* key,
                                        const void* logEntry, const void* resourceKeys,
                                        SwTableStats& stats) const {
  const ConfigRecord* const record = config.look(key);
  if (record == nullptr || record->isDefault() || record->isDeleted()) return LogVersion(0);
  const bool same = shapes().logEntry.same(record->words(), logEntry) &&
                    (shapes().resourceKeys.empty() ||
                     shapes().resourceKeys.same(record->resourceKeys(), resourceKeys));
  if (!same) {
    KIV_TRACE_AS("entryIs", trace(), 3, descriptor_.names.log,
                 "Not Suppressing write because entry or resource key is different  for key: {}",
                 KeyText(descriptor_, key));
    stats.suppressCheckDiffCntInc(1);
    return LogVersion(0);
  }
  stats.suppressedWriteCntInc(1);
  KIV_TRACE_AS("entryIs", trace(), 3, descriptor_.names.log,
               "Suppressing identical write for key: {}", KeyText(descriptor_, key));
  return record->logVersion();
}

/// The common tail of every write: log, scratchpad, announcement.
void EntryLogCore::logRecordIs(LogVersion version, std::uint8_t flags, UnitId unit,
                               const Word* logEntry, const NeededPtr& neededEntry) {
  log_->append(version, EntryFlags(flags), unit, logEntry);
  log_->entity()->collectionControl()->scratchpadIs(version.value());
  groupInterface()->addLogEntry(tableId(), version, neededEntry);
}

/// Called before the log record is stored: an exception then leaves a superfluous note rather than
/// a missing one.
void EntryLogCore::noteRemoval(LogVersion version, std::uint8_t flags, UnitId unit,
                               const Word* key) {
  Removal removal{version, EntryFlags(flags), unit, {}};
  std::copy_n(key, shapes().key.words(), removal.key.begin());
  removals_.enq(removal);
}

/// Makes room for log records. An acknowledged record that could not be read during clean-up
/// would block a full log forever, so if the log is full, all acknowledged records are dropped.
void EntryLogCore::logRoom(Word records) {
  try {
    log_->makeRoom(records);
  } catch (const Drift::CollectionFullException&) {
    const LogVersion last = std::min(tableStatusVersion(), tableVersion());
    if (log_->first() > last) throw;
    log_->removeThrough(last);
    log_->makeRoom(records);
  }
}

/// The limit leaves room for the record of an operation that passes it, and for all reservations.
void EntryLogCore::reservedInc(std::int64_t records) {
  reserved_ += static_cast<std::uint64_t>(records);
  const Word places = log_->places();
  const Word usable = places > reserved_ ? places - reserved_ - 1 : 0;
  roomLimit_ = std::min<Word>(descriptor_.collections.logCapacity - 1, usable);
}

bool EntryLogCore::updatesRoom(std::uint32_t updates, std::size_t versionsEach) {
  constexpr std::size_t kPerRecord = NeededEntryRecord::kVersions;
  const std::size_t sets = (versionsEach + kPerRecord - 1) / kPerRecord;
  try {
    logRoom(updates);
    if (sets != 0) groupInterface()->addLogEntryRoom(tableId(), sets * kPerRecord * updates);
    return true;
  } catch (const Drift::CollectionFullException&) {
    return false;
  } catch (const Drift::NoSpaceException&) {
    return false;
  }
}

void EntryLogCore::neededRoom(const NeededPtr& neededEntry) {
  const std::size_t versions = neededEntry == nullptr ? 0 : neededEntry->count();
  if (versions != 0) groupInterface()->addLogEntryRoom(tableId(), versions);
}

}  // namespace Asic
