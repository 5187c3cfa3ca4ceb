#pragma once

#include "Fenrik/Ptr.h"
#include "Fenrik/String.h"

namespace Asic {

class EntryWrapperBase;
class NeededEntry;
class OrderedSwTable;
class OrderedTableInterface;

/// The points at which a table that is linked to resources steps into the generic logic. A family
/// without resources has none of them, and pays one test of a constant each.
struct ResourceHooks {
  /// A write has entered the transient state and is about to be queued: asks for its resource.
  void (*writeQueued)(OrderedSwTable& table, EntryWrapperBase& wrapper);
  /// Gives a wrapper its resource handle: asked for anew, or the one that is in use.
  void (*setRsrcPtrs)(OrderedSwTable& table, EntryWrapperBase& wrapper, bool refresh);
  /// Whether the resource of an operation has been dealt with, failure included; says so in the
  /// trace if not.
  bool (*resolved)(OrderedSwTable& table, EntryWrapperBase& wrapper);
  /// Whether the resource has a value; says so in the trace if not.
  bool (*checkResolveSuccess)(OrderedSwTable& table, EntryWrapperBase& wrapper);
  /// Takes what comes of the resource into the wrapper's entry.
  void (*setResolvedFields)(EntryWrapperBase& wrapper);
  /// Adds the versions that the entry needs of resource tables.
  void (*addNeeded)(const OrderedSwTable& table, const EntryWrapperBase& wrapper,
                    NeededEntry& needed);
  /// Brings the accounting in line with the change of one entry. `oldEntry` is the client's entry
  /// that was configured before, a default one if there was none.
  void (*updateLocalUsage)(OrderedSwTable& table, EntryWrapperBase& wrapper, const void* oldEntry,
                           bool isDeleted);
  /// A table was made by its interface, and has neither been restored nor cleared yet.
  void (*tableMade)(OrderedTableInterface& tables, OrderedSwTable& table);
  /// A configured entry was taken over from an earlier agent; then, once, all of them were.
  void (*restoreEntry)(OrderedSwTable& table, EntryWrapperBase& wrapper);
  void (*entriesRestored)(OrderedSwTable& table);
  /// The resource for which an operation waits, for people; empty if for none.
  Fenrik::String (*waitingReason)(const OrderedSwTable& table, const EntryWrapperBase& wrapper);
};

}  // namespace Asic
