#include "asic/PrefixTable.h"

namespace SimAsic {

using Policy::Prefix;
using Policy::PrefixRow;

void PrefixTable::count(const PrefixRow& row, bool there) {
  for (unsigned numbering = 0; numbering < Policy::kNumberings; ++numbering) {
    auto& labels = labels_[numbering];
    const std::uint32_t label = row.labels[numbering].first;
    if (there) {
      ++labels[label];
    } else if (--labels[label] == 0) {
      labels.erase(label);
    }
  }
}

void PrefixTable::write(const PrefixRow& row) {
  if (row.prefix.length >= kLengths) return;
  const auto [place, fresh] = rows_[row.prefix.length].try_emplace(row.prefix.address, row);
  if (!fresh) count(place->second, false);
  place->second = row;
  count(row, true);
}

void PrefixTable::remove(const Prefix& prefix) {
  if (prefix.length >= kLengths) return;
  auto& rows = rows_[prefix.length];
  const auto found = rows.find(prefix.address);
  if (found == rows.end()) return;
  count(found->second, false);
  rows.erase(found);
}

const PrefixRow* PrefixTable::find(const Prefix& prefix) const {
  if (prefix.length >= kLengths) return nullptr;
  const auto found = rows_[prefix.length].find(prefix.address);
  return found == rows_[prefix.length].end() ? nullptr : &found->second;
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
