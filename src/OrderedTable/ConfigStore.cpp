#include "OrderedTable/ConfigStore.h"

#include <algorithm>
#include <cstring>

#include "Fenrik/Exception.h"

namespace Asic {

LogVersion ConfigRecord::logVersion() const noexcept {
  std::uint64_t version = 0;
  std::memcpy(&version, bytes() + shapes_->logVersionOffset, sizeof version);
  return LogVersion(version);
}

bool ConfigRecord::isDeleted() const noexcept {
  return (bytes()[shapes_->isDeletedOffset] & std::byte{1}) != std::byte{0};
}

bool ConfigRecord::isDefault() const noexcept {
  if (logVersion() != LogVersion(0) || isDeleted()) return false;
  const auto* const entry = static_cast<const std::byte*>(shapes_->defaultEntry);
  return shapes_->logEntry.same(words_, entry) &&
         shapes_->resourceKeys.same(resourceKeys(), entry + shapes_->resourceKeysInEntry);
}

bool ConfigRecord::needsResources() const noexcept {
  return std::any_of(resourceKeys(), resourceKeys() + shapes_->resourceKeys.size,
                     [](std::byte byte) { return byte != std::byte{0}; });
}

void ConfigRecord::entryTo(void* entry) const noexcept {
  shapes_->logEntry.fromWords(words_, entry);
  if (shapes_->resourceKeys.empty()) return;
  std::memcpy(static_cast<std::byte*>(entry) + shapes_->resourceKeysInEntry, resourceKeys(),
              shapes_->resourceKeys.size);
}

ConfigStore::ConfigStore(const TableDescriptor& descriptor, UnitId unit, Fenrik::Ptr<Entity> entity)
    : shapes_(descriptor.records),
      unit_(unit),
      entity_(std::move(entity)),
      recordWords_((shapes_.configSize + sizeof(Word) - 1) / sizeof(Word)),
      read_(recordWords_),
      found_(shapes_, read_.data()),
      tail_(shapes_.configSize - shapes_.logEntry.size) {}

template <class Read, class Result>
Result ConfigStore::guarded(Read read, Result otherwise) const {
  try {
    return read();
  } catch (const Fenrik::CorruptionDetectedException& e) {
    entity_->damage().doCorruptionDetected(e.msg());
    return otherwise;
  }
}

const ConfigRecord* ConfigStore::look(const Word* key) const {
  const auto read = [&] { return entity_->view().find({key, shapes_.key.words()}, read_); };
  return guarded(read, false) ? &found_ : nullptr;
}

const ConfigRecord* ConfigStore::lookOwn(const Word* key) {
  Drift::HashedWriter& writer = entity_->writer();
  const auto read = [&] { return writer.findRecord({key, shapes_.key.words()}, read_); };
  const bool found = guarded(read, false);
  entity_->noteDropped();
  return found ? &found_ : nullptr;
}

ConfigStore::Word ConfigStore::size() const {
  return guarded([&] { return entity_->view().size(); }, Word{0});
}

bool ConfigStore::first(std::span<Word> record) const {
  Drift::WalkPosition position;
  return guarded([&] { return entity_->view().next(position, {}, record); }, false);
}

bool ConfigStore::next(const Word* key, std::span<Word> record) const {
  const Drift::KeyWords after(key, shapes_.key.words());
  const auto read = [&] {
    Drift::WalkPosition position = entity_->view().positionOf(after);
    return entity_->view().next(position, after, record);
  };
  return guarded(read, false);
}

ConfigStore::Place ConfigStore::placeFor(const Word* key) {
  const Place place = entity_->writer().placeFor({key, shapes_.key.words()});
  entity_->noteDropped();
  return place;
}

void ConfigStore::store(const Word* key, Place place, const Word* logEntry,
                        const void* resourceKeys, LogVersion version, bool isDeleted) {
  const std::size_t entrySize = shapes_.logEntry.size;
  const auto inTail = [&](std::size_t offset) { return tail_.data() + (offset - entrySize); };
  if (!shapes_.resourceKeys.empty()) {
    std::memcpy(inTail(shapes_.resourceKeysOffset), resourceKeys, shapes_.resourceKeys.size);
  }
  const std::uint64_t number = version.value();
  std::memcpy(inTail(shapes_.logVersionOffset), &number, sizeof number);
  *inTail(shapes_.isDeletedOffset) = std::byte{isDeleted};
  const Drift::Piece pieces[] = {{0, logEntry, entrySize}, {entrySize, tail_.data(), tail_.size()}};
  Drift::HashedWriter& writer = entity_->writer();
  if (!writer.holds(place)) place = placeFor(key);
  writer.set(place, pieces);
}

void ConfigStore::remove(const Word* key) {
  entity_->writer().remove({key, shapes_.key.words()});
  entity_->noteDropped();
}

/// Assumes that the key is new. Only when the collection is full does it matter whether it exists.
void ConfigStore::writeRoom(const Word* key) {
  Drift::HashedWriter& writer = entity_->writer();
  const bool isNew = !writer.full() || !writer.lookUp({key, shapes_.key.words()}).found();
  writer.makeRoom(isNew ? 1 : 0, isNew ? 0 : 1);
}

void ConfigStore::replacementRoom(std::size_t records) { entity_->writer().makeRoom(0, records); }

void ConfigStore::prefetch(const Word* key, bool near, unsigned ahead) const noexcept {
  const Drift::HashedWriter& writer = entity_->writer();
  using Prefetch = Drift::HashedWriter::Prefetch;
  // A table that uses resources reads the record that it replaces.
  const Prefetch replaced = shapes_.resourceKeys.empty() ? Prefetch::key : Prefetch::record;
  writer.prefetch({key, shapes_.key.words()}, near ? replaced : Prefetch::index);
  if (near) writer.prefetchSlot(ahead);
}

}  // namespace Asic
