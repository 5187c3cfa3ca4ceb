#pragma once

#include "QuarnBastil/EntryLog.h"
#include "QuarnBastil/InfraTypes.h"
#include "QuarnBastil/Interface.h"
#include "QuarnBastil/SwTable.h"
#include "QuarnBastil/SwTableHelperBase.h"

/// Declares a family's final classes, so that its traits can name them.
#define QUARNBASTIL_FAMILY_DECLARE(Prefix)                   \
  struct QUARNBASTIL_EXPORT Prefix##Family;                  \
  class QUARNBASTIL_EXPORT Prefix##SwTable;                  \
  class QUARNBASTIL_EXPORT Prefix##EntryHandle;              \
  class QUARNBASTIL_EXPORT Prefix##SwTableEntries_py;        \
  class QUARNBASTIL_EXPORT Prefix##SwTableIteratorState;     \
  class QUARNBASTIL_EXPORT Prefix##EntryWrapper;             \
  class QUARNBASTIL_EXPORT Prefix##ResolverEntry;            \
  class QUARNBASTIL_EXPORT Prefix##SwTableHelperBase;        \
  class QUARNBASTIL_EXPORT Prefix##EntryLog;                 \
  class QUARNBASTIL_EXPORT Prefix##Interface;                \
  using Prefix##FamilyClasses = ::QuarnBastil::FamilyClasses<\
      #Prefix, Prefix##SwTable, Prefix##EntryHandle, Prefix##SwTableEntries_py, \
      Prefix##SwTableIteratorState, Prefix##EntryWrapper, Prefix##ResolverEntry, \
      Prefix##SwTableHelperBase, Prefix##EntryLog, Prefix##Interface>
