#pragma once

#include <algorithm>
#include <array>
#include <map>
#include <string>
#include <vector>

#include "DriftKill/Collections.h"
#include "OrderedTable/NeededEntryDrift.h"
#include "OrderedTable/TableVersionDrift.h"
#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamEntry.h"

/// What the hardware writer sees of two tables, each in a group of its own, and in which order it
/// may see it change.
namespace TableKill {

using Drift::Word;
using Families = std::tuple<QuarnBastil::TcamEntryFamily, QuarnBastil::BigBbFamily>;
template <std::size_t kTable>
using Family = std::tuple_element_t<kTable, Families>;

inline constexpr std::size_t kTables = std::tuple_size_v<Families>;
inline constexpr unsigned kUnits = 2;
inline constexpr Word kTableIds[kTables] = {Family<0>::kTableId.value(),
                                            Family<1>::kTableId.value()};

inline constexpr unsigned kLastKey = 7;

/// Keys are numbers from 1 on; so are values, each put into the last field of its entry.
template <class F>
typename F::Key keyOf(unsigned number) {
  return typename F::Key(static_cast<std::uint8_t>(number), static_cast<std::uint8_t>(number + 1));
}
template <class F>
unsigned numberOf(const typename F::Key& key) {
  for (unsigned number = 0; number <= kLastKey; ++number) {
    if (key == keyOf<F>(number) || key == typename F::Key()) return number;
  }
  DriftTest::fault("a key that nobody wrote");
}
inline auto& valueOf(QuarnBastil::TcamEntryLogEntry& entry) { return entry.lookup; }
inline auto& valueOf(QuarnLpmLib::BigBbDataModelLogEntry& entry) { return entry.block.nextHop[7]; }

struct ConfigEntry {
  unsigned value;
  Word version;
  bool deleted;
  bool operator==(const ConfigEntry&) const = default;
};

struct Unit {
  std::map<unsigned, ConfigEntry> entries;
  /// The keys in the order of the collection, if that was asked for.
  std::vector<unsigned> walk;
  bool operator==(const Unit& other) const { return entries == other.entries; }
};

enum class Change : std::uint8_t { write = 0, remove = 1, removeAll = 2 };

struct LogEntry {
  Change change;
  unsigned unit;
  unsigned key;
  unsigned value;
  bool operator==(const LogEntry&) const = default;
};

struct TablePicture {
  std::array<Unit, kUnits> units;
  std::map<Word, LogEntry> log;
  Word scratchpad = 0;
  Word announced = 0;
  /// By version: the tables that it needs, and how far.
  std::map<Word, std::map<Word, Word>> needed;
  Word reported = 0;
  bool operator==(const TablePicture&) const = default;
};

struct Picture {
  std::array<TablePicture, kTables> tables;
  bool operator==(const Picture&) const = default;
};

inline std::string textOf(const Picture& picture) {
  std::string text;
  const auto add = [&]<class... Args>(fmt::format_string<Args...> format, Args&&... args) {
    text += fmt::format(format, std::forward<Args>(args)...);
  };
  for (const TablePicture& table : picture.tables) {
    add("\n  scratchpad {} announced {} reported {}", table.scratchpad, table.announced,
        table.reported);
    for (const Unit& unit : table.units) {
      add("\n    config:");
      for (const auto& [key, entry] : unit.entries) {
        add(" {}={}@{}{}", key, entry.value, entry.version, entry.deleted ? "x" : "");
      }
    }
    add("\n    log:");
    for (const auto& [version, entry] : table.log) {
      add(" {}:{}/{}/{}={}", version, static_cast<int>(entry.change), entry.unit, entry.key,
          entry.value);
    }
    for (const auto& [version, needed] : table.needed) {
      add("\n    {} needs", version);
      for (const auto& [id, of] : needed) add(" {:x}:{}", id, of);
    }
  }
  return text;
}

/// Reads as the hardware writer does: in another mount, which cannot write.
class PictureReader {
 public:
  explicit PictureReader(const std::string& directory)
      : memory_(Fenrik::ptrIsImpl<KivSharedMem::EntityManager>("reader", Fenrik::String(directory),
                                                               Drift::Directory::Access::read)) {}

  Picture read(bool ordered) {
    Picture picture;
    read<0>(picture.tables[0], ordered);
    read<1>(picture.tables[1], ordered);
    return picture;
  }

 private:
  template <std::size_t kTable>
  void read(TablePicture& table, bool ordered) {
    using F = Family<kTable>;
    using LogDrift = typename F::EntryLogDrift;
    using ConfigDrift = typename F::ConfigDrift;
    const Fenrik::String logPath = F::Constants::tableEntryLogDriftPath();
    if (const auto log = mount<LogDrift>(logPath, LogDrift::kEntityName, F::kLogCapacity)) {
      table.scratchpad = log->collectionControl()->scratchpad();
      table.announced = log->collectionControl()->announced();
      walk(*log->map(), &F::LogDriftEntry::version, [&](typename F::LogDriftEntry record) {
        table.log[record.version.value()] = {
            static_cast<Change>(record.flags.value()), record.unitId.value(),
            numberOf<F>(record.logEntry.key), valueOf(record.logEntry)};
      });
    }
    const Fenrik::String neededPath = Asic::Constants::neededPathOfEntryLogPath(logPath);
    using Needed = Asic::NeededEntryDrift;
    if (const auto needed = mount<Needed>(neededPath, Needed::kEntityName, 1'000'000)) {
      walk(*needed->map(), &Asic::NeededEntryRecord::sequence,
           [&](const Asic::NeededEntryRecord& record) {
             for (std::size_t i = 0; i < record.count; ++i) {
               Word& of = table.needed[record.version.value()][record.needed[i].tableId().value()];
               of = std::max(of, record.needed[i].logVersion().value());
             }
           });
    }
    for (unsigned unit = 0; unit < kUnits; ++unit) {
      const Fenrik::String path =
          F::Constants::configDriftPath(Asic::UnitId(static_cast<std::uint16_t>(unit)));
      const auto config = mount<ConfigDrift>(path, ConfigDrift::kEntityName, F::kConfigCapacity);
      if (config == nullptr) continue;
      for (unsigned key = 0; key <= kLastKey; ++key) {
        bool found = false;
        auto record = config->map()->driftMapFind(keyOf<F>(key), found);
        if (!found) continue;
        table.units[unit].entries[key] = {valueOf(record.logEntry), record.logVersion.value(),
                                          record.isDeleted};
      }
      if (!ordered) continue;
      Unit& known = table.units[unit];
      walk(
          *config->map(), [](const auto& record) { return record.logEntry.key; },
          [&](const auto& record) { known.walk.push_back(numberOf<F>(record.logEntry.key)); });
      const Word size = config->map()->driftMapSize();
      if (size != known.walk.size() || size != known.entries.size()) {
        DriftTest::fault("{} records are counted in {}", size, path);
      }
    }
    readReport(F::Constants::canonicalGroupName(), F::kTableId, table);
  }

  void readReport(const Fenrik::String& group, Asic::SwTableId tableId, TablePicture& table) {
    using Reports = Asic::TableVersionDrift;
    const auto reports = mount<Reports>(Asic::Constants::canonicalGroupTableVersionPath(group),
                                        Reports::kEntityName, Reports::kCapacity);
    bool found = false;
    if (reports == nullptr) return;
    table.reported = reports->map()->driftMapFind(tableId, found).logVersion.value();
  }

  template <class T>
  Fenrik::Ptr<T> mount(const Fenrik::String& path, std::string_view typeName, Word capacity) {
    using Type = KivSharedMem::KivSharedMemType;
    if (memory_->findEntities(path, Type::stored)->entityCount() == 0) return nullptr;
    KivDrift::MountInfo info(0);
    info.collectionInfoIs({Fenrik::String(T::kAttributeName), capacity, 0});
    const auto group = memory_->getMountGroup();
    group->mount(path, Fenrik::String(typeName), info);
    group->doClose();
    return Fenrik::dynamicPtrCast<T>(memory_->getEntity(path));
  }

  template <class Map, class KeyOf, class Visit>
  static void walk(const Map& map, KeyOf key, Visit visit) {
    typename Map::Cursor cursor;
    for (bool more = map.driftMapIterBegin(cursor); more;) {
      visit(cursor.record);
      const auto current = std::invoke(key, cursor.record);
      more = map.driftMapIterNext(current, cursor);
    }
  }

  Fenrik::Ptr<KivSharedMem::EntityManager> memory_;
};

inline Picture pictureOf(const std::string& directory, bool ordered = false) {
  return PictureReader(directory).read(ordered);
}

/// The pictures that a reader may see one after the other: one for each store that is promised.
class Told {
 public:
  /// `order` is the original of the collections: there the keys were walked.
  Told(const Picture& before, const Picture& order) : stages_{before}, order_(order) {}

  const std::vector<Picture>& stages() const { return stages_; }
  const Picture& last() const { return stages_.back(); }
  Word nextVersion(std::size_t table) const { return last().tables[table].scratchpad + 1; }

  void write(std::size_t t, unsigned unit, unsigned key, unsigned value,
             const std::map<Word, Word>& needed = {}) {
    const Word version = nextVersion(t);
    store([&](Picture& p) { entries(p, t, unit)[key] = {value, version, false}; });
    logged(t, {Change::write, unit, key, value}, needed);
  }

  void remove(std::size_t t, unsigned unit, unsigned key) {
    const auto& present = last().tables[t].units[unit].entries;
    if (!present.contains(key)) return;
    const unsigned value = present.at(key).value;
    mark(t, unit, key, nextVersion(t));
    logged(t, {Change::remove, unit, key, value}, {});
  }

  void removeAll(std::size_t t, unsigned unit) {
    if (last().tables[t].units[unit].entries.empty()) return;
    const Word version = nextVersion(t);
    for (const unsigned key : walk(t, unit)) {
      if (!last().tables[t].units[unit].entries.at(key).deleted) mark(t, unit, key, version);
    }
    logged(t, {Change::removeAll, unit, 0, 0}, {});
  }

  /// An entry whose resolved fields have become `value`.
  void update(std::size_t t, unsigned unit, unsigned key, unsigned value) {
    const auto& present = last().tables[t].units[unit].entries;
    const bool stands = present.contains(key) && !present.at(key).deleted;
    if (stands && present.at(key).value != value) write(t, unit, key, value);
  }

  /// The hardware reported a version to a running agent; to one that has no table yet otherwise.
  void clean(std::size_t t, Word version, bool running = true) {
    const std::map<Word, LogEntry> log = last().tables[t].log;
    // clang 14 takes no structured binding into a lambda.
    for (const auto& record : log) {
      const Word number = record.first;
      const LogEntry& entry = record.second;
      if (number > version) break;
      store([&](Picture& p) { p.tables[t].log.erase(number); });
      if (!running || entry.change == Change::write) continue;
      for (const unsigned key : walk(t, entry.unit)) {
        if (entry.change == Change::remove && key != entry.key) continue;
        if (last().tables[t].units[entry.unit].entries.at(key).version == number) {
          store([&](Picture& p) { entries(p, t, entry.unit).erase(key); });
        }
      }
    }
    const auto needed = last().tables[t].needed;
    for (const auto& set : needed) {
      if (set.first <= version) store([&](Picture& p) { p.tables[t].needed.erase(set.first); });
    }
  }

  /// Another agent mounts what it finds.
  void takeOver() {
    for (std::size_t t = 0; t < kTables; ++t) takeOverLog(t);
    for (std::size_t t = 0; t < kTables; ++t) {
      for (unsigned unit = 0; unit < kUnits; ++unit) purge(t, unit);
    }
  }

 private:
  template <class Apply>
  void store(Apply apply) {
    Picture next = last();
    apply(next);
    if (next != last()) stages_.push_back(std::move(next));
  }

  static std::map<unsigned, ConfigEntry>& entries(Picture& picture, std::size_t t, unsigned unit) {
    return picture.tables[t].units[unit].entries;
  }

  /// The keys that are there now, in the order of the collection as it was read.
  std::vector<unsigned> walk(std::size_t t, unsigned unit) const {
    const Unit& now = last().tables[t].units[unit];
    std::vector<unsigned> keys = order_.tables[t].units[unit].walk;
    for (const auto& [key, entry] : now.entries) {
      if (std::ranges::find(keys, key) == keys.end()) keys.push_back(key);
    }
    std::erase_if(keys, [&](unsigned key) { return !now.entries.contains(key); });
    return keys;
  }

  void mark(std::size_t t, unsigned unit, unsigned key, Word version) {
    store([&](Picture& p) {
      entries(p, t, unit).at(key).version = version;
      entries(p, t, unit).at(key).deleted = true;
    });
  }

  void logged(std::size_t t, const LogEntry& entry, const std::map<Word, Word>& needed) {
    const Word version = nextVersion(t);
    store([&](Picture& p) { p.tables[t].log[version] = entry; });
    store([&](Picture& p) { p.tables[t].scratchpad = version; });
    announced(t, version, version, needed);
  }

  void announced(std::size_t t, Word needing, Word version, const std::map<Word, Word>& needed) {
    store([&](Picture& p) {
      for (const auto& [id, of] : needed) {
        Word& known = p.tables[t].needed[needing][id];
        known = std::max(known, of);
      }
    });
    store([&](Picture& p) { p.tables[t].announced = version; });
  }

  /// What was removed and acknowledged goes, in any order: subsets in an order in which each stands
  /// behind those that it contains.
  void purge(std::size_t t, unsigned unit) {
    const Picture before = last();
    std::vector<unsigned> keys;
    for (const auto& [key, entry] : before.tables[t].units[unit].entries) {
      if (entry.deleted && entry.version <= before.tables[t].reported) keys.push_back(key);
    }
    for (unsigned subset = 1; subset < 1U << keys.size(); ++subset) {
      Picture& next = stages_.emplace_back(before);
      for (std::size_t i = 0; i < keys.size(); ++i) {
        if ((subset >> i & 1) != 0) entries(next, t, unit).erase(keys[i]);
      }
    }
  }

  /// What was logged counts as issued; what was not announced needs all that was.
  void takeOverLog(std::size_t t) {
    const TablePicture found = last().tables[t];
    const Word logged = found.log.empty() ? 0 : found.log.rbegin()->first;
    const Word newest = std::max(found.scratchpad, logged);
    store([&](Picture& p) { p.tables[t].scratchpad = newest; });
    if (found.announced < newest) {
      std::map<Word, Word> everything;
      for (std::size_t other = 0; other < kTables; ++other) {
        const Word of = last().tables[other].announced;
        if (other != t && of != 0) everything[kTableIds[other]] = of;
      }
      announced(t, found.announced + 1, newest, everything);
    }
    clean(t, found.reported, false);
  }

  std::vector<Picture> stages_;
  Picture order_;
};

}  // namespace TableKill
