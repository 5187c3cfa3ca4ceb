#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "Fenrik/Duration.h"
#include "Fenrik/Export.h"
#include "Fenrik/String.h"

namespace Kiv {

/// Description of one kind of event for operators: six words, which tools find in the program's
/// section ".corvane_logmsg" without running it.
struct LogDescriptor {
  const char* mnemonic;
  /// The message; "%s" is replaced by the text of an occurrence, "%%" by a percent sign.
  const char* format;
  const char* explanation;
  /// `kLogNoAction` if there is nothing that an operator can do.
  const char* recommendedAction;
  /// Severity as in syslog: 0 emergency to 7 debug; 3 is an error.
  std::uintptr_t severity;
  std::uintptr_t end = 0;
};
static_assert(sizeof(LogDescriptor) == 6 * sizeof(void*));

inline constexpr char kLogNoAction[] = "\x01";
inline constexpr std::uintptr_t kLogSeverityError = 3;

/// All descriptors in the sections of the program and its libraries, read from the loaded files.
/// Unreadable files are omitted.
QUARNBASTIL_EXPORT std::vector<const LogDescriptor*> logDescriptors();

/// Logs the messages of one descriptor, suppressing them if there are too many.
///
/// Threads: any number may log through one handle.
/// I1. With a zero interval nothing is suppressed.
/// I2. Otherwise at most `burst` messages (one, if zero) pass per interval. The first message
///     afterwards gives the number suppressed.
/// I3. An interval with suppressed messages is followed by one that is `growth` times as long, at
///     most `growthLimit` times in a row. An interval without them restores the initial length.
class QUARNBASTIL_EXPORT LogHandle {
 public:
  LogHandle(const LogDescriptor* descriptor, Fenrik::Duration interval, double growth,
            unsigned burst, unsigned growthLimit);
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;
  ~LogHandle();

  const LogDescriptor& descriptor() const noexcept { return *descriptor_; }

 private:
  friend void log(LogHandle& handle, const Fenrik::String& text) noexcept;
  class Gate;

  /// The message and its severity.
  const LogDescriptor* descriptor_;
  /// Null if nothing is ever suppressed.
  Gate* gate_;
};

/// Logs the descriptor's message with `text` in place of its "%s". Neither is interpreted as a
/// printf format. Failures of delivery are not reported to the caller.
QUARNBASTIL_EXPORT void log(LogHandle& handle, const Fenrik::String& text) noexcept;

/// One message for operators, as passed to a sink. The views are valid during the call only.
struct LogMessage {
  const LogDescriptor& descriptor;
  /// The message with its text, in one line: control characters are escaped.
  std::string_view text;
  /// "2026-11-22T21:15:09.123456Z error HW_ABSTRACTION_ERROR: text" and a line feed.
  std::string_view rendered;
};

/// Destination of the operator messages. The default is standard error; an agent with a system log
/// selects it once.
///
/// Threads: any, at any time, but not from within a sink (asserted). The previous sink is not
/// called after the call has returned.
class QUARNBASTIL_EXPORT LogControl {
 public:
  using Sink = std::function<void(const LogMessage&)>;

  static void sinkIsStderr();
  /// Passes each message to syslog(3) as "MNEMONIC: text", with the descriptor's severity.
  static void sinkIsSyslog();
  /// Writes each message by one write(2). The caller keeps ownership of the descriptor.
  static void sinkIs(int fd);
  static void sinkIs(Sink callback);
};

}  // namespace Kiv

// With the address sanitizer clang pads variables in any section; g++ does not.
#ifdef __clang__
#define KIV_LOG_UNPADDED [[clang::no_sanitize("address")]]
#else
#define KIV_LOG_UNPADDED
#endif

/// Defines a descriptor in its section:
/// `KIV_LOG_DESCRIPTOR(kLoadError, "HW_...", "unable to load: %s", "...", Kiv::kLogNoAction, 3);`
/// The alignment prevents the compiler from padding between the records.
#define KIV_LOG_DESCRIPTOR(variable, mnemonic, format, explanation, action, severity) \
  KIV_LOG_UNPADDED                                                                    \
  [[gnu::section(".corvane_logmsg"), gnu::used]] alignas(void*)                       \
      const ::Kiv::LogDescriptor variable {                                           \
    (mnemonic), (format), (explanation), (action), (severity), 0                      \
  }
