#pragma once

#include "Support/Collections.h"

/// What the tests of death share: steps that a collection and its model take alike, and what may be
/// there when a writer died in one.
namespace DriftTest {

using namespace Drift::Specimens;
using Drift::Geometry;
using Drift::Word;
namespace Format = Drift::Format;

/// Built with a sanitizer: forks and steps take ten times as long.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kInstrumented = true;
#elif defined(__has_feature)
inline constexpr bool kInstrumented = __has_feature(address_sanitizer);
#else
inline constexpr bool kInstrumented = false;
#endif

inline constexpr std::string_view kEntity = "table";

inline std::string pathIn(const std::string& directory) {
  return directory + "/" + Drift::Directory::fileNameOf(kEntity);
}
inline bool exists(const std::string& directory) {
  return ::access(pathIn(directory).c_str(), F_OK) == 0;
}
inline void copyCollection(const std::string& from, const std::string& to) {
  copyFile(pathIn(from), pathIn(to));
}

struct Step {
  enum class Kind : Word { set, remove, removeThrough, removeAll };
  Kind kind;
  Word key = 0;
  Word generation = 0;
};
using Steps = std::vector<Step>;

inline Step set(Word key, Word generation = 1) { return {Step::Kind::set, key, generation}; }
inline Step remove(Word key) { return {Step::Kind::remove, key}; }
inline Step removeThrough(Word version) { return {Step::Kind::removeThrough, version}; }
inline Step removeAll() { return {Step::Kind::removeAll}; }
inline Steps setAll(Word from, Word to) {
  Steps steps;
  for (Word key = from; key <= to; ++key) steps.push_back(set(key));
  return steps;
}

inline Model after(const Geometry& geometry, Model model, std::span<const Step> steps) {
  for (const Step& step : steps) {
    const Record key = keyOf(geometry, step.key);
    if (step.kind == Step::Kind::set) model[key] = recordOf(geometry, key, step.generation);
    if (step.kind == Step::Kind::remove) model.erase(key);
    if (step.kind == Step::Kind::removeThrough) {
      model.erase(model.begin(), model.upper_bound(key));
    }
    if (step.kind == Step::Kind::removeAll) model.clear();
  }
  return model;
}
inline Model after(const Geometry& geometry, Model model, const Step& step) {
  return after(geometry, std::move(model), std::span(&step, 1));
}

/// A writer whose predecessor lost nothing.
class Store {
 public:
  Store(const std::string& directory, const Geometry& geometry)
      : geometry_(geometry),
        file_(Drift::DriftFile::openForWriting({directory, Drift::Directory::Access::write},
                                               kEntity, geometry, {})),
        writer_(*file_) {
    if (file_->reason() != "") fault("{}", file_->reason().view());
    if (writer_.dropped() != 0) fault("{} words were dropped", writer_.dropped());
  }

  /// Makes what `perform` then stores: apart, so that a stepper need not step it.
  void prepare(const Step& step) {
    key_ = keyOf(geometry_, step.key);
    record_ = recordOf(geometry_, key_, step.generation);
  }
  void perform(const Step& step) {
    if (step.kind == Step::Kind::set) writer_.set(record_);
    if (step.kind == Step::Kind::remove) (void)writer_.remove(key_);
    if (step.kind == Step::Kind::removeThrough) writer_.dense->removeThrough(step.key);
    if (step.kind == Step::Kind::removeAll) writer_.removeAll();
  }
  void apply(std::span<const Step> steps) {
    for (const Step& step : steps) {
      prepare(step);
      perform(step);
    }
  }

  AnyView view() const { return AnyView(*file_); }
  Word line(Format::Line line) const {
    return Drift::CheckedWord(file_->data(), line).load().value();
  }
  /// Above all that were ever stored, and of a hashed collection above all keys that are in use.
  Word fresh() const { return isDense(geometry_) ? writer_.dense->next() : 2 * geometry_.capacity; }
  const Geometry& geometry() const { return geometry_; }

 private:
  Geometry geometry_;
  std::unique_ptr<Drift::DriftFile> file_;
  AnyWriter writer_;
  Record key_, record_;
};

struct Reader {
  explicit Reader(const std::string& directory)
      : file(Drift::DriftFile::openForReading({directory, Drift::Directory::Access::read}, kEntity,
                                              nullptr)),
        view(*file) {}

  std::unique_ptr<Drift::DriftFile> file;
  AnyView view;
};

/// What may be there while one step is in flight.
struct Either {
  Model before, after;

  /// True if it is the new state, false if the old one; a fault if it is neither.
  bool isNew(AnyView view) const {
    const Sight old = look(view, before, after.size());
    if (old.sound()) return false;
    const Sight now = look(view, after, before.size());
    if (now.sound()) return true;
    fault("neither old nor new: {}; {}", old.text(), now.text());
  }
};

inline void expectExactly(AnyView view, const Model& model) {
  const Sight sight = look(view, model);
  if (!sight.sound()) fault("{}", sight.text());
}

/// The successor of a writer that died goes on: what it adds, replaces and removes is there or not,
/// and counted.
inline void goOn(Store& store, Model model) {
  const Word last = model.empty() ? 0 : model.rbegin()->first.back();
  const Word fresh = std::max(last + 1, store.fresh());
  Steps steps = {set(fresh, 1), set(fresh, 2), remove(fresh)};
  if (!model.empty()) {
    const Word key = std::next(model.begin(), static_cast<long>(model.size() / 2))->first.back();
    steps = {set(fresh, 1),  set(key, 1000), remove(key),
             set(key, 1001), set(fresh, 2),  remove(model.begin()->first.back()),
             remove(fresh)};
  }
  for (const Step& step : steps) {
    store.apply({&step, 1});
    model = after(store.geometry(), std::move(model), step);
    expectExactly(store.view(), model);
  }
}

/// A successor takes over what was left, finds one of the two and goes on; true if it is the new.
inline bool takeOver(const std::string& left, const Geometry& geometry, const Either& either) {
  Store successor(left, geometry);
  const bool isNew = either.isNew(successor.view());
  const Model& model = isNew ? either.after : either.before;
  expectExactly(successor.view(), model);
  goOn(successor, model);
  return isNew;
}

}  // namespace DriftTest
