#pragma once

#include "QuarnLpmLib/DataModelSwTable.h"
#include "QuarnLpmLib/SmallBbDataModelTypes.h"

namespace QuarnLpmLib {

class QUARNBASTIL_EXPORT SmallBbDataModelSwTableBase
    : public DataModelSwTableBase<SmallBbDataModelSwTableBase, SmallBbDataModelEntryKey> {
 public:
  using DataModelSwTableBase::DataModelSwTableBase;
};

class QUARNBASTIL_EXPORT SmallBbDataModelSwTableIteratorState
    : public DataModelSwTableIteratorState<SmallBbDataModelEntry> {
 public:
  using DataModelSwTableIteratorState::DataModelSwTableIteratorState;
};

}  // namespace QuarnLpmLib
