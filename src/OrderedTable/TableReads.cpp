#include <cstring>

#include "Kiv/Trace.h"
#include "OrderedTable/TableCore.h"

namespace Asic {

namespace {

/// Copies an entry of the family's type, which is trivially copyable.
void entryCopy(const TableDescriptor& descriptor, const EntryWrapperBase& wrapper, void* entry) {
  std::memcpy(entry, wrapper.entryBytes(), descriptor.records.entrySize);
}

}  // namespace

bool TableCore::entryHas(const void* key) const {
  KIV_TRACE(readTrace(), 8, "", "key: {}", textOf(key));
  const KeyImage image = imageOf(key);
  if (const InFlightKey* const inFlight = inFlight_.find(image.words())) {
    if (inFlight->add != nullptr) return true;
    if (inFlight->remove != nullptr) return false;
  }
  if (transientRemoveAllVersion_.valid()) return false;
  return entryLog_->entryHas(image.words(), table_.unitId());
}

void TableCore::entryRead(const void* key, void* entry) const {
  KIV_TRACE(ownTrace(), 8, name(), " key: {}", textOf(key));
  entryReadGeneric(key, entry);
}

void TableCore::entryReadGeneric(const void* key, void* entry) const {
  KIV_TRACE(readTrace(), 8, "", "key: {}", textOf(key));
  const KeyImage image = imageOf(key);
  if (const InFlightKey* const inFlight = inFlight_.find(image.words())) {
    if (inFlight->add != nullptr) return entryCopy(descriptor_, *inFlight->add, entry);
    if (inFlight->remove != nullptr) return;
  }
  // One look-up serves both the question to the log and the read of the configuration.
  if (const ConfigRecord* const record = entryLog_->liveRecord(image.words(), table_.unitId())) {
    KIV_TRACE_AS("entryFromConfig", readTrace(), 8, "", "key: {}", textOf(key));
    record->entryTo(entry);
    return;
  }
  KIV_TRACE(readTrace(), 1, "", "Failed to find entry for key: {}", textOf(key));
}

void TableCore::entryFromConfig(const void* key, void* entry) const {
  KIV_TRACE(readTrace(), 8, "", "key: {}", textOf(key));
  const ConfigRecord* const record = entryLog_->config(table_.unitId())->look(imageOf(key).words());
  if (record != nullptr && !record->isDeleted()) record->entryTo(entry);
}

std::uint32_t TableCore::entrys() const {
  using View = InFlight::View;
  std::uint32_t added = inFlight_.adds();
  if (transientRemoveAllVersion_.valid()) return added;
  const UnitId unit = table_.unitId();
  const std::uint32_t configured = entryLog_->entrys(unit);
  for (InFlight::Walk walk(inFlight_, View::adds); walk; ++walk) {
    if (entryLog_->entryHas(walk->key(), unit)) --added;
  }
  std::uint32_t removed = inFlight_.removes();
  for (InFlight::Walk walk(inFlight_, View::removes); walk; ++walk) {
    if (!entryLog_->entryHas(walk->key(), unit)) --removed;
  }
  return added + configured - removed;
}

}  // namespace Asic
