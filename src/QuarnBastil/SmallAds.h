#pragma once

#include "QuarnBastil/FamilyClasses.h"
#include "QuarnLpmLib/SmallAdsDataModel.h"

namespace QuarnBastil {

QUARNBASTIL_DECLARE_FAMILY(SmallAds);

/// Next hops: the output of a packet and the address to send it to.
struct QUARNBASTIL_EXPORT SmallAdsFamily : PrefixFamily<SmallAdsFamilyClasses> {
  static constexpr Asic::SwTableId kTableId{0x04, 0x09, 0x0404};

  using Key = QuarnLpmLib::SmallAdsDataModelEntryKey;
  using Entry = QuarnLpmLib::SmallAdsDataModelEntry;
  using LogEntry = QuarnLpmLib::SmallAdsDataModelLogEntry;
  using ResourceKeys = QuarnLpmLib::SmallAdsDataModelResourceKeys;
  using ConfigDriftEntry = QuarnLpmLib::SmallAdsDataModelConfigDriftEntry;
  using LogDriftEntry = QuarnLpmLib::SmallAdsDataModelLogDriftEntry;
  using ConfigDrift = QuarnLpmLib::SmallAdsDataModelConfigDrift;
  using EntryLogDrift = QuarnLpmLib::SmallAdsDataModelEntryLogDrift;
  using SwTableBase = QuarnLpmLib::SmallAdsDataModelSwTableBase;
  using IteratorStateBase = QuarnLpmLib::SmallAdsDataModelSwTableIteratorState;
  using EntryHandleBase = SwTableBase::EntryHandle;
  using Constants = FamilyConstants<SmallAdsFamily>;

  static constexpr std::uint32_t kTableEntriesSalt = 0xa59134f8;
  static constexpr std::uint32_t kTransientAddEntrySalt = 0xda9a3faf;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0x85ef0178;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0x797c1a71;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0x3b861e2b;
};

using SmallAdsConstants = SmallAdsFamily::Constants;

QUARNBASTIL_FAMILY(SmallAds, smallAds);

}  // namespace QuarnBastil
