#pragma once

#include <functional>
#include <map>
#include <set>

#include "OrderedTable/TableVersionDrift.h"
#include "tables/TableKind.h"

namespace HwWriter {

/// The table-version maps, one for each group of tables: they tell the agent how far the chip is.
class Reports {
 public:
  /// Throws `Drift::MountException`.
  explicit Reports(const std::string& directory);

  /// Every record of the table's log up to the version is in hardware. A version that is not above
  /// the last report changes nothing.
  void report(const Tables::TableKind& kind, Tables::Word version);
  /// Wakes the agent, if anything was reported since.
  /// Wakes the agents behind new reports. `logOf` names a log of theirs in each group.
  void ring(const std::function<const Drift::DriftFile*(const std::string& group)>& logOf);
  /// The maps, in which this process says that it sleeps.
  std::vector<const Drift::DriftFile*> files() const;
  /// Opens maps again that were removed or made anew; they hold no report then.
  void refresh();

 private:
  struct Group {
    Fenrik::Ptr<Asic::TableVersionDrift> map;
    bool ringDue = false;
  };
  Group& group(const Tables::TableKind& kind);
  Tables::Word reported(const Tables::TableKind& kind);

  Fenrik::Ptr<KivSharedMem::EntityManager> memory_;
  std::map<std::string, Group> groups_;
  std::map<Asic::SwTableId, Tables::Word> reported_;
};

}  // namespace HwWriter
