#pragma once

#include <vector>

#include "asic/Chip.h"
#include "hwwriter/News.h"
#include "tables/Collections.h"

namespace HwWriter {

/// Compares configuration and chip row by row, after a chip has lost its rows or a log was lost.
/// All other changes come with the log.
///
/// A row configured under an unannounced version is left to the log; its value at the announced
/// version is no longer available. Below the highest tier it is programmed nevertheless: others may
/// refer to it, and what it refers to is programmed in the same way. In the highest tier the chip's
/// row is removed: a version that the chip counts as programmed may have removed it, and the rows
/// that it refers to are removed next. Preferably compare when there are no such rows.
class Comparison {
 public:
  Comparison(SimAsic::Chip& chip, const News& news) : chip_(chip), news_(news) {}

  /// Compares one unit. `announced` is the announced version of its table.
  void add(const Tables::Config& config, Tables::Word announced);

  /// Number of rows compared.
  std::size_t compared() const noexcept { return compared_; }
  /// Number of differing rows, except those left to the log.
  std::size_t differences() const noexcept { return differences_.size() - early_; }
  /// Number of rows removed from the chip because the log will bring them.
  std::size_t early() const noexcept { return early_; }
  /// Programs the differences: writes rows before those that refer to them, then removes rows in
  /// the opposite order. Returns the number of differences.
  std::size_t program();

 private:
  struct Difference {
    const Tables::TableKind* kind;
    Asic::UnitId unit;
    std::uint64_t order;
    /// The entry to write, or the key to remove.
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
