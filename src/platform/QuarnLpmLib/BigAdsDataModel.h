#pragma once

#include "QuarnLpmLib/BigAdsDataModelTypes.h"
#include "QuarnLpmLib/DataModelSwTable.h"

namespace QuarnLpmLib {

class QUARNBASTIL_EXPORT BigAdsDataModelSwTableBase
    : public DataModelSwTableBase<BigAdsDataModelSwTableBase, BigAdsDataModelEntryKey> {
 public:
  using DataModelSwTableBase::DataModelSwTableBase;
};

class QUARNBASTIL_EXPORT BigAdsDataModelSwTableIteratorState
    : public DataModelSwTableIteratorState<BigAdsDataModelEntry> {
 public:
  using DataModelSwTableIteratorState::DataModelSwTableIteratorState;
};

}  // namespace QuarnLpmLib
