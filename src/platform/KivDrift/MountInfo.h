#pragma once

#include <vector>

#include "Drift/Format.h"
#include "Fenrik/String.h"

namespace KivDrift {

/// Kind of a mount; there is only one.
enum class KivDriftType : unsigned { shared = 0 };

/// Requested properties of one collection of an entity.
struct CollectionInfo {
  /// Name of the attribute that the collection stores.
  Fenrik::String attributeName;
  /// Maximum number of records.
  Drift::Format::Word capacity = 0;
  /// Bit 0: reserve memory for all records at the mount and never free it. Bit 1: in a shared
  /// directory, let any member of the group write the collection, one at a time.
  Drift::Format::Word flags = 0;

  static constexpr Drift::Format::Word kReserveAll = 1;
  static constexpr Drift::Format::Word kGroupWrites = 2;
};

/// Requested properties of the mount of one entity.
class MountInfo {
 public:
  explicit MountInfo(KivDriftType type) : type_(type) {}
  explicit MountInfo(unsigned type) : MountInfo(static_cast<KivDriftType>(type)) {}

  KivDriftType type() const noexcept { return type_; }

  void collectionInfoIs(const CollectionInfo& info) { collections_.push_back(info); }
  const std::vector<CollectionInfo>& collections() const noexcept { return collections_; }

 private:
  KivDriftType type_;
  std::vector<CollectionInfo> collections_;
};

}  // namespace KivDrift
