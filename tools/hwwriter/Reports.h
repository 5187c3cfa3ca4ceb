#pragma once

#include <functional>
#include <map>
#include <set>

#include "OrderedTable/TableVersionDrift.h"
#include "tables/TableKind.h"

namespace HwWriter {

/// The table-version maps, one per group, which report the chip's progress to the agent.
class Reports {
 public:
  /// Throws `Drift::MountException`.
  explicit Reports(const std::string& directory);

  /// Reports that all log records of the table up to `version` are in hardware. Ignores a version
  /// that is not above the last report.
  void report(const Tables::TableKind& kind, Tables::Word version);
  /// Wakes the agents for which there are new reports. `logOf` returns a log of the group.
  void ring(const std::function<const Drift::DriftFile*(const std::string& group)>& logOf);
  /// The maps, in which this process marks itself asleep or awake.
  std::vector<const Drift::DriftFile*> files() const;
  /// Opens maps again that were removed or replaced; those have no report yet.
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
