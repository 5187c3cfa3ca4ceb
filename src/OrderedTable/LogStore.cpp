#include "OrderedTable/LogStore.h"

#include <cstring>

#include "Fenrik/Exception.h"

namespace Asic {

namespace {

template <class T>
T valueAt(const LogRecord::Word* words, std::size_t offset) noexcept {
  T value;
  std::memcpy(&value, reinterpret_cast<const std::byte*>(words) + offset, sizeof value);
  return value;
}

}  // namespace

EntryFlags LogRecord::flags() const noexcept {
  return EntryFlags(valueAt<std::uint8_t>(words_, LogRecordLayout::kFlags));
}

UnitId LogRecord::unitId() const noexcept {
  return UnitId(valueAt<std::uint16_t>(words_, LogRecordLayout::kUnit));
}

LogStore::LogStore(const TableDescriptor& descriptor, Fenrik::Ptr<Entity> entity)
    : shapes_(descriptor.records),
      entity_(std::move(entity)),
      read_((shapes_.logSize + sizeof(Word) - 1) / sizeof(Word)),
      found_(read_.data()) {}

const LogRecord* LogStore::look(LogVersion version) const {
  try {
    const auto read = entity_->view().find(version.value(), read_);
    return read == Drift::DenseRead::found ? &found_ : nullptr;
  } catch (const Fenrik::CorruptionDetectedException& e) {
    entity_->damage().doCorruptionDetected(e.msg());
    return nullptr;
  }
}

const LogRecord* LogStore::from(LogVersion version) const {
  try {
    Word at = version.value();
    return entity_->view().findFrom(at, read_) ? &found_ : nullptr;
  } catch (const Fenrik::CorruptionDetectedException& e) {
    entity_->damage().doCorruptionDetected(e.msg());
    return nullptr;
  }
}

void LogStore::append(LogVersion version, EntryFlags flags, UnitId unit, const Word* logEntry) {
  const std::uint64_t number = version.value();
  const std::uint8_t kind = flags.value();
  const std::uint16_t ofUnit = unit.value();
  const Drift::Piece pieces[] = {
      {LogRecordLayout::kVersion, &number, sizeof number},
      {LogRecordLayout::kFlags, &kind, sizeof kind},
      {LogRecordLayout::kUnit, &ofUnit, sizeof ofUnit},
      {LogRecordLayout::kLogEntry, logEntry, shapes_.logEntry.size},
  };
  entity_->writer().set(number, pieces);
}

void LogStore::remove(LogVersion version) { entity_->writer().remove(version.value()); }

void LogStore::removeThrough(LogVersion version) {
  entity_->writer().removeThrough(version.value());
}

void LogStore::makeRoom(Word records) { entity_->writer().makeRoom(records); }

void LogStore::prefetch(unsigned ahead) const noexcept { entity_->writer().prefetch(ahead); }

}  // namespace Asic
