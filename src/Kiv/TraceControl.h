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

/// A trace setting could not be read. The message says what, in which column and what was expected.
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

/// One traced message, as a sink gets it. The views hold during the call only.
struct TraceLine {
  std::chrono::system_clock::time_point time;
  std::string_view handle;
  unsigned level;
  std::string_view file;
  int line;
  std::string_view function;
  /// The prefix and the formatted message.
  std::string_view text;
  /// All of it in the default form, with its line feed.
  std::string_view rendered;
};

/// What is traced, and where it goes. A process begins with the setting of the environment variable
/// BASTIL_TRACE, and `settingIs` takes what a user gave to a program's option, as it is.
///
/// Control characters in a message stand escaped in its line. A sink that takes nothing, such as a
/// pipe whose reader sleeps, costs the threads that trace a few milliseconds a second; lines are
/// lost meanwhile, and told by their number when it takes lines again.
///
/// Any thread, at any time, but not from within a sink (asserted).
class QUARNBASTIL_EXPORT TraceControl {
 public:
  /// What is known of the handles of one name.
  struct HandleInfo {
    Fenrik::String name;
    std::uint16_t mask;
    unsigned count;
  };
  /// Called by one thread at a time. An exception that leaves it ends the process; a trace inside
  /// it is lost and counted.
  using Sink = std::function<void(const TraceLine&)>;

  /// Sets levels: "TcamEntry*/1-3,8 SwTableIter/none; Ip?Route/" followed by '*' for all.
  ///
  /// A rule is PATTERN/LEVELS; rules are separated by blanks, ';' or ':'. In a pattern '*' stands
  /// for any text and '?' for any one character. LEVELS is a list of levels and ranges, '*', or
  /// "none". A handle that fits has exactly these levels on afterwards, now and when it is made
  /// later; of several rules that fit, the last one given holds. Throws `TraceSettingException`
  /// with nothing changed.
  static void settingIs(std::string_view setting);
  /// The rules in force, in the form that `settingIs` reads.
  static Fenrik::String setting();
  /// Forgets all rules, those of the environment too: every handle is as it was made.
  static void settingDelAll();

  /// All names of handles made so far, in alphabetical order.
  static std::vector<HandleInfo> handles();

  /// Sends every line to a file descriptor with one write(2). The caller keeps the descriptor open
  /// until another sink is set; when the call returns, nothing goes to the former sink any more.
  static void sinkIs(int fd);
  static void sinkIs(Sink callback);
  /// Back to the default, the standard error output.
  static void sinkDel();
  /// Lines that could not be delivered since the process began: a descriptor that failed or stayed
  /// full, or a trace made by a sink.
  static std::uint64_t lostLines() noexcept;
};

}  // namespace Kiv
