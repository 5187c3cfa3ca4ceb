#include "tables/Collections.h"

#include <fcntl.h>

#include <charconv>

#include "Fenrik/Format.h"
#include "OrderedTable/Constants.h"
#include "tables/Progress.h"

namespace Tables {

using Drift::MountException;
using Drift::MountStage;

std::unique_ptr<Drift::DriftFile> openShaped(const Drift::Directory& directory,
                                             const std::string& path, const Shape& shape) {
  auto file = Drift::DriftFile::openForReading(directory, path, nullptr);
  const auto& found = file->header();
  if (found.layout != shape.layout || std::string_view(found.typeName) != shape.typeName ||
      found.keySize != shape.keySize || found.recordSize != shape.recordSize) {
    throw MountException(
        MountStage::wrongFormat,
        Fenrik::formatString("{}: it holds {} of {} bytes, not {} of {}; take the program that "
                             "belongs to the agent",
                             file->path(), std::string_view(found.typeName), found.recordSize,
                             shape.typeName, shape.recordSize));
  }
  return file;
}

std::optional<Word> lineOf(const Drift::DriftFile& file, Drift::Format::Line line) {
  return Drift::CheckedWord(file.data(), line).load();
}

Config::Config(const Drift::Directory& directory, const TableKind& kind, Asic::UnitId unit)
    : Collection(directory, fmt::format("{}{}", kind.configPath, unit), kind.config),
      kind_(kind),
      unit_(unit),
      view_(file()) {}

std::optional<ConfigRow> Config::find(Words key) const {
  std::vector<Word> record(recordWords());
  if (!view_.find(key, record)) return {};
  return configRowOf(kind_, record);
}

void Config::walk(const std::function<void(const ConfigRow&)>& visit,
                  const std::function<void(const std::string&)>& damaged) const {
  walkHashed(
      file(), [&](Words record) { visit(configRowOf(kind_, record)); }, damaged);
}

std::uint64_t Config::digest() const {
  std::uint64_t digest = 0;
  walk(
      [&](const ConfigRow& row) {
        if (!row.isDeleted) digest += rowDigest(kind_.id, unit_, row.entry);
      },
      [](const std::string&) {});
  return digest;
}

std::vector<Asic::UnitId> programmedUnits(const Drift::Directory& directory,
                                          const TableKind& kind) {
  std::vector<Asic::UnitId> units;
  try {
    const Drift::Directory chip(fmt::format("{}/{}", directory.path(), kChipFolder),
                                Drift::Directory::Access::read);
    for (const std::string& path : chip.entities(chipRowsPath(kind))) {
      const auto rows = Drift::DriftFile::openForReading(chip, path, nullptr);
      const auto unit = unitOf(kind, path);
      if (unit && Drift::HashedView(*rows).size() != 0) units.push_back(*unit);
    }
  } catch (const Fenrik::Exception&) {
    // There is no chip, or its hardware writer is replacing it.
  }
  return units;
}

std::optional<Asic::UnitId> unitOf(const TableKind& kind, std::string_view rowsPath) {
  std::uint16_t unit = 0;
  rowsPath.remove_prefix(chipRowsPath(kind).size());
  const char* const end = rowsPath.data() + rowsPath.size();
  const auto [stop, error] = std::from_chars(rowsPath.data(), end, unit);
  if (error != std::errc() || stop != end) return {};
  return Asic::UnitId(unit);
}

bool isWritten(const Drift::Directory& directory, const std::string& path) {
  const Drift::Descriptor file(::openat(directory.fd(), Drift::Directory::fileNameOf(path).c_str(),
                                        O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  struct flock range {};
  range.l_type = F_RDLCK;  // compatible with the locks of readers, of which this process may be one
  range.l_whence = SEEK_SET;
  return file.valid() && ::fcntl(file.get(), F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
}

std::vector<Asic::UnitId> configuredUnits(const Drift::Directory& directory,
                                          const TableKind& kind) {
  std::vector<Asic::UnitId> units;
  for (const std::string& path : directory.entities(kind.configPath)) {
    try {
      units.push_back(Asic::Constants::getUnitIdFromConfigPath(Fenrik::String(path)));
    } catch (const Fenrik::Exception&) {
      // A foreign file among the configurations.
    }
  }
  return units;
}

namespace {

/// The first hash from `from` on at which a walk does not meet the same damage. Records with hashes
/// before it are unreadable.
Word behindDamage(const Drift::HashedView& view, Word from, Word end, const std::string& damage) {
  std::vector<Word> record(view.recordWords());
  std::vector<Word> noKey(view.keyWords());
  const auto meets = [&](Word hash) {
    Drift::WalkPosition position{hash, false};
    try {
      view.next(position, noKey, record);
      return false;
    } catch (const Fenrik::CorruptionDetectedException& e) {
      return e.msg().view() == damage;
    }
  };
  while (from < end) {
    const Word middle = from + (end - from) / 2;
    meets(middle) ? from = middle + 1 : end = middle;
  }
  return end;
}

}  // namespace

void walkHashed(const Drift::DriftFile& file, const std::function<void(Words)>& visit,
                const std::function<void(const std::string&)>& damaged) {
  const Drift::HashedView view(file);
  std::vector<Word> record(view.recordWords());
  Drift::WalkPosition position;
  for (;;) {
    const Words after = Words(record).first(view.keyWords());
    try {
      std::vector<Word> key(after.begin(), after.end());
      key.back() &= ~Word{0} >> (view.keyWords() * sizeof(Word) - file.header().keySize) * 8;
      if (!view.next(position, key, record)) return;
    } catch (const Fenrik::CorruptionDetectedException& e) {
      const std::string what(e.msg().view());
      damaged(what);
      const Word from = position.hash + (position.started ? 1 : 0);
      if (from == 0 && position.started) return;
      position = {behindDamage(view, from, ~Word{0}, what), false};
      if (position.hash == ~Word{0}) return;
      continue;
    }
    visit(record);
  }
}

Shape neededShape() {
  using Layout = Asic::NeededEntryDrift::Layout;
  return {Drift::Format::Layout::dense, Asic::NeededEntryDrift::kEntityName, Layout::kKeySize,
          Layout::kRecordSize};
}

}  // namespace Tables
