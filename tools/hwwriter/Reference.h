#pragma once

#include <map>
#include <span>

#include "asic/Pipeline.h"
#include "hwwriter/Options.h"
#include "policy/Input.h"

namespace HwWriter {

/// What the files say about packets: the lists of rules that may hold, and the next-hop files that
/// may. Knows nothing of tables.
class Reference {
 public:
  /// Adjacencies by request id; none for a next hop that is down.
  using NextHops = std::map<std::uint64_t, std::vector<Policy::Adjacency>>;

  /// Reads the files. Throws what reading them throws.
  explicit Reference(const Options& options);

  const std::vector<std::vector<Policy::Rule>>& lists() const noexcept { return lists_; }
  const std::vector<NextHops>& nextHops() const noexcept { return nextHops_; }

  /// Whether a verdict is that of the list's first match, with the next hop of one of `files`,
  /// which are positions among `nextHops`.
  bool accepts(const std::vector<Policy::Rule>& list, std::span<const std::size_t> files,
               const Policy::Packet& packet, const SimAsic::Verdict& verdict) const;
  /// Whether a destination is what a file says of a next hop. Of one that is down it says nothing.
  static bool agrees(const NextHops& file, std::uint64_t id,
                     const std::vector<Policy::Adjacency>& destination);

 private:
  bool mayOutput(std::size_t file, std::uint64_t id, const Policy::Packet& packet,
                 const std::optional<Policy::Adjacency>& output) const;

  std::vector<std::vector<Policy::Rule>> lists_;
  std::vector<NextHops> nextHops_;
};

}  // namespace HwWriter
