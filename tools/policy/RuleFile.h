#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "policy/LineReader.h"
#include "policy/NextHopFile.h"
#include "policy/Rule.h"

namespace Policy {

/// Parses a file of rules, one per line; the first match decides:
///
///     @192.0.2.0/24  0.0.0.0/0  0 : 65535  443 : 443  0x06/0xFF  0x0000/0x0200
///
/// Source and destination prefix, source and destination ports, protocol and mask, and optionally
/// flags and mask, and optionally, at the end, the name of the next hop that matching packets are
/// redirected to. Fields are separated by blanks or tabs, which may also end the line; '#' starts
/// a comment. Throws `InputError` at the first invalid line. The places of the names are appended
/// to `named`; without it, rules cannot redirect.
std::vector<Rule> rulesOf(const std::string& file, std::string_view text,
                          std::vector<NamedNextHop>* named = nullptr, bool allRedirect = false);

/// The line of a rule, including its line end.
std::string lineOf(const Rule& rule);

}  // namespace Policy
