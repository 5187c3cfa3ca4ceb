#pragma once

#include "OrderedTable/OrderedSwTable.h"
#include "OrderedTable/SwTableIteratorState.h"
#include "OrderedTable/TypedEntryHandle.h"

namespace QuarnLpmLib {

/// Base class of a data model's software tables. `Self` is the model's own class; the handle type
/// has its key type and table pointer.
template <class Self, class KeyType>
class QUARNBASTIL_EXPORT DataModelSwTableBase : public Asic::OrderedSwTable {
 public:
  using EntryHandle = Asic::TypedEntryHandle<KeyType, Self>;

  using Asic::OrderedSwTable::OrderedSwTable;
};

/// Base class of the iterator states of a data model's tables.
template <class EntryType>
class QUARNBASTIL_EXPORT DataModelSwTableIteratorState : public Asic::SwTableIteratorStateBase {
 public:
  using Asic::SwTableIteratorStateBase::SwTableIteratorStateBase;

  /// Advances by one: returns the next entry, or a default one at the end.
  virtual EntryType maybeUpdateCurrentEntry() = 0;
};

}  // namespace QuarnLpmLib
