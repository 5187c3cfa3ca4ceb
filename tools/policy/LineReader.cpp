#include "policy/LineReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace Policy {
namespace {

/// Number of characters shown in messages, enough to recognize the place.
constexpr std::size_t kShown = 40;

std::string shown(std::string_view word) {
  if (word.empty()) return "the end of the line";
  std::string text = "\"";
  for (const char character : word.substr(0, kShown)) {
    const bool plain = character >= ' ' && character <= '~';
    text += plain ? std::string(1, character)
                  : fmt::format("\\x{:02x}", static_cast<unsigned char>(character));
  }
  return text + (word.size() > kShown ? "...\"" : "\"");
}

bool isBlank(char character) noexcept { return character == ' ' || character == '\t'; }

bool isOfName(char character) noexcept {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') ||
         std::string_view("._:-").find(character) != std::string_view::npos;
}

}  // namespace

void LineReader::skipBlanks() noexcept {
  while (at_ < line_.size() && isBlank(line_[at_])) ++at_;
}

bool LineReader::atEnd() noexcept {
  skipBlanks();
  return at_ == line_.size() || line_[at_] == '#';
}

bool LineReader::accept(char character) noexcept {
  if (at_ == line_.size() || line_[at_] != character) return false;
  ++at_;
  return true;
}

void LineReader::pass(char character, std::string_view expected) {
  if (!accept(character)) fail(expected);
}

std::uint32_t LineReader::number(std::uint32_t most, std::string_view expected) {
  const std::string_view rest = line_.substr(at_);
  const bool hexadecimal = rest.starts_with("0x") || rest.starts_with("0X");
  const std::size_t prefix = hexadecimal ? 2 : 0;
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(rest.data() + prefix, rest.data() + rest.size(), number,
                                            hexadecimal ? 16 : 10);
  if (error != std::errc() || number > most) fail(expected);
  at_ += static_cast<std::size_t>(end - rest.data());
  return number;
}

std::string_view LineReader::word() noexcept {
  const std::string_view word = wordAt(at_);
  at_ += word.size();
  return word;
}

bool LineReader::wordHas(char character) const noexcept {
  return wordAt(at_).find(character) != std::string_view::npos;
}

std::string LineReader::name(std::string_view expected) {
  const std::string_view word = wordAt(at_);
  const bool good = !word.empty() && word != "-" && std::ranges::all_of(word, isOfName);
  if (!good) fail(expected);
  if (word.size() > kLongestName) fail(fmt::format("a name of at most {} bytes", kLongestName));
  at_ += word.size();
  return std::string(word);
}

std::uint32_t LineReader::octet(std::size_t start) {
  std::uint32_t value = 0;
  const char* const begin = line_.data() + at_;
  const auto [end, error] = std::from_chars(begin, line_.data() + line_.size(), value);
  if (error != std::errc() || value > 255) {
    failAt(start, "an IPv4 address, four numbers up to 255 with points between them");
  }
  at_ += static_cast<std::size_t>(end - begin);
  return value;
}

std::uint32_t LineReader::address() {
  const std::size_t start = at_;
  const std::string_view word = wordAt(at_);
  if (std::count(word.begin(), word.end(), ':') >= 2) {
    failAt(start, "an IPv4 address (IPv6 is not supported yet)");
  }
  std::uint32_t address = octet(start);
  for (int i = 1; i < 4; ++i) {
    if (!accept('.')) failAt(start, "an IPv4 address, four numbers with points between them");
    address = address << 8 | octet(start);
  }
  return address;
}

Prefix LineReader::prefix() {
  const std::uint32_t whole = address();
  pass('/', "'/' and a prefix length");
  const std::uint32_t length = number(32, "a prefix length from 0 to 32");
  const std::uint32_t mask = length == 0 ? 0 : ~0U << (32 - length);
  return {whole & mask, static_cast<std::uint8_t>(length)};
}

std::string_view LineReader::wordAt(std::size_t at) const noexcept {
  const auto begin = line_.begin() + static_cast<std::ptrdiff_t>(at);
  return {begin, std::find_if(begin, line_.end(), isBlank)};
}

void LineReader::fail(std::string_view expected) const { failAt(at_, expected); }

void LineReader::failAt(std::size_t at, std::string_view expected) const {
  // An unexpected blank is shown together with the text that follows it.
  const std::string_view rest = line_.substr(at);
  const std::string_view word = wordAt(at);
  const std::string found = shown(word.empty() ? rest : word);
  throw InputError(
      fmt::format("{}:{}:{}: expected {}, found {}", file_, number_, at + 1, expected, found));
}

}  // namespace Policy
