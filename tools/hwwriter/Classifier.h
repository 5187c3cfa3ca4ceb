#pragma once

#include "asic/Chip.h"
#include "hwwriter/News.h"
#include "hwwriter/Options.h"
#include "policy/Draw.h"

namespace HwWriter {

/// Compares the chip's decisions on packets with those of plain scans of the rule lists.
///
/// While a unit holds exactly the rules of one list, packets must get that list's decision.
/// Otherwise the unit is being changed from one list to another, and they must get the decision of
/// one of the lists; no decision is correct only before the unit has held any list.
class Classifier {
 public:
  /// Reads the files. Throws what reading rules throws.
  Classifier(const Options& options, const News& news);

  /// A row has changed: classifies one packet.
  void changed(const SimAsic::Chip& chip);
  /// The tables are at rest: classifies up to `count` of the packets drawn per rest. False if none
  /// is left.
  bool rest(const SimAsic::Chip& chip, unsigned count);

  std::uint64_t packets() const noexcept { return complete_ + between_; }
  /// Number of packets classified while the unit held exactly one of the lists.
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
