#include "ctl/Values.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <set>

#include "Drift/RecordText.h"
#include "tables/Text.h"

namespace Ctl {
namespace {

using Drift::FieldKind;
using Drift::RecordField;

/// Name of the field that comes first in a position's text, regardless of its offset in the key.
constexpr std::string_view kBank = "bank";

std::optional<std::uint64_t> numberOf(std::string_view text) {
  const bool hex = text.starts_with("0x");
  if (hex) text.remove_prefix(2);
  std::uint64_t number = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), number, hex ? 16 : 10);
  if (error != std::errc() || end != text.data() + text.size()) return {};
  return number;
}

/// A plain number, or four separated by dots.
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

/// The words of the text, without separators.
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

void fieldIs(std::vector<Word>& key, const RecordField& field, std::uint64_t value) {
  std::memcpy(reinterpret_cast<std::byte*>(key.data()) + field.offset, &value, field.size);
}

/// Whether the key is possible: a prefix has no bits beyond its length, nor a length beyond its
/// address.
bool isKey(const TableKind& kind, const std::vector<Word>& key) {
  if (kind.key.form != Drift::TextForm::prefix) return true;
  const std::size_t words = kind.key.count - 1;
  const std::uint64_t length = Drift::numberIn(kind.key.fields[words], key.data());
  if (length > 32 * words) return false;
  for (std::size_t i = 0; i < words; ++i) {
    const std::uint64_t address = Drift::numberIn(kind.key.fields[i], key.data());
    const std::uint64_t before = 32 * i;
    const std::uint64_t used = length <= before ? 0 : std::min<std::uint64_t>(length - before, 32);
    if (used < 32 && (address & (0xffff'ffffU >> used)) != 0) return false;
  }
  return true;
}

/// Parses an IPv6 prefix as printed. Nullopt if the text is not one or the key cannot hold it.
std::optional<std::vector<Word>> ipv6KeyOf(const TableKind& kind, const std::string& text) {
  const std::size_t slash = text.find('/');
  std::array<std::uint32_t, 4> address{};
  if (kind.key.form != Drift::TextForm::prefix || slash == std::string::npos ||
      ::inet_pton(AF_INET6, text.substr(0, slash).c_str(), address.data()) != 1) {
    return {};
  }
  const auto length = numberOf(std::string_view(text).substr(slash + 1));
  const std::size_t words = kind.key.count - 1;
  const bool fits = words > 1 && length && *length <= 128 &&
                    std::all_of(address.begin() + static_cast<long>(words), address.end(),
                                [](std::uint32_t word) { return word == 0; });
  if (!fits) return {};
  std::vector<Word> key(kind.keyWords());
  for (std::size_t i = 0; i < words; ++i) fieldIs(key, kind.key.fields[i], ntohl(address[i]));
  fieldIs(key, kind.key.fields[words], *length);
  return key;
}

}  // namespace

Json jsonOf(const Tables::Fields& fields, const void* value) {
  return Tables::jsonOf(fields.fields, fields.count, value);
}

std::vector<Word> keyOf(const TableKind& kind, std::string_view text) {
  if (const auto key = ipv6KeyOf(kind, std::string(text))) {
    if (!isKey(kind, *key)) refuseKey(kind, text);
    return *key;
  }
  std::vector<Word> key(kind.keyWords());
  const RecordField* const begin = kind.key.fields;
  const RecordField* const end = begin + kind.key.count;
  const bool isPlace = kind.key.form == Drift::TextForm::place;
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
          const bool isNext = !isPlace || !given.empty() || candidate.name == kBank;
          return candidate.kind == FieldKind::number && isNext && !given.contains(&candidate);
        });
    named = nullptr;
    const auto value = valueOf(word);
    const bool fits = field != end && field->kind == FieldKind::number && value &&
                      (field->size >= 8 || *value >> 8 * field->size == 0);
    if (!fits || !given.insert(field).second) refuseKey(kind, text);
    fieldIs(key, *field, *value);
  }
  const auto wanted = std::count_if(
      begin, end, [](const RecordField& field) { return field.kind == FieldKind::number; });
  if (static_cast<std::ptrdiff_t>(given.size()) != wanted || !isKey(kind, key)) {
    refuseKey(kind, text);
  }
  return key;
}

}  // namespace Ctl
