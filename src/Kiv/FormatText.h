#pragma once

#include <fmt/format.h>

#include <iterator>
#include <utility>

#include "Fenrik/String.h"

namespace OvFmt::Detail {

/// Text in the manner of the fmt library from packed arguments. Throws `fmt::format_error`.
inline Fenrik::String formatFenrikString(fmt::string_view format, fmt::format_args args) {
  std::string text;
  fmt::vformat_to(std::back_inserter(text), format, args);
  return Fenrik::String(std::move(text));
}

}  // namespace OvFmt::Detail
