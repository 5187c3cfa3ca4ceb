#include "policy/Destination.h"

namespace Policy {

using QuarnBastil::BigAdsFamily;
using QuarnBastil::SmallAdsFamily;

namespace {

constexpr unsigned kMemberBits = 8;
constexpr std::uint8_t kMemberLength = 32;

}  // namespace

Destination Destination::of(std::uint32_t number, std::size_t adjacencies) noexcept {
  if (adjacencies == 1) return Destination(number);
  return Destination(kGroup | static_cast<std::uint32_t>(adjacencies) << kCountShift | number);
}

std::uint32_t Destination::rows() const noexcept {
  if (number() == 0) return 0;
  if (isGroup()) return id_ >> kCountShift & kMostRows;
  return id_ <= kLastNumber ? 1 : 0;
}

SmallAdsFamily::Key Destination::adjacencyKey() const noexcept {
  return {static_cast<std::uint16_t>(number()), 0};
}

BigAdsFamily::Key Destination::memberKey(std::uint32_t member) const noexcept {
  return {number() << kMemberBits | member, kMemberLength};
}

Destination::AdjacencyRow adjacencyRow(Destination destination, const Adjacency& adjacency) {
  Destination::AdjacencyRow row(destination.adjacencyKey());
  row.nextHop = adjacency.address;
  row.label = adjacency.port;
  return row;
}

Destination::MemberRow memberRow(Destination destination, std::uint32_t member,
                                 const Adjacency& adjacency) {
  Destination::MemberRow row(destination.memberKey(member));
  row.nextHop = adjacency.address;
  row.label = adjacency.port;
  row.words[0] = destination.rows();
  return row;
}

Adjacency adjacencyOf(const SmallAdsFamily::LogEntry& row) { return {row.label, row.nextHop}; }
Adjacency adjacencyOf(const BigAdsFamily::LogEntry& row) { return {row.label, row.nextHop}; }

std::optional<Destination::Row> placeOf(const SmallAdsFamily::LogEntry& row) {
  if (row.key.bank != 0 || row.key.index == 0) return {};
  return Destination::Row{Destination::of(row.key.index, 1).id(), 0};
}

std::optional<Destination::Row> placeOf(const BigAdsFamily::LogEntry& row) {
  const std::uint32_t number = row.key.prefix >> kMemberBits;
  const std::uint32_t member = row.key.prefix & ((1U << kMemberBits) - 1);
  const std::uint32_t members = row.words[0];
  const bool ours = row.key.length == kMemberLength && number != 0 &&
                    number <= Destination::kLastNumber && member < members && members > 1 &&
                    members <= NextHop::kMostAdjacencies;
  if (!ours) return {};
  return Destination::Row{Destination::of(number, members).id(), member};
}

std::uint32_t memberOf(const Packet& packet, std::uint32_t members) noexcept {
  std::uint32_t hash = packet.source * 0x9e3779b1U ^ packet.destination;
  hash = hash * 0x85ebca6bU ^ (std::uint32_t{packet.sourcePort} << 16 | packet.destinationPort);
  hash = hash * 0xc2b2ae35U ^ packet.protocol;
  return (hash ^ hash >> 15) % members;
}

}  // namespace Policy
