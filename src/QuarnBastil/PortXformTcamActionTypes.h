#pragma once

#include <array>
#include <cstdint>

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "Fenrik/Export.h"
#include "OrderedTable/ConfigDrift.h"
#include "OrderedTable/ConfigDriftEntry.h"
#include "OrderedTable/EntryLogDrift.h"
#include "OrderedTable/LogDriftEntry.h"
#include "OrderedTable/TableEntry.h"
#include "QuarnBastil/BankIndexKey.h"

namespace QuarnBastil {

struct QUARNBASTIL_EXPORT PortXformTcamActionEntryKey final
    : BankIndexKey<PortXformTcamActionEntryKey> {
  using BankIndexKey::BankIndexKey;
};

/// A transformation of a port's packets.
struct QUARNBASTIL_EXPORT PortXformTcamActionLogEntry
    : Drift::FlatValue<PortXformTcamActionLogEntry> {
  using Key = PortXformTcamActionEntryKey;

  Key key;
  std::uint32_t xformId = 0;
  std::uint32_t profile = 0;
  std::uint32_t flags = 0;
  std::uint32_t counterId = 0;

  PortXformTcamActionLogEntry() = default;
  explicit PortXformTcamActionLogEntry(const Key& ofKey) noexcept : key(ofKey) {}

  static constexpr auto fields() {
    using Self = PortXformTcamActionLogEntry;
    return std::array{DRIFT_FIELD_AT(Self, key, 0), DRIFT_FIELD_AT(Self, xformId, 4),
                      DRIFT_FIELD_AT(Self, profile, 8), DRIFT_FIELD_AT(Self, flags, 12),
                      DRIFT_FIELD_AT(Self, counterId, 16)};
  }
};
static_assert(sizeof(PortXformTcamActionLogEntry) == 20);

struct QUARNBASTIL_EXPORT PortXformTcamActionResourceKeys : Asic::NoResourceKeys {};

struct QUARNBASTIL_EXPORT PortXformTcamActionEntry final
    : Asic::TableEntry<PortXformTcamActionLogEntry, PortXformTcamActionResourceKeys> {
  using TableEntry::TableEntry;
};

struct QUARNBASTIL_EXPORT PortXformTcamActionConfigDriftEntry final
    : Asic::ConfigDriftEntry<PortXformTcamActionLogEntry, PortXformTcamActionResourceKeys> {
  using ConfigDriftEntry::ConfigDriftEntry;
};
static_assert(Asic::configStandsAt<PortXformTcamActionConfigDriftEntry>(24, 32));

struct QUARNBASTIL_EXPORT PortXformTcamActionLogDriftEntry final
    : Asic::LogDriftEntry<PortXformTcamActionLogEntry> {
  using LogDriftEntry::LogDriftEntry;
};

class QUARNBASTIL_EXPORT PortXformTcamActionConfigDrift final
    : public Asic::ConfigDrift<PortXformTcamActionConfigDrift,
                               PortXformTcamActionConfigDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnBastil::PortXformTcamActionConfigDrift";
  using ConfigDrift::ConfigDrift;
};

class QUARNBASTIL_EXPORT PortXformTcamActionEntryLogDrift final
    : public Asic::EntryLogDrift<PortXformTcamActionEntryLogDrift,
                                 PortXformTcamActionLogDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnBastil::PortXformTcamActionEntryLogDrift";
  using EntryLogDrift::EntryLogDrift;
};

}  // namespace QuarnBastil
