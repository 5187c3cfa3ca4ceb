#include <thread>

#include "OrderedTable/Catalogue.h"
#include "ctl/Findings.h"
#include "ctl/Resources.h"
#include "ctl/TableCheck.h"
#include "tables/Catalogue.h"

namespace Ctl {
namespace {

using Drift::Format::Layout;
using Drift::Format::Line;

/// Time between two looks: far longer than the few stores of an operation.
constexpr std::chrono::milliseconds kUnderWay(100);

constexpr const char* kStateDatabase = "stavro/entities";

bool isOurs(const std::string& path) {
  return path.starts_with("hardware/") || path.starts_with("stavro/") || path.starts_with("agent/");
}

void checkLines(const Drift::DriftFile& file, Findings& findings) {
  for (std::size_t i = 0; i < Drift::Format::kLineCount; ++i) {
    if (Tables::lineOf(file, static_cast<Line>(i))) continue;
    findings.wrong.insert(
        fmt::format("{}: word {} of the header does not prove itself", file.path(), i));
  }
  if (Tables::lineOf(file, Line::wiped).value_or(0) != 0) {
    findings.notes.insert(
        fmt::format("{}: was made anew, and no agent has answered that yet", file.path()));
  }
}

void checkDense(const Drift::DriftFile& file, Findings& findings) {
  const Drift::DenseView view(file);
  const Drift::ChunkTable chunks(file);
  std::vector<Word> record(view.recordWords());
  const auto window = view.window();
  for (Word version = window.first; version < window.next; ++version) {
    try {
      if (!chunks.proves(version)) {
        findings.wrong.insert(
            fmt::format("{}: the chunk of version {} does not prove itself", file.path(), version));
      }
      findings.records += view.find(version, record) == Drift::DenseRead::found ? 1 : 0;
    } catch (const Fenrik::CorruptionDetectedException& e) {
      findings.wrong.insert(e.what());
    }
  }
}

void checkHashed(const Drift::DriftFile& file, Findings& findings) {
  Tables::walkHashed(
      file, [&](Words) { ++findings.records; },
      [&](const std::string& damage) { findings.wrong.insert(damage); });
}

void checkFile(const Drift::Directory& directory, const std::string& path, Findings& findings) {
  try {
    const auto file = Drift::DriftFile::openForReading(directory, path, nullptr);
    ++findings.collections;
    checkLines(*file, findings);
    file->header().layout == Layout::dense ? checkDense(*file, findings)
                                           : checkHashed(*file, findings);
  } catch (const Fenrik::Exception& e) {
    findings.wrong.insert(e.what());
  }
}

void checkTable(const Drift::Directory& directory, const TableKind& kind, Findings& findings) {
  const bool logged = !directory.entities(kind.logPath).empty();
  if (!logged && Tables::configuredUnits(directory, kind).empty()) return;
  try {
    TableCheck(directory, kind, findings).check();
  } catch (const Fenrik::CorruptionDetectedException&) {
    // Reported where all records are read.
  } catch (const Drift::MountException& e) {
    findings.wrong.insert(e.what());
  }
}

Findings look(const Drift::Directory& directory) {
  Findings findings;
  for (const std::string& path : directory.entities("")) {
    if (isOurs(path)) checkFile(directory, path, findings);
  }
  Tables::Catalogue().learn(directory,
                            [&](const std::string& text) { findings.wrong.insert(text); });
  for (const TableKind& kind : Tables::tableKinds()) checkTable(directory, kind, findings);
  checkResources(directory, findings);
  const auto require = [&](const char* what, std::string_view path) {
    if (!directory.entities(path).empty()) return;
    findings.wrong.insert(
        fmt::format("the {} is lost: {} is not there", what, directory.pathOf(path)));
  };
  require("state database", kStateDatabase);
  require("catalogue of the tables", Asic::CatalogueDrift::kPath);
  return findings;
}

void show(const Context& context, const Findings& findings) {
  if (context.json) {
    return context.line(Json{
        {"collections", findings.collections},
        {"records", findings.records},
        {"findings", findings.wrong},
        {"notes",
         findings.notes}}.dump());
  }
  for (const std::string& text : findings.wrong) context.line(text);
  for (const std::string& text : findings.notes) context.say(fmt::format("note: {}", text));
  context.line(fmt::format("{} collections, {} records, {} findings", findings.collections,
                           findings.records, findings.wrong.size()));
}

}  // namespace

int verify(const Context& context) {
  Findings findings = look(context.directory);
  // A busy agent may be met at the same point twice, but hardly at the same record each time.
  for (int again = 0; again < 2 && !(findings.wrong.empty() && findings.notes.empty()); ++again) {
    std::this_thread::sleep_for(kUnderWay);
    findings = inBoth(findings, look(context.directory));
  }
  show(context, findings);
  return findings.wrong.empty() ? kFine : kFinding;
}

}  // namespace Ctl
