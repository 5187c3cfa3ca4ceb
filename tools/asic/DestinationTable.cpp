#include "asic/DestinationTable.h"

namespace SimAsic {

using Policy::Adjacency;
using Policy::Destination;
using QuarnBastil::BigAdsFamily;
using QuarnBastil::SmallAdsFamily;

void DestinationTable::adjacencyIs(const SmallAdsFamily::LogEntry& row) {
  if (row.key.bank == 0) single_[row.key.index] = Policy::adjacencyOf(row);
}

void DestinationTable::adjacencyDel(const SmallAdsFamily::Key& key) {
  if (key.bank == 0) single_.erase(key.index);
}

void DestinationTable::memberIs(const BigAdsFamily::LogEntry& row) {
  if (row.key.length == 32) members_[row.key.prefix] = Policy::adjacencyOf(row);
}

void DestinationTable::memberDel(const BigAdsFamily::Key& key) {
  if (key.length == 32) members_.erase(key.prefix);
}

std::vector<Adjacency> DestinationTable::adjacencies(Key action) const {
  const auto at = actions_.find(action);
  if (at == actions_.end()) return {};
  const Destination destination(at->second);
  std::vector<Adjacency> found;
  const auto add = [&](const auto& rows, auto key) {
    const auto row = rows.find(key);
    if (row != rows.end()) found.push_back(row->second);
  };
  for (std::uint32_t i = 0; i < destination.rows(); ++i) {
    if (destination.isGroup()) {
      add(members_, destination.memberKey(i).prefix);
    } else {
      add(single_, destination.adjacencyKey().index);
    }
  }
  if (found.size() != destination.rows()) found.clear();
  return found;
}

std::optional<Adjacency> DestinationTable::output(Key action, const Policy::Packet& packet) const {
  const auto found = adjacencies(action);
  if (found.empty()) return {};
  return found[Policy::memberOf(packet, static_cast<std::uint32_t>(found.size()))];
}

}  // namespace SimAsic
