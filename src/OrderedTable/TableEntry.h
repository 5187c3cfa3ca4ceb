#pragma once

#include <string>

#include "Drift/RecordText.h"
#include "Fenrik/Export.h"
#include "Fenrik/Format.h"

namespace Asic {

/// An entry in the client's form: the log entry and the keys of the resources that it needs. The
/// table logic interprets only the key and the resource keys.
template <class LogEntryType, class ResourceKeysType>
struct QUARNBASTIL_EXPORT TableEntry : LogEntryType, ResourceKeysType {
  using LogEntry = LogEntryType;
  using ResourceKeys = ResourceKeysType;
  using typename LogEntry::Key;

  TableEntry() = default;
  explicit TableEntry(const Key& key) noexcept : LogEntry(key) {}
  explicit TableEntry(const LogEntry& entry, const ResourceKeys& keys = {}) noexcept
      : LogEntry(entry), ResourceKeys(keys) {}

  const LogEntry& logEntry() const noexcept { return *this; }
  const ResourceKeys& rsrcKeys() const noexcept { return *this; }
  void keyIs(const Key& key) noexcept { this->key = key; }

  /// Whether the entry differs from a default one.
  explicit operator bool() const noexcept { return !(*this == TableEntry()); }

  static bool isEq(const void* a, const void* b) noexcept {
    return *static_cast<const TableEntry*>(a) == *static_cast<const TableEntry*>(b);
  }
  friend bool operator==(const TableEntry& a, const TableEntry& b) noexcept {
    return a.logEntry() == b.logEntry() && a.rsrcKeys() == b.rsrcKeys();
  }
};

template <class T>
concept ClientEntry = requires(const T& entry) {
  entry.logEntry();
  entry.rsrcKeys();
};

}  // namespace Asic

/// Text form: the log entry's, followed by that of the resource keys if there are any.
template <Asic::ClientEntry T>
struct fmt::formatter<T> : Fenrik::TextFormatter {
  auto format(const T& entry, fmt::format_context& context) const noexcept {
    std::string text;
    Drift::textAppend(text, entry.logEntry());
    if (!Drift::kFieldsOf<typename T::ResourceKeys>.empty()) {
      text += ' ';
      Drift::textAppend(text, entry.rsrcKeys());
    }
    return put(text, context);
  }
};
