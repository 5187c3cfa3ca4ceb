#include "Kiv/Trace.h"
#include "OrderedTable/EntryLogCore.h"

namespace Asic {

const ConfigRecord* EntryLogCore::liveRecord(const Word* key, UnitId unit) const {
  KIV_TRACE_AS("entryHas", trace(), 8, descriptor_.names.log, " key: {} unitId:{}",
               KeyText(descriptor_, key), unit);
  const ConfigRecord* const record = config(unit)->look(key);
  return record != nullptr && !record->isDeleted() ? record : nullptr;
}

void EntryLogCore::entry(const Word* key, UnitId unit, void* logEntry) const {
  KIV_TRACE(trace(), 8, descriptor_.names.log, " key: {} unitId:{}", KeyText(descriptor_, key),
            unit);
  const ConfigRecord* const record = config(unit)->look(key);
  if (record != nullptr && !record->isDeleted()) {
    shapes().logEntry.fromWords(record->words(), logEntry);
  }
}

void EntryLogCore::entryRsrcKeys(const Word* key, UnitId unit, void* resourceKeys) const {
  KIV_TRACE(trace(), 8, descriptor_.names.log, " key: {} unitId:{}", KeyText(descriptor_, key),
            unit);
  const ConfigRecord* const record = config(unit)->look(key);
  if (record != nullptr && !shapes().resourceKeys.empty()) {
    std::memcpy(resourceKeys, record->resourceKeys(), shapes().resourceKeys.size);
  }
}

LogVersion EntryLogCore::entryLogVersion(const Word* key, UnitId unit) const {
  KIV_TRACE(trace(), 8, descriptor_.names.log, " key: {} unitId:{}", KeyText(descriptor_, key),
            unit);
  const ConfigRecord* const record = config(unit)->look(key);
  return record != nullptr ? record->logVersion() : LogVersion(0);
}

std::uint32_t EntryLogCore::entrysInDeletion(UnitId unit) const {
  KIV_TRACE(trace(), 8, descriptor_.names.log, " unitId:{}", unit);
  std::uint32_t count = 0;
  config(unit)->walk([&](const ConfigRecord& record) { count += record.isDeleted() ? 1 : 0; });
  return count;
}

std::uint32_t EntryLogCore::entrys(UnitId unit) const {
  KIV_TRACE(trace(), 8, descriptor_.names.log, " unitId:{}", unit);
  const auto size = static_cast<std::uint32_t>(config(unit)->size());
  return size - entrysInDeletion(unit);
}

}  // namespace Asic
