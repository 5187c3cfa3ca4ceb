#include <CLI/CLI.hpp>
#include <csignal>

#include "hwwriter/Writer.h"
#include "program/Program.h"

namespace {

volatile std::sig_atomic_t stopAsked = 0;

void askToStop(int /*signal*/) { stopAsked = 1; }

constexpr const char* kStatus =
    "Exit status: 0 a clean end, 1 a violation or a mismatch was counted, or --once left something "
    "undone, 2 wrong use, 3 a file or the directory cannot be used.";

}  // namespace

int main(int argc, char** argv) {
  HwWriter::Options options;
  std::uint64_t delay = 0;
  CLI::App app("Takes what an agent commits below a directory to a simulated chip.",
               "bastil-hwwriter");
  app.footer(kStatus);
  app.set_version_flag("--version", Program::versionOf("bastil-hwwriter"));
  app.add_option("--dir", options.directory, "the agent's directory")->required();
  app.add_option("--rate", options.rate, "rows a second at most");
  app.add_option("--delay", delay, "microseconds that each batch takes");
  app.add_option("--batch", options.batch, "rows of a table before they are reported")
      ->check(CLI::Range(1U, 1'000'000U));
  auto* const rules = app.add_option("--rules", options.rules, "files of the rules that may hold")
                          ->check(CLI::ExistingFile);
  app.add_option("--classify", options.classify,
                 "decide this many packets at each rest, and one at each change")
      ->needs(rules);
  auto* const nextHops =
      app.add_option("--next-hops", options.nextHops, "files of the next hops that may hold")
          ->check(CLI::ExistingFile)
          ->needs(rules);
  app.add_option("--redirect", options.redirects, "files of rules that redirect, before the others")
      ->check(CLI::ExistingFile)
      ->needs(nextHops);
  app.add_option("--prefixes", options.prefixes, "files of prefixes that redirect, after the rules")
      ->check(CLI::ExistingFile)
      ->needs(nextHops);
  app.add_option("--seed", options.seed, "of the packets");
  app.add_flag("--json", options.json, "tell in lines of JSON");
  auto* const once =
      app.add_flag("--once", options.once, "end when everything announced is programmed");
  app.add_option("--timeout", options.timeout,
                 "seconds after which --once gives up; without it, when nothing moves for 3")
      ->check(Program::positiveNumber)
      ->needs(once);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  options.delay = std::chrono::microseconds(delay);
  Program::raiseFileLimit();
  ::signal(SIGPIPE, SIG_IGN);
  struct sigaction action {};
  action.sa_handler = askToStop;
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);
  try {
    return HwWriter::Writer(options).run(stopAsked);
  } catch (const std::exception& e) {
    fmt::print(stderr, "bastil-hwwriter: {}\n", e.what());
    return 3;
  }
}
