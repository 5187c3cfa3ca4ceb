#pragma once

#include "QuarnBastil/FamilyClasses.h"
#include "QuarnBastil/PortXformTcamActionTypes.h"

namespace QuarnBastil {

QUARNBASTIL_DECLARE_FAMILY(PortXformTcamAction);

/// The transformations that port entries select.
struct QUARNBASTIL_EXPORT PortXformTcamActionFamily : PortXformTcamActionFamilyClasses {
  static constexpr Asic::SwTableId kTableId{0x04, 0x08, 0x0401};

  using Key = PortXformTcamActionEntryKey;
  using Entry = PortXformTcamActionEntry;
  using LogEntry = PortXformTcamActionLogEntry;
  using ResourceKeys = PortXformTcamActionResourceKeys;
  using ConfigDriftEntry = PortXformTcamActionConfigDriftEntry;
  using LogDriftEntry = PortXformTcamActionLogDriftEntry;
  using ConfigDrift = PortXformTcamActionConfigDrift;
  using EntryLogDrift = PortXformTcamActionEntryLogDrift;
  using EntryHandleBase = Asic::TypedEntryHandle<Key, SwTable>;
  using Constants = FamilyConstants<PortXformTcamActionFamily>;

  static constexpr std::uint32_t kTableEntriesSalt = 0x4380741f;
  static constexpr std::uint32_t kTransientAddEntrySalt = 0xdc0571b2;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0xad1ba853;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0xb3bba07f;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0x4a2c94c1;
};

using PortXformTcamActionConstants = PortXformTcamActionFamily::Constants;

QUARNBASTIL_FAMILY(PortXformTcamAction, portXformTcamAction);

}  // namespace QuarnBastil
