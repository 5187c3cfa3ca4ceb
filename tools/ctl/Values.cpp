#include "ctl/Values.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>

namespace Ctl {
namespace {

using Drift::FieldKind;
using Drift::RecordField;

Json jsonOf(const RecordField* fields, std::size_t count, const unsigned char* value);

Json elementOf(const RecordField& field, const unsigned char* element) {
  if (field.kind == FieldKind::group) return jsonOf(field.fields, field.fieldCount, element);
  if (field.kind == FieldKind::number) {
    std::uint64_t number = 0;
    std::memcpy(&number, element, std::min(field.size, sizeof number));
    return number;
  }
  if (field.kind == FieldKind::flag) return *element != 0;
  return fmt::format("{:02x}", fmt::join(element, element + field.size, ""));
}

Json jsonOf(const RecordField* fields, std::size_t count, const unsigned char* value) {
  Json result = Json::object();
  for (const RecordField* field = fields; field != fields + count; ++field) {
    if (field->kind == FieldKind::padding) continue;
    if (field->kind == FieldKind::presence) {
      if (value[field->offset] == 0) return nullptr;
      continue;
    }
    Json elements = Json::array();
    for (std::size_t at = field->offset; at != field->end(); at += field->size) {
      elements.push_back(elementOf(*field, value + at));
    }
    result[field->name] = field->count == 1 ? elements[0] : elements;
  }
  return result;
}

std::optional<std::uint64_t> numberOf(std::string_view text) {
  const bool hex = text.starts_with("0x");
  if (hex) text.remove_prefix(2);
  std::uint64_t number = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), number, hex ? 16 : 10);
  if (error != std::errc() || end != text.data() + text.size()) return {};
  return number;
}

/// A plain number, or four of them with dots between.
std::optional<std::uint64_t> valueOf(std::string_view text) {
  if (text.find('.') == std::string_view::npos) return numberOf(text);
  std::uint64_t address = 0;
  unsigned parts = 0;
  for (bool more = true; more; ++parts) {
    const std::size_t dot = text.find('.');
    more = dot != std::string_view::npos;
    const auto part = numberOf(text.substr(0, dot));
    if (!part || *part > 255) return {};
    address = address << 8 | *part;
    if (more) text.remove_prefix(dot + 1);
  }
  return parts == 4 ? std::optional(address) : std::nullopt;
}

/// The words of the text that are not names of fields.
std::vector<std::string_view> valuesOf(std::string_view text, const Tables::Fields& fields) {
  constexpr std::string_view kSeparators = "{}/:, ";
  std::vector<std::string_view> values;
  for (;;) {
    const std::size_t begin = text.find_first_not_of(kSeparators);
    if (begin == std::string_view::npos) return values;
    text.remove_prefix(begin);
    const std::string_view word = text.substr(0, text.find_first_of(kSeparators));
    text.remove_prefix(word.size());
    const auto isName = [&](const RecordField& field) { return word == field.name; };
    if (std::none_of(fields.fields, fields.fields + fields.count, isName)) values.push_back(word);
  }
}

[[noreturn]] void refuseKey(const TableKind& kind, std::string_view text) {
  std::vector<std::string_view> names;
  for (std::size_t i = 0; i < kind.key.count; ++i) {
    if (kind.key.fields[i].kind == FieldKind::number) names.emplace_back(kind.key.fields[i].name);
  }
  throw UsageError(
      fmt::format("\"{}\" is no key of {}: give it as {}", text, kind.name, fmt::join(names, "/")));
}

}  // namespace

Json jsonOf(const Tables::Fields& fields, const void* value) {
  return jsonOf(fields.fields, fields.count, static_cast<const unsigned char*>(value));
}

std::vector<Word> keyOf(const TableKind& kind, std::string_view text) {
  std::vector<Word> key(kind.keyWords());
  const auto values = valuesOf(text, kind.key);
  auto next = values.begin();
  for (const RecordField* field = kind.key.fields; field != kind.key.fields + kind.key.count;
       ++field) {
    if (field->kind != FieldKind::number) continue;
    const auto value = next != values.end() ? valueOf(*next++) : std::nullopt;
    const bool fits = value && (field->size >= 8 || *value >> 8 * field->size == 0);
    if (!fits) refuseKey(kind, text);
    std::memcpy(reinterpret_cast<std::byte*>(key.data()) + field->offset, &*value, field->size);
  }
  if (next != values.end()) refuseKey(kind, text);
  return key;
}

}  // namespace Ctl
