#pragma once

#include <fmt/core.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "Drift/RecordField.h"
#include "Fenrik/Export.h"
#include "Fenrik/Format.h"

namespace Drift {

/// Appends the text of a value with a field list. Absent groups are omitted; arrays of bytes are
/// printed in hexadecimal.
QUARNBASTIL_EXPORT void textAppend(std::string& text, const void* value, const RecordField* fields,
                                   std::size_t fieldCount, TextForm form);

/// Reads what `textAppend` prints in the forms `place` and `prefix`. False, with `value` unchanged,
/// if the text is not that of a value, or the form is another one.
QUARNBASTIL_EXPORT bool fromText(std::string_view text, void* value, const RecordField* fields,
                                 std::size_t fieldCount, TextForm form);

/// The number in a field. REQUIRES: the field's kind is `number`, of at most 8 bytes.
QUARNBASTIL_EXPORT std::uint64_t numberIn(const RecordField& field, const void* value);

template <Described T>
void textAppend(std::string& text, const T& value) {
  textAppend(text, &value, kFieldsOf<T>.data(), kFieldsOf<T>.size(), Impl::textFormOf<T>());
}

}  // namespace Drift

/// Formats values with a field list; accepts string format specifications. An exception while
/// formatting terminates the process.
template <Drift::Described T>
struct fmt::formatter<T> : Fenrik::TextFormatter {
  auto format(const T& value, fmt::format_context& context) const noexcept {
    std::string text;
    Drift::textAppend(text, value);
    return put(text, context);
  }
};
