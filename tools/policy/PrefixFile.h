#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "policy/LineReader.h"
#include "policy/Rule.h"

namespace Policy {

/// A prefix that is wanted in the prefix table for its own sake, and where it leads.
struct Route {
  Prefix prefix;
  /// An IPv4 address; 0 if there is none.
  std::uint32_t nextHop = 0;
  /// The line of the file that asks for it.
  unsigned line = 0;
};

/// A file of prefixes, one a line, each followed by a next hop if it has one ("-" for none). Words
/// after the next hop are ignored; '#' begins a comment. Throws `InputError` at the first line that
/// is something else.
std::vector<Route> routesOf(const std::string& file, std::string_view text);

}  // namespace Policy
