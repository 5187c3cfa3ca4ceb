#include "Drift/Specimen.h"

#include <optional>

namespace Drift::Specimens {

AnyWriter::AnyWriter(DriftFile& file) {
  if (file.header().layout == Format::Layout::dense) {
    dense = std::make_unique<DenseWriter>(file);
  } else {
    hashed = std::make_unique<HashedWriter>(file);
  }
}

void AnyWriter::set(const Record& record) { dense ? dense->set(record) : hashed->set(record); }

bool AnyWriter::remove(const Record& key) {
  return dense ? dense->remove(key[0]) : hashed->remove(key);
}

void AnyWriter::removeAll() { dense ? dense->removeAll() : hashed->removeAll(); }

Specimen makeSpecimen(const Geometry& geometry, Word count) {
  Specimen made{geometry, {}, {}, 0};
  const TempDir dir;
  const Directory directory(dir.path(), Directory::Access::write);
  const auto file = DriftFile::openForWriting(directory, "specimen", geometry, {});
  AnyWriter writer(*file);
  const auto put = [&](Word number, Word salt) {
    const Record key = keyOf(geometry, number);
    writer.set(made.model[key] = recordOf(geometry, key, salt));
  };
  const auto drop = [&](Word number) {
    const Record key = keyOf(geometry, number);
    if (made.model.erase(key) != 0) writer.remove(key);
  };
  // Dense: once round the ring, so that there is an older lap behind each record.
  const Word begin = made.dense() ? file->header().slotCount + 1 : 1;
  for (Word number = 1; made.dense() && number < begin; ++number) put(number, 0);
  for (Word number = 1; made.dense() && number < begin; ++number) drop(number);
  for (Word number = begin; made.model.size() < count; ++number) put(number, 0);
  for (Word number = begin; number < begin + count; number += 3) put(number, 1);
  for (Word number = begin + 1; number < begin + count - 1; number += 5) drop(number);
  made.scratchpad = 0x123456;
  CheckedWordWriter scratchpad(file->data(), Format::Line::scratchpad);
  scratchpad.adopt();
  scratchpad.set(made.scratchpad);
  made.image = readFile(file->path());
  return made;
}

namespace {

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

/// Both layouts as `look` needs them: find by key, and a walk.
struct AnyView {
  explicit AnyView(const DriftFile& file) : bytes(wordsOf(file.header().recordSize)) {
    if (file.header().layout == Format::Layout::dense) {
      dense.emplace(file);
    } else {
      hashed.emplace(file);
    }
  }

  bool find(const Record& key) {
    return dense ? dense->find(key[0], bytes) == DenseRead::found : hashed->find(key, bytes);
  }
  bool next() {
    if (dense) return dense->findFrom(version, bytes) && ++version != 0;
    const auto keyWords = static_cast<std::ptrdiff_t>(hashed->keyWords());
    if (!hashed->next(position, after, bytes)) return false;
    after.assign(bytes.begin(), bytes.begin() + keyWords);
    return true;
  }
  Word size() const { return dense ? dense->size() : hashed->size(); }
  Word keyWords() const { return dense ? 1 : hashed->keyWords(); }

  std::optional<DenseView> dense;
  std::optional<HashedView> hashed;
  Record bytes;
  Word version = 0;
  WalkPosition position;
  Record after{0};
};

/// Numbers of keys up to here were used in making a specimen, or lie just behind.
Word highestNumber(const Model& model) {
  Word highest = 0;
  for (const auto& [key, record] : model) highest = std::max(highest, key.back());
  return highest;
}

}  // namespace

Sight look(const DriftFile& file, const Model& model) {
  Sight sight;
  AnyView view(file);
  for (const auto& entry : model) {
    survives(file, sight, [&] {
      if (!view.find(entry.first)) {
        ++sight.missing;
      } else if (view.bytes != entry.second) {
        sight.complaint = "a key gives another record than was stored";
      }
    });
  }
  const Word highest = highestNumber(model);
  for (Word number = highest < 40 ? 0 : highest - 40; number < highest + 3; ++number) {
    Record key = model.empty() ? Record(view.keyWords(), 1) : model.begin()->first;
    key.back() = number;
    if (model.contains(key)) continue;
    survives(file, sight, [&] {
      if (view.find(key)) sight.complaint = "a key that was never stored is found";
    });
  }
  Model seen;
  const bool whole = survives(file, sight, [&] {
    while (sight.complaint.empty() && view.next()) {
      const Record key(view.bytes.begin(),
                       view.bytes.begin() + static_cast<std::ptrdiff_t>(view.keyWords()));
      const auto at = model.find(key);
      if (at == model.end() || at->second != view.bytes) {
        sight.complaint = "a walk gives a record that was not stored";
      }
      if (!seen.emplace(key, view.bytes).second) sight.complaint = "a walk gives a key twice";
    }
  });
  if (whole && sight.complaint.empty() && seen.size() + sight.missing < model.size()) {
    sight.complaint = "a walk leaves a record out";
  }
  survives(file, sight, [&] {
    if (view.size() > model.size()) sight.complaint = "more records are counted than there are";
    // A key may be gone and its search meet damage on its way.
    if (view.size() + sight.missing + sight.errors < model.size())
      sight.complaint = "too few records are counted";
  });
  return sight;
}

void lookAnyway(const DriftFile& file) {
  Sight sight;
  AnyView view(file);
  for (Word number = 0; number < 64; ++number) {
    survives(file, sight, [&] { view.find(Record(view.keyWords(), number)); });
  }
  survives(file, sight, [&] { view.size(); });
  survives(file, sight, [&] {
    // No collection has more than a record a slot.
    for (Word count = 0; view.next(); ++count) {
      if (count > file.header().slotCount + file.header().indexWords) std::abort();
    }
  });
}

namespace {

std::string inspectAsReader(const Directory& directory, const std::string& entity,
                            const Specimen& specimen, Tally& tally) {
  try {
    const auto file = DriftFile::openForReading(directory, entity, &specimen.geometry);
    const Sight sight = look(*file, specimen.model);
    if (!sight.complaint.empty()) return "reader: " + sight.complaint;
    if (sight.missing != 0) return "reader: a stored record is said not to be there";
    ++(sight.errors != 0 ? tally.errorsWhileReading : tally.right);
  } catch (const MountException& error) {
    ++tally.refusedAtOpen;
    const MountStage stage = error.stage();
    if (stage != MountStage::damaged && stage != MountStage::wrongFormat &&
        stage != MountStage::notReady) {
      return std::string("reader: ended as ") + mountStageName(stage);
    }
    if (error.msg().view().find(directory.pathOf(entity)) == std::string_view::npos) {
      return "reader: the refusal does not name the path";
    }
  }
  return "";
}

std::string inspectRebuilt(const DriftFile& file, const std::string& damaged) {
  if (file.reason().view().find(file.path()) == std::string_view::npos) {
    return "rebuilt without a reason that names the path";
  }
  const auto value = [&](Format::Line line) { return CheckedWord(file.data(), line).load(); };
  if (value(Format::Line::wiped) != 1U) return "rebuilt without saying so in the file";
  if (damaged.size() < Format::kHeaderSize) return "";
  const auto carried = [&](Format::Line line) {
    const auto* bytes = reinterpret_cast<const std::byte*>(damaged.data());
    return CheckedWord(bytes, line).load().value_or(0);
  };
  if (*value(Format::Line::next) < carried(Format::Line::next)) {
    return "rebuilt with versions that were used before";
  }
  return value(Format::Line::scratchpad) == carried(Format::Line::scratchpad)
             ? ""
             : "rebuilt without the owner's number";
}

std::string inspectAsSuccessor(const Directory& directory, const std::string& entity,
                               const Specimen& specimen, Tally& tally) {
  const std::string damaged = readFile(directory.pathOf(entity));
  const auto file = DriftFile::openForWriting(directory, entity, specimen.geometry, {});
  AnyWriter writer(*file);
  const bool rebuilt = file->stage() == MountStage::rebuilt;
  if (rebuilt) {
    ++tally.rebuilt;
    std::string complaint = inspectRebuilt(*file, damaged);
    if (!complaint.empty()) return complaint;
  }
  const Sight sight = look(*file, rebuilt ? Model() : specimen.model);
  if (!sight.complaint.empty()) return sight.complaint;
  if (sight.missing > writer.dropped()) return "more records are missing than were dropped";
  tally.dropped += static_cast<unsigned>(writer.dropped());
  Model anew;
  for (const auto& [key, record] : specimen.model) {
    writer.set(anew[key] = recordOf(specimen.geometry, key, 7));
  }
  const Sight after = look(*file, anew);
  if (!after.complaint.empty()) return "written anew: " + after.complaint;
  if (after.missing != 0) return "written anew: a record is missing";
  // An absent version of a log may stay damaged; nobody writes there.
  if (after.errors != 0 && !specimen.dense()) return "written anew: there are errors still";
  return "";
}

}  // namespace

std::string inspect(const Directory& directory, const std::string& entity, const Specimen& specimen,
                    Tally& tally) {
  std::string complaint = inspectAsReader(directory, entity, specimen, tally);
  if (!complaint.empty()) return complaint;
  try {
    complaint = inspectAsSuccessor(directory, entity, specimen, tally);
  } catch (const Fenrik::Exception& error) {
    complaint = std::string("threw ") + error.what();
  }
  return complaint.empty() ? "" : "successor: " + complaint;
}

}  // namespace Drift::Specimens
