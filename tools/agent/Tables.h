#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KivSharedMem/EntityManager.h"
#include "OrderedTable/GenId.h"
#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamAction.h"
#include "QuarnBastil/TcamEntry.h"
#include "Stavro/ValueEntity.h"
#include "agent/NextHops.h"
#include "policy/Plan.h"

namespace Agent {

/// The tables of one unit that hold its policy.
struct Unit {
  Asic::UnitId id;
  Fenrik::Ptr<QuarnBastil::TcamEntrySwTable> rules;
  Fenrik::Ptr<QuarnBastil::BigBbSwTable> prefixes;
  /// The actions of redirecting rules; null without next hops.
  Fenrik::Ptr<QuarnBastil::TcamActionSwTable> actions;
  /// Where the next change starts searching for free rule rows.
  std::uint16_t nextIndex = 0;

  /// The current rows.
  Policy::Picture picture() const;
};

/// The agent's objects in shared memory, in one directory: the families of the policy and, if there
/// are next hops, those that redirect.
///
/// Threads: the table thread.
class Tables {
 public:
  /// Takes over the state of an earlier agent, or starts anew. Throws `Fenrik::Exception` with a
  /// message for the user, for example if another agent uses the directory.
  ///
  /// Without `redirects`, there are next hops only if an earlier agent left some.
  Tables(const std::string& directory, const NextHops::Options* redirects);

  /// The tables of a unit, created at the first call.
  Unit& unit(unsigned number);
  /// Units with tables left by an earlier agent.
  std::vector<unsigned> unitsFound() const;
  /// The next hops, or null.
  NextHops* nextHops() const noexcept { return nextHops_.get(); }
  /// The notes for other programs, or null without next hops.
  Notes* notes() const noexcept { return notes_.get(); }
  /// Sleeps until there is something to do, and notes before that which heads wait.
  void waitForReport(std::chrono::steady_clock::duration time) const;
  /// Empties units without tables; rows before those that they refer to.
  void reconcile();
  /// Removes the destinations of a unit, after its actions.
  void destinationsDel(const Unit& unit);

  /// The agent's relaunch generation if it has changed since the last call: a collection was
  /// unusable and has been replaced by an empty one.
  std::optional<Asic::GenId> relaunchSeen();

  Asic::OrderedTableInterface& interface() const { return *tables_; }
  /// Number of queued, uncommitted operations.
  std::size_t queued() const;
  /// Number of log records of all tables that the hardware has not reported.
  std::uint64_t behind() const;
  /// What the queues or the hardware wait for, as text for people.
  std::string waitsFor() const;

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
  /// Null without next hops.
  std::unique_ptr<NextHops> nextHops_;
  std::unique_ptr<Notes> notes_;
  std::map<unsigned, Unit> units_;
};

}  // namespace Agent
