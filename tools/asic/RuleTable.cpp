#include "asic/RuleTable.h"

#include <algorithm>

namespace SimAsic {
namespace {

using Policy::RuleRow;

std::uint64_t rankOf(const RuleRow& row, RuleTable::Key key) {
  return std::uint64_t{row.priority} << 32 | key;
}

/// Adds or removes a decision. True if it is the first of its kind added, or the last one removed.
bool counted(std::unordered_map<Policy::Decision, unsigned>& counts, Policy::Decision decision,
             bool there) {
  if (there) return ++counts[decision] == 1;
  const auto found = counts.find(decision);
  if (--found->second != 0) return false;
  counts.erase(found);
  return true;
}

}  // namespace

std::size_t RuleTable::placeOf(std::uint64_t rank) const {
  return static_cast<std::size_t>(std::ranges::lower_bound(order_, rank, {}, &Place::rank) -
                                  order_.begin());
}

void RuleTable::count(const RuleRow& row, bool there) {
  if (!counted(decisions_, row.decision, there)) return;
  setId_.count += there ? 1 : ~std::uint64_t{0};
  setId_.sum += there ? row.decision : ~row.decision + 1;
}

std::uint64_t RuleTable::write(Key key, const RuleRow& row) {
  const auto known = slots_.find(key);
  std::size_t from = order_.size();
  std::uint32_t slot = 0;
  if (known != slots_.end()) {
    slot = known->second;
    from = placeOf(rankOf(rows_[slot], key));
    count(rows_[slot], false);
  } else if (!free_.empty()) {
    slot = free_.back();
    free_.pop_back();
  } else {
    slot = static_cast<std::uint32_t>(rows_.size());
    rows_.emplace_back();
  }
  slots_[key] = slot;
  rows_[slot] = row;
  count(row, true);
  // Rotates the row from its old position, or from the end, to its new one.
  const std::uint64_t rank = rankOf(row, key);
  std::size_t to = placeOf(rank);
  if (from == order_.size()) order_.push_back({rank, slot});
  if (to > from) --to;
  const auto at = [&](std::size_t place) { return order_.begin() + static_cast<long>(place); };
  if (to < from) std::rotate(at(to), at(from), at(from + 1));
  if (to > from) std::rotate(at(from), at(from + 1), at(to + 1));
  order_[to] = {rank, slot};
  return to < from ? from - to : to - from;
}

void RuleTable::remove(Key key) {
  const auto found = slots_.find(key);
  if (found == slots_.end()) return;
  const RuleRow& row = rows_[found->second];
  order_.erase(order_.begin() + static_cast<long>(placeOf(rankOf(row, key))));
  count(row, false);
  free_.push_back(found->second);
  slots_.erase(found);
}

const RuleRow* RuleTable::find(Key key) const {
  const auto found = slots_.find(key);
  return found == slots_.end() ? nullptr : &rows_[found->second];
}

RuleTable::Match RuleTable::match(const Policy::Packet& packet, const Policy::PrefixRow& source,
                                  const Policy::PrefixRow& destination) const {
  for (const Place& place : order_) {
    const RuleRow& row = rows_[place.slot];
    if (row.source.contains(source.labels[row.numbering].first) &&
        row.destination.contains(destination.labels[row.numbering].first) &&
        row.sourcePorts.contains(packet.sourcePort) &&
        row.destinationPorts.contains(packet.destinationPort) &&
        row.protocol.matches(packet.protocol) && row.flags.matches(packet.flags)) {
      return {&row, static_cast<Key>(place.rank)};
    }
  }
  return {};
}

}  // namespace SimAsic
