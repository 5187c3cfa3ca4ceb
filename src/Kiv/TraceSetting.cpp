#include "Kiv/TraceSetting.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "Kiv/TraceControl.h"
#include "Kiv/TraceHandle.h"

namespace Kiv {
namespace {

constexpr std::string_view kBetweenRules = " \t\n;:";
constexpr std::string_view kNone = "none";
constexpr std::uint16_t kEveryLevel = 0xffff;

constexpr std::uint16_t levelBit(unsigned level) { return static_cast<std::uint16_t>(1u << level); }

/// Parses a setting from left to right.
class SettingReader {
 public:
  explicit SettingReader(std::string_view text) : text_(text) {}

  std::vector<TraceRule> rules() {
    std::vector<TraceRule> rules;
    while ((position_ = text_.find_first_not_of(kBetweenRules, position_)) !=
           std::string_view::npos)
      rules.push_back(rule());
    return rules;
  }

 private:
  TraceRule rule() {
    const std::size_t end = text_.find_first_of("/ \t\n;:", position_);
    TraceRule rule{std::string(text_.substr(position_, end - position_)), 0};
    position_ = std::min(end, text_.size());
    if (rule.pattern.empty()) fail("a pattern of handle names before '/'");
    if (!take('/')) fail("'/' and levels after the pattern");
    rule.mask = levels();
    return rule;
  }

  std::uint16_t levels() {
    if (take('*')) return ended(kEveryLevel, "the end of the rule");
    if (text_.substr(position_).starts_with(kNone)) {
      position_ += kNone.size();
      return ended(0, "the end of the rule");
    }
    std::uint16_t mask = 0;
    do mask = static_cast<std::uint16_t>(mask | levelRange());
    while (take(','));
    return ended(mask, "',' and another level, or the end of the rule");
  }

  /// The mask, provided that the rule ends here.
  std::uint16_t ended(std::uint16_t mask, std::string_view expected) const {
    if (!atRuleEnd()) fail(expected);
    return mask;
  }

  std::uint16_t levelRange() {
    const unsigned low = level();
    if (!take('-')) return levelBit(low);
    const std::size_t place = position_;
    const unsigned high = level();
    if (high < low) {
      position_ = place;
      fail(fmt::format("a level not below {}", low));
    }
    // All bits up to `high` except those below `low`.
    return static_cast<std::uint16_t>((2u << high) - (1u << low));
  }

  unsigned level() {
    const std::size_t place = position_;
    unsigned value = 0;
    while (position_ < text_.size() && text_[position_] >= '0' && text_[position_] <= '9' &&
           value < kTraceLevels)
      value = value * 10 + static_cast<unsigned>(text_[position_++] - '0');
    if (position_ == place || value >= kTraceLevels) {
      position_ = place;
      fail(fmt::format("a level from 0 to {}{}", kTraceLevels - 1,
                       place > 0 && text_[place - 1] == '/' ? ", '*' or 'none'" : ""));
    }
    return value;
  }

  bool take(char wanted) {
    if (position_ == text_.size() || text_[position_] != wanted) return false;
    ++position_;
    return true;
  }

  bool atRuleEnd() const {
    return position_ == text_.size() ||
           kBetweenRules.find(text_[position_]) != std::string_view::npos;
  }

  [[noreturn]] void fail(std::string_view expected) const {
    const std::string found =
        position_ == text_.size() ? "the end" : fmt::format("'{}'", text_.substr(position_, 12));
    throw TraceSettingException(
        Fenrik::String(fmt::format(
            "trace setting \"{}\", column {}: expected {}, found {}. A setting is a list of "
            "PATTERN/LEVELS, such as \"TcamEntry*/1-3,8\"; nothing was changed",
            text_, position_ + 1, expected, found)),
        position_ + 1);
  }

  std::string_view text_;
  std::size_t position_ = 0;
};

}  // namespace

bool traceNameFits(std::string_view pattern, std::string_view name) noexcept {
  std::size_t p = 0;
  std::size_t n = 0;
  // Where to resume with the last '*' matching one more character.
  std::size_t starAt = std::string_view::npos;
  std::size_t starName = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      starAt = p++;
      starName = n;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
      ++p;
      ++n;
    } else if (starAt != std::string_view::npos) {
      p = starAt + 1;
      n = ++starName;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

std::vector<TraceRule> traceRulesOf(std::string_view setting) {
  return SettingReader(setting).rules();
}

std::string traceRuleText(const TraceRule& rule) {
  if (rule.mask == kEveryLevel) return rule.pattern + "/*";
  if (rule.mask == 0) return rule.pattern + "/none";
  std::string text = rule.pattern + "/";
  const auto on = [&](unsigned level) { return (rule.mask >> level & 1) != 0; };
  for (unsigned low = 0; low < kTraceLevels; ++low) {
    if (!on(low)) continue;
    unsigned high = low;
    while (high + 1 < kTraceLevels && on(high + 1)) ++high;
    if (text.back() != '/') text += ',';
    text += high == low ? fmt::format("{}", low) : fmt::format("{}-{}", low, high);
    low = high;
  }
  return text;
}

}  // namespace Kiv
