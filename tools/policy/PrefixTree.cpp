#include "policy/PrefixTree.h"

#include <algorithm>

namespace Policy {
namespace {

using Node = PrefixTree::Node;

/// Sort key that yields preorder.
std::uint64_t keyOf(const Prefix& prefix) noexcept {
  return std::uint64_t{prefix.address} << 8 | prefix.length;
}

void merge(Node& into, const Node& node) noexcept {
  if (node.stands) {
    into.stands = true;
    into.labels = node.labels;
    into.nextHop = node.nextHop;
  }
  if (!node.wanted) return;
  into.wanted = true;
  if (node.wantedNextHop != 0) into.wantedNextHop = node.wantedNextHop;
}

/// A walk of the tree opens a node, visits the nodes below it, and closes it. Labels are numbers
/// assigned along the walk: `first` at the opening, which is unique, and `last` at the closing.
/// Between two fixed numbers, all others are spread over the available range.
class Numbering {
 public:
  Numbering(std::vector<Node>& nodes, unsigned numbering, std::uint32_t last, bool keep)
      : nodes_(nodes), numbering_(numbering), last_(last), keep_(keep) {}

  bool done() {
    std::vector<std::size_t> above;
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
      while (!above.empty() && !nodes_[above.back()].prefix.contains(nodes_[i].prefix.address)) {
        close(above.back());
        above.pop_back();
      }
      open(i);
      above.push_back(i);
    }
    for (; !above.empty(); above.pop_back()) close(above.back());
    return good_ && spread(last_);
  }

 private:
  struct Event {
    std::size_t node;
    bool opens;
  };

  /// A leaf takes one label.
  bool isLeaf(std::size_t node) const { return nodes_[node].prefix.length == 32; }
  bool isFixed(std::size_t node) const { return keep_ && nodes_[node].stands; }
  Labels& labels(std::size_t node) { return nodes_[node].labels[numbering_]; }

  void open(std::size_t node) {
    if (!isFixed(node)) {
      pending_.push_back({node, true});
      ++opens_;
    } else {
      post(labels(node).first, true);
    }
  }
  void close(std::size_t node) {
    if (isFixed(node)) return post(labels(node).last, false);
    if (!isLeaf(node)) pending_.push_back({node, false});
  }

  void post(std::int64_t number, bool opens) {
    if (!good_) return;
    good_ = number <= last_ && spread(opens ? number - 1 : number);
    lowest_ = number;
  }

  /// Assigns numbers above `lowest_` and up to `highest` to the events since the last fixed number.
  /// False if there are too few, or if the fixed numbers are out of order.
  bool spread(std::int64_t highest) {
    const std::int64_t room = highest - lowest_;
    if (opens_ > room) return false;
    const std::int64_t step = room / (static_cast<std::int64_t>(pending_.size()) + 1);
    for (const Event& event : pending_) {
      lowest_ += step != 0 ? step : event.opens ? 1 : 0;
      give(event);
    }
    pending_.clear();
    opens_ = 0;
    return true;
  }
  void give(const Event& event) {
    const auto number = static_cast<std::uint32_t>(lowest_);
    if (event.opens) labels(event.node).first = number;
    if (!event.opens || isLeaf(event.node)) labels(event.node).last = number;
  }

  std::vector<Node>& nodes_;
  const unsigned numbering_;
  const std::int64_t last_;
  const bool keep_;
  std::vector<Event> pending_;
  std::int64_t opens_ = 0;
  /// The highest number assigned so far.
  std::int64_t lowest_ = -1;
  bool good_ = true;
};

}  // namespace

PrefixTree::PrefixTree(const std::vector<Node>& nodes) {
  // Sorts indices, since nodes are large.
  std::vector<std::pair<std::uint64_t, std::uint32_t>> order;
  order.reserve(nodes.size());
  for (std::uint32_t i = 0; i < nodes.size(); ++i) order.emplace_back(keyOf(nodes[i].prefix), i);
  std::ranges::sort(order);
  nodes_.reserve(order.size());
  keys_.reserve(order.size());
  for (const auto& [key, place] : order) {
    if (!keys_.empty() && keys_.back() == key) {
      merge(nodes_.back(), nodes[place]);
    } else {
      nodes_.push_back(nodes[place]);
      keys_.push_back(key);
    }
  }
}

std::optional<std::uint32_t> PrefixTree::find(const Prefix& prefix) const noexcept {
  const auto at = std::ranges::lower_bound(keys_, keyOf(prefix));
  if (at == keys_.end() || *at != keyOf(prefix)) return {};
  return static_cast<std::uint32_t>(at - keys_.begin());
}

bool PrefixTree::numberNew(unsigned numbering, std::uint32_t last) {
  return number(numbering, last, true);
}

bool PrefixTree::numberAll(unsigned numbering, std::uint32_t last) {
  return number(numbering, last, false);
}

bool PrefixTree::number(unsigned numbering, std::uint32_t last, bool keep) {
  return Numbering(nodes_, numbering, last, keep).done();
}

}  // namespace Policy
