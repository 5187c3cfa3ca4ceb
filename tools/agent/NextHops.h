#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "QuarnBastil/BigAds.h"
#include "QuarnBastil/SmallAds.h"
#include "QuarnBastil/TcamAction.h"
#include "agent/LoggedSoFar.h"
#include "agent/Notes.h"
#include "policy/Destination.h"

namespace Agent {

/// What happens to packets for a next hop that is down.
enum class OnDown {
  keep,  ///< they go where they went, until the next hop is known again
  drop   ///< they are dropped
};

/// The next hops of an agent: the rows of their destinations, the resource table through which
/// actions follow them, and the tables of these actions.
///
/// Make before break: a next hop that changes gets a destination of its own or one that stands
/// already; the actions are told only when its rows are committed, and need them. The rows of the
/// former destination are removed when the resource table reports that no row in hardware uses
/// them. Next hops with the same adjacencies share a destination.
///
/// I1. A destination that stands in a unit never changes there.
/// I2. A next hop of the file is never pending: it has a destination, or it has failed.
///
/// Threads: the table thread.
class NextHops {
 public:
  struct Options {
    OnDown onDown = OnDown::keep;
  };

  /// Lets the agent's loop go on: pumps, sleeps if there is nothing to do, and takes the time that
  /// so many rows may take. False if the agent ends.
  using Pump = std::function<bool(std::size_t rows)>;

  /// What a change did.
  struct Outcome {
    /// Next hops with another state or destination than before.
    std::size_t changed = 0;
    std::size_t down = 0;
    /// Rows of destinations that were written.
    std::size_t rows = 0;
    /// False if the agent ends before everything is done.
    bool complete = false;
  };

  /// Takes over the values that an earlier agent left. Throws `Drift::MountException`.
  NextHops(const Fenrik::Ptr<Asic::OrderedTableInterface>& tables, Options options);
  ~NextHops();
  NextHops(const NextHops&) = delete;
  NextHops& operator=(const NextHops&) = delete;

  /// Makes the tables of a unit, once. Returns that of its actions.
  Fenrik::Ptr<QuarnBastil::TcamActionSwTable> unitAdd(Asic::UnitId unit);
  /// Empties units without tables, and lets the resource table settle what an earlier agent left.
  /// REQUIRES: all tables were made, and those of rules reconciled.
  void reconcile();
  /// Removes all destinations of a unit that will not be served, after `actions`.
  void destinationsDel(Asic::UnitId unit, const Dependency& actions);

  /// Gives the next hops their destinations in the units, or lets them fail. Next hops that are
  /// missing remain as long as rules use them. Throws `RowRejected`, and `Fenrik::Exception` if
  /// there is no space.
  Outcome change(const std::vector<Policy::NextHop>& wanted, const std::vector<unsigned>& units,
                 const Pump& pump);
  /// Takes down what is not used any more, as far as the hardware has reported it. Returns the
  /// number of destinations taken down.
  std::size_t tidy();

  /// Writes what other programs are told.
  void note(Notes& notes) const;
  /// Number of log records of these tables that the hardware has not reported.
  std::uint64_t behind() const;

 private:
  class Provider;
  class Standing;
  using Resources = QuarnL3NiLib::ReqIdToFecResourceTableResourceTable;
  using Key = Resources::Key;

  struct UnitTables {
    Fenrik::Ptr<QuarnBastil::TcamActionSwTable> actions;
    Fenrik::Ptr<QuarnBastil::SmallAdsSwTable> adjacencies;
    Fenrik::Ptr<QuarnBastil::BigAdsSwTable> members;
  };

  std::uint32_t currentDestination(std::uint64_t id);
  std::size_t write(Policy::Destination destination,
                    const std::vector<Policy::Adjacency>& adjacencies);
  std::size_t remove(UnitTables& unit, Policy::Destination destination, const Dependency& before);
  std::set<std::uint32_t> destinations(const UnitTables& unit) const;
  bool drain(const Pump& pump);
  std::size_t queued() const;
  bool give(const Policy::NextHop& nextHop, std::uint32_t destId);
  std::size_t userCount(std::uint64_t id) const;
  void retire();
  Fenrik::Ptr<const Asic::NeededEntry> everythingCommitted() const;

  const Options options_;
  Fenrik::Ptr<Asic::OrderedTableInterface> tables_;
  Fenrik::Ptr<Resources> resources_;
  Fenrik::Ptr<QuarnBastil::TcamActionInterface> actions_;
  Fenrik::Ptr<QuarnBastil::SmallAdsInterface> adjacencies_;
  Fenrik::Ptr<QuarnBastil::BigAdsInterface> members_;
  Fenrik::Ptr<QuarnBastil::TcamActionSwTableHelperBase> helper_;
  Fenrik::Ptr<Provider> provider_;
  std::map<Asic::UnitId, UnitTables> units_;
  /// Units that have the rows of all destinations.
  std::vector<Asic::UnitId> served_;
  /// The file's next hops: request ids and names.
  std::unordered_map<std::uint64_t, std::string> wanted_;
};

}  // namespace Agent
