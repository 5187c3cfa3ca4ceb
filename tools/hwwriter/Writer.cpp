#include "hwwriter/Writer.h"

#include <algorithm>
#include <limits>
#include <map>

#include "Fenrik/Format.h"

namespace HwWriter {
namespace {

using Drift::MountException;
using Drift::MountStage;

/// How often the writer looks for files that came, went or changed hands: no bell tells of that.
constexpr std::chrono::milliseconds kLookInterval(100);
/// The same while a table is not there yet.
constexpr std::chrono::milliseconds kEagerLookInterval(5);
/// So many of them what another process holds may stay held.
constexpr unsigned kBusyLooks = 20;
/// So many looks without anything to do are the end of `--once`, whatever is left.
constexpr unsigned kIdleLooks = 30;

}  // namespace

Writer::Writer(const Options& options) : options_(options), news_(options.json), pace_(options) {
  if (options.classify != 0) classifier_.emplace(options_, news_);
  for (const TableKind& kind : Tables::tableKinds()) tables_.emplace_back(kind);
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
  for (Table& table : tables_) any = table.open(*directory_, news_) || any;
  if (!any || chip_ != nullptr) return any;
  reports_.emplace(options_.directory);
  chip_ = std::make_unique<SimAsic::Chip>(options_.directory + "/asic");
  return true;
}

/// Takes up what has appeared or passed to another agent since the last look.
void Writer::look() {
  if (!open()) return;
  Comparison comparison(*chip_, news_);
  bool taken = false;
  for (Table& table : tables_) {
    if (table.source() != nullptr) taken = table.takeoverSeen() || taken;
  }
  for (Table& table : tables_) {
    if (table.source() == nullptr) continue;
    table.compare(*directory_, comparison, chip_->programmed(table.kind()), taken, news_);
  }
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
    if (table.source() != nullptr) announced[&table] = table.source()->announced();
  }
  for (Table& table : tables_) {
    if (!announced.contains(&table)) continue;
    table.compareAnew(comparison, {.upTo = announced[&table], .withGround = true});
  }
  const std::size_t programmed = comparison.program();
  for (const auto& [table, version] : announced) {
    chip_->programmedIs(table->kind(), version);
    reports_->report(table->kind(), version);
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
    const auto other = std::ranges::find(tables_, need.tableId(),
                                         [](const Table& table) { return table.kind().id; });
    if (other == tables_.end()) {
      news_.warn(fmt::format("table {} is needed and not known here; going on without", need));
      continue;
    }
    if (other->source() == nullptr) return false;
    // What was never announced cannot have been built upon: it was in a log that is lost.
    const Word version = std::min(need.logVersion().value(), other->source()->announced());
    if (chip_->programmed(other->kind()) < version) {
      raised_ = raised_ || other->demanded < version;
      other->demanded = std::max(other->demanded, version);
      return false;
    }
    reports_->report(other->kind(), version);
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

/// While something that the next agent builds on is missing, its table goes up to where that
/// belongs, and the others as far as it needs them: no further than the agent that died.
Word Writer::limitOf(const Table& table, Word announced) const {
  const Word cut = table.cut();
  if (cut != 0) return std::min(announced, cut - 1);
  const bool held =
      std::ranges::any_of(tables_, [](const Table& other) { return other.cut() != 0; });
  return held ? std::min(announced, table.demanded) : announced;
}

Writer::Step Writer::advance(Table& table) {
  const TableKind& kind = table.kind();
  LogSource& source = *table.source();
  const Word announced = source.announced();
  if (table.takenOver()) return Step::taken;
  Word version = chip_->programmed(kind);
  const auto lost = [&](const char* what) {
    lost_ = fmt::format("{}: {} behind version {}", kind.name, what, version);
    return Step::lost;
  };
  if (announced < version) return lost("the log was made anew and ends");
  const Word begin = version;
  const Word end = std::min(limitOf(table, announced), version + options_.batch);
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
  if (version <= begin) return Step::nothing;
  pace_.batch();
  reports_->report(kind, version);
  return Step::some;
}

/// A batch of each table; false if there was nothing that could be done.
bool Writer::advance() {
  bool some = false;
  for (Table& table : tables_) {
    if (table.source() == nullptr) continue;
    try {
      const Step step = advance(table);
      if (step == Step::taken || step == Step::lost) look();
      if (step == Step::lost) startOver(lost_);
      some = some || step != Step::nothing;
    } catch (const Fenrik::CorruptionDetectedException& e) {
      news_.warn(e.what());
    }
  }
  some = std::exchange(raised_, false) || some;
  if (chip_ == nullptr || !some) return some;
  chip_->metersStore();
  reports_->ring();
  if (!chip_->lastViolation().empty()) {
    news_.warn(fmt::format("violation: {}: a rule points at a prefix that is not there",
                           chip_->lastViolation()));
  }
  return some;
}

/// Whether everything that was announced is programmed.
bool Writer::drained() const {
  return std::ranges::all_of(tables_, [&](const Table& table) {
    return table.source() == nullptr ||
           table.source()->announced() <= chip_->programmed(table.kind());
  });
}

/// Programs what was configured and not logged, when the chip has come to its version, or to the
/// end of everything that was announced: what it builds on was announced before.
bool Writer::settle(Table& table, bool everything) {
  const Word upTo = everything ? std::numeric_limits<Word>::max() : chip_->programmed(table.kind());
  Comparison comparison(*chip_, news_);
  table.compareLater(comparison, upTo, {.upTo = upTo});
  if (comparison.compared() == 0 || (everything && !drained())) return false;
  table.laterDone(comparison, upTo, false);
  tellSettled(table, comparison.program());
  return true;
}

/// Makes up for what the next agent builds on, once nothing that was logged before it is missing.
bool Writer::settleCut() {
  bool some = false;
  for (Table& table : tables_) {
    const Word version = table.cut();
    if (version == 0 || table.source() == nullptr) continue;
    Comparison comparison(*chip_, news_);
    table.compareCut(comparison, version);
    table.laterDone(comparison, version, true);
    tellSettled(table, comparison.program());
    some = true;
  }
  return some;
}

void Writer::tellSettled(const Table& table, std::size_t count) const {
  if (count == 0) return;
  news_.tell("settled",
             fmt::format("{}: {} rows had been configured by an agent that died before it logged "
                         "them, and were programmed",
                         table.kind().name, count),
             {{"table", table.kind().name}, {"programmed", count}});
}

bool Writer::settle() {
  bool some = settleCut();
  for (const bool everything : {false, true}) {
    for (Table& table : tables_) {
      if (table.source() == nullptr || !table.hasLater() || (everything && !drained())) continue;
      some = settle(table, everything) || some;
    }
  }
  return some;
}

std::chrono::milliseconds Writer::lookInterval() const {
  const bool complete =
      std::ranges::all_of(tables_, [](const Table& table) { return table.source() != nullptr; });
  return complete || options_.once ? kLookInterval : kEagerLookInterval;
}

void Writer::sleep() const {
  std::vector<Drift::BellSeen> bells;
  for (const Table& table : tables_) {
    if (table.source() != nullptr) bells.push_back(table.source()->bell());
  }
  Drift::waitForAnyRing(bells, lookInterval());
}

/// True if there may be more to do at once.
bool Writer::work() {
  constexpr unsigned kPacketsBetweenLooks = 64;
  if (options_.once && chip_ == nullptr) {
    throw MountException(
        MountStage::absent,
        Fenrik::formatString("{}: no agent has made any table there; start one with the same "
                             "directory",
                             options_.directory));
  }
  if (chip_ == nullptr) return false;
  if (advance() || settle()) return true;
  return classifier_ && drained() && classifier_->rest(*chip_, kPacketsBetweenLooks);
}

/// Whether what was asked for has been done.
bool Writer::done() { return options_.once && chip_ != nullptr && drained(); }

int Writer::run(const volatile std::sig_atomic_t& stop) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point nextLook{};
  while (stop == 0) {
    try {
      if (Clock::now() >= nextLook) {
        look();
        nextLook = Clock::now() + lookInterval();
      }
      const bool more = work();
      busy_ = 0;
      if (more) idle_ = 0;
      if (more) continue;
      if (done()) break;
    } catch (const Fenrik::CorruptionDetectedException& e) {
      news_.warn(e.what());
    } catch (const Drift::NoSpaceException& e) {
      news_.warn(e.what());
    } catch (const MountException& e) {
      // An agent that comes up holds the reports for a moment, to make them.
      if (e.stage() != MountStage::busy || ++busy_ > kBusyLooks) throw;
    }
    if (options_.once && ++idle_ > kIdleLooks) {
      throw Fenrik::Exception(Fenrik::formatString(
          "{}: not everything that was announced can be programmed; bastilctl verify tells more",
          options_.directory));
    }
    sleep();
  }
  return summary();
}

}  // namespace HwWriter
