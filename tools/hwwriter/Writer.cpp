#include "hwwriter/Writer.h"

#include <algorithm>
#include <limits>

namespace HwWriter {
namespace {

using Drift::MountException;
using Drift::MountStage;

/// How often the writer looks for files that came, went or changed hands: no bell tells of that.
constexpr std::chrono::milliseconds kLookInterval(100);

/// Whether what could not be opened may be there in a moment.
bool maybeSoon(MountStage stage) {
  return stage == MountStage::absent || stage == MountStage::notReady || stage == MountStage::busy;
}

}  // namespace

Writer::Writer(const Options& options)
    : options_(options), news_(options.json), pace_(options) {
  if (options.classify != 0) classifier_.emplace(options_, news_);
  for (const TableKind& kind : Tables::tableKinds()) tables_.emplace_back().kind = &kind;
}

bool Writer::openLog(Table& table) {
  if (table.source != nullptr && !table.source->replaced()) return true;
  table.source = nullptr;
  try {
    table.source = std::make_unique<LogSource>(*directory_, *table.kind);
  } catch (const MountException& e) {
    if (!maybeSoon(e.stage())) news_.warn(e.what());
  }
  return table.source != nullptr;
}

/// The agent's files that are there; false as long as there are none.
bool Writer::open() {
  if (!directory_) {
    try {
      directory_.emplace(options_.directory, Drift::Directory::Access::read);
    } catch (const MountException& e) {
      if (e.stage() != MountStage::absent) throw;
      return false;
    }
  }
  bool any = false;
  for (Table& table : tables_) any = openLog(table) || any;
  if (!any || chip_ != nullptr) return any;
  chip_ = std::make_unique<SimAsic::Chip>(options_.directory + "/asic");
  reports_.emplace(options_.directory);
  return true;
}

void Writer::openConfigs(Table& table, Comparison& comparison) {
  if (table.source == nullptr) return;
  for (const Asic::UnitId unit : Tables::configuredUnits(*directory_, *table.kind)) {
    Unit& known = table.units[unit];
    try {
      if (known.config == nullptr || known.config->file().replaced()) {
        known = {std::make_unique<Tables::Config>(*directory_, *table.kind, unit), 0};
      }
      const Word generation = known.config->generation();
      if (generation == known.generation) continue;
      known.generation = generation;
      comparison.add(*known.config, {.upTo = chip_->programmed(*table.kind)});
    } catch (const MountException& e) {
      if (!maybeSoon(e.stage())) news_.warn(e.what());
    }
  }
  takeLater(table, comparison);
}

void Writer::takeLater(Table& table, Comparison& comparison) {
  for (auto& later : comparison.takeLater()) {
    const Word version = later.version;
    table.later.emplace(version, std::move(later));
  }
}

/// Takes up what has appeared or passed to another agent since the last look.
void Writer::look() {
  if (!open()) return;
  Comparison comparison(*chip_, news_);
  for (Table& table : tables_) openConfigs(table, comparison);
  if (comparison.compared() == 0) return;
  const std::size_t programmed = comparison.program();
  news_.tell("compared",
             fmt::format("compared {} rows with the configuration: {} differed and were programmed",
                         comparison.compared(), programmed),
             {{"rows", comparison.compared()}, {"programmed", programmed}});
}

/// The place in a log is lost: brings the chip to the configuration as it is and goes on from what
/// was announced until now.
void Writer::startOver(const std::string& why) {
  Comparison comparison(*chip_, news_);
  std::map<const Table*, Word> announced;
  for (Table& table : tables_) {
    if (table.source != nullptr) announced[&table] = table.source->announced();
  }
  for (Table& table : tables_) {
    for (auto& [unit, known] : table.units) {
      if (known.config == nullptr) continue;
      comparison.add(*known.config, {.upTo = announced[&table], .withGround = true});
    }
    takeLater(table, comparison);
  }
  const std::size_t programmed = comparison.program();
  for (Table& table : tables_) {
    if (table.source == nullptr) continue;
    chip_->programmedIs(*table.kind, announced[&table]);
    reports_->report(*table.kind, announced[&table]);
  }
  reports_->ring();
  news_.tell("lost",
             fmt::format("{}; compared {} rows with the configuration: {} differed and were "
                         "programmed",
                         why, comparison.compared(), programmed),
             {{"why", why}, {"rows", comparison.compared()}, {"programmed", programmed}});
}

bool Writer::satisfied(const std::vector<Asic::TableVersion>& needs) {
  for (const Asic::TableVersion& need : needs) {
    const TableKind* const kind = Tables::kindOf(need.tableId());
    const auto other = std::ranges::find(tables_, kind, &Table::kind);
    if (other == tables_.end()) {
      news_.warn(fmt::format("table {} is needed and not known here; going on without", need));
      continue;
    }
    if (other->source == nullptr) return false;
    // What was never announced cannot have been built upon: it was in a log that is lost.
    const Word version = std::min(need.logVersion().value(), other->source->announced());
    if (chip_->programmed(*kind) < version) return false;
    reports_->report(*kind, version);
  }
  return true;
}

void Writer::apply(const TableKind& kind, const Tables::LogRow& row) {
  if (row.tableDelete) {
    chip_->clear(kind, row.unit);
  } else if (row.entryDelete) {
    chip_->remove(kind, row.unit, Tables::keyOf(kind, row.entry));
  } else {
    chip_->write(kind, row.unit, row.entry);
  }
}

Writer::Step Writer::advance(Table& table) {
  const TableKind& kind = *table.kind;
  LogSource& source = *table.source;
  const Word announced = source.announced();
  Word version = chip_->programmed(kind);
  const auto lost = [&](const char* what) {
    lost_ = fmt::format("{}: {} behind version {}", kind.name, what, version);
    return Step::lost;
  };
  if (announced < version) return lost("the log was made anew and ends");
  const Word end = std::min(announced, version + options_.batch);
  const Word begin = version;
  for (; version < end; ++version) {
    const auto* const needs = source.needs(version + 1);
    if (needs == nullptr) return lost("needed versions cannot be read");
    if (!satisfied(*needs)) break;
    const auto read = source.read(version + 1, row_);
    if (read == LogSource::Read::lost) return lost("the log has gone on, or cannot be read");
    if (read == LogSource::Read::found) apply(kind, row_);
    chip_->programmedIs(kind, version + 1);
    pace_.row();
    if (classifier_) classifier_->changed(*chip_);
  }
  if (version == begin) return Step::nothing;
  pace_.batch();
  reports_->report(kind, version);
  return Step::some;
}

/// A batch of each table; false if there was nothing that could be done.
bool Writer::advance() {
  bool some = false;
  for (Table& table : tables_) {
    if (table.source == nullptr) continue;
    try {
      const Step step = advance(table);
      if (step == Step::lost) {
        look();
        startOver(lost_);
      }
      some = some || step != Step::nothing;
    } catch (const Fenrik::CorruptionDetectedException& e) {
      news_.warn(e.what());
    }
  }
  if (some) {
    chip_->metersStore();
    reports_->ring();
  }
  return some;
}

/// Whether everything that was announced is programmed.
bool Writer::drained() {
  return std::ranges::all_of(tables_, [&](const Table& table) {
    return table.source == nullptr || table.source->announced() <= chip_->programmed(*table.kind);
  });
}

/// Looks again at rows that differed and that the log had not brought yet. Behind everything that
/// was announced only what an agent stored and could not log is left: what that builds on was
/// announced before.
bool Writer::settle(Table& table, bool everything) {
  const Word programmed = chip_->programmed(*table.kind);
  const auto end = everything ? table.later.end() : table.later.upper_bound(programmed);
  if (end == table.later.begin()) return false;
  Comparison comparison(*chip_, news_);
  const Word upTo = everything ? std::numeric_limits<Word>::max() : programmed;
  for (auto it = table.later.begin(); it != end; ++it) {
    const auto unit = table.units.find(it->second.unit);
    if (unit == table.units.end() || unit->second.config == nullptr) continue;
    comparison.add(*unit->second.config, it->second.key, {.upTo = upTo});
  }
  if (everything && !drained()) return false;
  table.later.erase(table.later.begin(), end);
  takeLater(table, comparison);
  const std::size_t count = comparison.program();
  if (count == 0) return true;
  news_.tell("settled",
             fmt::format("{}: {} rows had been configured by an agent that died before it logged "
                         "them, and were programmed",
                         table.kind->name, count),
             {{"table", table.kind->name}, {"programmed", count}});
  return true;
}

bool Writer::settle() {
  bool some = false;
  for (const bool everything : {false, true}) {
    for (Table& table : tables_) {
      if (table.later.empty() || (everything && !drained())) continue;
      some = settle(table, everything) || some;
    }
  }
  return some;
}

bool Writer::atRest() {
  return chip_ != nullptr && drained() &&
         std::ranges::all_of(tables_, [](const Table& table) { return table.later.empty(); });
}

void Writer::sleep() const {
  std::vector<Drift::BellSeen> bells;
  for (const Table& table : tables_) {
    if (table.source != nullptr) bells.push_back(table.source->bell());
  }
  Drift::waitForAnyRing(bells, kLookInterval);
}

int Writer::run(const volatile std::sig_atomic_t& stop) {
  using Clock = std::chrono::steady_clock;
  constexpr unsigned kPacketsBetweenLooks = 64;
  Clock::time_point nextLook{};
  while (stop == 0) {
    try {
      if (Clock::now() >= nextLook) {
        look();
        nextLook = Clock::now() + kLookInterval;
      }
      if (options_.once && chip_ == nullptr) {
        throw MountException(MountStage::absent,
                             Fenrik::formatString("{}: no agent has made any table there; start "
                                                  "one with the same directory",
                                                  options_.directory));
      }
      if (advance() || settle()) continue;
      if (atRest()) {
        if (classifier_ && classifier_->rest(*chip_, kPacketsBetweenLooks)) continue;
        if (options_.once) break;
      }
    } catch (const Fenrik::CorruptionDetectedException& e) {
      news_.warn(e.what());
    } catch (const Drift::NoSpaceException& e) {
      news_.warn(e.what());
    }
    sleep();
  }
  return summary();
}

int Writer::summary() {
  nlohmann::ordered_json facts{{"programmed", nlohmann::json::object()}};
  std::string text;
  if (chip_ != nullptr) {
    chip_->metersStore();
    const SimAsic::Meters meters = chip_->meters();
    std::uint64_t ofChip = 0;
    std::uint64_t ofConfig = 0;
    Word rows = 0;
    for (const Table& table : tables_) {
      facts["programmed"][std::string(table.kind->name)] = chip_->programmed(*table.kind);
      for (const Asic::UnitId unit : chip_->units(*table.kind)) {
        rows += chip_->rowCount(*table.kind, unit);
        ofChip += chip_->digest(*table.kind, unit);
      }
      for (const auto& [unit, known] : table.units) {
        if (known.config != nullptr) ofConfig += known.config->digest();
      }
    }
    facts.update({{"rows", rows},
                  {"written", meters.written},
                  {"removed", meters.removed},
                  {"moves", meters.moves},
                  {"violations", meters.violations},
                  {"digest", fmt::format("{:016x}", ofChip)},
                  {"configuration", fmt::format("{:016x}", ofConfig)}});
    text = fmt::format(
        "{} rows in hardware; since the chip was made {} written, {} removed, {} moved, {} "
        "violations; digest {:016x}, of the configuration {:016x}",
        rows, meters.written, meters.removed, meters.moves, meters.violations, ofChip, ofConfig);
  } else {
    text = "nothing was programmed: no agent came";
  }
  std::uint64_t mismatches = 0;
  if (classifier_) {
    mismatches = classifier_->mismatches();
    facts.update({{"packets", classifier_->packets()},
                  {"complete", classifier_->complete()},
                  {"mismatches", mismatches}});
    text += fmt::format("; {} packets, {} of them at a complete list of rules, {} mismatches",
                        classifier_->packets(), classifier_->complete(), mismatches);
  }
  news_.tell("summary", text, facts);
  const bool violated = chip_ != nullptr && chip_->meters().violations != 0;
  return violated || mismatches != 0 ? 1 : 0;
}

}  // namespace HwWriter
