#pragma once

#include <memory>

#include "tables/Collections.h"

namespace Tables {

/// The families described by an agent in its directory. They are input from another process:
/// inconsistent descriptions are skipped and reported.
class Catalogue {
 public:
  using Told = std::function<void(const std::string&)>;

  /// Adds described families that are not known yet; returns whether there were any. Reads a single
  /// word unless the catalogue has changed.
  bool learn(const Drift::Directory& directory, const Told& wrong);

 private:
  /// The catalogue, or null while there is none.
  std::unique_ptr<Collection> file_;
  /// Doorbell count at the last read.
  std::uint32_t seen_ = 0;
};

}  // namespace Tables
