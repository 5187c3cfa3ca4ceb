#pragma once

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"

namespace Asic {

class QUARNBASTIL_EXPORT OrderedTableInterface;

/// Base of the interfaces of the table families.
class QUARNBASTIL_EXPORT TableInterfaceBase : public Fenrik::Publishing<Fenrik::Node> {
 public:
  explicit TableInterfaceBase(const Fenrik::Ptr<OrderedTableInterface>& ordTblIntf);
  ~TableInterfaceBase() override;

  const Fenrik::Ptr<OrderedTableInterface>& ordTblIntf() const noexcept { return ordTblIntf_; }

  /// Clears, through the log, what an earlier agent configured for units that this one has not.
  virtual void reconcile() = 0;

 private:
  Fenrik::Ptr<OrderedTableInterface> ordTblIntf_;
};

}  // namespace Asic
