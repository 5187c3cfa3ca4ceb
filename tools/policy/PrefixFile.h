#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "policy/LineReader.h"
#include "policy/NextHopFile.h"
#include "policy/Rule.h"

namespace Policy {

/// A prefix requested explicitly for the prefix table, and its next hop.
struct Route {
  Prefix prefix;
  /// An IPv4 address, or 0 for none.
  std::uint32_t nextHop = 0;
  /// Line of the file.
  unsigned line = 0;
  /// The next hop that packets to the prefix are redirected to.
  Redirect redirect;
};

/// Parses a file of prefixes, one per line, each optionally followed by a next hop ("-" for none).
/// '#' starts a comment. With `redirects`, the fourth word is the name of a next hop that packets
/// to the prefix are redirected to, or "-"; other words after the next hop are ignored. Throws
/// `InputError` at the first invalid line.
std::vector<Route> routesOf(const std::string& file, std::string_view text, bool redirects = false);

}  // namespace Policy
