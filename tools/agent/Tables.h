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
  /// Where the next change starts searching for free rule rows.
  std::uint16_t nextIndex = 0;

  /// The current rows of both tables.
  Policy::Picture picture() const;
};

/// Whether the hardware has not reported all versions of a table.
template <class SwTable>
bool isBehind(const SwTable& table) {
  return table.entryLog()->tableStatusVersion() < table.entryLog()->tableVersion();
}

/// The agent's objects in shared memory: both families, in one directory.
///
/// Threads: the table thread.
class Tables {
 public:
  /// Takes over the state of an earlier agent, or starts anew. Throws `Fenrik::Exception` with a
  /// message for the user, for example if another agent uses the directory.
  explicit Tables(const std::string& directory);

  /// The tables of a unit, created at the first call.
  Unit& unit(unsigned number);
  /// Units with tables left by an earlier agent.
  std::vector<unsigned> unitsFound() const;
  /// Empties units without tables; rules before the prefixes that they refer to.
  void reconcile();

  /// The agent's relaunch generation if it has changed since the last call: a collection was
  /// unusable and has been replaced by an empty one.
  std::optional<Asic::GenId> relaunchSeen();

  Asic::OrderedTableInterface& interface() const { return *tables_; }
  /// Number of queued, uncommitted operations.
  std::size_t queued() const;
  /// Number of log records of both tables that the hardware has not reported.
  std::uint64_t behind() const;
  /// What the queues or the hardware wait for, as text for people.
  std::string waitsFor() const;

  /// A handle for everything logged in a table so far.
  template <class SwTable>
  static Dependency loggedSoFar(const SwTable& table);

 private:
  Fenrik::Ptr<KivSharedMem::EntityManager> memory_;
  Fenrik::Ptr<Stavro::EntityManager> state_;
  /// Incremented when a collection is lost. Created before the tables, since a request without it
  /// is dropped.
  Fenrik::Ptr<Stavro::ValueEntity<Asic::GenId>> relaunch_;
  Asic::GenId relaunchSeen_;
  Fenrik::Ptr<Asic::OrderedTableInterface> tables_;
  Fenrik::Ptr<QuarnBastil::TcamEntryInterface> rules_;
  Fenrik::Ptr<QuarnBastil::BigBbInterface> prefixes_;
  std::map<unsigned, Unit> units_;
};

/// A handle for all operations of a table up to a version, for operations that depend on those of
/// an earlier agent.
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
