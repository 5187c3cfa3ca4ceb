#pragma once

#include <compare>
#include <string>
#include <string_view>
#include <vector>

#include "policy/LineReader.h"

namespace Policy {

/// An output of the switch and the neighbour behind it.
struct Adjacency {
  /// Egress port.
  std::uint32_t port = 0;
  /// IPv4 address of the neighbour.
  std::uint32_t address = 0;

  friend auto operator<=>(const Adjacency&, const Adjacency&) = default;
};

/// A next hop as written by people: a name, and where packets for it go.
struct NextHop {
  /// Most adjacencies of one next hop.
  static constexpr std::size_t kMostAdjacencies = 64;

  std::string name;
  /// Request id of the name.
  std::uint64_t id = 0;
  /// One, or those of a group, of which each packet takes one; none if the next hop is down.
  /// Sorted.
  std::vector<Adjacency> adjacencies;
  /// Line of the file.
  unsigned line = 0;

  bool down() const noexcept { return adjacencies.empty(); }
};

/// A place where a file names a next hop.
struct Redirect {
  /// Empty: none.
  std::string name;
  /// Where the name begins, from 1.
  unsigned column = 0;
};

/// A redirect and its line.
struct NamedNextHop {
  unsigned line = 0;
  Redirect redirect;
};

/// The request id of a next hop: a fingerprint of its name, so that it survives the agent. Never 0.
std::uint64_t requestIdOf(std::string_view name) noexcept;

/// Parses a file of next hops, one per line: a name, and an adjacency, several that share the
/// packets, or the word "down":
///
///     core      1:192.0.2.1
///     uplinks   1:192.0.2.1  2:192.0.2.5
///     backup    down
///
/// An adjacency is an egress port and the neighbour's address. '#' starts a comment. Throws
/// `InputError` at the first invalid line and for a name that occurs twice.
std::vector<NextHop> nextHopsOf(const std::string& file, std::string_view text);

}  // namespace Policy
