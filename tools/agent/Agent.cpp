#include "agent/Agent.h"

#include <fmt/format.h>

#include <algorithm>

namespace Agent {
namespace {

constexpr unsigned kPumpBudget = 1024;
/// How long a signal or a changed file may go unnoticed.
constexpr std::chrono::milliseconds kLook{100};

double millisecondsSince(std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin)
      .count();
}

void say(const std::string& text) {
  fmt::print("{}\n", text);
  std::fflush(stdout);
}

}  // namespace

Agent::Agent(Options options, std::function<bool()> ends)
    : options_(std::move(options)),
      ends_(std::move(ends)),
      watch_(options_.files),
      wanted_(Policy::wantedOf(options_.files)),
      tables_(options_.directory) {}

/// What does not fit is refused before anything is removed.
void Agent::run() {
  auto plans = plansOf(options_.reset);
  if (!emptyOthers()) return;
  if (options_.reset) plans = plansOf(false);
  if (!program(plans) || options_.once) return;
  serve();
}

std::vector<Policy::Plan> Agent::plansOf(bool fromNothing) {
  std::vector<Policy::Plan> plans;
  for (const unsigned unit : options_.units) {
    const auto picture = fromNothing ? Policy::Picture() : tables_.unit(unit).picture();
    try {
      plans.push_back(Policy::planOf(picture, wanted_));
    } catch (const Policy::CapacityError& error) {
      throw Policy::CapacityError(fmt::format("unit {}: {}", unit, error.what()));
    }
  }
  return plans;
}

bool Agent::carryOut(unsigned unit, const Policy::Plan& plan) {
  return Programmer(tables_, ends_, options_.rate).carryOut(tables_.unit(unit), plan);
}

/// Units that an earlier agent had and this one has not, and with `--reset` all. Rules go before
/// the prefixes that they are about, as in every change.
bool Agent::emptyOthers() {
  // NOLINTNEXTLINE(readability-use-anyofallof): it does more than ask
  for (const unsigned unit : tables_.unitsFound()) {
    const bool served = std::ranges::find(options_.units, unit) != options_.units.end();
    if (served && !options_.reset) continue;
    const auto plan = Policy::planOf(tables_.unit(unit).picture(), {});
    if (!carryOut(unit, plan)) return false;
    say(fmt::format("emptied: unit {}; {} rows removed", unit, plan.steps.size()));
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
                    plans[i].rules, plans[i].prefixes, options_.units[i], plans[i].steps.size(),
                    millisecondsSince(began_)));
  }
  return true;
}

void Agent::serve() {
  while (!ends_()) {
    while (tables_.interface().pump(kPumpBudget).more && !ends_()) continue;
    tellAcknowledged();
    if (options_.watch && watch_.changed() && !reload()) return;
    tables_.interface().waitForReport(kLook);
  }
}

/// False if the agent is to end. A file that cannot be used leaves everything as it is.
bool Agent::reload() {
  began_ = Clock::now();
  try {
    wanted_ = Policy::wantedOf(options_.files);
    return program(plansOf(false));
  } catch (const Policy::InputError& error) {
    fmt::print(stderr, "bastil-agent: {}\n", error.what());
  } catch (const Policy::CapacityError& error) {
    fmt::print(stderr, "bastil-agent: {}\n", error.what());
  }
  fmt::print(stderr, "bastil-agent: the rules before stay in force\n");
  return true;
}

void Agent::tellAcknowledged() {
  if (acknowledged_ || tables_.behind() != 0) return;
  acknowledged_ = true;
  say(fmt::format("acknowledged: the hardware has everything, {:.1f} ms after reading began",
                  millisecondsSince(began_)));
}

}  // namespace Agent
