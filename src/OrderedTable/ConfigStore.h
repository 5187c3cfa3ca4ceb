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

/// A record of a unit's configuration, read: whole words of any content.
class ConfigRecord {
 public:
  using Word = FlatShape::Word;

  ConfigRecord(const TableDescriptor::Records& shapes, const Word* words) noexcept
      : shapes_(&shapes), words_(words) {}

  /// The log entry begins the record, and its key begins that.
  const Word* words() const noexcept { return words_; }
  LogVersion logVersion() const noexcept;
  bool isDeleted() const noexcept;
  /// Whether it says the same as a record that nobody has filled in.
  bool isDefault() const noexcept;
  const std::byte* resourceKeys() const noexcept { return bytes() + shapes_->resourceKeysOffset; }
  /// Fills a client's entry, which is a default one.
  void entryTo(void* entry) const noexcept;

 private:
  const std::byte* bytes() const noexcept { return reinterpret_cast<const std::byte*>(words_); }

  const TableDescriptor::Records* shapes_;
  const Word* words_;
};

/// The configuration of one unit: what is configured now, and since which version.
///
/// Every read goes through here, and so does what follows from damage: it is noted with the
/// collection, and reads as nothing.
class ConfigStore {
 public:
  using Word = FlatShape::Word;
  using Entity = KivSharedMem::HashedEntity;

  ConfigStore(const TableDescriptor& descriptor, UnitId unit, Fenrik::Ptr<Entity> entity);

  UnitId unit() const noexcept { return unit_; }
  const Fenrik::Ptr<Entity>& entity() const noexcept { return entity_; }

  /// The record of a key, null if there is none. It holds until the next look-up.
  const ConfigRecord* look(const Word* key) const;
  /// Number of records, those in deletion included; 0 if that cannot be read.
  Word size() const;
  /// Walks the records; each is a copy, and the visitor may change the collection.
  template <class Visit>
  void walk(Visit visit) const;

  /// The first record, or the first one behind a key that need not be there any more.
  bool first(std::span<Word> record) const;
  bool next(const Word* key, std::span<Word> record) const;
  ConfigRecord recordOf(const Word* words) const noexcept { return {shapes_, words}; }
  std::size_t recordWords() const noexcept { return recordWords_; }

  /// Where a record of a key is or will be. It holds until the next change.
  using Place = Drift::HashedWriter::Place;
  /// Sees to it that a record of the key can be stored: throws what storing it would throw, with
  /// nothing changed.
  Place placeFor(const Word* key);
  /// Inserts a record, or replaces the one of its key. `logEntry` is canonical and begins with it.
  void store(const Word* key, Place place, const Word* logEntry, const void* resourceKeys,
             LogVersion version, bool isDeleted);
  void remove(const Word* key);
  /// Ask for room before a place is sought.
  void writeRoom(const Word* key);
  void replacementRoom(std::size_t records);
  /// Fetches what a change of the key after `ahead` others will touch.
  void prefetch(const Word* key, bool near, unsigned ahead) const noexcept;

  /// Copies of the records that `wanted(const ConfigRecord&)` accepts, damaged ones left out. Much
  /// quicker than a walk where few are accepted; it is asked about records that have gone, too.
  template <class Wanted>
  std::vector<std::vector<Word>> recordsWhere(Wanted wanted);

 private:
  template <class Read, class Result>
  Result guarded(Read read, Result otherwise) const;

  const TableDescriptor::Records& shapes_;
  UnitId unit_;
  Fenrik::Ptr<Entity> entity_;
  std::size_t recordWords_;
  mutable std::vector<Word> read_;
  mutable ConfigRecord found_;
  /// What follows the log entry in a record.
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
