#pragma once

#include "Fenrik/Export.h"
#include "OrderedTable/LogVersion.h"
#include "OrderedTable/SwTableId.h"

namespace Asic {

/// A version in the log of a given table: what an entry of another table may require.
class QUARNBASTIL_EXPORT TableVersion final {
 public:
  using KivModule = ValueTypesModule;

  constexpr TableVersion() noexcept = default;
  constexpr TableVersion(SwTableId tableId, LogVersion logVersion) noexcept
      : tableId_(tableId), logVersion_(logVersion) {}

  constexpr SwTableId tableId() const noexcept { return tableId_; }
  constexpr LogVersion logVersion() const noexcept { return logVersion_; }

  /// Appends table id and version, as in "04:08:0404@17".
  void textAppend(std::string& text) const;
  friend constexpr auto operator<=>(const TableVersion&, const TableVersion&) noexcept = default;

 private:
  SwTableId tableId_;
  LogVersion logVersion_;
};

}  // namespace Asic
