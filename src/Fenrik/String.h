#pragma once

#include <compare>
#include <cstddef>
#include <iosfwd>  // declares std::string
#include <string_view>
#include <utility>

#include "Fenrik/Export.h"

namespace Fenrik {

namespace Impl {

/// Common part of all string types. Owns its text; an empty string may own nothing. Not based on
/// std::basic_string, because <string> was half of the compile time of a table's users.
template <class Char>
class QUARNBASTIL_EXPORT StringCommon {
 public:
  using View = std::basic_string_view<Char>;

  StringCommon() noexcept = default;
  explicit StringCommon(View text) { addRight(text); }
  StringCommon(const StringCommon& other) : StringCommon(other.view()) {}
  StringCommon(StringCommon&& other) noexcept { swap(other); }
  StringCommon& operator=(const StringCommon& other) {
    if (this != &other) StringCommon(other).swap(*this);
    return *this;
  }
  StringCommon& operator=(StringCommon&& other) noexcept {
    swap(other);
    return *this;
  }
  ~StringCommon() { delete[] text_; }

  View view() const noexcept { return View(data(), size_); }
  /// The text, zero-terminated.
  const Char* data() const noexcept { return text_ != nullptr ? text_ : &kEnd; }
  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }

  /// Appends `text`, which may be part of this string.
  void addRight(View text) { insert(size_, text); }
  /// Prepends `text`, which may be part of this string.
  void addLeft(View text) { insert(0, text); }

  void swap(StringCommon& other) noexcept {
    std::swap(text_, other.text_);
    std::swap(size_, other.size_);
    std::swap(room_, other.room_);
  }

 private:
  void insert(std::size_t at, View text);

  static constexpr Char kEnd{};

  /// Null if nothing has been stored. The text is followed by a zero.
  Char* text_ = nullptr;
  /// Number of characters without the zero.
  std::size_t size_ = 0;
  /// Number of characters allocated, including the zero.
  std::size_t room_ = 0;
};

extern template class StringCommon<char>;

/// The narrow string.
class QUARNBASTIL_EXPORT StrB : public StringCommon<char> {
 public:
  StrB() = default;
  StrB(const char* text) : StringCommon(View(text)) {}
  StrB(View text) : StringCommon(text) {}
  StrB(const std::string& text);

  StrB& operator+=(View text) {
    addRight(text);
    return *this;
  }

  operator View() const noexcept { return view(); }
  std::string str() const;

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

/// The system's string for names, paths and messages: a value type. `Fenrik/Format.h` creates
/// strings by formatting.
using String = Impl::StrB;

}  // namespace Fenrik

template <>
struct std::hash<Fenrik::String> {
  std::size_t operator()(const Fenrik::String& text) const noexcept {
    return std::hash<std::string_view>()(text.view());
  }
};
