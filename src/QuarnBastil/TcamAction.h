#pragma once

#include "QuarnBastil/FamilyClasses.h"
#include "QuarnBastil/ResourceTableLinkage.h"
#include "QuarnBastil/TcamActionTypes.h"

namespace QuarnBastil {

QUARNBASTIL_DECLARE_FAMILY(TcamAction);

/// The actions on packets that match a classification entry.
struct QUARNBASTIL_EXPORT TcamActionFamily : TcamActionFamilyClasses {
  static constexpr Asic::SwTableId kTableId{0x04, 0x08, 0x0403};
  using LinkRow = TcamActionLinkRow;
  static constexpr const Asic::ResourceHooks* kResourceHooks = &kTcamActionResourceHooks;

  using SwTableBase = TcamActionResourceSwTable;
  using EntryWrapperBase = TcamActionResourceWrapper;
  using ResourceLinkage = TcamActionRequestIdToFecLinkage;
  using Key = TcamActionEntryKey;
  using Entry = TcamActionEntry;
  using LogEntry = TcamActionLogEntry;
  using ResourceKeys = TcamActionResourceKeys;
  using ConfigDriftEntry = TcamActionConfigDriftEntry;
  using LogDriftEntry = TcamActionLogDriftEntry;
  using ConfigDrift = TcamActionConfigDrift;
  using EntryLogDrift = TcamActionEntryLogDrift;
  using EntryHandleBase = Asic::TypedEntryHandle<Key, SwTable>;
  using Constants = FamilyConstants<TcamActionFamily>;

  static constexpr std::uint32_t kTableEntriesSalt = 0x6972c945;
  static constexpr std::uint32_t kTransientAddEntrySalt = 0xd235178f;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0xff1cd549;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0x743611b6;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0x46bbb974;
};

using TcamActionConstants = TcamActionFamily::Constants;

QUARNBASTIL_FAMILY(TcamAction, tcamAction);

}  // namespace QuarnBastil
