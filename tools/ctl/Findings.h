#pragma once

#include <set>
#include <string>

namespace Ctl {

/// What one look at the collections has brought up.
struct Findings {
  /// What is wrong.
  std::set<std::string> wrong;
  /// What a death or a loss may leave, and what the next agent or hardware writer sees to.
  std::set<std::string> notes;
  std::size_t collections = 0;
  std::size_t records = 0;
};

/// What both looks have brought up: the rest was under way. The counts are those of the later one.
Findings inBoth(const Findings& earlier, const Findings& later);

}  // namespace Ctl
