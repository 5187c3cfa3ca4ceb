#pragma once

#include <fmt/format.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tables/Collections.h"

/// Looks at the collections below a directory and changes nothing.
namespace Ctl {

using Json = nlohmann::ordered_json;
using Tables::TableKind;
using Tables::Word;
using Tables::Words;

enum Exit : int { kFine = 0, kFinding = 1, kUsage = 2, kCannotOpen = 3 };

/// The common arguments of all commands.
struct Context {
  const Drift::Directory& directory;
  bool json;
  /// Set by a signal: the command is to end.
  const volatile std::sig_atomic_t& stop;

  /// Data for standard output, a line or as it is. Throws `OutputError`.
  static void line(const std::string& text) { Context::text(text + '\n'); }
  static void text(const std::string& text);
  /// A remark for standard error.
  static void say(const std::string& text);
};

/// Standard output takes no more.
struct OutputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Wrong use that the command line's parser does not find.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The family of that name. Throws `UsageError`, with the names that there are.
const TableKind& tableOf(const std::string& name);

struct TopRequest {
  bool once = false;
};
struct LogRequest {
  std::string table;
  /// The first version to show; nothing: the oldest one that is there.
  std::optional<Word> since;
  bool follow = false;
};
struct ConfigRequest {
  std::string table;
  std::uint16_t unit = 0;
  std::string key;
};

int status(const Context& context);
int top(const Context& context, const TopRequest& request);
int log(const Context& context, const LogRequest& request);
int config(const Context& context, const ConfigRequest& request);
int verify(const Context& context);
/// Copies the collections to a directory that is absent or empty, as they were at one moment.
int snapshot(const Context& context, const std::string& to);

}  // namespace Ctl
