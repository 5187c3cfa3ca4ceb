#pragma once

#include "QuarnBastil/FamilyClasses.h"
#include "QuarnBastil/PortXformTcamEntryTypes.h"

namespace QuarnBastil {

QUARNBASTIL_DECLARE_FAMILY(PortXformTcamEntry);

/// The port ranges that are turned into numbers which classification entries match.
struct QUARNBASTIL_EXPORT PortXformTcamEntryFamily : PortXformTcamEntryFamilyClasses {
  static constexpr Asic::SwTableId kTableId{0x04, 0x08, 0x0402};

  using Key = PortXformTcamEntryEntryKey;
  using Entry = PortXformTcamEntryEntry;
  using LogEntry = PortXformTcamEntryLogEntry;
  using ResourceKeys = PortXformTcamEntryResourceKeys;
  using ConfigDriftEntry = PortXformTcamEntryConfigDriftEntry;
  using LogDriftEntry = PortXformTcamEntryLogDriftEntry;
  using ConfigDrift = PortXformTcamEntryConfigDrift;
  using EntryLogDrift = PortXformTcamEntryEntryLogDrift;
  using EntryHandleBase = Asic::TypedEntryHandle<Key, SwTable>;
  using Constants = FamilyConstants<PortXformTcamEntryFamily>;

  static constexpr std::uint32_t kTableEntriesSalt = 0x4ec51008;
  static constexpr std::uint32_t kTransientAddEntrySalt = 0xf172515f;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0xae3b041f;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0xccd90cd9;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0xe02f99a4;
};

using PortXformTcamEntryConstants = PortXformTcamEntryFamily::Constants;

QUARNBASTIL_FAMILY(PortXformTcamEntry, portXformTcamEntry);

}  // namespace QuarnBastil
