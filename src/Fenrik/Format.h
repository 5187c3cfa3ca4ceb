#pragma once

#include <fmt/core.h>

#include <string_view>

#include "Fenrik/Export.h"
#include "Fenrik/String.h"

// What makes text of values, for sources that do so; no header of the system needs it. The work is
// done out of line, and of the fmt library only its core is read here.
//
// The library formats by `fmt::format` and `fmt::vformat` alone, which are functions of libfmt. The
// others, `fmt::format_to` first of all, bring 200 KB of formatting for all types into the library.

namespace OvFmt::Detail {

/// Text in the manner of the fmt library from packed arguments. Throws `fmt::format_error`.
QUARNBASTIL_EXPORT Fenrik::String formatFenrikString(fmt::string_view format,
                                                     fmt::format_args args);

/// Writes the text of packed arguments.
QUARNBASTIL_EXPORT fmt::format_context::iterator formatPut(fmt::format_context& context,
                                                           fmt::string_view format,
                                                           fmt::format_args args);

/// Writes `text` in a format that has been parsed.
QUARNBASTIL_EXPORT fmt::format_context::iterator textPut(
    const fmt::formatter<std::string_view>& textFormat, std::string_view text,
    fmt::format_context& context);

/// Writes `number` in a format that has been parsed.
QUARNBASTIL_EXPORT fmt::format_context::iterator numberPut(
    const fmt::formatter<unsigned long long>& numberFormat, unsigned long long number,
    fmt::format_context& context);

}  // namespace OvFmt::Detail

namespace Fenrik {

/// Text in the manner of the fmt library. The format is checked where it is compiled.
template <class... Args>
String formatString(fmt::format_string<Args...> format, Args&&... args) {
  return OvFmt::Detail::formatFenrikString(format, fmt::make_format_args(args...));
}

/// What a formatter writes to `context`: text in the manner of the fmt library.
template <class... Args>
auto formatPut(fmt::format_context& context, fmt::format_string<Args...> format, Args&&... args) {
  return OvFmt::Detail::formatPut(context, format, fmt::make_format_args(args...));
}

/// Base of formatters of what is told by a text, with the specifications of text.
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
