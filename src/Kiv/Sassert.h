#pragma once

#include <fmt/core.h>

#include <ostream>
#include <sstream>

#include "Fenrik/Export.h"
#include "Kiv/StrepFormatter.h"

namespace Kiv {

/// Gathers the message of an assertion that is about to fail and prints it when destroyed: one line
/// on the standard error output, in one write.
class QUARNBASTIL_EXPORT SassertHelper {
 public:
  /// `expression` is the text of the condition; it outlives the helper.
  explicit SassertHelper(const char* expression);
  SassertHelper(const SassertHelper&) = delete;
  SassertHelper& operator=(const SassertHelper&) = delete;
  ~SassertHelper();

  std::ostream& stream() noexcept { return stream_; }

  /// Streams what an output stream takes, and what only fmt can format.
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
  /// Text of the condition that failed.
  const char* expression_;
  /// Collects the message.
  std::ostringstream stream_;
};

namespace Impl {

/// Ends the process through `__assert_fail` on the expression in quotation marks, those inside it
/// escaped, followed by " == nullptr".
[[noreturn]] QUARNBASTIL_EXPORT void sassertFail(const char* expression, const char* file,
                                                 unsigned line, const char* function) noexcept;

}  // namespace Impl
}  // namespace Kiv

/// Asserts a condition whose failure needs words:
/// `KIV_SASSERT(has(unitId), "unit " << unitId << " is not there")`. The message is evaluated and
/// printed first, then the process ends.
#define KIV_SASSERT(condition, message) KIV_SASSERT_TEXT(condition, #condition, message)

/// The same with the text of the condition given.
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
