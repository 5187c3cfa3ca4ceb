#pragma once

#include <vector>

#include "asic/Chip.h"
#include "hwwriter/News.h"
#include "tables/Collections.h"

namespace HwWriter {

/// Configuration and chip, compared row by row: for a chip that lost its rows and for a log that
/// was lost. Everything else comes with the log.
///
/// A row that is configured under a version that was not announced yet is left to the log; what the
/// announced version made of it is not to be had any more. In the lowest tier it is programmed all
/// the same: a row there does no harm before others point at it. In a higher one the chip's row
/// goes: a version that the chip is taken to have may have removed it, and what it points at is
/// removed next. A comparison at a moment without such rows is the better one.
class Comparison {
 public:
  Comparison(SimAsic::Chip& chip, const News& news) : chip_(chip), news_(news) {}

  /// Compares one unit. `announced`: how far its table's log is announced.
  void add(const Tables::Config& config, Tables::Word announced);

  /// Rows that were compared.
  std::size_t compared() const noexcept { return compared_; }
  /// Rows that differ and are not left to the log.
  std::size_t differences() const noexcept { return differences_.size() - early_; }
  /// Rows of the chip that go because the log will bring them.
  std::size_t early() const noexcept { return early_; }
  /// Programs the differences: first the rows to which others point, then those others; removals
  /// afterwards, in the opposite order. Returns how many there were.
  std::size_t program();

 private:
  struct Difference {
    const Tables::TableKind* kind;
    Asic::UnitId unit;
    std::uint64_t order;
    /// The entry to be written, or the key to be removed.
    std::vector<Tables::Word> words;
    bool write;
  };

  void compare(const Tables::Config& config, Tables::Words key,
               const std::optional<Tables::ConfigRow>& row, Tables::Word announced);

  SimAsic::Chip& chip_;
  const News& news_;
  std::size_t compared_ = 0;
  std::size_t early_ = 0;
  std::vector<Difference> differences_;
};

}  // namespace HwWriter
