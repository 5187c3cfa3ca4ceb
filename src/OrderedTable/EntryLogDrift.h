#pragma once

#include "KivSharedMem/Collection.h"
#include "OrderedTable/EntryFlags.h"
#include "OrderedTable/LogVersion.h"
#include "OrderedTable/UnitId.h"

namespace Asic {

/// The change log of a table in shared memory: the changes of all its units, in order. `Self` is
/// the family's final class.
///
/// Process and thread: changed only by the table's entry log, on the table thread; read by any
/// process.
template <class Self, class Record>
class QUARNBASTIL_EXPORT EntryLogDrift : public KivSharedMem::DenseCollection<Self, Record> {
 public:
  static constexpr std::string_view kAttributeName = "entryLogConfig";

  using KivSharedMem::DenseCollection<Self, Record>::DenseCollection;

  /// Inserts the record under its version. Throws `Drift::CollectionFullException` or
  /// `Drift::NoSpaceException`; nothing has changed then.
  void entryLogConfigIs(const Record& record) { this->recordIs(record); }
  /// As above, storing the parts directly instead of copying a complete record.
  void entryLogConfigIs(LogVersion version, EntryFlags flags, UnitId unitId,
                        const decltype(Record::logEntry)& logEntry) {
    this->recordOfPartsIs(version, flags, unitId, logEntry);
  }
  /// Ensures that one more record can be appended. Throws what appending it would throw.
  void entryLogConfigRoom() { this->recordRoom(); }
  /// Removes the record with this version if it exists.
  void entryLogConfigDel(LogVersion version) { this->recordDel(version.value()); }
};

}  // namespace Asic
