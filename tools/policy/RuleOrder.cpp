#include "policy/RuleOrder.h"

#include <algorithm>
#include <unordered_map>

namespace Policy {
namespace {

constexpr std::uint32_t kNone = RuleOrder::kNone;

/// For each row, the position of its rule among the requested ones, or kNone. A row whose decision
/// is not that of its own rule has none.
std::vector<std::uint32_t> positionsOf(std::span<const PlacedRule> rows,
                                       const std::vector<bool>& usable,
                                       std::span<const Rule> wanted) {
  std::vector<std::uint32_t> positions(rows.size(), kNone);
  if (rows.empty()) return positions;
  std::unordered_map<Decision, std::uint32_t> known;
  known.reserve(wanted.size());
  for (std::uint32_t i = 0; i < wanted.size(); ++i) known.emplace(decisionOf(wanted[i]), i);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto at = known.find(rows[i].row.decision);
    if (usable[i] && at != known.end() && wanted[at->second] == rows[i].rule) {
      positions[i] = at->second;
    }
  }
  return positions;
}

/// Keeps the longest ascending sequence of positions, found by patience sorting: these rows need
/// not pass each other.
void keepLongest(const std::vector<std::uint32_t>& positions, RuleOrder& order) {
  std::vector<std::uint32_t> ends;  // for each length, the last row of the best sequence
  std::vector<std::uint32_t> before(positions.size(), kNone);
  for (std::uint32_t row = 0; row < positions.size(); ++row) {
    if (positions[row] == kNone) continue;
    const auto at = std::ranges::lower_bound(ends, positions[row], {},
                                             [&](std::uint32_t other) { return positions[other]; });
    if (at != ends.begin()) before[row] = *(at - 1);
    if (at == ends.end()) {
      ends.push_back(row);
    } else {
      *at = row;
    }
  }
  for (std::uint32_t row = ends.empty() ? kNone : ends.back(); row != kNone; row = before[row]) {
    order.stays[row] = true;
    order.rowOf[positions[row]] = row;
  }
}

/// Assigns priorities to requested rules without a row. Each run of them between two kept rows goes
/// into the widest gap between the rows removed from there.
class Priorities {
 public:
  Priorities(std::span<const PlacedRule> rows, RuleOrder& order, std::uint32_t last)
      : rows_(rows), order_(order), last_(last) {}

  void give() {
    if (!giveInHoles()) giveAll();
  }

 private:
  std::size_t wanted() const { return order_.rowOf.size(); }

  bool giveInHoles() {
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      order_.rowPriority[i] = rows_[i].row.priority;
      if (i != 0 && order_.rowPriority[i] <= order_.rowPriority[i - 1]) return false;
    }
    std::size_t row = 0;
    std::size_t begin = 0;
    for (std::size_t i = 0; i <= wanted(); ++i) {
      const std::uint32_t kept = i < wanted() ? order_.rowOf[i] : kNone;
      if (i < wanted() && kept == kNone) continue;
      const std::size_t next = kept == kNone ? rows_.size() : kept;
      if (!giveRun(begin, i, row, next)) return false;
      if (kept != kNone) order_.priorityOf[i] = order_.rowPriority[kept];
      begin = i + 1;
      row = next + 1;
    }
    return true;
  }

  /// Assigns priorities to the rules [begin, end), which go between the rows `from - 1` and `to`.
  bool giveRun(std::size_t begin, std::size_t end, std::size_t from, std::size_t to) {
    const auto count = static_cast<std::int64_t>(end - begin);
    if (count == 0) return true;
    std::int64_t below = from == 0 ? -1 : std::int64_t{order_.rowPriority[from - 1]};
    std::int64_t lowest = 0;
    std::int64_t width = 0;
    for (std::size_t row = from; row <= to; ++row) {
      const std::int64_t above =
          row < rows_.size() ? std::int64_t{order_.rowPriority[row]} : std::int64_t{last_} + 1;
      if (above - below > width) {
        lowest = below;
        width = above - below;
      }
      below = above;
    }
    if (width <= count) return false;
    for (std::int64_t i = 0; i < count; ++i) {
      order_.priorityOf[begin + static_cast<std::size_t>(i)] =
          static_cast<std::uint32_t>(lowest + width * (i + 1) / (count + 1));
    }
    return true;
  }

  /// Spreads all rows over all priorities, added rows before the removed ones.
  void giveAll() {
    const auto staying =
        static_cast<std::size_t>(std::count(order_.stays.begin(), order_.stays.end(), true));
    const std::uint64_t all = rows_.size() + wanted() - staying;
    std::uint64_t given = 0;
    const auto next = [&] {
      return static_cast<std::uint32_t>((std::uint64_t{last_} + 1) * ++given / (all + 1));
    };
    std::size_t row = 0;
    const auto giveRowsTo = [&](std::size_t end) {
      for (; row < end; ++row) order_.rowPriority[row] = next();
    };
    for (std::size_t i = 0; i < wanted(); ++i) {
      if (order_.rowOf[i] == kNone) {
        order_.priorityOf[i] = next();
      } else {
        giveRowsTo(order_.rowOf[i] + 1);
        order_.priorityOf[i] = order_.rowPriority[order_.rowOf[i]];
      }
    }
    giveRowsTo(rows_.size());
  }

  std::span<const PlacedRule> rows_;
  RuleOrder& order_;
  std::uint32_t last_;
};

}  // namespace

RuleOrder orderOf(std::span<const PlacedRule> rows, const std::vector<bool>& usable,
                  std::span<const Rule> wanted, std::uint32_t lastPriority) {
  RuleOrder order;
  order.rowOf.assign(wanted.size(), kNone);
  order.priorityOf.assign(wanted.size(), 0);
  order.stays.assign(rows.size(), false);
  order.rowPriority.assign(rows.size(), 0);
  keepLongest(positionsOf(rows, usable, wanted), order);
  Priorities(rows, order, lastPriority).give();
  return order;
}

}  // namespace Policy
