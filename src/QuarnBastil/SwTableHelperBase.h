#pragma once

#include "Fenrik/NodeClass.h"
#include "QuarnBastil/FamilyTraits.h"

namespace QuarnBastil {

/// Where a client steps into the commit of a table. This class does the neutral thing; a client
/// derives from the family's class and hands its object to the bring-up of the table.
///
/// Threads: the table thread, from within a commit; a hook must not pump.
template <class Family>
class QUARNBASTIL_EXPORT SwTableHelperBase
    : public Fenrik::NodeClass<typename Family::SwTableHelperBase> {
 public:
  using Wrapper = typename Family::EntryWrapper;
  using SwTable = typename Family::SwTable;
  using KivModule = typename Family::SwTableHelperBaseModule;

  /// A write (`isDelete` false) or a single remove is about to be logged. The wrapper's entry may
  /// still be changed: what it is after the call is logged.
  virtual void finalizeOnSuccess(const Fenrik::Ptr<Wrapper>&, bool /*isDelete*/,
                                 const Fenrik::Ptr<SwTable>&) {}

  /// The resource of an entry failed. True: log it as if it had not.
  virtual bool finalizeOnFailure(const Fenrik::Ptr<Wrapper>&, bool /*isDelete*/,
                                 const Fenrik::Ptr<SwTable>&) {
    return false;
  }

  /// A configured entry changes for a reason outside the client's operations. True: log it.
  virtual bool finalizeOnResourceUpdate(const Fenrik::Ptr<Wrapper>&, const Fenrik::Ptr<SwTable>&,
                                        bool /*someResourceHasFailed*/) {
    return true;
  }
};

}  // namespace QuarnBastil
