#pragma once

#include <array>
#include <unordered_map>

#include "policy/Rows.h"

namespace SimAsic {

/// The prefix rows of one unit, with longest-prefix match. Rows with an invalid length never match.
class PrefixTable {
 public:
  void write(const Policy::PrefixRow& row);
  void remove(const Policy::Prefix& prefix);

  /// The row of the longest prefix that contains the address, or null.
  const Policy::PrefixRow* lookup(std::uint32_t address) const;

 private:
  static constexpr unsigned kLengths = 33;

  std::array<std::unordered_map<std::uint32_t, Policy::PrefixRow>, kLengths> rows_;
};

}  // namespace SimAsic
