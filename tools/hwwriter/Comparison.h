#pragma once

#include <vector>

#include "asic/Chip.h"
#include "hwwriter/News.h"
#include "tables/Collections.h"

namespace HwWriter {

/// What the chip holds and what is configured, held against each other.
///
/// The log brings the changes behind a version, in their order; the comparison is for what it does
/// not bring: what an agent stored and died before it could log it, what was in a log that is lost,
/// and what the chip has lost.
class Comparison {
 public:
  /// A row of the chip that differs.
  struct Difference {
    const Tables::TableKind* kind;
    Asic::UnitId unit;
    std::uint64_t order;
    /// To be written, or the key to be removed.
    std::vector<Tables::Word> words;
    bool write;
  };
  /// A row that is configured under a version that the chip has not come to.
  struct Later {
    Tables::Word version;
    Asic::UnitId unit;
    std::vector<Tables::Word> key;
    bool isDelete;
  };
  /// Which differences count.
  struct Bounds {
    /// Those of versions up to this one: the chip has everything that they build on.
    Tables::Word upTo = 0;
    /// Rows that others may point at count whatever their version: no row can do harm by being
    /// there before anything points at it, but one that is missing can.
    bool withGround = false;
  };

  Comparison(SimAsic::Chip& chip, const News& news) : chip_(chip), news_(news) {}

  void add(const Tables::Config& config, const Bounds& bounds);
  /// The same for one key.
  void add(const Tables::Config& config, Tables::Words key, const Bounds& bounds);

  /// Rows that were compared.
  std::size_t compared() const noexcept { return compared_; }
  /// Rows of versions that are still to come; lets go of them.
  std::vector<Later> takeLater() { return std::exchange(later_, {}); }

  /// Programs the differences: first what others point at, then what points at it; then removes, in
  /// the opposite order. Returns how many there were.
  std::size_t program();

 private:
  void compare(const Tables::Config& config, Tables::Words key,
               const std::optional<Tables::ConfigRow>& row, const Bounds& bounds);

  SimAsic::Chip& chip_;
  const News& news_;
  std::size_t compared_ = 0;
  std::vector<Difference> differences_;
  std::vector<Later> later_;
};

}  // namespace HwWriter
