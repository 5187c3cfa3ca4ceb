#pragma once

#include "QuarnLpmLib/BigBbDataModelTypes.h"
#include "QuarnLpmLib/DataModelSwTable.h"

namespace QuarnLpmLib {

class QUARNBASTIL_EXPORT BigBbDataModelSwTableBase
    : public DataModelSwTableBase<BigBbDataModelSwTableBase, BigBbDataModelEntryKey> {
 public:
  using DataModelSwTableBase::DataModelSwTableBase;
};

class QUARNBASTIL_EXPORT BigBbDataModelSwTableIteratorState
    : public DataModelSwTableIteratorState<BigBbDataModelEntry> {
 public:
  using DataModelSwTableIteratorState::DataModelSwTableIteratorState;
};

}  // namespace QuarnLpmLib
