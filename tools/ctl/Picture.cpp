#include "ctl/Picture.h"

#include "OrderedTable/Constants.h"
#include "OrderedTable/TableVersionDrift.h"
#include "ctl/Resources.h"

#include <algorithm>
#include <bit>
#include <chrono>

namespace Ctl {
namespace {

using Drift::Format::Line;

class Painter {
 public:
  Painter(const Drift::Directory& directory, Picture& picture, bool deletions)
      : directory_(directory), picture_(picture), deletions_(deletions) {}

  void paint(const TableKind& kind) {
    const auto units = Tables::configuredUnits(directory_, kind);
    if (units.empty() && directory_.entities(kind.logPath).empty()) return;
    TablePicture table;
    table.kind = &kind;
    noted([&] { paintLog(table); });
    noted([&] { table.reported = reportedOf(directory_, kind); });
    noted([&] { table.progress = progressOf(directory_, kind); });
    table.agentAlive = Tables::isWritten(directory_, kind.logPath);
    table.writerAlive = Tables::isWritten(directory_, reportPath(kind));
    for (const Asic::UnitId unit : units) {
      noted([&] { paintUnit(table, unit); });
    }
    picture_.tables.push_back(std::move(table));
  }

 private:
  template <class Part>
  void noted(Part part) {
    try {
      part();
    } catch (const Fenrik::Exception& e) {
      picture_.problems.emplace_back(e.what());
    }
  }

  Word line(const Drift::DriftFile& file, Line line, const char* name) {
    const auto value = Tables::lineOf(file, line);
    if (!value)
      picture_.problems.push_back(fmt::format("{}: {} does not prove itself", file.path(), name));
    return value.value_or(0);
  }

  void paintLog(TablePicture& table) {
    const Tables::Collection log(directory_, table.kind->logPath, table.kind->log);
    const Drift::DriftFile& file = log.file();
    table.logCapacity = file.header().capacity;
    table.issued = line(file, Line::scratchpad, "the version issued last");
    table.announced = line(file, Line::announced, "the announced version");
    table.agent = line(file, Line::writer, "the writer's process");
    table.generation = line(file, Line::writerGeneration, "the writer generation");
    table.logged = Drift::DenseView(file).size();
  }

  void paintUnit(TablePicture& table, Asic::UnitId unit) {
    const Tables::Config config(directory_, *table.kind, unit);
    UnitPicture picture{unit, 0, 0, config.file().header().capacity};
    if (deletions_) {
      config.walk(
          [&](const Tables::ConfigRow& row) {
            ++(row.isDeleted ? picture.inDeletion : picture.live);
          },
          [&](const std::string& damage) { picture_.problems.push_back(damage); });
    } else {
      picture.live = config.size();
    }
    table.units.push_back(picture);
  }

  const Drift::Directory& directory_;
  Picture& picture_;
  const bool deletions_;
};

}  // namespace

std::string reportPath(const TableKind& kind) {
  return Asic::Constants::canonicalGroupTableVersionPath(Fenrik::String(kind.group)).str();
}

Tables::Collection reportsOf(const Drift::Directory& directory, const TableKind& kind) {
  using Layout = Asic::TableVersionDrift::Layout;
  return {directory,
          reportPath(kind),
          {Drift::Format::Layout::hashed, Asic::TableVersionDrift::kEntityName, Layout::kKeySize,
           Layout::kRecordSize}};
}

Word reportedOf(const Tables::Collection& reports, const TableKind& kind) {
  using Layout = Asic::TableVersionDrift::Layout;
  std::array<Word, Layout::kWords> words{};
  const std::array<Word, Layout::kKeyWords> key{kind.id.value()};
  if (!Drift::HashedView(reports.file()).find(key, words)) return 0;
  Asic::TableVersionRecord record;
  Layout::fromWords(words.data(), record);
  return record.logVersion.value();
}

Word reportedOf(const Drift::Directory& directory, const TableKind& kind) {
  return reportedOf(reportsOf(directory, kind), kind);
}

std::vector<Word> reportRecord(const TableKind& kind, Word version) {
  using Layout = Asic::TableVersionDrift::Layout;
  std::vector<Word> words(Layout::kWords);
  Layout::toWords(Asic::TableVersionRecord(Asic::TableVersion(kind.id, Asic::LogVersion(version))),
                  words.data());
  return words;
}

std::optional<Tables::Progress> progressOf(const Drift::Directory& directory,
                                           const TableKind& kind) {
  try {
    const Drift::Directory chip(fmt::format("{}/{}", directory.path(), Tables::kChipFolder),
                                Drift::Directory::Access::read);
    const Tables::Collection notes(chip, Tables::progressPath(kind), Tables::kProgressShape);
    std::array<Word, Tables::kProgressWords> words{};
    const Word key = 0;
    if (!Drift::HashedView(notes.file()).find({&key, 1}, words)) return {};
    return std::bit_cast<Tables::Progress>(words);
  } catch (const Drift::MountException&) {
    return {};  // another hardware writer may store its progress elsewhere or not at all
  }
}

Picture pictureOf(const Drift::Directory& directory, bool deletions) {
  Picture picture;
  Painter painter(directory, picture, deletions);
  for (const TableKind& kind : Tables::tableKinds()) painter.paint(kind);
  const bool alive = std::ranges::any_of(picture.tables, &TablePicture::agentAlive);
  if (alive) picture.waits = waitsOfAgent(directory);
  return picture;
}

std::string waitOf(const TablePicture& table) {
  if (!table.progress || table.progress->waitsForVersion == 0 || !table.writerAlive) return {};
  const auto& progress = *table.progress;
  using std::chrono::milliseconds;
  const auto now =
      std::chrono::duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  const auto* const other =
      Tables::kindOf(Asic::SwTableId(static_cast<Asic::SwTableId::Rep>(progress.waitsForTable)));
  return fmt::format(
      "the hardware writer waits for version {} of {}, for {:.1f} s", progress.waitsForVersion,
      other == nullptr ? "an unknown table" : other->name,
      static_cast<double>(now - static_cast<std::int64_t>(progress.waitsSince)) / 1000);
}

Json jsonOf(const Picture& picture) {
  Json tables = Json::array();
  for (const TablePicture& table : picture.tables) {
    Json units = Json::array();
    for (const UnitPicture& unit : table.units) {
      units.push_back({{"unit", unit.unit.value()},
                       {"live", unit.live},
                       {"inDeletion", unit.inDeletion},
                       {"capacity", unit.capacity}});
    }
    tables.push_back({{"table", table.kind->name},
                      {"issued", table.issued},
                      {"announced", table.announced},
                      {"reported", table.reported},
                      {"lag", table.lag()},
                      {"logged", table.logged},
                      {"logCapacity", table.logCapacity},
                      {"agent", table.agent},
                      {"agentAlive", table.agentAlive},
                      {"writerAlive", table.writerAlive},
                      {"waits", waitOf(table)},
                      {"generation", table.generation},
                      {"units", units}});
  }
  return {{"tables", tables}, {"waits", picture.waits}, {"problems", picture.problems}};
}

}  // namespace Ctl
