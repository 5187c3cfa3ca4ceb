#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Kiv {

/// One rule: handles whose names match the pattern have exactly the levels of the mask on.
struct TraceRule {
  std::string pattern;
  std::uint16_t mask;
};

/// Whether `name` matches `pattern`, in which '*' matches any text and '?' any one character.
bool traceNameFits(std::string_view pattern, std::string_view name) noexcept;

/// Parses a setting into its rules. Throws `TraceSettingException`.
std::vector<TraceRule> traceRulesOf(std::string_view setting);

/// Text of a rule, in the form accepted by `traceRulesOf`.
std::string traceRuleText(const TraceRule& rule);

}  // namespace Kiv
