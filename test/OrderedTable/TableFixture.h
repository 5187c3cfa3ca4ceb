#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Kiv/TraceControl.h"
#include "OrderedTable/ToyFamily.h"
#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamEntry.h"
#include "Support/TableRig.h"
#include "Support/TempDir.h"

/// What a suite over all families needs of one: keys by number and a field of the entry's end.
template <class Family>
struct Facts {
  using Other = QuarnBastil::BigBbFamily;
  static typename Family::Key key(unsigned n) { return Toy::Key(n); }
  static auto& value(auto& entry) { return entry.value; }
};
template <>
struct Facts<QuarnBastil::TcamEntryFamily> {
  using Other = QuarnBastil::BigBbFamily;
  static QuarnBastil::TcamEntryEntryKey key(unsigned n) {
    return {static_cast<std::uint8_t>(n >> 16), static_cast<std::uint16_t>(n)};
  }
  static auto& value(auto& entry) { return entry.actionWords[30]; }
};
template <>
struct Facts<QuarnBastil::BigBbFamily> {
  using Other = QuarnBastil::TcamEntryFamily;
  static QuarnLpmLib::BigBbDataModelEntryKey key(unsigned n) { return {n, 0}; }
  static auto& value(auto& entry) { return entry.block.nextHop[7]; }
};

/// A table on real shared memory, unit 3 of its family, and the hardware's side of its group.
template <class Family>
struct TableFixture : testing::Test {
  using Key = typename Family::Key;
  using Entry = typename Family::Entry;
  using SwTable = typename Family::SwTable;
  using Handle = typename Family::EntryHandle;
  using Helper = typename Family::SwTableHelperBase;
  using Wrapper = typename Family::EntryWrapper;
  using HandlePtr = Fenrik::Ptr<const Handle>;
  using DependencyPtr = Fenrik::Ptr<const Asic::DependencyEntryHandle>;
  using State = Asic::EntryState;
  using Calls = std::vector<std::string>;

  static Key key(unsigned n) { return Facts<Family>::key(n); }
  static Entry entry(unsigned n, unsigned value) {
    Entry made(key(n));
    Facts<Family>::value(made) = value;
    return made;
  }
  static unsigned valueOf(const auto& entry) { return Facts<Family>::value(entry); }

  /// Notes its calls in `calls`, by name and state.
  Asic::ResponseHandler noting(const std::string& name) {
    return [this, name](const auto& handle) {
      calls.push_back(fmt::format("{} {}", name, handle->entryState()));
    };
  }
  HandlePtr write(unsigned n, unsigned value, const DependencyPtr& dep = nullptr) {
    return table->entryWriteWithResponseHandler(key(n), entry(n, value), dep,
                                                noting(fmt::format("W{}", n)));
  }
  HandlePtr remove(unsigned n, const DependencyPtr& dep = nullptr) {
    return table->entryRemoveWithResponseHandler(key(n), dep, noting(fmt::format("R{}", n)));
  }
  void removeAll(const DependencyPtr& dep = nullptr) {
    table->entryRemoveAllWithResponseHandler(dep, noting("A"));
  }
  /// A handle that belongs to nobody's queue.
  Fenrik::Ptr<Handle> looseHandle(State state) {
    const auto handle =
        Fenrik::ptrIsImpl<Handle>(Asic::EntryVersion(Asic::MajorVersion(0), 0), key(9), &*table);
    handle->entryStateIs(state);
    return handle;
  }
  void report(std::uint64_t version) {
    hw.report(Family::kTableId, version);
    agent.pumpAll();
  }
  unsigned pumpOne() { return agent.tables().pump(1).commits; }

  const Asic::SwTableStats& stats() const { return *table->stats(); }
  auto& log() const { return *rig.log(); }
  auto& config(unsigned unit = 3) const {
    return *log().tableConfigDrift(Asic::UnitId(static_cast<std::uint16_t>(unit)));
  }
  std::size_t logSize() const { return log().tableEntryLog()->map()->driftMapSize(); }
  std::uint64_t versionOf(unsigned n) const {
    return log().entryLogVersion(key(n), Asic::UnitId(3)).value();
  }
  static constexpr Asic::UnitId kUnit{3};

  /// "1:w3 K5=7", one for each record of the log: version, operation, unit, key and value.
  std::vector<std::string> logText() const {
    std::vector<std::string> text;
    auto& map = *log().tableEntryLog()->map();
    typename std::remove_cvref_t<decltype(map)>::Cursor at;
    for (bool more = map.driftMapIterBegin(at); more;
         more = map.driftMapIterNext(at.record.version, at)) {
      text.push_back(fmt::format("{}:{}{} {}={}", at.record.version, "wdt"[at.record.flags.value()],
                                 at.record.unitId, nameOf(at.record.logEntry.key),
                                 valueOf(at.record.logEntry)));
    }
    return text;
  }
  /// "K5=7@1" or "K5=7@2-" for one in deletion, in the order of keys.
  std::vector<std::string> configText(unsigned unit = 3) const {
    std::vector<std::string> text;
    auto& map = *config(unit).map();
    typename std::remove_cvref_t<decltype(map)>::Cursor at;
    for (bool more = map.driftMapIterBegin(at); more;
         more = map.driftMapIterNext(at.record.logEntry.key, at)) {
      text.push_back(fmt::format("{}={}@{}{}", nameOf(at.record.logEntry.key),
                                 valueOf(at.record.logEntry), at.record.logVersion,
                                 at.record.isDeleted ? "-" : ""));
    }
    std::sort(text.begin(), text.end());
    return text;
  }
  static std::string nameOf(const Key& k) {
    for (unsigned n = 0; n < 100; ++n) {
      if (k == key(n)) return fmt::format("K{}", n);
    }
    return fmt::format("{}", k);
  }

  /// What the hardware writer finds of one version: each needed table and version.
  std::map<Asic::SwTableId, std::uint64_t> needed(std::uint64_t version) const {
    const auto path = Asic::Constants::neededPathOfEntryLogPath(log().tableEntryLog()->path());
    const auto file =
        Drift::DriftFile::openForReading(agent.memory()->directory(), path.view(), nullptr);
    const Fenrik::Ptr<Drift::DriftMap<Asic::NeededEntryRecord>> map(
        new Drift::DenseMap<Asic::NeededEntryRecord>(*file), Fenrik::AdoptReference{});
    std::map<Asic::SwTableId, std::uint64_t> found;
    Drift::DriftMap<Asic::NeededEntryRecord>::Cursor at;
    for (bool more = map->driftMapIterBegin(at); more;
         more = map->driftMapIterNext(at.record.sequence, at)) {
      if (at.record.version.value() != version) continue;
      for (std::uint32_t i = 0; i < at.record.count; ++i) {
        found[at.record.needed[i].tableId()] = at.record.needed[i].logVersion().value();
      }
    }
    return found;
  }
  std::uint64_t announced() const {
    return log().tableEntryLog()->collectionControl()->announced();
  }

  Support::TempDir dir;
  Support::AgentRig agent{dir.path()};
  Support::TableRig<Family> rig{agent};
  Fenrik::Ptr<SwTable> table = rig.table(3);
  Support::ReporterRig hw{dir.path(), Family::Constants::canonicalGroupName()};
  Calls calls;
};

using AllFamilies =
    testing::Types<QuarnBastil::TcamEntryFamily, QuarnBastil::BigBbFamily, ToyFamily>;

/// Traced lines of some levels while it lives: "handle level function|text".
class TraceNotes {
 public:
  explicit TraceNotes(std::string_view setting) {
    Kiv::TraceControl::settingIs(setting);
    Kiv::TraceControl::sinkIs([this](const Kiv::TraceLine& line) {
      lines.push_back(
          fmt::format("{} {} {}|{}", line.handle, line.level, line.function, line.text));
    });
  }
  ~TraceNotes() {
    Kiv::TraceControl::settingDelAll();
    Kiv::TraceControl::sinkDel();
  }
  TraceNotes(const TraceNotes&) = delete;
  TraceNotes& operator=(const TraceNotes&) = delete;

  std::vector<std::string> taken() { return std::exchange(lines, {}); }
  std::vector<std::string> lines;
};
