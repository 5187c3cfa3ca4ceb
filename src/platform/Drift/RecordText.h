#pragma once

#include <fmt/core.h>

#include <cstddef>
#include <string>

#include "Drift/RecordField.h"
#include "Fenrik/Export.h"
#include "Fenrik/Format.h"

namespace Drift {

/// Appends the text form of a described value, "{name: value, ...}". Members that are zero and
/// groups that are absent are left out, but a key is shown whole; arrays of bytes are hexadecimal.
QUARNBASTIL_EXPORT void textAppend(std::string& text, const void* value, const RecordField* fields,
                                   std::size_t fieldCount, bool isKey);

template <Described T>
void textAppend(std::string& text, const T& value) {
  textAppend(text, &value, kFieldsOf<T>.data(), kFieldsOf<T>.size(), Impl::kIsKey<T>);
}

}  // namespace Drift

/// The text form of described values; takes the format specifications of text. An exception of the
/// text form ends the process.
template <Drift::Described T>
struct fmt::formatter<T> : Fenrik::TextFormatter {
  auto format(const T& value, fmt::format_context& context) const noexcept {
    std::string text;
    Drift::textAppend(text, value);
    return put(text, context);
  }
};
