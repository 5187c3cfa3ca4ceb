#pragma once

#include "Fenrik/NodeClass.h"
#include "QuarnBastil/FamilyTraits.h"

namespace QuarnBastil {

/// Hooks through which a client takes part in a table's commits. The defaults change nothing. A
/// client derives from the family's class and passes its object when the table is created.
///
/// Threads: the table thread, during a commit. A hook must not pump.
template <class Family>
class QUARNBASTIL_EXPORT SwTableHelperBase
    : public Fenrik::NodeClass<typename Family::SwTableHelperBase> {
 public:
  using Wrapper = typename Family::EntryWrapper;
  using SwTable = typename Family::SwTable;
  using KivModule = typename Family::SwTableHelperBaseModule;
  static constexpr std::uint16_t kFieldBase = 128;
  using KivRows = Asic::HelperAttributes;
  using KivRoles = FamilyRoles<Family>;

  /// A write (`isDelete` false) or a single remove is about to be logged. The hook may change the
  /// wrapper's entry, except for its keys; the changed entry is logged.
  virtual void finalizeOnSuccess(const Fenrik::Ptr<Wrapper>&, bool /*isDelete*/,
                                 const Fenrik::Ptr<SwTable>&) {}

  /// The entry's resource failed. Return true to log the entry nevertheless.
  virtual bool finalizeOnFailure(const Fenrik::Ptr<Wrapper>&, bool /*isDelete*/,
                                 const Fenrik::Ptr<SwTable>&) {
    return false;
  }

  /// A configured entry changes for a reason other than a client's operation. Return true to log
  /// it.
  virtual bool finalizeOnResourceUpdate(const Fenrik::Ptr<Wrapper>&, const Fenrik::Ptr<SwTable>&,
                                        bool /*someResourceHasFailed*/) {
    return true;
  }
};

}  // namespace QuarnBastil
