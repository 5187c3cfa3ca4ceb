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
  /// The next hops that rules may redirect to.
  std::vector<NextHop> nextHops;
  /// Number of omitted rules that repeat an earlier one and can therefore never decide.
  std::size_t repeated = 0;
};

/// Text of a regular file. Throws `InputError` if it cannot be read.
std::string textOfFile(const std::string& path);

enum class FileKind {
  policy,             ///< rules or prefixes
  redirectingPolicy,  ///< the same, which may name next hops
  redirects,          ///< rules that name next hops
  nextHops            ///< next hops
};

/// The rules, prefixes or next hops of one file.
struct Content {
  std::string path;
  std::vector<Rule> rules;
  std::vector<Route> routes;
  std::vector<NextHop> nextHops;
  /// Where the rules name next hops.
  std::vector<NamedNextHop> named;

  bool empty() const noexcept { return rules.empty() && routes.empty() && nextHops.empty(); }
};

/// Reads one file. A policy with a line starting with '@' contains rules, otherwise prefixes.
/// Throws `InputError`.
Content contentOf(const std::string& path, FileKind kind = FileKind::policy);

/// Combines the contents of files in order: rules of earlier files have priority. Redirects of
/// prefixes become rules after all others, longer prefixes first. Throws `InputError` if the files
/// contradict each other, or name a next hop that none of them has.
Wanted wantedOf(std::span<const Content> contents);

/// Appends rules.
void addRules(Wanted& wanted, std::span<const Rule> rules);

}  // namespace Policy
