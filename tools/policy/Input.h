#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "policy/PrefixFile.h"

namespace Policy {

/// The policy to be carried out by a unit's tables.
struct Wanted {
  /// In order of priority, without duplicates.
  std::vector<Rule> rules;
  /// Without duplicate prefixes.
  std::vector<Route> routes;
  /// Number of omitted rules that repeat an earlier one and can therefore never decide.
  std::size_t repeated = 0;
};

/// Text of a regular file. Throws `InputError` if it cannot be read.
std::string textOfFile(const std::string& path);

/// The rules or prefixes of one file.
struct Content {
  std::string path;
  std::vector<Rule> rules;
  std::vector<Route> routes;

  bool empty() const noexcept { return rules.empty() && routes.empty(); }
};

/// Reads one file. A file with a line starting with '@' contains rules, otherwise prefixes. Throws
/// `InputError`.
Content contentOf(const std::string& path);

/// Combines the contents of files in order: rules of earlier files have priority. Throws
/// `InputError` if they contradict each other.
Wanted wantedOf(std::span<const Content> contents);

/// Appends rules.
void addRules(Wanted& wanted, std::span<const Rule> rules);

}  // namespace Policy
