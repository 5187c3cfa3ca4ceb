#include "hwwriter/Reports.h"

#include "OrderedTable/CorruptionGuard.h"

namespace HwWriter {

Reports::Reports(const std::string& directory)
    : memory_(Fenrik::ptrIsImpl<KivSharedMem::EntityManager>("hwwriter", Fenrik::String(directory),
                                                             Drift::Directory::Access::write)) {}

Reports::Group& Reports::group(const Tables::TableKind& kind) {
  Group& group = groups_[kind.group];
  if (group.map == nullptr) {
    group.map = Asic::TableVersionDrift::mounted(memory_, Fenrik::String(kind.group));
  }
  return group;
}

Tables::Word Reports::reported(const Tables::TableKind& kind) {
  const auto known = reported_.find(kind.id);
  if (known != reported_.end()) return known->second;
  const auto found = Asic::guardedFind(*group(kind).map->map(), kind.id);
  return reported_[kind.id] = found.record.logVersion.value();
}

void Reports::report(const Tables::TableKind& kind, Tables::Word version) {
  if (version <= reported(kind)) return;
  Group& to = group(kind);
  to.map->tableVersionIs(Asic::TableVersion(kind.id, Asic::LogVersion(version)));
  to.ringDue = true;
  reported_[kind.id] = version;
}

void Reports::refresh() {
  for (auto& [name, group] : groups_) {
    if (group.map == nullptr || !group.map->file().replaced()) continue;
    memory_->entityDel(group.map->path());
    group.map = nullptr;
    std::erase_if(reported_, [&name = name](const auto& reported) {
      return Tables::kindOf(reported.first)->group == name;
    });
  }
}

void Reports::ring(const std::function<const Drift::DriftFile*(const std::string& group)>& logOf) {
  for (auto& [name, group] : groups_) {
    if (std::exchange(group.ringDue, false) && group.map != nullptr) group.map->ring(logOf(name));
  }
}

std::vector<const Drift::DriftFile*> Reports::files() const {
  std::vector<const Drift::DriftFile*> files;
  for (const auto& [name, group] : groups_) {
    if (group.map != nullptr) files.push_back(&group.map->file());
  }
  return files;
}

}  // namespace HwWriter
