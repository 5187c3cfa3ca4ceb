#pragma once

#include "OrderedTable/EntryLogBase.h"
#include "OrderedTable/ResolverEntry.h"
#include "OrderedTable/SwTableIteratorState.h"
#include "OrderedTable/TableInterfaceBase.h"
#include "OrderedTable/ValueTypes.h"

/// The modules of the framework's base classes.
namespace Asic {

struct QUARNBASTIL_EXPORT EntryHandleModule
    : Kiv::Module<"EntryHandle", DependencyEntryHandle, SwTableBase::EntryHandle,
                  OrderedSwTable::EntryHandle> {};
struct QUARNBASTIL_EXPORT OrderedSwTableModule
    : Kiv::Module<"OrderedSwTable", SwTableBase, NamedSwTable, OrderedSwTable> {};
struct QUARNBASTIL_EXPORT SwTableIteratorStateModule
    : Kiv::Module<"SwTableIteratorState", SwTableIteratorStateBase> {};
struct QUARNBASTIL_EXPORT ResolverEntryModule : Kiv::Module<"ResolverEntry", ResolverEntry> {};
struct QUARNBASTIL_EXPORT EntryLogBaseModule : Kiv::Module<"EntryLogBase", EntryLogBase> {};
struct QUARNBASTIL_EXPORT TableInterfaceBaseModule
    : Kiv::Module<"TableInterfaceBase", TableInterfaceBase> {};

}  // namespace Asic
