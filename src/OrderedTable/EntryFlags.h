#pragma once

#include "Fenrik/Export.h"
#include "OrderedTable/Number.h"

namespace Asic {

/// What an operation does to a table. At most one of the two delete flags is set.
class QUARNBASTIL_EXPORT EntryFlags final : public Number<EntryFlags, std::uint8_t> {
 public:
  using Number::Number;

  static constexpr std::uint8_t kWrite = 0;
  static constexpr std::uint8_t kEntryDelete = 1;
  static constexpr std::uint8_t kTableDelete = 2;

  constexpr bool isEntryDeleted() const noexcept { return (value() & kEntryDelete) != 0; }
  constexpr bool isTableDeleted() const noexcept { return (value() & kTableDelete) != 0; }
};

}  // namespace Asic
