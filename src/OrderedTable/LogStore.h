#pragma once

#include <vector>

#include "KivSharedMem/Collection.h"
#include "OrderedTable/EntryFlags.h"
#include "OrderedTable/LogVersion.h"
#include "OrderedTable/TableDescriptor.h"
#include "OrderedTable/UnitId.h"

namespace Asic {

/// Where a log record of any family has its parts.
struct LogRecordLayout {
  static constexpr std::size_t kVersion = 0;
  static constexpr std::size_t kFlags = 8;
  static constexpr std::size_t kUnit = 10;
  static constexpr std::size_t kLogEntry = 12;
};

/// A record of a change log, read: whole words of any content.
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

/// The change log of a table: what happened, and in which order, over all its units. Damage is
/// noted with the collection and reads as nothing.
class LogStore {
 public:
  using Word = FlatShape::Word;
  using Entity = KivSharedMem::DenseEntity;

  LogStore(const TableDescriptor& descriptor, Fenrik::Ptr<Entity> entity);

  const Fenrik::Ptr<Entity>& entity() const noexcept { return entity_; }

  /// Number of records. The one who writes knows it without a look at the shared memory.
  Word records() const { return entity_->records(); }
  /// The version behind the newest record that was ever stored.
  LogVersion next() const { return LogVersion(entity_->writer().next()); }
  /// The oldest version, or `next()` if there is none.
  LogVersion first() const { return LogVersion(entity_->writer().first()); }
  /// The record of a version, or the first one from there on; null if there is none. It holds until
  /// the next look.
  const LogRecord* look(LogVersion version) const;
  const LogRecord* from(LogVersion version) const;

  /// `logEntry` is canonical.
  void append(LogVersion version, EntryFlags flags, UnitId unit, const Word* logEntry);
  void remove(LogVersion version);
  /// Removes all versions from the oldest one up to `version`, one after the other.
  void removeThrough(LogVersion version);
  /// Room for one more record: throws what appending it would throw, with nothing changed.
  void makeRoom();
  /// Fetches the slot of the record that will be appended after `ahead` others.
  void prefetch(unsigned ahead) const noexcept;

 private:
  const TableDescriptor::Records& shapes_;
  Fenrik::Ptr<Entity> entity_;
  mutable std::vector<Word> read_;
  LogRecord found_;
};

}  // namespace Asic
