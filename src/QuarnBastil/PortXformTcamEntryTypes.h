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

struct QUARNBASTIL_EXPORT PortXformTcamEntryEntryKey final
    : BankIndexKey<PortXformTcamEntryEntryKey> {
  using BankIndexKey::BankIndexKey;
};

/// Selects ports and VLANs whose packets are transformed.
struct QUARNBASTIL_EXPORT PortXformTcamEntryLogEntry
    : Drift::FlatValue<PortXformTcamEntryLogEntry> {
  using Key = PortXformTcamEntryEntryKey;

  Key key;
  std::uint32_t port = 0;
  std::uint32_t portMask = 0;
  std::uint32_t vlan = 0;
  std::uint32_t vlanMask = 0;
  std::uint32_t priority = 0;

  PortXformTcamEntryLogEntry() = default;
  explicit PortXformTcamEntryLogEntry(const Key& ofKey) noexcept : key(ofKey) {}

  static constexpr auto fields() {
    using Self = PortXformTcamEntryLogEntry;
    return std::array{DRIFT_FIELD_AT(Self, key, 0),       DRIFT_FIELD_AT(Self, port, 4),
                      DRIFT_FIELD_AT(Self, portMask, 8),  DRIFT_FIELD_AT(Self, vlan, 12),
                      DRIFT_FIELD_AT(Self, vlanMask, 16), DRIFT_FIELD_AT(Self, priority, 20)};
  }
};
static_assert(sizeof(PortXformTcamEntryLogEntry) == 24);

struct QUARNBASTIL_EXPORT PortXformTcamEntryResourceKeys : Asic::NoResourceKeys {};

struct QUARNBASTIL_EXPORT PortXformTcamEntryEntry final
    : Asic::TableEntry<PortXformTcamEntryLogEntry, PortXformTcamEntryResourceKeys> {
  using TableEntry::TableEntry;
};

struct QUARNBASTIL_EXPORT PortXformTcamEntryConfigDriftEntry final
    : Asic::ConfigDriftEntry<PortXformTcamEntryLogEntry, PortXformTcamEntryResourceKeys> {
  using ConfigDriftEntry::ConfigDriftEntry;
};
static_assert(Asic::configStandsAt<PortXformTcamEntryConfigDriftEntry>(28, 36));

struct QUARNBASTIL_EXPORT PortXformTcamEntryLogDriftEntry final
    : Asic::LogDriftEntry<PortXformTcamEntryLogEntry> {
  using LogDriftEntry::LogDriftEntry;
};

class QUARNBASTIL_EXPORT PortXformTcamEntryConfigDrift final
    : public Asic::ConfigDrift<PortXformTcamEntryConfigDrift, PortXformTcamEntryConfigDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnBastil::PortXformTcamEntryConfigDrift";
  using ConfigDrift::ConfigDrift;
};

class QUARNBASTIL_EXPORT PortXformTcamEntryEntryLogDrift final
    : public Asic::EntryLogDrift<PortXformTcamEntryEntryLogDrift, PortXformTcamEntryLogDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnBastil::PortXformTcamEntryEntryLogDrift";
  using EntryLogDrift::EntryLogDrift;
};

}  // namespace QuarnBastil
