#pragma once

#include <unordered_map>
#include <vector>

#include "policy/Rows.h"

namespace SimAsic {

/// Identifies a set of rules, independently of their order and multiplicity.
struct RuleSetId {
  std::uint64_t count = 0;
  std::uint64_t sum = 0;

  void add(Policy::Decision decision) noexcept {
    ++count;
    sum += decision;
  }
  friend bool operator==(const RuleSetId&, const RuleSetId&) = default;
};

/// The rule rows of one unit as held by a TCAM: packed, in order of priority, so that inserting a
/// row moves those after it.
class RuleTable {
 public:
  /// The number of a row's position in the software table.
  using Key = std::uint32_t;

  /// Returns the number of rows moved.
  std::uint64_t write(Key key, const Policy::RuleRow& row);
  /// Moves no rows: the position is marked as free.
  void remove(Key key);

  const Policy::RuleRow* find(Key key) const;
  std::size_t size() const noexcept { return order_.size(); }
  RuleSetId setId() const noexcept { return setId_; }

  /// A row and its key; null if there is none.
  struct Match {
    const Policy::RuleRow* row = nullptr;
    Key key = 0;
  };
  /// The row that decides on a packet, given the prefix rows of its addresses.
  Match match(const Policy::Packet& packet, const Policy::PrefixRow& source,
              const Policy::PrefixRow& destination) const;
  /// Calls `visit` with the key and the row of each rule.
  template <class Visit>
  void walk(Visit visit) const {
    for (const auto& [key, slot] : slots_) visit(key, rows_[slot]);
  }

 private:
  struct Place {
    /// Priority, and below it the key, which orders rows of equal priority.
    std::uint64_t rank;
    std::uint32_t slot;
  };

  std::size_t placeOf(std::uint64_t rank) const;
  void count(const Policy::RuleRow& row, bool there);

  std::vector<Place> order_;
  std::vector<Policy::RuleRow> rows_;
  std::vector<std::uint32_t> free_;
  std::unordered_map<Key, std::uint32_t> slots_;
  std::unordered_map<Policy::Decision, unsigned> decisions_;
  RuleSetId setId_;
};

}  // namespace SimAsic
