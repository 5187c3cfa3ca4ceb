#include "tables/Text.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "Drift/RecordText.h"

namespace Tables {
namespace {

using Drift::FieldKind;
using Drift::RecordField;
using Drift::TextForm;
using Bytes = const unsigned char*;

constexpr std::uint64_t kEtherTypeIpv6 = 0x86dd;

const RecordField* fieldOf(const RecordField* fields, std::size_t count, std::string_view name) {
  const auto* const found = std::find_if(fields, fields + count, [&](const RecordField& field) {
    return field.kind != FieldKind::padding && name == field.name;
  });
  return found == fields + count ? nullptr : found;
}

std::uint64_t numberOf(const RecordField& field, Bytes element) {
  std::uint64_t number = 0;
  std::memcpy(&number, element, std::min(field.size, sizeof number));
  return number;
}

std::string addressText(int family, Bytes bytes) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  return ::inet_ntop(family, bytes, text.data(), text.size()) == nullptr ? "" : text.data();
}

bool isShort(TextForm form) { return form == TextForm::place || form == TextForm::prefix; }

/// The address in a group of fields, if it has one.
struct Address {
  const RecordField* field = nullptr;
  std::string text;
  std::uint64_t length = 0;
};

Address addressOf(const RecordField* fields, std::size_t count, Bytes value, bool ipv6) {
  const RecordField* const length = fieldOf(fields, count, "length");
  if (length == nullptr || length->kind != FieldKind::number) return {};
  Address address{nullptr, "", numberOf(*length, value + length->offset)};
  if (const RecordField* const whole = fieldOf(fields, count, "address")) {
    const Bytes bytes = value + whole->offset;
    if (whole->size * whole->count != 16) return {};
    const bool long_ = std::any_of(bytes + 4, bytes + 16, [](auto byte) { return byte != 0; });
    ipv6 = ipv6 || long_ || address.length > 32;
    address.field = whole;
    address.text = addressText(ipv6 ? AF_INET6 : AF_INET, bytes);
  } else if (const RecordField* const number = fieldOf(fields, count, "prefix")) {
    if (number->kind != FieldKind::number || number->size != 4) return {};
    const std::uint32_t network =
        htonl(static_cast<std::uint32_t>(numberOf(*number, value + number->offset)));
    address.field = number;
    address.text = addressText(AF_INET, reinterpret_cast<Bytes>(&network));
  }
  return address;
}

class Renderer {
 public:
  explicit Renderer(bool text) : text_(text) {}

  Json group(const RecordField* fields, std::size_t count, Bytes value, bool ipv6) {
    const RecordField* const type = fieldOf(fields, count, "etherType");
    ipv6 = ipv6 || (type != nullptr && numberOf(*type, value + type->offset) == kEtherTypeIpv6);
    const Address address = addressOf(fields, count, value, ipv6);
    const RecordField* const presence =
        count != 0 && fields[count - 1].kind == FieldKind::presence ? fields + count - 1 : nullptr;
    if (presence != nullptr && value[presence->offset] == 0) return nullptr;
    Json result = Json::object();
    for (const RecordField* field = fields; field != fields + count; ++field) {
      if (field->kind == FieldKind::padding || field->kind == FieldKind::presence) continue;
      if (field == address.field) {
        result[field->name] = address.text;
      } else {
        result[field->name] = member(*field, value + field->offset, ipv6);
      }
    }
    if (!text_ || address.field == nullptr) return result;
    const std::string whole = fmt::format("{}/{}", address.text, address.length);
    result.erase("length");
    result.erase(address.field->name);
    // Other members of the group, for example a zone, are printed after the prefix.
    const std::string rest = Renderer::line(result, false);
    return rest == "{}" ? whole : fmt::format("{} {}", whole, rest);
  }

  /// An object as one line; unless `whole`, without zero members.
  static std::string line(const Json& object, bool whole) {
    std::string text;
    for (const auto& [name, value] : object.items()) {
      const bool isKey = name == "key";
      if (!whole && !isKey && isZero(value)) continue;
      text += fmt::format("{}{}: {}", text.empty() ? "" : ", ", name, word(value, isKey));
    }
    return '{' + text + '}';
  }

  static std::string word(const Json& value, bool whole) {
    if (value.is_object()) return line(value, whole);
    if (value.is_string()) return value.get<std::string>();
    if (!value.is_array()) return value.dump();
    std::vector<std::string> words;
    for (const Json& element : value) words.push_back(word(element, whole));
    return fmt::format("[{}]", fmt::join(words, ", "));
  }

 private:
  static std::string shortText(const RecordField& group, Bytes value) {
    std::string text;
    Drift::textAppend(text, value, group.fields, group.fieldCount, group.form);
    return text;
  }

  static bool isZero(const Json& value) {
    if (value.is_structured()) return std::ranges::all_of(value, isZero);
    if (value.is_string()) {
      return value.get<std::string>().find_first_not_of('0') == std::string::npos;
    }
    return value.is_null() || value == Json(0) || value == Json(false);
  }

  Json member(const RecordField& field, Bytes first, bool ipv6) {
    if (field.kind == FieldKind::number && field.size == 1 && field.count > 1 && text_) {
      return fmt::format("{:02x}", fmt::join(first, first + field.count, ""));
    }
    Json elements = Json::array();
    for (std::size_t i = 0; i < field.count; ++i) {
      elements.push_back(element(field, first + i * field.size, ipv6));
    }
    return field.count == 1 ? elements[0] : elements;
  }

  Json element(const RecordField& field, Bytes element, bool ipv6) {
    switch (field.kind) {
      case FieldKind::group:
        if (text_ && isShort(field.form)) return shortText(field, element);
        return group(field.fields, field.fieldCount, element, ipv6);
      case FieldKind::number:
        return numberOf(field, element);
      case FieldKind::flag:
        return *element != 0;
      default:
        return fmt::format("{:02x}", fmt::join(element, element + field.size, ""));
    }
  }

  bool text_;
};

}  // namespace

Json jsonOf(const RecordField* fields, std::size_t count, const void* value) {
  return Renderer(false).group(fields, count, static_cast<Bytes>(value), false);
}

std::string textOf(const RecordField* fields, std::size_t count, const void* value, TextForm form) {
  if (isShort(form)) {
    std::string text;
    Drift::textAppend(text, value, fields, count, form);
    return text;
  }
  return Renderer::word(Renderer(true).group(fields, count, static_cast<Bytes>(value), false),
                        form != TextForm::members);
}

}  // namespace Tables
