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

/// Opens another process's collection for reading, with any capacity. Throws
/// `Drift::MountException`, with stage `wrongFormat` also if the records are of another type.
std::unique_ptr<Drift::DriftFile> openShaped(const Drift::Directory& directory,
                                             const std::string& path, const Shape& shape);

/// A mutable word of the header, or nullopt if both copies are damaged.
std::optional<Word> lineOf(const Drift::DriftFile& file, Drift::Format::Line line);

/// A collection and its entity path, open for reading.
///
/// Threads: one.
class Collection {
 public:
  Collection(const Drift::Directory& directory, std::string path, const Shape& shape)
      : path_(std::move(path)), file_(openShaped(directory, path_, shape)) {}

  const std::string& path() const noexcept { return path_; }
  const Drift::DriftFile& file() const noexcept { return *file_; }
  /// Random number chosen when the file was created; distinguishes it from a replacement.
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
  /// The record with this key, or nullopt. Throws `Fenrik::CorruptionDetectedException`, as all
  /// reads do.
  std::optional<ConfigRow> find(Words key) const;
  /// Calls `visit` with each record, and `damaged` with a message for each damage, after which the
  /// walk continues.
  void walk(const std::function<void(const ConfigRow&)>& visit,
            const std::function<void(const std::string&)>& damaged) const;

  /// Call when no read may follow for some time, so that the agent can free memory.
  void rest() const { view_.rest(); }

  /// Sum of the live records' digests.
  std::uint64_t digest() const;

 private:
  const TableKind& kind_;
  Asic::UnitId unit_;
  Drift::HashedView view_;
};

/// Units with a configuration of the family in the directory.
std::vector<Asic::UnitId> configuredUnits(const Drift::Directory& directory, const TableKind& kind);

/// Units with rows of the family in the chip below the directory.
std::vector<Asic::UnitId> programmedUnits(const Drift::Directory& directory, const TableKind& kind);

/// Whether a process has the collection open for writing. Takes no lock. False if the collection
/// does not exist.
bool isWritten(const Drift::Directory& directory, const std::string& path);

/// Walks any hashed collection, continuing after damage.
void walkHashed(const Drift::DriftFile& file, const std::function<void(Words)>& visit,
                const std::function<void(const std::string&)>& damaged);

/// Shape of the collections of needed sets.
Shape neededShape();

}  // namespace Tables
