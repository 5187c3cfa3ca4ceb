#include "Drift/RecordText.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

#include "Fenrik/Assert.h"

namespace Drift {

namespace {

const RecordField* presenceOf(const RecordField& group) {
  if (group.fieldCount == 0) return nullptr;
  const RecordField* const last = group.fields + group.fieldCount - 1;
  return last->kind == FieldKind::presence ? last : nullptr;
}

/// Whether an element is zero or absent, and therefore not printed.
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
      text += fmt::format("{}", number);
      break;
    }
    case FieldKind::bytes:
      for (std::size_t i = 0; i < field.size; ++i) {
        text += fmt::format("{:02x}", element[i]);
      }
      break;
    case FieldKind::flag:
    case FieldKind::presence:
      text += *element != 0 ? "true" : "false";
      break;
    case FieldKind::group:
      textAppend(text, element, field.fields, field.fieldCount, field.form);
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

const RecordField& named(std::string_view name, const RecordField* fields, std::size_t fieldCount) {
  const RecordField* const found = std::find_if(
      fields, fields + fieldCount, [&](const RecordField& field) { return name == field.name; });
  FENRIK_ASSERT(found != fields + fieldCount);
  return *found;
}

void appendPrefix(std::string& text, const void* value, const RecordField* fields,
                  std::size_t fieldCount) {
  const std::size_t words = fieldCount - 1;
  std::array<std::uint32_t, 4> address{};
  FENRIK_ASSERT(words > 0 && words <= address.size());
  for (std::size_t i = 0; i < words; ++i) {
    address[i] = htonl(static_cast<std::uint32_t>(numberIn(fields[i], value)));
  }
  std::array<char, INET6_ADDRSTRLEN> digits{};
  ::inet_ntop(words == 1 ? AF_INET : AF_INET6, address.data(), digits.data(), digits.size());
  text += fmt::format("{}/{}", digits.data(), numberIn(fields[words], value));
}

/// A number that fits a field.
bool readNumber(std::string_view text, const RecordField& field, std::uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() &&
         (field.size >= sizeof number || number >> (8 * field.size) == 0);
}

void store(const RecordField& field, std::uint64_t number, void* value) {
  std::memcpy(static_cast<unsigned char*>(value) + field.offset, &number, field.size);
}

bool prefixFromText(const std::string& address, std::string_view length, void* value,
                    const RecordField* fields, std::size_t fieldCount) {
  const std::size_t words = fieldCount - 1;
  std::array<std::uint32_t, 4> parts{};
  std::uint64_t bits = 0;
  if (!readNumber(length, fields[words], bits) ||
      ::inet_pton(words == 1 ? AF_INET : AF_INET6, address.c_str(), parts.data()) != 1) {
    return false;
  }
  for (std::size_t i = 0; i < words; ++i) store(fields[i], ntohl(parts[i]), value);
  store(fields[words], bits, value);
  return true;
}

}  // namespace

bool fromText(std::string_view text, void* value, const RecordField* fields, std::size_t fieldCount,
              TextForm form) {
  const std::size_t split = text.rfind(form == TextForm::prefix ? '/' : ':');
  if (split == std::string_view::npos) return false;
  const std::string_view before = text.substr(0, split), after = text.substr(split + 1);
  if (form == TextForm::prefix) {
    return prefixFromText(std::string(before), after, value, fields, fieldCount);
  }
  if (form != TextForm::place) return false;
  const RecordField& bank = named("bank", fields, fieldCount);
  const RecordField& index = named("index", fields, fieldCount);
  std::uint64_t inBank = 0, atIndex = 0;
  if (!readNumber(before, bank, inBank) || !readNumber(after, index, atIndex)) return false;
  store(bank, inBank, value);
  store(index, atIndex, value);
  return true;
}

std::uint64_t numberIn(const RecordField& field, const void* value) {
  std::uint64_t number = 0;
  FENRIK_ASSERT(field.kind == FieldKind::number && field.size <= sizeof number);
  std::memcpy(&number, static_cast<const unsigned char*>(value) + field.offset, field.size);
  return number;
}

void textAppend(std::string& text, const void* value, const RecordField* fields,
                std::size_t fieldCount, TextForm form) {
  if (form == TextForm::prefix) return appendPrefix(text, value, fields, fieldCount);
  if (form == TextForm::place) {
    text += fmt::format("{}:{}", numberIn(named("bank", fields, fieldCount), value),
                        numberIn(named("index", fields, fieldCount), value));
    return;
  }
  const auto* const bytes = static_cast<const unsigned char*>(value);
  const char* separator = "";
  text += '{';
  for (const RecordField* field = fields; field != fields + fieldCount; ++field) {
    if (field->kind == FieldKind::padding || field->kind == FieldKind::presence) continue;
    bool shown = form == TextForm::whole || field->form != TextForm::members;
    for (std::size_t at = field->offset; !shown && at != field->end(); at += field->size) {
      shown = !isZero(*field, bytes + at);
    }
    if (!shown) continue;
    text += fmt::format("{}{}: ", separator, field->name);
    appendField(text, *field, bytes + field->offset);
    separator = ", ";
  }
  text += '}';
}

}  // namespace Drift
