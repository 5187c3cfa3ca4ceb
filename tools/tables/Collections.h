#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Drift/DenseCollection.h"
#include "Drift/HashedCollection.h"
#include "OrderedTable/NeededEntryDrift.h"
#include "tables/TableKind.h"

namespace Tables {

/// Opens a collection of another process for reading, whatever its capacity. Throws
/// `Drift::MountException`; `wrongFormat` also for a collection of other records.
std::unique_ptr<Drift::DriftFile> openShaped(const Drift::Directory& directory,
                                             const std::string& path, const Shape& shape);

/// A mutable word of the header; nothing if both of its copies are damaged.
std::optional<Word> lineOf(const Drift::DriftFile& file, Drift::Format::Line line);

/// A collection with its entity path, open for reading.
///
/// Threads: one.
class Collection {
 public:
  Collection(const Drift::Directory& directory, std::string path, const Shape& shape)
      : path_(std::move(path)), file_(openShaped(directory, path_, shape)) {}

  const std::string& path() const noexcept { return path_; }
  const Drift::DriftFile& file() const noexcept { return *file_; }
  /// Random, chosen when the file was made: tells it from one that takes its place.
  Word seed() const noexcept { return file_->header().hashSeed; }
  std::size_t recordWords() const {
    return Drift::Format::paddedSize(file_->header().recordSize) / sizeof(Word);
  }

 private:
  std::string path_;
  std::unique_ptr<Drift::DriftFile> file_;
};

/// The configuration of one unit.
class Config : public Collection {
 public:
  Config(const Drift::Directory& directory, const TableKind& kind, Asic::UnitId unit);

  const TableKind& kind() const noexcept { return kind_; }
  Asic::UnitId unit() const noexcept { return unit_; }

  Word size() const { return view_.size(); }
  /// The record of the key; nothing if there is none. Throws
  /// `Fenrik::CorruptionDetectedException`, as all reads do.
  std::optional<ConfigRow> find(Words key) const;
  /// Calls `visit` with each record, and `damaged` with the message of each damage, after which the
  /// walk continues.
  void walk(const std::function<void(const ConfigRow&)>& visit,
            const std::function<void(const std::string&)>& damaged) const;

  /// Nothing may be read for long: the agent may give memory back.
  void rest() const { view_.rest(); }

  /// The sum of the live records' digests.
  std::uint64_t digest() const;

 private:
  const TableKind& kind_;
  Asic::UnitId unit_;
  Drift::HashedView view_;
};

/// The units for which the directory has a configuration of that family.
std::vector<Asic::UnitId> configuredUnits(const Drift::Directory& directory, const TableKind& kind);

/// The units of whose rows the chip below the directory holds some.
std::vector<Asic::UnitId> programmedUnits(const Drift::Directory& directory, const TableKind& kind);

/// Whether a process has the collection open for writing. Takes no lock. False also if there is no
/// such collection.
bool isWritten(const Drift::Directory& directory, const std::string& path);

/// Walks any hashed collection; continues after damage.
void walkHashed(const Drift::DriftFile& file, const std::function<void(Words)>& visit,
                const std::function<void(const std::string&)>& damaged);

/// The shape of the collections of needed sets.
Shape neededShape();

}  // namespace Tables
