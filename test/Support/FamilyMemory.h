#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "KivSharedMem/EntityManager.h"
#include "OrderedTable/NeededEntryDrift.h"
#include "OrderedTable/TableVersionDrift.h"
#include "QuarnBastil/Families.h"

/// What shared memory holds of a table family, with numbers for its keys and values: as it ought to
/// be, and as another process sees it.
namespace Support {

using Key = std::uint32_t;
using Value = std::uint32_t;
using Version = std::uint64_t;

/// How numbers stand in a family's keys: 0 is the default key.
template <class FamilyKey>
struct KeyNumbers {
  static FamilyKey key(Key key) {
    FamilyKey made;
    if constexpr (kIsPlace) {
      made.bank = static_cast<std::uint8_t>(key >> 16);
      made.index = static_cast<std::uint16_t>(key);
    } else if constexpr (kIsWide) {
      made.high = key * kFactor;
      made.low = key;
      made.length = static_cast<std::uint8_t>(key % 64);
    } else {
      made.prefix = key * kFactor;
      made.length = static_cast<std::uint8_t>(key % 32);
    }
    return made;
  }
  static Key number(const FamilyKey& key) {
    if constexpr (kIsPlace) {
      return Key{key.bank} << 16 | key.index;
    } else if constexpr (kIsWide) {
      return key.high * kInverse;
    } else {
      return key.prefix * kInverse;
    }
  }

 private:
  static constexpr bool kIsPlace = requires(FamilyKey key) { key.bank; };
  static constexpr bool kIsWide = requires(FamilyKey key) { key.high; };
  static constexpr std::uint32_t kFactor = 0x9e3779b1U, kInverse = 0x0e8b2f51U;
  static_assert(kFactor * kInverse == 1);
};

/// Of a value of an entry that uses resources, the destination and the request id; the rest is a
/// client's.
inline constexpr unsigned kDestShift = 24, kRequestShift = 28;
inline constexpr Value kDestMask = 15U << kDestShift, kRequestMask = 15U << kRequestShift;

/// And in its entries: a value is in more than one place, the last one included.
template <class Family>
struct Numbers : KeyNumbers<typename Family::Key> {
  using LogEntry = typename Family::LogEntry;

  static void valueIs(auto& entry, Value value) {
    if constexpr (kHasDestination) {
      entry.destId = (value & kDestMask) >> kDestShift;
      if constexpr (requires { entry.requestId; }) entry.requestId = requestId(value);
      value &= ~(kDestMask | kRequestMask);
      if (value == 0) return;
    }
    const Value last = ~value;
    std::memcpy(reinterpret_cast<std::byte*>(&entry) + kFirst, &value, sizeof value);
    std::memcpy(reinterpret_cast<std::byte*>(&entry) + kLast, &last, sizeof last);
  }
  static Value value(const auto& entry) {
    Value value;
    std::memcpy(&value, reinterpret_cast<const std::byte*>(&entry) + kFirst, sizeof value);
    if constexpr (kHasDestination) value |= entry.destId << kDestShift;
    if constexpr (requires { entry.requestId; }) value |= requestBits(entry.requestId);
    return value;
  }
  static auto requestId(Value value) {
    return QuarnL3NiLib::ReqIdToFecResourceTableEntryKey(value >> kRequestShift);
  }
  static Value requestBits(const auto& requestId) {
    return static_cast<Value>(requestId.value()) << kRequestShift;
  }

 private:
  /// A destination comes from a resource; what is behind it is the client's.
  static constexpr bool kHasDestination = requires(LogEntry entry) { entry.destId; };
  static constexpr std::size_t kFirst =
      sizeof(typename Family::Key) + (kHasDestination ? sizeof(Value) : 0);
  static constexpr std::size_t kLast = sizeof(LogEntry) - sizeof(Value);
};

/// Its last bytes are padding.
template <>
struct Numbers<QuarnBastil::TcamEntryFamily> : KeyNumbers<QuarnBastil::TcamEntryEntryKey> {
  static void valueIs(auto& entry, Value value) {
    entry.actionWords.back() = value;
    entry.lookup = static_cast<std::uint16_t>(value);
    entry.sourcePrefix.present = true;
    entry.sourcePrefix.zone = value;
  }
  static Value value(const auto& entry) { return entry.actionWords.back(); }
};

template <class Family, class T = typename Family::Entry>
T entryOf(Key key, Value value) {
  T entry{Numbers<Family>::key(key)};
  if (value != 0) Numbers<Family>::valueIs(entry, value);
  return entry;
}
/// Key and value of an entry, which must be all that there is in it.
template <class Family, class T>
std::pair<Key, Value> numbersOf(const T& entry) {
  const Key key = Numbers<Family>::number(entry.key);
  const Value value = Numbers<Family>::value(entry);
  const bool whole = entry == entryOf<Family, T>(key, value);
  return {key, whole ? value : std::numeric_limits<Value>::max()};
}

/// No byte is zero, padding neither, and neighbours differ.
template <class Family>
typename Family::LogEntry fullEntryOf() {
  typename Family::LogEntry entry;
  auto* const bytes = reinterpret_cast<unsigned char*>(&entry);
  for (std::size_t i = 0; i < sizeof entry; ++i) bytes[i] = static_cast<unsigned char>(i % 250 + 1);
  if constexpr (requires { entry.sourcePrefix; }) {
    for (auto* prefix : {&entry.sourcePrefix, &entry.destinationPrefix, &entry.innerSourcePrefix,
                         &entry.innerDestinationPrefix}) {
      prefix->present = true;
    }
  }
  return entry;
}

struct ConfigRecord {
  Value value = 0;
  Version logVersion = 0;
  bool isDeleted = false;
  bool operator==(const ConfigRecord&) const = default;
};

enum class LogFlags : std::uint8_t { write = 0, entryDelete = 1, tableDelete = 2 };

struct LogRecord {
  LogFlags flags = LogFlags::write;
  unsigned unit = 0;
  Key key = 0;
  Value value = 0;
  bool operator==(const LogRecord&) const = default;
};

/// Versions by table id.
using Needed = std::map<std::uint32_t, Version>;

struct Memory {
  std::vector<std::map<Key, ConfigRecord>> config;  // by unit
  std::map<Version, LogRecord> log;
  /// What the records need that need something.
  std::map<Version, Needed> needed;
  /// The version that was issued last, and the last that the hardware writer may read.
  Version scratchpad = 0;
  Version announced = 0;
  /// What the hardware has reported, if anything.
  std::optional<Version> reported;

  bool operator==(const Memory&) const = default;
  Version newest() const {
    return log.empty() ? scratchpad : std::max(scratchpad, log.rbegin()->first);
  }
};

inline std::string textOf(const Memory& memory) {
  std::string text = fmt::format("\n  issued {} announced {} reported {}", memory.scratchpad,
                                 memory.announced, memory.reported.value_or(0));
  for (const auto& unit : memory.config) {
    text += "\n    configured:";
    for (const auto& [key, record] : unit) {
      text += fmt::format(" {}={}@{}{}", key, record.value, record.logVersion,
                          record.isDeleted ? "-" : "");
    }
  }
  text += "\n    logged:";
  for (const auto& [version, record] : memory.log) {
    text += fmt::format(" {}:{}{} {}={}", version, "wdt"[static_cast<unsigned>(record.flags)],
                        record.unit, record.key, record.value);
  }
  for (const auto& [version, needed] : memory.needed) {
    text += fmt::format("\n    {} needs", version);
    for (const auto& [id, of] : needed) text += fmt::format(" {:x}@{}", id, of);
  }
  return text;
}

/// The memory of a family as an agent is to change it, store by store.
struct Changing : Memory {
  /// Called when readers may see something new.
  std::function<void()> stored;
  /// By unit and key: the key's place in the walk of the unit's configuration, once it is known.
  std::vector<std::vector<unsigned>> places;

  Version write(unsigned unit, Key key, Value value, const Needed& needs) {
    config[unit][key] = {value, scratchpad + 1, false};
    tell();
    return append({LogFlags::write, unit, key, logged(value)}, needs);
  }
  void reportedIs(Version version) {
    reported = version;
    tell();
  }
  /// Zero if there is nothing under the key.
  Version remove(unsigned unit, Key key, const Needed& needs) {
    const auto found = config[unit].find(key);
    if (found == config[unit].end()) return 0;
    mark(found->second);
    return append({LogFlags::entryDelete, unit, key, logged(found->second.value)}, needs);
  }
  /// What a log record shows of a value: no request id.
  static Value logged(Value value) { return value & ~kRequestMask; }
  Version removeAll(unsigned unit, const Needed& needs) {
    for (const Key key : walk(unit)) {
      if (!config[unit][key].isDeleted) mark(config[unit][key]);
    }
    return append({LogFlags::tableDelete, unit, 0, 0}, needs);
  }
  /// Takes out of the log what the hardware has, from one version to another, and out of the
  /// configuration what those of them deleted that `applies` chooses.
  template <class Applies>
  void clean(Version from, Version to, Applies applies) {
    for (auto it = log.lower_bound(from); it != log.end() && it->first <= to;) {
      const auto [version, record] = *it;
      it = log.erase(it);
      tell();
      if (!applies(record, version) || record.flags == LogFlags::write) continue;
      auto& unit = config[record.unit];
      const bool one = record.flags == LogFlags::entryDelete;
      for (const Key key : one ? std::vector{record.key} : walk(record.unit)) {
        const auto found = unit.find(key);
        if (found != unit.end() && found->second.logVersion == version) erase(unit, key);
      }
    }
    while (!needed.empty() && needed.begin()->first <= to) erase(needed, needed.begin()->first);
  }
  /// What was removed and acknowledged goes, in any order: subsets, each behind those in it.
  /// Returns how many.
  std::size_t purge(unsigned unit, Version acknowledged) {
    const auto before = config[unit];
    std::erase_if(config[unit], [&](const auto& member) {
      return member.second.isDeleted && member.second.logVersion <= acknowledged;
    });
    if (!stored) return before.size() - config[unit].size();
    std::vector<Key> gone;
    for (const auto& member : before) {
      if (!config[unit].contains(member.first)) gone.push_back(member.first);
    }
    for (std::size_t subset = 1; subset < std::size_t{1} << gone.size(); ++subset) {
      config[unit] = before;
      for (std::size_t i = 0; i < gone.size(); ++i) {
        if ((subset >> i & 1) != 0) config[unit].erase(gone[i]);
      }
      tell();
    }
    return gone.size();
  }
  /// What a dead agent logged counts as issued, what it configured beyond its log is logged, and
  /// what it did not announce needs everything.
  void takeOver(const Needed& everything) {
    scratchpad = newest();
    tell();
    complete();
    if (announced == scratchpad) return;
    announce(announced + 1, everything);
  }

  /// The keys of a unit in the order of its walk; those of no known place come last.
  std::vector<Key> walk(unsigned unit) const {
    std::vector<Key> keys;
    for (const auto& member : config[unit]) keys.push_back(member.first);
    if (unit >= places.size()) return keys;
    const auto& known = places[unit];
    const auto place = [&](Key key) { return key < known.size() ? known[key] : UINT32_MAX; };
    std::ranges::stable_sort(keys, {}, place);
    return keys;
  }

 private:
  /// One record beyond the log is a write or a removal; several are a clear, which is finished.
  void complete() {
    for (unsigned unit = 0; unit < config.size(); ++unit) {
      std::vector<Key> beyond;
      for (const auto& [key, record] : config[unit]) {
        if (record.logVersion > scratchpad) beyond.push_back(key);
      }
      if (beyond.empty()) continue;
      const ConfigRecord first = config[unit].at(beyond.front());
      LogRecord record{first.isDeleted ? LogFlags::entryDelete : LogFlags::write, unit,
                       beyond.front(), logged(first.value)};
      if (beyond.size() > 1) {
        for (const Key key : walk(unit)) {
          if (!config[unit].at(key).isDeleted) mark(config[unit].at(key));
        }
        record = {LogFlags::tableDelete, unit, 0, 0};
      }
      log[scratchpad + 1] = record;
      tell();
      ++scratchpad;
      tell();
    }
  }
  void tell() const {
    if (stored) stored();
  }
  void mark(ConfigRecord& record) {
    record.isDeleted = true;
    record.logVersion = scratchpad + 1;
    tell();
  }
  template <class Map, class AKey>
  void erase(Map& map, AKey key) {
    map.erase(key);
    tell();
  }
  Version append(const LogRecord& record, const Needed& needs) {
    log[scratchpad + 1] = record;
    tell();
    ++scratchpad;
    tell();
    announce(scratchpad, needs);
    return scratchpad;
  }
  /// Everything up to the newest version, of which `needing` has needs.
  void announce(Version needing, const Needed& needs) {
    for (const auto& [id, version] : needs) {
      Version& known = needed[needing][id];
      known = std::max(known, version);
    }
    tell();
    announced = scratchpad;
    tell();
  }
};

/// Calls `see` with each record of a collection.
template <class Map, class KeyOf, class See>
void eachRecord(const Map& map, KeyOf keyOf, See see) {
  typename Map::Cursor cursor;
  for (bool more = map.driftMapIterBegin(cursor); more;) {
    const auto record = cursor.record;
    see(record);
    more = map.driftMapIterNext(std::invoke(keyOf, record), cursor);
  }
}

/// Reads what there is of a family when it is made, as often as it is asked: as the hardware writer
/// does, through a mount that cannot write.
template <class Family>
class MemoryReader {
 public:
  MemoryReader(const std::string& directory, unsigned units)
      : memory_(Fenrik::ptrIsImpl<KivSharedMem::EntityManager>("reader", Fenrik::String(directory),
                                                               Drift::Directory::Access::read)),
        configs_(units) {
    using Constants = typename Family::Constants;
    const Fenrik::String path = Constants::tableEntryLogDriftPath();
    mount(log_, path, Family::kLogCapacity);
    mount(needed_, Asic::Constants::neededPathOfEntryLogPath(path), 1'000'000);
    mount(reports_,
          Asic::Constants::canonicalGroupTableVersionPath(Constants::canonicalGroupName()),
          Asic::TableVersionDrift::kCapacity);
    for (unsigned unit = 0; unit < units; ++unit) {
      const Asic::UnitId unitId(static_cast<std::uint16_t>(unit));
      mount(configs_[unit], Constants::configDriftPath(unitId), Family::kConfigCapacity);
    }
  }

  /// With `keys`, the configurations are only searched for the keys below that: much quicker where
  /// there is little.
  Memory read(Key keys = 0) const {
    Memory seen;
    seen.config.resize(configs_.size());
    for (unsigned unit = 0; unit < configs_.size(); ++unit) {
      const auto see = [&](Key key, const ConfigRecord& record) {
        seen.config[unit][key] = record;
      };
      keys == 0 ? eachConfigured(unit, see) : eachFound(unit, keys, see);
    }
    if (log_ != nullptr) {
      seen.scratchpad = log_->collectionControl()->scratchpad();
      seen.announced = log_->collectionControl()->announced();
      eachRecord(*log_->map(), &Family::LogDriftEntry::version, [&](const auto& record) {
        const auto [key, value] = numbersOf<Family>(record.logEntry);
        seen.log[record.version.value()] = {static_cast<LogFlags>(record.flags.value()),
                                            record.unitId.value(), key, value};
      });
    }
    if (needed_ != nullptr) {
      using Record = Asic::NeededEntryRecord;
      eachRecord(*needed_->map(), &Record::sequence, [&](const Record& record) {
        for (std::uint32_t i = 0; i < record.count; ++i) {
          const Asic::TableVersion& needs = record.needed[i];
          Version& known = seen.needed[record.version.value()][needs.tableId().value()];
          known = std::max(known, needs.logVersion().value());
        }
      });
    }
    bool found = false;
    if (reports_ == nullptr) return seen;
    const auto& report = reports_->map()->driftMapFind(Family::kTableId, found);
    if (found) seen.reported = report.logVersion.value();
    return seen;
  }

  /// The place of each of the keys below `keys` in the walk of a unit's configuration, of those
  /// that are there.
  std::vector<unsigned> places(unsigned unit, Key keys) const {
    std::vector<unsigned> places(keys, UINT32_MAX);
    unsigned place = 0;
    eachConfigured(unit, [&](Key key, const ConfigRecord&) { places.at(key) = place++; });
    return places;
  }

 private:
  template <class Collection>
  void mount(Fenrik::Ptr<Collection>& to, const Fenrik::String& path, Drift::Word capacity) {
    using Type = KivSharedMem::KivSharedMemType;
    if (memory_->findEntities(path, Type::stored)->entityCount() == 0) return;
    KivDrift::MountInfo info(0);
    info.collectionInfoIs({Fenrik::String(Collection::kAttributeName), capacity, 0});
    const auto group = memory_->getMountGroup();
    group->mount(path, Fenrik::String(Collection::kEntityName), info);
    group->doClose();
    to = Fenrik::dynamicPtrCast<Collection>(memory_->getEntity(path));
  }

  template <class See>
  void eachConfigured(unsigned unit, See see) const {
    if (configs_[unit] == nullptr) return;
    eachRecord(
        *configs_[unit]->map(), [](const auto& record) { return record.logEntry.key; },
        [&](const auto& record) { seeRecord(record, see); });
  }
  template <class See>
  void eachFound(unsigned unit, Key keys, See see) const {
    for (Key key = 0; configs_[unit] != nullptr && key < keys; ++key) {
      bool found = false;
      const auto& record = configs_[unit]->map()->driftMapFind(Numbers<Family>::key(key), found);
      if (found) seeRecord(record, see);
    }
  }
  template <class Record, class See>
  static void seeRecord(const Record& record, See see) {
    auto [key, value] = numbersOf<Family>(record.logEntry);
    if constexpr (requires { record.rsrcKeys.requestId; }) {
      value |= Numbers<Family>::requestBits(record.rsrcKeys.requestId);
    }
    see(key, ConfigRecord{value, record.logVersion.value(), record.isDeleted});
  }

  Fenrik::Ptr<KivSharedMem::EntityManager> memory_;
  Fenrik::Ptr<typename Family::EntryLogDrift> log_;
  Fenrik::Ptr<Asic::NeededEntryDrift> needed_;
  Fenrik::Ptr<Asic::TableVersionDrift> reports_;
  std::vector<Fenrik::Ptr<typename Family::ConfigDrift>> configs_;
};

}  // namespace Support
