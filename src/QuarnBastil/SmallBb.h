#pragma once

#include "QuarnBastil/FamilyClasses.h"
#include "QuarnLpmLib/SmallBbDataModel.h"

namespace QuarnBastil {

QUARNBASTIL_DECLARE_FAMILY(SmallBb);

/// The blocks of the prefix search that cover a 64-bit prefix.
struct QUARNBASTIL_EXPORT SmallBbFamily : PrefixFamily<SmallBbFamilyClasses> {
  static constexpr Asic::SwTableId kTableId{0x04, 0x09, 0x0405};

  using Key = QuarnLpmLib::SmallBbDataModelEntryKey;
  using Entry = QuarnLpmLib::SmallBbDataModelEntry;
  using LogEntry = QuarnLpmLib::SmallBbDataModelLogEntry;
  using ResourceKeys = QuarnLpmLib::SmallBbDataModelResourceKeys;
  using ConfigDriftEntry = QuarnLpmLib::SmallBbDataModelConfigDriftEntry;
  using LogDriftEntry = QuarnLpmLib::SmallBbDataModelLogDriftEntry;
  using ConfigDrift = QuarnLpmLib::SmallBbDataModelConfigDrift;
  using EntryLogDrift = QuarnLpmLib::SmallBbDataModelEntryLogDrift;
  using SwTableBase = QuarnLpmLib::SmallBbDataModelSwTableBase;
  using IteratorStateBase = QuarnLpmLib::SmallBbDataModelSwTableIteratorState;
  using EntryHandleBase = SwTableBase::EntryHandle;
  using Constants = FamilyConstants<SmallBbFamily>;

  static constexpr std::uint32_t kTableEntriesSalt = 0x3dc83fac;
  static constexpr std::uint32_t kTransientAddEntrySalt = 0x1f52dc2d;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0x735e682e;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0xbb72ed92;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0xff8a07d1;
};

using SmallBbConstants = SmallBbFamily::Constants;

QUARNBASTIL_FAMILY(SmallBb, smallBb);

}  // namespace QuarnBastil
