#pragma once

#include "asic/Chip.h"
#include "hwwriter/News.h"
#include "hwwriter/Options.h"
#include "hwwriter/Reference.h"
#include "policy/Draw.h"

namespace HwWriter {

/// Compares what the chip does with packets with plain scans of the rule lists and the next-hop
/// files.
///
/// While a unit holds exactly the rules of one list, packets must get that list's decision.
/// Otherwise the unit is being changed from one list to another, and they must get the decision of
/// one of the lists; no decision is correct only before the unit has held any list. The same holds
/// for next hops: at rest, if all actions have the destinations of one file, so must packets;
/// otherwise each must have that of one of the files.
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
  /// Number of packets classified while the unit held exactly one of the lists and of the next-hop
  /// files.
  std::uint64_t complete() const noexcept { return complete_; }
  std::uint64_t mismatches() const noexcept { return mismatches_; }

 private:
  /// What may hold in a unit: positions of lists and of next-hop files.
  struct Holding {
    std::vector<std::size_t> lists;
    std::vector<std::size_t> files;
    /// Exactly one list, and one file if there are any.
    bool complete = false;
    /// Before the unit has held any list, no decision is right as well.
    bool empty = false;
  };

  void classify(const SimAsic::Chip& chip, bool atRest);
  Holding holding(const SimAsic::Pipeline& pipeline, Asic::UnitId unit, bool atRest);
  std::vector<std::size_t> filesOf(const SimAsic::Pipeline& pipeline) const;
  bool isRight(const Holding& holding, const Policy::Packet& packet,
               const SimAsic::Verdict& verdict) const;
  void tell(Asic::UnitId unit, const Policy::Packet& packet, const SimAsic::Verdict& verdict,
            const Holding& holding) const;

  const News& news_;
  std::uint64_t perRest_;
  std::uint64_t left_;
  Reference reference_;
  std::vector<SimAsic::RuleSetId> ids_;
  Policy::PacketDraw draw_;
  /// Units that have held a list.
  std::map<Asic::UnitId, bool> filled_;
  /// The next-hop files that units hold at the present rest; empty while there are changes.
  std::map<Asic::UnitId, std::vector<std::size_t>> filesAtRest_;
  std::uint64_t complete_ = 0;
  std::uint64_t between_ = 0;
  std::uint64_t mismatches_ = 0;
};

}  // namespace HwWriter
