#include "ctl/Picture.h"

#include "OrderedTable/Constants.h"
#include "OrderedTable/TableVersionDrift.h"

namespace Ctl {
namespace {

using Drift::Format::Line;

class Painter {
 public:
  Painter(const Drift::Directory& directory, Picture& picture)
      : directory_(directory), picture_(picture) {}

  void paint(const TableKind& kind) {
    const auto units = Tables::configuredUnits(directory_, kind);
    if (units.empty() && directory_.entities(kind.logPath).empty()) return;
    TablePicture table;
    table.kind = &kind;
    noted([&] { paintLog(table); });
    noted([&] { table.reported = reportedOf(directory_, kind); });
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
    table.writer = line(file, Line::writer, "the writer's process");
    table.generation = line(file, Line::writerGeneration, "the writer generation");
    table.logged = Drift::DenseView(file).size();
  }

  void paintUnit(TablePicture& table, Asic::UnitId unit) {
    const Tables::Config config(directory_, *table.kind, unit);
    UnitPicture picture{unit, 0, 0, config.file().header().capacity};
    config.walk(
        [&](const Tables::ConfigRow& row) {
          ++(row.isDeleted ? picture.inDeletion : picture.live);
        },
        [&](const std::string& damage) { picture_.problems.push_back(damage); });
    table.units.push_back(picture);
  }

  const Drift::Directory& directory_;
  Picture& picture_;
};

}  // namespace

Word reportedOf(const Drift::Directory& directory, const TableKind& kind) {
  using Layout = Asic::TableVersionDrift::Layout;
  const Fenrik::String path =
      Asic::Constants::canonicalGroupTableVersionPath(Fenrik::String(kind.group));
  const Tables::Collection reports(
      directory, path.str(),
      {Drift::Format::Layout::hashed, Asic::TableVersionDrift::kEntityName, Layout::kKeySize,
       Layout::kRecordSize});
  std::array<Word, Layout::kWords> words{};
  const std::array<Word, Layout::kKeyWords> key{kind.id.value()};
  if (!Drift::HashedView(reports.file()).find(key, words)) return 0;
  Asic::TableVersionRecord record;
  Layout::fromWords(words.data(), record);
  return record.logVersion.value();
}

Picture pictureOf(const Drift::Directory& directory) {
  Picture picture;
  Painter painter(directory, picture);
  for (const TableKind& kind : Tables::tableKinds()) painter.paint(kind);
  return picture;
}

}  // namespace Ctl
