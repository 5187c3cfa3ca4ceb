#pragma once

#include "QuarnBastil/FamilyClasses.h"
#include "QuarnLpmLib/TcamDataModel.h"

namespace QuarnBastil {

QUARNBASTIL_DECLARE_FAMILY(LpmTcam);

/// The prefixes that do not fit the blocks of the prefix search.
struct QUARNBASTIL_EXPORT LpmTcamFamily : PrefixFamily<LpmTcamFamilyClasses> {
  static constexpr Asic::SwTableId kTableId{0x04, 0x09, 0x0403};

  using Key = QuarnLpmLib::TcamDataModelEntryKey;
  using Entry = QuarnLpmLib::TcamDataModelEntry;
  using LogEntry = QuarnLpmLib::TcamDataModelLogEntry;
  using ResourceKeys = QuarnLpmLib::TcamDataModelResourceKeys;
  using ConfigDriftEntry = QuarnLpmLib::TcamDataModelConfigDriftEntry;
  using LogDriftEntry = QuarnLpmLib::TcamDataModelLogDriftEntry;
  using ConfigDrift = QuarnLpmLib::TcamDataModelConfigDrift;
  using EntryLogDrift = QuarnLpmLib::TcamDataModelEntryLogDrift;
  using SwTableBase = QuarnLpmLib::TcamDataModelSwTableBase;
  using IteratorStateBase = QuarnLpmLib::TcamDataModelSwTableIteratorState;
  using EntryHandleBase = SwTableBase::EntryHandle;
  using Constants = FamilyConstants<LpmTcamFamily>;

  static constexpr std::uint32_t kTableEntriesSalt = 0x35a38ad9;
  static constexpr std::uint32_t kTransientAddEntrySalt = 0x30fe6280;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0x4bf8c3d4;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0x4e07ff36;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0xaf94a2bb;
};

using LpmTcamConstants = LpmTcamFamily::Constants;

QUARNBASTIL_FAMILY(LpmTcam, lpmTcam);

}  // namespace QuarnBastil
