#include "Drift/Specimen.h"

namespace Drift::Specimens {

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
  const Word next = *value(Format::Line::next);
  // The one is the owner's, the other the log's: either says what was issued.
  if (next < carried(Format::Line::next) || next <= carried(Format::Line::scratchpad)) {
    return "rebuilt with versions that were used before";
  }
  if (value(Format::Line::first) != next || *value(Format::Line::announced) + 1 != next) {
    return "rebuilt with versions that are there or announced";
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
