#include <CLI/CLI.hpp>
#include <cstdio>

#include "Fenrik/Format.h"
#include "ctl/Command.h"

namespace Ctl {
namespace {

volatile std::sig_atomic_t stopAsked = 0;

void askToStop(int /*signal*/) { stopAsked = 1; }

constexpr const char* kStatus =
    "Exit status: 0 fine, 1 a finding, 2 wrong use, 3 something cannot be opened.";

/// Fails unless the directory holds a collection of some table: whatever else is in it, an agent
/// has not been here.
void requireTables(const Drift::Directory& directory) {
  if (!directory.entities("hardware/").empty()) return;
  throw Drift::MountException(
      Drift::MountStage::absent,
      Fenrik::formatString("{} holds no tables; give the directory that the agent was given",
                           directory.path()));
}

template <class Command>
int run(const std::string& path, bool json, Command command) {
  try {
    const Drift::Directory directory(path, Drift::Directory::Access::read);
    requireTables(directory);
    return command(Context{directory, json, stopAsked});
  } catch (const UsageError& e) {
    fmt::print(stderr, "bastilctl: {}\n", e.what());
    return kUsage;
  } catch (const Drift::MountException& e) {
    fmt::print(stderr, "bastilctl: {}\n", e.what());
    return kCannotOpen;
  } catch (const std::exception& e) {
    fmt::print(stderr, "bastilctl: {}\n", e.what());
    return kFinding;
  }
}

int main(int argc, char** argv) {
  std::string directory;
  bool json = false;
  std::function<int(const Context&)> command;
  CLI::App app("Shows the tables below an agent's directory, live, dead or copied.", "bastilctl");
  app.footer(kStatus);
  app.add_option("--dir", directory, "the directory")->required();
  app.add_flag("--json", json, "print JSON");
  app.require_subcommand(1)->fallthrough();

  StatusRequest statusRequest;
  StatusRequest topRequest{.live = true};
  LogRequest logRequest;
  ConfigRequest configRequest;
  app.add_subcommand("status", "how many entries, and how far agent and hardware are")
      ->callback([&] { command = [&](const Context& c) { return status(c, statusRequest); }; });
  auto* const top = app.add_subcommand("top", "the same, again and again");
  top->add_flag("--once", topRequest.once, "one picture");
  top->callback([&] { command = [&](const Context& c) { return status(c, topRequest); }; });
  auto* const log = app.add_subcommand("log", "the records that wait for the hardware");
  log->add_option("TABLE", logRequest.table)->required();
  log->add_option("--since", logRequest.since, "the first version to show");
  log->add_flag("--follow", logRequest.follow, "go on with what comes");
  log->callback([&] { command = [&](const Context& c) { return Ctl::log(c, logRequest); }; });
  auto* const config = app.add_subcommand("config", "what is configured");
  config->add_option("TABLE", configRequest.table)->required();
  config->add_option("UNIT", configRequest.unit)->required();
  config->add_option("KEY", configRequest.key, "as printed, or its values: 10.0.0.0/8");
  config->callback(
      [&] { command = [&](const Context& c) { return Ctl::config(c, configRequest); }; });
  app.add_subcommand("verify", "checks every header, record and number against the others")
      ->callback([&] { command = verify; });
  for (auto* const sub : app.get_subcommands({})) sub->fallthrough();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kFine : kUsage;
  }
  struct sigaction action {};
  action.sa_handler = askToStop;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  return run(directory, json, command);
}

}  // namespace

void Context::line(const std::string& text) {
  fmt::print("{}\n", text);
  std::fflush(stdout);
}

void Context::say(const std::string& text) { fmt::print(stderr, "bastilctl: {}\n", text); }

const TableKind& tableOf(const std::string& name) {
  if (const TableKind* const kind = Tables::kindOf(name)) return *kind;
  std::vector<std::string_view> names;
  for (const TableKind& kind : Tables::tableKinds()) names.push_back(kind.name);
  throw UsageError(
      fmt::format("there is no table \"{}\"; there are {}", name, fmt::join(names, ", ")));
}

}  // namespace Ctl

int main(int argc, char** argv) { return Ctl::main(argc, argv); }
