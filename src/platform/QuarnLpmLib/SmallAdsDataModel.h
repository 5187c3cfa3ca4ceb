#pragma once

#include "QuarnLpmLib/SmallAdsDataModelTypes.h"
#include "QuarnLpmLib/DataModelSwTable.h"

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
