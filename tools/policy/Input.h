#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "policy/PrefixFile.h"
#include "policy/Rule.h"

namespace Policy {

/// What the tables of a unit are to carry out.
struct Wanted {
  /// In the order of their priority, no rule twice.
  std::vector<Rule> rules;
  /// No prefix twice.
  std::vector<Route> routes;
  /// Rules that repeat an earlier one, and so can never decide. They are left out.
  std::size_t repeated = 0;
};

/// The text of a file. Throws `InputError` if it cannot be read.
std::string textOfFile(const std::string& path);

/// Files of rules and files of prefixes, in the order given: rules of an earlier file go first. A
/// file in which a line begins with '@' is one of rules. Throws `InputError`: then nothing of any
/// of them is to be used.
Wanted wantedOf(std::span<const std::string> paths);

/// Adds rules behind those that are there.
void addRules(Wanted& wanted, std::span<const Rule> rules);

}  // namespace Policy
