#include "ctl/TableCheck.h"

#include <algorithm>
#include <set>

#include "ctl/Picture.h"

namespace Ctl {

using Drift::Format::Line;
using Tables::ConfigRow;

void TableCheck::wrong(const std::string& text) {
  findings_.wrong.insert(fmt::format("{}: {}", kind_.name, text));
}

void TableCheck::note(const std::string& text) {
  findings_.notes.insert(fmt::format("{}: {}", kind_.name, text));
}

std::string TableCheck::nameOf(const Key& key) const {
  return fmt::format("unit {} {}", key.first, kind_.key.text(key.second.data()));
}

void TableCheck::check() {
  const Tables::Collection log(directory_, kind_.logPath, kind_.log);
  window_ = Drift::DenseView(log.file()).window();
  reported_ = reportedOf(directory_, kind_);
  checkNumbers(log);
  readLog(log);
  checkLost();
  for (const Asic::UnitId unit : Tables::configuredUnits(directory_, kind_)) {
    try {
      const Tables::Config config(directory_, kind_, unit);
      checkLogged(config);
      checkConfigured(config);
    } catch (const Drift::MountException&) {
      // Reported where all files are opened.
    }
  }
  for (const auto& [at, count] : cuts_) {
    note(fmt::format(
        "unit {}: {} entries were configured at version {} by an agent that died before "
        "it logged them; the next agent does",
        at.first, count, at.second));
  }
  checkNeeded();
}

/// Reports units that the log or the chip refers to but that have no configuration.
void TableCheck::checkLost() {
  const auto units = Tables::configuredUnits(directory_, kind_);
  const auto programmed = Tables::programmedUnits(directory_, kind_);
  std::set<Asic::UnitId> known(programmed.begin(), programmed.end());
  for (const auto& [version, key] : concerned_) known.insert(key.first);
  for (const Asic::UnitId unit : known) {
    if (std::ranges::find(units, unit) != units.end()) continue;
    wrong(fmt::format("the configuration of unit {} is lost: {}{} is not there", unit,
                      kind_.configPath, unit));
  }
  if (units.empty() && known.empty() && window_.next > 1) {
    wrong(fmt::format("{} versions were logged, and there is no configuration", window_.next - 1));
  }
}

void TableCheck::checkNumbers(const Tables::Collection& log) {
  const Word issued = Tables::lineOf(log.file(), Line::scratchpad).value_or(0);
  const Word announced = Tables::lineOf(log.file(), Line::announced).value_or(0);
  const Word last = window_.next - 1;
  if (issued > last)
    wrong(fmt::format("version {} was issued, the log ends with {}", issued, last));
  if (issued + 1 < last)
    wrong(fmt::format("the log ends with {}, only {} was issued", last, issued));
  if (announced > last) {
    wrong(fmt::format("version {} was announced, the log ends with {}", announced, last));
  }
  if (announced < last) {
    note(
        fmt::format("versions {} to {} are logged and not announced; the next agent announces "
                    "them",
                    announced + 1, last));
  }
  if (reported_ > announced) {
    wrong(fmt::format("the hardware writer reported version {}, only {} was announced", reported_,
                      announced));
  }
}

void TableCheck::readLog(const Tables::Collection& log) {
  const Drift::DenseView view(log.file());
  std::vector<Word> record(view.recordWords());
  Tables::LogRow row;
  for (Word version = window_.first; version < window_.next; ++version) {
    try {
      const auto found = view.find(version, record);
      if (found == Drift::DenseRead::found) {
        Tables::logRowIs(row, kind_, record);
        takeIn(row);
      } else if (found == Drift::DenseRead::gone && version > reported_) {
        wrong(fmt::format("version {} is missing from the log", version));
      }
    } catch (const Fenrik::CorruptionDetectedException&) {
      // Reported where all records are read.
    }
  }
}

void TableCheck::takeIn(const Tables::LogRow& row) {
  if (row.tableDelete) {
    cleared_[row.unit] = row.version;
    concerned_[row.version] = {row.unit, {}};
    std::erase_if(changes_, [&](const auto& change) { return change.first.first == row.unit; });
    return;
  }
  const Key key{row.unit, Tables::keyOf(kind_, row.entry)};
  changes_[key] = {row.version, row.entryDelete, Tables::rowDigest(kind_.id, row.unit, row.entry)};
  concerned_[row.version] = key;
}

void TableCheck::checkLogged(const Tables::Config& config) {
  for (const auto& [key, change] : changes_) {
    if (key.first != config.unit()) continue;
    try {
      checkChange(key, change, config);
    } catch (const Fenrik::CorruptionDetectedException&) {
      // Reported where all records are read.
    }
  }
}

void TableCheck::checkChange(const Key& key, const Change& change, const Tables::Config& config) {
  const auto row = config.find(key.second);
  const char* const what = change.isDelete ? "removed" : "written";
  if (!row) {
    if (change.isDelete && change.version <= reported_) return;
    wrong(fmt::format("{} was {} at version {} and is not configured", nameOf(key), what,
                      change.version));
  } else if (row->version < change.version) {
    wrong(fmt::format("{} was {} at version {}, its configuration is of version {}", nameOf(key),
                      what, change.version, row->version));
  } else if (row->version == change.version) {
    const bool same = row->isDeleted == change.isDelete &&
                      (change.isDelete ||
                       Tables::rowDigest(kind_.id, config.unit(), row->entry) == change.digest);
    if (!same) {
      wrong(fmt::format("{} is configured otherwise than it was {} at version {}", nameOf(key),
                        what, change.version));
    }
  }
}

void TableCheck::checkConfigured(const Tables::Config& config) {
  config.walk([&](const ConfigRow& row) { checkRow(config, row); }, [](const std::string&) {});
}

void TableCheck::checkRow(const Tables::Config& config, const ConfigRow& row) {
  const Key key{config.unit(), Tables::keyOf(kind_, row.entry)};
  const auto cleared = cleared_.find(config.unit());
  if (cleared != cleared_.end() && row.version < cleared->second && !row.isDeleted) {
    wrong(fmt::format("{} is of version {}, and the unit was cleared at version {}", nameOf(key),
                      row.version, cleared->second));
  }
  if (row.version > window_.next) {
    wrong(fmt::format("{} is of version {}, the log ends with {}", nameOf(key), row.version,
                      window_.next - 1));
    return;
  }
  const auto logged = concerned_.find(row.version);
  const bool cut = row.version == window_.next ||
                   (logged != concerned_.end() && logged->second != key &&
                    !(logged->second.first == key.first && logged->second.second.empty()));
  if (cut) ++cuts_[{config.unit(), row.version}];
}

void TableCheck::checkNeeded() {
  const Tables::Collection needed(directory_, kind_.neededPath, Tables::neededShape());
  const Drift::DenseView view(needed.file());
  using Layout = Asic::NeededEntryDrift::Layout;
  std::array<Word, Layout::kWords> words{};
  Asic::NeededEntryRecord record;
  Word last = 0;
  for (Word sequence = 0;; ++sequence) {
    try {
      if (!view.findFrom(sequence, words)) return;
    } catch (const Fenrik::CorruptionDetectedException&) {
      continue;  // reported where all records are read
    }
    Layout::fromWords(words.data(), record);
    if (record.version.value() < last) {
      wrong(fmt::format("needed set {} is for version {}, the one before it for {}", sequence,
                        record.version, last));
    }
    last = record.version.value();
    checkNeededRecord(record);
  }
}

void TableCheck::checkNeededRecord(const Asic::NeededEntryRecord& record) {
  const auto at = fmt::format("needed set {} of version {}", record.sequence, record.version);
  if (record.count > record.needed.size()) {
    return wrong(
        fmt::format("{} names {} tables, {} at most fit", at, record.count, record.needed.size()));
  }
  for (std::size_t i = 0; i < record.count; ++i) {
    const Asic::TableVersion& need = record.needed[i];
    const TableKind* const kind = Tables::kindOf(need.tableId());
    if (kind == nullptr) {
      note(fmt::format("{} names {}, a table that is not known here", at, need));
    } else if (need.logVersion().value() > announcedOf(*kind)) {
      wrong(fmt::format("{} needs version {} of {}, which was not announced", at, need.logVersion(),
                        kind->name));
    }
  }
}

Word TableCheck::announcedOf(const TableKind& kind) {
  const Tables::Collection log(directory_, kind.logPath, kind.log);
  return Tables::lineOf(log.file(), Line::announced).value_or(0);
}

Findings inBoth(const Findings& earlier, const Findings& later) {
  Findings both = later;
  std::erase_if(both.wrong, [&](const auto& text) { return !earlier.wrong.contains(text); });
  std::erase_if(both.notes, [&](const auto& text) { return !earlier.notes.contains(text); });
  return both;
}

}  // namespace Ctl
