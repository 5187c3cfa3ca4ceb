#pragma once

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
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

/// Collections of either layout, their model and what may be seen in them. No test framework: most
/// of it runs in fuzzers and in processes that are killed; what is wrong is thrown as `Fault`.
namespace Drift::Specimens {

using Support::TempDir;

using Record = std::vector<Word>;
/// Records by the words of their key.
using Model = std::map<Record, Record>;

struct Fault : std::runtime_error {
  using std::runtime_error::runtime_error;
};
template <class... Args>
[[noreturn]] void fault(fmt::format_string<Args...> text, Args&&... args) {
  throw Fault(fmt::format(text, std::forward<Args>(args)...));
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  std::string bytes(in ? static_cast<std::size_t>(in.tellg()) : 0, '\0');
  in.seekg(0).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

inline void writeFile(const std::string& path, const std::string& bytes, mode_t mode = 0640) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  ::chmod(path.c_str(), mode);
}

/// Copies a file, holes and what was never written as holes; what is not there is not there
/// afterwards.
inline void copyFile(const std::string& from, const std::string& to) {
  const Descriptor in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  ::unlink(to.c_str());
  if (!in.valid()) return;
  const Descriptor out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
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

/// Geometries with keys of one word and of two, as the nine tables have them.
inline Geometry hashedOf(std::uint32_t recordSize, Word capacity) {
  return {Format::Layout::hashed,
          recordSize == 124 ? 12U : 4U,
          recordSize,
          capacity,
          "Type",
          "attribute"};
}
inline Geometry denseOf(std::uint32_t recordSize, Word capacity) {
  return {Format::Layout::dense, 8, recordSize, capacity, "Type", "attribute"};
}
inline bool isDense(const Geometry& geometry) { return geometry.layout == Format::Layout::dense; }
inline std::string nameOf(const Geometry& geometry) {
  return fmt::format("{}{}Times{}", isDense(geometry) ? "Dense" : "Hashed", geometry.recordSize,
                     geometry.capacity);
}

inline std::size_t wordsOf(std::size_t bytes) { return Format::paddedSize(bytes) / sizeof(Word); }

/// The key of a number; its upper words are what a long key has in them.
inline Record keyOf(const Geometry& geometry, Word number) {
  Record key(wordsOf(geometry.keySize), 0x01020304);
  key.back() = number;
  return key;
}

/// A word of a record behind its key: its generation, then what follows from that, from the key's
/// number and from the place.
inline Word contentOf(Word number, Word generation, std::size_t behindKey) {
  if (behindKey == 0) return generation;
  const Word mixed = (number * 0x9e3779b97f4a7c15 + generation) * 0xbf58476d1ce4e5b9 + behindKey;
  return (mixed ^ (mixed >> 29)) * 0x94d049bb133111eb;
}

/// Makes a record differ from that of every other key and generation.
inline void fill(Record& record, const Record& key, Word generation) {
  std::ranges::copy(key, record.begin());
  for (std::size_t i = key.size(); i < record.size(); ++i) {
    record[i] = contentOf(key.back(), generation, i - key.size());
  }
}
inline Record recordOf(const Geometry& geometry, const Record& key, Word generation) {
  Record record(wordsOf(geometry.recordSize));
  fill(record, key, generation);
  return record;
}

/// The generation of a record that is whole; a fault otherwise.
inline Word generationOf(std::span<const Word> record, std::size_t keyWords) {
  const Word number = record[keyWords - 1];
  const Word generation = record[keyWords];
  for (std::size_t i = keyWords; i < record.size(); ++i) {
    if (record[i] == contentOf(number, generation, i - keyWords)) continue;
    fault("key {}, generation {}: word {} is of another record", number, generation, i);
  }
  return generation;
}

/// How an attempt to open something ends, if it is refused.
template <class Act>
std::optional<MountException> refusalOf(Act act) {
  try {
    act();
    return std::nullopt;
  } catch (const MountException& error) {
    return error;
  }
}

/// A writer of either layout.
struct AnyWriter {
  explicit AnyWriter(DriftFile& file) {
    if (file.header().layout == Format::Layout::dense) {
      dense = std::make_unique<DenseWriter>(file);
    } else {
      hashed = std::make_unique<HashedWriter>(file);
    }
  }
  void set(const Record& record) { dense ? dense->set(record) : hashed->set(record); }
  bool remove(const Record& key) { return dense ? dense->remove(key[0]) : hashed->remove(key); }
  void removeAll() { dense ? dense->removeAll() : hashed->removeAll(); }
  Word size() const { return dense ? dense->view().size() : hashed->view().size(); }
  Word dropped() const { return hashed ? hashed->dropped() : 0; }

  std::unique_ptr<HashedWriter> hashed;
  std::unique_ptr<DenseWriter> dense;
};

/// A reader of either layout; what it reads last is in `bytes`.
struct AnyView {
  explicit AnyView(const DriftFile& read) : file(&read), bytes(wordsOf(read.header().recordSize)) {
    if (read.header().layout == Format::Layout::dense) {
      dense.emplace(read);
    } else {
      hashed.emplace(read);
    }
  }

  DenseRead findOrWhy(const Record& key) {
    if (dense) return dense->find(key[0], bytes);
    return hashed->find(key, bytes) ? DenseRead::found : DenseRead::gone;
  }
  bool find(const Record& key) { return findOrWhy(key) == DenseRead::found; }
  void walkFrom(const Record& behind) {
    version = behind[0] + 1;
    if (hashed) position = hashed->positionOf(behind);
    after = behind;
  }
  void walkFromTheBeginning() {
    version = 0;
    position = {};
  }
  bool next() {
    if (dense ? !dense->findFrom(version, bytes) : !hashed->next(position, after, bytes)) {
      return false;
    }
    ++version;
    after.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(keyWords()));
    return true;
  }
  Word size() const { return dense ? dense->size() : hashed->size(); }
  Word keyWords() const { return dense ? 1 : hashed->keyWords(); }

  const DriftFile* file;
  std::optional<DenseView> dense;
  std::optional<HashedView> hashed;
  Record bytes;
  Word version = 0;
  WalkPosition position;
  Record after{0};  ///< the key of the last record of a walk
};

/// What a look at every record showed.
struct Sight {
  std::string complaint;  ///< something that must not be; empty if all is well
  unsigned errors = 0;    ///< named errors on the way
  Word missing = 0;       ///< records said not to be there

  bool sound() const { return complaint.empty() && errors == 0 && missing == 0; }
  std::string text() const {
    return fmt::format("'{}', {} errors, {} missing", complaint, errors, missing);
  }
};

/// Runs what may end in the named error; true if it did not.
template <class Step>
bool survives(const DriftFile& file, Sight& sight, Step step) {
  try {
    step();
    return true;
  } catch (const Fenrik::CorruptionDetectedException& error) {
    ++sight.errors;
    if (error.msg().view().find(file.path()) == std::string_view::npos) {
      sight.complaint = "an error does not name the path";
    }
    return false;
  }
}

/// Looks at every record by key, in a walk, and at keys that are not there. The number of records
/// may be that of another moment, if one is given.
inline Sight look(AnyView& view, const Model& model, std::optional<Word> otherSize = {}) {
  Sight sight;
  for (const auto& stored : model) {
    survives(*view.file, sight, [&] {
      if (!view.find(stored.first)) {
        ++sight.missing;
      } else if (view.bytes != stored.second) {
        sight.complaint = "a key gives another record than was stored";
      }
    });
  }
  Word highest = 0;
  for (const auto& [key, record] : model) highest = std::max(highest, key.back());
  for (Word number = highest - std::min<Word>(highest, 40); number < highest + 40; ++number) {
    Record key = model.empty() ? Record(view.keyWords(), 1) : model.begin()->first;
    key.back() = number;
    if (model.contains(key)) continue;
    survives(*view.file, sight, [&] {
      const DenseRead read = view.findOrWhy(key);
      if (read == DenseRead::found) sight.complaint = "a key that was never stored is found";
      if (view.dense && (read == DenseRead::notYet) != (number >= view.dense->window().next)) {
        sight.complaint = "a version is absent for a wrong reason";
      }
    });
  }
  Model seen;
  view.walkFromTheBeginning();
  const bool whole = survives(*view.file, sight, [&] {
    while (sight.complaint.empty() && view.next()) {
      const auto at = model.find(view.after);
      if (at == model.end() || at->second != view.bytes) {
        sight.complaint = "a walk gives a record that was not stored";
      }
      if (!seen.emplace(view.after, view.bytes).second)
        sight.complaint = "a walk gives a key twice";
    }
  });
  if (whole && sight.complaint.empty() && seen.size() + sight.missing < model.size()) {
    sight.complaint = "a walk leaves a record out";
  }
  survives(*view.file, sight, [&] {
    const Word size = view.size();
    if (size == otherSize) return;
    // A key may be gone and its search meet damage on its way.
    if (size > model.size() || size + sight.missing + sight.errors < model.size()) {
      sight.complaint = fmt::format("{} of {} records are counted", size, model.size());
    }
  });
  return sight;
}
inline Sight look(const DriftFile& file, const Model& model) {
  AnyView view(file);
  return look(view, model);
}

}  // namespace Drift::Specimens
