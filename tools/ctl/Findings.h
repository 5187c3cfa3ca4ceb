#pragma once

#include <set>
#include <string>

namespace Ctl {

/// Result of one look at the collections.
struct Findings {
  /// Faults.
  std::set<std::string> wrong;
  /// What a crash or a loss may leave, and the next agent or hardware writer repairs.
  std::set<std::string> notes;
  /// Collections and records examined.
  std::size_t collections = 0;
  std::size_t records = 0;
};

/// The findings common to both looks; others were changes in progress. The counts are the later
/// ones.
Findings inBoth(const Findings& earlier, const Findings& later);

}  // namespace Ctl
