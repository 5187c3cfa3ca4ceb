#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Kiv {

/// One rule: the handles whose name fits the pattern have exactly the levels of the mask on.
struct TraceRule {
  std::string pattern;
  std::uint16_t mask;
};

/// Whether `name` fits `pattern`, in which '*' stands for any text and '?' for any one character.
bool traceNameFits(std::string_view pattern, std::string_view name) noexcept;

/// The rules of a setting's text in their order. Throws `TraceSettingException`.
std::vector<TraceRule> traceRulesOf(std::string_view setting);

/// The text of a rule, as `traceRulesOf` reads it.
std::string traceRuleText(const TraceRule& rule);

}  // namespace Kiv
