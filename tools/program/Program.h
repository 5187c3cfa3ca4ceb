#pragma once

#include <string>
#include <string_view>

namespace Program {

/// Program name and version: "bastil-agent 0.1.0".
std::string versionOf(std::string_view program);

/// Writes text to standard output and flushes it. False, with errno set, on failure; the text is
/// dropped then.
bool print(std::string_view text) noexcept;

/// Validator for the command line: empty for a number above 0, otherwise the fault.
std::string positiveNumber(const std::string& text);

/// Raises the soft limit of open files to the hard limit. A unit needs four files, so the usual
/// limit of 1,024 would suffice for only 250 units.
void raiseFileLimit() noexcept;

}  // namespace Program
