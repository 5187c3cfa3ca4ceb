#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "policy/Rule.h"

namespace Policy {

/// An input file that cannot be used as it stands. The message begins with file, line and column
/// as far as they are known, and says what was expected and what was found.
class InputError final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One line of an input file, read from left to right. What does not fit ends in an `InputError`
/// at the place where it begins.
class LineReader {
 public:
  /// `line` without its end; `file` outlives the reader.
  LineReader(const std::string& file, unsigned number, std::string_view line) noexcept
      : file_(file), number_(number), line_(line) {}

  /// Passes blanks and tabs.
  void skipBlanks() noexcept;
  /// Whether the rest of the line is blanks and a comment ('#').
  bool atEnd() noexcept;
  /// Passes the character if it is the next one.
  bool accept(char character) noexcept;
  /// As above; fails if it is not.
  void pass(char character, std::string_view expected);
  /// A number up to `most`, decimal, or hexadecimal after "0x".
  std::uint32_t number(std::uint32_t most, std::string_view expected);
  /// Four octets with points between them.
  std::uint32_t address();
  /// Address and length. Bits beyond the length are dropped.
  Prefix prefix();

  [[noreturn]] void fail(std::string_view expected) const;

 private:
  [[noreturn]] void failAt(std::size_t at, std::string_view expected) const;
  /// The characters from a position to the next blank.
  std::string_view wordAt(std::size_t at) const noexcept;
  std::uint32_t octet(std::size_t start);

  const std::string& file_;
  unsigned number_;
  std::string_view line_;
  std::size_t at_ = 0;
};

/// Calls `read` with each line that is not blank. Lines end with LF or CR LF.
template <class Read>
void readLines(const std::string& file, std::string_view text, Read read) {
  for (unsigned number = 1; !text.empty(); ++number) {
    const std::size_t length = text.find('\n');
    std::string_view line = text.substr(0, length);
    text.remove_prefix(length == std::string_view::npos ? text.size() : length + 1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    LineReader reader(file, number, line);
    if (!reader.atEnd()) read(reader, number);
  }
}

}  // namespace Policy
