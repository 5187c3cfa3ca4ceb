#pragma once

#include "QuarnLpmLib/DataModelSwTable.h"
#include "QuarnLpmLib/TcamDataModelTypes.h"

namespace QuarnLpmLib {

class QUARNBASTIL_EXPORT TcamDataModelSwTableBase
    : public DataModelSwTableBase<TcamDataModelSwTableBase, TcamDataModelEntryKey> {
 public:
  using DataModelSwTableBase::DataModelSwTableBase;
};

class QUARNBASTIL_EXPORT TcamDataModelSwTableIteratorState
    : public DataModelSwTableIteratorState<TcamDataModelEntry> {
 public:
  using DataModelSwTableIteratorState::DataModelSwTableIteratorState;
};

}  // namespace QuarnLpmLib
