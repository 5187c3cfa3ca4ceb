#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "policy/Rows.h"

namespace Policy {

/// The prefixes of one unit as a tree: those that stand in the table and those that are to come,
/// a longer one below the shorter one that holds it. A preorder walk goes by address.
///
/// I1. In a numbering that is valid the intervals of labels nest as the prefixes do, and no two
///     prefixes have the same first label.
class PrefixTree {
 public:
  struct Node {
    Prefix prefix;
    /// Whether the table has a row of it, and whether it is to have one.
    bool stands = false;
    bool wanted = false;
    std::array<Labels, kNumberings> labels{};
    /// Of the row that stands, and of the one that is wanted.
    std::uint32_t nextHop = 0;
    std::uint32_t wantedNextHop = 0;

    PrefixRow row() const noexcept { return {prefix, labels, wanted ? wantedNextHop : nextHop}; }
  };

  /// Nodes in any order; of several with one prefix the tree makes one.
  explicit PrefixTree(const std::vector<Node>& nodes);

  /// In preorder.
  std::vector<Node>& nodes() noexcept { return nodes_; }
  const std::vector<Node>& nodes() const noexcept { return nodes_; }
  /// Position of a prefix; nothing if the tree does not have it.
  std::optional<std::uint32_t> find(const Prefix& prefix) const noexcept;

  /// Gives labels from 0 to `last` to the nodes that do not stand, between those of the nodes that
  /// do, which stay. False if there is no room somewhere, or if those that stand break I1.
  bool numberNew(unsigned numbering, std::uint32_t last);
  /// Gives new labels to all nodes. False if there are more of them than labels.
  bool numberAll(unsigned numbering, std::uint32_t last);

 private:
  bool number(unsigned numbering, std::uint32_t last, bool keep);

  std::vector<Node> nodes_;
  /// Address and length of the nodes in one number each, for searches.
  std::vector<std::uint64_t> keys_;
};

}  // namespace Policy
