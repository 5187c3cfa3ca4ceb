#pragma once

#include "QuarnLpmLib/TcamDataModelTypes.h"
#include "QuarnLpmLib/DataModelSwTable.h"

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
