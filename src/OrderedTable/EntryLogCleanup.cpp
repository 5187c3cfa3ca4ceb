#include <algorithm>
#include <vector>

#include "Kiv/Trace.h"
#include "OrderedTable/EntryLogCore.h"
#include "OrderedTable/GroupInterface.h"

namespace Asic {

void EntryLogCore::cleanupEntryLog(LogVersion version) {
  KIV_TRACE(trace(), 8, descriptor_.names.log, " version {}", version);
  const LogVersion from = tableStatusVersion();
  if (from == LogVersion(0)) {
    cleanupAll(version);
  } else if (from <= version) {
    cleanupRange(from, version);
  }
  tableStatusVersionIs(version);
  groupInterface()->entryLogCleaned(tableId(), version);
}

/// The first clean-up of a process does not know where the previous process stopped, so it removes
/// everything up to `version`.
void EntryLogCore::cleanupAll(LogVersion version) {
  const LogVersion to = std::min(version, tableVersion());
  cleanupRead(log_->first(), std::min(to, lastFound_));
  cleanupOwn(to);
}

void EntryLogCore::cleanupRange(LogVersion from, LogVersion to) {
  const LogVersion last = std::min(to, tableVersion());
  const LogVersion first = log_->first();
  if (first < from) {
    // A report went back and then jumped ahead: records below the range are left in the log.
    cleanupRead(from, last);
    removalsDel(from, last);
    return;
  }
  cleanupRead(first, std::min(last, lastFound_));
  cleanupOwn(last);
}

/// Applies records by reading the log. Unreadable records are skipped.
void EntryLogCore::cleanupRead(LogVersion from, LogVersion to) {
  for (std::uint64_t version = from.value(); version <= to.value(); ++version) {
    if (const LogRecord* const record = log_->look(LogVersion(version))) cleanupRecord(*record);
  }
}

/// Of the records logged by this process only removals need work, and those are kept in memory.
void EntryLogCore::cleanupOwn(LogVersion to) {
  for (const Removal* front = removals_.front(); front != nullptr && front->version <= to;
       front = removals_.front()) {
    const Removal removal = removals_.deq();
    log_->removeThrough(removal.version);
    apply(removal.version, removal.flags, removal.unit, removal.key.data());
  }
  if (to > lastFound_) log_->removeThrough(to);
}

/// Drops the noted removals of a range that was applied from the log itself.
void EntryLogCore::removalsDel(LogVersion from, LogVersion to) {
  for (std::uint32_t left = removals_.size(); left != 0; --left) {
    const Removal removal = removals_.deq();
    if (removal.version < from || removal.version > to) removals_.enq(removal);
  }
}

/// Removes the log record first: after a crash in between, the next mount purges the entry in
/// deletion.
void EntryLogCore::cleanupRecord(const LogRecord& record) {
  const LogVersion version = record.version();
  const EntryFlags flags = record.flags();
  const UnitId unit = record.unitId();
  const KeyImage key(shapes().key, record.logEntry());
  log_->remove(version);
  apply(version, flags, unit, key.words());
}

void EntryLogCore::apply(LogVersion version, EntryFlags flags, UnitId unit, const Word* key) {
  ConfigStore* const config = this->config(unit);
  if (config == nullptr) {
    KIV_TRACE_AS("cleanupEntryLog", trace(), 3, descriptor_.names.log,
                 " configDrift not found for unitId: {}", unit);
  } else if (flags.isEntryDeleted()) {
    const ConfigRecord* const record = config->look(key);
    if (record != nullptr && record->logVersion() == version) config->remove(key);
  } else if (flags.isTableDeleted()) {
    KIV_TRACE_AS("cleanupEntryLog", trace(), 3, descriptor_.names.log,
                 " deleteing all entries for unitId: {}", unit);
    config->walk([&](const ConfigRecord& record) {
      if (record.logVersion() != version) return;
      config->remove(KeyImage(shapes().key, record.words()).words());
    });
  }
}

}  // namespace Asic
