#include "asic/PrefixTable.h"

namespace SimAsic {

using Policy::Prefix;
using Policy::PrefixRow;

void PrefixTable::write(const PrefixRow& row) {
  if (row.prefix.length < kLengths) rows_[row.prefix.length][row.prefix.address] = row;
}

void PrefixTable::remove(const Prefix& prefix) {
  if (prefix.length < kLengths) rows_[prefix.length].erase(prefix.address);
}

const PrefixRow* PrefixTable::lookup(std::uint32_t address) const {
  for (unsigned length = kLengths; length-- > 0;) {
    if (rows_[length].empty()) continue;
    const std::uint32_t mask = length == 0 ? 0 : ~std::uint32_t{0} << (32 - length);
    const auto found = rows_[length].find(address & mask);
    if (found != rows_[length].end()) return &found->second;
  }
  return nullptr;
}

}  // namespace SimAsic
