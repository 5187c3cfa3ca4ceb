#pragma once

#include <functional>

#include "Drift/Specimen.h"

namespace Drift::Specimens {

/// Gives a number below its argument: a random generator, or the next bytes of a fuzzer.
using Choose = std::function<Word(Word)>;

/// One collection beside a `std::map` that goes through the same. Whatever differs is thrown as
/// `Fault`.
class ModelRun {
 public:
  ModelRun(const Geometry& geometry, Choose choose);

  /// One operation, chosen: insert, replace, remove, find, rarely a walk, a removal of everything
  /// or a new mount.
  void step();
  /// Everything against everything, by this process and through a mapping of a reader.
  void check();

  Word fulls() const noexcept { return fulls_; }
  Word tableSwitches() const;
  Word highest() const noexcept { return next_; }

 private:
  bool dense() const noexcept { return isDense(geometry_); }
  void mount();
  Word pickNumber();
  bool fits(Word number) const;
  void set(Word number);
  void store(const Record& key, const Record& record);
  void remove(Word number);
  void removeThrough(Word version);
  void makeRoom(Word count);
  void removeAll();
  void find(Word number);
  void walkFrom(const DriftFile& file, Word number);

  Geometry geometry_;
  Choose choose_;
  TempDir dir_;
  Directory directory_{dir_.path(), Directory::Access::write};
  std::unique_ptr<DriftFile> file_;
  std::unique_ptr<AnyWriter> writer_;
  Model model_;
  Word salt_ = 0;
  /// Dense: the version behind the newest that was stored.
  Word next_ = 1;
  Word fulls_ = 0;
};

}  // namespace Drift::Specimens
