#pragma once

#include <array>
#include <unordered_map>

#include "policy/Rows.h"

namespace SimAsic {

/// The prefix rows of one unit, with the longest match of an address. A row whose length no prefix
/// has is never matched.
class PrefixTable {
 public:
  void write(const Policy::PrefixRow& row);
  void remove(const Policy::Prefix& prefix);

  /// The row of that very prefix; null if there is none.
  const Policy::PrefixRow* find(const Policy::Prefix& prefix) const;
  /// The row of the longest prefix that holds the address; null if there is none.
  const Policy::PrefixRow* lookup(std::uint32_t address) const;
  /// Whether a row gives this label to addresses.
  bool hasLabel(unsigned numbering, std::uint32_t label) const {
    return labels_[numbering].contains(label);
  }

 private:
  static constexpr unsigned kLengths = 33;

  void count(const Policy::PrefixRow& row, bool there);

  std::array<std::unordered_map<std::uint32_t, Policy::PrefixRow>, kLengths> rows_;
  /// How many rows have a label as their first one.
  std::array<std::unordered_map<std::uint32_t, unsigned>, Policy::kNumberings> labels_;
};

}  // namespace SimAsic
