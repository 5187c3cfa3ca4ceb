#include "hwwriter/Writer.h"

#include <algorithm>
#include <thread>

#include "Fenrik/Format.h"

namespace HwWriter {
namespace {

using Drift::MountException;
using Drift::MountStage;

/// Interval of looking for new or replaced files, which no doorbell announces.
constexpr std::chrono::milliseconds kLookInterval(100);
/// Interval while there is no table, or while the agent may be creating more.
constexpr std::chrono::milliseconds kEagerLookInterval(5);
/// How long a comparison waits until everything configured has been announced.
constexpr std::chrono::milliseconds kCalm(500);
constexpr std::chrono::milliseconds kBetweenTries(1);
/// Length of a sleep after which the writer declares that it reads nothing, so that the agent can
/// free memory.
constexpr std::chrono::milliseconds kDoze(10);
/// How long after a new table another one is expected.
constexpr std::chrono::seconds kBringUp(1);
/// Number of looks for which another process's lock is tolerated.
constexpr unsigned kBusyLooks = 20;
/// How long `--once` waits without progress, if there is no `--timeout`.
constexpr std::chrono::seconds kPatience(3);
/// Time without progress after which the user is told what is awaited.
constexpr std::chrono::seconds kSilence(1);

}  // namespace

Writer::Writer(const Options& options) : options_(options), news_(options.json), pace_(options) {
  if (options.classify != 0) classifier_.emplace(options_, news_);
}

/// Adds newly described families, after those of the library.
void Writer::learn() {
  catalogue_.learn(*directory_, [&](const std::string& text) { news_.warn(text); });
  for (std::size_t i = tables_.size(); i < Tables::tableKinds().size(); ++i) {
    tables_.emplace_back(Tables::tableKinds()[i]);
    if (chip_ != nullptr) chip_->recall(tables_.back().kind());
  }
}

/// Opens what the agent has created. False if there is nothing yet.
bool Writer::open() {
  if (!directory_) {
    try {
      directory_.emplace(options_.directory, Drift::Directory::Access::read);
    } catch (const MountException& e) {
      if (e.stage() != MountStage::absent) throw;
      return false;
    }
  }
  learn();
  std::size_t present = 0;
  for (Table& table : tables_) present += table.open(*directory_, news_) ? 1 : 0;
  if (present != std::exchange(present_, present)) grew_ = Clock::now();
  if (present == 0 || chip_ != nullptr) return present != 0;
  reports_.emplace(options_.directory);
  chip_ = std::make_unique<SimAsic::Chip>(
      fmt::format("{}/{}", options_.directory, Tables::kChipFolder));
  return true;
}

/// Opens what is new or was replaced since the last look.
void Writer::look() {
  ++looks_;
  if (!open()) return;
  reports_->refresh();
  std::string lost;
  for (const Table& table : tables_) {
    if (table.source() != nullptr && lost.empty()) lost = table.lost(*chip_);
  }
  if (lost.empty()) {
    for (const Table& table : tables_) {
      if (table.source() != nullptr) table.followedBy(*chip_);
    }
    reportAll();
  } else {
    startOver(lost);
  }
  if (!std::exchange(started_, true)) tellStarted();
}

void Writer::tellStarted() {
  std::string text = "started; the chip is programmed";
  nlohmann::ordered_json programmed = nlohmann::ordered_json::object();
  for (const Table& table : tables_) {
    if (table.source() == nullptr) continue;
    const TableKind& kind = table.kind();
    programmed[std::string(kind.name)] = chip_->programmed(kind);
    text += fmt::format("{} to version {} of {}", programmed.size() == 1 ? "" : ",",
                        chip_->programmed(kind), kind.name);
  }
  news_.tell("started", text, {{"programmed", programmed}});
}

void Writer::ring() {
  reports_->ring([&](const std::string& group) -> const Drift::DriftFile* {
    const auto of = std::ranges::find_if(tables_, [&](const Table& table) {
      return table.source() != nullptr && table.kind().group == group;
    });
    return of == tables_.end() ? nullptr : &of->source()->log();
  });
}

/// Reports the chip's progress. Has an effect only at the first call and for replaced maps.
void Writer::reportAll() {
  for (const Table& table : tables_) {
    if (table.source() == nullptr) continue;
    const Word announced = table.source()->announced();
    const Word programmed = chip_->programmed(table.kind());
    if (programmed <= announced) reports_->report(table.kind(), programmed);
  }
  ring();
}

/// Called when the place in a log is lost: makes the chip equal to the configuration and continues
/// from the versions announced now.
void Writer::startOver(const std::string& why) {
  std::optional<Comparison> comparison;
  std::map<const Table*, Word> announced;
  const auto end = Clock::now() + kCalm;
  do {
    for (const Table& table : tables_) {
      if (table.source() != nullptr) announced[&table] = table.source()->announced();
    }
    comparison.emplace(*chip_, news_);
    // Read after the announced versions, so that the configurations include them.
    for (const auto& [table, version] : announced) table->compare(*comparison, version);
    if (comparison->early() == 0) break;
    std::this_thread::sleep_for(kBetweenTries);
  } while (Clock::now() < end);
  const std::size_t programmed = comparison->program();
  moved_ = Clock::now();
  for (const auto& [table, version] : announced) {
    chip_->programmedIs(table->kind(), version);
    table->followedBy(*chip_);
    reports_->report(table->kind(), version);
  }
  ring();
  news_.tell("lost",
             fmt::format("{}; compared {} rows with the configuration: {} differed and were "
                         "programmed",
                         why, comparison->compared(), programmed),
             {{"why", why}, {"rows", comparison->compared()}, {"programmed", programmed}});
}

bool Writer::satisfied(const TableKind& kind, Word version,
                       const std::vector<Asic::TableVersion>& needs) {
  for (const Asic::TableVersion& need : needs) {
    const auto other = std::ranges::find(tables_, need.tableId(),
                                         [](const Table& table) { return table.kind().id; });
    if (other == tables_.end()) {
      // A family is described before it has versions, so it is known after one more look.
      const unsigned met = unknown_.try_emplace(need.tableId(), looks_).first->second;
      if (looks_ == met) return false;
      news_.warn(fmt::format("{}: table {} is needed and not known here; going on without",
                             kind.name, need.tableId()));
      continue;
    }
    const Word announced = other->source() == nullptr ? 0 : other->source()->announced();
    // A version that was never announced belonged to a lost log; nothing depends on it.
    const bool there = other->source() != nullptr;
    const Word needed =
        there ? std::min(need.logVersion().value(), announced) : need.logVersion().value();
    if (!there || chip_->programmed(other->kind()) < needed) {
      waits(kind, version, *other, needed);
      return false;
    }
    reports_->report(other->kind(), needed);
  }
  return true;
}

void Writer::waits(const TableKind& kind, Word version, const Table& other, Word needed) {
  chip_->waitsIs(kind, &other.kind(), needed);
  waits_[kind.id] =
      fmt::format("{}: version {} waits for version {} of {}, {}", kind.name, version, needed,
                  other.kind().name,
                  other.source() == nullptr
                      ? "whose log is not there"
                      : fmt::format("which is programmed to {}", chip_->programmed(other.kind())));
}

/// `News::warn` limits the rate.
void Writer::tellWaits() {
  if (Clock::now() - moved_ < kSilence) return;
  if (chip_ == nullptr) {
    news_.warn(
        fmt::format("{}: no agent has made any table there; waiting for one", options_.directory));
    return;
  }
  if (!waits_.empty()) chip_->metersStore();
  for (const auto& [id, text] : waits_) news_.warn(text);
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
  const TableKind& kind = table.kind();
  LogSource& source = *table.source();
  const Word announced = source.announced();
  Word version = chip_->programmed(kind);
  const auto lost = [&](const char* what) {
    lost_ = fmt::format("{}: {} after version {}", kind.name, what, version);
    return Step::lost;
  };
  if (announced < version) return lost("the log was made anew and ends");
  const Word begin = version;
  const Word end = std::min(announced, version + options_.batch);
  chip_->waitsIs(kind, nullptr, 0);
  waits_.erase(kind.id);
  for (; version < end; ++version) {
    const auto* const needs = source.needs(version + 1);
    if (needs == nullptr) return lost("needed versions cannot be read");
    if (!satisfied(kind, version + 1, *needs)) break;
    const auto read = source.read(version + 1, row_);
    if (read == LogSource::Read::lost) return lost("the log has gone on, or cannot be read");
    if (read == LogSource::Read::found) apply(kind, row_);
    chip_->programmedIs(kind, version + 1);
    pace_.row();
    if (classifier_) classifier_->changed(*chip_);
  }
  if (version <= begin) return Step::nothing;
  moved_ = Clock::now();
  pace_.batch();
  reports_->report(kind, version);
  return Step::some;
}

/// Processes a batch of each table. False if nothing could be done.
bool Writer::advance() {
  bool some = false;
  for (Table& table : tables_) {
    if (table.source() == nullptr) continue;
    try {
      const Step step = advance(table);
      // Looks first, since the lost collection may have been replaced.
      if (step == Step::lost) look();
      if (step == Step::lost) startOver(lost_);
      some = some || step != Step::nothing;
    } catch (const Fenrik::CorruptionDetectedException& e) {
      news_.warn(e.what());
    }
  }
  if (!some) return false;
  chip_->metersStore();
  ring();
  if (!chip_->lastViolation().empty()) news_.warn("violation: " + chip_->lastViolation());
  return true;
}

/// Whether everything announced has been programmed.
bool Writer::drained() const {
  return std::ranges::all_of(tables_, [&](const Table& table) {
    return table.source() == nullptr ||
           table.source()->announced() <= chip_->programmed(table.kind());
  });
}

/// Number of rows in which chip and configuration differ, except those not announced yet.
std::size_t Writer::differences() {
  Comparison comparison(*chip_, news_);
  for (const Table& table : tables_) {
    if (table.source() != nullptr) table.compare(comparison, chip_->programmed(table.kind()));
  }
  return comparison.differences();
}

std::chrono::milliseconds Writer::lookInterval() const {
  const bool isGrowing = present_ == 0 || Clock::now() - grew_ < kBringUp;
  return isGrowing && !options_.once ? kEagerLookInterval : kLookInterval;
}

void Writer::sleep() const {
  std::vector<Drift::BellSeen> bells;
  for (const Table& table : tables_) {
    if (table.source() != nullptr) bells.push_back(table.source()->bell());
  }
  const auto own = reports_ ? reports_->files() : std::vector<const Drift::DriftFile*>();
  const auto interval = lookInterval();
  const auto doze = std::min(interval, kDoze);
  if (Drift::waitForAnyRing(bells, doze, own) || doze == interval) return;
  for (const Table& table : tables_) table.rest();
  Drift::waitForAnyRing(bells, interval - doze, own);
}

/// True if there may be more to do immediately.
bool Writer::work() {
  constexpr unsigned kPacketsBetweenLooks = 64;
  if (options_.once && chip_ == nullptr && options_.timeout == 0) {
    throw MountException(
        MountStage::absent,
        Fenrik::formatString("{}: no agent has made any table there; start one with the same "
                             "directory",
                             options_.directory));
  }
  if (chip_ == nullptr) return false;
  if (advance()) return true;
  return classifier_ && drained() && classifier_->rest(*chip_, kPacketsBetweenLooks);
}

/// Whether `--once` is complete: the chip has everything announced and equals the configuration.
bool Writer::done() {
  if (!options_.once || chip_ == nullptr || !drained()) return false;
  complete_ = differences() == 0;
  return complete_;
}

bool Writer::givesUp() const {
  if (!options_.once) return false;
  const auto now = Clock::now();
  if (options_.timeout != 0) return now - began_ >= std::chrono::duration<double>(options_.timeout);
  return now - moved_ >= kPatience;
}

int Writer::run(const volatile std::sig_atomic_t& stop) {
  Clock::time_point nextLook{};
  while (stop == 0) {
    try {
      if (Clock::now() >= nextLook) {
        look();
        nextLook = Clock::now() + lookInterval();
      }
      const bool more = work();
      busy_ = 0;
      if (more) continue;
      if (done()) break;
    } catch (const Fenrik::CorruptionDetectedException& e) {
      news_.warn(e.what());
    } catch (const Drift::NoSpaceException& e) {
      news_.warn(e.what());
    } catch (const MountException& e) {
      // An agent that is starting holds the reports for a moment to create them.
      if (e.stage() != MountStage::busy || ++busy_ > kBusyLooks) throw;
    }
    // Checked after the look: a process that was not scheduled for some time has not stalled.
    if (givesUp()) break;
    tellWaits();
    sleep();
  }
  return summary();
}

}  // namespace HwWriter
