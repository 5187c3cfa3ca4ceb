#pragma once

#include "QuarnBastil/FamilyClasses.h"
#include "QuarnLpmLib/BigAdsDataModel.h"

namespace QuarnBastil {

QUARNBASTIL_DECLARE_FAMILY(BigAds);

/// The next-hop group members.
struct QUARNBASTIL_EXPORT BigAdsFamily : PrefixFamily<BigAdsFamilyClasses> {
  static constexpr Asic::SwTableId kTableId{0x04, 0x09, 0x0401};

  using Key = QuarnLpmLib::BigAdsDataModelEntryKey;
  using Entry = QuarnLpmLib::BigAdsDataModelEntry;
  using LogEntry = QuarnLpmLib::BigAdsDataModelLogEntry;
  using ResourceKeys = QuarnLpmLib::BigAdsDataModelResourceKeys;
  using ConfigDriftEntry = QuarnLpmLib::BigAdsDataModelConfigDriftEntry;
  using LogDriftEntry = QuarnLpmLib::BigAdsDataModelLogDriftEntry;
  using ConfigDrift = QuarnLpmLib::BigAdsDataModelConfigDrift;
  using EntryLogDrift = QuarnLpmLib::BigAdsDataModelEntryLogDrift;
  using SwTableBase = QuarnLpmLib::BigAdsDataModelSwTableBase;
  using IteratorStateBase = QuarnLpmLib::BigAdsDataModelSwTableIteratorState;
  using EntryHandleBase = SwTableBase::EntryHandle;
  using Constants = FamilyConstants<BigAdsFamily>;

  static constexpr std::uint32_t kTableEntriesSalt = 0xe95e219b;
  static constexpr std::uint32_t kTransientAddEntrySalt = 0x85f804a0;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0xc41ea2b1;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0x0eaa2339;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0x8cf1e7c2;
};

using BigAdsConstants = BigAdsFamily::Constants;

QUARNBASTIL_FAMILY(BigAds, bigAds);

}  // namespace QuarnBastil
