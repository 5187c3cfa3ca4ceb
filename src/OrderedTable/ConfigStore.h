#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "Fenrik/Ptr.h"
#include "KivSharedMem/Collection.h"
#include "OrderedTable/LogVersion.h"
#include "OrderedTable/TableDescriptor.h"
#include "OrderedTable/UnitId.h"

namespace Asic {

/// Read access to a configuration record. The words may hold any content, even an invalid value.
class ConfigRecord {
 public:
  using Word = FlatShape::Word;

  ConfigRecord(const TableDescriptor::Records& shapes, const Word* words) noexcept
      : shapes_(&shapes), words_(words) {}

  /// The record's words. The log entry comes first, and within it the key.
  const Word* words() const noexcept { return words_; }
  LogVersion logVersion() const noexcept;
  bool isDeleted() const noexcept;
  /// Whether the record equals a default-constructed one.
  bool isDefault() const noexcept;
  /// Whether any of the resource keys is set.
  bool needsResources() const noexcept;
  const std::byte* resourceKeys() const noexcept { return bytes() + shapes_->resourceKeysOffset; }
  /// Copies the record into a client's entry. REQUIRES: the entry is default-constructed.
  void entryTo(void* entry) const noexcept;

 private:
  const std::byte* bytes() const noexcept { return reinterpret_cast<const std::byte*>(words_); }

  const TableDescriptor::Records* shapes_;
  const Word* words_;
};

/// The configuration of one unit: the current entries, each with the version of its last change.
///
/// All reads pass through this class, which also handles damage: it is reported to the collection,
/// and the read finds nothing.
class ConfigStore {
 public:
  using Word = FlatShape::Word;
  using Entity = KivSharedMem::HashedEntity;

  ConfigStore(const TableDescriptor& descriptor, UnitId unit, Fenrik::Ptr<Entity> entity);

  UnitId unit() const noexcept { return unit_; }
  const Fenrik::Ptr<Entity>& entity() const noexcept { return entity_; }

  /// The key's record, or null if there is none. Valid until the next look-up.
  const ConfigRecord* look(const Word* key) const;
  /// The same for a writer, which does not verify again what it has written itself.
  const ConfigRecord* lookOwn(const Word* key);
  /// Number of records, including those in deletion; 0 if the collection is damaged.
  Word size() const;
  /// Visits a copy of each record. The visitor may change the collection.
  template <class Visit>
  void walk(Visit visit) const;

  /// Copies the first record, or the first one after `key`, which need not exist any more. False at
  /// the end.
  bool first(std::span<Word> record) const;
  bool next(const Word* key, std::span<Word> record) const;
  ConfigRecord recordOf(const Word* words) const noexcept { return {shapes_, words}; }
  std::size_t recordWords() const noexcept { return recordWords_; }

  /// The slot of a key's record, existing or to be created. Valid until the next change.
  using Place = Drift::HashedWriter::Place;
  /// Ensures that a record with this key can be stored. Throws what storing it would throw; nothing
  /// has changed then.
  Place placeFor(const Word* key);
  /// Inserts a record, or replaces the one with the same key. `logEntry` is canonical and begins
  /// with the key.
  void store(const Word* key, Place place, const Word* logEntry, const void* resourceKeys,
             LogVersion version, bool isDeleted);
  void remove(const Word* key);
  /// Make room for one record, or for so many replacements. Call before `placeFor`.
  void writeRoom(const Word* key);
  void replacementRoom(std::size_t records);
  /// Prefetches what a change of the key, `ahead` operations from now, will touch.
  void prefetch(const Word* key, bool near, unsigned ahead) const noexcept;

  /// Copies of the undamaged records that `wanted(const ConfigRecord&)` accepts. Much faster than a
  /// walk if few are accepted. `wanted` is also called for slots whose record no longer exists.
  template <class Wanted>
  std::vector<std::vector<Word>> recordsWhere(Wanted wanted);

 private:
  template <class Read, class Result>
  Result guarded(Read read, Result otherwise) const;

  const TableDescriptor::Records& shapes_;
  UnitId unit_;
  Fenrik::Ptr<Entity> entity_;
  std::size_t recordWords_;
  /// Buffer of the last record that was looked up.
  mutable std::vector<Word> read_;
  mutable ConfigRecord found_;
  /// The part of a record after its log entry: resource keys, version, flag.
  std::vector<std::byte> tail_;
};

template <class Visit>
void ConfigStore::walk(Visit visit) const {
  std::vector<Word> record(recordWords_);
  std::vector<Word> key(shapes_.key.words());
  for (bool more = first(record); more; more = next(key.data(), record)) {
    shapes_.key.toWords(record.data(), key.data());
    visit(recordOf(record.data()));
  }
}

template <class Wanted>
std::vector<std::vector<ConfigStore::Word>> ConfigStore::recordsWhere(Wanted wanted) {
  return entity_->writer().recordsWhere([&](const std::byte* record) {
    return wanted(recordOf(reinterpret_cast<const Word*>(record)));
  });
}

}  // namespace Asic
