#pragma once

#include <map>
#include <set>

#include "OrderedTable/TableVersionDrift.h"
#include "tables/TableKind.h"

namespace HwWriter {

/// The table-version maps through which the agent hears how far the chip has come, one for each
/// group of tables.
class Reports {
 public:
  /// Throws `Drift::MountException`.
  explicit Reports(const std::string& directory);

  /// The last version that was reported for the table.
  Tables::Word reported(const Tables::TableKind& kind);
  /// Every record of the table's log up to the version is in hardware. A version below the last one
  /// is no news.
  void report(const Tables::TableKind& kind, Tables::Word version);
  /// Wakes the agent, if anything was reported since.
  void ring();

 private:
  struct Group {
    Fenrik::Ptr<Asic::TableVersionDrift> map;
    bool ringDue = false;
  };
  Group& group(const Tables::TableKind& kind);

  Fenrik::Ptr<KivSharedMem::EntityManager> memory_;
  std::map<std::string, Group> groups_;
  std::map<Asic::SwTableId, Tables::Word> reported_;
};

}  // namespace HwWriter
