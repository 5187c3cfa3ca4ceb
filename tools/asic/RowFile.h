#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "Drift/HashedCollection.h"
#include "tables/TableKind.h"

namespace SimAsic {

/// Rows of equal size by the key with which they begin, in a file: the chip's memory, which
/// survives the process that programs it. At every instruction a row is whole or absent.
///
/// Threads: one. One process at a time.
class RowFile {
 public:
  using Word = Tables::Word;
  using Words = Tables::Words;

  /// Makes the file, or takes it over. Throws `Drift::MountException`.
  RowFile(const Drift::Directory& directory, const std::string& path,
          const Drift::Geometry& geometry);

  /// The file was absent or unusable: the chip has come up anew.
  bool fresh() const noexcept { return file_->stage() != Drift::MountStage::ok; }

  void write(Words row) { writer_.set(row); }
  bool remove(Words key) { return writer_.remove(key); }
  void clear() { writer_.removeAll(); }

  /// The row of the key, which holds until the next call; nothing if there is none.
  std::optional<Words> find(Words key) const;
  Word size() const { return writer_.view().size(); }
  void walk(const std::function<void(Words)>& visit) const;

  /// A number for the owner, stored with the rows.
  Word note() const noexcept { return note_.value(); }
  void noteIs(Word value) noexcept { note_.set(value); }

 private:
  std::unique_ptr<Drift::DriftFile> file_;
  Drift::HashedWriter writer_;
  Drift::CheckedWordWriter note_;
  mutable std::vector<Word> found_;
};

}  // namespace SimAsic
