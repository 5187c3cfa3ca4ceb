#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "Drift/DenseCollection.h"
#include "Drift/HashedCollection.h"
#include "Support/TempDir.h"

/// What the tests of death and concurrency share: records that prove themselves, a model of a
/// collection, and one face for the two layouts. Nothing here uses the test framework, because most
/// of it runs in processes that are killed: what is wrong is thrown as `Fault`.
namespace DriftTest {

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

struct Fault : std::runtime_error {
  using std::runtime_error::runtime_error;
};

template <class... Args>
[[noreturn]] void fault(fmt::format_string<Args...> text, Args&&... args) {
  throw Fault(fmt::format(text, std::forward<Args>(args)...));
}

using Support::TempDir;

struct Shape {
  Format::Layout layout;
  std::uint32_t recordSize;
  Word capacity;

  bool dense() const { return layout == Format::Layout::dense; }
  /// Keys of one word and of two, as the nine tables have them.
  std::uint32_t keySize() const { return dense() ? 8 : recordSize == 124 ? 12 : 4; }
  std::size_t keyWords() const { return Format::paddedSize(keySize()) / sizeof(Word); }
  std::size_t recordWords() const { return Format::paddedSize(recordSize) / sizeof(Word); }
  Drift::Geometry geometry() const {
    return {layout, keySize(), recordSize, capacity, "Record", "table"};
  }
  std::string name() const {
    return fmt::format("{} {} of {}", dense() ? "dense" : "hashed", recordSize, capacity);
  }
};

inline constexpr std::string_view kEntity = "table";

inline std::string pathIn(const std::string& directory) {
  return directory + "/" + Drift::Directory::fileNameOf(kEntity);
}
inline bool exists(const std::string& directory) {
  return ::access(pathIn(directory).c_str(), F_OK) == 0;
}

/// Fills a record: its key, its generation, and words that follow from both and from their place.
inline Word contentOf(Word key, Word generation, std::size_t place) {
  const Word mixed = (key * 0x9e3779b97f4a7c15 + generation) * 0xbf58476d1ce4e5b9 + place;
  return (mixed ^ (mixed >> 29)) * 0x94d049bb133111eb;
}

inline Word secondKeyWord(Word key) { return (key ^ 0x5a5a) & 0xffffffff; }

inline void fillRecord(std::span<Word> record, std::size_t keyWords, Word key, Word generation) {
  record[0] = key;
  if (keyWords == 2) record[1] = secondKeyWord(key);
  record[keyWords] = generation;
  for (std::size_t i = keyWords + 1; i < record.size(); ++i) {
    record[i] = contentOf(key, generation, i);
  }
}

/// The generation of a record that is whole and of this key; a fault otherwise.
inline Word generationOf(std::span<const Word> record, std::size_t keyWords, Word key) {
  const Word generation = record[keyWords];
  if (record[0] != key) fault("key {} gave the record of {}", key, record[0]);
  if (keyWords == 2 && record[1] != secondKeyWord(key)) fault("key {} is mixed", key);
  for (std::size_t i = keyWords + 1; i < record.size(); ++i) {
    if (record[i] != contentOf(key, generation, i)) {
      fault("key {}, generation {}: word {} of {} is of another record", key, generation, i,
            record.size());
    }
  }
  return generation;
}

/// Generation by key: the model of a collection.
using Contents = std::map<Word, Word>;

struct Step {
  enum class Kind : Word { set, remove, removeAll };
  Kind kind;
  Word key = 0;
  Word generation = 0;
};
using Steps = std::vector<Step>;

inline Step set(Word key, Word generation = 1) { return {Step::Kind::set, key, generation}; }
inline Step remove(Word key) { return {Step::Kind::remove, key}; }
inline Step removeAll() { return {Step::Kind::removeAll}; }

inline Contents after(Contents contents, const Step& step) {
  switch (step.kind) {
    case Step::Kind::set:
      contents[step.key] = step.generation;
      break;
    case Step::Kind::remove:
      contents.erase(step.key);
      break;
    case Step::Kind::removeAll:
      contents.clear();
      break;
  }
  return contents;
}

inline Contents after(Contents contents, std::span<const Step> steps) {
  for (const Step& step : steps) contents = after(std::move(contents), step);
  return contents;
}

/// All that a view gives, read in each way that there is.
struct Seen {
  Contents contents;
  Word size;
};

inline std::array<Word, 2> keyOf(Word key) { return {key, secondKeyWord(key)}; }

/// At a collection that stands still: the walk, the search for each of the keys below `keys` and
/// the size must agree.
inline Seen readAll(const Drift::HashedView& view, Word keys) {
  Seen seen{{}, view.size()};
  const std::size_t keyWords = view.keyWords();
  std::vector<Word> record(view.recordWords());
  Drift::WalkPosition position;
  while (view.next(position, Drift::KeyWords(record).first(keyWords), record)) {
    const Word key = record[0];
    if (!seen.contents.emplace(key, generationOf(record, keyWords, key)).second) {
      fault("the walk visits key {} twice", key);
    }
  }
  for (Word key = 0; key < keys; ++key) {
    const auto words = keyOf(key);
    const bool found = view.find(Drift::KeyWords(words).first(keyWords), record);
    const auto walked = seen.contents.find(key);
    if (found != (walked != seen.contents.end())) fault("find and walk differ at key {}", key);
    if (found && generationOf(record, keyWords, key) != walked->second) {
      fault("find and walk give different records of key {}", key);
    }
  }
  return seen;
}

inline Seen readAll(const Drift::DenseView& view, Word) {
  Seen seen{{}, view.size()};
  std::vector<Word> record(view.recordWords());
  const auto window = view.window();
  for (Word version = 0; view.findFrom(version, record); ++version) {
    seen.contents[version] = generationOf(record, 1, version);
  }
  const Word begin = window.first - std::min<Word>(window.first, 3);
  for (Word version = begin; version < window.next + 3; ++version) {
    const auto found = view.find(version, record);
    const auto expected = seen.contents.contains(version) ? Drift::DenseRead::found
                          : version < window.next         ? Drift::DenseRead::gone
                                                          : Drift::DenseRead::notYet;
    if (found != expected) fault("find and walk differ at version {}", version);
    if (found == Drift::DenseRead::found) (void)generationOf(record, 1, version);
  }
  return seen;
}

/// A writer of either layout.
class Store {
 public:
  Store(const std::string& directory, const Shape& shape)
      : shape_(shape), record_(shape.recordWords()) {
    const Drift::Directory opened(directory, Drift::Directory::Access::write);
    file_ = Drift::DriftFile::openForWriting(opened, kEntity, shape.geometry(), {});
    if (shape.dense()) {
      dense_.emplace(*file_);
    } else {
      hashed_.emplace(*file_);
    }
    if (file_->reason() != "") fault("{}", file_->reason().view());
    if (hashed_ && hashed_->dropped() != 0) fault("{} words were dropped", hashed_->dropped());
  }

  /// Fills the record, which `perform` then stores: apart, so that a stepper need not step it.
  void prepare(const Step& step) {
    if (step.kind == Step::Kind::set) {
      fillRecord(record_, shape_.keyWords(), step.key, step.generation);
    }
  }
  void perform(const Step& step) {
    if (dense_) {
      perform(*dense_, step, step.key);
    } else {
      const auto words = keyOf(step.key);
      perform(*hashed_, step, Drift::KeyWords(words).first(shape_.keyWords()));
    }
  }
  void apply(const Step& step) {
    prepare(step);
    perform(step);
  }
  void apply(const Steps& steps) {
    for (const Step& step : steps) apply(step);
  }

  Seen read(Word keys) const {
    return dense_ ? readAll(dense_->view(), keys) : readAll(hashed_->view(), keys);
  }
  const Drift::DriftFile& file() const { return *file_; }
  const Shape& shape() const { return shape_; }
  Word next() const { return dense_ ? dense_->next() : 0; }

 private:
  template <class Writer, class Key>
  void perform(Writer& writer, const Step& step, Key key) {
    switch (step.kind) {
      case Step::Kind::set:
        return writer.set(record_);
      case Step::Kind::remove:
        (void)writer.remove(key);
        return;
      case Step::Kind::removeAll:
        return writer.removeAll();
    }
  }

  Shape shape_;
  std::vector<Word> record_;
  std::unique_ptr<Drift::DriftFile> file_;
  std::optional<Drift::HashedWriter> hashed_;
  std::optional<Drift::DenseWriter> dense_;
};

/// A reader of either layout.
class Reader {
 public:
  explicit Reader(const std::string& directory) {
    const Drift::Directory opened(directory, Drift::Directory::Access::read);
    file_ = Drift::DriftFile::openForReading(opened, kEntity, nullptr);
    if (file_->header().layout == Format::Layout::dense) {
      dense_.emplace(*file_);
    } else {
      hashed_.emplace(*file_);
    }
  }
  Seen read(Word keys) const { return dense_ ? readAll(*dense_, keys) : readAll(*hashed_, keys); }

 private:
  std::unique_ptr<Drift::DriftFile> file_;
  std::optional<Drift::HashedView> hashed_;
  std::optional<Drift::DenseView> dense_;
};

/// What may be there while one step is in flight.
struct Either {
  Contents before;
  Contents after;

  /// True if it is the new state, false if the old one; a fault if it is neither.
  bool isNew(const Seen& seen) const {
    if (seen.size != before.size() && seen.size != after.size()) {
      fault("size {}, but there were {} and are {} records", seen.size, before.size(),
            after.size());
    }
    if (seen.contents == before) return false;
    if (seen.contents == after) return true;
    std::string text = "neither old nor new:";
    for (const auto& [key, generation] : seen.contents) {
      text += fmt::format(" {}:{}", key, generation);
    }
    throw Fault(text);
  }
};

inline void expectExactly(const Seen& seen, const Contents& contents) {
  (void)Either{contents, contents}.isNew(seen);
}

/// The successor of a writer that died goes on: what it adds, replaces and removes is there or not,
/// and counted.
inline void goOn(Store& store, Contents contents, Word keys) {
  const Word last = contents.empty() ? 0 : contents.rbegin()->first;
  const Word fresh = std::max({last + 1, keys, store.next()});
  Steps steps = {set(fresh, 1), set(fresh, 2), remove(fresh)};
  if (!contents.empty()) {
    const Word key = std::next(contents.begin(), static_cast<long>(contents.size() / 2))->first;
    steps = {set(fresh, 1),  set(key, 1000), remove(key),
             set(key, 1001), set(fresh, 2),  remove(contents.begin()->first),
             remove(fresh)};
  }
  for (const Step& step : steps) {
    store.apply(step);
    contents = after(std::move(contents), step);
    expectExactly(store.read(keys), contents);
  }
}

/// Copies a file, holes and what was never written as holes; what is not there is not there
/// afterwards.
inline void copyFile(const std::string& from, const std::string& to) {
  const Drift::Descriptor in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  ::unlink(to.c_str());
  if (!in.valid()) return;
  const Drift::Descriptor out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  struct stat facts {};
  bool good = out.valid() && ::fstat(in.get(), &facts) == 0 &&
              ::fchmod(out.get(), facts.st_mode) == 0 && ::ftruncate(out.get(), facts.st_size) == 0;
  std::array<char, Format::kPageSize> page;
  for (off_t at = 0; good && (at = ::lseek(in.get(), at, SEEK_DATA)) >= 0;) {
    for (const off_t end = ::lseek(in.get(), at, SEEK_HOLE); good && at < end;) {
      const ssize_t size = ::pread(in.get(), page.data(), page.size(), at);
      good = size > 0;
      const bool written = std::ranges::any_of(page, [](char byte) { return byte != 0; });
      if (good && written) {
        good = ::pwrite(out.get(), page.data(), static_cast<std::size_t>(size), at) == size;
      }
      at += size;
    }
  }
  if (!good) fault("cannot copy {}", from);
}

inline void copyCollection(const std::string& from, const std::string& to) {
  copyFile(pathIn(from), pathIn(to));
}

}  // namespace DriftTest
