#pragma once

#include "KivSharedMem/Collection.h"

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
  /// Removes the record of that key, if there is one.
  void swTableEntriesDel(const Key& key) { this->recordDel(key); }
};

}  // namespace Asic
