#pragma once

#include "asic/Chip.h"
#include "hwwriter/News.h"
#include "hwwriter/Options.h"
#include "policy/Draw.h"

namespace HwWriter {

/// Decides packets by the chip and by plain scans of the rule lists, and compares.
///
/// While a unit holds exactly the rules of one list, a packet must meet the decision of that list.
/// Otherwise one list is on its way to another, and it must meet that of one of them; no decision
/// at all is right only while the unit has not held any list yet.
class Classifier {
 public:
  /// Reads the files. Throws what the reader of rules throws.
  Classifier(const Options& options, const News& news);

  /// A row has changed: one packet.
  void changed(const SimAsic::Chip& chip);
  /// The tables are at rest: up to `count` packets, of those that are drawn at each rest. False if
  /// none is left to draw.
  bool rest(const SimAsic::Chip& chip, unsigned count);

  std::uint64_t packets() const noexcept { return complete_ + between_; }
  /// Those of them that met a unit with exactly one of the lists.
  std::uint64_t complete() const noexcept { return complete_; }
  std::uint64_t mismatches() const noexcept { return mismatches_; }

 private:
  void classify(const SimAsic::Chip& chip);
  std::vector<Policy::Decision> accepted(const SimAsic::RuleTable& rules,
                                         const Policy::Packet& packet, Asic::UnitId unit);
  void tell(Asic::UnitId unit, const Policy::Packet& packet, Policy::Decision decision,
            const std::vector<Policy::Decision>& accepted) const;

  const News& news_;
  std::uint64_t perRest_;
  std::uint64_t left_;
  std::vector<std::vector<Policy::Rule>> lists_;
  std::vector<SimAsic::RuleSetId> ids_;
  Policy::PacketDraw draw_;
  /// Units that have held a list.
  std::map<Asic::UnitId, bool> filled_;
  std::uint64_t complete_ = 0;
  std::uint64_t between_ = 0;
  std::uint64_t mismatches_ = 0;
};

}  // namespace HwWriter
