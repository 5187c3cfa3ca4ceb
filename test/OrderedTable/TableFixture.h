#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "Kiv/TraceControl.h"
#include "OrderedTable/ToyFamily.h"
#include "Support/TableRig.h"
#include "Support/TempDir.h"
#include "Support/TypedFamilies.h"

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

  static Key key(unsigned n) { return Support::Numbers<Family>::key(n); }
  static Entry entry(unsigned n, unsigned value) { return Support::entryOf<Family>(n, value); }
  static unsigned valueOf(const auto& entry) { return Support::Numbers<Family>::value(entry); }

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

  const Asic::SwTableStats& stats() const { return *table->stats(); }
  auto& log() const { return *rig.log(); }
  auto& config(unsigned unit = 3) const {
    return *log().tableConfigDrift(Asic::UnitId(static_cast<std::uint16_t>(unit)));
  }
  std::size_t logSize() const { return log().tableEntryLog()->map()->driftMapSize(); }
  static constexpr Asic::UnitId kUnit{3};

  Support::TempDir dir;
  Support::AgentRig agent{dir.path()};
  Support::TableRig<Family> rig{agent};
  Fenrik::Ptr<SwTable> table = rig.table(3);
  Support::ReporterRig hw{dir.path(), Family::Constants::canonicalGroupName()};
  Calls calls;
};

using AllFamilies = Support::TypedFamilies<testing::Types, ToyFamily>;

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
