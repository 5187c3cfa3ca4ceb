#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>

#include "agent/Agent.h"

namespace {

volatile sig_atomic_t endAsked = 0;

void endOn(int signal) {
  struct sigaction action {};
  action.sa_handler = [](int) { endAsked = 1; };
  ::sigaction(signal, &action, nullptr);
}

void addOptions(CLI::App& app, Agent::Options& options) {
  app.add_option("--dir", options.directory, "Directory of the tables, below /dev/shm as a rule")
      ->required();
  app.add_option("--unit", options.units, "Units of the hardware; 0 if none is given")
      ->check(CLI::Range(0, 65534))
      ->allow_extra_args(false);
  app.add_flag("--watch", options.watch, "Apply what changes in the files while the agent runs");
  app.add_flag("--reset", options.reset, "Empty the tables before anything is written");
  app.add_flag("--once", options.once, "End when all rows are committed");
  app.add_option("--rate", options.rate, "Rows a second at most; as many as can be without it")
      ->check(CLI::PositiveNumber);
  app.add_option("FILE", options.files, "Files of rules, or of prefixes")->required();
}

int run(const Agent::Options& options) {
  try {
    Agent::Agent(options, [] { return endAsked != 0; }).run();
    if (endAsked != 0) fmt::print("ended\n");
    return 0;
  } catch (const std::exception& error) {
    std::fflush(stdout);
    fmt::print(stderr, "bastil-agent: {}\n", error.what());
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Programs packet filters into the tables of a switch and serves them.",
               "bastil-agent");
  app.footer(
      "It takes over what an earlier agent left, writes what differs, and ends on SIGTERM.\n"
      "Exit status: 0 it ended as it was asked to, 1 it could not go on, 2 wrong use.");
  Agent::Options options;
  addOptions(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  std::ranges::sort(options.units);
  options.units.erase(std::unique(options.units.begin(), options.units.end()), options.units.end());
  ::signal(SIGPIPE, SIG_IGN);
  endOn(SIGTERM);
  endOn(SIGINT);
  return run(options);
}
