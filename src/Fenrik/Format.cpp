#include "Fenrik/Format.h"

#include <fmt/format.h>

#include <iterator>

namespace OvFmt::Detail {

Fenrik::String formatFenrikString(fmt::string_view format, fmt::format_args args) {
  fmt::memory_buffer text;
  fmt::vformat_to(std::back_inserter(text), format, args);
  return Fenrik::String(std::string_view(text.data(), text.size()));
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
