#pragma once

#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "Fenrik/RQueue.h"
#include "OrderedTable/ConfigStore.h"
#include "OrderedTable/EntryLogBase.h"
#include "OrderedTable/KeyImage.h"
#include "OrderedTable/LogStore.h"
#include "OrderedTable/NeededEntry.h"
#include "OrderedTable/SwTableStats.h"
#include "OrderedTable/TableDescriptor.h"

namespace Asic {

/// The entry log of one table, for all its units: the only one that changes the table's
/// collections. Compiled once; entries and keys are given by address, keys as a `KeyImage`.
///
/// Threads: the table thread. The hardware writer reads the collections meanwhile, and relies on
/// the order of the stores: configuration record, log record, scratchpad, announcement.
///
/// I1. A version is issued only when everything that it stores has room: a refusal is an exception
///     that says what, need and room, and leaves configuration, log, versions and flags as they
///     were.
/// I2. A version stands in the log before it is announced, and what is configured beyond the log
///     (its writer died) is logged before anything else is.
class QUARNBASTIL_EXPORT EntryLogCore : public EntryLogBase {
 public:
  using Word = FlatShape::Word;
  using NeededPtr = Fenrik::Ptr<const NeededEntry>;
  using ConfigEntity = Fenrik::Ptr<ConfigStore::Entity>;

  ~EntryLogCore() override;

  const TableDescriptor& descriptor() const noexcept { return descriptor_; }

  /// The change log; mounted by the constructor.
  LogStore& log() const noexcept { return *log_; }
  /// The unit's configuration, null while it is not mounted.
  ConfigStore* config(UnitId unit) const noexcept {
    return unit.value() < configs_.size() ? configs_[unit.value()].get() : nullptr;
  }
  /// The lowest mounted unit from `from` on; null if there is none.
  ConfigStore* configFrom(unsigned from) const noexcept;

  /// Writes an entry: configuration, log, scratchpad, announcement. Returns the version under which
  /// the value stands now, an older one when an identical write was suppressed. `resourceKeys` may
  /// be null for a family that has none. Throws `Drift::CollectionFullException`,
  /// `Drift::NoSpaceException`.
  LogVersion entryIs(const void* logEntry, const void* resourceKeys, const NeededPtr& neededEntry,
                     UnitId unit, SwTableStats& stats, bool suppressIdenticalWrites);
  /// Marks an entry as removed; 0 when there is nothing under the key. Throws as `entryIs` does.
  LogVersion entryDel(const Word* key, const NeededPtr& neededEntry, UnitId unit);
  /// Marks all live entries of a unit as removed, under one version. Throws as `entryIs` does.
  LogVersion tableDel(const NeededPtr& neededEntry, UnitId unit);
  /// Throws what storing an operation would throw, in time for it to be refused before anybody is
  /// told of it. Nothing to remove needs no room.
  void operationRoom(const Word* key, EntryFlags flags, UnitId unit);

  bool entryHas(const Word* key, UnitId unit) const { return liveRecord(key, unit) != nullptr; }
  /// The record for which `entryHas` is true, null if it is false. It holds until the next look-up
  /// in the unit's configuration.
  const ConfigRecord* liveRecord(const Word* key, UnitId unit) const;
  /// Fills in the committed log entry; leaves a key that is absent or in deletion alone.
  void entry(const Word* key, UnitId unit, void* logEntry) const;
  /// Fills in the record's resource keys, those of a record in deletion too.
  void entryRsrcKeys(const Word* key, UnitId unit, void* resourceKeys) const;
  /// The version of the record, one in deletion included; 0 for an absent key.
  LogVersion entryLogVersion(const Word* key, UnitId unit) const;
  /// Numbers of records in deletion and of live ones. Both walk the unit's collection.
  std::uint32_t entrysInDeletion(UnitId unit) const;
  std::uint32_t entrys(UnitId unit) const;

  /// Removes the log records up to a version that the hardware has acknowledged, and the entries
  /// whose removal they tell of. Costs as much as the log holds, whatever the report says.
  void cleanupEntryLog(LogVersion version);

  void mountDriftChangeLog();
  /// Mounts a unit's configuration, and removes what was in deletion and has been acknowledged.
  void mountDriftConfig(UnitId unit, LogVersion logVersion);

  /// The operation that follows `ahead` others will be a change of that key: fetches what it
  /// touches into the processor's cache.
  void prefetch(const Word* key, UnitId unit, bool near, unsigned ahead) const noexcept;

  /// The keyed attribute `tableConfigDrift`: null for an absent unit; a null value removes.
  ConfigEntity configEntity(UnitId unit) const;
  void configEntityIs(UnitId unit, ConfigEntity entity);
  ConfigEntity configEntityDel(UnitId unit);
  void configEntityDelAll();
  std::uint32_t configCount() const noexcept { return configCount_; }

 protected:
  static constexpr std::uint16_t kFieldBase = 128;
  static constexpr Fenrik::FieldId kTableEntryLogField{kFieldBase + 2};
  static constexpr Fenrik::FieldId kTableConfigDriftField{kFieldBase + 3};

  EntryLogCore(const TableDescriptor& descriptor, SwTableId tableId,
               const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
               const Fenrik::Ptr<GroupInterface>& groupInterface, const Fenrik::String& agentName);

  void handleInitialized();

 private:
  /// A removal that was logged by this process and waits for the hardware.
  struct Removal {
    LogVersion version;
    EntryFlags flags;
    UnitId unit;
    std::array<Word, Drift::Format::kMaxKeySize / sizeof(Word)> key;
  };
  struct QE_Removal {};

  const Kiv::TraceHandle& trace() const noexcept { return descriptor_.traces.log; }
  const TableDescriptor::Records& shapes() const noexcept { return descriptor_.records; }

  void logRoom();
  void clearRoom(ConfigStore& config);
  void markAllDeleted(ConfigStore& config, LogVersion version);
  void neededRoom(const NeededPtr& neededEntry);
  LogVersion identicalWrite(const ConfigStore& config, const Word* key, const void* logEntry,
                            const void* resourceKeys, SwTableStats& stats) const;
  void logRecordIs(LogVersion version, std::uint8_t flags, UnitId unit, const Word* logEntry,
                   const NeededPtr& neededEntry);
  void noteRemoval(LogVersion version, std::uint8_t flags, UnitId unit, const Word* key);

  void cleanupAll(LogVersion version);
  void cleanupRange(LogVersion from, LogVersion to);
  void cleanupRead(LogVersion from, LogVersion to);
  void cleanupOwn(LogVersion to);
  void removalsDel(LogVersion from, LogVersion to);
  void cleanupRecord(const LogRecord& record);
  void apply(LogVersion version, EntryFlags flags, UnitId unit, const Word* key);

  /// Records that no log record tells of, by version: the unit's configuration, and copies.
  using Unlogged =
      std::map<LogVersion, std::pair<std::shared_ptr<ConfigStore>, std::vector<std::vector<Word>>>>;

  Fenrik::Ptr<KivSharedMem::Entity> mount(const Fenrik::String& path,
                                          const Fenrik::String& typeName,
                                          std::function<void(KivDrift::MountInfo&)> mountInfo,
                                          const char* itemWord);
  Fenrik::String configType() const;
  std::function<void(KivDrift::MountInfo&)> configMountInfo() const;
  Fenrik::String configPathBase() const;
  void completeInterrupted();
  Unlogged recordsBeyond(LogVersion version) const;
  void completeVersion(ConfigStore& config, LogVersion version,
                       const std::vector<std::vector<Word>>& records);
  void reportLost(const char* itemWord) const;
  LogVersion reportedVersion() const;

  const TableDescriptor& descriptor_;
  std::unique_ptr<LogStore> log_;
  std::vector<std::unique_ptr<ConfigStore>> configs_;
  std::uint32_t configCount_ = 0;
  /// Canonical words of the entry that is being written.
  std::vector<Word> entry_;
  Fenrik::RQueue<Removal, false, QE_Removal> removals_;
  /// Newest version that an earlier process logged; what is newer need not be read.
  LogVersion lastFound_;
};

}  // namespace Asic
