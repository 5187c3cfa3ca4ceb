#pragma once

#include "QuarnLpmLib/DataModelSwTable.h"
#include "QuarnLpmLib/SmallAdsDataModelTypes.h"

namespace QuarnLpmLib {

class QUARNBASTIL_EXPORT SmallAdsDataModelSwTableBase
    : public DataModelSwTableBase<SmallAdsDataModelSwTableBase, SmallAdsDataModelEntryKey> {
 public:
  using DataModelSwTableBase::DataModelSwTableBase;
};

class QUARNBASTIL_EXPORT SmallAdsDataModelSwTableIteratorState
    : public DataModelSwTableIteratorState<SmallAdsDataModelEntry> {
 public:
  using DataModelSwTableIteratorState::DataModelSwTableIteratorState;
};

}  // namespace QuarnLpmLib
