#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <new>

#include "Kiv/TraceControl.h"
#include "agent/Agent.h"
#include "program/Program.h"

namespace {

volatile sig_atomic_t endAsked = 0;
volatile sig_atomic_t reloadAsked = 0;

void takeSignals() {
  struct sigaction action {};
  action.sa_handler = [](int) { endAsked = 1; };
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);
  action.sa_handler = [](int) { reloadAsked = 1; };
  ::sigaction(SIGHUP, &action, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
}

bool reloadIsAsked() {
  if (reloadAsked == 0) return false;
  reloadAsked = 0;
  return true;
}

/// Throws `CLI::ValidationError` if the setting is invalid.
void traceIs(const std::string& setting) {
  try {
    Kiv::TraceControl::settingIs(setting);
  } catch (const Kiv::TraceSettingException& error) {
    throw CLI::ValidationError("--trace", error.what());
  }
}

void addOptions(CLI::App& app, Agent::Options& options) {
  app.add_option("--dir", options.directory, "Directory of the tables, below /dev/shm as a rule")
      ->required();
  app.add_option("--unit", options.units, "Units of the hardware; 0 if none is given")
      ->check(CLI::Range(0, 65534))
      ->allow_extra_args(false);
  app.add_flag(
      "--watch", options.watch,
      "Apply files that are closed by a writer or renamed into place while the agent runs");
  app.add_flag("--allow-empty", options.allowEmpty, "A file may go from some rules to none");
  app.add_flag("--reset", options.reset, "Empty the tables before anything is written");
  auto* const once = app.add_flag("--once", options.once, "End when all rows are committed");
  app.add_option("--timeout", options.timeout, "Seconds after which --once gives up")
      ->check(Program::positiveNumber)
      ->needs(once);
  app.add_option("--rate", options.rate, "Rows a second at most; as many as can be without it")
      ->check(Program::positiveNumber);
  app.add_option_function<std::string>("--trace", traceIs,
                                       "Trace levels, like \"TcamEntry*/1-3 SwTable*/*\"");
  app.add_option("--next-hops", options.nextHops,
                 "File of next hops; rules and prefixes may then name one, in their last column");
  app.add_option("--redirect", options.redirects,
                 "Files of rules that name next hops, before others")
      ->allow_extra_args(false)
      ->needs("--next-hops");
  app.add_option("--on-down", options.nextHopOptions.onDown,
                 "What becomes of packets for a next hop that is down: \"keep\" lets them go where "
                 "they went, \"drop\" drops them")
      ->transform(CLI::CheckedTransformer(std::map<std::string, Agent::OnDown>{
          {"keep", Agent::OnDown::keep}, {"drop", Agent::OnDown::drop}}))
      ->needs("--next-hops");
  app.set_version_flag("--version", Program::versionOf("bastil-agent"));
  app.add_option("FILE", options.files, "Files of rules, or of prefixes");
}

int run(const Agent::Options& options) {
  try {
    Agent::Agent(options, {[] { return endAsked != 0; }, reloadIsAsked}).run();
    if (endAsked != 0) Program::print("ended\n");
    return 0;
  } catch (const std::bad_alloc&) {
    fmt::print(stderr, "bastil-agent: out of memory; what was committed stays\n");
  } catch (const std::exception& error) {
    fmt::print(stderr, "bastil-agent: {}\n", error.what());
  }
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Programs packet filters into the tables of a switch and serves them.",
               "bastil-agent");
  app.footer(
      "It takes over what an earlier agent left, writes what differs, reads its files again on "
      "SIGHUP\nand ends on SIGTERM.\n"
      "Exit status: 0 it ended as it was asked to, 1 it could not go on, 2 wrong use.");
  Agent::Options options;
  addOptions(app, options);
  try {
    app.parse(argc, argv);
    if (options.files.empty() && options.redirects.empty()) {
      throw CLI::RequiredError("FILE");
    }
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  std::ranges::sort(options.units);
  options.units.erase(std::unique(options.units.begin(), options.units.end()), options.units.end());
  takeSignals();
  Program::raiseFileLimit();
  return run(options);
}
