#pragma once

#include <fmt/format.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tables/Collections.h"

/// Inspects the collections below a directory without changing anything.
namespace Ctl {

using Json = nlohmann::ordered_json;
using Tables::TableKind;
using Tables::Word;
using Tables::Words;

enum Exit : int { kFine = 0, kFinding = 1, kUsage = 2, kCannotOpen = 3 };

/// The arguments common to all commands.
struct Context {
  const Drift::Directory& directory;  ///< directory of the tables
  bool json;                          ///< print JSON
  /// Set by a signal to end the command.
  const volatile std::sig_atomic_t& stop;

  /// Writes data to standard output, as a line or unchanged. Throws `OutputError`.
  static void line(const std::string& text) { Context::text(text + '\n'); }
  static void text(const std::string& text);
  /// Writes a remark to standard error.
  static void say(const std::string& text);
};

/// Writing to standard output failed.
struct OutputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A usage error that the command line parser does not detect.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The family with this name. Throws `UsageError`, which lists the existing names.
const TableKind& tableOf(const std::string& name);

/// Options of `top`: print once and exit.
struct TopRequest {
  bool once = false;
};
/// Options of `log`.
struct LogRequest {
  std::string table;  ///< name of the table
  /// The first version to show; nullopt: the oldest one available.
  std::optional<Word> since;
  bool follow = false;  ///< continue with records as they are logged
};
/// Options of `config`.
struct ConfigRequest {
  std::string table;       ///< name of the table
  std::uint16_t unit = 0;  ///< number of the unit
  std::string key;         ///< text of the key; empty: all entries
};

int status(const Context& context);
int top(const Context& context, const TopRequest& request);
int log(const Context& context, const LogRequest& request);
int config(const Context& context, const ConfigRequest& request);
int resources(const Context& context);
int verify(const Context& context);
/// Copies the collections, in their state at one moment, to a directory that is absent or empty.
int snapshot(const Context& context, const std::string& to);

}  // namespace Ctl
