#include "ctl/Values.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <set>

#include "tables/Text.h"

namespace Ctl {
namespace {

using Drift::FieldKind;
using Drift::RecordField;

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

/// The words of the text, without the marks between them.
std::vector<std::string_view> wordsOf(std::string_view text) {
  constexpr std::string_view kSeparators = "{}/:, ";
  std::vector<std::string_view> words;
  for (;;) {
    const std::size_t begin = text.find_first_not_of(kSeparators);
    if (begin == std::string_view::npos) return words;
    text.remove_prefix(begin);
    words.push_back(text.substr(0, text.find_first_of(kSeparators)));
    text.remove_prefix(words.back().size());
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

/// A prefix with bits beyond its length, or a length beyond its address, is nobody's key.
bool isKey(const TableKind& kind, const std::vector<Word>& key) {
  const Json value = jsonOf(kind.key, key.data());
  if (!value.contains("prefix") || !value.contains("length")) return true;
  const unsigned length = value["length"];
  std::uint32_t address = 0;
  std::memcpy(&address, key.data(), sizeof address);
  return length == 32 || (length < 32 && (address & (~0U >> length)) == 0);
}

}  // namespace

Json jsonOf(const Tables::Fields& fields, const void* value) {
  return Tables::jsonOf(fields.fields, fields.count, value);
}

std::vector<Word> keyOf(const TableKind& kind, std::string_view text) {
  std::vector<Word> key(kind.keyWords());
  const RecordField* const begin = kind.key.fields;
  const RecordField* const end = begin + kind.key.count;
  std::set<const RecordField*> given;
  const RecordField* named = nullptr;
  for (const std::string_view word : wordsOf(text)) {
    const auto* const name =
        std::find_if(begin, end, [&](const RecordField& field) { return word == field.name; });
    if (name != end) {
      named = name;
      continue;
    }
    const auto* const field =
        named != nullptr ? named : std::find_if(begin, end, [&](const RecordField& candidate) {
          return candidate.kind == FieldKind::number && !given.contains(&candidate);
        });
    named = nullptr;
    const auto value = valueOf(word);
    const bool fits = field != end && field->kind == FieldKind::number && value &&
                      (field->size >= 8 || *value >> 8 * field->size == 0);
    if (!fits || !given.insert(field).second) refuseKey(kind, text);
    std::memcpy(reinterpret_cast<std::byte*>(key.data()) + field->offset, &*value, field->size);
  }
  const auto wanted = std::count_if(
      begin, end, [](const RecordField& field) { return field.kind == FieldKind::number; });
  if (static_cast<std::ptrdiff_t>(given.size()) != wanted || !isKey(kind, key)) {
    refuseKey(kind, text);
  }
  return key;
}

}  // namespace Ctl
