#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "policy/Rule.h"

namespace Policy {

/// An unusable input file. The message starts with file, line and column as far as known, and gives
/// what was expected and found.
class InputError final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Parses one line of an input file from left to right. Invalid input throws `InputError` with the
/// position where it starts.
class LineReader {
 public:
  /// Names are stored in records of this size, with a zero at the end.
  static constexpr std::size_t kLongestName = 47;

  /// `line` has no line end. REQUIRES: `file` outlives the reader.
  LineReader(const std::string& file, unsigned number, std::string_view line) noexcept
      : file_(file), number_(number), line_(line) {}

  /// Skips blanks and tabs.
  void skipBlanks() noexcept;
  /// Whether the rest of the line is only blanks and a comment ('#').
  bool atEnd() noexcept;
  /// Skips the next character if it is `character`, and returns whether it was.
  bool accept(char character) noexcept;
  /// As above; throws if it is not.
  void pass(char character, std::string_view expected);
  /// Parses a number of at most `most`, decimal, or hexadecimal after "0x".
  std::uint32_t number(std::uint32_t most, std::string_view expected);
  /// Parses a name of at most `kLongestName` letters, digits and "._:-", which is not "-".
  std::string name(std::string_view expected);
  /// The characters up to the next blank, which are skipped.
  std::string_view word() noexcept;
  /// Whether the next character is a blank, or there is none.
  bool atBlankOrEnd() const noexcept { return wordAt(at_).empty(); }
  /// Whether the word that begins here contains the character.
  bool wordHas(char character) const noexcept;
  /// Position in the line, from 1.
  unsigned column() const noexcept { return static_cast<unsigned>(at_) + 1; }
  /// Parses four octets separated by points.
  std::uint32_t address();
  /// Parses address and length. Bits beyond the length are cleared.
  Prefix prefix();

  [[noreturn]] void fail(std::string_view expected) const;

 private:
  [[noreturn]] void failAt(std::size_t at, std::string_view expected) const;
  /// The characters from a position up to the next blank.
  std::string_view wordAt(std::size_t at) const noexcept;
  std::uint32_t octet(std::size_t start);

  const std::string& file_;
  unsigned number_;
  std::string_view line_;
  std::size_t at_ = 0;
};

/// Calls `read` for each line that is not blank. Lines end with LF or CR LF.
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
