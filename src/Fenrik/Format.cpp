#include "Fenrik/Format.h"

#include <fmt/format.h>

#include <algorithm>

namespace OvFmt::Detail {

Fenrik::String formatFenrikString(fmt::string_view format, fmt::format_args args) {
  return Fenrik::String(fmt::vformat(format, args));
}

fmt::format_context::iterator formatPut(fmt::format_context& context, fmt::string_view format,
                                        fmt::format_args args) {
  return std::ranges::copy(fmt::vformat(format, args), context.out()).out;
}

fmt::format_context::iterator textPut(const fmt::formatter<std::string_view>& textFormat,
                                      std::string_view text, fmt::format_context& context) {
  return textFormat.format(text, context);
}

fmt::format_context::iterator numberPut(const fmt::formatter<unsigned long long>& numberFormat,
                                        unsigned long long number, fmt::format_context& context) {
  return numberFormat.format(number, context);
}

}  // namespace OvFmt::Detail
