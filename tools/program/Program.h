#pragma once

#include <string>
#include <string_view>

namespace Program {

/// "bastil-agent 0.1.0".
std::string versionOf(std::string_view program);

/// Writes the text to standard output, now. False, with errno set, if that fails: the text is
/// dropped then.
bool print(std::string_view text) noexcept;

/// A check of the command line: empty for a number above 0, otherwise what is wrong.
std::string positiveNumber(const std::string& text);

/// Raises the soft limit of open files to the hard one. A unit takes four of them, and the usual
/// soft limit of 1,024 would end at 250 units.
void raiseFileLimit() noexcept;

}  // namespace Program
