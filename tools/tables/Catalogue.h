#pragma once

#include <memory>

#include "tables/Collections.h"

namespace Tables {

/// The families that an agent has described beside its tables. They come from another process: what
/// contradicts itself is left out, and told.
class Catalogue {
 public:
  using Told = std::function<void(const std::string&)>;

  /// Enters the families that are described and not known yet; true if there were any. A look at
  /// one word unless the catalogue has changed.
  bool learn(const Drift::Directory& directory, const Told& wrong);

 private:
  std::unique_ptr<Collection> file_;
  std::uint32_t seen_ = 0;
};

}  // namespace Tables
