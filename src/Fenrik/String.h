#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "Fenrik/Export.h"

namespace Fenrik {

namespace Impl {

/// What every string of one character type can do; the text lives in the derived value.
template <class Char>
class StringCommon {
 public:
  using View = std::basic_string_view<Char>;

  StringCommon() = default;
  explicit StringCommon(View text) : text_(text) {}
  explicit StringCommon(std::basic_string<Char>&& text) noexcept : text_(std::move(text)) {}

  View view() const noexcept { return text_; }
  /// The text, ended by a zero character.
  const Char* data() const noexcept { return text_.c_str(); }
  std::size_t size() const noexcept { return text_.size(); }
  bool empty() const noexcept { return text_.empty(); }

  /// Appends `text`, which may be a part of this very string.
  void addRight(View text) { text_.append(text); }
  /// Puts `text` in front; it may be a part of this very string.
  void addLeft(View text) { text_.insert(0, std::basic_string<Char>(text)); }

 protected:
  std::basic_string<Char> text_;
};

/// The narrow string.
class QUARNBASTIL_EXPORT StrB : public StringCommon<char> {
 public:
  StrB() = default;
  StrB(const char* text) : StringCommon(View(text)) {}
  StrB(View text) : StringCommon(text) {}
  StrB(std::string&& text) noexcept : StringCommon(std::move(text)) {}

  StrB& operator+=(View text) {
    addRight(text);
    return *this;
  }

  operator View() const noexcept { return view(); }
  std::string str() const { return text_; }

  friend bool operator==(const StrB& a, const StrB& b) noexcept { return a.view() == b.view(); }
  friend bool operator==(const StrB& a, View b) noexcept { return a.view() == b; }
  friend bool operator==(const StrB& a, const char* b) noexcept { return a.view() == b; }
  friend auto operator<=>(const StrB& a, const StrB& b) noexcept { return a.view() <=> b.view(); }

  friend StrB operator+(StrB a, const StrB& b) {
    a.addRight(b.view());
    return a;
  }
  friend StrB operator+(StrB a, View b) {
    a.addRight(b);
    return a;
  }
  friend StrB operator+(StrB a, const char* b) {
    a.addRight(b);
    return a;
  }
  friend StrB operator+(View a, StrB b) {
    b.addLeft(a);
    return b;
  }
  friend StrB operator+(const char* a, StrB b) {
    b.addLeft(a);
    return b;
  }
};

}  // namespace Impl

/// The system's string of names, paths and messages: a value, copied by content.
using String = Impl::StrB;

/// Text in the manner of the fmt library. The format is checked where it is compiled.
template <class... Args>
String formatString(fmt::format_string<Args...> format, Args&&... args) {
  return String(fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace Fenrik

template <>
struct fmt::formatter<Fenrik::String> : fmt::formatter<std::string_view> {
  template <class Context>
  auto format(const Fenrik::String& text, Context& context) const {
    return fmt::formatter<std::string_view>::format(text.view(), context);
  }
};

template <>
struct std::hash<Fenrik::String> {
  std::size_t operator()(const Fenrik::String& text) const noexcept {
    return std::hash<std::string_view>()(text.view());
  }
};
