#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "KivSharedMem/EntityManager.h"
#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamEntry.h"
#include "policy/Plan.h"

namespace Agent {

using Dependency = Fenrik::Ptr<const Asic::DependencyEntryHandle>;

/// The two tables of one unit.
struct Unit {
  Asic::UnitId id;
  Fenrik::Ptr<QuarnBastil::TcamEntrySwTable> rules;
  Fenrik::Ptr<QuarnBastil::BigBbSwTable> prefixes;
  /// Where the next change begins to look for free rows of rules.
  std::uint16_t nextIndex = 0;

  /// What stands in the tables, read back from them.
  Policy::Picture picture() const;
};

/// Whether the hardware has still to take over something of a table.
template <class SwTable>
bool isBehind(const SwTable& table) {
  return table.entryLog()->tableStatusVersion() < table.entryLog()->tableVersion();
}

/// Everything of the agent's that lives in shared memory: both families, over one directory.
///
/// Threads: the table thread.
class Tables {
 public:
  /// Takes over what an earlier agent left, or begins anew. Throws `Fenrik::Exception` with a
  /// message for the user, when another agent is at work there for instance.
  explicit Tables(const std::string& directory);

  /// The tables of a unit, brought up at the first call.
  Unit& unit(unsigned number);
  /// The units for which an earlier agent has left tables.
  std::vector<unsigned> unitsFound() const;

  Asic::OrderedTableInterface& interface() const { return *tables_; }
  /// Operations that are queued and not committed.
  std::size_t queued() const;
  /// Log records that the hardware has still to report, of both tables.
  std::uint64_t behind() const;
  /// What the queues wait for, for people.
  std::string waitsFor() const;

  /// To be depended on: all that is logged in a table so far.
  template <class SwTable>
  static Dependency loggedSoFar(const SwTable& table);

 private:
  Fenrik::Ptr<KivSharedMem::EntityManager> memory_;
  Fenrik::Ptr<Asic::OrderedTableInterface> tables_;
  Fenrik::Ptr<QuarnBastil::TcamEntryInterface> rules_;
  Fenrik::Ptr<QuarnBastil::BigBbInterface> prefixes_;
  std::map<unsigned, Unit> units_;
};

/// Stands for all operations of a table up to a version, whoever did them. An operation that
/// depends on one of an earlier agent has no other handle to name.
class LoggedSoFar final : public Fenrik::NodeClass<LoggedSoFar, Asic::DependencyEntryHandle> {
 public:
  LoggedSoFar(const Fenrik::String& tableName, Asic::TableVersion version);

  Asic::TableVersion entryTableVersion() const override { return version_; }
  Fenrik::String tableName() const override { return tableName_; }
  Asic::SwTableId tableId() const override { return version_.tableId(); }
  Fenrik::String keyText() const override { return "everything so far"; }

 private:
  Fenrik::String tableName_;
  Asic::TableVersion version_;
};

template <class SwTable>
Dependency Tables::loggedSoFar(const SwTable& table) {
  return Fenrik::ptrIsImpl<LoggedSoFar>(
      table.canonicalName()->name(),
      Asic::TableVersion(table.tableId(), table.entryLog()->tableVersion()));
}

}  // namespace Agent
