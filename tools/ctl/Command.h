#pragma once

#include <fmt/format.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <string>

#include "tables/Collections.h"

/// Looks at the collections below a directory and changes nothing: not even their owner can tell.
namespace Ctl {

using Json = nlohmann::ordered_json;
using Tables::TableKind;
using Tables::Word;
using Tables::Words;

enum Exit : int { kFine = 0, kFinding = 1, kUsage = 2, kCannotOpen = 3 };

/// What all commands have in common.
struct Context {
  const Drift::Directory& directory;
  bool json;
  /// Set when the user has had enough.
  const volatile std::sig_atomic_t& stop;

  /// A line of data.
  static void line(const std::string& text);
  /// A word for the reader beside the data.
  static void say(const std::string& text);
};

/// Wrong use that only the command itself can find.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The family of that name. Throws `UsageError`, with the names that there are.
const TableKind& tableOf(const std::string& name);

struct StatusRequest {
  bool live = false;
  bool once = false;
};
struct LogRequest {
  std::string table;
  Word since = 0;
  bool follow = false;
};
struct ConfigRequest {
  std::string table;
  std::uint16_t unit = 0;
  std::string key;
};

int status(const Context& context, const StatusRequest& request);
int log(const Context& context, const LogRequest& request);
int config(const Context& context, const ConfigRequest& request);
int verify(const Context& context);

}  // namespace Ctl
