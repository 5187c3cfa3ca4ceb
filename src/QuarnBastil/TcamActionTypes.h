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
#include "QuarnL3NiLib/ReqIdToFecResourceTableEntryKey.h"

namespace QuarnBastil {

struct QUARNBASTIL_EXPORT TcamActionEntryKey final : BankIndexKey<TcamActionEntryKey> {
  using BankIndexKey::BankIndexKey;
};

/// Actions on the packets of a classification entry. `destId` is set from the resource table when
/// the entry is committed; clients leave it unset.
struct QUARNBASTIL_EXPORT TcamActionLogEntry : Drift::FlatValue<TcamActionLogEntry> {
  using Key = TcamActionEntryKey;

  Key key;
  /// Destination, as resolved by the resource table.
  std::uint32_t destId = 0;
  std::uint32_t flags = 0;
  std::uint32_t counterId = 0;
  std::uint32_t policerId = 0;
  std::array<std::uint32_t, 4> mirror{};
  std::array<std::uint32_t, 22> rewrite{};

  TcamActionLogEntry() = default;
  explicit TcamActionLogEntry(const Key& ofKey) noexcept : key(ofKey) {}

  static constexpr auto fields() {
    using Self = TcamActionLogEntry;
    return std::array{DRIFT_FIELD_AT(Self, key, 0),        DRIFT_FIELD_AT(Self, destId, 4),
                      DRIFT_FIELD_AT(Self, flags, 8),      DRIFT_FIELD_AT(Self, counterId, 12),
                      DRIFT_FIELD_AT(Self, policerId, 16), DRIFT_FIELD_AT(Self, mirror, 20),
                      DRIFT_FIELD_AT(Self, rewrite, 36)};
  }
};
static_assert(sizeof(TcamActionLogEntry) == 124);

/// Key of the resource record that the entry uses. Not logged: the hardware receives `destId`.
struct QUARNBASTIL_EXPORT TcamActionResourceKeys {
  /// 0 if the entry needs no resource.
  QuarnL3NiLib::ReqIdToFecResourceTableEntryKey requestId;

  friend bool operator==(const TcamActionResourceKeys&, const TcamActionResourceKeys&) = default;
  static constexpr auto fields() {
    return std::array{DRIFT_FIELD_AT(TcamActionResourceKeys, requestId, 0)};
  }
};
static_assert(sizeof(TcamActionResourceKeys) == 8 && alignof(TcamActionResourceKeys) == 4);

struct QUARNBASTIL_EXPORT TcamActionEntry final
    : Asic::TableEntry<TcamActionLogEntry, TcamActionResourceKeys> {
  using TableEntry::TableEntry;
};

struct QUARNBASTIL_EXPORT TcamActionConfigDriftEntry final
    : Asic::ConfigDriftEntry<TcamActionLogEntry, TcamActionResourceKeys> {
  using ConfigDriftEntry::ConfigDriftEntry;
};
static_assert(Asic::configStandsAt<TcamActionConfigDriftEntry>(132, 140));

struct QUARNBASTIL_EXPORT TcamActionLogDriftEntry final : Asic::LogDriftEntry<TcamActionLogEntry> {
  using LogDriftEntry::LogDriftEntry;
};

class QUARNBASTIL_EXPORT TcamActionConfigDrift final
    : public Asic::ConfigDrift<TcamActionConfigDrift, TcamActionConfigDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnBastil::TcamActionConfigDrift";
  using ConfigDrift::ConfigDrift;
};

class QUARNBASTIL_EXPORT TcamActionEntryLogDrift final
    : public Asic::EntryLogDrift<TcamActionEntryLogDrift, TcamActionLogDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnBastil::TcamActionEntryLogDrift";
  using EntryLogDrift::EntryLogDrift;
};

}  // namespace QuarnBastil
