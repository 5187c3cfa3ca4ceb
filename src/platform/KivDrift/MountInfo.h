#pragma once

#include <vector>

#include "Drift/Format.h"
#include "Fenrik/String.h"

namespace KivDrift {

/// What is asked of a mount in general; there is one kind.
enum class KivDriftType : unsigned { shared = 0 };

/// What is asked of one collection of an entity.
struct CollectionInfo {
  Fenrik::String attributeName;
  /// Records that it may hold.
  Drift::Format::Word capacity = 0;
  /// Bit 0: memory for all of them is reserved at the mount and never given back. Bit 1: in a
  /// shared directory any member of its group may write them, one at a time.
  Drift::Format::Word flags = 0;

  static constexpr Drift::Format::Word kReserveAll = 1;
  static constexpr Drift::Format::Word kGroupWrites = 2;
};

/// What is asked of the mount of one entity.
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
