#pragma once

#include "OrderedTable/EntryLogCore.h"
#include "QuarnBastil/FamilyTraits.h"

namespace QuarnBastil {

/// Iterates over the configurations of a log's units, in ascending order: `key()` is the unit,
/// `value()` the collection.
template <class ConfigDrift>
class ConfigDriftIterator {
 public:
  explicit ConfigDriftIterator(const Asic::EntryLogCore& log)
      : log_(&log), at_(log.configFrom(0)) {}

  explicit operator bool() const noexcept { return at_ != nullptr; }
  Asic::UnitId key() const noexcept { return at_->unit(); }
  Fenrik::Ptr<ConfigDrift> value() const {
    return Fenrik::Ptr<ConfigDrift>(static_cast<ConfigDrift*>(at_->entity().get()));
  }
  const ConfigDriftIterator* operator->() const noexcept { return this; }
  ConfigDriftIterator& operator++() {
    at_ = log_->configFrom(at_->unit().value() + 1U);
    return *this;
  }

 private:
  const Asic::EntryLogCore* log_;
  const Asic::ConfigStore* at_;
};

/// The entry log of one table in the family's own types. `Asic::EntryLogCore` implements it.
///
/// Threads: the table thread.
template <class Family>
class QUARNBASTIL_EXPORT EntryLog
    : public Fenrik::NodeClass<typename Family::EntryLog, Asic::EntryLogCore> {
 public:
  using Key = typename Family::Key;
  using LogEntry = typename Family::LogEntry;
  using ResourceKeys = typename Family::ResourceKeys;
  using ConfigDrift = typename Family::ConfigDrift;
  using LogDrift = typename Family::EntryLogDrift;
  using NeededPtr = Fenrik::Ptr<const Asic::NeededEntry>;
  using StatsPtr = Fenrik::Ptr<Asic::SwTableStats>;
  using KivModule = typename Family::EntryLogModule;
  using Base = Fenrik::NodeClass<typename Family::EntryLog, Asic::EntryLogCore>;

  static constexpr std::uint16_t kFieldBase = 256;

  EntryLog(Asic::SwTableId tableId, const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
           const Fenrik::Ptr<Asic::GroupInterface>& groupInterface, const Fenrik::String& agentName)
      : Base(descriptorOf<Family>(), tableId, entityManager, groupInterface, agentName) {
    this->handleInitialized();
  }

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, tableEntryLog, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, tableConfigDrift, keyed);

  Fenrik::Ptr<LogDrift> tableEntryLog() const {
    return Fenrik::Ptr<LogDrift>(static_cast<LogDrift*>(this->log().entity().get()));
  }
  Fenrik::Ptr<ConfigDrift> tableConfigDrift(Asic::UnitId unitId) const {
    return typed(this->configEntity(unitId));
  }
  /// Null removes the unit.
  void tableConfigDriftIs(Asic::UnitId unitId, const Fenrik::Ptr<ConfigDrift>& config) {
    this->configEntityIs(unitId, config);
  }
  Fenrik::Ptr<ConfigDrift> tableConfigDriftDel(Asic::UnitId unitId) {
    return typed(this->configEntityDel(unitId));
  }
  void tableConfigDriftDelAll() { this->configEntityDelAll(); }
  bool tableConfigDriftHas(Asic::UnitId unitId) const { return this->config(unitId) != nullptr; }
  std::uint32_t tableConfigDriftCount() const noexcept { return this->configCount(); }
  ConfigDriftIterator<ConfigDrift> tableConfigDriftIterator() const {
    return ConfigDriftIterator<ConfigDrift>(*this);
  }

  /// Writes an entry. Returns the version of the stored value, which is an older one if an
  /// identical write was suppressed. Throws `Drift::CollectionFullException` or
  /// `Drift::NoSpaceException`; nothing has changed then.
  Asic::LogVersion entryIs(const LogEntry& logEntry, const ResourceKeys& rsrcKeys,
                           const NeededPtr& neededEntry, Asic::UnitId unitId, const StatsPtr& stats,
                           bool suppressIdenticalWrites) {
    return Base::entryIs(&logEntry, &rsrcKeys, neededEntry, unitId, *stats,
                         suppressIdenticalWrites);
  }
  /// Marks an entry as removed. Returns 0 if the key is absent. Throws as `entryIs` does.
  Asic::LogVersion entryDel(const Key& key, const NeededPtr& neededEntry, Asic::UnitId unitId) {
    return Base::entryDel(image(key).words(), neededEntry, unitId);
  }

  /// Throws what storing the operation would throw.
  void operationRoom(const Key& key, Asic::EntryFlags flags, Asic::UnitId unitId) {
    Base::operationRoom(image(key).words(), flags, unitId);
  }

  /// The committed value, or a default one if the key is absent or in deletion.
  LogEntry entry(const Key& key, Asic::UnitId unitId) const {
    LogEntry entry;
    Base::entry(image(key).words(), unitId, &entry);
    return entry;
  }
  bool entryHas(const Key& key, Asic::UnitId unitId) const {
    return Base::entryHas(image(key).words(), unitId);
  }
  ResourceKeys entryRsrcKeys(const Key& key, Asic::UnitId unitId) const {
    ResourceKeys keys;
    Base::entryRsrcKeys(image(key).words(), unitId, &keys);
    return keys;
  }
  /// Version of the record, even of one in deletion; 0 if the key is absent.
  Asic::LogVersion entryLogVersion(const Key& key, Asic::UnitId unitId) const {
    return Base::entryLogVersion(image(key).words(), unitId);
  }

 private:
  Asic::KeyImage image(const Key& key) const noexcept {
    return {Base::descriptor().records.key, &key};
  }
  static Fenrik::Ptr<ConfigDrift> typed(const Asic::EntryLogCore::ConfigEntity& entity) {
    return Fenrik::Ptr<ConfigDrift>(static_cast<ConfigDrift*>(entity.get()));
  }
};

}  // namespace QuarnBastil
