#include "QuarnBastil/TcamEntryTypes.h"

namespace QuarnBastil {

TcamEntryLogEntry::TcamEntryLogEntry() noexcept = default;
TcamEntryLogEntry::TcamEntryLogEntry(const Key& ofKey) noexcept : key(ofKey) {}
TcamEntryLogEntry::TcamEntryLogEntry(const TcamEntryLogEntry& other) noexcept = default;
TcamEntryLogEntry& TcamEntryLogEntry::operator=(const TcamEntryLogEntry& other) noexcept = default;

}  // namespace QuarnBastil
