#pragma once

#include "Fenrik/Ptr.h"
#include "Fenrik/String.h"
#include "OrderedTable/ResolverEntry.h"

namespace Asic {

class EntryWrapperBase;
class NeededEntry;
class OrderedSwTable;
class OrderedTableInterface;
class OutermostCall;

/// Points at which a table that uses resources extends the generic logic. A family without
/// resources has no hooks and pays one test of a constant at each point.
struct ResourceHooks {
  /// A write has entered the transient state and will be queued next: requests its resource.
  void (*writeQueued)(OrderedSwTable& table, EntryWrapperBase& wrapper);
  /// Sets the wrapper's resource handle: a new one with `refresh`, otherwise the one in use.
  void (*setRsrcPtrs)(OrderedSwTable& table, EntryWrapperBase& wrapper, bool refresh);
  /// Whether the resource of an operation has been resolved, successfully or not. Traces a negative
  /// answer.
  bool (*resolved)(OrderedSwTable& table, EntryWrapperBase& wrapper);
  /// Whether the resource has a value. Traces a negative answer.
  bool (*checkResolveSuccess)(OrderedSwTable& table, EntryWrapperBase& wrapper);
  /// Copies the resource's values into the wrapper's entry.
  void (*setResolvedFields)(EntryWrapperBase& wrapper);
  /// Whether the entry's resource requires any versions.
  bool (*needsAny)(const EntryWrapperBase& wrapper);
  /// Adds the versions of resource tables that the entry requires.
  void (*addNeeded)(const OrderedSwTable& table, const EntryWrapperBase& wrapper,
                    NeededEntry& needed);
  /// Updates the resource accounting for the change of one entry. `oldEntry` is the previously
  /// configured entry, or a default one if there was none.
  void (*updateLocalUsage)(OrderedSwTable& table, EntryWrapperBase& wrapper, const void* oldEntry,
                           bool isDeleted);
  /// The interface has created a table, which has not been restored or cleared yet.
  void (*tableMade)(OrderedTableInterface& tables, OrderedSwTable& table);
  /// `restoreEntry` is called for each configured entry taken over from an earlier agent that has a
  /// resource key; `entriesRestored` once afterwards.
  void (*restoreEntry)(OrderedSwTable& table, EntryWrapperBase& wrapper);
  void (*entriesRestored)(OrderedSwTable& table);
  /// What announces that the resource of a waiting operation has changed; a null object if the
  /// operation does not wait for a resource.
  ResolverEntry::Awaited (*awaited)(const OrderedSwTable& table, const EntryWrapperBase& wrapper);
  /// The hardware has reported something, which may have made room in the log. Called only after
  /// `TableCore::reportWantedIs(true)`.
  void (*roomMade)(OrderedSwTable& table);
  /// The resource that an operation waits for, for diagnostics; empty if none.
  Fenrik::String (*waitingReason)(const OrderedSwTable& table, const EntryWrapperBase& wrapper);
  /// The calls in progress of the table's agent.
  const Fenrik::Ptr<OutermostCall>& (*outermostCall)(const OrderedSwTable& table);
};

}  // namespace Asic
