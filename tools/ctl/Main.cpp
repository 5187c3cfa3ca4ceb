#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "Fenrik/Format.h"
#include "ctl/Command.h"
#include "program/Program.h"
#include "tables/Catalogue.h"

namespace Ctl {
namespace {

volatile std::sig_atomic_t stopAsked = 0;

void askToStop(int /*signal*/) { stopAsked = 1; }

constexpr const char* kStatus =
    "Exit status: 0 fine, 1 a finding, 2 wrong use, 3 something cannot be opened or written.";

/// Throws unless the directory contains a collection of a table, which shows that an agent has used
/// it.
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
    Tables::Catalogue().learn(directory, Context::say);
    return command(Context{directory, json, stopAsked});
  } catch (const UsageError& e) {
    fmt::print(stderr, "bastilctl: {}\n", e.what());
    return kUsage;
  } catch (const Drift::MountException& e) {
    fmt::print(stderr, "bastilctl: {}\n", e.what());
    return kCannotOpen;
  } catch (const OutputError& e) {
    fmt::print(stderr, "bastilctl: {}\n", e.what());
    return kCannotOpen;
  } catch (const std::exception& e) {
    fmt::print(stderr, "bastilctl: {}\n", e.what());
    return kFinding;
  }
}

/// The command requested by the arguments.
struct Request {
  std::string directory;
  bool json = false;
  std::function<int(const Context&)> command;
  TopRequest top;
  LogRequest log;
  ConfigRequest config;
  std::string to;
};

void addCommands(CLI::App& app, Request& request) {
  const auto add = [&](const char* name, const char* what, auto command) {
    auto* const sub = app.add_subcommand(name, what);
    sub->callback([&request, command] { request.command = command; });
    return sub;
  };
  add("status", "how many entries, and how far agent and hardware are", status);
  add("top", "the same once a second, with rates; q ends", [&](const Context& context) {
    return top(context, request.top);
  })->add_flag("--once", request.top.once, "one picture");
  auto* const log = add("log", "the records that wait for the hardware",
                        [&](const Context& c) { return Ctl::log(c, request.log); });
  log->add_option("TABLE", request.log.table)->required();
  log->add_option("--since", request.log.since, "the first version to show")
      ->check(Program::positiveNumber);
  log->add_flag("--follow", request.log.follow, "go on with what comes");
  auto* const config = add("config", "what is configured", [&](const Context& context) {
    return Ctl::config(context, request.config);
  });
  config->add_option("TABLE", request.config.table)->required();
  config->add_option("UNIT", request.config.unit)->required();
  config->add_option("KEY", request.config.key, "as printed, or its values: 10.0.0.0/8");
  add("resources", "the next hops that actions follow, and who uses them", resources);
  add("verify", "checks every header, record and number against the others", verify);
  add("snapshot", "copies the collections, as they were at one moment, to another directory",
      [&](const Context& context) { return snapshot(context, request.to); })
      ->add_option("DIR", request.to, "absent or empty")
      ->required();
  for (auto* const sub : app.get_subcommands({})) sub->fallthrough();
}

/// Throws `CLI::ValidationError` if the first word is not a command.
void checkCommand(const CLI::App& app, int argc, char** argv) {
  std::vector<std::string> names;
  for (const auto* const sub : app.get_subcommands({})) names.push_back(sub->get_name());
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--dir") ++i;
    if (word.starts_with('-')) continue;
    if (std::ranges::find(names, word) != names.end()) return;
    throw CLI::ValidationError(
        fmt::format("there is no command \"{}\"; there are {}", word, fmt::join(names, ", ")));
  }
}

int main(int argc, char** argv) {
  Request request;
  CLI::App app("Shows the tables below an agent's directory, live, dead or copied.", "bastilctl");
  app.footer(kStatus);
  app.add_option("--dir", request.directory, "the directory")->required();
  app.add_flag("--json", request.json, "print JSON");
  app.set_version_flag("--version", Program::versionOf("bastilctl"));
  app.require_subcommand(1)->fallthrough();
  addCommands(app, request);
  try {
    checkCommand(app, argc, argv);
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    if (!std::cout.flush()) return kCannotOpen;
    return status == 0 ? kFine : kUsage;
  }
  Program::raiseFileLimit();
  struct sigaction action {};
  action.sa_handler = askToStop;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  return run(request.directory, request.json, request.command);
}

}  // namespace

void Context::text(const std::string& text) {
  if (Program::print(text)) return;
  throw OutputError(fmt::format("cannot write to standard output: {}", std::strerror(errno)));
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
