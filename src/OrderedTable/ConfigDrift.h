#pragma once

#include <cstddef>
#include <cstring>
#include <vector>

#include "KivSharedMem/Collection.h"
#include "OrderedTable/LogVersion.h"

namespace Asic {

/// The configuration of one unit of a table in shared memory: what is configured now, and since
/// which version. `Self` is the family's final class.
///
/// Process and thread: changed by the table's entry log alone, on the table thread; read by any
/// process.
template <class Self, class Record>
class QUARNBASTIL_EXPORT ConfigDrift : public KivSharedMem::HashedCollection<Self, Record> {
 public:
  using Key = typename Record::Key;
  static constexpr std::string_view kAttributeName = "swTableEntries";

  using KivSharedMem::HashedCollection<Self, Record>::HashedCollection;

  /// Inserts the record, or replaces the one with the same key. Throws
  /// `Drift::CollectionFullException` or `Drift::NoSpaceException` with nothing changed.
  void swTableEntriesIs(const Record& record) { this->recordIs(record); }
  /// The same without a record made first.
  void swTableEntriesIs(const decltype(Record::logEntry)& logEntry,
                        const decltype(Record::rsrcKeys)& rsrcKeys, LogVersion version,
                        bool isDeleted) {
    this->recordOfPartsIs(logEntry, rsrcKeys, version, isDeleted);
  }
  /// Sees to it that a record of that key can be stored: throws what storing it would throw.
  void swTableEntriesRoom(const Key& key) { this->recordRoom(key); }
  /// The same for a record of a key that is there.
  void swTableEntriesReplacementRoom() { this->replacementRoom(); }
  /// Fetches what a change of the key's record will touch into the processor's cache: first its
  /// index, then, with `near`, what that leads to.
  void swTableEntriesPrefetch(const Key& key, bool near) const noexcept {
    this->recordPrefetch(key, near);
  }
  /// The keys of records that were removed at or before a version.
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
  /// Removes the record of that key, if there is one.
  void swTableEntriesDel(const Key& key) { this->recordDel(key); }
};

}  // namespace Asic
