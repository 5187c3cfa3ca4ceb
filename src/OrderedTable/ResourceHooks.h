#pragma once

#include "Fenrik/Ptr.h"
#include "Fenrik/String.h"
#include "OrderedTable/NeededEntry.h"

namespace Asic {

/// The points at which a table that is linked to resources steps into the generic logic, in their
/// neutral form. The traits of a family with resources name a class of its own in this one's place.
struct NoResourceHooks {
  /// Whether `committed` is called, and looks at the entry that stood in the configuration before.
  static constexpr bool kWantsFormerEntry = false;
  /// Whether `addNeeded` may add anything.
  static constexpr bool kAddsNeeded = false;
  /// Whether `entryCleared` looks at the entries.
  static constexpr bool kWantsClearedEntries = false;

  /// A write has entered the transient state and is about to be queued.
  template <class Table, class Wrapper>
  static void writeQueued(Table&, const Fenrik::Ptr<Wrapper>&) {}

  /// Gives a wrapper its resource pointers.
  template <class Table, class Wrapper>
  static void setRsrcPtrs(Table&, const Fenrik::Ptr<Wrapper>&, bool /*refresh*/) {}

  /// Whether the resources of an operation have been dealt with.
  template <class Table, class Wrapper>
  static bool resolved(Table&, const Fenrik::Ptr<Wrapper>&) {
    return true;
  }

  /// The resource for which an operation waits, for people; empty if for none.
  template <class Table, class Wrapper>
  static Fenrik::String waitingReason(const Table&, const Wrapper&) {
    return {};
  }

  /// Takes what comes of the resources into the wrapper's entry.
  template <class Wrapper>
  static void setResolvedFields(Wrapper&) {}

  /// Adds the versions that the entry needs of resource tables.
  template <class Table, class Wrapper>
  static void addNeeded(const Table&, const Wrapper&, NeededEntry&) {}

  /// A write or a remove was committed over `former`, and its handle has got its state.
  template <class Table, class Wrapper, class Entry>
  static void committed(Table&, const Fenrik::Ptr<Wrapper>&, const Entry& /*former*/,
                        bool /*isDelete*/) {}

  /// A configured entry is about to go with all the others.
  template <class Table, class Wrapper>
  static void entryCleared(Table&, const Fenrik::Ptr<Wrapper>&) {}

  /// A table was made by its interface, and has neither been restored nor cleared yet.
  template <class Interface, class Table>
  static void tableMade(Interface&, Table&) {}

  /// The table has taken over what an earlier agent left.
  template <class Table>
  static void restoreEntries(Table&) {}
};

}  // namespace Asic
