#pragma once

#include "Fenrik/Module.h"
#include "OrderedTable/EntryFlags.h"
#include "OrderedTable/EntryVersion.h"
#include "OrderedTable/GenId.h"
#include "OrderedTable/Index.h"
#include "OrderedTable/LogVersion.h"
#include "OrderedTable/SwTableId.h"
#include "OrderedTable/TableVersion.h"
#include "OrderedTable/UnitId.h"

namespace Asic {

/// The value types, for `Kiv::typeOf` and `KivFenrik::Impl::valueToStrep`.
struct QUARNBASTIL_EXPORT ValueTypesModule
    : Kiv::Module<"ValueTypes", SwTableId, UnitId, LogVersion, TableVersion, MajorVersion,
                  EntryVersion, EntryFlags, GenId, Index> {};

}  // namespace Asic
