#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "Fenrik/Exception.h"
#include "Fenrik/Export.h"

namespace Kiv {

/// A trace setting is invalid. The message gives the column and what was expected.
class QUARNBASTIL_EXPORT TraceSettingException final : public Fenrik::Exception {
 public:
  TraceSettingException(Fenrik::String message, std::size_t column)
      : Exception(std::move(message)), column_(column) {}
  ~TraceSettingException() override;

  /// Position in the setting's text, from 1.
  std::size_t column() const noexcept { return column_; }

 private:
  std::size_t column_;
};

/// One traced message, as passed to a sink. The views are valid during the call only.
struct TraceLine {
  /// Time of the trace.
  std::chrono::system_clock::time_point time;
  /// Name of the trace handle.
  std::string_view handle;
  unsigned level;
  /// Place of the trace site.
  std::string_view file;
  int line;
  std::string_view function;
  /// The prefix and the formatted message.
  std::string_view text;
  /// The complete line in the default form, including its line feed.
  std::string_view rendered;
};

/// Controls what is traced and where it is written. The initial setting is that of the environment
/// variable BASTIL_TRACE; `settingIs` accepts the value of a program option unchanged.
///
/// Control characters in messages are escaped. A blocked sink, such as a pipe whose reader sleeps,
/// costs the tracing threads a few milliseconds per second; meanwhile lines are lost, and their
/// number is reported once the sink accepts lines again.
///
/// Threads: any, at any time, but not from within a sink (asserted).
class QUARNBASTIL_EXPORT TraceControl {
 public:
  /// The handles of one name.
  struct HandleInfo {
    /// Their common name.
    Fenrik::String name;
    /// Levels that are on; bit L is level L.
    std::uint16_t mask;
    /// Number of handles.
    unsigned count;
  };
  /// Called by one thread at a time. An exception terminates the process. A trace within the sink
  /// is lost and counted.
  using Sink = std::function<void(const TraceLine&)>;

  /// Sets levels: "TcamEntry*/1-3,8 SwTableIter/none; Ip?Route/" followed by '*' for all.
  ///
  /// A rule is PATTERN/LEVELS; rules are separated by blanks, ';' or ':'. In a pattern '*' matches
  /// any text and '?' any one character. LEVELS is a list of levels and ranges, '*', or "none". A
  /// matching handle, existing or future, has exactly these levels on; of several matching rules
  /// the last one given applies. Throws `TraceSettingException`; nothing has changed then.
  static void settingIs(std::string_view setting);
  /// The rules in force, in the form accepted by `settingIs`.
  static Fenrik::String setting();
  /// Removes all rules, including those of the environment. All handles return to their initial
  /// levels.
  static void settingDelAll();

  /// All handle names so far, in alphabetical order.
  static std::vector<HandleInfo> handles();

  /// Writes each line to a file descriptor by one write(2). The caller keeps the descriptor open
  /// until another sink is set. The previous sink is not used after the call has returned.
  static void sinkIs(int fd);
  static void sinkIs(Sink callback);
  /// Restores the default: standard error.
  static void sinkDel();
  /// Lines lost since the process began, because a descriptor failed or remained full, or because a
  /// sink traced.
  static std::uint64_t lostLines() noexcept;
};

}  // namespace Kiv
