#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "Drift/HashedCollection.h"
#include "tables/TableKind.h"

namespace SimAsic {

/// Rows of equal size in a file, identified by the key at their start: the chip's memory, which
/// outlives the process that programs it. At every instruction a row is complete or absent.
///
/// Threads: one. Processes: one at a time.
class RowFile {
 public:
  using Word = Tables::Word;
  using Words = Tables::Words;

  /// Creates the file or takes it over. Throws `Drift::MountException`.
  RowFile(const Drift::Directory& directory, const std::string& path,
          const Drift::Geometry& geometry);

  /// Whether the file was absent or unusable, so that the chip starts empty.
  bool fresh() const noexcept { return file_->stage() != Drift::MountStage::ok; }

  void write(Words row) { writer_.set(row); }
  bool remove(Words key) { return writer_.remove(key); }
  void clear() { writer_.removeAll(); }

  /// The row with this key, valid until the next call; or nullopt.
  std::optional<Words> find(Words key) const;
  Word size() const { return writer_.view().size(); }
  void walk(const std::function<void(Words)>& visit) const;

  /// A number that the owner stores with the rows.
  Word note() const noexcept { return note_.value(); }
  void noteIs(Word value) noexcept { note_.set(value); }

 private:
  std::unique_ptr<Drift::DriftFile> file_;
  Drift::HashedWriter writer_;
  Drift::CheckedWordWriter note_;
  mutable std::vector<Word> found_;
};

}  // namespace SimAsic
