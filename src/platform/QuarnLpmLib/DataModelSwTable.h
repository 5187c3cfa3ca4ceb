#pragma once

#include "OrderedTable/OrderedSwTable.h"
#include "OrderedTable/SwTableIteratorState.h"
#include "OrderedTable/TypedEntryHandle.h"

namespace QuarnLpmLib {

/// Base of the software tables of one data model. `Self` is the model's own class, and brings the
/// handle type with key, table pointer and table identity.
template <class Self, class KeyType>
class QUARNBASTIL_EXPORT DataModelSwTableBase : public Asic::OrderedSwTable {
 public:
  using EntryHandle = Asic::TypedEntryHandle<KeyType, Self>;

  using Asic::OrderedSwTable::OrderedSwTable;
};

/// Base of the iterations over the tables of one data model.
template <class EntryType>
class QUARNBASTIL_EXPORT DataModelSwTableIteratorState : public Asic::SwTableIteratorStateBase {
 public:
  using Asic::SwTableIteratorStateBase::SwTableIteratorStateBase;

  /// One step: the next entry, or a default one at the end.
  virtual EntryType maybeUpdateCurrentEntry() = 0;
};

}  // namespace QuarnLpmLib
