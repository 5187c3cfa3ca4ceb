#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "policy/LineReader.h"
#include "policy/Rule.h"

namespace Policy {

/// A file of rules, one a line, the first that matches a packet decides:
///
///     @192.0.2.0/24  0.0.0.0/0  0 : 65535  443 : 443  0x06/0xFF  0x0000/0x0200
///
/// Source and destination prefix, source and destination ports, protocol under a mask and, where
/// they are given, flags under a mask. Blanks or tabs stand between the fields and may stand at the
/// end; '#' begins a comment. Throws `InputError` at the first line that is something else.
std::vector<Rule> rulesOf(const std::string& file, std::string_view text);

/// Reads the file at a path. Throws `InputError`, also if it cannot be read.
std::vector<Rule> readRules(const std::string& path);

/// The line of a rule, with its end.
std::string lineOf(const Rule& rule);

}  // namespace Policy
