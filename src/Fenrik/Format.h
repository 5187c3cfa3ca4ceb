#pragma once

#include <fmt/core.h>

#include <string_view>

#include "Fenrik/Export.h"
#include "Fenrik/String.h"

// Formatting, for sources that need it; no header of the system includes this one. The work is done
// out of line, and only the core of the fmt library is included here.
//
// The library formats only by `fmt::format` and `fmt::vformat`, which are functions of libfmt.
// Others, such as `fmt::format_to`, would add 200 KB of formatting code to the library.

namespace OvFmt::Detail {

/// Formats packed arguments. Throws `fmt::format_error`.
QUARNBASTIL_EXPORT Fenrik::String formatFenrikString(fmt::string_view format,
                                                     fmt::format_args args);

/// Writes formatted packed arguments to the context.
QUARNBASTIL_EXPORT fmt::format_context::iterator formatPut(fmt::format_context& context,
                                                           fmt::string_view format,
                                                           fmt::format_args args);

/// Writes `text` in a parsed format.
QUARNBASTIL_EXPORT fmt::format_context::iterator textPut(
    const fmt::formatter<std::string_view>& textFormat, std::string_view text,
    fmt::format_context& context);

/// Writes `number` in a parsed format.
QUARNBASTIL_EXPORT fmt::format_context::iterator numberPut(
    const fmt::formatter<unsigned long long>& numberFormat, unsigned long long number,
    fmt::format_context& context);

}  // namespace OvFmt::Detail

namespace Fenrik {

/// Formats as the fmt library does. The format is checked at compile time.
template <class... Args>
String formatString(fmt::format_string<Args...> format, Args&&... args) {
  return OvFmt::Detail::formatFenrikString(format, fmt::make_format_args(args...));
}

/// Writes formatted text to a formatter's `context`.
template <class... Args>
auto formatPut(fmt::format_context& context, fmt::format_string<Args...> format, Args&&... args) {
  return OvFmt::Detail::formatPut(context, format, fmt::make_format_args(args...));
}

/// Base class of formatters of values with a text form; accepts string format specifications.
struct TextFormatter : fmt::formatter<std::string_view> {
 protected:
  auto put(std::string_view text, fmt::format_context& context) const {
    return OvFmt::Detail::textPut(*this, text, context);
  }
};

}  // namespace Fenrik

template <>
struct fmt::formatter<Fenrik::String> : Fenrik::TextFormatter {
  auto format(const Fenrik::String& text, fmt::format_context& context) const {
    return put(text.view(), context);
  }
};
