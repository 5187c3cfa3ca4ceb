#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "KivSharedMem/EntityManager.h"
#include "OrderedTable/GenId.h"
#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamEntry.h"
#include "Stavro/ValueEntity.h"
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

  /// The rows of the tables, read back from them.
  Policy::Picture picture() const;
};

/// Whether the hardware has not reported everything of a table.
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
  /// Empties units without tables. Rules first: they point at prefixes.
  void reconcile();

  /// The agent's relaunch generation, if it has moved since the last call: then a collection was
  /// found unusable and was made anew, empty.
  std::optional<Asic::GenId> relaunchSeen();

  Asic::OrderedTableInterface& interface() const { return *tables_; }
  /// Operations that are queued and not committed.
  std::size_t queued() const;
  /// Log records that the hardware has still to report, of both tables.
  std::uint64_t behind() const;
  /// What the queues or the hardware wait for, for people.
  std::string waitsFor() const;

  /// A handle of everything that is logged in a table so far.
  template <class SwTable>
  static Dependency loggedSoFar(const SwTable& table);

 private:
  Fenrik::Ptr<KivSharedMem::EntityManager> memory_;
  Fenrik::Ptr<Stavro::EntityManager> state_;
  /// Advanced by whoever loses a collection. Made before the tables are: a request without it would
  /// be lost.
  Fenrik::Ptr<Stavro::ValueEntity<Asic::GenId>> relaunch_;
  Asic::GenId relaunchSeen_;
  Fenrik::Ptr<Asic::OrderedTableInterface> tables_;
  Fenrik::Ptr<QuarnBastil::TcamEntryInterface> rules_;
  Fenrik::Ptr<QuarnBastil::BigBbInterface> prefixes_;
  std::map<unsigned, Unit> units_;
};

/// A handle of all operations of a table up to a version, for operations that depend on those of an
/// earlier agent.
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
