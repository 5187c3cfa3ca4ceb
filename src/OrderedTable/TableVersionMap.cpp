#include "OrderedTable/TableVersionMap.h"

#include "Fenrik/Format.h"
#include "Kiv/Log.h"
#include "Kiv/StrepFormatter.h"
#include "OrderedTable/Constants.h"

namespace Asic {

KIV_LOG_DESCRIPTOR(
    kNoReports, "HW_ABSTRACTION_NO_REPORTS",
    "The reports of the hardware writer cannot be read: %s",
    "Operations are not acknowledged until the hardware writer's collection of reports "
    "can be opened. Remove the file and restart the hardware writer",
    Kiv::kLogNoAction, Kiv::kLogSeverityError);

namespace {

/// A log with a record every nanosecond would reach this version in 292 years.
constexpr LogVersion kGreatestReport(std::uint64_t{1} << 63);

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
  info.collectionInfoIs(
      {Fenrik::String(kAttributeName), kCapacity, KivDrift::CollectionInfo::kGroupWrites});
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
    doorbell_ = file_->doorbellWord();
  };
  seen_ = kNever;
  doorbell_ = &kSilent;
  map_ = nullptr;
  file_ = nullptr;
  // First tries the collection of the hardware writer; if that is unusable and no writer holds it,
  // creates one.
  for (const bool make : {false, true}) {
    try {
      if (make)
        DriftFile::openForWriting(directory, path_.view(), geometry(), {.groupWrites = true});
      openForReading();
      return;
    } catch (const Fenrik::Exception& e) {
      // The next refresh tries again.
      if (make) tell(e.msg());
    }
  }
}

/// Logs why there are no reports: without them no operation is ever acknowledged.
void TableVersionMap::tell(const Fenrik::String& trouble) {
  if (trouble_ == trouble) return;
  trouble_ = trouble;
  static Kiv::LogHandle noReports(&kNoReports, Fenrik::Duration(), 1.0, 0, 0);
  Kiv::log(noReports, trouble);
}

Found<TableVersionRecord> TableVersionMap::find(SwTableId tableId) const {
  if (map_ == nullptr) return {};
  auto reported = guardedFind(*map_, tableId);
  if (reported.record.logVersion <= kGreatestReport) return reported;
  map_->doCorruptionDetected(
      Fenrik::formatString("{}: version {} reported for table {} is beyond what any log can reach",
                           path_, reported.record.logVersion, tableId));
  return {};
}

void TableVersionMap::seenIs() noexcept { seen_ = doorbellNow(); }

void TableVersionMap::refresh() {
  if (file_ == nullptr || file_->replaced()) open();
}

}  // namespace Asic
