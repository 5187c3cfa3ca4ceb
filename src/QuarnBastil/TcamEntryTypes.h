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
#include "QuarnBastil/MatchValues.h"

namespace QuarnBastil {

struct QUARNBASTIL_EXPORT TcamEntryEntryKey final : BankIndexKey<TcamEntryEntryKey> {
  using BankIndexKey::BankIndexKey;
};

/// One classification entry: the packets to match and their treatment. The agent copies, compares
/// and prints it but interprets only the key; the remaining fields are the hardware writer's.
struct QUARNBASTIL_EXPORT TcamEntryLogEntry : Drift::FlatValue<TcamEntryLogEntry> {
  using Key = TcamEntryEntryKey;

  Key key;
  std::uint8_t entryType = 0;
  /// Rows of the hardware table that the entry occupies.
  std::uint32_t slices = 1;
  std::uint8_t direction = 0;
  std::array<ThirteenByteValue, 2> station{};
  std::array<SixByteValue, 2> vlan{};
  std::uint16_t etherType = 0;
  std::uint8_t etherTypeMode = 0;
  SixByteValue protocol;
  OptionalPrefix sourcePrefix;
  std::array<SixByteValue, 2> sourceClass{};
  OptionalPrefix destinationPrefix;
  std::array<SixByteValue, 6> destinationClass{};
  std::array<std::uint16_t, 2> port{};
  std::array<ByteAndWord, 2> portRange{};
  std::uint8_t hopLimit = 0;
  std::array<SixByteValue, 2> fragment{};
  std::array<WordAndByte, 6> transport{};
  std::array<SixByteValue, 3> tunnel{};
  std::array<std::uint32_t, 7> userWords{};
  std::uint16_t innerEtherType = 0;
  std::uint8_t innerEtherTypeMode = 0;
  std::array<SixByteValue, 4> innerVlan{};
  std::array<std::uint32_t, 31> actionWords{};
  std::uint8_t innerDirection = 0;
  std::array<ThirteenByteValue, 2> innerStation{};
  std::array<SixByteValue, 3> innerClass{};
  std::array<WordAndByte, 2> innerTransport{};
  OptionalPrefix innerSourcePrefix;
  SixByteValue innerProtocol;
  OptionalPrefix innerDestinationPrefix;
  std::array<SixByteValue, 3> innerFragment{};
  std::uint16_t lookup = 0;
  std::uint8_t lookupMode = 0;

  // Out of line: each copies field by field and takes a kilobyte of code.
  TcamEntryLogEntry() noexcept;
  explicit TcamEntryLogEntry(const Key& ofKey) noexcept;
  TcamEntryLogEntry(const TcamEntryLogEntry& other) noexcept;
  TcamEntryLogEntry& operator=(const TcamEntryLogEntry& other) noexcept;

  static constexpr auto fields() {
    using Self = TcamEntryLogEntry;
    return std::array{DRIFT_FIELD_AT(Self, key, 0),
                      DRIFT_FIELD_AT(Self, entryType, 4),
                      DRIFT_FIELD_AT(Self, slices, 8),
                      DRIFT_FIELD_AT(Self, direction, 12),
                      DRIFT_FIELD_AT(Self, station, 13),
                      DRIFT_FIELD_AT(Self, vlan, 40),
                      DRIFT_FIELD_AT(Self, etherType, 52),
                      DRIFT_FIELD_AT(Self, etherTypeMode, 54),
                      DRIFT_FIELD_AT(Self, protocol, 56),
                      DRIFT_FIELD_AT(Self, sourcePrefix, 62),
                      DRIFT_FIELD_AT(Self, sourceClass, 88),
                      DRIFT_FIELD_AT(Self, destinationPrefix, 100),
                      DRIFT_FIELD_AT(Self, destinationClass, 126),
                      DRIFT_FIELD_AT(Self, port, 162),
                      DRIFT_FIELD_AT(Self, portRange, 166),
                      DRIFT_FIELD_AT(Self, hopLimit, 172),
                      DRIFT_FIELD_AT(Self, fragment, 174),
                      DRIFT_FIELD_AT(Self, transport, 186),
                      DRIFT_FIELD_AT(Self, tunnel, 204),
                      DRIFT_FIELD_AT(Self, userWords, 224),
                      DRIFT_FIELD_AT(Self, innerEtherType, 252),
                      DRIFT_FIELD_AT(Self, innerEtherTypeMode, 254),
                      DRIFT_FIELD_AT(Self, innerVlan, 256),
                      DRIFT_FIELD_AT(Self, actionWords, 280),
                      DRIFT_FIELD_AT(Self, innerDirection, 404),
                      DRIFT_FIELD_AT(Self, innerStation, 405),
                      DRIFT_FIELD_AT(Self, innerClass, 432),
                      DRIFT_FIELD_AT(Self, innerTransport, 450),
                      DRIFT_FIELD_AT(Self, innerSourcePrefix, 456),
                      DRIFT_FIELD_AT(Self, innerProtocol, 482),
                      DRIFT_FIELD_AT(Self, innerDestinationPrefix, 488),
                      DRIFT_FIELD_AT(Self, innerFragment, 514),
                      DRIFT_FIELD_AT(Self, lookup, 532),
                      DRIFT_FIELD_AT(Self, lookupMode, 534)};
  }
};
static_assert(sizeof(TcamEntryLogEntry) == 536);

struct QUARNBASTIL_EXPORT TcamEntryResourceKeys : Asic::NoResourceKeys {};

struct QUARNBASTIL_EXPORT TcamEntryEntry final
    : Asic::TableEntry<TcamEntryLogEntry, TcamEntryResourceKeys> {
  using TableEntry::TableEntry;
};

struct QUARNBASTIL_EXPORT TcamEntryConfigDriftEntry final
    : Asic::ConfigDriftEntry<TcamEntryLogEntry, TcamEntryResourceKeys> {
  using ConfigDriftEntry::ConfigDriftEntry;
};
static_assert(Asic::configStandsAt<TcamEntryConfigDriftEntry>(540, 548));

struct QUARNBASTIL_EXPORT TcamEntryLogDriftEntry final : Asic::LogDriftEntry<TcamEntryLogEntry> {
  using LogDriftEntry::LogDriftEntry;
};

class QUARNBASTIL_EXPORT TcamEntryConfigDrift final
    : public Asic::ConfigDrift<TcamEntryConfigDrift, TcamEntryConfigDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnBastil::TcamEntryConfigDrift";
  using ConfigDrift::ConfigDrift;
};

class QUARNBASTIL_EXPORT TcamEntryEntryLogDrift final
    : public Asic::EntryLogDrift<TcamEntryEntryLogDrift, TcamEntryLogDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnBastil::TcamEntryEntryLogDrift";
  using EntryLogDrift::EntryLogDrift;
};

}  // namespace QuarnBastil
