#include "OrderedTable/TableVersionMap.h"

#include "OrderedTable/Constants.h"

namespace Asic {

namespace {

Drift::Geometry geometry() {
  using Layout = Drift::RecordLayout<TableVersionRecord>;
  return {Drift::Format::Layout::hashed,
          Layout::kKeySize,
          Layout::kRecordSize,
          TableVersionDrift::kCapacity,
          TableVersionDrift::kEntityName,
          TableVersionDrift::kAttributeName};
}

}  // namespace

Fenrik::Ptr<TableVersionDrift> TableVersionDrift::mounted(
    const Fenrik::Ptr<KivSharedMem::EntityManager>& manager, const Fenrik::String& canonicalGroup) {
  const Fenrik::String path = Constants::canonicalGroupTableVersionPath(canonicalGroup);
  KivDrift::MountInfo info(0);
  info.collectionInfoIs({Fenrik::String(kAttributeName), kCapacity, 0});
  const auto group = manager->getMountGroup();
  group->mount(path, Fenrik::String(kEntityName), info);
  group->doClose();
  return Fenrik::dynamicPtrCast<TableVersionDrift>(manager->getEntity(path));
}

TableVersionMap::TableVersionMap(const Fenrik::Ptr<KivSharedMem::EntityManager>& manager,
                                 const Fenrik::String& path)
    : manager_(manager), path_(path) {
  open();
}

TableVersionMap::~TableVersionMap() = default;

void TableVersionMap::open() {
  using Drift::DriftFile;
  const auto& directory = manager_->directory();
  const auto openForReading = [&] {
    file_ = DriftFile::openForReading(directory, path_.view(), nullptr);
    map_ = Fenrik::ptrIsImpl<Drift::HashedMap<TableVersionRecord>>(*file_);
  };
  fresh_ = true;
  map_ = nullptr;
  file_ = nullptr;
  // First what the writer has made; then, if that cannot be used and no writer is at it, a new one.
  for (const bool make : {false, true}) {
    try {
      if (make) DriftFile::openForWriting(directory, path_.view(), geometry(), {});
      openForReading();
      return;
    } catch (const Fenrik::Exception&) {
      // Looked at again by the next refresh.
    }
  }
}

Found<TableVersionRecord> TableVersionMap::find(SwTableId tableId) const {
  if (map_ == nullptr) return {};
  return guardedFind(*map_, tableId);
}

bool TableVersionMap::moved() const noexcept {
  return fresh_ || (file_ != nullptr && file_->doorbell() != seen_);
}

void TableVersionMap::seenIs() noexcept {
  fresh_ = false;
  if (file_ != nullptr) seen_ = file_->doorbell();
}

void TableVersionMap::refresh() {
  if (file_ == nullptr || file_->replaced()) open();
}

}  // namespace Asic
