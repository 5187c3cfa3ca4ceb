#pragma once

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"

namespace Asic {

class QUARNBASTIL_EXPORT OrderedTableInterface;

/// Base class of the table families' interfaces.
class QUARNBASTIL_EXPORT TableInterfaceBase : public Fenrik::Publishing<Fenrik::Node> {
 public:
  using KivModule = struct TableInterfaceBaseModule;
  using KivSelf = TableInterfaceBase;
  static constexpr std::uint16_t kFieldBase = 128;

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, ordTblIntf, pointer);
  FENRIK_FUNCTION(kFieldBase + 3, reconcile);

  explicit TableInterfaceBase(const Fenrik::Ptr<OrderedTableInterface>& ordTblIntf);
  ~TableInterfaceBase() override;

  const Fenrik::Ptr<OrderedTableInterface>& ordTblIntf() const noexcept { return ordTblIntf_; }

  /// Clears, through the log, the configuration that an earlier agent left for units that this
  /// agent does not have.
  virtual void reconcile() = 0;

 private:
  Fenrik::Ptr<OrderedTableInterface> ordTblIntf_;
};

}  // namespace Asic
