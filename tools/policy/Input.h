#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "policy/PrefixFile.h"

namespace Policy {

/// The policy that the tables of a unit are to carry out.
struct Wanted {
  /// In the order of their priority, no rule twice.
  std::vector<Rule> rules;
  /// No prefix twice.
  std::vector<Route> routes;
  /// Rules that repeat an earlier one, and so can never decide. They are left out.
  std::size_t repeated = 0;
};

/// The text of a regular file. Throws `InputError` if it cannot be read.
std::string textOfFile(const std::string& path);

/// The rules or the prefixes of one file.
struct Content {
  std::string path;
  std::vector<Rule> rules;
  std::vector<Route> routes;

  bool empty() const noexcept { return rules.empty() && routes.empty(); }
};

/// Reads one file. It is one of rules if a line of it begins with '@'. Throws `InputError`.
Content contentOf(const std::string& path);

/// The contents of files together, in their order: rules of an earlier file go first. Throws
/// `InputError` if they contradict each other.
Wanted wantedOf(std::span<const Content> contents);

/// Appends rules.
void addRules(Wanted& wanted, std::span<const Rule> rules);

}  // namespace Policy
