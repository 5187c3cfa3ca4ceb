#pragma once

#include "QuarnBastil/FamilyClasses.h"
#include "QuarnBastil/TcamEntryTypes.h"

namespace QuarnBastil {

QUARNBASTIL_DECLARE_FAMILY(TcamEntry);

/// Matches packets and selects their treatment; the largest entry of all families.
struct QUARNBASTIL_EXPORT TcamEntryFamily : TcamEntryFamilyClasses {
  static constexpr Asic::SwTableId kTableId{0x04, 0x08, 0x0404};

  using Key = TcamEntryEntryKey;
  using Entry = TcamEntryEntry;
  using LogEntry = TcamEntryLogEntry;
  using ResourceKeys = TcamEntryResourceKeys;
  using ConfigDriftEntry = TcamEntryConfigDriftEntry;
  using LogDriftEntry = TcamEntryLogDriftEntry;
  using ConfigDrift = TcamEntryConfigDrift;
  using EntryLogDrift = TcamEntryEntryLogDrift;
  using EntryHandleBase = Asic::TypedEntryHandle<Key, SwTable>;
  using Constants = FamilyConstants<TcamEntryFamily>;

  static constexpr std::uint32_t kTableEntriesSalt = 0x816d16bb;
  static constexpr std::uint32_t kTransientAddEntrySalt = 0x8c98fc50;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0xd486e1e1;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0x811d2a4f;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0x03fe4038;
};

using TcamEntryConstants = TcamEntryFamily::Constants;

QUARNBASTIL_FAMILY(TcamEntry, tcamEntry);

}  // namespace QuarnBastil
