#pragma once

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "OrderedTable/SwTableId.h"

namespace Asic {

/// The progress of one table id, shared with whoever watches it.
class QUARNBASTIL_EXPORT OrderedSwTableStatus final
    : public Fenrik::NodeClass<OrderedSwTableStatus, Fenrik::Publishing<Fenrik::Node>> {
 public:
  static constexpr std::uint16_t kFieldBase = 128;

  explicit OrderedSwTableStatus(SwTableId tableId) : tableId_(tableId) {}
  ~OrderedSwTableStatus() override;

  SwTableId tableId() const noexcept { return tableId_; }

  /// Operations are queued, or log records wait for the hardware.
  FENRIK_VALUE(kFieldBase + 2, pendingHwWrites, bool);

 private:
  SwTableId tableId_;
};

}  // namespace Asic
