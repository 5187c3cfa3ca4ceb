#pragma once

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "OrderedTable/SwTableId.h"

namespace Asic {

/// The progress of one table id, for subscribers.
class QUARNBASTIL_EXPORT OrderedSwTableStatus final
    : public Fenrik::NodeClass<OrderedSwTableStatus, Fenrik::Publishing<Fenrik::Node>> {
 public:
  using KivModule = Kiv::Module<"OrderedSwTableStatus", OrderedSwTableStatus>;
  static constexpr std::uint16_t kFieldBase = 128;

  explicit OrderedSwTableStatus(SwTableId tableId) : tableId_(tableId) {}
  ~OrderedSwTableStatus() override;

  SwTableId tableId() const noexcept { return tableId_; }

  /// Whether operations are queued or log records await the hardware.
  FENRIK_VALUE(kFieldBase + 2, pendingHwWrites, bool);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, tableId, value);

 private:
  SwTableId tableId_;
};

}  // namespace Asic
