#pragma once

#include "KivSharedMem/Collection.h"
#include "OrderedTable/EntryFlags.h"
#include "OrderedTable/LogVersion.h"
#include "OrderedTable/UnitId.h"

namespace Asic {

/// The change log of a table in shared memory: what happened, and in which order, over all units.
/// `Self` is the family's final class.
///
/// Process and thread: changed by the table's entry log alone, on the table thread; read by any
/// process.
template <class Self, class Record>
class QUARNBASTIL_EXPORT EntryLogDrift : public KivSharedMem::DenseCollection<Self, Record> {
 public:
  static constexpr std::string_view kAttributeName = "entryLogConfig";

  using KivSharedMem::DenseCollection<Self, Record>::DenseCollection;

  /// Inserts the record under its version. Throws `Drift::CollectionFullException` or
  /// `Drift::NoSpaceException` with nothing changed.
  void entryLogConfigIs(const Record& record) { this->recordIs(record); }
  /// The same without a record made first.
  void entryLogConfigIs(LogVersion version, EntryFlags flags, UnitId unitId,
                        const decltype(Record::logEntry)& logEntry) {
    this->recordOfPartsIs(version, flags, unitId, logEntry);
  }
  /// Sees to it that one more record can be appended: throws what appending it would throw.
  void entryLogConfigRoom() { this->recordRoom(); }
  /// Removes the record of that version, if there is one.
  void entryLogConfigDel(LogVersion version) { this->recordDel(version.value()); }
};

}  // namespace Asic
