#pragma once

#include <cstddef>
#include <cstring>
#include <vector>

#include "KivSharedMem/Collection.h"
#include "OrderedTable/LogVersion.h"

namespace Asic {

/// The configuration of one unit of a table in shared memory: the current entries, each with the
/// version of its last change. `Self` is the family's final class.
///
/// Process and thread: changed only by the table's entry log, on the table thread; read by any
/// process.
template <class Self, class Record>
class QUARNBASTIL_EXPORT ConfigDrift : public KivSharedMem::HashedCollection<Self, Record> {
 public:
  using Key = typename Record::Key;
  static constexpr std::string_view kAttributeName = "swTableEntries";

  using KivSharedMem::HashedCollection<Self, Record>::HashedCollection;

  /// Inserts the record, or replaces the one with the same key. Throws
  /// `Drift::CollectionFullException` or `Drift::NoSpaceException`; nothing has changed then.
  void swTableEntriesIs(const Record& record) { this->recordIs(record); }
  /// As above, storing the parts directly instead of copying a complete record.
  void swTableEntriesIs(const decltype(Record::logEntry)& logEntry,
                        const decltype(Record::rsrcKeys)& rsrcKeys, LogVersion version,
                        bool isDeleted) {
    this->recordOfPartsIs(logEntry, rsrcKeys, version, isDeleted);
  }
  /// Ensures that a record with this key can be stored. Throws what storing it would throw.
  void swTableEntriesRoom(const Key& key) { this->recordRoom(key); }
  /// Ensures that an existing record can be replaced.
  void swTableEntriesReplacementRoom() { this->replacementRoom(); }
  /// Prefetches what a change of the key's record will touch: its index word first; then, with
  /// `near`, the slot that the index word refers to.
  void swTableEntriesPrefetch(const Key& key, bool near) const noexcept {
    this->recordPrefetch(key, near);
  }
  /// Keys of the records that were removed at or before `version`.
  std::vector<Key> swTableEntriesMaybeDeleted(LogVersion version) {
    const auto records = this->writer().recordsWhere([&](const std::byte* bytes) {
      std::uint64_t since = 0;
      std::memcpy(&since, bytes + offsetof(Record, logVersion), sizeof since);
      return bytes[offsetof(Record, isDeleted)] != std::byte{0} && since <= version.value();
    });
    std::vector<Key> keys(records.size());
    for (std::size_t i = 0; i < keys.size(); ++i) {
      std::memcpy(static_cast<void*>(&keys[i]), records[i].data(), sizeof(Key));
    }
    return keys;
  }
  /// Removes the key's record if it exists.
  void swTableEntriesDel(const Key& key) { this->recordDel(key); }
};

}  // namespace Asic
