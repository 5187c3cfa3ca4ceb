#pragma once

#include <vector>

#include "KivSharedMem/Collection.h"
#include "OrderedTable/EntryFlags.h"
#include "OrderedTable/LogVersion.h"
#include "OrderedTable/TableDescriptor.h"
#include "OrderedTable/UnitId.h"

namespace Asic {

/// Offsets in a log record, equal in all families.
struct LogRecordLayout {
  static constexpr std::size_t kVersion = 0;
  static constexpr std::size_t kFlags = 8;
  static constexpr std::size_t kUnit = 10;
  static constexpr std::size_t kLogEntry = 12;
};

/// Read access to a log record. The words may hold any content, even an invalid value.
class LogRecord {
 public:
  using Word = FlatShape::Word;

  explicit LogRecord(const Word* words) noexcept : words_(words) {}

  LogVersion version() const noexcept { return LogVersion(words_[0]); }
  EntryFlags flags() const noexcept;
  UnitId unitId() const noexcept;
  const void* logEntry() const noexcept {
    return reinterpret_cast<const std::byte*>(words_) + LogRecordLayout::kLogEntry;
  }

 private:
  const Word* words_;
};

/// The change log of a table: the changes of all its units, in order. Damage is reported to the
/// collection, and the read finds nothing.
class LogStore {
 public:
  using Word = FlatShape::Word;
  using Entity = KivSharedMem::DenseEntity;

  LogStore(const TableDescriptor& descriptor, Fenrik::Ptr<Entity> entity);

  const Fenrik::Ptr<Entity>& entity() const noexcept { return entity_; }

  /// Number of records. The writing process knows it without reading shared memory.
  Word records() const { return entity_->records(); }
  /// The version after the newest one ever stored.
  LogVersion next() const { return LogVersion(entity_->writer().next()); }
  /// The oldest version, or `next()` if the log is empty.
  LogVersion first() const { return LogVersion(entity_->writer().first()); }
  /// The record of a version; with `from`, the first record at or after it. Null if there is none.
  /// Valid until the next look-up.
  const LogRecord* look(LogVersion version) const;
  const LogRecord* from(LogVersion version) const;

  /// Appends a record. `logEntry` is canonical.
  void append(LogVersion version, EntryFlags flags, UnitId unit, const Word* logEntry);
  void remove(LogVersion version);
  /// Removes all versions from the oldest up to `version`, in order.
  void removeThrough(LogVersion version);
  /// Records for which there are places, more than its capacity.
  Word places() const noexcept { return entity_->file().header().slotCount; }
  /// Ensures that so many records can be appended. Throws what appending it would throw; nothing
  /// has changed then.
  void makeRoom(Word records = 1);
  /// Prefetches the slot of the record that will be appended `ahead` records from now.
  void prefetch(unsigned ahead) const noexcept;

 private:
  const TableDescriptor::Records& shapes_;
  Fenrik::Ptr<Entity> entity_;
  /// Buffer of the record that was last looked up.
  mutable std::vector<Word> read_;
  LogRecord found_;
};

}  // namespace Asic
