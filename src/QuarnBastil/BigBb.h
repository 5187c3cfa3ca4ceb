#pragma once

#include "QuarnBastil/FamilyClasses.h"
#include "QuarnLpmLib/BigBbDataModel.h"

namespace QuarnBastil {

QUARNBASTIL_DECLARE_FAMILY(BigBb);

/// The blocks of the prefix search that cover a 32-bit prefix.
struct QUARNBASTIL_EXPORT BigBbFamily : PrefixFamily<BigBbFamilyClasses> {
  static constexpr Asic::SwTableId kTableId{0x04, 0x09, 0x0402};

  using Key = QuarnLpmLib::BigBbDataModelEntryKey;
  using Entry = QuarnLpmLib::BigBbDataModelEntry;
  using LogEntry = QuarnLpmLib::BigBbDataModelLogEntry;
  using ResourceKeys = QuarnLpmLib::BigBbDataModelResourceKeys;
  using ConfigDriftEntry = QuarnLpmLib::BigBbDataModelConfigDriftEntry;
  using LogDriftEntry = QuarnLpmLib::BigBbDataModelLogDriftEntry;
  using ConfigDrift = QuarnLpmLib::BigBbDataModelConfigDrift;
  using EntryLogDrift = QuarnLpmLib::BigBbDataModelEntryLogDrift;
  using SwTableBase = QuarnLpmLib::BigBbDataModelSwTableBase;
  using IteratorStateBase = QuarnLpmLib::BigBbDataModelSwTableIteratorState;
  using EntryHandleBase = SwTableBase::EntryHandle;
  using Constants = FamilyConstants<BigBbFamily>;

  static constexpr std::uint32_t kTableEntriesSalt = 0xad90cb0e;
  static constexpr std::uint32_t kTransientAddEntrySalt = 0xecb642af;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0x9a71e6a1;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0x89aa994e;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0xc936b39a;
};

using BigBbConstants = BigBbFamily::Constants;

QUARNBASTIL_FAMILY(BigBb, bigBb);

}  // namespace QuarnBastil
