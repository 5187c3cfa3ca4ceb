#include "Drift/RecordText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace Drift {

namespace {

const RecordField* presenceOf(const RecordField& group) {
  if (group.fieldCount == 0) return nullptr;
  const RecordField* const last = group.fields + group.fieldCount - 1;
  return last->kind == FieldKind::presence ? last : nullptr;
}

/// Whether an element has nothing to show.
bool isZero(const RecordField& field, const unsigned char* element) {
  const auto zero = [](unsigned char byte) { return byte == 0; };
  if (field.kind == FieldKind::padding) return true;
  if (field.kind != FieldKind::group) return std::all_of(element, element + field.size, zero);
  if (const RecordField* presence = presenceOf(field)) return element[presence->offset] == 0;
  for (std::size_t i = 0; i < field.fieldCount; ++i) {
    const RecordField& inner = field.fields[i];
    for (std::size_t at = inner.offset; at != inner.end(); at += inner.size) {
      if (!isZero(inner, element + at)) return false;
    }
  }
  return true;
}

void appendElement(std::string& text, const RecordField& field, const unsigned char* element) {
  switch (field.kind) {
    case FieldKind::number: {
      std::uint64_t number = 0;
      std::memcpy(&number, element, std::min(field.size, sizeof number));
      fmt::format_to(std::back_inserter(text), "{}", number);
      break;
    }
    case FieldKind::bytes:
      for (std::size_t i = 0; i < field.size; ++i) {
        fmt::format_to(std::back_inserter(text), "{:02x}", element[i]);
      }
      break;
    case FieldKind::flag:
    case FieldKind::presence:
      text += *element != 0 ? "true" : "false";
      break;
    case FieldKind::group:
      textAppend(text, element, field.fields, field.fieldCount, field.isKey);
      break;
    case FieldKind::padding:
      break;
  }
}

void appendField(std::string& text, const RecordField& field, const unsigned char* first) {
  const bool array = field.count > 1;
  const bool digits = array && field.kind == FieldKind::number && field.size == 1;
  if (digits) {
    appendElement(text, {field.name, 0, FieldKind::bytes, field.count, 1, 1}, first);
    return;
  }
  if (array) text += '[';
  for (std::size_t i = 0; i < field.count; ++i) {
    if (i != 0) text += ", ";
    appendElement(text, field, first + i * field.size);
  }
  if (array) text += ']';
}

}  // namespace

void textAppend(std::string& text, const void* value, const RecordField* fields,
                std::size_t fieldCount, bool isKey) {
  const auto* const bytes = static_cast<const unsigned char*>(value);
  const char* separator = "";
  text += '{';
  for (const RecordField* field = fields; field != fields + fieldCount; ++field) {
    if (field->kind == FieldKind::padding || field->kind == FieldKind::presence) continue;
    bool shown = isKey || field->isKey;
    for (std::size_t at = field->offset; !shown && at != field->end(); at += field->size) {
      shown = !isZero(*field, bytes + at);
    }
    if (!shown) continue;
    fmt::format_to(std::back_inserter(text), "{}{}: ", separator, field->name);
    appendField(text, *field, bytes + field->offset);
    separator = ", ";
  }
  text += '}';
}

}  // namespace Drift
