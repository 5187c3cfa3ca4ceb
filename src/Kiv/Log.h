#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "Fenrik/Duration.h"
#include "Fenrik/Export.h"
#include "Fenrik/String.h"

namespace Kiv {

/// What an operator is told of one kind of event: six words, found by tools in the section
/// ".corvane_logmsg" of the program without running it.
struct LogDescriptor {
  const char* mnemonic;
  /// The message; "%s" is where the text of an occurrence goes, "%%" a percent sign.
  const char* format;
  const char* explanation;
  /// `kLogNoAction` when there is nothing that an operator could do.
  const char* recommendedAction;
  /// As syslog counts: 0 emergency to 7 debug; 3 is an error.
  std::uintptr_t severity;
  std::uintptr_t end = 0;
};
static_assert(sizeof(LogDescriptor) == 6 * sizeof(void*));

inline constexpr char kLogNoAction[] = "\x01";
inline constexpr std::uintptr_t kLogSeverityError = 3;

/// All descriptors that lie in the sections of the program and its libraries, read from the files
/// that are loaded. A file that cannot be read is left out.
QUARNBASTIL_EXPORT std::vector<const LogDescriptor*> logDescriptors();

/// Raises the messages of one descriptor, and holds them back when there are too many.
///
/// Any thread may log through one handle.
/// I1. With a zero interval nothing is held back.
/// I2. Otherwise at most `burst` messages (one, if zero) pass in an interval. The first message
///     afterwards tells how many were held back.
/// I3. An interval in which messages were held back is followed by one that is `growth` times as
///     long, up to `growthLimit` times in a row; a calm interval brings back the first length.
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
  /// Null when nothing is ever held back.
  Gate* gate_;
};

/// Emits the descriptor's message with `text` in the place of its "%s". Neither the format nor the
/// text is ever taken for a printf format. Nothing is told to the caller if it cannot be delivered.
QUARNBASTIL_EXPORT void log(LogHandle& handle, const Fenrik::String& text) noexcept;

/// One message for the operator, as a sink gets it. The views hold during the call only.
struct LogMessage {
  const LogDescriptor& descriptor;
  /// The message with its text. Control characters stand escaped in it: it is one line, whatever
  /// the text was.
  std::string_view text;
  /// "2026-11-22T21:15:09.123456Z error HW_ABSTRACTION_ERROR: text" and a line feed.
  std::string_view rendered;
};

/// Where the operator's messages go. The default is the standard error output, which every
/// supervisor keeps; an agent that has a system log says so once.
///
/// Any thread, at any time, but not from within a sink (asserted). What was set before is no longer
/// called when the call returns.
class QUARNBASTIL_EXPORT LogControl {
 public:
  using Sink = std::function<void(const LogMessage&)>;

  static void sinkIsStderr();
  /// Each message goes to syslog(3) as "MNEMONIC: text" with the descriptor's severity.
  static void sinkIsSyslog();
  /// One write(2) for a message; the descriptor stays the caller's.
  static void sinkIs(int fd);
  static void sinkIs(Sink callback);
};

}  // namespace Kiv

// Under the address sanitizer clang puts room between the variables of any section, g++ does not.
#ifdef __clang__
#define KIV_LOG_UNPADDED [[clang::no_sanitize("address")]]
#else
#define KIV_LOG_UNPADDED
#endif

/// Defines a descriptor in the section of descriptors:
/// `KIV_LOG_DESCRIPTOR(kLoadError, "HW_...", "unable to load: %s", "...", Kiv::kLogNoAction, 3);`
/// The alignment keeps the compiler from spacing the records out.
#define KIV_LOG_DESCRIPTOR(variable, mnemonic, format, explanation, action, severity) \
  KIV_LOG_UNPADDED                                                                    \
  [[gnu::section(".corvane_logmsg"), gnu::used]] alignas(void*)                       \
      const ::Kiv::LogDescriptor variable {                                           \
    (mnemonic), (format), (explanation), (action), (severity), 0                      \
  }
