#pragma once

#include "Fenrik/Export.h"
#include "Fenrik/Format.h"
#include "OrderedTable/LogVersion.h"
#include "OrderedTable/SwTableId.h"

namespace Asic {

/// A position in the log of a named table: what an entry of one table needs from another.
class QUARNBASTIL_EXPORT TableVersion final {
 public:
  constexpr TableVersion() noexcept = default;
  constexpr TableVersion(SwTableId tableId, LogVersion logVersion) noexcept
      : tableId_(tableId), logVersion_(logVersion) {}

  constexpr SwTableId tableId() const noexcept { return tableId_; }
  constexpr LogVersion logVersion() const noexcept { return logVersion_; }

  friend constexpr auto operator<=>(const TableVersion&, const TableVersion&) noexcept = default;

 private:
  SwTableId tableId_;
  LogVersion logVersion_;
};

}  // namespace Asic

template <>
struct fmt::formatter<Asic::TableVersion> {
  static constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  auto format(const Asic::TableVersion& version, fmt::format_context& context) const {
    return Fenrik::formatPut(context, "{}@{}", version.tableId(), version.logVersion());
  }
};
