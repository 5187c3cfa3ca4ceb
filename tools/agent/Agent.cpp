#include "agent/Agent.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "program/Program.h"

namespace Agent {
namespace {

constexpr unsigned kPumpBudget = 1024;
/// Longest time until a signal or a completed file is noticed.
constexpr std::chrono::milliseconds kLook{100};
/// The same while rows are written.
constexpr std::chrono::milliseconds kMoment{10};

double millisecondsSince(std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin)
      .count();
}

void say(const std::string& text) { Program::print(text + '\n'); }

void complain(const std::string& text) { fmt::print(stderr, "bastil-agent: {}\n", text); }

bool rulesEmpty(const std::vector<Policy::Content>& contents) {
  return std::ranges::all_of(contents, [](const Policy::Content& content) {
    return content.rules.empty() && content.routes.empty();
  });
}

template <class Sources>
std::vector<Policy::Content> contentsOf(const Sources& sources) {
  std::vector<Policy::Content> contents;
  for (const auto& [path, kind] : sources) contents.push_back(Policy::contentOf(path, kind));
  return contents;
}

}  // namespace

std::vector<Agent::Source> Agent::sourcesOf(const Options& options) {
  using Policy::FileKind;
  const bool redirecting = !options.nextHops.empty();
  std::vector<Source> sources;
  if (redirecting) sources.push_back({options.nextHops, FileKind::nextHops});
  for (const auto& path : options.redirects) sources.push_back({path, FileKind::redirects});
  for (const auto& path : options.files) {
    sources.push_back({path, redirecting ? FileKind::redirectingPolicy : FileKind::policy});
  }
  return sources;
}

std::vector<std::string> Agent::pathsOf(const std::vector<Source>& sources) {
  std::vector<std::string> paths;
  for (const Source& source : sources) paths.push_back(source.path);
  return paths;
}

Agent::Agent(Options options, Requests requests)
    : options_(std::move(options)),
      requests_(std::move(requests)),
      sources_(sourcesOf(options_)),
      watch_(pathsOf(sources_)),
      contents_(contentsOf(sources_)),
      wanted_(Policy::wantedOf(contents_)),
      tables_(options_.directory, options_.nextHops.empty() ? nullptr : &options_.nextHopOptions) {}

bool Agent::ends() const {
  const std::chrono::duration<double> taken = Clock::now() - started_;
  return requests_.end() || (options_.timeout != 0 && taken.count() >= options_.timeout);
}

/// Throws if the timeout was the reason for stopping.
void Agent::checkTime() const {
  if (requests_.end() || !ends()) return;
  throw TimeOut(fmt::format("not done in {} s: {}", options_.timeout, tables_.waitsFor()));
}

/// Plans first: a policy that does not fit is refused before anything is removed.
void Agent::run() {
  auto plans = plansOf(options_.reset);
  relaunched();
  if (!emptyOthers()) return checkTime();
  tables_.reconcile();
  if (!programNextHops()) return checkTime();
  if (options_.reset) plans = plansOf(false);
  if (!program(plans)) return checkTime();
  tidy();
  note();
  if (!options_.once) serve();
}

std::vector<Policy::Plan> Agent::plansOf(bool fromNothing) {
  std::vector<Policy::Plan> plans;
  for (const unsigned unit : options_.units) {
    const auto standing = tables_.unit(unit).picture();
    refuseEmpty(rulesEmpty(contents_) && !(standing.rules.empty() && standing.prefixes.empty()),
                fmt::format("the files hold no rule, and unit {} has some", unit));
    static const Policy::Picture kNothing;
    const Policy::Picture& picture = fromNothing ? kNothing : standing;
    try {
      plans.push_back(Policy::planOf(picture, wanted_));
    } catch (const Policy::CapacityError& error) {
      throw Policy::CapacityError(fmt::format("unit {}: {}", unit, error.what()));
    }
  }
  return plans;
}

bool Agent::carryOut(unsigned unit, const Policy::Plan& plan) {
  return Programmer(
             tables_, [this] { return ends(); }, options_.rate)
      .carryOut(tables_.unit(unit), plan);
}

/// Empties the units of an earlier agent that this one does not serve; with `--reset`, all units.
/// As in every change, rules are removed before the prefixes that they refer to.
bool Agent::emptyOthers() {
  // NOLINTNEXTLINE(readability-use-anyofallof): it does more than ask
  for (const unsigned unit : tables_.unitsFound()) {
    const bool served = std::ranges::find(options_.units, unit) != options_.units.end();
    if (served && !options_.reset) continue;
    const auto plan = Policy::planOf(tables_.unit(unit).picture(), {});
    if (!carryOut(unit, plan)) return false;
    tables_.destinationsDel(tables_.unit(unit));
    say(fmt::format("emptied: unit {}; {} rows removed", unit, plan.rows()));
  }
  return true;
}

bool Agent::program(const std::vector<Policy::Plan>& plans) {
  if (wanted_.repeated != 0) {
    say(fmt::format("left out: {} rules that repeat an earlier one", wanted_.repeated));
  }
  for (std::size_t i = 0; i < plans.size(); ++i) {
    if (!carryOut(options_.units[i], plans[i])) return false;
    acknowledged_ = false;
    say(
        fmt::format("programmed: {} rules, {} prefixes, unit {}; {} rows written, {:.1f} ms after "
                    "reading began",
                    plans[i].rules, plans[i].prefixes, options_.units[i], plans[i].rows(),
                    millisecondsSince(began_)));
  }
  return true;
}

/// Before the rules, which may name new ones.
bool Agent::programNextHops() {
  NextHops* const nextHops = tables_.nextHops();
  if (nextHops == nullptr) return true;
  unnote();
  const auto outcome = nextHops->change(wanted_.nextHops, options_.units,
                                        [this](std::size_t rows) { return pumpFor(rows); });
  if (!outcome.complete) return false;
  acknowledged_ = false;
  say(fmt::format("next hops: {}, {} changed, {} down; {} rows written", wanted_.nextHops.size(),
                  outcome.changed, outcome.down, outcome.rows));
  return true;
}

/// Pumps, and takes the time that so many rows take at the requested rate.
bool Agent::pumpFor(std::size_t rows) {
  auto due = Clock::now();
  if (options_.rate != 0) due += rows * Clock::duration(std::chrono::seconds(1)) / options_.rate;
  do {
    if (ends()) return false;
    if (tables_.interface().pump(kPumpBudget).more) continue;
    if (rows == 0 || Clock::now() < due) tables_.waitForReport(kMoment);
  } while (Clock::now() < due);
  return true;
}

/// Tells other programs about the next hops, if something has moved.
void Agent::note() {
  if (tables_.nextHops() == nullptr) return;
  const std::uint64_t behind = tables_.behind();
  if (std::exchange(noted_, behind) == behind) return;
  tables_.nextHops()->note(*tables_.notes());
  tables_.notes()->atRestIs(tables_.queued() == 0);
}

/// Before anything changes.
void Agent::unnote() {
  if (tables_.notes() == nullptr) return;
  tables_.notes()->atRestIs(false);
  noted_.reset();
}

/// Takes down what the hardware does not use any more.
void Agent::tidy() {
  if (tables_.nextHops() == nullptr) return;
  const std::size_t down = tables_.nextHops()->tidy();
  if (down == 0) return;
  say(fmt::format("taken down: {} destinations that no row uses any more", down));
  while (tables_.interface().pump(kPumpBudget).more && !ends()) continue;
}

void Agent::serve() {
  while (!ends()) {
    while (tables_.interface().pump(kPumpBudget).more && !ends()) continue;
    tidy();
    tellAcknowledged();
    note();
    auto files = options_.watch ? watch_.finished() : std::set<std::size_t>();
    if (requests_.reload()) {
      for (std::size_t i = 0; i < sources_.size(); ++i) files.insert(i);
    }
    if (!files.empty() && !reload(files)) return;
    if (!followRelaunch()) return;
    tables_.waitForReport(kLook);
  }
}

/// False if the agent shall end. If a file is unusable, nothing changes.
bool Agent::reload(const std::set<std::size_t>& files) {
  began_ = Clock::now();
  try {
    take(files);
    if (std::ranges::all_of(files, [&](std::size_t file) {
          return sources_[file].kind == Policy::FileKind::nextHops;
        })) {
      return programNextHops();
    }
    const auto plans = plansOf(false);
    return programNextHops() && program(plans);
  } catch (const Policy::InputError& error) {
    complain(error.what());
  } catch (const Policy::CapacityError& error) {
    complain(error.what());
  }
  complain("the rules before stay in force");
  return true;
}

/// Reads `files` and makes them the policy. Other files keep the content of their last completion,
/// whatever their current state.
void Agent::take(const std::set<std::size_t>& files) {
  auto contents = contents_;
  for (const std::size_t file : files) {
    const auto& [path, kind] = sources_[file];
    auto content = Policy::contentOf(path, kind);
    // It is being written again; its completion will be noticed.
    if (options_.watch && watch_.isBeingWritten(file)) continue;
    const bool emptied = content.empty() && !contents[file].empty();
    refuseEmpty(emptied && kind != Policy::FileKind::nextHops,
                path + ": it holds no rule any more");
    contents[file] = std::move(content);
  }
  wanted_ = Policy::wantedOf(contents);
  contents_ = std::move(contents);
}

void Agent::refuseEmpty(bool becomesEmpty, const std::string& what) const {
  if (!becomesEmpty || options_.allowEmpty) return;
  throw Policy::InputError(what + "; --allow-empty lets everything be removed");
}

/// False if the agent shall end.
bool Agent::followRelaunch() {
  if (!relaunched()) return true;
  began_ = Clock::now();
  return programNextHops() && program(plansOf(false));
}

/// Whether a collection was unusable and has been replaced since the last call. Plans made
/// afterwards write its content again.
bool Agent::relaunched() {
  const auto generation = tables_.relaunchSeen();
  if (!generation) return false;
  complain(fmt::format(
      "a collection was lost and made anew (relaunch generation {}); missing rows are written "
      "again",
      *generation));
  return true;
}

void Agent::tellAcknowledged() {
  if (acknowledged_ || tables_.behind() != 0) return;
  acknowledged_ = true;
  say(fmt::format("acknowledged: the hardware has everything, {:.1f} ms after reading began",
                  millisecondsSince(began_)));
}

}  // namespace Agent
