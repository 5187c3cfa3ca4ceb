#include "OrderedTable/NeededEntry.h"

namespace Asic {

NeededEntry::NeededEntry() = default;
NeededEntry::~NeededEntry() = default;

void NeededEntry::add(const TableVersion& version) {
  const auto* const present = map_[version.tableId()];
  if (present == nullptr) {
    map_.newMember(HN_NeededEntry(version));
  } else if (present->value().logVersion() < version.logVersion()) {
    TableVersion higher = version;
    map_.nodeForChange(version.tableId())->fwkValueIs(higher);
  }
}

void NeededEntry::merge(const Fenrik::Ptr<const NeededEntry>& other) {
  if (other == nullptr) return;
  for (const auto& node : other->map_) add(node.value());
}

}  // namespace Asic
