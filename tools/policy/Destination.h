#pragma once

#include <optional>
#include <vector>

#include "QuarnBastil/BigAds.h"
#include "QuarnBastil/SmallAds.h"
#include "policy/NextHopFile.h"

namespace Policy {

/// A destination id, and the rows that it names: one row of `SmallAds` for a single adjacency, or
/// one row of `BigAds` for each member of a group. Packets of a flow take the same member.
///
/// The number of members is a part of the id, so that an action alone tells which rows it needs.
class Destination {
 public:
  using AdjacencyRow = QuarnBastil::SmallAdsFamily::Entry;
  using MemberRow = QuarnBastil::BigAdsFamily::Entry;
  /// A row of either table. Comparable, to find and count.
  struct Row {
    std::uint32_t destId = 0;
    std::uint32_t member = 0;
    friend auto operator<=>(const Row&, const Row&) = default;
  };

  /// Numbers are from 1; adjacencies and groups have their own.
  static constexpr std::uint32_t kLastNumber = 0xffff;

  constexpr explicit Destination(std::uint32_t destId) noexcept : id_(destId) {}
  /// REQUIRES: 1 to `NextHop::kMostAdjacencies` adjacencies.
  static Destination of(std::uint32_t number, std::size_t adjacencies) noexcept;

  std::uint32_t id() const noexcept { return id_; }
  bool isGroup() const noexcept { return (id_ & kGroup) != 0; }
  std::uint32_t number() const noexcept { return id_ & kLastNumber; }
  /// Number of rows. 0 for the id that stands for no destination, and for ids that are none.
  std::uint32_t rows() const noexcept;

  /// Keys of the rows. REQUIRES: `isGroup` is false, or true, and `member` is below `rows`.
  QuarnBastil::SmallAdsFamily::Key adjacencyKey() const noexcept;
  QuarnBastil::BigAdsFamily::Key memberKey(std::uint32_t member) const noexcept;

 private:
  static constexpr std::uint32_t kGroup = 1U << 31;
  static constexpr unsigned kCountShift = 16;
  static constexpr std::uint32_t kMostRows = 0xff;

  std::uint32_t id_;
};

/// Converts adjacencies to rows and back. The other fields of the rows are 0, but for the number of
/// the group's members, by which a row tells the destination that it belongs to.
Destination::AdjacencyRow adjacencyRow(Destination destination, const Adjacency& adjacency);
Destination::MemberRow memberRow(Destination destination, std::uint32_t member,
                                 const Adjacency& adjacency);
Adjacency adjacencyOf(const QuarnBastil::SmallAdsFamily::LogEntry& row);
Adjacency adjacencyOf(const QuarnBastil::BigAdsFamily::LogEntry& row);
/// The destination and member of a row; nullopt for a row that was not made here.
std::optional<Destination::Row> placeOf(const QuarnBastil::SmallAdsFamily::LogEntry& row);
std::optional<Destination::Row> placeOf(const QuarnBastil::BigAdsFamily::LogEntry& row);

/// The member of a group that a packet takes.
std::uint32_t memberOf(const Packet& packet, std::uint32_t members) noexcept;

}  // namespace Policy
