#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "policy/Rows.h"

namespace Policy {

/// The present and requested prefixes of one unit as a tree, in which a longer prefix is below the
/// shorter one that contains it. A preorder walk is ordered by address.
///
/// I1. In a valid numbering the label intervals nest like the prefixes, and no two prefixes have
///     the same first label.
class PrefixTree {
 public:
  struct Node {
    Prefix prefix;
    /// Whether the table has a row for the prefix, and whether it shall have one.
    bool stands = false;
    bool wanted = false;
    std::array<Labels, kNumberings> labels{};
    /// Next hops of the present row and of the requested one.
    std::uint32_t nextHop = 0;
    std::uint32_t wantedNextHop = 0;

    PrefixRow row() const noexcept { return {prefix, labels, wanted ? wantedNextHop : nextHop}; }
  };

  /// Nodes in any order. Nodes with equal prefixes are merged.
  explicit PrefixTree(const std::vector<Node>& nodes);

  /// In preorder.
  std::vector<Node>& nodes() noexcept { return nodes_; }
  const std::vector<Node>& nodes() const noexcept { return nodes_; }
  /// Position of a prefix, or nullopt if it is not in the tree.
  std::optional<std::uint32_t> find(const Prefix& prefix) const noexcept;

  /// Assigns labels from 0 to `last` to nodes without a row, between those of the nodes with one,
  /// which keep theirs. False if there is not enough room, or if the existing labels violate I1.
  bool numberNew(unsigned numbering, std::uint32_t last);
  /// Assigns new labels to all nodes. False if there are fewer labels than nodes.
  bool numberAll(unsigned numbering, std::uint32_t last);

 private:
  bool number(unsigned numbering, std::uint32_t last, bool keep);

  std::vector<Node> nodes_;
  /// Address and length of each node combined in one number, for searching.
  std::vector<std::uint64_t> keys_;
};

}  // namespace Policy
