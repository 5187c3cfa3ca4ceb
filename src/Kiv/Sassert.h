#pragma once

#include <fmt/core.h>

#include <ostream>
#include <sstream>

#include "Fenrik/Export.h"
#include "Kiv/StrepFormatter.h"

namespace Kiv {

/// Collects the message of a failing assertion and prints it at destruction: one line on standard
/// error, by one write.
class QUARNBASTIL_EXPORT SassertHelper {
 public:
  /// `expression` is the text of the condition and outlives the helper.
  explicit SassertHelper(const char* expression);
  SassertHelper(const SassertHelper&) = delete;
  SassertHelper& operator=(const SassertHelper&) = delete;
  ~SassertHelper();

  std::ostream& stream() noexcept { return stream_; }

  /// Accepts values that can be streamed, and values that only fmt can format.
  template <class T>
  SassertHelper& operator<<(const T& value) {
    if constexpr (requires { stream_ << value; }) {
      stream_ << value;
    } else {
      stream_ << fmt::format("{}", value);
    }
    return *this;
  }

 private:
  /// Text of the failed condition.
  const char* expression_;
  /// Collects the message.
  std::ostringstream stream_;
};

namespace Impl {

/// Aborts through `__assert_fail`, whose text is the expression in quotation marks (quotes within
/// it escaped), followed by " == nullptr".
[[noreturn]] QUARNBASTIL_EXPORT void sassertFail(const char* expression, const char* file,
                                                 unsigned line, const char* function) noexcept;

}  // namespace Impl
}  // namespace Kiv

/// Asserts a condition with an explanation: `KIV_SASSERT(has(unitId), "unit " << unitId << " is not
/// there")`. The message is evaluated and printed, then the process aborts.
#define KIV_SASSERT(condition, message) KIV_SASSERT_TEXT(condition, #condition, message)

/// As above, with the condition's text given.
#define KIV_SASSERT_TEXT(condition, text, message)                            \
  do {                                                                        \
    if (__builtin_expect(!(condition), 0)) {                                  \
      const char* const kivSassertText = (text);                              \
      {                                                                       \
        ::Kiv::SassertHelper kivSassertHelper(kivSassertText);                \
        kivSassertHelper << message; /* NOLINT(bugprone-macro-parentheses) */ \
      }                                                                       \
      ::Kiv::Impl::sassertFail(kivSassertText, __FILE__, __LINE__,            \
                               __extension__ __PRETTY_FUNCTION__);            \
    }                                                                         \
  } while (false)
