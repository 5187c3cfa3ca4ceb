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

/// The entry log of one table, for all its units, and the only writer of the table's collections.
/// Compiled once for all families: entries are passed by address, keys as a `KeyImage`.
///
/// Threads: the table thread. The hardware writer reads the collections concurrently and relies on
/// the order of the stores: configuration record, log record, scratchpad, announcement.
///
/// I1. A version is issued only after room has been secured for everything that it stores. A
///     refusal throws an exception that names the collection, the room needed and the room left;
///     configuration, log, versions and flags are unchanged.
/// I2. A version is in the log before it is announced. Configuration records beyond the end of the
///     log, left by a writer that died, are logged before anything else.
class QUARNBASTIL_EXPORT EntryLogCore : public EntryLogBase {
 public:
  using Word = FlatShape::Word;
  using NeededPtr = Fenrik::Ptr<const NeededEntry>;
  using ConfigEntity = Fenrik::Ptr<ConfigStore::Entity>;

  ~EntryLogCore() override;

  const TableDescriptor& descriptor() const noexcept { return descriptor_; }

  /// The change log. The constructor mounts it.
  LogStore& log() const noexcept { return *log_; }
  /// Whether operations must wait: the log has reached its limit, or what is left is reserved.
  bool full() const noexcept { return log_->records() > roomLimit_; }
  /// Reserves places in the log, which operations then do not use; `records` may be negative.
  void reservedInc(std::int64_t records);
  std::uint64_t reserved() const noexcept { return reserved_; }
  /// Ensures that so many configured entries can be logged again, each with so many needed
  /// versions. False if there is no room; nothing has changed then.
  bool updatesRoom(std::uint32_t updates, std::size_t versionsEach);
  /// The unit's configuration, or null if it is not mounted.
  ConfigStore* config(UnitId unit) const noexcept {
    return unit.value() < configs_.size() ? configs_[unit.value()].get() : nullptr;
  }
  /// The configuration of the lowest mounted unit >= `from`, or null.
  ConfigStore* configFrom(unsigned from) const noexcept;

  /// Writes an entry: configuration, log, scratchpad, announcement. Returns the version of the
  /// stored value, which is an older one if an identical write was suppressed. `resourceKeys` may
  /// be null in a family without resources. Throws `Drift::CollectionFullException`,
  /// `Drift::NoSpaceException`.
  LogVersion entryIs(const void* logEntry, const void* resourceKeys, const NeededPtr& neededEntry,
                     UnitId unit, SwTableStats& stats, bool suppressIdenticalWrites);
  /// Marks an entry as removed. Returns 0 if the key is absent. Throws as `entryIs` does.
  LogVersion entryDel(const Word* key, const NeededPtr& neededEntry, UnitId unit);
  /// Marks all live entries of a unit as removed, under one version. Throws as `entryIs` does.
  LogVersion tableDel(const NeededPtr& neededEntry, UnitId unit);
  /// Throws what storing the operation would throw, so that it can be refused before anyone is
  /// notified. Removing an absent entry needs no room.
  void operationRoom(const Word* key, EntryFlags flags, UnitId unit);

  bool entryHas(const Word* key, UnitId unit) const { return liveRecord(key, unit) != nullptr; }
  /// The live record of a key, or null if `entryHas` is false. Valid until the next look-up in the
  /// unit's configuration.
  const ConfigRecord* liveRecord(const Word* key, UnitId unit) const;
  /// Copies the committed log entry. Leaves `logEntry` unchanged if the key is absent or in
  /// deletion.
  void entry(const Word* key, UnitId unit, void* logEntry) const;
  /// Copies the record's resource keys, even from a record in deletion.
  void entryRsrcKeys(const Word* key, UnitId unit, void* resourceKeys) const;
  /// Version of the record, even of one in deletion; 0 if the key is absent.
  LogVersion entryLogVersion(const Word* key, UnitId unit) const;
  /// Numbers of records in deletion and of live ones. Both walk the unit's collection.
  std::uint32_t entrysInDeletion(UnitId unit) const;
  std::uint32_t entrys(UnitId unit) const;

  /// Removes the log records up to `version`, which the hardware has acknowledged, and the
  /// configuration records whose removal they log. Cost: proportional to the records in the log,
  /// whatever version is reported.
  void cleanupEntryLog(LogVersion version);

  void mountDriftChangeLog();
  /// Mounts a unit's configuration and drops the records in deletion that have been acknowledged.
  void mountDriftConfig(UnitId unit, LogVersion logVersion);

  /// Prefetches what a change of the key, `ahead` operations from now, will touch.
  void prefetch(const Word* key, UnitId unit, bool near, unsigned ahead) const noexcept;

  /// The keyed attribute `tableConfigDrift`: null if the unit is absent; setting null removes.
  ConfigEntity configEntity(UnitId unit) const;
  void configEntityIs(UnitId unit, ConfigEntity entity);
  ConfigEntity configEntityDel(UnitId unit);
  void configEntityDelAll();
  std::uint32_t configCount() const noexcept { return configCount_; }

 protected:
  static constexpr std::uint16_t kFieldBase = 256;
  static constexpr Fenrik::FieldId kTableEntryLogField{kFieldBase + 2};
  static constexpr Fenrik::FieldId kTableConfigDriftField{kFieldBase + 3};

  EntryLogCore(const TableDescriptor& descriptor, SwTableId tableId,
               const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
               const Fenrik::Ptr<GroupInterface>& groupInterface, const Fenrik::String& agentName);

  void handleInitialized();

 private:
  /// A removal that this process logged and the hardware has not acknowledged.
  struct Removal {
    LogVersion version;
    EntryFlags flags;
    UnitId unit;
    std::array<Word, Drift::Format::kMaxKeySize / sizeof(Word)> key;
  };
  struct QE_Removal {};

  const Kiv::TraceHandle& trace() const noexcept { return descriptor_.traces.log; }
  const TableDescriptor::Records& shapes() const noexcept { return descriptor_.records; }

  void logRoom(Word records = 1);
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

  /// Configuration records that no log record covers, by version: the unit's configuration, and
  /// copies.
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
  /// Operations wait while the log has more records than this.
  Word roomLimit_;
  /// Places reserved for updates.
  std::uint64_t reserved_ = 0;
  /// Buffer for the canonical words of the entry being written.
  std::vector<Word> entry_;
  /// Unacknowledged removals, oldest first.
  Fenrik::RQueue<Removal, false, QE_Removal> removals_;
  /// Newest version logged by an earlier process. Newer records need not be read from the log.
  LogVersion lastFound_;
};

}  // namespace Asic
